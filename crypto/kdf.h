// SPDX-License-Identifier: Apache-2.0
// The KDF table: the five key-derivation functions of a record, indexed by kdf_type - 1.
#ifndef TAVIKM_CRYPTO_KDF_H_
#define TAVIKM_CRYPTO_KDF_H_

#include <stdint.h>

#include <array>

#include "tavikm.h"

using km_kdf_table_t = std::array<km_kdf_fn, 5>;

// The library's table. Every entry is non-null.
extern const km_kdf_table_t km_kdf_table;

// scrypt's N, r and p from a record's log2 factors: 32-bit shifts of 1 (counts modulo 32), N
// formed as a signed 32-bit value and widened with its sign, so a factor of 31 gives a huge N
// that crypto_scrypt refuses.
struct km_scrypt_cost {
  uint64_t N;
  uint32_t r;
  uint32_t p;
};
km_scrypt_cost km_scrypt_cost_of(const km_meta* meta);

// The entry of `table` for `kdf_type`, or null (after logging "KDF(%d) is not supported") for
// kdf_type 0 and types above 5.
km_kdf_fn km_kdf_lookup(const km_kdf_table_t& table, uint8_t kdf_type);

#endif  // TAVIKM_CRYPTO_KDF_H_
