// SPDX-License-Identifier: Apache-2.0
// The RSA key that binds scrypt to the device: is the Keymaster secure, make the key, upgrade
// its blob; and the upgrade of the AES key's blob. Blobs go out through the caller's buffer.
#include <keymasterV4_0/authorization_set.h>
#include <stdint.h>
#include <string.h>

#include <string>

#include "common/byte_string.h"
#include "keymaster/Keymaster.h"
#include "mdfpp/service.h"
#include "tavikm_keymaster.h"

namespace {

namespace km = android::mdfpp::km;
using android::mdfpp::Keymaster;

// Copies `blob` to the start of `buffer` and zeroes the rest of it. `*out_size` gets the blob's
// length whenever it can be written, so a caller with too small a buffer learns what it needs.
bool write_string_to_buf(const std::string& blob, unsigned char* buffer, unsigned int buffer_size,
                         unsigned long* out_size) {
  if (!buffer || !out_size) {
    KM_STREAM_LOG(ERROR) << "Missing target pointers";
    return false;
  }
  *out_size = blob.size();
  if (blob.size() > buffer_size) {
    KM_STREAM_LOG(ERROR) << "Buffer too small " << buffer_size << " < " << blob.size();
    return false;
  }
  memset(buffer, 0, buffer_size);
  if (!blob.empty()) memcpy(buffer, blob.data(), blob.size());
  return true;
}

// A raw RSA signing key; the device itself holds it to one use per `ratelimit` seconds.
km::AuthorizationSet RsaParams(unsigned int rsa_key_size, unsigned long rsa_exponent,
                               unsigned int ratelimit) {
  km::AuthorizationSetBuilder params;
  params.RsaSigningKey(rsa_key_size, rsa_exponent)
      .NoDigestOrPadding()
      .Authorization(km::TAG_BLOB_USAGE_REQUIREMENTS, km::KeyBlobUsageRequirements::STANDALONE)
      .Authorization(km::TAG_NO_AUTH_REQUIRED)
      .Authorization(km::TAG_MIN_SECONDS_BETWEEN_OPS, ratelimit);
  return std::move(params);
}

// An upgrade that answers OK with no blob (a key that needed nothing, as the HAL allows) must
// not reach the caller's buffer: callers upgrade in place, and an empty blob there would be a
// record whose Keymaster key is gone.
bool UpgradedBlobIsEmpty(const std::string& blob) {
  if (!blob.empty()) return false;
  KM_STREAM_LOG(ERROR) << "Upgraded key blob is empty";
  return true;
}

// A blob to upgrade must be there, and fit the client's views.
bool HaveBlob(const unsigned char* key_blob, unsigned long key_blob_size) {
  if (key_blob && key_blob_size <= UINT32_MAX) return true;
  KM_LOG_INVALID_ARGUMENT();
  return false;
}

}  // namespace

int keymaster_compatibility_cryptfs_scrypt_mdfpp(void) {
  Keymaster dev;
  if (!dev) {
    tavikm::LogNoKeymasterSession();
    return -1;
  }
  return dev.isSecure() ? 1 : 0;
}

int keymaster_create_key_for_cryptfs_scrypt_mdfpp(unsigned int rsa_key_size,
                                                  unsigned long rsa_exponent,
                                                  unsigned int ratelimit, unsigned char* key_buffer,
                                                  unsigned int key_buffer_size,
                                                  unsigned long* key_out_size) {
  if (key_out_size) *key_out_size = 0;
  Keymaster dev;
  if (!dev) {
    tavikm::LogNoKeymasterSession();
    return -1;
  }
  std::string key;
  if (!dev.generateKey(RsaParams(rsa_key_size, rsa_exponent, ratelimit), &key)) return -1;
  return write_string_to_buf(key, key_buffer, key_buffer_size, key_out_size) ? 0 : -1;
}

int keymaster_upgrade_key_for_cryptfs_scrypt_mdfpp(
    unsigned int rsa_key_size, unsigned long rsa_exponent, unsigned int ratelimit,
    const unsigned char* key_blob, unsigned long key_blob_size, unsigned char* key_buffer,
    unsigned int key_buffer_size, unsigned long* key_out_size) {
  // The size may be the record's own blob length: an empty answer puts it back as it was.
  const unsigned long size_at_entry = key_out_size ? *key_out_size : 0;
  if (key_out_size) *key_out_size = 0;
  Keymaster dev;
  if (!dev) {
    tavikm::LogNoKeymasterSession();
    return -1;
  }
  if (!HaveBlob(key_blob, key_blob_size)) return -1;
  // Copied first: the destination may be the very buffer the old blob is in.
  std::string old_key = tavikm::ByteString(key_blob, key_blob_size);
  std::string new_key;
  if (!dev.upgradeKey(old_key, RsaParams(rsa_key_size, rsa_exponent, ratelimit), &new_key)) {
    return -1;
  }
  if (UpgradedBlobIsEmpty(new_key)) {
    if (key_out_size) *key_out_size = size_at_entry;
    return -1;
  }
  return write_string_to_buf(new_key, key_buffer, key_buffer_size, key_out_size) ? 0 : -1;
}

int keymaster_upgrade_key_for_cryptfs_pbkdf2_mdfpp(const unsigned char* key_blob,
                                                   unsigned long key_blob_size,
                                                   unsigned char* key_buffer,
                                                   unsigned int key_buffer_size,
                                                   unsigned long* key_out_size) {
  if (!HaveBlob(key_blob, key_blob_size)) return -1;
  // Copied first: the destination may be the very buffer the old blob is in.
  std::string old_key = tavikm::ByteString(key_blob, key_blob_size);
  // The encryption's begin parameters, with the old blob itself standing in the NONCE slot:
  // this is the set the AES key's blobs have always been upgraded with, and it stays so.
  km::AuthorizationSetBuilder params;
  params.Authorization(km::TAG_ALGORITHM, km::Algorithm::AES)
      .Authorization(km::TAG_KEY_SIZE, 256u)
      .Authorization(km::TAG_BLOCK_MODE, km::BlockMode::GCM)
      .Authorization(km::TAG_MAC_LENGTH, 128u)
      .Authorization(km::TAG_NONCE, old_key.c_str(), old_key.size())
      .Padding({km::PaddingMode::NONE});

  Keymaster dev;
  if (!dev) {
    tavikm::LogNoKeymasterSession();
    return -1;
  }
  std::string new_key;
  if (!dev.upgradeKey(old_key, params, &new_key) || UpgradedBlobIsEmpty(new_key)) return -1;
  return write_string_to_buf(new_key, key_buffer, key_buffer_size, key_out_size) ? 0 : -1;
}
