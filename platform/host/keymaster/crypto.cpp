// SPDX-License-Identifier: Apache-2.0
// The emulated Keymaster's cryptography. Every failure clears libcrypto's error queue, so the
// device never leaves errors behind for its callers to trip over.
#include "crypto.h"

#include <openssl/err.h>
#include <openssl/rsa.h>
#include <openssl/x509.h>

namespace tavikm_host::km {
namespace {

bool Fail() {
  ERR_clear_error();
  return false;
}

const EVP_CIPHER* Gcm(size_t key_size) {
  if (key_size == 16) return EVP_aes_128_gcm();
  if (key_size == 32) return EVP_aes_256_gcm();
  return nullptr;
}

const EVP_CIPHER* Cbc(size_t key_size) {
  if (key_size == 16) return EVP_aes_128_cbc();
  if (key_size == 32) return EVP_aes_256_cbc();
  return nullptr;
}

tavikm::ScopedPkey ParsePrivate(const SecretBytes& der) {
  const uint8_t* p = der.data();
  tavikm::ScopedPkey key(d2i_PrivateKey(EVP_PKEY_RSA, nullptr, &p, static_cast<long>(der.size())));
  if (!key) ERR_clear_error();
  return key;
}

bool RawOperation(const SecretBytes& der, bool private_key, const uint8_t* in, size_t size,
                  std::vector<uint8_t>* out) {
  tavikm::ScopedPkey key = ParsePrivate(der);
  if (!key || size != static_cast<size_t>(EVP_PKEY_size(key.get()))) return Fail();
  tavikm::ScopedPkeyCtx ctx(EVP_PKEY_CTX_new(key.get(), nullptr));
  std::vector<uint8_t> result(size);
  size_t result_size = result.size();
  bool ok;
  if (private_key) {
    ok = ctx && EVP_PKEY_sign_init(ctx.get()) > 0 &&
         EVP_PKEY_CTX_set_rsa_padding(ctx.get(), RSA_NO_PADDING) > 0 &&
         EVP_PKEY_sign(ctx.get(), result.data(), &result_size, in, size) > 0;
  } else {
    ok = ctx && EVP_PKEY_encrypt_init(ctx.get()) > 0 &&
         EVP_PKEY_CTX_set_rsa_padding(ctx.get(), RSA_NO_PADDING) > 0 &&
         EVP_PKEY_encrypt(ctx.get(), result.data(), &result_size, in, size) > 0;
  }
  if (!ok || result_size != size) return Fail();
  *out = std::move(result);
  return true;
}

}  // namespace

bool AesStream::InitGcm(const SecretBytes& key, const uint8_t* iv, size_t iv_size, bool encrypt) {
  const EVP_CIPHER* cipher = Gcm(key.size());
  ctx_.reset(EVP_CIPHER_CTX_new());
  if (!cipher || !ctx_) return Fail();
  bool ok =
      EVP_CipherInit_ex(ctx_.get(), cipher, nullptr, nullptr, nullptr, encrypt) &&
      EVP_CIPHER_CTX_ctrl(ctx_.get(), EVP_CTRL_GCM_SET_IVLEN, static_cast<int>(iv_size), nullptr) &&
      EVP_CipherInit_ex(ctx_.get(), nullptr, nullptr, key.data(), iv, encrypt);
  return ok || Fail();
}

bool AesStream::InitCbc(const SecretBytes& key, const uint8_t* iv, bool encrypt) {
  const EVP_CIPHER* cipher = Cbc(key.size());
  ctx_.reset(EVP_CIPHER_CTX_new());
  if (!cipher || !ctx_) return Fail();
  bool ok = EVP_CipherInit_ex(ctx_.get(), cipher, nullptr, key.data(), iv, encrypt) &&
            EVP_CIPHER_CTX_set_padding(ctx_.get(), 0);
  return ok || Fail();
}

bool AesStream::AddAad(const uint8_t* aad, size_t size) {
  int n = 0;
  if (size == 0) return true;
  return EVP_CipherUpdate(ctx_.get(), nullptr, &n, aad, static_cast<int>(size)) || Fail();
}

bool AesStream::Update(const uint8_t* in, size_t size, std::vector<uint8_t>* out) {
  if (size == 0) return true;
  size_t start = out->size();
  out->resize(start + size + 16);
  int n = 0;
  if (!EVP_CipherUpdate(ctx_.get(), out->data() + start, &n, in, static_cast<int>(size))) {
    out->resize(start);
    return Fail();
  }
  out->resize(start + static_cast<size_t>(n));
  return true;
}

bool AesStream::FinishEncryptGcm(size_t tag_bytes, std::vector<uint8_t>* tag) {
  uint8_t rest[16];
  uint8_t full_tag[16];
  int n = 0;
  if (!EVP_CipherFinal_ex(ctx_.get(), rest, &n) || n != 0 ||
      !EVP_CIPHER_CTX_ctrl(ctx_.get(), EVP_CTRL_GCM_GET_TAG, 16, full_tag)) {
    return Fail();
  }
  tag->insert(tag->end(), full_tag, full_tag + tag_bytes);
  return true;
}

bool AesStream::FinishDecryptGcm(const uint8_t* tag, size_t tag_bytes) {
  uint8_t rest[16];
  int n = 0;
  bool ok = EVP_CIPHER_CTX_ctrl(ctx_.get(), EVP_CTRL_GCM_SET_TAG, static_cast<int>(tag_bytes),
                                const_cast<uint8_t*>(tag)) &&
            EVP_CipherFinal_ex(ctx_.get(), rest, &n) > 0 && n == 0;
  return ok || Fail();
}

bool AesStream::FinishCbc(std::vector<uint8_t>* out) {
  uint8_t rest[16];
  int n = 0;
  if (!EVP_CipherFinal_ex(ctx_.get(), rest, &n)) return Fail();
  out->insert(out->end(), rest, rest + n);
  return true;
}

bool GenerateRsaKey(unsigned bits, SecretBytes* der) {
  tavikm::ScopedPkeyCtx ctx(EVP_PKEY_CTX_new_id(EVP_PKEY_RSA, nullptr));
  EVP_PKEY* raw = nullptr;
  // Both libraries default to the public exponent 65537.
  if (!ctx || EVP_PKEY_keygen_init(ctx.get()) <= 0 ||
      EVP_PKEY_CTX_set_rsa_keygen_bits(ctx.get(), static_cast<int>(bits)) <= 0 ||
      EVP_PKEY_keygen(ctx.get(), &raw) <= 0) {
    return Fail();
  }
  tavikm::ScopedPkey key(raw);
  int size = i2d_PrivateKey(key.get(), nullptr);
  if (size <= 0) return Fail();
  SecretBytes out(static_cast<size_t>(size));
  uint8_t* p = out.data();
  if (i2d_PrivateKey(key.get(), &p) != size) return Fail();
  *der = std::move(out);
  return true;
}

size_t RsaModulusSize(const SecretBytes& der) {
  tavikm::ScopedPkey key = ParsePrivate(der);
  return key ? static_cast<size_t>(EVP_PKEY_size(key.get())) : 0;
}

bool RsaRawPrivate(const SecretBytes& der, const uint8_t* in, size_t size,
                   std::vector<uint8_t>* out) {
  return RawOperation(der, true, in, size, out);
}

bool RsaRawPublic(const SecretBytes& der, const uint8_t* in, size_t size,
                  std::vector<uint8_t>* out) {
  return RawOperation(der, false, in, size, out);
}

bool RsaPublicKeyInfo(const SecretBytes& der, std::vector<uint8_t>* out) {
  tavikm::ScopedPkey key = ParsePrivate(der);
  if (!key) return false;
  int size = i2d_PUBKEY(key.get(), nullptr);
  if (size <= 0) return Fail();
  std::vector<uint8_t> result(static_cast<size_t>(size));
  uint8_t* p = result.data();
  if (i2d_PUBKEY(key.get(), &p) != size) return Fail();
  *out = std::move(result);
  return true;
}

}  // namespace tavikm_host::km
