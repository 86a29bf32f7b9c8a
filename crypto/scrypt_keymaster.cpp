// SPDX-License-Identifier: Apache-2.0
// The KDF of kdf_type 5 (and, nominally, 3): scrypt, a raw RSA signature by the record's
// Keymaster key, and scrypt again over the signature. The final key can only be computed where
// that Keymaster and the record's key blob are at hand.
#include "crypto/scrypt_keymaster.h"

#include <stdlib.h>
#include <string.h>

#include <algorithm>

#include <openssl/crypto.h>

#include "common/key_upgrade.h"
#include "common/log.h"
#include "common/record_view.h"
#include "common/scopers.h"
#include "crypto/kdf.h"
#include "tavikm.h"
#include "tavikm_keymaster.h"

namespace {

constexpr size_t kSaltLength = 16;
// A raw RSA-2048 input: one leading zero byte keeps it below any 2048-bit modulus.
constexpr size_t kObjectLength = 256;
constexpr unsigned kRsaKeySize = 2048;
constexpr unsigned long kRsaExponent = 65537;
constexpr unsigned kRateLimitSeconds = 1;

}  // namespace

int km_scrypt_keymaster(const char* password, unsigned long password_len, const unsigned char* salt,
                        unsigned char* out, void* params) {
  auto* meta = static_cast<km_meta*>(params);
  const km_scrypt_cost cost = km_scrypt_cost_of(meta);
  KM_LOGI("Using scrypt with keymaster for KDF");

  if (crypto_scrypt(reinterpret_cast<const uint8_t*>(password), password_len, salt, kSaltLength,
                    cost.N, cost.r, cost.p, out, meta->keysize) != 0) {
    KM_LOGE("scrypt failed");
    return -1;
  }
  uint8_t object[kObjectLength] = {};
  memcpy(object + 1, out, std::min<uint64_t>(meta->keysize, kObjectLength - 1));

  // Type 3 shares this entry and is refused only now, after the first scrypt.
  if (meta->kdf_type != KM_KDF_SCRYPT_KEYMASTER) {
    KM_LOGE("Unknown KDF type %d", meta->kdf_type);
    KM_LOGE("Signing failed");
    OPENSSL_cleanse(object, sizeof(object));
    return -1;
  }
  KM_LOGI("Signing safely-padded object");

  unsigned char* signature = nullptr;
  unsigned long signature_size = 0;
  // A key bound to an older system is upgraded in place in the caller's record, as often as
  // the Keymaster asks; the caller stores the record for the upgrade to last.
  const int rc = tavikm::RetryAfterKeyUpgrade(
      tavikm::kAsOftenAsAsked,
      [&](bool) {
        return keymaster_sign_object_for_cryptfs_scrypt_mdfpp(
            meta->km_key_blob, km_key_blob_length(meta), kRateLimitSeconds, object, sizeof(object),
            &signature, &signature_size);
      },
      [&] {
        if (keymaster_upgrade_key_for_cryptfs_scrypt_mdfpp(
                kRsaKeySize, kRsaExponent, kRateLimitSeconds, meta->km_key_blob,
                km_key_blob_length(meta), meta->km_key_blob, KM_KEY_BLOB_CAPACITY,
                &meta->km_key_blob_size) == 0) {
          return 0;
        }
        KM_LOGE("Failed to upgrade key");
        return -1;
      });
  OPENSSL_cleanse(object, sizeof(object));
  if (rc != 0) {
    KM_LOGE("Signing failed");
    return -1;
  }

  const tavikm::ScopedWipedBuffer owned_signature(signature, signature_size);
  if (crypto_scrypt(signature, signature_size, salt, kSaltLength, cost.N, cost.r, cost.p, out,
                    meta->keysize) != 0) {
    KM_LOGE("scrypt failed");
    return -1;
  }
  return 0;
}
