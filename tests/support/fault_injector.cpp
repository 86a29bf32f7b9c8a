// SPDX-License-Identifier: Apache-2.0
// The fault injector's wrappers (see fault_injector.h for how they are linked in). Everything
// the wrappers keep is in fixed arrays: a wrapper that allocated would call itself.
#include "support/fault_injector.h"

#include <errno.h>
#include <fcntl.h>
#include <malloc.h>
#include <stdarg.h>
#include <stdio.h>
#include <string.h>
#include <sys/stat.h>
#include <sys/types.h>

#include <atomic>
#include <new>

#if __has_include(<valgrind/memcheck.h>)
#include <valgrind/memcheck.h>
#else
#define VALGRIND_MAKE_MEM_DEFINED_IF_ADDRESSABLE(p, n) ((void)(p), (void)(n))
#endif

namespace tavikm_test {
namespace {

constexpr int kKinds = static_cast<int>(Fault::kCount);

std::atomic<bool> g_armed{false};
std::atomic<bool> g_tracking{false};
int g_counts[kKinds];
int g_target = kKinds;
int g_nth = 0;
int g_error = 0;
bool g_fired = false;

constexpr size_t kMaxLive = 1 << 14;
LiveBlock g_live[kMaxLive];
size_t g_live_count = 0;

struct Secret {
  char what[48];
  uint8_t bytes[256];
  size_t size;
};
constexpr size_t kMaxSecrets = 16;
Secret g_secrets[kMaxSecrets];
size_t g_secret_count = 0;

constexpr size_t kMaxUnwiped = 32;
char g_unwiped[kMaxUnwiped][160];
size_t g_unwiped_count = 0;

bool Active() { return g_armed.load(std::memory_order_relaxed) && g_fault_pause_depth == 0; }

// Counts the call; true when it is the one to fail.
bool Fail(Fault kind) {
  if (!Active()) return false;
  const int k = static_cast<int>(kind);
  const int n = ++g_counts[k];
  if (k == g_target && n == g_nth) {
    g_fired = true;
    return true;
  }
  return false;
}

bool FailErrno(Fault kind) {
  if (!Fail(kind)) return false;
  errno = g_error;
  return true;
}

void Track(void* ptr, size_t size) {
  if (!ptr || !Active()) return;
  if (g_live_count < kMaxLive) g_live[g_live_count++] = LiveBlock{ptr, size};
}

// Looks into a block about to be freed for a watched secret, and stops following it.
void Untrack(void* ptr, size_t known_size) {
  if (!ptr || g_fault_pause_depth) return;
  size_t size = known_size;
  if (g_tracking.load(std::memory_order_relaxed)) {
    for (size_t i = g_live_count; i-- > 0;) {
      if (g_live[i].ptr != ptr) continue;
      size = g_live[i].size;
      g_live[i] = g_live[--g_live_count];
      break;
    }
  }
  if (!Active() || g_secret_count == 0) return;
  if (size == 0) size = malloc_usable_size(ptr);
  // A block may end in bytes never written (a container's spare capacity): read them all the
  // same, under valgrind too.
  VALGRIND_MAKE_MEM_DEFINED_IF_ADDRESSABLE(ptr, size);
  for (size_t s = 0; s < g_secret_count; ++s) {
    if (!HoldsPartOf(ptr, size, g_secrets[s].bytes, g_secrets[s].size)) continue;
    if (g_unwiped_count < kMaxUnwiped) {
      snprintf(g_unwiped[g_unwiped_count++], sizeof(g_unwiped[0]),
               "a freed block of %zu bytes held %.47s", size, g_secrets[s].what);
    }
  }
}

}  // namespace

const char* FaultName(Fault kind) {
  static const char* const kNames[] = {
      "malloc",       "calloc",      "posix_memalign", "operator new", "open",
      "read",         "write",       "lseek64",        "fstat",        "ftruncate",
      "fsync",        "close",       "RAND_bytes",     "cipher init",  "cipher update",
      "cipher final", "cipher ctrl", "digest",         "HMAC",         "PKCS5_PBKDF2_HMAC",
  };
  static_assert(sizeof(kNames) / sizeof(kNames[0]) == kKinds, "one name per kind");
  const int k = static_cast<int>(kind);
  return k >= 0 && k < kKinds ? kNames[k] : "?";
}

FaultScope::FaultScope(Fault kind, int nth, int error) {
  memset(g_counts, 0, sizeof(g_counts));
  g_target = static_cast<int>(kind);
  g_nth = nth;
  g_error = error;
  g_fired = false;
  g_live_count = 0;
  g_unwiped_count = 0;
  g_tracking.store(true);
  g_armed.store(true);
}

FaultScope::~FaultScope() {
  g_armed.store(false);
  g_tracking.store(false);
  g_live_count = 0;
}

void FaultScope::Disarm() { g_armed.store(false); }
int FaultScope::count(Fault kind) const { return g_counts[static_cast<int>(kind)]; }
bool FaultScope::fired() const { return g_fired; }

std::vector<LiveBlock> FaultScope::Live() const {
  FaultPause pause;
  return std::vector<LiveBlock>(g_live, g_live + g_live_count);
}

void FaultScope::Forget(void* ptr) {
  FaultPause pause;
  for (size_t i = 0; i < g_live_count; ++i) {
    if (g_live[i].ptr != ptr) continue;
    g_live[i] = g_live[--g_live_count];
    return;
  }
}

std::vector<std::string> FaultScope::UnwipedFrees() const {
  FaultPause pause;
  return std::vector<std::string>(g_unwiped, g_unwiped + g_unwiped_count);
}

void WatchSecret(const std::string& what, const void* data, size_t size) {
  if (g_secret_count == kMaxSecrets || size < 8) return;
  Secret& s = g_secrets[g_secret_count++];
  snprintf(s.what, sizeof(s.what), "%s", what.c_str());
  s.size = size < sizeof(s.bytes) ? size : sizeof(s.bytes);
  memcpy(s.bytes, data, s.size);
}

void ClearWatchedSecrets() {
  memset(g_secrets, 0, sizeof(g_secrets));
  g_secret_count = 0;
}

bool HoldsPartOf(const void* haystack, size_t haystack_size, const void* secret,
                 size_t secret_size) {
  constexpr size_t kWindow = 8;
  const auto* s = static_cast<const uint8_t*>(secret);
  for (size_t at = 0; at + kWindow <= secret_size; ++at) {
    // An all-zero window says nothing: wiped memory is all zeros.
    bool zero = true;
    for (size_t i = 0; i < kWindow && zero; ++i) zero = s[at + i] == 0;
    if (!zero && memmem(haystack, haystack_size, s + at, kWindow)) return true;
  }
  return false;
}

}  // namespace tavikm_test

using tavikm_test::Fail;
using tavikm_test::FailErrno;
using tavikm_test::Fault;
using tavikm_test::Track;
using tavikm_test::Untrack;

// Lengths are declared at their widest (size_t) and pointers as void*: the wrappers only pass
// them on, and this way one set of declarations fits BoringSSL and OpenSSL 3 alike.
extern "C" {

void* __real_malloc(size_t);
void* __real_calloc(size_t, size_t);
int __real_posix_memalign(void**, size_t, size_t);
void __real_free(void*);
void* __real__Znwm(size_t);
void* __real__Znam(size_t);
void __real__ZdlPv(void*);
void __real__ZdlPvm(void*, size_t);
void __real__ZdaPv(void*);
void __real__ZdaPvm(void*, size_t);

void* __wrap_malloc(size_t size) {
  if (FailErrno(Fault::kMalloc)) return nullptr;
  void* p = __real_malloc(size);
  Track(p, size);
  return p;
}

void* __wrap_calloc(size_t count, size_t size) {
  if (FailErrno(Fault::kCalloc)) return nullptr;
  void* p = __real_calloc(count, size);
  Track(p, count * size);
  return p;
}

int __wrap_posix_memalign(void** out, size_t alignment, size_t size) {
  // posix_memalign reports through its result and leaves errno alone.
  if (Fail(Fault::kPosixMemalign)) return tavikm_test::g_error ? tavikm_test::g_error : ENOMEM;
  int rc = __real_posix_memalign(out, alignment, size);
  if (rc == 0) Track(*out, size);
  return rc;
}

void __wrap_free(void* p) {
  Untrack(p, 0);
  __real_free(p);
}

void* __wrap__Znwm(size_t size) {
  if (Fail(Fault::kNew)) throw std::bad_alloc();
  return __real__Znwm(size);
}

void* __wrap__Znam(size_t size) {
  if (Fail(Fault::kNew)) throw std::bad_alloc();
  return __real__Znam(size);
}

void __wrap__ZdlPv(void* p) {
  Untrack(p, 0);
  __real__ZdlPv(p);
}
void __wrap__ZdlPvm(void* p, size_t size) {
  Untrack(p, size);
  __real__ZdlPvm(p, size);
}
void __wrap__ZdaPv(void* p) {
  Untrack(p, 0);
  __real__ZdaPv(p);
}
void __wrap__ZdaPvm(void* p, size_t size) {
  Untrack(p, size);
  __real__ZdaPvm(p, size);
}

int __real_open(const char*, int, ...);
ssize_t __real_read(int, void*, size_t);
ssize_t __real_write(int, const void*, size_t);
off64_t __real_lseek64(int, off64_t, int);
int __real_fstat(int, struct stat*);
int __real_ftruncate(int, off_t);
int __real_fsync(int);
int __real_close(int);

int __wrap_open(const char* path, int flags, ...) {
  mode_t mode = 0;
  if (flags & (O_CREAT | O_TMPFILE)) {
    va_list args;
    va_start(args, flags);
    mode = static_cast<mode_t>(va_arg(args, int));
    va_end(args);
  }
  if (FailErrno(Fault::kOpen)) return -1;
  return __real_open(path, flags, mode);
}

ssize_t __wrap_read(int fd, void* buffer, size_t size) {
  if (FailErrno(Fault::kRead)) return -1;
  return __real_read(fd, buffer, size);
}

ssize_t __wrap_write(int fd, const void* buffer, size_t size) {
  if (FailErrno(Fault::kWrite)) return -1;
  return __real_write(fd, buffer, size);
}

off64_t __wrap_lseek64(int fd, off64_t offset, int whence) {
  if (FailErrno(Fault::kLseek)) return -1;
  return __real_lseek64(fd, offset, whence);
}

int __wrap_fstat(int fd, struct stat* st) {
  if (FailErrno(Fault::kFstat)) return -1;
  return __real_fstat(fd, st);
}

int __wrap_ftruncate(int fd, off_t length) {
  if (FailErrno(Fault::kFtruncate)) return -1;
  return __real_ftruncate(fd, length);
}

int __wrap_fsync(int fd) {
  if (FailErrno(Fault::kFsync)) return -1;
  return __real_fsync(fd);
}

int __wrap_close(int fd) {
  if (Fail(Fault::kClose)) {
    // Linux releases the descriptor whatever close() then reports.
    const int error = tavikm_test::g_error;
    __real_close(fd);
    errno = error;
    return -1;
  }
  return __real_close(fd);
}

int __real_RAND_bytes(void*, size_t);
int __wrap_RAND_bytes(void* out, size_t size) {
  if (Fail(Fault::kRandBytes)) return 0;
  return __real_RAND_bytes(out, size);
}

void* __real_EVP_CIPHER_CTX_new();
void* __wrap_EVP_CIPHER_CTX_new() {
  if (Fail(Fault::kCipherInit)) return nullptr;
  return __real_EVP_CIPHER_CTX_new();
}

int __real_EVP_EncryptInit_ex(void*, const void*, void*, const void*, const void*);
int __wrap_EVP_EncryptInit_ex(void* ctx, const void* cipher, void* engine, const void* key,
                              const void* iv) {
  if (Fail(Fault::kCipherInit)) return 0;
  return __real_EVP_EncryptInit_ex(ctx, cipher, engine, key, iv);
}

int __real_EVP_DecryptInit_ex(void*, const void*, void*, const void*, const void*);
int __wrap_EVP_DecryptInit_ex(void* ctx, const void* cipher, void* engine, const void* key,
                              const void* iv) {
  if (Fail(Fault::kCipherInit)) return 0;
  return __real_EVP_DecryptInit_ex(ctx, cipher, engine, key, iv);
}

int __real_EVP_EncryptUpdate(void*, void*, int*, const void*, size_t);
int __wrap_EVP_EncryptUpdate(void* ctx, void* out, int* out_len, const void* in, size_t in_len) {
  if (Fail(Fault::kCipherUpdate)) return 0;
  return __real_EVP_EncryptUpdate(ctx, out, out_len, in, in_len);
}

int __real_EVP_DecryptUpdate(void*, void*, int*, const void*, size_t);
int __wrap_EVP_DecryptUpdate(void* ctx, void* out, int* out_len, const void* in, size_t in_len) {
  if (Fail(Fault::kCipherUpdate)) return 0;
  return __real_EVP_DecryptUpdate(ctx, out, out_len, in, in_len);
}

int __real_EVP_EncryptFinal_ex(void*, void*, int*);
int __wrap_EVP_EncryptFinal_ex(void* ctx, void* out, int* out_len) {
  if (Fail(Fault::kCipherFinal)) return 0;
  return __real_EVP_EncryptFinal_ex(ctx, out, out_len);
}

int __real_EVP_DecryptFinal_ex(void*, void*, int*);
int __wrap_EVP_DecryptFinal_ex(void* ctx, void* out, int* out_len) {
  if (Fail(Fault::kCipherFinal)) return 0;
  return __real_EVP_DecryptFinal_ex(ctx, out, out_len);
}

int __real_EVP_CIPHER_CTX_ctrl(void*, int, int, void*);
int __wrap_EVP_CIPHER_CTX_ctrl(void* ctx, int command, int arg, void* ptr) {
  if (Fail(Fault::kCipherCtrl)) return 0;
  return __real_EVP_CIPHER_CTX_ctrl(ctx, command, arg, ptr);
}

int __real_EVP_CIPHER_CTX_set_padding(void*, int);
int __wrap_EVP_CIPHER_CTX_set_padding(void* ctx, int padding) {
  if (Fail(Fault::kCipherCtrl)) return 0;
  return __real_EVP_CIPHER_CTX_set_padding(ctx, padding);
}

void* __real_EVP_MD_CTX_new();
void* __wrap_EVP_MD_CTX_new() {
  if (Fail(Fault::kDigest)) return nullptr;
  return __real_EVP_MD_CTX_new();
}

int __real_EVP_DigestInit_ex(void*, const void*, void*);
int __wrap_EVP_DigestInit_ex(void* ctx, const void* md, void* engine) {
  if (Fail(Fault::kDigest)) return 0;
  return __real_EVP_DigestInit_ex(ctx, md, engine);
}

int __real_EVP_DigestUpdate(void*, const void*, size_t);
int __wrap_EVP_DigestUpdate(void* ctx, const void* data, size_t size) {
  if (Fail(Fault::kDigest)) return 0;
  return __real_EVP_DigestUpdate(ctx, data, size);
}

int __real_EVP_DigestFinal_ex(void*, void*, unsigned int*);
int __wrap_EVP_DigestFinal_ex(void* ctx, void* out, unsigned int* out_len) {
  if (Fail(Fault::kDigest)) return 0;
  return __real_EVP_DigestFinal_ex(ctx, out, out_len);
}

void* __real_HMAC(const void*, const void*, size_t, const void*, size_t, void*, unsigned int*);
void* __wrap_HMAC(const void* md, const void* key, size_t key_len, const void* data,
                  size_t data_len, void* out, unsigned int* out_len) {
  if (Fail(Fault::kHmac)) return nullptr;
  return __real_HMAC(md, key, key_len, data, data_len, out, out_len);
}

int __real_PKCS5_PBKDF2_HMAC(const void*, size_t, const void*, size_t, size_t, const void*, size_t,
                             void*);
int __wrap_PKCS5_PBKDF2_HMAC(const void* password, size_t password_len, const void* salt,
                             size_t salt_len, size_t iterations, const void* md, size_t key_len,
                             void* out) {
  if (Fail(Fault::kPbkdf2)) return 0;
  return __real_PKCS5_PBKDF2_HMAC(password, password_len, salt, salt_len, iterations, md, key_len,
                                  out);
}

}  // extern "C"
