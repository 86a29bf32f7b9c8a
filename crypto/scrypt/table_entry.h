// Helpers the scalar-shaped SMix loops share for the table V of 128 * r-byte entries.
#ifndef TAVIKM_CRYPTO_SCRYPT_TABLE_ENTRY_H_
#define TAVIKM_CRYPTO_SCRYPT_TABLE_ENTRY_H_

#include <stddef.h>
#include <stdint.h>

namespace tavikm_scrypt {

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

}  // namespace tavikm_scrypt

#endif  // TAVIKM_CRYPTO_SCRYPT_TABLE_ENTRY_H_
