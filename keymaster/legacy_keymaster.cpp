// SPDX-License-Identifier: Apache-2.0
// The legacy Keymaster path: the "keystore" module's keymaster1 device encrypts and decrypts
// 32-byte secrets with a record's AES key blob, and the kek mac (HMAC-SHA256 over the record's
// XTKM value) is made and checked with a MAC key kept in the record, encrypted that way.
#include "keymaster/legacy_keymaster.h"

#include <hardware/hardware.h>
#include <openssl/crypto.h>
#include <openssl/err.h>
#include <openssl/evp.h>
#include <openssl/hmac.h>
#include <openssl/rand.h>
#include <stddef.h>
#include <stdint.h>
#include <stdlib.h>
#include <string.h>

#include "common/log.h"
#include "common/record_view.h"
#include "common/scopers.h"

namespace {

// Every message is exactly one AES block pair: MAC keys, KEKs and their encryptions.
constexpr size_t kMessageSize = 32;
constexpr size_t kMacKeySize = 32;
// The local buffers MAC keys live in.
constexpr size_t kKeyBufferSize = 64;
static_assert(kKeyBufferSize >= tavikm::kMaxRecordMacKeySize, "a stored MAC key must fit");

using tavikm::RecordView;

struct CipherMessages {
  const char* begin;
  const char* update;  // null: a failing update is not reported
  const char* finish;
};

const CipherMessages kEncryptMessages = {
    "Failed to begin cipher for aes enc(err=%d)",
    "Failed to update cipher for aes enc(err=%d)",
    "Failed to finish cipher for aes enc(err=%d)",
};
const CipherMessages kDecryptMessages = {
    "Failed to begin cipher for aes dec(err=%d)",
    nullptr,
    "Failed to finish cipher for aes dec(err=%d)",
};

// The device's output blob belongs to us: wiped, then released.
void ReleaseOutput(keymaster_blob_t* output) {
  tavikm::WipeAndFree(const_cast<uint8_t*>(output->data), output->data_length);
  output->data = nullptr;
  output->data_length = 0;
}

// Copies the device's output to out[*offset ..] if it fits in the 32-byte message, then wipes
// and releases it. False when the device produced more than a message holds.
bool TakeOutput(keymaster_blob_t* output, unsigned char* out, size_t* offset) {
  bool fits = output->data_length <= kMessageSize - *offset;
  if (fits && output->data_length) {
    memcpy(out + *offset, output->data, output->data_length);
    *offset += output->data_length;
  }
  ReleaseOutput(output);
  return fits;
}

// One message through an open keymaster1 device: begin, one update of the whole message,
// finish. 0 when all 32 bytes came out into `out`.
int RunMessage(keymaster1_device_t* km1, const keymaster_key_blob_t* key,
               const keymaster_key_param_set_t& param_set, const keymaster_blob_t& input,
               unsigned char* out, keymaster_purpose_t purpose, const CipherMessages& messages) {
  keymaster_operation_handle_t handle = 0;
  keymaster_key_param_set_t out_params = {nullptr, 0};
  keymaster_blob_t output = {nullptr, 0};
  size_t consumed = 0;
  size_t written = 0;
  keymaster_error_t error = km1->begin(km1, purpose, key, &param_set, &out_params, &handle);
  keymaster_free_param_set(&out_params);
  if (error != KM_ERROR_OK) {
    KM_LOGE(messages.begin, error);
    return -1;
  }
  // A failed update ends the operation on the device: there is nothing to abort.
  error = km1->update(km1, handle, nullptr, &input, &consumed, nullptr, &output);
  if (error != KM_ERROR_OK) {
    ReleaseOutput(&output);
    if (messages.update) KM_LOGE(messages.update, error);
    return -1;
  }
  if (consumed != kMessageSize) {
    // Part of a message cannot be finished into a whole one. The device still holds the
    // operation open, so it is aborted here; the update's own message (if any) says it failed,
    // with the code the device gave.
    ReleaseOutput(&output);
    km1->abort(km1, handle);
    if (messages.update) KM_LOGE(messages.update, error);
    return -1;
  }
  if (!TakeOutput(&output, out, &written)) {
    km1->abort(km1, handle);
    return -1;
  }
  error = km1->finish(km1, handle, nullptr, nullptr, nullptr, &output);
  if (error != KM_ERROR_OK) {
    ReleaseOutput(&output);
    KM_LOGE(messages.finish, error);
    return -1;
  }
  return TakeOutput(&output, out, &written) ? 0 : -1;
}

int CipherMessage(km_meta* meta, keymaster_key_blob_t* key, const unsigned char* in,
                  unsigned char* out, keymaster_purpose_t purpose, const CipherMessages& messages) {
  keymaster_key_param_t params[] = {
      keymaster_param_enum(KM_TAG_ALGORITHM, KM_ALGORITHM_AES),
      keymaster_param_enum(KM_TAG_PADDING, KM_PAD_NONE),
      keymaster_param_enum(KM_TAG_BLOCK_MODE, KM_MODE_CBC),
      keymaster_param_blob(KM_TAG_NONCE, meta->object_iv, sizeof(meta->object_iv)),
  };
  const keymaster_key_param_set_t param_set = {params, sizeof(params) / sizeof(params[0])};
  const keymaster_blob_t input = {in, kMessageSize};

  keymaster0_device_t* km0 = nullptr;
  keymaster1_device_t* km1 = nullptr;
  if (km_keymaster_init(&km0, &km1) != 0) {
    KM_LOGE("Failed to init keymaster");
    return -1;
  }
  // Messages go through the keymaster1 interface only.
  const int result = km1 ? RunMessage(km1, key, param_set, input, out, purpose, messages) : -1;
  // Opened for this one message and closed again: nothing is kept between calls.
  if (km0) keymaster0_close(km0);
  if (km1) keymaster1_close(km1);
  return result;
}

// The record's key blob, or false when its stored length overruns the blob field.
bool RecordKey(const km_meta* meta, keymaster_key_blob_t* key) {
  const RecordView view(meta);
  if (!view.ok(RecordView::kKeyBlob)) return false;
  key->key_material = meta->km_key_blob;
  key->key_material_size = view.key_blob_size();
  return true;
}

// HMAC-SHA256 over the record's XTKM value with the record's MAC key length into `mac` (room
// for EVP_MAX_MD_SIZE). False when the MAC cannot be made, also when a stored length would take
// it outside the record or the key.
bool XtkmMac(const km_meta* meta, const unsigned char* mac_key, unsigned char* mac,
             unsigned int* mac_len) {
  const RecordView view(meta);
  if (!view.ok(RecordView::kXtkmValue | RecordView::kMacKey)) return false;
  return HMAC(EVP_sha256(), mac_key, view.mac_key_size(), meta->xtkm_value, view.xtkm_value_size(),
              mac, mac_len) != nullptr;
}

// key_name for messages, never read past its field.
int NameLength(const km_meta* meta) { return RecordView(meta).key_name_length(); }

}  // namespace

int km_keymaster_init(keymaster0_device_t** km0, keymaster1_device_t** km1) {
  const hw_module_t* module = nullptr;
  int rc = hw_get_module_by_class(KEYSTORE_HARDWARE_MODULE_ID, nullptr, &module);
  if (rc != 0) {
    KM_LOGE("could not find any keystore module");
    *km0 = nullptr;
    *km1 = nullptr;
    return rc;
  }
  KM_LOGI("keymaster module name is %s", module->name);
  KM_LOGI("keymaster version is %d", module->module_api_version);

  *km0 = nullptr;
  *km1 = nullptr;
  // Exactly 1.0 is a keymaster1 module; anything else, older or newer, is taken as keymaster0.
  if (module->module_api_version == KEYMASTER_MODULE_API_VERSION_1_0) {
    KM_LOGI("Found keymaster1 module, using keymaster1 API.");
    rc = keymaster1_open(module, km1);
  } else {
    KM_LOGI("Found keymaster0 module, using keymaster0 API.");
    rc = keymaster0_open(module, km0);
  }
  if (rc == 0) return 0;
  KM_LOGE("could not open keymaster device in %s (%s)", KEYSTORE_HARDWARE_MODULE_ID, strerror(-rc));
  *km0 = nullptr;
  *km1 = nullptr;
  return rc;
}

int km_keymaster_encrypt_message(km_meta* meta, keymaster_key_blob_t* key, const unsigned char* in,
                                 unsigned char* out) {
  return CipherMessage(meta, key, in, out, KM_PURPOSE_ENCRYPT, kEncryptMessages);
}

int km_keymaster_decrypt_message(km_meta* meta, keymaster_key_blob_t* key, const unsigned char* in,
                                 unsigned char* out) {
  return CipherMessage(meta, key, in, out, KM_PURPOSE_DECRYPT, kDecryptMessages);
}

int km_generate_HMAC(km_meta* meta) {
  unsigned char mac_key[kKeyBufferSize] = {};
  const tavikm::ScopedCleanse wipe_mac_key(mac_key, sizeof(mac_key));
  // A generator that reports failure would give a MAC key that is not random: the process ends
  // after the line rather than protect a KEK with it.
  if (RAND_bytes(mac_key, kMacKeySize) != 1) {
    KM_LOGE("Getting random bytes error = %ld\n", static_cast<long>(ERR_get_error()));
    abort();
  }
  meta->mac_key_size = kMacKeySize;

  keymaster_key_blob_t key;
  if (!RecordKey(meta, &key) ||
      km_keymaster_encrypt_message(meta, &key, mac_key, meta->mac_key_enc) < 0) {
    KM_LOGE("Failed to encrypt mac key by keymaster");
    return -1;
  }

  unsigned char mac[EVP_MAX_MD_SIZE];
  unsigned int mac_len = 0;
  if (!XtkmMac(meta, mac_key, mac, &mac_len)) {
    KM_LOGE("Failed to create %.*s_mac\n", NameLength(meta), meta->key_name);
    return -1;
  }
  memcpy(meta->kek_mac, mac, mac_len);
  meta->kek_mac_size = mac_len;
  return 0;
}

int km_verify_HMAC(km_meta* meta) {
  unsigned char mac_key[kKeyBufferSize] = {};
  const tavikm::ScopedCleanse wipe_mac_key(mac_key, sizeof(mac_key));
  keymaster_key_blob_t key;
  if (!RecordKey(meta, &key) ||
      km_keymaster_decrypt_message(meta, &key, meta->mac_key_enc, mac_key) < 0) {
    KM_LOGE("Failed to decrypt mac key by keymaster");
    return -1;
  }

  unsigned char mac[EVP_MAX_MD_SIZE];
  unsigned int mac_len = 0;
  if (!XtkmMac(meta, mac_key, mac, &mac_len)) {
    KM_LOGE("Failed to create %.*s_mac for verify\n", NameLength(meta), meta->key_name);
    return -1;
  }
  // Over what the HMAC produced, not the stored kek_mac_size.
  if (CRYPTO_memcmp(mac, meta->kek_mac, mac_len) != 0) {
    KM_LOGE("Failed to verify %.*s_mac\n", NameLength(meta), meta->key_name);
    return -1;
  }
  KM_LOGI("success to verify %.*s_mac\n", NameLength(meta), meta->key_name);
  return 0;
}
