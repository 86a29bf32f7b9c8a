// SPDX-License-Identifier: Apache-2.0
// Host version of the Keymaster 4.0 support library's device wrapper: support::Keymaster is an
// IKeymasterDevice that also knows its version record, HAL descriptor and instance name, and
// enumerateAvailableDevices() lists the Keymaster devices of the (emulated) device. On the host
// the list comes from the property host.keymaster.devices, read at each call (see
// tavikm_host/keymaster.h and tavikm_host/keymaster_faults.h for the host-only controls).
#ifndef TAVIKM_HOST_KEYMASTERV4_0_KEYMASTER_H_
#define TAVIKM_HOST_KEYMASTERV4_0_KEYMASTER_H_

#include <stdint.h>

#include <memory>
#include <ostream>
#include <tuple>
#include <vector>

#include <android/hardware/keymaster/4.0/IKeymasterDevice.h>

namespace android {
namespace hardware {
namespace keymaster {
namespace V4_0 {
namespace support {

class Keymaster : public IKeymasterDevice {
 public:
  using KeymasterSet = std::vector<std::unique_ptr<Keymaster>>;

  Keymaster(const hidl_string& descriptor, const hidl_string& instanceName)
      : descriptor_(descriptor), instanceName_(instanceName) {}
  virtual ~Keymaster() {}

  struct VersionResult {
    hidl_string keymasterName;
    hidl_string authorName;
    uint8_t majorVersion = 0;
    SecurityLevel securityLevel = SecurityLevel::SOFTWARE;
    bool supportsEc = false;

    bool operator>(const VersionResult& other) const {
      return std::tie(securityLevel, majorVersion, supportsEc) >
             std::tie(other.securityLevel, other.majorVersion, other.supportsEc);
    }
  };

  virtual const VersionResult& halVersion() const = 0;
  const hidl_string& descriptor() const { return descriptor_; }
  const hidl_string& instanceName() const { return instanceName_; }

  // Every Keymaster device present, in the platform's order (on the host: the order of
  // host.keymaster.devices). Each call makes new objects over the same emulated hardware.
  static KeymasterSet enumerateAvailableDevices();

 private:
  hidl_string descriptor_;
  hidl_string instanceName_;
};

// "<descriptor>/<instance name>".
std::ostream& operator<<(std::ostream& os, const Keymaster& keymaster);

}  // namespace support
}  // namespace V4_0
}  // namespace keymaster
}  // namespace hardware
}  // namespace android

#endif  // TAVIKM_HOST_KEYMASTERV4_0_KEYMASTER_H_
