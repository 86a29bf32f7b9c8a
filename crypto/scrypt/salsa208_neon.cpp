// SPDX-License-Identifier: Apache-2.0
// NEON Salsa20/8 back end for AArch64, where NEON is always present: the 4x4 word matrix lives
// in four 128-bit registers, one per diagonal, so the column and row rounds each work on all
// four columns at once. A rotate is a shift and a shift-right-and-insert.
#if defined(__aarch64__)

#include <arm_neon.h>

#include "crypto/scrypt/backends.h"
#include "crypto/scrypt/diagonal.h"

namespace {

// b ^= (t <<< n).
#define KM_XOR_ROTL(b, t, n) b = veorq_u32(b, vsriq_n_u32(vshlq_n_u32(t, n), t, 32 - (n)))

// One column round and one row round on the diagonal layout
// a = (x0, x5, x10, x15), b = (x4, x9, x14, x3), c = (x8, x13, x2, x7), d = (x12, x1, x6, x11).
// Between the halves b, c and d are turned so that the row round reuses the same code shape.
#define KM_DOUBLE_ROUND(a, b, c, d) \
  do {                              \
    uint32x4_t t;                   \
    t = vaddq_u32(a, d);            \
    KM_XOR_ROTL(b, t, 7);           \
    t = vaddq_u32(b, a);            \
    KM_XOR_ROTL(c, t, 9);           \
    t = vaddq_u32(c, b);            \
    KM_XOR_ROTL(d, t, 13);          \
    t = vaddq_u32(d, c);            \
    KM_XOR_ROTL(a, t, 18);          \
    b = vextq_u32(b, b, 3);         \
    c = vextq_u32(c, c, 2);         \
    d = vextq_u32(d, d, 1);         \
    t = vaddq_u32(a, b);            \
    KM_XOR_ROTL(d, t, 7);           \
    t = vaddq_u32(d, a);            \
    KM_XOR_ROTL(c, t, 9);           \
    t = vaddq_u32(c, d);            \
    KM_XOR_ROTL(b, t, 13);          \
    t = vaddq_u32(b, c);            \
    KM_XOR_ROTL(a, t, 18);          \
    b = vextq_u32(b, b, 1);         \
    c = vextq_u32(c, c, 2);         \
    d = vextq_u32(d, d, 3);         \
  } while (0)

// The Salsa20/8 core on one block held in a..d, input added back.
inline __attribute__((always_inline)) void salsa20_8_intrinsic(uint32x4_t& a, uint32x4_t& b,
                                                               uint32x4_t& c, uint32x4_t& d) {
  const uint32x4_t a0 = a, b0 = b, c0 = c, d0 = d;
  KM_DOUBLE_ROUND(a, b, c, d);
  KM_DOUBLE_ROUND(a, b, c, d);
  KM_DOUBLE_ROUND(a, b, c, d);
  KM_DOUBLE_ROUND(a, b, c, d);
  a = vaddq_u32(a, a0);
  b = vaddq_u32(b, b0);
  c = vaddq_u32(c, c0);
  d = vaddq_u32(d, d0);
}

// out = BlockMix(in XOR v) over 2r 64-byte blocks (16 words each) in diagonal layout (v only
// when kXor). Each result goes straight to its place in `out`; returns Integerify of the last.
template <bool kXor>
inline __attribute__((always_inline)) uint64_t blockmix_salsa8(const uint32_t* in,
                                                               const uint32_t* v, uint32_t* out,
                                                               size_t r) {
  const size_t last = (2 * r - 1) * 16;
  if (kXor) {
    // The table entry is a random, cold line set: ask for all of it now, last block first.
    __builtin_prefetch(v + last);
    for (size_t i = 0; i < last; i += 16) __builtin_prefetch(v + i);
  }
  uint32x4_t a = vld1q_u32(in + last), b = vld1q_u32(in + last + 4), c = vld1q_u32(in + last + 8),
             d = vld1q_u32(in + last + 12);
  if (kXor) {
    a = veorq_u32(a, vld1q_u32(v + last));
    b = veorq_u32(b, vld1q_u32(v + last + 4));
    c = veorq_u32(c, vld1q_u32(v + last + 8));
    d = veorq_u32(d, vld1q_u32(v + last + 12));
  }
  for (size_t i = 0; i < 2 * r; i++) {
    const uint32_t* src = in + 16 * i;
    if (kXor) {
      const uint32_t* vs = v + 16 * i;
      a = veorq_u32(a, veorq_u32(vld1q_u32(src), vld1q_u32(vs)));
      b = veorq_u32(b, veorq_u32(vld1q_u32(src + 4), vld1q_u32(vs + 4)));
      c = veorq_u32(c, veorq_u32(vld1q_u32(src + 8), vld1q_u32(vs + 8)));
      d = veorq_u32(d, veorq_u32(vld1q_u32(src + 12), vld1q_u32(vs + 12)));
    } else {
      a = veorq_u32(a, vld1q_u32(src));
      b = veorq_u32(b, vld1q_u32(src + 4));
      c = veorq_u32(c, vld1q_u32(src + 8));
      d = veorq_u32(d, vld1q_u32(src + 12));
    }
    salsa20_8_intrinsic(a, b, c, d);
    // Even-numbered results fill the first half of the output, odd-numbered the second.
    uint32_t* dst = out + 16 * ((i & 1) * r + i / 2);
    vst1q_u32(dst, a);
    vst1q_u32(dst + 4, b);
    vst1q_u32(dst + 8, c);
    vst1q_u32(dst + 12, d);
  }
  // Word 0 sits in lane 0 of a, word 1 in lane 1 of d.
  return vgetq_lane_u32(a, 0) | static_cast<uint64_t>(vgetq_lane_u32(d, 1)) << 32;
}

void Smix(uint8_t* B, size_t r, uint64_t N, void* v_area, void* xy_area) {
  const size_t words = 32 * r;  // one 128 * r-byte entry
  uint32_t* V = static_cast<uint32_t*>(v_area);
  uint32_t* X = static_cast<uint32_t*>(xy_area);
  uint32_t* Y = X + words;

  km_to_diagonal(B, V, 2 * r);
  uint64_t k = 0;
  for (uint64_t j = 0; j < N; j += 2) {
    uint32_t* vj = V + j * words;
    blockmix_salsa8<false>(vj, nullptr, vj + words, r);
    k = blockmix_salsa8<false>(vj + words, nullptr, j + 2 < N ? vj + 2 * words : X, r);
  }
  for (uint64_t j = 0; j < N; j += 2) {
    k = blockmix_salsa8<true>(X, V + (k & (N - 1)) * words, Y, r);
    k = blockmix_salsa8<true>(Y, V + (k & (N - 1)) * words, X, r);
  }
  km_from_diagonal(X, B, 2 * r);
}

bool Always() { return true; }

}  // namespace

const km_scrypt_backend km_scrypt_neon = {"neon", Always, Smix};

#endif  // __aarch64__
