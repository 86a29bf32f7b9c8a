// SPDX-License-Identifier: Apache-2.0
// support::Keymaster::enumerateAvailableDevices on the host: the devices host.keymaster.devices
// names, each behind the fault-injection layer of tavikm_host/keymaster_faults.h.
#include <ctype.h>

#include <algorithm>

#include <memory>
#include <string>
#include <vector>

#include <cutils/properties.h>
#include <keymasterV4_0/Keymaster.h>

#include "faults.h"
#include "operations.h"
#include "soft_keymaster.h"
#include "tavikm_host/keymaster.h"

namespace tavikm_host::km {
namespace {

using ::android::hardware::Status;
using ::android::hardware::Void;
using hw::ErrorCode;
using hw::KeyParameter;
using hw::support::Keymaster;

Status TransportFailure(const ScriptedAnswer& answer) {
  return Status::fromExceptionCode(Status::EX_TRANSACTION_FAILED, answer.message.c_str());
}

// Passes every call to the device unless a script answers it instead.
class FaultInjectingKeymaster : public Keymaster {
 public:
  explicit FaultInjectingKeymaster(std::unique_ptr<Keymaster> device)
      : Keymaster(device->descriptor(), device->instanceName()), device_(std::move(device)) {}

  const VersionResult& halVersion() const override { return device_->halVersion(); }

  Return<void> getHardwareInfo(getHardwareInfo_cb _hidl_cb) override {
    if (auto answer = OnKeymasterCall(KeymasterCall::kGetHardwareInfo)) {
      if (answer->transport_failure) return TransportFailure(*answer);
      // No error code to give: answer as the device would.
    }
    return device_->getHardwareInfo(_hidl_cb);
  }

  Return<void> generateKey(const hidl_vec<KeyParameter>& keyParams,
                           generateKey_cb _hidl_cb) override {
    if (auto answer = OnKeymasterCall(KeymasterCall::kGenerateKey)) {
      if (answer->transport_failure) return TransportFailure(*answer);
      _hidl_cb(static_cast<ErrorCode>(answer->error), {}, {});
      return Void();
    }
    return device_->generateKey(keyParams, _hidl_cb);
  }

  Return<void> importKey(const hidl_vec<KeyParameter>& keyParams, hw::KeyFormat keyFormat,
                         const hidl_vec<uint8_t>& keyData, importKey_cb _hidl_cb) override {
    if (auto answer = OnKeymasterCall(KeymasterCall::kImportKey)) {
      if (answer->transport_failure) return TransportFailure(*answer);
      _hidl_cb(static_cast<ErrorCode>(answer->error), {}, {});
      return Void();
    }
    return device_->importKey(keyParams, keyFormat, keyData, _hidl_cb);
  }

  Return<void> getKeyCharacteristics(const hidl_vec<uint8_t>& keyBlob,
                                     const hidl_vec<uint8_t>& clientId,
                                     const hidl_vec<uint8_t>& appData,
                                     getKeyCharacteristics_cb _hidl_cb) override {
    if (auto answer = OnKeymasterCall(KeymasterCall::kGetKeyCharacteristics)) {
      if (answer->transport_failure) return TransportFailure(*answer);
      _hidl_cb(static_cast<ErrorCode>(answer->error), {});
      return Void();
    }
    return device_->getKeyCharacteristics(keyBlob, clientId, appData, _hidl_cb);
  }

  Return<void> exportKey(hw::KeyFormat keyFormat, const hidl_vec<uint8_t>& keyBlob,
                         const hidl_vec<uint8_t>& clientId, const hidl_vec<uint8_t>& appData,
                         exportKey_cb _hidl_cb) override {
    if (auto answer = OnKeymasterCall(KeymasterCall::kExportKey)) {
      if (answer->transport_failure) return TransportFailure(*answer);
      _hidl_cb(static_cast<ErrorCode>(answer->error), {});
      return Void();
    }
    return device_->exportKey(keyFormat, keyBlob, clientId, appData, _hidl_cb);
  }

  Return<void> upgradeKey(const hidl_vec<uint8_t>& keyBlobToUpgrade,
                          const hidl_vec<KeyParameter>& upgradeParams,
                          upgradeKey_cb _hidl_cb) override {
    if (auto answer = OnKeymasterCall(KeymasterCall::kUpgradeKey)) {
      if (answer->transport_failure) return TransportFailure(*answer);
      _hidl_cb(static_cast<ErrorCode>(answer->error), {});
      return Void();
    }
    return device_->upgradeKey(keyBlobToUpgrade, upgradeParams, _hidl_cb);
  }

  Return<ErrorCode> deleteKey(const hidl_vec<uint8_t>& keyBlob) override {
    if (auto answer = OnKeymasterCall(KeymasterCall::kDeleteKey)) {
      if (answer->transport_failure) return TransportFailure(*answer);
      return static_cast<ErrorCode>(answer->error);
    }
    return device_->deleteKey(keyBlob);
  }

  Return<void> begin(hw::KeyPurpose purpose, const hidl_vec<uint8_t>& keyBlob,
                     const hidl_vec<KeyParameter>& inParams, const hw::HardwareAuthToken& authToken,
                     begin_cb _hidl_cb) override {
    if (auto answer = OnKeymasterCall(KeymasterCall::kBegin)) {
      if (answer->transport_failure) return TransportFailure(*answer);
      _hidl_cb(static_cast<ErrorCode>(answer->error), {}, 0);
      return Void();
    }
    return device_->begin(purpose, keyBlob, inParams, authToken, _hidl_cb);
  }

  Return<void> update(uint64_t operationHandle, const hidl_vec<KeyParameter>& inParams,
                      const hidl_vec<uint8_t>& input, const hw::HardwareAuthToken& authToken,
                      const hw::VerificationToken& verificationToken, update_cb _hidl_cb) override {
    if (auto answer = OnKeymasterCall(KeymasterCall::kUpdate)) {
      EndQuietly(operationHandle);
      if (answer->transport_failure) return TransportFailure(*answer);
      _hidl_cb(static_cast<ErrorCode>(answer->error), 0, {}, {});
      return Void();
    }
    hidl_vec<uint8_t> piece;
    piece.setToExternal(const_cast<uint8_t*>(input.data()), std::min(UpdateLimit(), input.size()));
    uint32_t extra = UpdateOverReport();
    return device_->update(
        operationHandle, inParams, piece, authToken, verificationToken,
        [&](ErrorCode error, uint32_t consumed, const hidl_vec<KeyParameter>& outParams,
            const hidl_vec<uint8_t>& output) {
          _hidl_cb(error, error == ErrorCode::OK ? consumed + extra : consumed, outParams, output);
        });
  }

  Return<void> finish(uint64_t operationHandle, const hidl_vec<KeyParameter>& inParams,
                      const hidl_vec<uint8_t>& input, const hidl_vec<uint8_t>& signature,
                      const hw::HardwareAuthToken& authToken,
                      const hw::VerificationToken& verificationToken, finish_cb _hidl_cb) override {
    if (auto answer = OnKeymasterCall(KeymasterCall::kFinish)) {
      EndQuietly(operationHandle);
      if (answer->transport_failure) return TransportFailure(*answer);
      _hidl_cb(static_cast<ErrorCode>(answer->error), {}, {});
      return Void();
    }
    return device_->finish(operationHandle, inParams, input, signature, authToken,
                           verificationToken, _hidl_cb);
  }

  Return<ErrorCode> abort(uint64_t operationHandle) override {
    RecordAbort(operationHandle);
    if (auto answer = OnKeymasterCall(KeymasterCall::kAbort)) {
      if (answer->transport_failure) return TransportFailure(*answer);
      return static_cast<ErrorCode>(answer->error);
    }
    return device_->abort(operationHandle);
  }

 private:
  // A failed step ends the operation on the device, as it would have ended it by itself.
  void EndQuietly(uint64_t handle) { device_->abort(handle).isOk(); }

  std::unique_ptr<Keymaster> device_;
};

std::string Trim(const std::string& s) {
  size_t begin = 0, end = s.size();
  while (begin < end && isspace(static_cast<unsigned char>(s[begin]))) ++begin;
  while (end > begin && isspace(static_cast<unsigned char>(s[end - 1]))) --end;
  return s.substr(begin, end - begin);
}

// host.keymaster.devices; names it does not know are skipped.
std::vector<uint32_t> LevelsFromProperty() {
  char value[PROPERTY_VALUE_MAX];
  property_get("host.keymaster.devices", value, "TRUSTED_ENVIRONMENT");
  std::vector<uint32_t> levels;
  std::string list = value;
  size_t start = 0;
  while (start <= list.size()) {
    size_t comma = list.find(',', start);
    if (comma == std::string::npos) comma = list.size();
    std::string name = Trim(list.substr(start, comma - start));
    if (name == "SOFTWARE")
      levels.push_back(0);
    else if (name == "TRUSTED_ENVIRONMENT")
      levels.push_back(1);
    else if (name == "STRONGBOX")
      levels.push_back(2);
    start = comma + 1;
  }
  return levels;
}

}  // namespace
}  // namespace tavikm_host::km

namespace android {
namespace hardware {
namespace keymaster {
namespace V4_0 {
namespace support {

Keymaster::KeymasterSet Keymaster::enumerateAvailableDevices() {
  KeymasterSet devices;
  if (auto factory = tavikm_host::km::DeviceFactory()) {
    devices = factory();
  } else {
    std::vector<uint32_t> levels =
        tavikm_host::km::DeviceLevelsOverride().value_or(tavikm_host::km::LevelsFromProperty());
    for (size_t i = 0; i < levels.size(); ++i) {
      bool repeated =
          std::find(levels.begin(), levels.begin() + i, levels[i]) != levels.begin() + i;
      devices.push_back(tavikm_host::MakeSoftKeymaster(
          levels[i], tavikm_host::KeymasterInstanceName(levels[i], i, repeated)));
    }
  }
  for (auto& device : devices) {
    if (device) {
      device = std::make_unique<tavikm_host::km::FaultInjectingKeymaster>(std::move(device));
    }
  }
  return devices;
}

std::ostream& operator<<(std::ostream& os, const Keymaster& keymaster) {
  return os << keymaster.descriptor() << "/" << keymaster.instanceName();
}

}  // namespace support
}  // namespace V4_0
}  // namespace keymaster
}  // namespace hardware
}  // namespace android

namespace tavikm_host {

std::string KeymasterInstanceName(uint32_t level, size_t position, bool repeated) {
  std::string name;
  switch (level) {
    case 0:
      name = "software";
      break;
    case 1:
      name = "default";
      break;
    case 2:
      name = "strongbox";
      break;
    default:
      name = "level" + std::to_string(level);
      break;
  }
  if (repeated) name += "_" + std::to_string(position);
  return name;
}

void ResetKeymaster() {
  km::ResetFaults();
  km::ResetOperations();
  SetKeymasterClock({});
}

}  // namespace tavikm_host

const char* android::hardware::keymaster::V4_0::IKeymasterDevice::descriptor =
    tavikm_host::kKeymasterDescriptor;
