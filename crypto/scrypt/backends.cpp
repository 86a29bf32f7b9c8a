// SPDX-License-Identifier: Apache-2.0
// The table of Salsa20/8 back ends and the run-time choice among them: a back end is used only
// when the CPU has its instructions and it reproduces a known answer on this CPU, and of those
// the one that runs fastest here is kept. Which one that is cannot be told from the CPU's
// features: on some cores every vector operation takes two cycles and plain 32-bit code wins.
#include "crypto/scrypt/backends.h"

#include <errno.h>
#include <openssl/crypto.h>
#include <stdlib.h>
#include <string.h>
#include <time.h>

#include <algorithm>

#include "tavikm.h"

namespace {

uint64_t NowNs() {
  struct timespec ts;
  clock_gettime(CLOCK_MONOTONIC, &ts);
  return static_cast<uint64_t>(ts.tv_sec) * 1000000000u + static_cast<uint64_t>(ts.tv_nsec);
}

// r = 8 as in every derivation the library makes; N = 8 keeps the table in L1, so the
// timing is the core and BlockMix alone, without the memory system of the moment.
constexpr size_t kCalibrationR = 8;
constexpr uint64_t kCalibrationN = 8;
static_assert(2 * kCalibrationN * 2 * kCalibrationR == kKmScryptCalibrationBlocks,
              "one SMix of the calibration is kKmScryptCalibrationBlocks blocks");
// Timed runs per back end; the best counts, so a run cut by preemption does not.
constexpr int kCalibrationRounds = 3;

}  // namespace

// The order is the default where the calibration cannot time (ties, no memory for its area).
// On AArch64 the scalar core comes first: its XOR takes the rotate as a shifted operand, so a
// step is two instructions against NEON's four (see the README's estimates).
std::vector<const km_scrypt_backend*> km_scrypt_all_backends() {
  std::vector<const km_scrypt_backend*> all;
#if defined(__x86_64__)
  all.push_back(&km_scrypt_x86asm);
  all.push_back(&km_scrypt_avx512vl);
  all.push_back(&km_scrypt_sse2);
  all.push_back(&km_scrypt_scalar);
#elif defined(__aarch64__)
  all.push_back(&km_scrypt_scalar);
  all.push_back(&km_scrypt_neon);
#else
  all.push_back(&km_scrypt_scalar);
#endif
  all.push_back(&km_scrypt_portable);
  return all;
}

bool km_scrypt_self_test(const km_scrypt_backend* backend) {
  // RFC 7914, section 12, first vector: P = "", S = "", N = 16, r = 1, p = 1.
  static const uint8_t kExpected[64] = {
      0x77, 0xd6, 0x57, 0x62, 0x38, 0x65, 0x7b, 0x20, 0x3b, 0x19, 0xca, 0x42, 0xc1,
      0x8a, 0x04, 0x97, 0xf1, 0x6b, 0x48, 0x44, 0xe3, 0x07, 0x4a, 0xe8, 0xdf, 0xdf,
      0xfa, 0x3f, 0xed, 0xe2, 0x14, 0x42, 0xfc, 0xd0, 0x06, 0x9d, 0xed, 0x09, 0x48,
      0xf8, 0x32, 0x6a, 0x75, 0x3a, 0x0f, 0xc8, 0x1f, 0x17, 0xe8, 0xd3, 0xe0, 0xfb,
      0x2e, 0x0d, 0x36, 0x28, 0xcf, 0x35, 0xe2, 0x0c, 0x38, 0xd1, 0x89, 0x06,
  };
  if (!backend->cpu_supported()) return false;
  const int saved_errno = errno;
  uint8_t out[64];
  static const uint8_t kEmpty[1] = {0};
  const bool ok =
      km_crypto_scrypt_with(backend, kEmpty, 0, kEmpty, 0, 16, 1, 1, out, sizeof(out)) == 0 &&
      CRYPTO_memcmp(out, kExpected, sizeof(out)) == 0;
  errno = saved_errno;
  return ok;
}

std::vector<const km_scrypt_backend*> km_scrypt_usable_backends() {
  std::vector<const km_scrypt_backend*> usable;
  for (const km_scrypt_backend* backend : km_scrypt_all_backends()) {
    if (km_scrypt_self_test(backend)) usable.push_back(backend);
  }
  return usable;
}

km_scrypt_calibration km_scrypt_calibrate(const std::vector<const km_scrypt_backend*>& candidates) {
  const uint64_t start = NowNs();
  km_scrypt_calibration result;
  for (const km_scrypt_backend* backend : candidates) {
    if (km_scrypt_self_test(backend)) result.timings.push_back({backend, UINT64_MAX});
  }
  // One area for B, the table and XY. The input is constant, so nothing in it is secret.
  const size_t b_size = 128 * kCalibrationR;
  const size_t v_size = 128 * kCalibrationR * kCalibrationN;
  const size_t xy_size = 256 * kCalibrationR + 64;
  void* area = nullptr;
  if (!result.timings.empty() && posix_memalign(&area, 64, b_size + v_size + xy_size) == 0) {
    uint8_t* b = static_cast<uint8_t*>(area);
    uint8_t* v = b + b_size;
    uint8_t* xy = v + v_size;
    // Touched once beforehand, so that no back end's run pays the first page faults.
    memset(area, 0x5c, b_size + v_size + xy_size);
    for (int round = 0; round < kCalibrationRounds; round++) {
      for (auto& timing : result.timings) {
        const uint64_t t0 = NowNs();
        timing.first->smix(b, kCalibrationR, kCalibrationN, v, xy);
        timing.second = std::min(timing.second, NowNs() - t0);
      }
    }
    free(area);
  }
  // Ties, and a failed allocation (every time left at UINT64_MAX), go to the earlier candidate.
  const std::pair<const km_scrypt_backend*, uint64_t>* best = nullptr;
  for (const auto& timing : result.timings) {
    if (best == nullptr || timing.second < best->second) best = &timing;
  }
  // The portable code has no CPU requirement; if even it fails, the answers are wrong
  // whichever back end runs, and the callers' own checks are all that is left.
  result.fastest = best != nullptr ? best->first : &km_scrypt_portable;
  result.cost_ns = NowNs() - start;
  return result;
}

const km_scrypt_calibration& km_scrypt_startup_calibration() {
  static const km_scrypt_calibration calibration = [] {
    const int saved_errno = errno;
    km_scrypt_calibration c = km_scrypt_calibrate(km_scrypt_all_backends());
    errno = saved_errno;
    return c;
  }();
  return calibration;
}

const km_scrypt_backend* km_scrypt_selected_backend() {
  return km_scrypt_startup_calibration().fastest;
}

const char* km_scrypt_backend_name(void) { return km_scrypt_selected_backend()->name; }
