// SPDX-License-Identifier: Apache-2.0
// The software Keymaster 4.0 device of the host platform: real AES-GCM and raw RSA over
// libcrypto, key blobs sealed under the device secret, and the HAL's checks and error codes.
#ifndef TAVIKM_HOST_KEYMASTER_SOFT_KEYMASTER_H_
#define TAVIKM_HOST_KEYMASTER_SOFT_KEYMASTER_H_

#include <stdint.h>

#include <string>

#include <keymasterV4_0/Keymaster.h>
#include <keymasterV4_0/authorization_set.h>

#include "key_blob.h"

namespace tavikm_host::km {

using ::android::hardware::Return;

// OK while the key is bound to the current OS version and patch level; KEY_REQUIRES_UPGRADE
// when bound to any other, older or newer (whether it can be upgraded is upgradeKey's call).
hw::ErrorCode CheckOsBinding(const KeyBlobContents& key);

// KEY_USER_NOT_AUTHENTICATED for a key bound to a user's authentication: this hardware has no
// authenticator to vouch for any token.
hw::ErrorCode CheckUserAuthentication(const hw::AuthorizationSet& key_auths);

// UNSUPPORTED_PURPOSE for a purpose the key's algorithm cannot serve here, INCOMPATIBLE_PURPOSE
// for one the key was not made for.
hw::ErrorCode CheckPurpose(const hw::AuthorizationSet& key_auths, hw::KeyPurpose purpose);

class SoftKeymaster : public hw::support::Keymaster {
 public:
  SoftKeymaster(uint32_t level, const std::string& instance_name);

  const VersionResult& halVersion() const override { return version_; }

  Return<void> getHardwareInfo(getHardwareInfo_cb _hidl_cb) override;
  Return<void> generateKey(const hidl_vec<hw::KeyParameter>& keyParams,
                           generateKey_cb _hidl_cb) override;
  Return<void> importKey(const hidl_vec<hw::KeyParameter>& keyParams, hw::KeyFormat keyFormat,
                         const hidl_vec<uint8_t>& keyData, importKey_cb _hidl_cb) override;
  Return<void> getKeyCharacteristics(const hidl_vec<uint8_t>& keyBlob,
                                     const hidl_vec<uint8_t>& clientId,
                                     const hidl_vec<uint8_t>& appData,
                                     getKeyCharacteristics_cb _hidl_cb) override;
  Return<void> exportKey(hw::KeyFormat keyFormat, const hidl_vec<uint8_t>& keyBlob,
                         const hidl_vec<uint8_t>& clientId, const hidl_vec<uint8_t>& appData,
                         exportKey_cb _hidl_cb) override;
  Return<void> upgradeKey(const hidl_vec<uint8_t>& keyBlobToUpgrade,
                          const hidl_vec<hw::KeyParameter>& upgradeParams,
                          upgradeKey_cb _hidl_cb) override;
  Return<hw::ErrorCode> deleteKey(const hidl_vec<uint8_t>& keyBlob) override;
  Return<void> begin(hw::KeyPurpose purpose, const hidl_vec<uint8_t>& keyBlob,
                     const hidl_vec<hw::KeyParameter>& inParams,
                     const hw::HardwareAuthToken& authToken, begin_cb _hidl_cb) override;
  Return<void> update(uint64_t operationHandle, const hidl_vec<hw::KeyParameter>& inParams,
                      const hidl_vec<uint8_t>& input, const hw::HardwareAuthToken& authToken,
                      const hw::VerificationToken& verificationToken, update_cb _hidl_cb) override;
  Return<void> finish(uint64_t operationHandle, const hidl_vec<hw::KeyParameter>& inParams,
                      const hidl_vec<uint8_t>& input, const hidl_vec<uint8_t>& signature,
                      const hw::HardwareAuthToken& authToken,
                      const hw::VerificationToken& verificationToken, finish_cb _hidl_cb) override;
  Return<hw::ErrorCode> abort(uint64_t operationHandle) override;

 private:
  // Opens a blob of this device and checks its application binding against `given`.
  hw::ErrorCode LoadKey(const hidl_vec<uint8_t>& blob, const hw::AuthorizationSet& given,
                        KeyBlobContents* key) const;
  hw::KeyCharacteristics Characteristics(const KeyBlobContents& key) const;
  // Records what the device adds to a new key's authorizations and seals it.
  hw::ErrorCode CompleteKey(const hw::AuthorizationSet& params, hw::KeyOrigin origin,
                            KeyBlobContents* key, std::vector<uint8_t>* blob) const;

  uint32_t level_;
  VersionResult version_;
};

}  // namespace tavikm_host::km

#endif  // TAVIKM_HOST_KEYMASTER_SOFT_KEYMASTER_H_
