// SPDX-License-Identifier: Apache-2.0
// The emulated Keymaster's key blobs: key material, authorizations and the hidden application
// binding, sealed with AES-256-GCM under a key derived from the device secret.
#ifndef TAVIKM_HOST_KEYMASTER_KEY_BLOB_H_
#define TAVIKM_HOST_KEYMASTER_KEY_BLOB_H_

#include <stddef.h>
#include <stdint.h>

#include <vector>

#include <keymasterV4_0/authorization_set.h>

#include "secret_bytes.h"

namespace tavikm_host::km {

namespace hw = ::android::hardware::keymaster::V4_0;
using ::android::hardware::hidl_string;
using ::android::hardware::hidl_vec;

struct KeyBlobContents {
  // Security level of the device that made the key.
  uint32_t level = 0;
  // Every authorization of the key, including ORIGIN, OS_VERSION, OS_PATCHLEVEL and
  // CREATION_DATETIME; never APPLICATION_ID or APPLICATION_DATA.
  hw::AuthorizationSet authorizations;
  // APPLICATION_ID / APPLICATION_DATA given at generation; every use must give the same.
  hw::AuthorizationSet hidden;
  // AES: the raw key. RSA: the private key, DER (PKCS#1).
  SecretBytes material;
};

// Seals `contents` into `blob`. False when the device secret is unavailable or sealing fails.
bool SealKeyBlob(const KeyBlobContents& contents, std::vector<uint8_t>* blob);

// Opens a blob of this device directory. False for anything else: a changed byte, a blob
// sealed under another device secret, a malformed one, or a deleted key.
bool OpenKeyBlob(const uint8_t* blob, size_t size, KeyBlobContents* contents);

// The APPLICATION_ID / APPLICATION_DATA entries of `params`, as the key's hidden binding holds
// them.
hw::AuthorizationSet HiddenParams(const hw::AuthorizationSet& params);
hw::AuthorizationSet HiddenParams(const hidl_vec<uint8_t>& clientId,
                                  const hidl_vec<uint8_t>& appData);

// True when `given` carries exactly the application binding the key was made with.
bool HiddenMatches(const KeyBlobContents& contents, const hw::AuthorizationSet& given);

}  // namespace tavikm_host::km

#endif  // TAVIKM_HOST_KEYMASTER_KEY_BLOB_H_
