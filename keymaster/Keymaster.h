// SPDX-License-Identifier: Apache-2.0
// The library's client of the Keymaster 4.0 HAL: Keymaster picks one device and generates,
// upgrades and deletes keys and begins operations on it; KeymasterOperation carries one begun
// operation through update and finish, and aborts it when it is dropped unfinished. Key blobs
// are byte strings (std::string holding raw bytes). Both classes live for one library call, and
// both are part of the library's interface: their out-of-line members are exported (inline ones
// are compiled into the caller).
#ifndef TAVIKM_KEYMASTER_KEYMASTER_H_
#define TAVIKM_KEYMASTER_KEYMASTER_H_

#include <android/hardware/keymaster/4.0/IKeymasterDevice.h>
#include <keymasterV4_0/Keymaster.h>
#include <keymasterV4_0/authorization_set.h>
#include <stddef.h>
#include <stdint.h>

#include <functional>
#include <memory>
#include <string>

#include "tavikm.h"

namespace android {
namespace mdfpp {

namespace km = ::android::hardware::keymaster::V4_0;

// Members of the exported classes that are not part of the interface.
#define TAVIKM_HIDDEN __attribute__((visibility("hidden")))

class Keymaster;

// One operation on a Keymaster device. Live while `device` is set: then it has to be finished,
// or it is aborted on destruction. Only Keymaster::begin makes one.
class TAVIKM_EXPORT KeymasterOperation {
 public:
  ~KeymasterOperation();
  // The target takes over the operation; the source is left failed with UNKNOWN_ERROR, so the
  // HAL operation is aborted by one object at most. Assigning into a live operation aborts that
  // one first.
  KeymasterOperation(KeymasterOperation&& rhs) noexcept;
  KeymasterOperation& operator=(KeymasterOperation&& rhs) noexcept;
  KeymasterOperation(const KeymasterOperation&) = delete;
  KeymasterOperation& operator=(const KeymasterOperation&) = delete;

  // OK for a live operation; begin's error, or UNKNOWN_ERROR once moved from.
  km::ErrorCode getErrorCode() const { return errorCode; }

  // Feeds all `inputLen` bytes to the device, in as many update calls as it takes, passing each
  // call's output to `consumer` in order (also when empty). False, logged, when an update fails
  // or the device claims more input than it was given; the operation is then over (not to be
  // finished, and not aborted: the device ended it). False, unlogged, when an update takes none
  // of the input left: the operation is then aborted and over.
  bool updateCompletely(const char* input, size_t inputLen,
                        std::function<void(const char*, size_t)> consumer);

  // Same over string-like input and output: `*output` (if any) is emptied first and receives
  // everything the device produced.
  template <typename TI, typename TO>
  bool updateCompletely(const TI& input, TO* output) {
    if (output) output->clear();
    return updateCompletely(reinterpret_cast<const char*>(input.data()), input.size(),
                            [output](const char* piece, size_t length) {
                              if (output && length) output->append(piece, length);
                            });
  }

  // Ends the operation. True when the device finished it; its last output then replaces
  // `*output` (if any). The operation is over either way.
  bool finish(std::string* output);

 private:
  friend class Keymaster;

  // The bodies of updateCompletely and finish, which stop an allocation failure. Not exported.
  TAVIKM_HIDDEN bool updateAll(const char* input, size_t inputLen,
                               const std::function<void(const char*, size_t)>& consumer);
  TAVIKM_HIDDEN bool finishOnce(std::string* output);

  KeymasterOperation(km::support::Keymaster* d, uint64_t h)
      : device(d), operationHandle(h), errorCode(km::ErrorCode::OK) {}
  explicit KeymasterOperation(km::ErrorCode error)
      : device(nullptr), operationHandle(0), errorCode(error) {}

  // Not owned: the Keymaster that began the operation outlives it.
  km::support::Keymaster* device;
  uint64_t operationHandle;
  km::ErrorCode errorCode;
};

// A session with the first Keymaster 4.0 device that is not StrongBox. Without one the object
// converts to false, and no other member may be called.
class TAVIKM_EXPORT Keymaster {
 public:
  Keymaster();
  Keymaster(const Keymaster&) = delete;
  Keymaster& operator=(const Keymaster&) = delete;

  explicit operator bool() const { return device != nullptr; }

  // True when the device made the key; its blob then replaces `*key` (if any).
  bool generateKey(const km::AuthorizationSet& inParams, std::string* key);
  // True when the device deleted the key.
  bool deleteKey(const std::string& key);
  // True when the device upgraded `oldKey`; the new blob then replaces `*newKey` (if any).
  bool upgradeKey(const std::string& oldKey, const km::AuthorizationSet& inParams,
                  std::string* newKey);
  // A live operation, or a failed one carrying the HAL's own error code (UNKNOWN_ERROR when the
  // transport failed). `*outParams` (if any) receives the device's output parameters, and keeps
  // its entries when the device returns none.
  KeymasterOperation begin(km::KeyPurpose purpose, const std::string& key,
                           const km::AuthorizationSet& inParams,
                           const km::HardwareAuthToken& authToken, km::AuthorizationSet* outParams);
  // True for a TRUSTED_ENVIRONMENT or STRONGBOX device (anything but SOFTWARE).
  bool isSecure();

 private:
  // The bodies of the members above, which stop an allocation failure (see common/no_throw.h).
  // Not exported.
  TAVIKM_HIDDEN void selectDevice();
  TAVIKM_HIDDEN bool generateKeyOnce(const km::AuthorizationSet& inParams, std::string* key);
  TAVIKM_HIDDEN bool deleteKeyOnce(const std::string& key);
  TAVIKM_HIDDEN bool upgradeKeyOnce(const std::string& oldKey, const km::AuthorizationSet& inParams,
                                    std::string* newKey);
  TAVIKM_HIDDEN KeymasterOperation beginOnce(km::KeyPurpose purpose, const std::string& key,
                                             const km::AuthorizationSet& inParams,
                                             const km::HardwareAuthToken& authToken,
                                             km::AuthorizationSet* outParams);

  std::unique_ptr<km::support::Keymaster> device;
};

}  // namespace mdfpp
}  // namespace android

#endif  // TAVIKM_KEYMASTER_KEYMASTER_H_
