// SPDX-License-Identifier: Apache-2.0
// The record store's pieces that the library's own rewrites of a record use.
#ifndef TAVIKM_METADATA_STORE_H_
#define TAVIKM_METADATA_STORE_H_

#include <stdint.h>

#include "tavikm.h"

// True when km_get_km_meta / km_put_km_meta keep `key_loc` in secure storage rather than in a
// metadata file (the MDFPP flag is set and the name is not an absolute path).
bool km_place_is_secure_storage(const char* key_loc);

// Writes the 2704-byte record to the secure-storage entry `key_loc`, whatever the MDFPP flag
// says, exactly as km_put_km_meta does for a record kept there: the open's negative result,
// -1 after "Filed to store metadata to TZ Secure Storage\n", or 0.
int km_put_km_meta_to_secure_storage(const char* key_loc, const km_meta* meta);

// Reads the 2704 bytes at `offset` of the metadata file `key_loc` without a word to the log.
// False when the file cannot be opened or holds fewer bytes there.
bool km_peek_file_record(const char* key_loc, int64_t offset, km_meta* meta);

#endif  // TAVIKM_METADATA_STORE_H_
