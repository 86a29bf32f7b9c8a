// SPDX-License-Identifier: Apache-2.0
// The emulated Keymaster's cryptography over libcrypto's EVP interface (the subset BoringSSL
// and OpenSSL 3 share): streaming AES-GCM and AES-CBC, and RSA key generation, raw private and
// public operations and public-key export.
#ifndef TAVIKM_HOST_KEYMASTER_CRYPTO_H_
#define TAVIKM_HOST_KEYMASTER_CRYPTO_H_

#include <stddef.h>
#include <stdint.h>

#include <vector>

#include <openssl/evp.h>

#include "common/scopers.h"
#include "secret_bytes.h"

namespace tavikm_host::km {

// AES (128 or 256 bits by key length) in GCM or CBC-without-padding mode, fed in pieces.
class AesStream {
 public:
  // GCM: `iv` of 12 bytes, `tag_bytes` the tag length. CBC: `iv` of 16 bytes.
  bool InitGcm(const SecretBytes& key, const uint8_t* iv, size_t iv_size, bool encrypt);
  bool InitCbc(const SecretBytes& key, const uint8_t* iv, bool encrypt);
  // Associated data (GCM only, before any Update).
  bool AddAad(const uint8_t* aad, size_t size);
  // Appends the output for `size` more input bytes to `out`.
  bool Update(const uint8_t* in, size_t size, std::vector<uint8_t>* out);
  // GCM encryption: finishes and writes the first `tag_bytes` of the tag to `tag`.
  bool FinishEncryptGcm(size_t tag_bytes, std::vector<uint8_t>* tag);
  // GCM decryption: false when `tag` does not authenticate what came in.
  bool FinishDecryptGcm(const uint8_t* tag, size_t tag_bytes);
  // CBC: false when the input was not a whole number of blocks.
  bool FinishCbc(std::vector<uint8_t>* out);

 private:
  tavikm::ScopedCipherCtx ctx_;
};

// A fresh RSA key of `bits` with exponent 65537, as DER (PKCS#1 private key).
bool GenerateRsaKey(unsigned bits, SecretBytes* der);

// Size of the key's modulus in bytes, or 0 when `der` is not an RSA private key.
size_t RsaModulusSize(const SecretBytes& der);

// The raw private-key operation (input ^ d mod n) on exactly modulus-size bytes. False when the
// input is not below the modulus.
bool RsaRawPrivate(const SecretBytes& der, const uint8_t* in, size_t size,
                   std::vector<uint8_t>* out);

// The raw public-key operation (input ^ e mod n) on exactly modulus-size bytes.
bool RsaRawPublic(const SecretBytes& der, const uint8_t* in, size_t size,
                  std::vector<uint8_t>* out);

// The public key as a DER SubjectPublicKeyInfo.
bool RsaPublicKeyInfo(const SecretBytes& der, std::vector<uint8_t>* out);

}  // namespace tavikm_host::km

#endif  // TAVIKM_HOST_KEYMASTER_CRYPTO_H_
