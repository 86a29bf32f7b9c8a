// SPDX-License-Identifier: Apache-2.0
// `tavikm benchmark`: how long the record KDFs take on this machine, and the scrypt cost that
// makes an unlock take about the time asked for here. The figures describe the machine the tool
// runs on, which is rarely the device whose property is being chosen, and the output says so.
#include <errno.h>
#include <openssl/crypto.h>
#include <openssl/evp.h>
#include <stdio.h>
#include <string.h>

#include <chrono>
#include <optional>
#include <string>
#include <vector>

#include "cli.h"
#include "commands.h"
#include "tavikm.h"

namespace tavikm_tool {
namespace {

using Clock = std::chrono::steady_clock;

// The library's PBKDF2 count and the r and p of its default scrypt cost (15:3:1).
constexpr unsigned kPbkdf2Iterations = 8192;
constexpr unsigned kRFactor = 3;
constexpr unsigned kPFactor = 1;
constexpr unsigned kFirstNFactor = 10;
constexpr unsigned kLastNFactor = 24;

const uint8_t kPassword[] = "benchmark password";
const uint8_t kSalt[16] = {1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15, 16};

double Milliseconds(Clock::duration d) {
  return std::chrono::duration<double, std::milli>(d).count();
}

// Runs `work` until it has taken 50 ms in all (at least once); the mean time of one run.
template <typename Work>
double TimeOf(Work work) {
  int runs = 0;
  Clock::time_point start = Clock::now();
  Clock::duration spent{};
  do {
    if (!work()) return -1;
    ++runs;
    spent = Clock::now() - start;
  } while (spent < std::chrono::milliseconds(50));
  return Milliseconds(spent) / runs;
}

std::string MiB(uint64_t bytes) {
  char text[32];
  if (bytes >= (uint64_t{1} << 20)) {
    snprintf(text, sizeof(text), "%llu MiB", static_cast<unsigned long long>(bytes >> 20));
  } else {
    snprintf(text, sizeof(text), "%llu KiB", static_cast<unsigned long long>(bytes >> 10));
  }
  return text;
}

}  // namespace

int RunBenchmark(const Invocation& in) {
  std::optional<std::string> unlock_ms = in.Value("--unlock-ms");
  uint64_t target = unlock_ms ? ParseUnsigned(*unlock_ms, "--unlock-ms") : 1000;
  if (target < 10 || target > 60000) throw UsageError("--unlock-ms must be from 10 to 60000");

  printf("Timings of this machine, not of a device:\n");
  uint8_t out[32];
  double pbkdf2 = TimeOf([&] {
    return PKCS5_PBKDF2_HMAC(reinterpret_cast<const char*>(kPassword), sizeof(kPassword) - 1, kSalt,
                             sizeof(kSalt), kPbkdf2Iterations, EVP_sha256(), sizeof(out), out) == 1;
  });
  if (pbkdf2 < 0) throw ToolError(kExitFailure, "PBKDF2 failed");
  printf("PBKDF2-HMAC-SHA256, %u iterations (kdf 1 and 4)   %8.1f ms\n", kPbkdf2Iterations, pbkdf2);

  const uint32_t r = 1u << kRFactor, p = 1u << kPFactor;
  printf("scrypt, r=%u p=%u (kdf 2 and 5), Salsa20/8 back end %s:\n", r, p,
         km_scrypt_backend_name());
  printf("  %-8s %9s %11s\n", "N", "memory", "time");
  std::optional<unsigned> chosen;
  double measured = 0;  // the last measured time, the base of the estimates
  unsigned measured_factor = 0;
  for (unsigned n = kFirstNFactor; n <= kLastNFactor; ++n) {
    double ms;
    bool estimated = measured > target / 8.0;
    if (estimated) {
      ms = measured * static_cast<double>(uint64_t{1} << (n - measured_factor));
    } else {
      ms = TimeOf([&] {
        return crypto_scrypt(kPassword, sizeof(kPassword) - 1, kSalt, sizeof(kSalt),
                             uint64_t{1} << n, r, p, out, sizeof(out)) == 0;
      });
      if (ms < 0) {
        printf("  N=2^%-4u cannot run here: %s\n", n, strerror(errno));
        break;
      }
      measured = ms;
      measured_factor = n;
    }
    uint64_t memory = uint64_t{128} * r << n;
    printf("  N=2^%-4u %9s %s%9.1f ms\n", n, MiB(memory).c_str(), estimated ? "~" : " ", ms);
    if (ms <= static_cast<double>(target)) chosen = n;
    if (ms > static_cast<double>(target)) break;
  }
  OPENSSL_cleanse(out, sizeof(out));
  if (!chosen) {
    printf("Even N=2^%u takes longer than %llu ms on this machine.\n", kFirstNFactor,
           static_cast<unsigned long long>(target));
    return kExitOk;
  }
  printf("For an unlock of at most %llu ms on this machine: ro.crypto.scrypt_params=%u:%u:%u\n",
         static_cast<unsigned long long>(target), *chosen, kRFactor, kPFactor);
  printf("A device gives other times: run the benchmark there before setting the property.\n");
  return kExitOk;
}

}  // namespace tavikm_tool
