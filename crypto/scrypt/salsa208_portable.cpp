// SPDX-License-Identifier: Apache-2.0
// Portable Salsa20/8 back end: plain C on 32-bit words, for any CPU. Also the reference the
// vector back ends are checked against.
#include <string.h>

#include "crypto/scrypt/backends.h"

namespace {

inline uint32_t Rotl(uint32_t x, int n) { return (x << n) | (x >> (32 - n)); }

inline uint32_t Load32(const uint8_t* p) {
  return static_cast<uint32_t>(p[0]) | static_cast<uint32_t>(p[1]) << 8 |
         static_cast<uint32_t>(p[2]) << 16 | static_cast<uint32_t>(p[3]) << 24;
}

inline void Store32(uint8_t* p, uint32_t v) {
  p[0] = static_cast<uint8_t>(v);
  p[1] = static_cast<uint8_t>(v >> 8);
  p[2] = static_cast<uint8_t>(v >> 16);
  p[3] = static_cast<uint8_t>(v >> 24);
}

// The Salsa20/8 core on one 16-word block, in place.
void salsa20_8_intrinsic(uint32_t b[16]) {
  uint32_t x[16];
  memcpy(x, b, sizeof(x));
  for (int i = 0; i < 8; i += 2) {
    // Columns.
    x[4] ^= Rotl(x[0] + x[12], 7);
    x[8] ^= Rotl(x[4] + x[0], 9);
    x[12] ^= Rotl(x[8] + x[4], 13);
    x[0] ^= Rotl(x[12] + x[8], 18);
    x[9] ^= Rotl(x[5] + x[1], 7);
    x[13] ^= Rotl(x[9] + x[5], 9);
    x[1] ^= Rotl(x[13] + x[9], 13);
    x[5] ^= Rotl(x[1] + x[13], 18);
    x[14] ^= Rotl(x[10] + x[6], 7);
    x[2] ^= Rotl(x[14] + x[10], 9);
    x[6] ^= Rotl(x[2] + x[14], 13);
    x[10] ^= Rotl(x[6] + x[2], 18);
    x[3] ^= Rotl(x[15] + x[11], 7);
    x[7] ^= Rotl(x[3] + x[15], 9);
    x[11] ^= Rotl(x[7] + x[3], 13);
    x[15] ^= Rotl(x[11] + x[7], 18);
    // Rows.
    x[1] ^= Rotl(x[0] + x[3], 7);
    x[2] ^= Rotl(x[1] + x[0], 9);
    x[3] ^= Rotl(x[2] + x[1], 13);
    x[0] ^= Rotl(x[3] + x[2], 18);
    x[6] ^= Rotl(x[5] + x[4], 7);
    x[7] ^= Rotl(x[6] + x[5], 9);
    x[4] ^= Rotl(x[7] + x[6], 13);
    x[5] ^= Rotl(x[4] + x[7], 18);
    x[11] ^= Rotl(x[10] + x[9], 7);
    x[8] ^= Rotl(x[11] + x[10], 9);
    x[9] ^= Rotl(x[8] + x[11], 13);
    x[10] ^= Rotl(x[9] + x[8], 18);
    x[12] ^= Rotl(x[15] + x[14], 7);
    x[13] ^= Rotl(x[12] + x[15], 9);
    x[14] ^= Rotl(x[13] + x[12], 13);
    x[15] ^= Rotl(x[14] + x[13], 18);
  }
  for (int i = 0; i < 16; i++) b[i] += x[i];
}

// Y = BlockMix(in XOR v) over 2r blocks of 16 words; `v` may be null (no XOR). Returns
// Integerify of the result.
uint64_t blockmix_salsa8(const uint32_t* in, const uint32_t* v, uint32_t* out, size_t r) {
  uint32_t x[16];
  const size_t last = (2 * r - 1) * 16;
  for (int k = 0; k < 16; k++) x[k] = in[last + k] ^ (v != nullptr ? v[last + k] : 0);
  for (size_t i = 0; i < 2 * r; i++) {
    for (int k = 0; k < 16; k++) x[k] ^= in[i * 16 + k] ^ (v != nullptr ? v[i * 16 + k] : 0);
    salsa20_8_intrinsic(x);
    // Even steps fill the first half of the output, odd steps the second.
    memcpy(out + ((i & 1) * r + i / 2) * 16, x, sizeof(x));
  }
  return static_cast<uint64_t>(x[1]) << 32 | x[0];
}

void Smix(uint8_t* B, size_t r, uint64_t N, void* v_area, void* xy_area) {
  const size_t words = 32 * r;
  uint32_t* V = static_cast<uint32_t*>(v_area);
  uint32_t* X = static_cast<uint32_t*>(xy_area);
  uint32_t* Y = X + words;

  for (size_t k = 0; k < words; k++) V[k] = Load32(B + 4 * k);
  // Each output goes straight to its table slot; the last one lands in X.
  for (uint64_t j = 0; j < N; j += 2) {
    uint32_t* vj = V + j * words;
    blockmix_salsa8(vj, nullptr, vj + words, r);
    blockmix_salsa8(vj + words, nullptr, j + 2 < N ? vj + 2 * words : X, r);
  }
  uint64_t k = static_cast<uint64_t>(X[words - 15]) << 32 | X[words - 16];
  for (uint64_t j = 0; j < N; j += 2) {
    k = blockmix_salsa8(X, V + (k & (N - 1)) * words, Y, r);
    k = blockmix_salsa8(Y, V + (k & (N - 1)) * words, X, r);
  }
  for (size_t i = 0; i < words; i++) Store32(B + 4 * i, X[i]);
}

bool Always() { return true; }

}  // namespace

const km_scrypt_backend km_scrypt_portable = {"portable", Always, Smix};
