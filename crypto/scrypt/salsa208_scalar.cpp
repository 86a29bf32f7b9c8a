// SPDX-License-Identifier: Apache-2.0
// Scalar Salsa20/8 back end for wide out-of-order cores. The core is one chain of 32 dependent
// add-rotate-XOR steps; on general registers each operation of a step takes one cycle, where
// some cores (Zen 5 among them) take two for every vector operation, so a plain 32-bit core
// with the four quarter-rounds of a round in flight at once is the shortest chain there. The
// block state stays in registers from one block to the next and from one BlockMix to the next,
// and the table entry is XORed in ahead of BlockMix on the vector unit. The words of B are
// used as they are in memory, which takes a little-endian CPU.
#include <string.h>

#include "crypto/scrypt/backends.h"

namespace {

// A random, cold entry of `words` words: ask for all of its lines now, the last block (needed
// first) ahead of the rest.
inline __attribute__((always_inline)) void PrefetchEntry(const uint32_t* v, size_t words) {
  __builtin_prefetch(v + words - 16);
  for (size_t i = 0; i + 16 < words; i += 16) __builtin_prefetch(v + i);
}

// x ^= v over `words` words, 16 bytes at a time (both aligned). Ahead of BlockMix and on the
// vector unit, which the scalar cores leave idle, this takes the general registers a quarter of
// the operations it would inside BlockMix; they are what those cores are short of.
typedef uint32_t Vec __attribute__((vector_size(16)));
inline __attribute__((always_inline)) void XorInto(uint32_t* x, const uint32_t* v, size_t words) {
  Vec* xv = reinterpret_cast<Vec*>(x);
  const Vec* vv = reinterpret_cast<const Vec*>(v);
  for (size_t i = 0; i < words / 4; i++) xv[i] ^= vv[i];
}

#define KM_ROTL(x, n) (((x) << (n)) | ((x) >> (32 - (n))))

// One step of four independent quarter-rounds: y ^= (u + v) <<< n for each.
#define KM_STEP4(y0, u0, v0, y1, u1, v1, y2, u2, v2, y3, u3, v3, n) \
  do {                                                              \
    const uint32_t t0 = u0 + v0, t1 = u1 + v1;                      \
    const uint32_t t2 = u2 + v2, t3 = u3 + v3;                      \
    y0 ^= KM_ROTL(t0, n);                                           \
    y1 ^= KM_ROTL(t1, n);                                           \
    y2 ^= KM_ROTL(t2, n);                                           \
    y3 ^= KM_ROTL(t3, n);                                           \
  } while (0)

// The block state, kept in sixteen locals so the compiler can give each its own register.
struct Block {
  uint32_t x0, x1, x2, x3, x4, x5, x6, x7, x8, x9, x10, x11, x12, x13, x14, x15;
};

inline __attribute__((always_inline)) void LoadXor(Block& s, const uint32_t* p) {
  s.x0 ^= p[0], s.x1 ^= p[1], s.x2 ^= p[2], s.x3 ^= p[3];
  s.x4 ^= p[4], s.x5 ^= p[5], s.x6 ^= p[6], s.x7 ^= p[7];
  s.x8 ^= p[8], s.x9 ^= p[9], s.x10 ^= p[10], s.x11 ^= p[11];
  s.x12 ^= p[12], s.x13 ^= p[13], s.x14 ^= p[14], s.x15 ^= p[15];
}

inline __attribute__((always_inline)) void Store(const Block& s, uint32_t* p) {
  p[0] = s.x0, p[1] = s.x1, p[2] = s.x2, p[3] = s.x3;
  p[4] = s.x4, p[5] = s.x5, p[6] = s.x6, p[7] = s.x7;
  p[8] = s.x8, p[9] = s.x9, p[10] = s.x10, p[11] = s.x11;
  p[12] = s.x12, p[13] = s.x13, p[14] = s.x14, p[15] = s.x15;
}

// The Salsa20/8 core on `s`, input added back.
inline __attribute__((always_inline)) void salsa20_8_intrinsic(Block& s) {
  uint32_t x0 = s.x0, x1 = s.x1, x2 = s.x2, x3 = s.x3, x4 = s.x4, x5 = s.x5, x6 = s.x6, x7 = s.x7,
           x8 = s.x8, x9 = s.x9, x10 = s.x10, x11 = s.x11, x12 = s.x12, x13 = s.x13, x14 = s.x14,
           x15 = s.x15;
  // Unrolled: where a loop closes, the compiler would have to shuffle registers.
#pragma GCC unroll 4
  for (int i = 0; i < 4; i++) {
    // Columns.
    KM_STEP4(x4, x0, x12, x9, x5, x1, x14, x10, x6, x3, x15, x11, 7);
    KM_STEP4(x8, x4, x0, x13, x9, x5, x2, x14, x10, x7, x3, x15, 9);
    KM_STEP4(x12, x8, x4, x1, x13, x9, x6, x2, x14, x11, x7, x3, 13);
    KM_STEP4(x0, x12, x8, x5, x1, x13, x10, x6, x2, x15, x11, x7, 18);
    // Rows.
    KM_STEP4(x1, x0, x3, x6, x5, x4, x11, x10, x9, x12, x15, x14, 7);
    KM_STEP4(x2, x1, x0, x7, x6, x5, x8, x11, x10, x13, x12, x15, 9);
    KM_STEP4(x3, x2, x1, x4, x7, x6, x9, x8, x11, x14, x13, x12, 13);
    KM_STEP4(x0, x3, x2, x5, x4, x7, x10, x9, x8, x15, x14, x13, 18);
  }
  s.x0 += x0, s.x1 += x1, s.x2 += x2, s.x3 += x3, s.x4 += x4, s.x5 += x5, s.x6 += x6;
  s.x7 += x7, s.x8 += x8, s.x9 += x9, s.x10 += x10, s.x11 += x11, s.x12 += x12;
  s.x13 += x13, s.x14 += x14, s.x15 += x15;
}

// out = BlockMix(in) over 2r 16-word blocks. `s` enters as the last block of `in` and leaves
// as the last block of `out`, so it never goes through memory between two calls. Each result
// goes straight to its place in `out`.
inline __attribute__((always_inline)) void blockmix_salsa8(Block& s, const uint32_t* in,
                                                           uint32_t* out, size_t r) {
  for (size_t i = 0; i < 2 * r; i++) {
    LoadXor(s, in + 16 * i);
    salsa20_8_intrinsic(s);
    // Even-numbered results fill the first half of the output, odd-numbered the second.
    Store(s, out + 16 * ((i & 1) * r + i / 2));
  }
}

// The entry at index Integerify(s) mod N, with its lines requested and its last block XORed
// into `s`, which holds the last block of the BlockMix input in registers.
inline __attribute__((always_inline)) const uint32_t* NextEntry(Block& s, const uint32_t* V,
                                                                uint64_t N, size_t words) {
  const uint64_t k = (static_cast<uint64_t>(s.x1) << 32 | s.x0) & (N - 1);
  const uint32_t* v = V + k * words;
  PrefetchEntry(v, words);
  LoadXor(s, v + words - 16);
  return v;
}

void Smix(uint8_t* B, size_t r, uint64_t N, void* v_area, void* xy_area) {
  const size_t words = 32 * r;  // one 128 * r-byte entry
  uint32_t* V = static_cast<uint32_t*>(v_area);
  uint32_t* X = static_cast<uint32_t*>(xy_area);
  uint32_t* Y = X + words;

  memcpy(V, B, 128 * r);
  Block s;
  memcpy(&s, V + words - 16, sizeof(s));
  for (uint64_t j = 0; j < N; j += 2) {
    uint32_t* vj = V + j * words;
    blockmix_salsa8(s, vj, vj + words, r);
    blockmix_salsa8(s, vj + words, j + 2 < N ? vj + 2 * words : X, r);
  }
  for (uint64_t j = 0; j < N; j += 2) {
    const uint32_t* v = NextEntry(s, V, N, words);
    XorInto(X, v, words);
    blockmix_salsa8(s, X, Y, r);
    v = NextEntry(s, V, N, words);
    XorInto(Y, v, words);
    blockmix_salsa8(s, Y, X, r);
  }
  memcpy(B, X, 128 * r);
}

bool LittleEndian() { return __BYTE_ORDER__ == __ORDER_LITTLE_ENDIAN__; }

}  // namespace

const km_scrypt_backend km_scrypt_scalar = {"scalar", LittleEndian, Smix};
