// SPDX-License-Identifier: Apache-2.0
// The record's Keymaster AES key.
#include "metadata/keys.h"

#include <type_traits>

#include "common/log.h"
#include "common/record_view.h"
#include "tavikm_keymaster.h"

// The record's 64-bit sizes are handed to the services as their unsigned long outputs.
static_assert(std::is_same_v<uint64_t, unsigned long>, "LP64 targets only");

namespace {
// Keymaster object encryption retries after this many seconds while the key is rate limited.
constexpr unsigned kRateLimitSeconds = 1;
constexpr unsigned long kNonceLength = 12;
}  // namespace

keymaster_key_blob_t km_legacy_key_blob(const km_meta* meta) {
  return keymaster_key_blob_t{meta->km_key_blob, km_key_blob_length(meta)};
}

int km_ensure_aes_key(km_meta* meta) {
  if (meta->km_key_blob_size != 0) {
    KM_SLOGI("Already have key");
    return 0;
  }
  int rc = km_with_low_half(&meta->km_key_blob_size, [&](unsigned int* size) {
    return keymaster_create_aes_key_for_mdfpp(meta->km_key_blob, KM_KEY_BLOB_CAPACITY, size);
  });
  if (rc == 0) return 0;
  if (meta->km_key_blob_size > KM_KEY_BLOB_CAPACITY) {
    KM_SLOGE("Keymaster key blob to large)");
    meta->km_key_blob_size = 0;
  }
  KM_SLOGE("Failed to generate a aes key");
  KM_LOGE("Failed to create aes key from keymaster");
  return -1;
}

int km_upgrade_aes_key(km_meta* meta) {
  // The service copies the old blob before it writes the new one, so source and destination
  // may be the record's own field.
  int rc = keymaster_upgrade_key_for_cryptfs_pbkdf2_mdfpp(
      meta->km_key_blob, km_key_blob_length(meta), meta->km_key_blob, KM_KEY_BLOB_CAPACITY,
      &meta->km_key_blob_size);
  if (rc != 0) {
    KM_LOGE("Failed to upgrade key");
    return -1;
  }
  return 0;
}

int km_encrypt_with_record_key(km_meta* meta, const uint8_t* in, unsigned long in_len,
                               unsigned char** out, unsigned int* out_size) {
  // The last three arguments (where an upgraded blob would go) are not used by the service.
  return keymaster_encrypt_object_for_mdfpp(
      meta->km_key_blob, km_key_blob_length(meta), meta->object_iv, kNonceLength, kRateLimitSeconds,
      in, in_len, out, out_size, meta->km_key_blob, KM_KEY_BLOB_CAPACITY, &meta->km_key_blob_size);
}
