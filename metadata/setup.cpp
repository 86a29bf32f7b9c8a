// SPDX-License-Identifier: Apache-2.0
// Creating a key location's record: the KDF choice, the Keymaster key that binds the record to
// the device, the KEK of PBKDF2-with-REK records, the wrapped master key, and storing it.
#include <errno.h>
#include <string.h>

#include <string>
#include <vector>

#include <cutils/properties.h>
#include <openssl/crypto.h>

#include "common/flags.h"
#include "common/log.h"
#include "keymaster/legacy_keymaster.h"
#include "metadata/keys.h"
#include "metadata/record.h"
#include "tavikm.h"
#include "tavikm_keymaster.h"

namespace {

constexpr uint8_t kDefaultNFactor = 15;
constexpr uint8_t kDefaultRFactor = 3;
constexpr uint8_t kDefaultPFactor = 1;
constexpr unsigned kRsaKeySize = 2048;
constexpr unsigned long kRsaExponent = 65537;
constexpr unsigned kRateLimitSeconds = 1;

// One scrypt factor of "ro.crypto.scrypt_params": decimal digits only, at most 255.
bool ParseFactor(const std::string& piece, uint8_t* out) {
  if (piece.empty()) return false;
  unsigned value = 0;
  for (char c : piece) {
    if (c < '0' || c > '9') return false;
    value = value * 10 + static_cast<unsigned>(c - '0');
    if (value > 255) return false;
  }
  *out = static_cast<uint8_t>(value);
  return true;
}

// The scrypt factors: "N:r:p" from the property, else 15/3/1.
void SetScryptFactors(km_meta* meta) {
  meta->N_factor = kDefaultNFactor;
  meta->r_factor = kDefaultRFactor;
  meta->p_factor = kDefaultPFactor;
  char value[PROPERTY_VALUE_MAX] = {};
  property_get("ro.crypto.scrypt_params", value, "");
  if (value[0] == '\0') return;

  std::vector<std::string> pieces;
  std::string text = value;
  size_t start = 0;
  for (size_t colon; (colon = text.find(':', start)) != std::string::npos; start = colon + 1) {
    pieces.push_back(text.substr(start, colon - start));
  }
  pieces.push_back(text.substr(start));
  uint8_t factors[3];
  if (pieces.size() == 3 && ParseFactor(pieces[0], &factors[0]) &&
      ParseFactor(pieces[1], &factors[1]) && ParseFactor(pieces[2], &factors[2])) {
    meta->N_factor = factors[0];
    meta->r_factor = factors[1];
    meta->p_factor = factors[2];
    return;
  }
  KM_LOGW("bad scrypt parameters '%s' should be like '12:8:1'; using defaults", value);
}

// kdf_type 5: the RSA key pair whose signature binds scrypt to this device.
int CreateBindingKey(km_meta* meta) {
  if (meta->km_key_blob_size != 0) {
    KM_SLOGI("Already have key");
    return 0;
  }
  if (keymaster_create_key_for_cryptfs_scrypt_mdfpp(kRsaKeySize, kRsaExponent, kRateLimitSeconds,
                                                    meta->km_key_blob, KM_KEY_BLOB_CAPACITY,
                                                    &meta->km_key_blob_size) == 0) {
    return 0;
  }
  if (meta->km_key_blob_size > KM_KEY_BLOB_CAPACITY) {
    KM_SLOGE("Keymaster key blob to large)");
    meta->km_key_blob_size = 0;
  }
  KM_SLOGE("Failed to generate keypair");
  KM_LOGE("Failed to create keypair\n");
  return -1;
}

// kdf_type 4: random IVs, the AES key, and with the REK/KEK flag a random KEK kept encrypted by
// the legacy Keymaster path with its kek mac.
int SetUpPbkdf2Rek(km_meta* meta, uint64_t keysize) {
  const bool rek_kek = km_flag_is_set(supportRekKek);
  uint8_t kek[64] = {};
  if (rek_kek) {
    if (keysize > sizeof(kek)) {
      KM_LOGE("Unsupported keysize %llu for a KEK", static_cast<unsigned long long>(keysize));
      return -1;
    }
    km_generate_drbg_bytes(nullptr, kek, keysize);
  }
  km_generate_drbg_bytes(nullptr, meta->object_iv, sizeof(meta->object_iv));
  km_generate_drbg_bytes(nullptr, meta->key_iv, sizeof(meta->key_iv));

  int rc = km_ensure_aes_key(meta);
  if (rc == 0 && rek_kek) {
    keymaster_key_blob_t key = km_legacy_key_blob(meta);
    rc = km_keymaster_encrypt_message(meta, &key, kek, meta->xtkm_value);
    if (rc < 0) {
      KM_LOGE("%s : Failed to encrypt KEK by keymaster, rc=%d", "km_init_km_meta", rc);
    } else {
      meta->xtkm_value_size = keysize;
      rc = km_generate_HMAC(meta);
      if (rc < 0) KM_LOGE("Failed to generate %s_mac", meta->key_name);
    }
  }
  OPENSSL_cleanse(kek, sizeof(kek));
  return rc;
}

}  // namespace

int km_init_km_meta(km_meta* meta, const char* key_loc, uint64_t keysize, uint32_t kdf_type) {
  if (!key_loc) {
    KM_LOGE("%s::Failed, key_loc is NULL! \n", "km_init_km_meta");
    return -1;
  }
  if (!meta) {
    KM_LOGE("%s::Failed, km_meta is NULL! \n", "km_init_km_meta");
    return -1;
  }
  memset(meta, 0, sizeof(*meta));

  uint8_t type = static_cast<uint8_t>(kdf_type);
  if (type == KM_KDF_DEFAULT) {
    if (km_flag_is_set(supportMdfpp)) {
      type = KM_KDF_PBKDF2_REK;
    } else {
      int secure = keymaster_compatibility_cryptfs_scrypt_mdfpp();
      if (secure == -1) {
        KM_LOGE("Failed to get default KDF on init");
        return -1;
      }
      // Any other answer is taken as a type and checked below.
      type = secure == 1   ? KM_KDF_SCRYPT_KEYMASTER
             : secure == 0 ? KM_KDF_SCRYPT
                           : static_cast<uint8_t>(secure);
    }
  }

  meta->keysize = keysize;
  meta->magic = KM_META_MAGIC;
  meta->major_version = KM_META_MAJOR_VERSION;
  meta->minor_version = KM_META_MINOR_VERSION;
  // Unbounded by the field: a long name runs into the following fields, and one that would
  // pass the record's end fails the call.
  if (!km_copy_into_record(meta, meta->key_name, key_loc, strlen(key_loc), "km_init_km_meta")) {
    return -1;
  }

  if (type > KM_KDF_SCRYPT_KEYMASTER || type == 0 || type == KM_KDF_SCRYPT_KEYMASTER_OLD) {
    KM_LOGE("Unknown KDF type : %d", type);
    return -1;
  }
  meta->kdf_type = type;

  switch (type) {
    case KM_KDF_SCRYPT_KEYMASTER:
      if (CreateBindingKey(meta) != 0) return -1;
      [[fallthrough]];
    case KM_KDF_SCRYPT:
      SetScryptFactors(meta);
      return 0;
    case KM_KDF_PBKDF2_REK:
      return SetUpPbkdf2Rek(meta, keysize);
    default:  // KM_KDF_PBKDF2: no factors
      return 0;
  }
}

int km_initial_setup(const char* key_loc, const char* password, size_t password_len,
                     uint8_t* master_key, uint64_t keysize, uint32_t kdf_type, km_meta* meta) {
  if (!key_loc) {
    KM_LOGE("%s::Failed, key_loc is NULL! \n", "km_initial_setup");
    return -1;
  }
  KM_LOGI("Key manager meta data initial setup start!!\n");
  if (!meta) {
    KM_LOGE("km_meta is Null!!\n");
    return -1;
  }
  // Checked before any key is made or anything is stored.
  if (!password) {
    KM_LOGE("%s::Failed, passwd is NULL! \n", "km_initial_setup");
    return -1;
  }
  if (!master_key) {
    KM_LOGE("%s::Failed, master_key is NULL! \n", "km_initial_setup");
    return -1;
  }
  int rc = km_init_km_meta(meta, key_loc, keysize, kdf_type);
  if (rc < 0) {
    KM_LOGE("Failed to init km_meta\n");
    return rc;
  }
  // A failing generator is logged by km_generate_drbg_bytes and does not stop setup.
  km_generate_drbg_bytes(nullptr, master_key, keysize);
  km_generate_drbg_bytes(nullptr, meta->salt, sizeof(meta->salt));

  rc = km_encrypt_key(password, password_len, meta->salt, meta->master_key, master_key, meta);
  if (rc < 0) {
    KM_LOGE("Error encrypt master key\n");
    return rc;
  }
  if (km_flag_is_set(supportCBConly)) {
    rc = km_get_key_mac_by_password(meta->master_key, meta->salt, password, password_len,
                                    meta->key_mac, meta);
    if (rc < 0) {
      KM_LOGE("Failed to create MAC!!\n");
      return rc;
    }
  }
  rc = km_put_km_meta(key_loc, 0, meta);
  if (rc < 0) {
    KM_LOGE("Failed to store km_meta\n");
    return rc;
  }
  KM_LOGI("Key manager meta dta initial setup end!!\n");
  return 0;
}
