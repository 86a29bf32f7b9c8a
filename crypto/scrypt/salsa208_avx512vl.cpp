// AVX-512VL Salsa20/8 back end: the SSE2 layout (four 128-bit registers, one per diagonal),
// with each rotate-and-XOR folded into one three-way vpternlogd after the two shifts. The core
// is one long dependency chain, so the step latency is what counts: add, shift, ternlog is 3
// cycles, where add, vprold, XOR is 4 on CPUs whose vprold takes 2 (Zen 4) and 3 elsewhere.
// Built for AVX-512 through target attributes only, so the rest of the library stays
// baseline; used only on CPUs with avx512f and avx512vl.
#if defined(__x86_64__)

#include <immintrin.h>
#include <string.h>

#include "crypto/scrypt/backends.h"

namespace {

#define KM_AVX512 __attribute__((target("avx512f,avx512vl")))

// b ^= (t <<< n): both halves of the rotate XORed in by one instruction.
#define KM_XOR_ROTL(b, t, n) \
  b = _mm_ternarylogic_epi32(b, _mm_slli_epi32(t, n), _mm_srli_epi32(t, 32 - (n)), 0x96)

// One column round and one row round on the diagonal layout
// a = (x0, x5, x10, x15), b = (x4, x9, x14, x3), c = (x8, x13, x2, x7), d = (x12, x1, x6, x11).
// Between the halves b, c and d are turned so that the row round reuses the same code shape.
#define KM_DOUBLE_ROUND(a, b, c, d) \
  do {                              \
    __m128i t;                      \
    t = _mm_add_epi32(a, d);        \
    KM_XOR_ROTL(b, t, 7);           \
    t = _mm_add_epi32(b, a);        \
    KM_XOR_ROTL(c, t, 9);           \
    t = _mm_add_epi32(c, b);        \
    KM_XOR_ROTL(d, t, 13);          \
    t = _mm_add_epi32(d, c);        \
    KM_XOR_ROTL(a, t, 18);          \
    b = _mm_shuffle_epi32(b, 0x93); \
    c = _mm_shuffle_epi32(c, 0x4e); \
    d = _mm_shuffle_epi32(d, 0x39); \
    t = _mm_add_epi32(a, b);        \
    KM_XOR_ROTL(d, t, 7);           \
    t = _mm_add_epi32(d, a);        \
    KM_XOR_ROTL(c, t, 9);           \
    t = _mm_add_epi32(c, d);        \
    KM_XOR_ROTL(b, t, 13);          \
    t = _mm_add_epi32(b, c);        \
    KM_XOR_ROTL(a, t, 18);          \
    b = _mm_shuffle_epi32(b, 0x39); \
    c = _mm_shuffle_epi32(c, 0x4e); \
    d = _mm_shuffle_epi32(d, 0x93); \
  } while (0)

// The Salsa20/8 core on one block held in a..d, input added back.
KM_AVX512 inline __attribute__((always_inline)) void salsa20_8_intrinsic(__m128i& a, __m128i& b,
                                                                         __m128i& c, __m128i& d) {
  const __m128i a0 = a, b0 = b, c0 = c, d0 = d;
  KM_DOUBLE_ROUND(a, b, c, d);
  KM_DOUBLE_ROUND(a, b, c, d);
  KM_DOUBLE_ROUND(a, b, c, d);
  KM_DOUBLE_ROUND(a, b, c, d);
  a = _mm_add_epi32(a, a0);
  b = _mm_add_epi32(b, b0);
  c = _mm_add_epi32(c, c0);
  d = _mm_add_epi32(d, d0);
}

// out = BlockMix(in XOR v) over 2r 64-byte blocks in diagonal layout (v only when kXor). Each
// result goes straight to its place in `out`; returns Integerify of the last one.
template <bool kXor>
KM_AVX512 inline __attribute__((always_inline)) uint64_t blockmix_salsa8(const __m128i* in,
                                                                         const __m128i* v,
                                                                         __m128i* out, size_t r) {
  const size_t last = (2 * r - 1) * 4;
  if (kXor) {
    // The table entry is a random, cold line set: ask for all of it now, last block first.
    _mm_prefetch(reinterpret_cast<const char*>(v + last), _MM_HINT_T0);
    for (size_t i = 0; i < last; i += 4) {
      _mm_prefetch(reinterpret_cast<const char*>(v + i), _MM_HINT_T0);
    }
  }
  __m128i a = in[last], b = in[last + 1], c = in[last + 2], d = in[last + 3];
  if (kXor) {
    a = _mm_xor_si128(a, v[last]);
    b = _mm_xor_si128(b, v[last + 1]);
    c = _mm_xor_si128(c, v[last + 2]);
    d = _mm_xor_si128(d, v[last + 3]);
  }
  for (size_t i = 0; i < 2 * r; i++) {
    const __m128i* src = in + 4 * i;
    if (kXor) {
      const __m128i* vs = v + 4 * i;
      a = _mm_xor_si128(a, _mm_xor_si128(src[0], vs[0]));
      b = _mm_xor_si128(b, _mm_xor_si128(src[1], vs[1]));
      c = _mm_xor_si128(c, _mm_xor_si128(src[2], vs[2]));
      d = _mm_xor_si128(d, _mm_xor_si128(src[3], vs[3]));
    } else {
      a = _mm_xor_si128(a, src[0]);
      b = _mm_xor_si128(b, src[1]);
      c = _mm_xor_si128(c, src[2]);
      d = _mm_xor_si128(d, src[3]);
    }
    salsa20_8_intrinsic(a, b, c, d);
    // Even-numbered results fill the first half of the output, odd-numbered the second.
    __m128i* dst = out + 4 * ((i & 1) * r + i / 2);
    dst[0] = a;
    dst[1] = b;
    dst[2] = c;
    dst[3] = d;
  }
  // Word 0 sits in lane 0 of a, word 1 in lane 1 of d.
  return static_cast<uint32_t>(_mm_cvtsi128_si32(a)) |
         static_cast<uint64_t>(static_cast<uint32_t>(_mm_cvtsi128_si32(_mm_srli_si128(d, 4))))
             << 32;
}

// Position i of a block in diagonal layout holds word 5i mod 16 of the block.
void ToDiagonal(const uint8_t* in, uint32_t* out, size_t blocks) {
  for (size_t b = 0; b < blocks; b++) {
    for (size_t i = 0; i < 16; i++) memcpy(&out[16 * b + i], in + 64 * b + 4 * (5 * i % 16), 4);
  }
}

void FromDiagonal(const uint32_t* in, uint8_t* out, size_t blocks) {
  for (size_t b = 0; b < blocks; b++) {
    for (size_t i = 0; i < 16; i++) memcpy(out + 64 * b + 4 * (5 * i % 16), &in[16 * b + i], 4);
  }
}

KM_AVX512 void Smix(uint8_t* B, size_t r, uint64_t N, void* v_area, void* xy_area) {
  const size_t vecs = 8 * r;  // one 128 * r-byte entry
  __m128i* V = static_cast<__m128i*>(v_area);
  __m128i* X = static_cast<__m128i*>(xy_area);
  __m128i* Y = X + vecs;

  ToDiagonal(B, reinterpret_cast<uint32_t*>(V), 2 * r);
  uint64_t k = 0;
  for (uint64_t j = 0; j < N; j += 2) {
    __m128i* vj = V + j * vecs;
    blockmix_salsa8<false>(vj, nullptr, vj + vecs, r);
    k = blockmix_salsa8<false>(vj + vecs, nullptr, j + 2 < N ? vj + 2 * vecs : X, r);
  }
  for (uint64_t j = 0; j < N; j += 2) {
    k = blockmix_salsa8<true>(X, V + (k & (N - 1)) * vecs, Y, r);
    k = blockmix_salsa8<true>(Y, V + (k & (N - 1)) * vecs, X, r);
  }
  FromDiagonal(reinterpret_cast<const uint32_t*>(X), B, 2 * r);
}

bool CpuHasAvx512vl() {
  return __builtin_cpu_supports("avx512f") && __builtin_cpu_supports("avx512vl");
}

}  // namespace

const km_scrypt_backend km_scrypt_avx512vl = {"avx512vl", CpuHasAvx512vl, Smix};

#endif  // __x86_64__
