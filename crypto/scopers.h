// Owning handles for libcrypto objects, in the style of BoringSSL's scopers but built on
// std::unique_ptr alone, so the same code compiles against BoringSSL and OpenSSL 3.
#ifndef TAVIKM_CRYPTO_SCOPERS_H_
#define TAVIKM_CRYPTO_SCOPERS_H_

#include <openssl/evp.h>

#include <memory>

namespace tavikm {

struct CipherCtxDeleter {
  void operator()(EVP_CIPHER_CTX* ctx) const { EVP_CIPHER_CTX_free(ctx); }
};
struct MdCtxDeleter {
  void operator()(EVP_MD_CTX* ctx) const { EVP_MD_CTX_free(ctx); }
};

using ScopedCipherCtx = std::unique_ptr<EVP_CIPHER_CTX, CipherCtxDeleter>;
using ScopedMdCtx = std::unique_ptr<EVP_MD_CTX, MdCtxDeleter>;

}  // namespace tavikm

#endif  // TAVIKM_CRYPTO_SCOPERS_H_
