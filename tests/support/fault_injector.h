// SPDX-License-Identifier: Apache-2.0
// A test-only fault injector below the library: it counts the library's calls of allocation,
// file I/O, the random generator and libcrypto, and makes the Nth call of one kind fail with a
// chosen errno (or the libcrypto call's failure result).
//
// How it reaches the calls: the executable that links fault_injector.cpp is linked with
// `-Wl,--wrap=<symbol>` for every call below (tavikm_wrap_faults() in tests/CMakeLists.txt).
// The linker then sends every reference from the executable's own objects, which include the
// library's static archive, to __wrap_<symbol>, and __wrap_<symbol> reaches the real one as
// __real_<symbol>. Shared libraries (the host platform, libcrypto, libstdc++) keep calling the
// real functions, so the emulated hardware underneath never fails by accident: its own faults
// are scripted through tavikm_host/keymaster_faults.h and support/scripted_kmstore.h. The
// product code carries no hook.
//
// Nothing is counted or failed unless a FaultScope is alive, and never while a FaultPause is
// (test support code that runs inside a library call: the log capture, the scripted devices,
// the virtual clock). While armed it also keeps the blocks malloc, calloc and posix_memalign
// hand out and that are not freed yet, so a test can tell a leak from memory handed to the
// caller (blocks of operator new are not kept: the platform's shared libraries free some of
// them, out of the wrappers' sight; the sanitizer and valgrind jobs see those leaks), and it
// looks into every block freed for the secrets a test asked it to watch for, so an unwiped
// secret is seen when it is freed.
#ifndef TAVIKM_TESTS_SUPPORT_FAULT_INJECTOR_H_
#define TAVIKM_TESTS_SUPPORT_FAULT_INJECTOR_H_

#include <stddef.h>
#include <stdint.h>

#include <string>
#include <vector>

namespace tavikm_test {

enum class Fault : int {
  kMalloc,
  kCalloc,
  kPosixMemalign,
  kNew,  // operator new and new[]: fails by throwing std::bad_alloc
  kOpen,
  kRead,
  kWrite,
  kLseek,
  kFstat,
  kFtruncate,
  kFsync,
  kClose,  // the descriptor is closed all the same, as Linux does
  kRandBytes,
  kCipherInit,    // EVP_CIPHER_CTX_new, EVP_EncryptInit_ex, EVP_DecryptInit_ex
  kCipherUpdate,  // EVP_EncryptUpdate, EVP_DecryptUpdate
  kCipherFinal,   // EVP_EncryptFinal_ex, EVP_DecryptFinal_ex
  kCipherCtrl,    // EVP_CIPHER_CTX_ctrl, EVP_CIPHER_CTX_set_padding
  kDigest,        // EVP_MD_CTX_new, EVP_DigestInit_ex, EVP_DigestUpdate, EVP_DigestFinal_ex
  kHmac,
  kPbkdf2,
  kCount,
};

const char* FaultName(Fault kind);

// Calls on this thread are not counted, failed, tracked or searched while one is alive.
inline thread_local int g_fault_pause_depth = 0;
class FaultPause {
 public:
  FaultPause() { ++g_fault_pause_depth; }
  ~FaultPause() { --g_fault_pause_depth; }
  FaultPause(const FaultPause&) = delete;
  FaultPause& operator=(const FaultPause&) = delete;
};

struct LiveBlock {
  void* ptr;
  size_t size;
};

// One armed stretch. Counting starts at construction; call number `nth` (1-based) of `kind`
// fails with `error`, and every later call of every kind goes through. `nth` 0 only counts.
// Only one may be alive at a time.
class FaultScope {
 public:
  explicit FaultScope(Fault kind = Fault::kCount, int nth = 0, int error = 0);
  ~FaultScope();
  FaultScope(const FaultScope&) = delete;
  FaultScope& operator=(const FaultScope&) = delete;

  // Stops counting and failing; the live blocks are still followed until destruction, so
  // what the test frees afterwards (the caller's share) is no leak.
  void Disarm();
  int count(Fault kind) const;
  bool fired() const;
  // Blocks allocated while armed and not freed since.
  std::vector<LiveBlock> Live() const;
  // Forgets a live block (memory deliberately left allocated, which the test then frees).
  void Forget(void* ptr);
  // Descriptions of freed blocks that still held a watched secret.
  std::vector<std::string> UnwipedFrees() const;
};

// Secrets to look for in blocks freed while armed (at least 8 bytes each; a block holding any
// 8 consecutive bytes of one counts). Cleared by ClearWatchedSecrets().
void WatchSecret(const std::string& what, const void* data, size_t size);
void ClearWatchedSecrets();

// True when `haystack` holds any 8 consecutive bytes of `secret`.
bool HoldsPartOf(const void* haystack, size_t haystack_size, const void* secret,
                 size_t secret_size);

}  // namespace tavikm_test

#endif  // TAVIKM_TESTS_SUPPORT_FAULT_INJECTOR_H_
