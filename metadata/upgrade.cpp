// SPDX-License-Identifier: Apache-2.0
// Records of older generations, read from secure storage, brought to the current one: shorter
// records are reported (and the 2592-byte generation rewritten at full length), and records
// with major_version 2 or less get their KEK moved from the separate "%s_kek" entry into the
// record, encrypted by the Keymaster, before they are written back.
#include "metadata/upgrade.h"

#include <errno.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include <algorithm>

#include <openssl/crypto.h>

#include "common/flags.h"
#include "common/key_upgrade.h"
#include "common/log.h"
#include "common/record_view.h"
#include "common/scopers.h"
#include "keymaster/legacy_keymaster.h"
#include "metadata/keys.h"
#include "metadata/store.h"
#include "tavikm.h"

namespace {

// Writes the whole record to secure storage under `key_loc`.
int WriteBack(const char* key_loc, const km_meta* meta) {
  kmstore_device* device = nullptr;
  if (kmstore_device_init(&device) < 0 || !device ||
      device->write(key_loc, reinterpret_cast<const uint8_t*>(meta), sizeof(*meta)) < 0) {
    KM_LOGE("Failed to write upgraded km_meta");
    return -1;
  }
  return 0;
}

// "<key_name>_kek" in a 256-byte buffer. A name too long for it is a broken record: the read
// fails with one line rather than format past the buffer.
bool KekEntryName(const km_meta* meta, char (&name)[256]) {
  const tavikm::RecordView view(meta);
  const size_t length = static_cast<size_t>(view.key_name_length());
  if (!view.ok(tavikm::RecordView::kKeyName) || length + sizeof("_kek") > sizeof(name)) {
    KM_LOGE("key name of %zu bytes is too long for its kek entry", length);
    return false;
  }
  memcpy(name, meta->key_name, length);
  memcpy(name + length, "_kek", sizeof("_kek"));
  return true;
}

// Whether the record read from `key_loc` is the one its "_kek" entry belongs to. A copy of a
// record under another name shares the entry with its original, which still needs it.
bool OwnsKekEntry(const char* key_loc, const km_meta* meta) {
  const tavikm::RecordView view(meta);
  const size_t length = static_cast<size_t>(view.key_name_length());
  return strlen(key_loc) == length && memcmp(key_loc, meta->key_name, length) == 0;
}

// Encrypts the KEK with Keymaster 4.0 object encryption into xtkm_value.
int EncryptKekByKeymaster4(const char* key_loc, km_meta* meta, const uint8_t* kek,
                           uint64_t kek_len) {
  unsigned char* out = nullptr;
  unsigned int out_len = 0;
  // Encrypt once more with the upgraded key: the first attempt produced nothing. Every failure
  // of the encryption itself is -1 here; a failed store keeps its own result.
  const int rc = tavikm::RetryAfterKeyUpgrade(
      1,
      [&](bool upgraded) {
        const int r = km_with_low_half(&meta->xtkm_value_size, [&](unsigned int* size) {
          const int encrypted = km_encrypt_with_record_key(meta, kek, kek_len, &out, size);
          out_len = *size;
          return encrypted;
        });
        if (r >= 0) return r;
        KM_LOGE("%s : Failed to encrypt KEK by keymaster, rc=%d", "km_get_km_meta", r);
        if (upgraded) return -1;
        if (r == tavikm::kKeyRequiresUpgrade) return r;
        KM_LOGE("%s : Failed to upgrade key", "km_get_km_meta");
        return -1;
      },
      // Back to the entry the record was read from, never to one its own name gives.
      [&] {
        return km_upgrade_aes_key_and_store(
            meta, [&] { return km_put_km_meta_to_secure_storage(key_loc, meta); });
      });
  if (rc < 0) return rc;
  // The output is the KEK plus its 16-byte tag: copy what there is, at most the field.
  const tavikm::ScopedWipedBuffer ciphertext(out, out_len);
  memcpy(meta->xtkm_value, out, std::min<size_t>(out_len, sizeof(meta->xtkm_value)));
  return 0;
}

}  // namespace

int km_meta_upgrade_size(const char* key_loc, km_meta* meta, uint64_t stored_length) {
  KM_LOGI("Different size of meta");
  // A short record was read into the start of the buffer: its missing tail reads as zeros.
  if (stored_length < KM_META_SIZE) {
    memset(reinterpret_cast<uint8_t*>(meta) + stored_length, 0, KM_META_SIZE - stored_length);
  }
  switch (stored_length) {
    case 2520:
      KM_LOGI("This meta data should be upgrade by adding XTKM value + kek mac into km_meta_t");
      return 0;
    case 2584:
      KM_LOGI("This meta data should be upgrade by adding XTKM value for moro device");
      return 0;
    case 2632:
      KM_LOGI("This meta data should be upgrade by adding XTKM value into km_meta_t");
      return 0;
    case 2640:
      KM_LOGI("This meta data should be upgrade");
      return 0;
    case 2592:
      KM_LOGI("This meta data should be upgrade from XTKM value to kek mac km_meta_t");
      if (km_flag_is_set(supportCBConly) && km_generate_HMAC(meta) < 0) {
        const tavikm::RecordView view(meta);
        KM_LOGE("Failed to generate %.*s_mac by keymaster", view.key_name_length(),
                view.key_name());
        return -1;
      }
      // Current from here on, so the version test does not also give it the KEK upgrade.
      meta->major_version = KM_META_MAJOR_VERSION;
      return WriteBack(key_loc, meta);
    default:
      KM_LOGE("Stored meta data size is strange try again later");
      return -1;
  }
}

int km_meta_upgrade_kek(const char* key_loc, km_meta* meta) {
  uint8_t kek[64] = {};
  uint64_t kek_len = 32;
  char entry[256];
  if (!KekEntryName(meta, entry)) return -1;
  const tavikm::ScopedCleanse wipe_kek(kek, sizeof(kek));

  kmstore_device* device = nullptr;
  int rc = kmstore_device_init(&device);
  if (rc >= 0 && device) rc = device->read(entry, kek, &kek_len);
  // No "_kek" entry fails like a failed read: upgrading with an all-zero KEK would silently
  // lose the real one.
  if (rc < 0 || rc == 1 || !device) {
    KM_LOGE("Failed to read kek_rek from Secure Storage\n");
    return -1;
  }
  kek_len = std::min<uint64_t>(kek_len, sizeof(kek));

  if (km_ensure_aes_key(meta) != 0) return -1;

  if (!km_flag_is_set(supportCBConly)) {
    rc = EncryptKekByKeymaster4(key_loc, meta, kek, kek_len);
    if (rc != 0) return rc;
  } else {
    keymaster_key_blob_t key = km_legacy_key_blob(meta);
    rc = km_keymaster_encrypt_message(meta, &key, kek, meta->xtkm_value);
    if (rc < 0) {
      KM_LOGE("%s : Failed to encrypt KEK by keymaster, rc=%d", "km_get_km_meta", rc);
      return -1;
    }
  }
  meta->xtkm_value_size = meta->keysize;

  if (km_flag_is_set(supportCBConly) && km_generate_HMAC(meta) < 0) {
    KM_LOGE("Failed to generate %s_mac by keymaster", meta->key_name);
    return -1;
  }
  meta->major_version = KM_META_MAJOR_VERSION;
  if (WriteBack(key_loc, meta) != 0) return -1;

  // Last: the record already holds the KEK. A failure here leaves a stale entry behind, and the
  // next read, finding a current record, does not try again.
  if (!OwnsKekEntry(key_loc, meta)) {
    KM_LOGI("%s kept: the record of %s was read from %s", entry, meta->key_name, key_loc);
    return 0;
  }
  if (device->remove(entry) < 0) {
    KM_LOGE("Failed to Remove Key file : %s", entry);
    KM_LOGE("Error::%s", strerror(errno));
    return -1;
  }
  return 0;
}
