// SPDX-License-Identifier: Apache-2.0
// The Keymaster 4.0 client: device selection, the key calls and the operation's update, finish
// and abort, translated between byte strings and the HAL's views and callbacks.
#include "keymaster/Keymaster.h"

#include <stdio.h>
#include <stdlib.h>

#include <utility>

#include "common/byte_string.h"
#include "keymaster/stream_log.h"

namespace android {
namespace mdfpp {

using ::android::hardware::hidl_vec;

namespace {

// A view of the string's bytes, for the length of one HAL call.
hidl_vec<uint8_t> BlobView(const std::string& bytes) {
  hidl_vec<uint8_t> view;
  view.setToExternal(reinterpret_cast<uint8_t*>(const_cast<char*>(bytes.data())), bytes.size());
  return view;
}

hidl_vec<uint8_t> BlobView(const char* bytes, size_t length) {
  hidl_vec<uint8_t> view;
  view.setToExternal(reinterpret_cast<uint8_t*>(const_cast<char*>(bytes)), length);
  return view;
}

// The level's name, or its number as 0x-hex (written into `buffer`) for a level without one.
const char* LevelName(km::SecurityLevel level, char (&buffer)[16]) {
  switch (level) {
    case km::SecurityLevel::SOFTWARE:
      return "SOFTWARE";
    case km::SecurityLevel::TRUSTED_ENVIRONMENT:
      return "TRUSTED_ENVIRONMENT";
    case km::SecurityLevel::STRONGBOX:
      return "STRONGBOX";
  }
  snprintf(buffer, sizeof(buffer), "0x%x", static_cast<unsigned int>(level));
  return buffer;
}

int32_t Code(km::ErrorCode error) { return static_cast<int32_t>(error); }

// A session without a device answers every call with a failure instead of reaching for one.
bool NoDevice(const char* operation) {
  KM_STREAM_LOG(ERROR) << operation << " failed: no Keymaster device";
  return false;
}

}  // namespace

// ---- KeymasterOperation -------------------------------------------------------------------------

KeymasterOperation::~KeymasterOperation() {
  // The result is of no use here: the operation is being dropped whatever it says.
  if (device) device->abort(operationHandle).isOk();
}

KeymasterOperation::KeymasterOperation(KeymasterOperation&& rhs) noexcept
    : device(rhs.device), operationHandle(rhs.operationHandle), errorCode(rhs.errorCode) {
  rhs.device = nullptr;
  rhs.operationHandle = 0;
  rhs.errorCode = km::ErrorCode::UNKNOWN_ERROR;
}

KeymasterOperation& KeymasterOperation::operator=(KeymasterOperation&& rhs) noexcept {
  if (this == &rhs) return *this;
  // Taking over another operation must not leave this one open on the device.
  if (device) device->abort(operationHandle).isOk();
  device = rhs.device;
  operationHandle = rhs.operationHandle;
  errorCode = rhs.errorCode;
  rhs.device = nullptr;
  rhs.operationHandle = 0;
  rhs.errorCode = km::ErrorCode::UNKNOWN_ERROR;
  return *this;
}

bool KeymasterOperation::updateCompletely(const char* input, size_t inputLen,
                                          std::function<void(const char*, size_t)> consumer) {
  uint32_t consumed = 0;
  if (inputLen == 0) return true;
  if (!device) return false;  // failed, closed or moved from: nothing to feed
  if (!input || !consumer) {
    // Nothing can be fed or nothing received: the operation is aborted and over.
    KM_STREAM_LOG(ERROR) << "update failed: " << (!input ? "input" : "consumer") << " is missing";
    device->abort(operationHandle).isOk();
    device = nullptr;
    return false;
  }
  km::ErrorCode kmError = km::ErrorCode::UNKNOWN_ERROR;
  auto callback = [&](km::ErrorCode error, uint32_t inputConsumed,
                      const hidl_vec<km::KeyParameter>& /*outParams*/,
                      const hidl_vec<uint8_t>& output) {
    kmError = error;
    if (kmError != km::ErrorCode::OK) return;
    consumed += inputConsumed;
    consumer(reinterpret_cast<const char*>(output.data()), output.size());
  };
  // No bound on the number of calls: the device decides how much it takes each time, as long
  // as it takes something.
  while (true) {
    const uint32_t before = consumed;
    auto rc = device->update(operationHandle, hidl_vec<km::KeyParameter>(),
                             BlobView(input + consumed, inputLen - consumed),
                             km::HardwareAuthToken(), km::VerificationToken(), callback);
    if (!rc.isOk()) {
      KM_STREAM_LOG(ERROR) << "update failed: " << rc.description();
      device = nullptr;
      return false;
    }
    if (kmError != km::ErrorCode::OK) {
      KM_STREAM_LOG(ERROR) << "update failed, code " << Code(kmError);
      device = nullptr;
      return false;
    }
    if (consumed > inputLen) {
      KM_STREAM_LOG(ERROR) << "update reported too much input consumed";
      device = nullptr;
      return false;
    }
    if (consumed == inputLen) return true;
    if (consumed == before) {
      // OK with nothing taken: asking again would spin for ever. The operation is still open on
      // the device, so it is aborted; the caller reports the failed step.
      device->abort(operationHandle).isOk();
      device = nullptr;
      return false;
    }
  }
}

bool KeymasterOperation::finish(std::string* output) {
  if (!device) return false;  // failed, closed or moved from: nothing to finish
  km::ErrorCode kmError = km::ErrorCode::UNKNOWN_ERROR;
  auto callback = [&](km::ErrorCode error, const hidl_vec<km::KeyParameter>& /*outParams*/,
                      const hidl_vec<uint8_t>& out) {
    kmError = error;
    if (kmError != km::ErrorCode::OK) return;
    if (output) *output = tavikm::ByteString(out.data(), out.size());
  };
  auto rc = device->finish(operationHandle, hidl_vec<km::KeyParameter>(), hidl_vec<uint8_t>(),
                           hidl_vec<uint8_t>(), km::HardwareAuthToken(), km::VerificationToken(),
                           callback);
  // Over either way: a failed finish ends the operation on the device too.
  device = nullptr;
  if (!rc.isOk()) {
    KM_STREAM_LOG(ERROR) << "finish failed: " << rc.description();
    return false;
  }
  if (kmError != km::ErrorCode::OK) {
    KM_STREAM_LOG(ERROR) << "finish failed, code " << Code(kmError);
    return false;
  }
  return true;
}

// ---- Keymaster ----------------------------------------------------------------------------------

Keymaster::Keymaster() {
  auto devices = km::support::Keymaster::enumerateAvailableDevices();
  for (auto& candidate : devices) {
    // StrongBox is never used, on purpose: not even when it comes first or is all there is.
    if (candidate->halVersion().securityLevel == km::SecurityLevel::STRONGBOX) continue;
    device = std::move(candidate);
    break;
  }
  if (!device) return;
  const auto& version = device->halVersion();
  char level[16];
  KM_STREAM_LOG(INFO) << "Using " << version.keymasterName << " from " << version.authorName
                      << " for encryption.  Security level: "
                      << LevelName(version.securityLevel, level)
                      << ", HAL: " << device->descriptor() << "/" << device->instanceName();
}

bool Keymaster::generateKey(const km::AuthorizationSet& inParams, std::string* key) {
  if (!device) return NoDevice("generate_key");
  km::ErrorCode kmError = km::ErrorCode::UNKNOWN_ERROR;
  auto callback = [&](km::ErrorCode error, const hidl_vec<uint8_t>& keyBlob,
                      const km::KeyCharacteristics& /*characteristics*/) {
    kmError = error;
    if (kmError != km::ErrorCode::OK) return;
    if (key) *key = tavikm::ByteString(keyBlob.data(), keyBlob.size());
  };
  auto rc = device->generateKey(inParams.hidl_data(), callback);
  if (!rc.isOk()) {
    KM_STREAM_LOG(ERROR) << "generate_key failed: " << rc.description();
    return false;
  }
  if (kmError != km::ErrorCode::OK) {
    KM_STREAM_LOG(ERROR) << "generate_key failed, code " << Code(kmError);
    return false;
  }
  return true;
}

bool Keymaster::deleteKey(const std::string& key) {
  if (!device) return NoDevice("delete_key");
  auto rc = device->deleteKey(BlobView(key));
  if (!rc.isOk()) {
    KM_STREAM_LOG(ERROR) << "delete_key failed: " << rc.description();
    return false;
  }
  km::ErrorCode kmError = rc;
  if (kmError != km::ErrorCode::OK) {
    KM_STREAM_LOG(ERROR) << "delete_key failed, code " << Code(kmError);
    return false;
  }
  return true;
}

bool Keymaster::upgradeKey(const std::string& oldKey, const km::AuthorizationSet& inParams,
                           std::string* newKey) {
  if (!device) return NoDevice("upgrade_key");
  km::ErrorCode kmError = km::ErrorCode::UNKNOWN_ERROR;
  auto callback = [&](km::ErrorCode error, const hidl_vec<uint8_t>& upgradedKeyBlob) {
    kmError = error;
    if (kmError != km::ErrorCode::OK) return;
    if (newKey) *newKey = tavikm::ByteString(upgradedKeyBlob.data(), upgradedKeyBlob.size());
  };
  auto rc = device->upgradeKey(BlobView(oldKey), inParams.hidl_data(), callback);
  if (!rc.isOk()) {
    KM_STREAM_LOG(ERROR) << "upgrade_key failed: " << rc.description();
    return false;
  }
  if (kmError != km::ErrorCode::OK) {
    KM_STREAM_LOG(ERROR) << "upgrade_key failed, code " << Code(kmError);
    return false;
  }
  return true;
}

KeymasterOperation Keymaster::begin(km::KeyPurpose purpose, const std::string& key,
                                    const km::AuthorizationSet& inParams,
                                    const km::HardwareAuthToken& authToken,
                                    km::AuthorizationSet* outParams) {
  if (!device) {
    NoDevice("begin");
    return KeymasterOperation(km::ErrorCode::UNKNOWN_ERROR);
  }
  km::ErrorCode kmError = km::ErrorCode::UNKNOWN_ERROR;
  uint64_t handle = 0;
  auto callback = [&](km::ErrorCode error, const hidl_vec<km::KeyParameter>& params,
                      uint64_t operationHandle) {
    kmError = error;
    if (kmError != km::ErrorCode::OK) return;
    if (outParams) *outParams = params;
    handle = operationHandle;
  };
  auto rc = device->begin(purpose, BlobView(key), inParams.hidl_data(), authToken, callback);
  if (!rc.isOk()) {
    KM_STREAM_LOG(ERROR) << "begin failed: " << rc.description();
    return KeymasterOperation(km::ErrorCode::UNKNOWN_ERROR);
  }
  if (kmError != km::ErrorCode::OK) {
    // Handed back as it is: callers tell a rate limit or a needed upgrade from other failures.
    KM_STREAM_LOG(ERROR) << "begin failed, code " << Code(kmError);
    return KeymasterOperation(kmError);
  }
  return KeymasterOperation(device.get(), handle);
}

bool Keymaster::isSecure() {
  if (!device) return NoDevice("is_secure");
  return device->halVersion().securityLevel != km::SecurityLevel::SOFTWARE;
}

}  // namespace mdfpp
}  // namespace android
