// SPDX-License-Identifier: Apache-2.0
// The diagonal layout the SIMD back ends keep blocks in while SMix runs: position i of a 16-word
// block holds word 5i mod 16, so each 128-bit register holds one diagonal of the 4x4 matrix.
#ifndef TAVIKM_CRYPTO_SCRYPT_DIAGONAL_H_
#define TAVIKM_CRYPTO_SCRYPT_DIAGONAL_H_

#include <stddef.h>
#include <stdint.h>
#include <string.h>

// `blocks` 64-byte little-endian blocks into diagonal layout.
inline void km_to_diagonal(const uint8_t* in, uint32_t* out, size_t blocks) {
  for (size_t b = 0; b < blocks; b++) {
    for (size_t i = 0; i < 16; i++) memcpy(&out[16 * b + i], in + 64 * b + 4 * (5 * i % 16), 4);
  }
}

// Back from diagonal layout to little-endian blocks.
inline void km_from_diagonal(const uint32_t* in, uint8_t* out, size_t blocks) {
  for (size_t b = 0; b < blocks; b++) {
    for (size_t i = 0; i < 16; i++) memcpy(out + 64 * b + 4 * (5 * i % 16), &in[16 * b + i], 4);
  }
}

#endif  // TAVIKM_CRYPTO_SCRYPT_DIAGONAL_H_
