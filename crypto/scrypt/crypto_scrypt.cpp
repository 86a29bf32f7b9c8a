// SPDX-License-Identifier: Apache-2.0
// crypto_scrypt: scrypt (RFC 7914) over PBKDF2-HMAC-SHA256 from libcrypto and the SMix of the
// Salsa20/8 back end chosen for this CPU.
#include <errno.h>
#include <openssl/crypto.h>
#include <openssl/evp.h>
#include <stdlib.h>
#include <string.h>
#include <sys/mman.h>
#include <unistd.h>

#include "common/log.h"
#include "crypto/scrypt/backends.h"
#include "tavikm.h"

namespace {

// (2^32 - 1) * 32: the longest output PBKDF2-HMAC-SHA256 can give.
constexpr uint64_t kMaxOutputLen = 137438953440ULL;
// (2^64 - 1) / 128: above this, 128 * r * N cannot be represented.
constexpr uint64_t kMaxEntries = 144115188075855871ULL;

// A 64-byte-aligned work area, wiped before release once it has held secrets. Release keeps
// errno, which carries the last allocation's result to the caller.
class WorkArea {
 public:
  WorkArea() = default;
  WorkArea(const WorkArea&) = delete;
  WorkArea& operator=(const WorkArea&) = delete;
  ~WorkArea() {
    if (ptr_ == nullptr) return;
    const int saved_errno = errno;
    if (dirty_) OPENSSL_cleanse(ptr_, size_);
    free(ptr_);
    errno = saved_errno;
  }

  // Returns posix_memalign's result code.
  int Allocate(size_t size) {
    size_ = size;
    return posix_memalign(&ptr_, 64, size);
  }
  void MarkDirty() { dirty_ = true; }

  // The table is read at random: on huge pages it takes a few dozen page faults instead of
  // thousands, and far fewer TLB misses. Only advice; a kernel without transparent huge pages
  // declines it, and the caller's errno is kept either way.
  void PreferHugePages() {
    const long page = sysconf(_SC_PAGESIZE);
    if (page <= 0) return;
    const uintptr_t mask = static_cast<uintptr_t>(page) - 1;
    const uintptr_t begin = (reinterpret_cast<uintptr_t>(ptr_) + mask) & ~mask;
    const uintptr_t end = (reinterpret_cast<uintptr_t>(ptr_) + size_) & ~mask;
    if (end <= begin) return;
    const int saved_errno = errno;
    madvise(reinterpret_cast<void*>(begin), end - begin, MADV_HUGEPAGE);
    errno = saved_errno;
  }
  uint8_t* get() const { return static_cast<uint8_t*>(ptr_); }

 private:
  void* ptr_ = nullptr;
  size_t size_ = 0;
  bool dirty_ = false;
};

}  // namespace

int km_crypto_scrypt_with(const km_scrypt_backend* backend, const uint8_t* password,
                          size_t password_len, const uint8_t* salt, size_t salt_len, uint64_t N,
                          uint32_t r, uint32_t p, uint8_t* out, size_t out_len) {
  if (static_cast<uint64_t>(out_len) > kMaxOutputLen) {
    errno = EFBIG;
    return -1;
  }
  if (static_cast<uint64_t>(r) * p >= (1ULL << 30)) {
    errno = EFBIG;
    return -1;
  }
  if (N == 0 || (N & (N - 1)) != 0) {
    errno = EINVAL;
    return -1;
  }
  // A zero divisor counts as a quotient of 0, so a zero r or p ends here.
  const uint64_t r_limit = p != 0 ? kMaxEntries / p : 0;
  const uint64_t n_limit = r != 0 ? kMaxEntries / r : 0;
  if (r > r_limit || N > n_limit) {
    errno = ENOMEM;
    return -1;
  }
  // A buffer may be missing only when it holds no bytes.
  if ((!password && password_len) || (!salt && salt_len) || (!out && out_len)) {
    KM_LOGE("%s::Failed, %s is NULL! \n", "crypto_scrypt",
            (!password && password_len) ? "password"
            : (!salt && salt_len)       ? "salt"
                                        : "out");
    errno = EINVAL;
    return -1;
  }

  // The area sizes are 32-bit products. Where one wraps, the area would be smaller than the
  // work written into it, so such a request is refused as unsatisfiable.
  const uint32_t b_size = 128u * r * p;
  const uint32_t xy_size = 256u * r + 64u;
  const uint32_t v_entry = 128u * r;
  // SMix advances two entries per step, so N = 1 still needs a table of two.
  const uint64_t v_entries = N < 2 ? 2 : N;
  if (b_size != 128ULL * r * p || xy_size != 256ULL * r + 64 || v_entry != 128ULL * r ||
      v_entries > SIZE_MAX / v_entry) {
    errno = ENOMEM;
    return -1;
  }
  const size_t v_size = static_cast<size_t>(v_entry * v_entries);
  // Chosen only now, so that refused arguments never run the back ends' self-test.
  if (backend == nullptr) backend = km_scrypt_selected_backend();

  // The result goes to its own area first: a PBKDF2 that fails half-way leaves the caller's
  // output untouched.
  WorkArea B, XY, V, result;
  if ((errno = B.Allocate(b_size)) != 0) return -1;
  if ((errno = XY.Allocate(xy_size)) != 0) return -1;
  if ((errno = V.Allocate(v_size)) != 0) return -1;
  if ((errno = result.Allocate(out_len ? static_cast<size_t>(out_len) : 1)) != 0) return -1;
  if (v_size >= (2u << 20)) V.PreferHugePages();
  B.MarkDirty();
  XY.MarkDirty();
  V.MarkDirty();
  result.MarkDirty();

  // libcrypto fails PBKDF2 only when it cannot allocate.
  if (!PKCS5_PBKDF2_HMAC(reinterpret_cast<const char*>(password), password_len, salt, salt_len, 1,
                         EVP_sha256(), b_size, B.get())) {
    errno = ENOMEM;
    return -1;
  }
  for (uint32_t i = 0; i < p; i++) {
    backend->smix(B.get() + static_cast<size_t>(v_entry) * i, r, N, V.get(), XY.get());
  }
  if (!PKCS5_PBKDF2_HMAC(reinterpret_cast<const char*>(password), password_len, B.get(), b_size, 1,
                         EVP_sha256(), out_len, result.get())) {
    errno = ENOMEM;
    return -1;
  }
  // A zero-length output may come with a null pointer, which memcpy must never see.
  if (out_len != 0) memcpy(out, result.get(), static_cast<size_t>(out_len));
  return 0;
}

int crypto_scrypt(const uint8_t* password, size_t password_len, const uint8_t* salt,
                  size_t salt_len, uint64_t N, uint32_t r, uint32_t p, uint8_t* out,
                  size_t out_len) {
  return km_crypto_scrypt_with(nullptr, password, password_len, salt, salt_len, N, r, p, out,
                               out_len);
}
