// SPDX-License-Identifier: Apache-2.0
// Wrapping of the disk master key under a password-derived key: AES-GCM with the tag in the
// record's key_mac, or AES-CBC in CBC-only mode, where a separate password MAC over the wrapped
// key stands in for the tag.
#include "crypto/wrap.h"

#include <openssl/crypto.h>
#include <openssl/evp.h>
#include <openssl/hmac.h>
#include <string.h>

#include "common/flags.h"
#include "common/log.h"
#include "common/record_view.h"

namespace {

// Room for the longest key a record may hold.
constexpr size_t kDerivedKeyCapacity = tavikm::kMaxRecordKeysize;
// A derived key whose first 32 bytes are zero is taken as "no key": the buffer is zeroed before
// the KDF runs, so a KDF that failed silently leaves exactly that.
constexpr size_t kNullCheckLength = 32;
constexpr size_t kMacLength = 32;
// km_decrypt_key's result when the wrapped key opened only under the all-zero key.
constexpr int kOpenedUnderZeroKey = 9;

const uint8_t kZeroKey[kDerivedKeyCapacity] = {};

// The password-derived key, zero before the KDF runs and wiped on every way out.
class DerivedKey {
 public:
  DerivedKey() = default;
  ~DerivedKey() { Wipe(); }
  DerivedKey(const DerivedKey&) = delete;
  DerivedKey& operator=(const DerivedKey&) = delete;

  uint8_t* data() { return bytes_; }
  void Wipe() { OPENSSL_cleanse(bytes_, sizeof(bytes_)); }
  bool IsNull() const { return CRYPTO_memcmp(bytes_, kZeroKey, kNullCheckLength) == 0; }

 private:
  uint8_t bytes_[kDerivedKeyCapacity] = {};
};

// The record's key_name for messages, bounded to its field: a record read from storage need
// not hold a NUL.
class RecordName {
 public:
  explicit RecordName(const km_meta* meta) {
    const tavikm::RecordView view(meta);
    memcpy(name_, view.key_name(), static_cast<size_t>(view.key_name_length()));
    name_[view.key_name_length()] = '\0';
  }
  const char* c_str() const { return name_; }

 private:
  char name_[sizeof(km_meta::key_name) + 1];
};

// Looks up the record's KDF and runs it into `key`. False, after logging, when there is no KDF
// for the record or its keysize would not fit the key buffer; otherwise the KDF's own result
// goes to `kdf_rc`.
bool DeriveKey(const km_kdf_table_t& kdfs, const char* op, const char* password,
               size_t password_len, const uint8_t* salt, DerivedKey& key, km_meta* meta,
               int* kdf_rc) {
  km_kdf_fn kdf = km_kdf_lookup(kdfs, meta->kdf_type);
  if (!kdf) {
    KM_LOGE("%s::kdf is NULL(for %s)\n", op, RecordName(meta).c_str());
    return false;
  }
  // Every KDF writes keysize bytes into the key buffer; a damaged record must not make it
  // write past the end.
  if (!tavikm::RecordView(meta).ok(tavikm::RecordView::kKeysize)) {
    KM_LOGE("%s::keysize %zu is too large(for %s)\n", op, static_cast<size_t>(meta->keysize),
            RecordName(meta).c_str());
    return false;
  }
  *kdf_rc = kdf(password, password_len, salt, key.data(), meta);
  return true;
}

// The pointers every wrapping operation needs, in argument order: false after the line of the
// first that is missing.
bool HaveArguments(const char* op, const char* password, const uint8_t* salt,
                   const uint8_t* wrapped, const uint8_t* master_key, const km_meta* meta) {
  const char* missing = !password     ? "passwd"
                        : !salt       ? "salt"
                        : !wrapped    ? "encrypted_key"
                        : !master_key ? "master_key"
                        : !meta       ? "km_meta"
                                      : nullptr;
  if (!missing) return true;
  KM_LOGE("%s::Failed, %s is NULL! \n", op, missing);
  return false;
}

}  // namespace

int km_encrypt_key_with_kdfs(const km_kdf_table_t& kdfs, const char* password, size_t password_len,
                             const uint8_t* salt, uint8_t* wrapped, const uint8_t* master_key,
                             km_meta* meta) {
  static const char kName[] = "km_encrypt_key";
  if (!HaveArguments(kName, password, salt, wrapped, master_key, meta)) return -1;
  DerivedKey key;
  int kdf_rc = 0;
  if (!DeriveKey(kdfs, kName, password, password_len, salt, key, meta, &kdf_rc)) return -1;
  if (kdf_rc != 0) {
    KM_LOGE("%s::kdf failed", kName);
    return -1;
  }
  if (key.IsNull()) {
    KM_LOGE("%s::key is null", kName);
    return -1;
  }
  const int keysize = static_cast<int>(meta->keysize);
  if (!km_flag_is_set(supportCBConly)) {
    int n = km_aes_gcm_encrypt(master_key, keysize, nullptr, 0, key.data(), meta->keysize,
                               meta->key_iv, wrapped, meta->key_mac);
    if (n != keysize) {
      KM_LOGE("Failed to encrypt key with GCM Mode fname=%s\n", RecordName(meta).c_str());
      return -1;
    }
  } else {
    // The record is left alone: the password MAC is made separately.
    int n =
        km_aes_encrypt(master_key, keysize, key.data(), meta->keysize, meta->key_iv, wrapped, 0);
    if (n != keysize) {
      KM_LOGE("Failed to encrypt key with CBC mode\n");
      return -1;
    }
  }
  return 0;
}

int km_decrypt_key_with_kdfs(const km_kdf_table_t& kdfs, const char* password, size_t password_len,
                             const uint8_t* salt, const uint8_t* wrapped, uint8_t* master_key,
                             km_meta* meta) {
  static const char kName[] = "km_decrypt_key";
  if (!HaveArguments(kName, password, salt, wrapped, master_key, meta)) return -1;
  DerivedKey key;
  int kdf_rc = 0;
  if (!DeriveKey(kdfs, kName, password, password_len, salt, key, meta, &kdf_rc)) return -1;
  if (kdf_rc != 0) {
    KM_LOGE("%s : kdf failed, rc=%d", kName, kdf_rc);
    return kdf_rc;
  }
  if (key.IsNull()) {
    KM_LOGE("%s::key is null", kName);
    return -1;
  }
  const int keysize = static_cast<int>(meta->keysize);
  if (!km_flag_is_set(supportCBConly)) {
    int n = km_aes_gcm_decrypt(wrapped, keysize, nullptr, 0, meta->key_mac, key.data(),
                               meta->keysize, meta->key_iv, master_key);
    if (n != keysize) {
      // Keys once wrapped under the all-zero key still open, and say so with their own result.
      key.Wipe();
      n = km_aes_gcm_decrypt(wrapped, keysize, nullptr, 0, meta->key_mac, kZeroKey, meta->keysize,
                             meta->key_iv, master_key);
      if (n == keysize) return kOpenedUnderZeroKey;
      KM_LOGE("(%s)Failed to decrypt_gcm key keysize=%zu\n", kName,
              static_cast<size_t>(meta->keysize));
      return -1;
    }
  } else {
    // CBC cannot tell a wrong password; callers check the password MAC first.
    int n =
        km_aes_decrypt(wrapped, keysize, key.data(), meta->keysize, meta->key_iv, master_key, 0);
    if (n != keysize) {
      KM_LOGE("(%s)Failed to decrypt key\n", kName);
      return -1;
    }
  }
  return 0;
}

int km_get_key_mac_by_password_with_kdfs(const km_kdf_table_t& kdfs, const uint8_t* wrapped,
                                         const uint8_t* salt, const char* password,
                                         size_t password_len, uint8_t* mac, km_meta* meta) {
  static const char kName[] = "km_get_key_mac_by_password";
  if (!wrapped) {
    KM_LOGE("%s::Failed, encrypted_key is NULL! \n", kName);
    return -1;
  }
  if (!salt) {
    KM_LOGE("%s::Failed, salt is NULL! \n", kName);
    return -1;
  }
  if (!password) {
    KM_LOGE("%s::Failed, passwd is NULL! \n", kName);
    return -1;
  }
  if (!mac) {
    KM_LOGE("%s::Failed, key_mac is NULL! \n", kName);
    return -1;
  }
  if (!meta) {
    KM_LOGE("%s::Failed, km_meta is NULL! \n", kName);
    return -1;
  }
  DerivedKey key;
  int kdf_rc = 0;
  if (!DeriveKey(kdfs, kName, password, password_len, salt, key, meta, &kdf_rc)) return -1;
  if (kdf_rc != 0) {
    KM_LOGE("%s::kdf failed(for %s)\n", kName, RecordName(meta).c_str());
    return -1;
  }
  // No all-zero-key check here: such a key still yields a MAC, which simply will not match.
  unsigned int mac_len = 0;
  if (!HMAC(EVP_sha256(), key.data(), meta->keysize, wrapped, meta->keysize, mac, &mac_len)) {
    KM_LOGE("Failed to create MAC\n");
    return -1;
  }
  return 0;
}

int km_encrypt_key(const char* password, size_t password_len, const uint8_t* salt, uint8_t* wrapped,
                   const uint8_t* master_key, km_meta* meta) {
  return km_encrypt_key_with_kdfs(km_kdf_table, password, password_len, salt, wrapped, master_key,
                                  meta);
}

int km_decrypt_key(const char* password, size_t password_len, const uint8_t* salt,
                   const uint8_t* wrapped, uint8_t* master_key, km_meta* meta) {
  return km_decrypt_key_with_kdfs(km_kdf_table, password, password_len, salt, wrapped, master_key,
                                  meta);
}

int km_get_key_mac_by_password(const uint8_t* wrapped, const uint8_t* salt, const char* password,
                               size_t password_len, uint8_t* mac, km_meta* meta) {
  return km_get_key_mac_by_password_with_kdfs(km_kdf_table, wrapped, salt, password, password_len,
                                              mac, meta);
}

int km_verify_key_mac(const uint8_t* stored, const uint8_t* computed) {
  if (!stored || !computed) {
    KM_LOGE("Lack of parameter for verify MAC\n");
    return -1;
  }
  if (CRYPTO_memcmp(stored, computed, kMacLength) != 0) {
    KM_LOGE("Failed to verify MAC\n");
    return -1;
  }
  KM_LOGI("MAC is verified!!\n");
  return 0;
}
