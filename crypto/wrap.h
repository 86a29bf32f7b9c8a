// SPDX-License-Identifier: Apache-2.0
// Master-key wrapping over a given KDF table. The exported km_encrypt_key, km_decrypt_key and
// km_get_key_mac_by_password are these with km_kdf_table; tests hand in tables of their own.
#ifndef TAVIKM_CRYPTO_WRAP_H_
#define TAVIKM_CRYPTO_WRAP_H_

#include <stddef.h>
#include <stdint.h>

#include "crypto/kdf.h"
#include "tavikm.h"

int km_encrypt_key_with_kdfs(const km_kdf_table_t& kdfs, const char* password, size_t password_len,
                             const uint8_t* salt, uint8_t* wrapped, const uint8_t* master_key,
                             km_meta* meta);

int km_decrypt_key_with_kdfs(const km_kdf_table_t& kdfs, const char* password, size_t password_len,
                             const uint8_t* salt, const uint8_t* wrapped, uint8_t* master_key,
                             km_meta* meta);

int km_get_key_mac_by_password_with_kdfs(const km_kdf_table_t& kdfs, const uint8_t* wrapped,
                                         const uint8_t* salt, const char* password,
                                         size_t password_len, uint8_t* mac, km_meta* meta);

#endif  // TAVIKM_CRYPTO_WRAP_H_
