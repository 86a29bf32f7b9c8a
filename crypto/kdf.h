// The KDF table: the five key-derivation functions of a record, indexed by kdf_type - 1.
#ifndef TAVIKM_CRYPTO_KDF_H_
#define TAVIKM_CRYPTO_KDF_H_

#include <stdint.h>

#include <array>

#include "tavikm.h"

using km_kdf_table_t = std::array<km_kdf_fn, 5>;

// The library's table. Every entry is non-null.
extern const km_kdf_table_t km_kdf_table;

// The entry of `table` for `kdf_type`, or null (after logging "KDF(%d) is not supported") for
// kdf_type 0 and types above 5.
km_kdf_fn km_kdf_lookup(const km_kdf_table_t& table, uint8_t kdf_type);

#endif  // TAVIKM_CRYPTO_KDF_H_
