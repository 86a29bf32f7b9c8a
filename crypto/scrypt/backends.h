// SPDX-License-Identifier: Apache-2.0
// The Salsa20/8 back ends behind crypto_scrypt: one SMix implementation per instruction set or
// core shape, one of which is chosen once per process: among those the CPU can run and that
// pass a known-answer test, the one that proves fastest here.
// White-box tests use this header to run every back end the CPU can run.
#ifndef TAVIKM_CRYPTO_SCRYPT_BACKENDS_H_
#define TAVIKM_CRYPTO_SCRYPT_BACKENDS_H_

#include <stddef.h>
#include <stdint.h>

#include <utility>
#include <vector>

struct km_scrypt_backend {
  const char* name;
  // Whether this CPU has the instructions the back end uses.
  bool (*cpu_supported)();
  // ROMix of RFC 7914 on one 128 * r-byte chunk `B` (little-endian bytes, updated in place).
  // `V` holds max(N, 2) entries of 128 * r bytes and `XY` 256 * r + 64 bytes, both aligned
  // to 64 bytes. N is a power of two.
  void (*smix)(uint8_t* B, size_t r, uint64_t N, void* V, void* XY);
};

// Defined by the back-end files built for this architecture.
extern const km_scrypt_backend km_scrypt_portable;
extern const km_scrypt_backend km_scrypt_scalar;
#if defined(__x86_64__)
extern const km_scrypt_backend km_scrypt_x86asm;
extern const km_scrypt_backend km_scrypt_sse2;
extern const km_scrypt_backend km_scrypt_avx512vl;
#endif
#if defined(__aarch64__)
extern const km_scrypt_backend km_scrypt_neon;
#endif

// Every back end built into the library, the default first and the portable one last.
std::vector<const km_scrypt_backend*> km_scrypt_all_backends();

// The back ends this CPU supports and that pass the known-answer test, in the order above.
std::vector<const km_scrypt_backend*> km_scrypt_usable_backends();

// SMix work of the calibration: r = 8, N = 8, that is 256 Salsa20/8 blocks in 9 KiB.
constexpr size_t kKmScryptCalibrationBlocks = 256;

struct km_scrypt_calibration {
  // The fastest back end that passed its known-answer test; the portable one if none did.
  const km_scrypt_backend* fastest = nullptr;
  // Each back end that passed, in candidate order, with its best time for the calibration's
  // blocks in nanoseconds (UINT64_MAX if its work area could not be had).
  std::vector<std::pair<const km_scrypt_backend*, uint64_t>> timings;
  // Wall time of the whole calibration, self-tests included, in nanoseconds.
  uint64_t cost_ns = 0;
};

// Self-tests each of `candidates`, times the ones that pass on the same few hundred blocks in
// an L1-resident area, and keeps the fastest. A back end that fails its test is never chosen,
// however fast; passing a single candidate forces it.
km_scrypt_calibration km_scrypt_calibrate(const std::vector<const km_scrypt_backend*>& candidates);

// The calibration over every back end built in, run once, on first use (thread-safe).
const km_scrypt_calibration& km_scrypt_startup_calibration();

// The back end crypto_scrypt runs: the startup calibration's fastest.
const km_scrypt_backend* km_scrypt_selected_backend();

// Whether `backend` computes RFC 7914's first test vector correctly on this CPU.
bool km_scrypt_self_test(const km_scrypt_backend* backend);

// crypto_scrypt with a chosen back end (nullptr: the selected one): same arguments, checks,
// errno and result.
int km_crypto_scrypt_with(const km_scrypt_backend* backend, const uint8_t* password,
                          size_t password_len, const uint8_t* salt, size_t salt_len, uint64_t N,
                          uint32_t r, uint32_t p, uint8_t* out, size_t out_len);

#endif  // TAVIKM_CRYPTO_SCRYPT_BACKENDS_H_
