// SPDX-License-Identifier: Apache-2.0
// Host version of the Keymaster 4.0 HAL interface (android.hardware.keymaster@4.0::
// IKeymasterDevice): the calls the host's software Keymaster serves, with the HAL's C++
// signatures. Results come through a callback that runs on the calling thread, once, before the
// call returns, whenever the transport succeeds; deleteKey and abort return their ErrorCode.
#ifndef TAVIKM_HOST_ANDROID_HARDWARE_KEYMASTER_V4_0_IKEYMASTERDEVICE_H_
#define TAVIKM_HOST_ANDROID_HARDWARE_KEYMASTER_V4_0_IKEYMASTERDEVICE_H_

#include <stdint.h>

#include <functional>

#include <android/hardware/keymaster/4.0/types.h>
#include <hidl/HidlSupport.h>
#include <hidl/Status.h>

namespace android {
namespace hardware {
namespace keymaster {
namespace V4_0 {

class IKeymasterDevice {
 public:
  static const char* descriptor;  // "android.hardware.keymaster@4.0::IKeymasterDevice"

  virtual ~IKeymasterDevice() = default;

  using getHardwareInfo_cb =
      std::function<void(SecurityLevel securityLevel, const hidl_string& keymasterName,
                         const hidl_string& keymasterAuthorName)>;
  virtual Return<void> getHardwareInfo(getHardwareInfo_cb _hidl_cb) = 0;

  using generateKey_cb = std::function<void(ErrorCode error, const hidl_vec<uint8_t>& keyBlob,
                                            const KeyCharacteristics& keyCharacteristics)>;
  virtual Return<void> generateKey(const hidl_vec<KeyParameter>& keyParams,
                                   generateKey_cb _hidl_cb) = 0;

  using importKey_cb = std::function<void(ErrorCode error, const hidl_vec<uint8_t>& keyBlob,
                                          const KeyCharacteristics& keyCharacteristics)>;
  virtual Return<void> importKey(const hidl_vec<KeyParameter>& keyParams, KeyFormat keyFormat,
                                 const hidl_vec<uint8_t>& keyData, importKey_cb _hidl_cb) = 0;

  using getKeyCharacteristics_cb =
      std::function<void(ErrorCode error, const KeyCharacteristics& keyCharacteristics)>;
  virtual Return<void> getKeyCharacteristics(const hidl_vec<uint8_t>& keyBlob,
                                             const hidl_vec<uint8_t>& clientId,
                                             const hidl_vec<uint8_t>& appData,
                                             getKeyCharacteristics_cb _hidl_cb) = 0;

  using exportKey_cb = std::function<void(ErrorCode error, const hidl_vec<uint8_t>& keyMaterial)>;
  virtual Return<void> exportKey(KeyFormat keyFormat, const hidl_vec<uint8_t>& keyBlob,
                                 const hidl_vec<uint8_t>& clientId,
                                 const hidl_vec<uint8_t>& appData, exportKey_cb _hidl_cb) = 0;

  using upgradeKey_cb =
      std::function<void(ErrorCode error, const hidl_vec<uint8_t>& upgradedKeyBlob)>;
  virtual Return<void> upgradeKey(const hidl_vec<uint8_t>& keyBlobToUpgrade,
                                  const hidl_vec<KeyParameter>& upgradeParams,
                                  upgradeKey_cb _hidl_cb) = 0;

  virtual Return<ErrorCode> deleteKey(const hidl_vec<uint8_t>& keyBlob) = 0;

  using begin_cb = std::function<void(ErrorCode error, const hidl_vec<KeyParameter>& outParams,
                                      uint64_t operationHandle)>;
  virtual Return<void> begin(KeyPurpose purpose, const hidl_vec<uint8_t>& keyBlob,
                             const hidl_vec<KeyParameter>& inParams,
                             const HardwareAuthToken& authToken, begin_cb _hidl_cb) = 0;

  using update_cb =
      std::function<void(ErrorCode error, uint32_t inputConsumed,
                         const hidl_vec<KeyParameter>& outParams, const hidl_vec<uint8_t>& output)>;
  virtual Return<void> update(uint64_t operationHandle, const hidl_vec<KeyParameter>& inParams,
                              const hidl_vec<uint8_t>& input, const HardwareAuthToken& authToken,
                              const VerificationToken& verificationToken, update_cb _hidl_cb) = 0;

  using finish_cb = std::function<void(ErrorCode error, const hidl_vec<KeyParameter>& outParams,
                                       const hidl_vec<uint8_t>& output)>;
  virtual Return<void> finish(uint64_t operationHandle, const hidl_vec<KeyParameter>& inParams,
                              const hidl_vec<uint8_t>& input, const hidl_vec<uint8_t>& signature,
                              const HardwareAuthToken& authToken,
                              const VerificationToken& verificationToken, finish_cb _hidl_cb) = 0;

  virtual Return<ErrorCode> abort(uint64_t operationHandle) = 0;
};

}  // namespace V4_0
}  // namespace keymaster
}  // namespace hardware
}  // namespace android

#endif  // TAVIKM_HOST_ANDROID_HARDWARE_KEYMASTER_V4_0_IKEYMASTERDEVICE_H_
