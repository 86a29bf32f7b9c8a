// crypto_scrypt on RFC 7914's 1 GiB vector (N = 2^20, r = 8), on every back end this CPU can
// run. Labelled slow: it takes seconds per back end.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "crypto/scrypt/backends.h"
#include "scrypt_vectors.h"

namespace {

TEST(CryptoScryptSlow, LargeVectorOnEveryUsableBackEnd) {
  int checked = 0;
  for (const tavikm_test::ScryptVector& v : tavikm_test::LoadScryptVectors()) {
    if (v.MemoryBytes() < (1ULL << 30)) continue;
    for (const km_scrypt_backend* backend : km_scrypt_usable_backends()) {
      SCOPED_TRACE(std::string(backend->name) + " " + v.Name());
      std::vector<uint8_t> out(v.dk.size());
      ASSERT_EQ(
          km_crypto_scrypt_with(backend, reinterpret_cast<const uint8_t*>(v.password.data()),
                                v.password.size(), reinterpret_cast<const uint8_t*>(v.salt.data()),
                                v.salt.size(), v.N, v.r, v.p, out.data(), out.size()),
          0);
      EXPECT_EQ(out, v.dk);
      checked++;
    }
  }
  EXPECT_GT(checked, 0);
}

}  // namespace
