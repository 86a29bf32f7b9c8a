// SPDX-License-Identifier: Apache-2.0
// The Keymaster-bound scrypt KDF (kdf_type 5, and 3 which it refuses).
#ifndef TAVIKM_CRYPTO_SCRYPT_KEYMASTER_H_
#define TAVIKM_CRYPTO_SCRYPT_KEYMASTER_H_

// A KDF of the table: `params` is the record, whose key blob may be upgraded in place.
// 0 or -1.
int km_scrypt_keymaster(const char* password, unsigned long password_len, const unsigned char* salt,
                        unsigned char* out, void* params);

#endif  // TAVIKM_CRYPTO_SCRYPT_KEYMASTER_H_
