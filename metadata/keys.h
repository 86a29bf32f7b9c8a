// SPDX-License-Identifier: Apache-2.0
// The record's Keymaster AES key and the Keymaster 4.0 object encryption of small secrets with
// it, as the setup, the REK/KEK store and the upgrade of older records use them.
#ifndef TAVIKM_METADATA_KEYS_H_
#define TAVIKM_METADATA_KEYS_H_

#include <stdint.h>

#include <hardware/keymaster_defs.h>

#include "common/log.h"
#include "common/record_view.h"
#include "tavikm.h"

// The record's key blob in the legacy Keymaster's terms.
keymaster_key_blob_t km_legacy_key_blob(const km_meta* meta);

// Creates the record's AES key unless it has one ("Already have key"). On failure the size is
// reset when the blob did not fit, the failure is logged, and -1 returned.
int km_ensure_aes_key(km_meta* meta);

// Upgrades the record's AES key blob in place. 0, or -1 after "Failed to upgrade key".
int km_upgrade_aes_key(km_meta* meta);

// Upgrades the record's AES key, then stores the record with `store()` so the upgrade lasts.
// -1 when the upgrade fails; the store's negative result, after "Failed to write upgraded
// km_meta\n", when storing fails; 0 otherwise.
template <typename Store>
int km_upgrade_aes_key_and_store(km_meta* meta, Store&& store) {
  if (km_upgrade_aes_key(meta) != 0) return -1;
  const int rc = store();
  if (rc < 0) {
    KM_LOGE("Failed to write upgraded km_meta\n");
    return rc;
  }
  return 0;
}

// Object encryption with the record's AES key and the first 12 bytes of object_iv as nonce.
// `out_size` is updated in place. Returns the service's result (0, -1, -2).
int km_encrypt_with_record_key(km_meta* meta, const uint8_t* in, unsigned long in_len,
                               unsigned char** out, unsigned int* out_size);

// Runs `fn` with a 32-bit length whose value is the low half of `*field`, and stores what `fn`
// leaves in it back into that low half: callers hand the services the low half of a 64-bit
// record field as their 32-bit length output, as the record's little-endian layout allows.
template <typename Fn>
int km_with_low_half(uint64_t* field, Fn fn) {
  unsigned int low = static_cast<unsigned int>(*field);
  int rc = fn(&low);
  *field = (*field & ~uint64_t{0xFFFFFFFF}) | low;
  return rc;
}

#endif  // TAVIKM_METADATA_KEYS_H_
