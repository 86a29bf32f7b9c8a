// SPDX-License-Identifier: Apache-2.0
// The KDF table and its two plain entries, PBKDF2-HMAC-SHA256 and scrypt. Both read their
// parameters from the caller's record; neither reports failure, see km_scrypt.
#include "crypto/kdf.h"

#include <openssl/evp.h>

#include "common/log.h"
#include "crypto/scrypt_keymaster.h"

namespace {

constexpr unsigned kSaltLength = 16;
constexpr unsigned kPbkdf2Iterations = 8192;

int km_pbkdf2(const char* password, unsigned long password_len, const unsigned char* salt,
              unsigned char* out, void* params) {
  const auto* meta = static_cast<const km_meta*>(params);
  KM_LOGI("Using pbkdf2 for KDF");
  // The result is not examined: a failure leaves `out` as the caller zeroed it, and the callers
  // refuse an all-zero key.
  PKCS5_PBKDF2_HMAC(password, password_len, salt, kSaltLength, kPbkdf2Iterations, EVP_sha256(),
                    meta->keysize, out);
  return 0;
}

int km_scrypt(const char* password, unsigned long password_len, const unsigned char* salt,
              unsigned char* out, void* params) {
  const auto* meta = static_cast<const km_meta*>(params);
  const km_scrypt_cost cost = km_scrypt_cost_of(meta);
  KM_LOGI("Using scrypt for KDF");
  // Deliberately 0 whatever scrypt says: a failed run leaves `out` all zero, which the callers
  // refuse ("key is null").
  crypto_scrypt(reinterpret_cast<const uint8_t*>(password), password_len, salt, kSaltLength, cost.N,
                cost.r, cost.p, out, meta->keysize);
  return 0;
}

}  // namespace

const km_kdf_table_t km_kdf_table = {
    km_pbkdf2,            // 1: PBKDF2
    km_scrypt,            // 2: scrypt
    km_scrypt_keymaster,  // 3: kept in the numbering; the entry refuses it after its first scrypt
    km_pbkdf2_rek,        // 4: PBKDF2 with the REK
    km_scrypt_keymaster,  // 5: scrypt bound to the Keymaster
};

km_scrypt_cost km_scrypt_cost_of(const km_meta* meta) {
  const int32_t n32 = static_cast<int32_t>(UINT32_C(1) << (meta->N_factor & 31));
  return km_scrypt_cost{static_cast<uint64_t>(static_cast<int64_t>(n32)),
                        UINT32_C(1) << (meta->r_factor & 31), UINT32_C(1) << (meta->p_factor & 31)};
}

km_kdf_fn km_kdf_lookup(const km_kdf_table_t& table, uint8_t kdf_type) {
  // kdf_type 0 wraps to a huge index and is refused with the types above 5.
  const unsigned index = static_cast<unsigned>(kdf_type) - 1u;
  if (index >= table.size()) {
    KM_LOGE("KDF(%d) is not supported", kdf_type);
    return nullptr;
  }
  return table[index];
}
