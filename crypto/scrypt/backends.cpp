// The table of Salsa20/8 back ends and the run-time choice among them: a back end is used only
// when the CPU has its instructions and it reproduces a known answer on this CPU.
#include "crypto/scrypt/backends.h"

#include <errno.h>
#include <openssl/crypto.h>

std::vector<const km_scrypt_backend*> km_scrypt_all_backends() {
  std::vector<const km_scrypt_backend*> all;
#if defined(__x86_64__)
  all.push_back(&km_scrypt_avx512vl);
  all.push_back(&km_scrypt_sse2);
#endif
#if defined(__aarch64__)
  all.push_back(&km_scrypt_neon);
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

const km_scrypt_backend* km_scrypt_selected_backend() {
  static const km_scrypt_backend* selected = [] {
    for (const km_scrypt_backend* backend : km_scrypt_all_backends()) {
      if (km_scrypt_self_test(backend)) return backend;
    }
    // The portable code has no CPU requirement; if even it fails, the answers are wrong
    // whichever back end runs, and the callers' own checks are all that is left.
    return &km_scrypt_portable;
  }();
  return selected;
}
