// SPDX-License-Identifier: Apache-2.0
// Bringing records of older generations, read from secure storage, to the current one.
#ifndef TAVIKM_METADATA_UPGRADE_H_
#define TAVIKM_METADATA_UPGRADE_H_

#include <stdint.h>

#include "tavikm.h"

// A secure-storage record of `stored_length` bytes (not 2704) was read into `meta`. Returns 0
// when the read may go on to the version test, -1 when the record is refused.
int km_meta_upgrade_size(const char* key_loc, km_meta* meta, uint64_t stored_length);

// `meta` has major_version 2 or less: moves its KEK into the record and writes it back.
// The result is what km_get_km_meta returns.
int km_meta_upgrade_kek(const char* key_loc, km_meta* meta);

#endif  // TAVIKM_METADATA_UPGRADE_H_
