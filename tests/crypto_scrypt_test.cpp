// SPDX-License-Identifier: Apache-2.0
// crypto_scrypt: known answers on every back end this CPU can run, agreement between back ends,
// the run-time choice of back end, and the argument checks with their errno.
#include <errno.h>
#include <gtest/gtest.h>
#include <stdint.h>
#include <stdlib.h>
#include <string.h>

#include <algorithm>
#include <random>
#include <string>
#include <vector>

#include "crypto/scrypt/backends.h"
#include "scrypt_vectors.h"
#include "tavikm.h"

namespace {

using tavikm_test::LoadScryptVectors;
using tavikm_test::ScryptVector;

// RFC 7914's 1 GiB vector takes seconds per back end: only the slow run
// (crypto_scrypt_slow_test, which sets TAVIKM_SCRYPT_LARGE) includes it.
const bool kLargeVectors = getenv("TAVIKM_SCRYPT_LARGE") != nullptr;

const uint8_t* Bytes(const std::string& s) { return reinterpret_cast<const uint8_t*>(s.data()); }

std::vector<uint8_t> Derive(const km_scrypt_backend* backend, const std::string& password,
                            const std::string& salt, uint64_t N, uint32_t r, uint32_t p,
                            size_t out_len) {
  std::vector<uint8_t> out(out_len);
  EXPECT_EQ(km_crypto_scrypt_with(backend, Bytes(password), password.size(), Bytes(salt),
                                  salt.size(), N, r, p, out.data(), out.size()),
            0);
  return out;
}

class ScryptBackendTest : public testing::TestWithParam<const km_scrypt_backend*> {};

TEST_P(ScryptBackendTest, Rfc7914Vectors) {
  int checked = 0;
  for (const ScryptVector& v : LoadScryptVectors()) {
    if (v.MemoryBytes() > (64ULL << 20) && !kLargeVectors) continue;
    SCOPED_TRACE(v.Name());
    errno = EIO;
    EXPECT_EQ(Derive(GetParam(), v.password, v.salt, v.N, v.r, v.p, v.dk.size()), v.dk);
    // errno carries the last posix_memalign result, 0 on success.
    EXPECT_EQ(errno, 0);
    checked++;
  }
  EXPECT_EQ(checked, kLargeVectors ? 4 : 3);
}

// Back ends differ in layout and block handling; odd lengths, r above 1 and p above 1 reach
// the parts the short vectors do not.
TEST_P(ScryptBackendTest, AgreesWithPortableOnRandomParameters) {
  if (GetParam() == &km_scrypt_portable) GTEST_SKIP() << "the reference itself";
  std::mt19937 rng(20240611);
  auto random_text = [&](size_t n) {
    std::string s(n, '\0');
    for (char& c : s) c = static_cast<char>(rng());
    return s;
  };
  for (int round = 0; round < 24; round++) {
    const uint64_t N = 1ULL << (1 + rng() % 7);
    const uint32_t r = 1 + rng() % 9;
    const uint32_t p = 1 + rng() % 3;
    const std::string password = random_text(rng() % 40);
    const std::string salt = random_text(rng() % 33);
    const size_t out_len = 1 + rng() % 97;
    SCOPED_TRACE("N=" + std::to_string(N) + " r=" + std::to_string(r) + " p=" + std::to_string(p) +
                 " out_len=" + std::to_string(out_len));
    EXPECT_EQ(Derive(GetParam(), password, salt, N, r, p, out_len),
              Derive(&km_scrypt_portable, password, salt, N, r, p, out_len));
  }
}

// N = 1 passes the checks and runs on a two-entry table.
TEST_P(ScryptBackendTest, NOfOneRunsAndAgreesWithPortable) {
  const std::vector<uint8_t> out = Derive(GetParam(), "password", "salt", 1, 2, 2, 32);
  EXPECT_NE(out, std::vector<uint8_t>(32, 0));
  EXPECT_EQ(out, Derive(&km_scrypt_portable, "password", "salt", 1, 2, 2, 32));
}

INSTANTIATE_TEST_SUITE_P(Usable, ScryptBackendTest, testing::ValuesIn(km_scrypt_usable_backends()),
                         [](const testing::TestParamInfo<const km_scrypt_backend*>& info) {
                           return std::string(info.param->name);
                         });

bool CpuClaims(const km_scrypt_backend* backend) {
  const std::string name = backend->name;
#if defined(__x86_64__)
  if (name == "sse2" || name == "x86asm") return true;
  if (name == "avx512vl") {
    return __builtin_cpu_supports("avx512f") && __builtin_cpu_supports("avx512vl");
  }
#endif
#if defined(__aarch64__)
  if (name == "neon") return true;
#endif
  return name == "portable" || name == "scalar";
}

// A back end the CPU can run but that fails its known-answer test would silently fall back to
// a slower one; every back end this CPU supports must pass, and the one crypto_scrypt runs is
// the fastest of them as timed at startup.
TEST(ScryptBackendChoice, EverySupportedBackEndPassesAndTheFastestIsSelected) {
  const std::vector<const km_scrypt_backend*> all = km_scrypt_all_backends();
  ASSERT_FALSE(all.empty());
  EXPECT_EQ(all.back(), &km_scrypt_portable);
  std::vector<const km_scrypt_backend*> expected;
  for (const km_scrypt_backend* backend : all) {
    EXPECT_EQ(backend->cpu_supported(), CpuClaims(backend)) << backend->name;
    if (CpuClaims(backend)) expected.push_back(backend);
  }
  EXPECT_EQ(km_scrypt_usable_backends(), expected);

  const km_scrypt_calibration& startup = km_scrypt_startup_calibration();
  ASSERT_EQ(startup.timings.size(), expected.size());
  uint64_t best = UINT64_MAX;
  for (size_t i = 0; i < expected.size(); i++) {
    EXPECT_EQ(startup.timings[i].first, expected[i]);
    EXPECT_GT(startup.timings[i].second, 0u);
    best = std::min(best, startup.timings[i].second);
  }
  EXPECT_EQ(km_scrypt_selected_backend(), startup.fastest);
  EXPECT_STREQ(km_scrypt_backend_name(), startup.fastest->name);
  for (const auto& timing : startup.timings) {
    if (timing.first == startup.fastest) {
      EXPECT_EQ(timing.second, best);
    }
  }
}

bool Supported() { return true; }
bool Unsupported() { return false; }
void WrongSmix(uint8_t* B, size_t r, uint64_t N, void* V, void* XY) {
  km_scrypt_portable.smix(B, r, N, V, XY);
  B[0] ^= 1;
}
void PortableSmix(uint8_t* B, size_t r, uint64_t N, void* V, void* XY) {
  km_scrypt_portable.smix(B, r, N, V, XY);
}
// Faster than any real back end, and wrong.
void NoSmix(uint8_t*, size_t, uint64_t, void*, void*) {}

TEST(ScryptBackendChoice, SelfTestRejectsWrongAnswersAndMissingInstructions) {
  const km_scrypt_backend wrong = {"wrong", Supported, WrongSmix};
  const km_scrypt_backend absent = {"absent", Unsupported, PortableSmix};
  const km_scrypt_backend good = {"good", Supported, PortableSmix};
  errno = EIO;
  EXPECT_FALSE(km_scrypt_self_test(&wrong));
  EXPECT_FALSE(km_scrypt_self_test(&absent));
  EXPECT_TRUE(km_scrypt_self_test(&good));
  // The self-test runs inside a caller's crypto_scrypt and must not disturb its errno.
  EXPECT_EQ(errno, EIO);
}

// The calibration with each back end in turn as its only sound candidate: that one is chosen,
// never a faster one that fails its test or that the CPU cannot run.
TEST(ScryptBackendChoice, CalibrationKeepsOnlyBackEndsThatPass) {
  const km_scrypt_backend fast_wrong = {"fast_wrong", Supported, NoSmix};
  const km_scrypt_backend absent = {"absent", Unsupported, NoSmix};
  for (const km_scrypt_backend* backend : km_scrypt_usable_backends()) {
    SCOPED_TRACE(backend->name);
    const km_scrypt_calibration c = km_scrypt_calibrate({&fast_wrong, &absent, backend});
    EXPECT_EQ(c.fastest, backend);
    ASSERT_EQ(c.timings.size(), 1u);
    EXPECT_EQ(c.timings[0].first, backend);
  }
  // With nothing sound to choose from, the portable code runs.
  EXPECT_EQ(km_scrypt_calibrate({&fast_wrong, &absent}).fastest, &km_scrypt_portable);
}

// The exported function's known answers are crypto_kdf_test's scrypt entry.
TEST(CryptoScrypt, NoOutputIsAValidRequest) {
  // Its null pointer is never written through.
  EXPECT_EQ(crypto_scrypt(Bytes("pw"), 2, Bytes("salt"), 4, 16, 1, 1, nullptr, 0), 0);
}

struct BadArguments {
  const char* what;
  uint64_t N;
  uint32_t r;
  uint32_t p;
  size_t out_len;
  int expected_errno;
};

// Each refusal comes before any work: -1, the errno, and the output untouched. Rows that break
// two rules show which check comes first.
TEST(CryptoScrypt, RefusesBadArgumentsWithErrno) {
  const BadArguments cases[] = {
      {"N zero", 0, 8, 1, 32, EINVAL},
      {"N not a power of two", 1000, 8, 1, 32, EINVAL},
      {"N just past a power of two", (1ULL << 40) + 1, 1, 1, 32, EINVAL},
      {"r zero", 16, 0, 1, 32, ENOMEM},
      {"p zero", 16, 8, 0, 32, ENOMEM},
      {"r and p zero", 16, 0, 0, 32, ENOMEM},
      {"r * p at 2^30", 16, 1024, 1048576, 32, EFBIG},
      {"r * p at 2^30 before a bad N", 1000, 1 << 30, 1, 32, EFBIG},
      {"output too long", 16, 1, 1, 137438953441ULL, EFBIG},
      {"output too long before N zero", 0, 0, 0, 137438953441ULL, EFBIG},
      // 137438953440 bytes is allowed: N = 0 is what refuses this one.
      {"longest allowed output", 0, 1, 1, 137438953440ULL, EINVAL},
      {"N zero before r zero", 0, 0, 1, 32, EINVAL},
      {"N too large for r", 1ULL << 50, 1 << 8, 1, 32, ENOMEM},
      // 128 * r no longer fits 32 bits: the areas would wrap to less than the work needs.
      {"128 * r wraps", 2, 1 << 25, 1, 32, ENOMEM},
      {"256 * r + 64 wraps", 2, 1 << 24, 1, 32, ENOMEM},
      {"128 * r * p wraps", 2, 1, 1 << 25, 32, ENOMEM},
  };
  for (const BadArguments& c : cases) {
    SCOPED_TRACE(c.what);
    uint8_t out[32];
    memset(out, 0xa5, sizeof(out));
    errno = 0;
    // A long output never reaches the buffer: the check refuses it first.
    EXPECT_EQ(crypto_scrypt(Bytes("pw"), 2, Bytes("salt"), 4, c.N, c.r, c.p, out, c.out_len), -1);
    EXPECT_EQ(errno, c.expected_errno);
    EXPECT_EQ(std::vector<uint8_t>(out, out + sizeof(out)), std::vector<uint8_t>(32, 0xa5));
  }
}

#if defined(__SANITIZE_ADDRESS__)
#define TAVIKM_UNDER_ASAN 1
#elif defined(__has_feature)
#if __has_feature(address_sanitizer)
#define TAVIKM_UNDER_ASAN 1
#endif
#endif

TEST(CryptoScrypt, FailedAllocationReportsTheAllocatorsCode) {
#if defined(TAVIKM_UNDER_ASAN)
  GTEST_SKIP() << "the sanitizer's allocator aborts on a 64 TiB request";
#else
  // V of 128 * 2^39 bytes passes the checks but cannot be had.
  uint8_t out[32];
  memset(out, 0xa5, sizeof(out));
  errno = 0;
  EXPECT_EQ(crypto_scrypt(Bytes("pw"), 2, Bytes("salt"), 4, 1ULL << 39, 1, 1, out, sizeof(out)),
            -1);
  EXPECT_EQ(errno, ENOMEM);
  EXPECT_EQ(std::vector<uint8_t>(out, out + sizeof(out)), std::vector<uint8_t>(32, 0xa5));
#endif
}

}  // namespace
