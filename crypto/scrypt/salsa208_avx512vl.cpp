// SPDX-License-Identifier: Apache-2.0
// AVX-512VL Salsa20/8 back end: the SSE2 layout (four 128-bit registers, one per diagonal),
// with each rotate-and-XOR folded into one three-way vpternlogd after the two shifts. The core
// is one long dependency chain, so the step latency is what counts: add, shift, ternlog is 3
// cycles, where add, vprold, XOR is 4 on CPUs whose vprold takes 2 (Zen 4) and 3 elsewhere.
// Built for AVX-512 through target attributes only, so the rest of the library stays
// baseline; used only on CPUs with avx512f and avx512vl.
#if defined(__x86_64__)

#include <immintrin.h>

#include "crypto/scrypt/backends.h"
#include "crypto/scrypt/diagonal.h"

namespace {

#define KM_AVX512 __attribute__((target("avx512f,avx512vl")))

// b ^= (t <<< n): both halves of the rotate XORed in by one instruction.
#define KM_XOR_ROTL(b, t, n) \
  b = _mm_ternarylogic_epi32(b, _mm_slli_epi32(t, n), _mm_srli_epi32(t, 32 - (n)), 0x96)

#define KM_SMIX_TARGET KM_AVX512
#include "crypto/scrypt/salsa208_x86.inc"

bool CpuHasAvx512vl() {
  return __builtin_cpu_supports("avx512f") && __builtin_cpu_supports("avx512vl");
}

}  // namespace

const km_scrypt_backend km_scrypt_avx512vl = {"avx512vl", CpuHasAvx512vl, Smix};

#endif  // __x86_64__
