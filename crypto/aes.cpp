// SPDX-License-Identifier: Apache-2.0
// AES-GCM and AES-CBC over libcrypto's EVP interface, with 16- or 32-byte keys and a 16-byte IV.
// Each call builds its own cipher context and releases it on every path.
#include <openssl/evp.h>

#include "common/log.h"
#include "common/scopers.h"
#include "tavikm.h"

namespace {

constexpr int kIvLength = 16;
constexpr int kTagLength = 16;

// Logs the line for a missing argument; true when `p` is missing. Input and output buffers may
// be missing only when there are no bytes to pass through them.
bool Missing(const char* function, const char* what, const void* p, bool needed = true) {
  if (p || !needed) return false;
  KM_LOGE("%s::Failed, %s is NULL! \n", function, what);
  return true;
}

// A negative length is no length libcrypto could take.
bool NegativeLength(const char* function, int length) {
  if (length >= 0) return false;
  KM_LOGE("(%s)Invalid length %d", function, length);
  return true;
}

const EVP_CIPHER* GcmCipher(size_t key_len) {
  if (key_len == 16) return EVP_aes_128_gcm();
  if (key_len == 32) return EVP_aes_256_gcm();
  return nullptr;
}

const EVP_CIPHER* CbcCipher(size_t key_len) {
  if (key_len == 16) return EVP_aes_128_cbc();
  if (key_len == 32) return EVP_aes_256_cbc();
  return nullptr;
}

// The calls and messages of one CBC direction; both directions share one body.
struct CbcDirection {
  const char* name;
  decltype(&EVP_EncryptInit_ex) init;
  decltype(&EVP_EncryptUpdate) update;
  decltype(&EVP_EncryptFinal_ex) finish;
  const char* init_failed;
  const char* update_failed;
  const char* final_failed;
};

const CbcDirection kCbcEncrypt = {
    "km_aes_encrypt",
    EVP_EncryptInit_ex,
    EVP_EncryptUpdate,
    EVP_EncryptFinal_ex,
    "(%s)Failed to EVP_EncryptInit\n",
    "(%s)Failed to EVP_EncryptUpdate\n",
    "(%s)Failed to EVP_EncryptFinal_ex\n",
};

const CbcDirection kCbcDecrypt = {
    "km_aes_decrypt",
    EVP_DecryptInit_ex,
    EVP_DecryptUpdate,
    EVP_DecryptFinal_ex,
    "(%s)Failed to EVP_DecryptInit\n",
    "(%s)Failed to EVP_DecryptUpdate\n",
    "(%s)Failed to EVP_DecryptFinal_ex\n",
};

int AesCbc(const CbcDirection& dir, const uint8_t* in, int in_len, const uint8_t* key,
           size_t key_len, const uint8_t* iv, uint8_t* out, int padding) {
  if (Missing(dir.name, "in", in, in_len != 0) || Missing(dir.name, "key", key) ||
      Missing(dir.name, "iv", iv) || Missing(dir.name, "out", out) ||
      NegativeLength(dir.name, in_len)) {
    return -1;
  }
  const EVP_CIPHER* cipher = CbcCipher(key_len);
  if (!cipher) {
    KM_LOGE("(%s)Invalid keysize %zu", dir.name, key_len);
    return -1;
  }
  tavikm::ScopedCipherCtx ctx(EVP_CIPHER_CTX_new());
  if (!ctx || dir.init(ctx.get(), cipher, nullptr, key, iv) != 1) {
    KM_LOGE(dir.init_failed, dir.name);
    return -1;
  }
  if (padding == 1) {
    if (EVP_CIPHER_CTX_set_padding(ctx.get(), 1) != 1) {
      KM_LOGE("(%s)Failed to set padding\n", dir.name);
      return -1;
    }
  } else if (EVP_CIPHER_CTX_set_padding(ctx.get(), 0) != 1) {
    // Fixed-length keys are whole AES blocks: without padding the output keeps their length.
    KM_LOGE("(%s)Failed to set no padding for fixed keys\n", dir.name);
    return -1;
  }
  int len = 0;
  if (dir.update(ctx.get(), out, &len, in, in_len) != 1) {
    KM_LOGE(dir.update_failed, dir.name);
    return -1;
  }
  int final_len = 0;
  if (dir.finish(ctx.get(), out + len, &final_len) != 1) {
    KM_LOGE(dir.final_failed, dir.name);
    return -1;
  }
  return len + final_len;
}

}  // namespace

int km_aes_gcm_encrypt(const uint8_t* plaintext, int plaintext_len, const uint8_t* aad, int aad_len,
                       const uint8_t* key, size_t key_len, const uint8_t* iv, uint8_t* ciphertext,
                       uint8_t* tag) {
  static const char kName[] = "km_aes_gcm_encrypt";
  if (Missing(kName, "plaintext", plaintext, plaintext_len != 0) || Missing(kName, "key", key) ||
      Missing(kName, "iv", iv) || Missing(kName, "ciphertext", ciphertext, plaintext_len != 0) ||
      Missing(kName, "tag", tag) || NegativeLength(kName, plaintext_len) ||
      (aad && NegativeLength(kName, aad_len))) {
    return -1;
  }
  const EVP_CIPHER* cipher = GcmCipher(key_len);
  if (!cipher) {
    KM_LOGE("(%s)Invalid keysize %zu", kName, key_len);
    return -1;
  }
  tavikm::ScopedCipherCtx ctx(EVP_CIPHER_CTX_new());
  if (!ctx || EVP_EncryptInit_ex(ctx.get(), cipher, nullptr, nullptr, nullptr) != 1) {
    KM_LOGE("Failed to EVP_EncryptInit\n");
    return -1;
  }
  if (EVP_CIPHER_CTX_ctrl(ctx.get(), EVP_CTRL_GCM_SET_IVLEN, kIvLength, nullptr) != 1) {
    KM_LOGE("(%s)Failed to EVP_CIPHER_CTX_ctrl to set IV length", kName);
    return -1;
  }
  if (EVP_EncryptInit_ex(ctx.get(), nullptr, nullptr, key, iv) != 1) {
    KM_LOGE("(%s)Failed to EVP_EncryptInit_ex", kName);
    return -1;
  }
  int len = 0;
  // A null AAD pointer means no AAD, whatever its length says.
  if (aad && EVP_EncryptUpdate(ctx.get(), nullptr, &len, aad, aad_len) != 1) {
    KM_LOGE("(%s)Failed to EVP_EncryptUpdate for aad", kName);
    return -1;
  }
  if (EVP_EncryptUpdate(ctx.get(), ciphertext, &len, plaintext, plaintext_len) != 1) {
    KM_LOGE("(%s)Failed to EVP_EncryptUpdate for ciphertext", kName);
    return -1;
  }
  int final_len = 0;
  // The final step and the tag read share one message.
  if (EVP_EncryptFinal_ex(ctx.get(), ciphertext + len, &final_len) != 1 ||
      EVP_CIPHER_CTX_ctrl(ctx.get(), EVP_CTRL_GCM_GET_TAG, kTagLength, tag) != 1) {
    KM_LOGE("(%s)Failed to EVP_CIPHER_CTX_ctrl to get the tag", kName);
    return -1;
  }
  return len + final_len;
}

int km_aes_gcm_decrypt(const uint8_t* ciphertext, int ciphertext_len, const uint8_t* aad,
                       int aad_len, const uint8_t* tag, const uint8_t* key, size_t key_len,
                       const uint8_t* iv, uint8_t* plaintext) {
  static const char kName[] = "km_aes_gcm_decrypt";
  if (Missing(kName, "ciphertext", ciphertext, ciphertext_len != 0) || Missing(kName, "tag", tag) ||
      Missing(kName, "key", key) || Missing(kName, "iv", iv) ||
      Missing(kName, "plaintext", plaintext, ciphertext_len != 0) ||
      NegativeLength(kName, ciphertext_len) || (aad && NegativeLength(kName, aad_len))) {
    return -1;
  }
  const EVP_CIPHER* cipher = GcmCipher(key_len);
  if (!cipher) {
    KM_LOGE("(%s)Invalid keysize %zu", kName, key_len);
    return -1;
  }
  tavikm::ScopedCipherCtx ctx(EVP_CIPHER_CTX_new());
  if (!ctx || EVP_DecryptInit_ex(ctx.get(), cipher, nullptr, nullptr, nullptr) != 1) {
    KM_LOGE("Failed to EVP_DecryptInit_ex\n");
    return -1;
  }
  if (EVP_CIPHER_CTX_ctrl(ctx.get(), EVP_CTRL_GCM_SET_IVLEN, kIvLength, nullptr) != 1) {
    KM_LOGE("(%s)Failed to EVP_CIPHER_CTX_ctrl to set iv length", kName);
    return -1;
  }
  if (EVP_DecryptInit_ex(ctx.get(), nullptr, nullptr, key, iv) != 1) {
    KM_LOGE("(%s)Failed to EVP_DecryptInit_ex to init key and iv", kName);
    return -1;
  }
  int len = 0;
  if (aad && EVP_DecryptUpdate(ctx.get(), nullptr, &len, aad, aad_len) != 1) {
    KM_LOGE("(%s)Failed to EVP_DecryptUpdate to provide aad data", kName);
    return -1;
  }
  if (EVP_DecryptUpdate(ctx.get(), plaintext, &len, ciphertext, ciphertext_len) != 1) {
    KM_LOGE("(%s)Failed to EVP_DecryptUpdate to provide the message to be decrypted", kName);
    return -1;
  }
  // libcrypto takes a non-const tag buffer; it only reads it.
  if (EVP_CIPHER_CTX_ctrl(ctx.get(), EVP_CTRL_GCM_SET_TAG, kTagLength, const_cast<uint8_t*>(tag)) !=
      1) {
    KM_LOGE("(%s)Failed to EVP_CIPHER_CTX_ctrl to set ecpected tag value", kName);
    return -1;
  }
  int final_len = 0;
  int rc = EVP_DecryptFinal_ex(ctx.get(), plaintext + len, &final_len);
  if (rc < 1) {
    KM_LOGE("(%s)verify failed for AES GCM Decryption ret = %d", kName, rc);
    return -1;
  }
  return len + final_len;
}

int km_aes_encrypt(const uint8_t* in, int in_len, const uint8_t* key, size_t key_len,
                   const uint8_t* iv, uint8_t* out, int padding) {
  return AesCbc(kCbcEncrypt, in, in_len, key, key_len, iv, out, padding);
}

int km_aes_decrypt(const uint8_t* in, int in_len, const uint8_t* key, size_t key_len,
                   const uint8_t* iv, uint8_t* out, int padding) {
  return AesCbc(kCbcDecrypt, in, in_len, key, key_len, iv, out, padding);
}
