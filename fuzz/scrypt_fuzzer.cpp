// SPDX-License-Identifier: Apache-2.0
// Fuzz target: crypto_scrypt's arguments.
//
// Input: N (8 bytes), r (4), p (4), output length (8), password length (2), then the password
// and the salt (the rest). Arguments the documented checks refuse are passed as they are, however
// large: the checks must fail before anything is allocated or written. Arguments that pass run
// in full only while the run needs at most 64 MiB and little time, and the key must then equal
// the libcrypto's own EVP_PBE_scrypt.
#include <errno.h>
#include <openssl/err.h>
#include <openssl/evp.h>
#include <stdint.h>
#include <stdlib.h>
#include <string.h>

#include <vector>

#include "fuzz_env.h"
#include "tavikm.h"

namespace {

constexpr uint64_t kMaxOutputLen = 137438953440ULL;      // (2^32 - 1) * 32
constexpr uint64_t kMaxEntries = 144115188075855871ULL;  // (2^64 - 1) / 128
constexpr uint64_t kMemoryBound = 64ULL << 20;
// N * r * p bounds the time: 2^17 means 32 MiB of Salsa20/8 input per run.
constexpr uint64_t kWorkBound = 1ULL << 17;
constexpr uint64_t kMaxRunOutput = 4096;

// The errno the documented checks give, in their order, or 0 when the arguments pass them.
int RefusedWith(uint64_t N, uint32_t r, uint32_t p, uint64_t out_len) {
  if (out_len > kMaxOutputLen) return EFBIG;
  if (static_cast<uint64_t>(r) * p >= (1ULL << 30)) return EFBIG;
  if (N == 0 || (N & (N - 1)) != 0) return EINVAL;
  // A zero divisor counts as a quotient of 0.
  const uint64_t r_limit = p ? kMaxEntries / p : 0;
  const uint64_t n_limit = r ? kMaxEntries / r : 0;
  if (r > r_limit || N > n_limit) return ENOMEM;
  return 0;
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  tavikm_fuzz::InitFuzzDevice();
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  tavikm_fuzz::Reader in(data, size);
  const uint64_t N = in.U64();
  const uint32_t r = in.U32();
  const uint32_t p = in.U32();
  const uint64_t out_len = in.U64();
  const std::vector<uint8_t> password = in.Bytes(in.U16());
  const std::vector<uint8_t> salt = in.Rest();

  const int refused = RefusedWith(N, r, p, out_len);
  if (refused != 0) {
    // A one-byte output buffer whatever out_len says: a refused call writes nothing.
    uint8_t* out = static_cast<uint8_t*>(malloc(1));
    errno = 0;
    if (crypto_scrypt(password.data(), password.size(), salt.data(), salt.size(), N, r, p, out,
                      static_cast<size_t>(out_len)) != -1 ||
        errno != refused) {
      abort();
    }
    free(out);
    return 0;
  }

  // Areas whose 32-bit size products would wrap can never be used safely: such a request must
  // be refused, not run in an area smaller than its work.
  if (128ULL * r * p > UINT32_MAX || 256ULL * r + 64 > UINT32_MAX || 128ULL * r > UINT32_MAX) {
    uint8_t* out = static_cast<uint8_t*>(malloc(1));
    if (crypto_scrypt(password.data(), password.size(), salt.data(), salt.size(), N, r, p, out,
                      static_cast<size_t>(out_len)) != -1 ||
        errno != ENOMEM) {
      abort();
    }
    free(out);
    return 0;
  }

  // In this order, so that nothing below overflows: r * p < 2^30 holds already.
  if (N > kWorkBound || N * r * p > kWorkBound || out_len > kMaxRunOutput) return 0;
  const uint64_t table = 128ULL * r * (N < 2 ? 2 : N);
  if (table + 128ULL * r * p + 256ULL * r + 64 > kMemoryBound) return 0;
  std::vector<uint8_t> key(out_len);
  errno = -1;
  if (crypto_scrypt(password.data(), password.size(), salt.data(), salt.size(), N, r, p, key.data(),
                    key.size()) != 0 ||
      errno != 0) {
    abort();
  }
  // The libcrypto's scrypt has tighter limits of its own (N of at least 2, N below 2^(16 r)):
  // compare wherever it agrees to run.
  std::vector<uint8_t> expected(out_len);
  if (N >= 2 && EVP_PBE_scrypt(reinterpret_cast<const char*>(password.data()), password.size(),
                               salt.data(), salt.size(), N, r, p, 2 * kMemoryBound, expected.data(),
                               expected.size()) == 1) {
    if (key != expected) abort();
  }
  ERR_clear_error();
  return 0;
}
