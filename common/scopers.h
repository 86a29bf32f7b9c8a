// SPDX-License-Identifier: Apache-2.0
// Owning handles that release (and, for secrets, wipe) what they hold when they go out of scope,
// in the style of BoringSSL's scopers but built on std::unique_ptr alone, so the same code
// compiles against BoringSSL and OpenSSL 3. Header-only: the library, the host platform and the
// tool all use it, and none of them links another's code for it.
#ifndef TAVIKM_COMMON_SCOPERS_H_
#define TAVIKM_COMMON_SCOPERS_H_

#include <stddef.h>
#include <stdlib.h>
#include <unistd.h>

#include <memory>
#include <utility>

#include <openssl/crypto.h>
#include <openssl/evp.h>

namespace tavikm {

struct CipherCtxDeleter {
  void operator()(EVP_CIPHER_CTX* ctx) const { EVP_CIPHER_CTX_free(ctx); }
};
struct MdCtxDeleter {
  void operator()(EVP_MD_CTX* ctx) const { EVP_MD_CTX_free(ctx); }
};
struct PkeyDeleter {
  void operator()(EVP_PKEY* key) const { EVP_PKEY_free(key); }
};
struct PkeyCtxDeleter {
  void operator()(EVP_PKEY_CTX* ctx) const { EVP_PKEY_CTX_free(ctx); }
};

using ScopedCipherCtx = std::unique_ptr<EVP_CIPHER_CTX, CipherCtxDeleter>;
using ScopedMdCtx = std::unique_ptr<EVP_MD_CTX, MdCtxDeleter>;
using ScopedPkey = std::unique_ptr<EVP_PKEY, PkeyDeleter>;
using ScopedPkeyCtx = std::unique_ptr<EVP_PKEY_CTX, PkeyCtxDeleter>;

// Wipes `size` bytes of a malloc()ed buffer and frees it; null is nothing to do.
inline void WipeAndFree(void* data, size_t size) {
  if (!data) return;
  OPENSSL_cleanse(data, size);
  free(data);
}

// A malloc()ed buffer of secret bytes (typically a service's output handed to us), wiped and
// freed when the scoper goes.
class ScopedWipedBuffer {
 public:
  ScopedWipedBuffer(void* data, size_t size) : data_(data), size_(size) {}
  ~ScopedWipedBuffer() { WipeAndFree(data_, size_); }
  ScopedWipedBuffer(const ScopedWipedBuffer&) = delete;
  ScopedWipedBuffer& operator=(const ScopedWipedBuffer&) = delete;

  // Gives up ownership without wiping.
  void* release() { return std::exchange(data_, nullptr); }

 private:
  void* data_;
  size_t size_;
};

// Wipes memory the caller owns (a local array, a record) when the scoper goes.
class ScopedCleanse {
 public:
  ScopedCleanse(void* data, size_t size) : data_(data), size_(size) {}
  ~ScopedCleanse() { OPENSSL_cleanse(data_, size_); }
  ScopedCleanse(const ScopedCleanse&) = delete;
  ScopedCleanse& operator=(const ScopedCleanse&) = delete;

 private:
  void* data_;
  size_t size_;
};

// A file descriptor, closed when the scoper goes. Negative: none.
class ScopedFd {
 public:
  explicit ScopedFd(int fd) : fd_(fd) {}
  ~ScopedFd() { reset(); }
  ScopedFd(const ScopedFd&) = delete;
  ScopedFd& operator=(const ScopedFd&) = delete;

  int get() const { return fd_; }
  bool ok() const { return fd_ >= 0; }
  void reset() {
    if (fd_ >= 0) ::close(fd_);
    fd_ = -1;
  }
  int release() { return std::exchange(fd_, -1); }
  // Closes now, for callers that must see close()'s own result (a write's last error can
  // surface there): 0, or -1 with errno set.
  int close() { return fd_ < 0 ? 0 : ::close(std::exchange(fd_, -1)); }

 private:
  int fd_;
};

}  // namespace tavikm

#endif  // TAVIKM_COMMON_SCOPERS_H_
