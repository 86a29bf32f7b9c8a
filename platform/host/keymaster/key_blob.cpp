// SPDX-License-Identifier: Apache-2.0
// Sealing and opening of the emulated Keymaster's key blobs.
//
// Blob: "TKB1" | level (4 bytes, little-endian) | nonce (12) | ciphertext | GCM tag (16); the
// first 8 bytes are authenticated as associated data. Plaintext: material length (4) |
// material | serialized authorizations | serialized hidden binding.
#include "key_blob.h"

#include <string.h>

#include <memory>
#include <sstream>
#include <string>

#include <openssl/crypto.h>
#include <openssl/err.h>
#include <openssl/evp.h>
#include <openssl/hmac.h>
#include <openssl/rand.h>

#include "common/le_codec.h"
#include "crypto.h"
#include "device_state.h"

namespace tavikm_host::km {
namespace {

constexpr uint8_t kMagic[4] = {'T', 'K', 'B', '1'};
constexpr size_t kHeaderSize = 8;
constexpr size_t kNonceSize = 12;
constexpr size_t kTagSize = 16;
constexpr char kBlobKeyLabel[] = "tavikm host keymaster: key blob sealing key";

// The sealing key is derived from the device secret rather than being the secret itself.
bool SealingKey(SecretBytes* key) {
  SecretBytes secret;
  if (!LoadDeviceSecret(&secret)) return false;
  SecretBytes derived(32);
  unsigned int length = 0;
  if (!HMAC(EVP_sha256(), secret.data(), secret.size(),
            reinterpret_cast<const uint8_t*>(kBlobKeyLabel), sizeof(kBlobKeyLabel) - 1,
            derived.data(), &length) ||
      length != derived.size()) {
    ERR_clear_error();
    return false;
  }
  *key = std::move(derived);
  return true;
}

std::string Serialized(const hw::AuthorizationSet& set) {
  std::ostringstream out;
  set.Serialize(&out);
  return out.str();
}

}  // namespace

bool SealKeyBlob(const KeyBlobContents& contents, std::vector<uint8_t>* blob) {
  SecretBytes key;
  if (!SealingKey(&key)) return false;

  std::string auths = Serialized(contents.authorizations);
  std::string hidden = Serialized(contents.hidden);
  SecretBytes plain;
  std::vector<uint8_t> length;
  tavikm::LeWriter(&length).U32(static_cast<uint32_t>(contents.material.size()));
  plain.Append(length.data(), length.size());
  plain.Append(contents.material.data(), contents.material.size());
  plain.Append(reinterpret_cast<const uint8_t*>(auths.data()), auths.size());
  plain.Append(reinterpret_cast<const uint8_t*>(hidden.data()), hidden.size());

  uint8_t nonce[kNonceSize];
  if (RAND_bytes(nonce, sizeof(nonce)) != 1) return false;
  std::vector<uint8_t> out;
  tavikm::LeWriter(&out).Bytes(kMagic, sizeof(kMagic)).U32(contents.level).Bytes(nonce, kNonceSize);
  size_t body = out.size();
  out.resize(body + plain.size() + kTagSize);

  tavikm::ScopedCipherCtx ctx(EVP_CIPHER_CTX_new());
  int n = 0, final_n = 0;
  bool ok = ctx && EVP_EncryptInit_ex(ctx.get(), EVP_aes_256_gcm(), nullptr, nullptr, nullptr) &&
            EVP_CIPHER_CTX_ctrl(ctx.get(), EVP_CTRL_GCM_SET_IVLEN, kNonceSize, nullptr) &&
            EVP_EncryptInit_ex(ctx.get(), nullptr, nullptr, key.data(), nonce) &&
            EVP_EncryptUpdate(ctx.get(), nullptr, &n, out.data(), kHeaderSize) &&
            EVP_EncryptUpdate(ctx.get(), out.data() + body, &n, plain.data(),
                              static_cast<int>(plain.size())) &&
            EVP_EncryptFinal_ex(ctx.get(), out.data() + body + n, &final_n) &&
            static_cast<size_t>(n + final_n) == plain.size() &&
            EVP_CIPHER_CTX_ctrl(ctx.get(), EVP_CTRL_GCM_GET_TAG, kTagSize,
                                out.data() + body + plain.size());
  if (!ok) {
    ERR_clear_error();
    return false;
  }
  *blob = std::move(out);
  return true;
}

bool OpenKeyBlob(const uint8_t* blob, size_t size, KeyBlobContents* contents) {
  tavikm::LeReader in(blob, size);
  uint8_t magic[sizeof(kMagic)];
  uint32_t level = 0;
  const size_t cipher_size = size >= kHeaderSize + kNonceSize + kTagSize + 4
                                 ? size - kHeaderSize - kNonceSize - kTagSize
                                 : 0;
  if (!in.Bytes(magic, sizeof(magic)) || !in.U32(&level)) return false;
  const uint8_t* nonce = in.Take(kNonceSize);
  const uint8_t* cipher = in.Take(cipher_size);
  const uint8_t* tag_bytes = in.Take(kTagSize);
  if (cipher_size == 0 || !in.done() || memcmp(magic, kMagic, sizeof(kMagic)) != 0) return false;
  SecretBytes key;
  if (!SealingKey(&key)) return false;

  uint8_t tag[kTagSize];
  memcpy(tag, tag_bytes, kTagSize);
  SecretBytes plain(cipher_size);
  tavikm::ScopedCipherCtx ctx(EVP_CIPHER_CTX_new());
  int n = 0, final_n = 0;
  bool ok = ctx && EVP_DecryptInit_ex(ctx.get(), EVP_aes_256_gcm(), nullptr, nullptr, nullptr) &&
            EVP_CIPHER_CTX_ctrl(ctx.get(), EVP_CTRL_GCM_SET_IVLEN, kNonceSize, nullptr) &&
            EVP_DecryptInit_ex(ctx.get(), nullptr, nullptr, key.data(), nonce) &&
            EVP_DecryptUpdate(ctx.get(), nullptr, &n, blob, kHeaderSize) &&
            EVP_DecryptUpdate(ctx.get(), plain.data(), &n, cipher, static_cast<int>(cipher_size)) &&
            EVP_CIPHER_CTX_ctrl(ctx.get(), EVP_CTRL_GCM_SET_TAG, kTagSize, tag) &&
            EVP_DecryptFinal_ex(ctx.get(), plain.data() + n, &final_n) > 0;
  if (!ok) {
    ERR_clear_error();
    return false;
  }

  // Authentic from here on, but parsed as carefully as anything else.
  tavikm::LeReader fields(plain.data(), plain.size());
  uint32_t material_size = 0;
  const uint8_t* material = fields.U32(&material_size) ? fields.Take(material_size) : nullptr;
  if (!material) return false;
  KeyBlobContents opened;
  opened.level = level;
  opened.material = SecretBytes(material, material_size);
  size_t offset = fields.position();
  std::istringstream rest(
      std::string(reinterpret_cast<const char*>(plain.data()) + offset, plain.size() - offset));
  opened.authorizations.Deserialize(&rest);
  opened.hidden.Deserialize(&rest);
  if (!rest || rest.peek() != std::char_traits<char>::eof()) return false;
  if (IsKeyDeleted(KeyId(opened.material))) return false;
  *contents = std::move(opened);
  return true;
}

hw::AuthorizationSet HiddenParams(const hw::AuthorizationSet& params) {
  hw::AuthorizationSet hidden;
  for (const hw::KeyParameter& param : params) {
    if (param.tag == hw::Tag::APPLICATION_ID || param.tag == hw::Tag::APPLICATION_DATA) {
      hidden.push_back(param);
    }
  }
  hidden.Sort();
  return hidden;
}

hw::AuthorizationSet HiddenParams(const hidl_vec<uint8_t>& clientId,
                                  const hidl_vec<uint8_t>& appData) {
  hw::AuthorizationSet params;
  if (clientId.size()) params.push_back(hw::TAG_APPLICATION_ID, clientId);
  if (appData.size()) params.push_back(hw::TAG_APPLICATION_DATA, appData);
  return HiddenParams(params);
}

bool HiddenMatches(const KeyBlobContents& contents, const hw::AuthorizationSet& given) {
  hw::AuthorizationSet wanted = HiddenParams(given);
  if (wanted.size() != contents.hidden.size()) return false;
  for (size_t i = 0; i < wanted.size(); ++i) {
    const hw::KeyParameter& a = wanted[static_cast<int>(i)];
    const hw::KeyParameter& b = contents.hidden[static_cast<int>(i)];
    if (a.tag != b.tag || a.blob.size() != b.blob.size() ||
        (a.blob.size() && CRYPTO_memcmp(a.blob.data(), b.blob.data(), a.blob.size()) != 0)) {
      return false;
    }
  }
  return true;
}

}  // namespace tavikm_host::km
