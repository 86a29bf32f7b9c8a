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

// Reads the secure-storage entry `key_loc` (a short, older generation reads with a zero tail)
// without a word to the log. False when there is none or it is too short to name its record.
bool km_peek_secure_storage_record(const char* key_loc, km_meta* meta);

// Writes the 2704-byte record into the metadata file `key_loc` at `offset`, whatever the MDFPP
// flag says, exactly as km_put_km_meta does for a record kept in a file.
int km_put_km_meta_to_file(const char* key_loc, int64_t offset, const km_meta* meta);

// Where a record in the caller's memory came from: the place of the last successful
// km_get_km_meta or km_put_km_meta of a record with the same salt and wrapped master key. The
// library's own write-backs of records handed to it (the KDFs get only the record) go there,
// never to a place named by the record's bytes.
struct km_record_origin {
  bool secure_storage;
  uint64_t offset;
  char key_loc[4096];
};

// Remembers that `meta` was read from or stored at this place.
void km_remember_origin(const char* key_loc, bool secure_storage, uint64_t offset,
                        const km_meta* meta);
// Forgets every record remembered at this place (it was deleted).
void km_forget_origin(const char* key_loc, bool secure_storage, uint64_t offset);
// True with `*origin` filled when the place of `meta` is known.
bool km_find_origin(const km_meta* meta, km_record_origin* origin);

#endif  // TAVIKM_METADATA_STORE_H_
