// SPDX-License-Identifier: Apache-2.0
// The REK/KEK store: key-encryption keys kept by name in secure storage, each in a record of its
// own, encrypted by the Keymaster; and the KDF of kdf_type 4, PBKDF2 combined with the record's
// KEK so the wrapping key can only be rebuilt on this device.
#include <errno.h>
#include <stdlib.h>
#include <string.h>

#include <algorithm>

#include <openssl/crypto.h>
#include <openssl/evp.h>

#include "common/flags.h"
#include "common/key_upgrade.h"
#include "common/log.h"
#include "common/record_view.h"
#include "common/scopers.h"
#include "keymaster/legacy_keymaster.h"
#include "metadata/keys.h"
#include "metadata/kmstore.h"
#include "metadata/record.h"
#include "metadata/store.h"
#include "tavikm.h"
#include "tavikm_keymaster.h"

namespace {

using tavikm::RecordView;

constexpr unsigned kSaltLength = 16;
constexpr unsigned kPbkdf2Iterations = 8192;
constexpr size_t kKekBuffer = 64;

void InitKekRecord(km_meta* meta) {
  memset(meta, 0, sizeof(*meta));
  meta->magic = KM_META_MAGIC;
  meta->major_version = KM_META_MAJOR_VERSION;
  meta->minor_version = KM_META_MINOR_VERSION;
}

// Encrypts the KEK with Keymaster 4.0 object encryption into the record's XTKM value.
int PutKekByKeymaster4(km_meta* rec, const char* key_name, const uint8_t* kek, uint64_t kek_len) {
  unsigned char* out = nullptr;
  unsigned int out_len = 0;
  // An attempt that asked for an upgrade produced nothing: encrypt once more with the upgraded
  // key, or the KEK would be stored empty.
  const int rc = tavikm::RetryAfterKeyUpgrade(
      1,
      [&](bool upgraded) {
        const int r = km_encrypt_with_record_key(rec, kek, kek_len, &out, &out_len);
        if (r < 0) {
          KM_LOGE("%s : Failed to encrypt KEK by keymaster, rc=%d", "km_put_kek_enc_by_rek", r);
          if (!upgraded && r != tavikm::kKeyRequiresUpgrade) {
            KM_LOGE("In addition, Not case of upgrading");
          }
        }
        return r;
      },
      // Back to the entry the record is for, whatever the MDFPP flag says: KEK records live
      // nowhere else.
      [&] {
        return km_upgrade_aes_key_and_store(
            rec, [&] { return km_put_km_meta_to_secure_storage(key_name, rec); });
      });
  if (rc < 0) return rc;
  const tavikm::ScopedWipedBuffer ciphertext(out, out_len);
  if (!km_copy_into_record(rec, rec->xtkm_value, out, out_len, "km_put_kek_enc_by_rek")) return -1;
  rec->xtkm_value_size = out_len;  // the ciphertext's length, unlike every other writer
  rec->keysize = kek_len;
  return 0;
}

// Encrypts the KEK through the legacy Keymaster path and MACs it.
int PutKekByLegacyKeymaster(km_meta* rec, const char* key_name, const uint8_t* kek,
                            uint64_t kek_len) {
  // The legacy path always encrypts 32 bytes; a shorter KEK is padded with zeros here so the
  // caller's buffer is never read past its length.
  uint8_t padded[kKekBuffer] = {};
  memcpy(padded, kek, std::min<uint64_t>(kek_len, sizeof(padded)));
  keymaster_key_blob_t key = km_legacy_key_blob(rec);
  int rc = km_keymaster_encrypt_message(rec, &key, padded, rec->xtkm_value);
  OPENSSL_cleanse(padded, sizeof(padded));
  if (rc < 0) {
    KM_LOGE("%s : Failed to encrypt KEK by keymaster, rc=%d", "km_put_kek_enc_by_rek", rc);
    return rc;
  }
  rec->xtkm_value_size = kek_len;
  rc = km_generate_HMAC(rec);
  if (rc < 0) {
    KM_LOGE("Failed to generate %s_mac", key_name);
    return rc;
  }
  return 0;
}

bool SameRecord(const km_meta* a, const km_meta* b) {
  return memcmp(a->salt, b->salt, sizeof(a->salt)) == 0 &&
         memcmp(a->master_key, b->master_key, sizeof(a->master_key)) == 0;
}

// Stores the record whose Keymaster key was just upgraded back where it was read: the place
// the caller read or stored it, never one named by its own bytes, and only while that place
// still holds this record. In a metadata file only at offset 0, where the record is always
// created; one read from elsewhere is the caller's to store. Not storing is no failure: the
// caller holds the upgraded record and stores it as it would any change.
int StoreUpgradedRecord(const km_meta* meta) {
  km_record_origin origin;
  if (!km_find_origin(meta, &origin)) {
    KM_LOGI("Upgraded key not stored: the record's place is unknown");
    return 0;
  }
  km_meta there;
  const bool same = origin.secure_storage ? km_peek_secure_storage_record(origin.key_loc, &there)
                                          : km_peek_file_record(origin.key_loc, 0, &there);
  const bool still_there = same && SameRecord(&there, meta);
  OPENSSL_cleanse(&there, sizeof(there));
  if (!origin.secure_storage && !still_there) {
    KM_LOGI("Upgraded key of %s not stored: another record at offset 0", origin.key_loc);
    return 0;
  }
  if (!origin.secure_storage && origin.offset != 0) {
    KM_LOGI("Upgraded key of %s not stored: read from offset %llu", origin.key_loc,
            static_cast<unsigned long long>(origin.offset));
    return 0;
  }
  if (!still_there) {
    KM_LOGI("Upgraded key of %s not stored: another record there", origin.key_loc);
    return 0;
  }
  const int put = origin.secure_storage ? km_put_km_meta_to_secure_storage(origin.key_loc, meta)
                                        : km_put_km_meta_to_file(origin.key_loc, 0, meta);
  if (put >= 0) KM_LOGI("Write upgraded Key successfully");
  return put;
}

}  // namespace

int km_init_km_meta_enc_by_rek(km_meta* meta, const char* key_loc, uint64_t keysize) {
  if (!key_loc) {
    KM_LOGE("%s::Failed, key_loc is NULL! \n", "km_init_km_meta_enc_by_rek");
    return -1;
  }
  if (!meta) {
    KM_LOGE("%s::Failed, km_meta is NULL! \n", "km_init_km_meta_enc_by_rek");
    return -1;
  }
  meta->keysize = keysize;
  meta->magic = KM_META_MAGIC;
  meta->major_version = KM_META_MAJOR_VERSION;
  meta->minor_version = KM_META_MINOR_VERSION;
  return km_copy_into_record(meta, meta->key_name, key_loc, strlen(key_loc),
                             "km_init_km_meta_enc_by_rek")
             ? 0
             : -1;
}

int km_put_kek_enc_by_rek(const char* key_name, const uint8_t* kek, uint64_t kek_len) {
  km_meta rec;
  InitKekRecord(&rec);
  if (!key_name) {
    KM_LOGE("%s::Failed, key_name is NULL! \n", "km_put_kek_enc_by_rek");
    return -1;
  }
  if (!kek) {
    KM_LOGE("%s::Failed, kek is NULL! \n", "km_put_kek_enc_by_rek");
    return -1;
  }
  // The get refuses a record whose name fills its field without a NUL: such a KEK would be
  // stored and never come back.
  const size_t name_length = strlen(key_name);
  if (name_length >= sizeof(rec.key_name)) {
    KM_LOGE("%s::Failed, key_name of %zu bytes is too long! \n", "km_put_kek_enc_by_rek",
            name_length);
    return -1;
  }
  // A longer KEK would be stored and never come back whole: the GCM tag would run past
  // xtkm_value, and the legacy path encrypts 32 bytes only.
  const bool cbc_only = km_flag_is_set(supportCBConly);
  if (kek_len == 0 || kek_len > (cbc_only ? KM_KEK_MAX_SIZE_CBC : KM_KEK_MAX_SIZE_GCM)) {
    KM_LOGE("%s::kek_len %zu is too large(for %s)\n", "km_put_kek_enc_by_rek",
            static_cast<size_t>(kek_len), cbc_only ? "CBC" : "GCM");
    return -1;
  }
  rec.keysize = kek_len;
  memcpy(rec.key_name, key_name, name_length);

  if (km_ensure_aes_key(&rec) != 0) return -1;
  int rc = cbc_only ? PutKekByLegacyKeymaster(&rec, key_name, kek, kek_len)
                    : PutKekByKeymaster4(&rec, key_name, kek, kek_len);
  if (rc != 0) return rc;

  kmstore_device* device = nullptr;
  rc = km_open_kmstore(kKmstoreInitFailed, "km_put_kek_enc_by_rek", &device);
  if (rc < 0) return rc;
  if (device->write(key_name, reinterpret_cast<const uint8_t*>(&rec), sizeof(rec)) < 0) {
    KM_LOGE("Filed to store a key encrypted by rek in Secure Storage: keyname=%s\n", key_name);
    return -1;
  }
  KM_LOGI("A kek encrypted by rek is successfully stored to Secure Storage:keyname=%s\n", key_name);
  return 0;
}

int km_get_kek_enc_by_rek(const char* key_name, uint8_t* kek_out, uint64_t* kek_len_out) {
  if (!key_name) {
    KM_LOGE("%s::Failed, key_name is NULL! \n", "km_get_kek_enc_by_rek");
    return -1;
  }
  if (!kek_out) {
    KM_LOGE("%s::Failed, kek_out is NULL! \n", "km_get_kek_enc_by_rek");
    return -1;
  }
  if (!kek_len_out) {
    KM_LOGE("%s::Failed, kek_len_out is NULL! \n", "km_get_kek_enc_by_rek");
    return -1;
  }
  // One zero byte past the record ends any string read from it, whatever was stored.
  auto* rec = static_cast<km_meta*>(calloc(1, sizeof(km_meta) + 1));
  if (!rec) {
    KM_LOGE("km_meta_t allocation fail!!\n");
    return -1;
  }
  tavikm::ScopedWipedBuffer owned_rec(rec, sizeof(*rec));
  uint8_t kek[kKekBuffer] = {};
  const tavikm::ScopedCleanse wipe_kek(kek, sizeof(kek));

  kmstore_device* device = nullptr;
  // The get names the put in its message, as it always has.
  int rc = km_open_kmstore(kKmstoreInitFailed, "km_put_kek_enc_by_rek", &device);
  if (rc < 0) return -1;
  uint64_t length = sizeof(km_meta);
  rc = device->read(key_name, reinterpret_cast<uint8_t*>(rec), &length);
  if (rc < 0) {
    KM_LOGE("Failed to read a key encrypted by rek from Secure Storage: key_name = %s\n", key_name);
    return -1;
  }
  if (rc == 1) {
    KM_LOGI("NO key from Secure Storage: key_name = %s\n", key_name);
    return 1;
  }
  if (rc == 0) {
    KM_LOGI("Successfully get a key encrypted by rek from Secure Storage: key_name = %s\n",
            key_name);
  }

  // Nothing of a record that no put can have written reaches the Keymaster.
  const RecordView view(rec);
  if (!view.ok()) {
    KM_LOGE("Failed to decrypt KEK by keymaster");
    return -1;
  }
  if (!km_flag_is_set(supportCBConly)) {
    unsigned long ignored = rec->km_key_blob_size;
    unsigned char* out = nullptr;
    unsigned int out_len = 0;
    rc = keymaster_decrypt_object_for_mdfpp(
        rec->km_key_blob, view.key_blob_size(), rec->object_iv, 12, 1, rec->xtkm_value,
        view.xtkm_value_size(), &out, &out_len, rec->km_key_blob, KM_KEY_BLOB_CAPACITY, &ignored);
    const tavikm::ScopedWipedBuffer plain(out, out_len);
    if (rc < 0) {
      KM_LOGE("Failed to decrypt KEK by keymaster");
      if (rc != tavikm::kKeyRequiresUpgrade) return -1;
      // The key needs an upgrade: store the upgraded record and hand back an empty KEK, which
      // tells the caller to ask again. These two failures leave the record allocated, wiped.
      // Back to the entry it was read from, whatever the MDFPP flag says.
      rc = km_upgrade_aes_key_and_store(
          rec, [&] { return km_put_km_meta_to_secure_storage(key_name, rec); });
      if (rc != 0) {
        OPENSSL_cleanse(rec, sizeof(*rec));
        owned_rec.release();
        return rc;
      }
      *kek_len_out = 0;
      return 0;
    }
    if (out_len > kKekBuffer) {
      KM_LOGE("Failed to decrypt KEK by keymaster");
      return -1;
    }
    memcpy(kek_out, out, out_len);
    *kek_len_out = out_len;
    return rc;
  }

  if (km_verify_HMAC(rec) < 0) {
    KM_LOGE("Failed to verify %.*s_mac", view.key_name_length(), view.key_name());
    return -1;
  }
  KM_LOGI("success to verify %.*s_mac", view.key_name_length(), view.key_name());
  keymaster_key_blob_t key = km_legacy_key_blob(rec);
  rc = km_keymaster_decrypt_message(rec, &key, rec->xtkm_value, kek);
  // The plain KEK is copied out of the 64-byte buffer: no more than that.
  if (rc < 0 || view.xtkm_value_size() > kKekBuffer) {
    KM_LOGE("Failed to decrypt KEK by keymaster");
    return -1;
  }
  memcpy(kek_out, kek, view.xtkm_value_size());
  *kek_len_out = view.xtkm_value_size();
  return rc;
}

int km_delete_kek_enc_by_rek(const char* key_name) {
  if (!key_name) {
    KM_LOGE("%s::Failed, key_name is NULL! \n", "km_delete_kek_enc_by_rek");
    return -1;
  }
  kmstore_device* device = nullptr;
  int rc = km_open_kmstore(kKmstoreInitFailedForDelete, "delete_meta", &device);
  if (rc < 0) return rc;
  rc = device->remove(key_name);
  if (rc < 0) {
    KM_LOGE("Failed to Remove Key file : %s", key_name);
    KM_LOGE("Error::%s", strerror(errno));
    return -1;
  }
  if (rc >= 2) KM_LOGE("Remove KEK:Unknown Error::%s", strerror(errno));
  return 0;
}

int km_pbkdf2_rek(const char* password, unsigned long password_len, const unsigned char* salt,
                  unsigned char* ikey, void* params) {
  if (!password || !salt || !ikey || !params) {
    KM_LOGE("%s::Failed, %s is NULL! \n", "km_pbkdf2_rek",
            !password ? "passwd"
            : !salt   ? "salt"
            : !ikey   ? "ikey"
                      : "km_meta");
    return -1;
  }
  auto* meta = static_cast<km_meta*>(params);
  uint8_t derived[kKekBuffer] = {};
  uint8_t kek[kKekBuffer] = {};
  const tavikm::ScopedCleanse wipe_derived(derived, sizeof(derived));
  const tavikm::ScopedCleanse wipe_kek(kek, sizeof(kek));
  const RecordView view(meta);
  if (!view.ok(RecordView::kKeysize)) {
    KM_LOGE("Unsupported keysize %llu", static_cast<unsigned long long>(meta->keysize));
    return -1;
  }
  // The record's name for messages, bounded to its field.
  char name[sizeof(meta->key_name) + 1] = {};
  memcpy(name, view.key_name(), static_cast<size_t>(view.key_name_length()));
  PKCS5_PBKDF2_HMAC(password, password_len, salt, kSaltLength, kPbkdf2Iterations, EVP_sha256(),
                    view.keysize(), derived);

  keymaster_key_blob_t key = km_legacy_key_blob(meta);
  if (km_flag_is_set(supportRekKek)) {
    if (km_verify_HMAC(meta) < 0) {
      KM_LOGE("Failed to verify %s_mac by keymaster", name);
      return -1;
    }
    KM_LOGI("success to verify %s_mac by keymaster", name);
    if (km_keymaster_decrypt_message(meta, &key, meta->xtkm_value, kek) < 0) {
      KM_LOGE("(%s)Failed to decrypt KEK by keymaster", "km_pbkdf2_rek");
      return -1;
    }
    // The wrapping key: the password-derived key encrypted under the KEK.
    if (km_aes_encrypt(derived, static_cast<int>(view.keysize()), kek, view.keysize(),
                       meta->object_iv, ikey, 0) < 0) {
      KM_LOGE("(%s)Failed to encrypt KEK by REK to generate DEKEK\n", "km_pbkdf2_rek");
      return -1;
    }
    return 0;
  }

  if (km_flag_is_set(supportCBConly)) {
    if (km_keymaster_encrypt_message(meta, &key, derived, ikey) < 0) {
      KM_LOGE("Failed to decrypt KEK by keymaster");
      return -1;
    }
    return 0;
  }

  unsigned char* out = nullptr;
  unsigned int out_len = 0;
  const int rc = tavikm::RetryAfterKeyUpgrade(
      tavikm::kAsOftenAsAsked,
      [&](bool) {
        // The output length lands in the low half of xtkm_value_size, as it always has.
        const int r = km_with_low_half(&meta->xtkm_value_size, [&](unsigned int* size) {
          const int encrypted =
              km_encrypt_with_record_key(meta, derived, view.keysize(), &out, size);
          out_len = *size;
          return encrypted;
        });
        if (r == -1) KM_LOGE("%s : Failed to encrypt KEK by keymaster, rc=%d", "km_pbkdf2_rek", -1);
        return r;
      },
      [&] {
        KM_LOGI("NEED TO UPGRADE KEY\n");
        const int stored =
            km_upgrade_aes_key_and_store(meta, [&] { return StoreUpgradedRecord(meta); });
        return stored == 0 ? 0 : -1;
      });
  if (rc != 0) return rc < 0 ? rc : 0;
  // The ciphertext and its tag, never more than the key buffer holds.
  const tavikm::ScopedWipedBuffer ciphertext(out, out_len);
  memcpy(ikey, out, std::min<size_t>(out_len, kKekBuffer));
  return 0;
}
