// SPDX-License-Identifier: Apache-2.0
// SSE2 Salsa20/8 back end, the x86-64 baseline: the 4x4 word matrix lives in four 128-bit
// registers, one per diagonal, so the column and row rounds each work on all four columns at
// once. Rotates are two shifts folded into the XOR.
#if defined(__x86_64__)

#include <emmintrin.h>

#include "crypto/scrypt/backends.h"
#include "crypto/scrypt/diagonal.h"

namespace {

// b ^= (t <<< n), with the rotate's two halves XORed in separately.
#define KM_XOR_ROTL(b, t, n) \
  b = _mm_xor_si128(_mm_xor_si128(b, _mm_slli_epi32(t, n)), _mm_srli_epi32(t, 32 - (n)))

#define KM_SMIX_TARGET
#include "crypto/scrypt/salsa208_x86.inc"

bool Always() { return true; }

}  // namespace

const km_scrypt_backend km_scrypt_sse2 = {"sse2", Always, Smix};

#endif  // __x86_64__
