// SPDX-License-Identifier: Apache-2.0
// crypto_scrypt against the scrypt of libsodium, libscrypt and libcrypto's EVP_PBE_scrypt, on
// the same inputs in one run, plus each Salsa20/8 back end this CPU can run and the cost of
// wiping the table. Before the run: which back end crypto_scrypt picked, what choosing it
// cost, and the peak-RSS increase of one default derivation. After it: each median in ms and
// ns per Salsa20/8 block, its ratio to crypto_scrypt, and the ratios the library aims at.
#include <benchmark/benchmark.h>
#include <libscrypt.h>
#include <openssl/crypto.h>
#include <openssl/evp.h>
#include <sodium.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include <algorithm>
#include <map>
#include <string>
#include <vector>

#include "crypto/scrypt/backends.h"
#include "tavikm.h"

namespace {

struct Params {
  uint64_t N;
  uint32_t r;
  uint32_t p;
  size_t out_len;
  std::string Label() const {
    return "N=" + std::to_string(N) + ",r=" + std::to_string(r) + ",p=" + std::to_string(p);
  }
  // Salsa20/8 calls in one derivation: two BlockMix passes over N entries of 2r blocks, p times.
  double Blocks() const { return 2.0 * N * 2 * r * p; }
};

// The last row is the library's default factors.
const Params kParams[] = {
    {1 << 10, 8, 1, 32}, {1 << 12, 8, 1, 32}, {1 << 14, 8, 1, 32}, {1 << 15, 8, 2, 32}};
const char kPassword[] = "correct horse battery staple";
const uint8_t kSalt[16] = {0x5a, 0x17, 0x3c, 0x90, 0x01, 0xee, 0x42, 0x7d,
                           0x88, 0x13, 0xb4, 0x2f, 0x61, 0xc0, 0x09, 0xd5};

using ScryptFn = int (*)(const Params&, uint8_t*);

const uint8_t* Pw() { return reinterpret_cast<const uint8_t*>(kPassword); }

int Ours(const Params& q, uint8_t* out) {
  return crypto_scrypt(Pw(), strlen(kPassword), kSalt, sizeof(kSalt), q.N, q.r, q.p, out,
                       q.out_len);
}
int Sodium(const Params& q, uint8_t* out) {
  return crypto_pwhash_scryptsalsa208sha256_ll(Pw(), strlen(kPassword), kSalt, sizeof(kSalt), q.N,
                                               q.r, q.p, out, q.out_len);
}
int Libscrypt(const Params& q, uint8_t* out) {
  return libscrypt_scrypt(Pw(), strlen(kPassword), kSalt, sizeof(kSalt), q.N, q.r, q.p, out,
                          q.out_len);
}
int Evp(const Params& q, uint8_t* out) {
  // Generous max_mem: the default (32 MiB) refuses the larger parameter set.
  return EVP_PBE_scrypt(kPassword, strlen(kPassword), kSalt, sizeof(kSalt), q.N, q.r, q.p,
                        size_t{1} << 31, out, q.out_len) == 1
             ? 0
             : -1;
}

struct Impl {
  std::string name;
  ScryptFn fn;
};

// Median CPU and wall time per parameter set and implementation, filled while the run reports.
// The ratios use CPU time: on a shared machine, wall time also counts waiting for a core.
struct Median {
  double cpu = 0;
  double wall = 0;
};
std::map<std::string, std::map<std::string, Median>> g_medians;

class MedianReporter : public benchmark::ConsoleReporter {
 public:
  void ReportRuns(const std::vector<Run>& reports) override {
    for (const Run& run : reports) {
      if (run.run_type != Run::RT_Aggregate || run.aggregate_name != "median") continue;
      const std::string& name = run.run_name.function_name;
      const size_t slash = name.find('/');
      g_medians[name.substr(0, slash)][name.substr(slash + 1)] = {run.GetAdjustedCPUTime(),
                                                                  run.GetAdjustedRealTime()};
    }
    ConsoleReporter::ReportRuns(reports);
  }
};

double MsOf(const std::map<std::string, Median>& row, const std::string& impl) {
  const auto it = row.find(impl);
  return it == row.end() ? 0 : it->second.cpu;
}

void PrintTable(const std::vector<std::string>& order, const std::vector<std::string>& backends) {
  printf(
      "\nMedians in ms and ns per Salsa20/8 block (CPU time); the ratio is CPU time as a "
      "multiple of crypto_scrypt's.\n");
  std::vector<std::string> targets;
  for (const Params& q : kParams) {
    const auto found = g_medians.find(q.Label());
    if (found == g_medians.end()) continue;
    const auto& row = found->second;
    const double ours = MsOf(row, "crypto_scrypt");
    printf("\n%s, %zu-byte key, V = %llu MiB, %.0f blocks\n", q.Label().c_str(), q.out_len,
           static_cast<unsigned long long>(128 * q.r * q.N >> 20), q.Blocks());
    printf("  %-24s %8s  %8s  %8s   %5s\n", "", "cpu ms", "wall ms", "ns/block", "ratio");
    for (const std::string& impl : order) {
      const auto it = row.find(impl);
      if (it == row.end()) continue;
      printf("  %-24s %8.2f  %8.2f  %8.1f", impl.c_str(), it->second.cpu, it->second.wall,
             it->second.cpu * 1e6 / q.Blocks());
      if (ours > 0) printf("   %5.2f", it->second.cpu / ours);
      printf("\n");
    }
    double fastest = 0;
    for (const std::string& backend : backends) {
      const double ms = MsOf(row, backend);
      if (ms > 0 && (fastest == 0 || ms < fastest)) fastest = ms;
    }
    const double evp = MsOf(row, "EVP_PBE_scrypt");
    const double sodium = MsOf(row, "libsodium");
    char line[256];
    if (ours > 0 && fastest > 0 && evp > 0) {
      snprintf(line, sizeof(line),
               "%-22s crypto_scrypt / fastest back end %.3f (at most 1.03), "
               "/ EVP_PBE_scrypt %.2f (at most 0.80)",
               q.Label().c_str(), ours / fastest, ours / evp);
      targets.push_back(line);
    }
    if (q.N == (1 << 15) && q.p == 2 && ours > 0 && sodium > 0) {
      snprintf(line, sizeof(line), "%-22s crypto_scrypt / libsodium %.2f (at most 0.55)",
               q.Label().c_str(), ours / sodium);
      targets.push_back(line);
    }
  }
  if (!targets.empty()) printf("\nTargets:\n");
  for (const std::string& line : targets) printf("  %s\n", line.c_str());
}

// A field of /proc/self/status in KiB ("VmRSS", "VmHWM"), or -1.
long StatusKiB(const char* field) {
  FILE* f = fopen("/proc/self/status", "r");
  if (f == nullptr) return -1;
  char line[256];
  long kib = -1;
  const size_t n = strlen(field);
  while (fgets(line, sizeof(line), f) != nullptr) {
    if (strncmp(line, field, n) == 0 && line[n] == ':') kib = atol(line + n + 1);
  }
  fclose(f);
  return kib;
}

// How far `run` raises the resident set above where it stood: the kernel's high-water mark is
// first reset to the current size (clear_refs 5), so earlier peaks do not count.
template <typename Fn>
long PeakRssIncreaseKiB(Fn run) {
  FILE* f = fopen("/proc/self/clear_refs", "w");
  if (f != nullptr) {
    fputs("5", f);
    fclose(f);
  }
  const long before = StatusKiB("VmRSS");
  run();
  return StatusKiB("VmHWM") - before;
}

// The first derivations of the process: a small one, which also picks the back end and pages
// in the code, then one on the default factors. Run before anything else so that each
// high-water mark of the resident set is theirs.
void ReportFirstDerivations() {
  std::vector<uint8_t> key(32);
  const long first_increase = PeakRssIncreaseKiB([&] {
    crypto_scrypt(Pw(), strlen(kPassword), kSalt, sizeof(kSalt), 16, 8, 1, key.data(), key.size());
  });
  const Params& q = kParams[sizeof(kParams) / sizeof(kParams[0]) - 1];
  const long increase = PeakRssIncreaseKiB([&] { Ours(q, key.data()); });

  const km_scrypt_calibration& c = km_scrypt_startup_calibration();
  printf(
      "crypto_scrypt runs back end \"%s\" (km_scrypt_backend_name), picked at its first call "
      "in %.3f ms: each back end self-tested, then each one that passed timed on %zu "
      "L1-resident blocks, best of 3:\n ",
      km_scrypt_backend_name(), c.cost_ns / 1e6, kKmScryptCalibrationBlocks);
  for (const auto& timing : c.timings) {
    printf(" %s %.1f ns/block;", timing.first->name,
           static_cast<double>(timing.second) / kKmScryptCalibrationBlocks);
  }
  printf(
      "\nPeak-RSS increase of one default derivation (%s): %ld KiB = %.2f MiB (budget: "
      "32 MiB + 256 KiB = 33024 KiB). The process's first call (N=16, r=8, p=1), which also "
      "picked the back end and paged in the code, raised it by %ld KiB.\n\n",
      q.Label().c_str(), increase, increase / 1024.0, first_increase);
}

}  // namespace

int main(int argc, char** argv) {
  ReportFirstDerivations();
  if (sodium_init() < 0) {
    fprintf(stderr, "sodium_init failed\n");
    return 1;
  }
  std::vector<Impl> impls = {
      {"crypto_scrypt", Ours},
      {"libsodium", Sodium},
      {"libscrypt", Libscrypt},
      {"EVP_PBE_scrypt", Evp},
  };
  std::vector<std::string> order, backend_rows;
  for (const Impl& impl : impls) order.push_back(impl.name);
  const std::vector<const km_scrypt_backend*> backends = km_scrypt_usable_backends();
  for (const km_scrypt_backend* backend : backends) {
    backend_rows.push_back(std::string("back end ") + backend->name);
    order.push_back(backend_rows.back());
  }
  order.push_back("of which: wiping V");

  for (const Params& q : kParams) {
    // Same inputs, same answer: a peer that disagrees would make the comparison meaningless.
    std::vector<uint8_t> expected(q.out_len), out(q.out_len);
    if (Ours(q, expected.data()) != 0) {
      fprintf(stderr, "crypto_scrypt failed on %s\n", q.Label().c_str());
      return 1;
    }
    for (const Impl& impl : impls) {
      if (impl.fn(q, out.data()) != 0 || out != expected) {
        fprintf(stderr, "%s disagrees with crypto_scrypt on %s\n", impl.name.c_str(),
                q.Label().c_str());
        return 1;
      }
      benchmark::RegisterBenchmark((q.Label() + "/" + impl.name).c_str(),
                                   [q, fn = impl.fn](benchmark::State& state) {
                                     std::vector<uint8_t> key(q.out_len);
                                     for (auto _ : state) {
                                       fn(q, key.data());
                                       benchmark::DoNotOptimize(key.data());
                                     }
                                   });
    }
    for (const km_scrypt_backend* backend : backends) {
      benchmark::RegisterBenchmark((q.Label() + "/back end " + backend->name).c_str(),
                                   [q, backend](benchmark::State& state) {
                                     std::vector<uint8_t> key(q.out_len);
                                     for (auto _ : state) {
                                       km_crypto_scrypt_with(backend, Pw(), strlen(kPassword),
                                                             kSalt, sizeof(kSalt), q.N, q.r, q.p,
                                                             key.data(), key.size());
                                       benchmark::DoNotOptimize(key.data());
                                     }
                                   });
    }
    // crypto_scrypt clears its 128 * r * N-byte table before releasing it; this is that part.
    benchmark::RegisterBenchmark((q.Label() + "/of which: wiping V").c_str(),
                                 [q](benchmark::State& state) {
                                   std::vector<uint8_t> v(128 * q.r * q.N, 1);
                                   for (auto _ : state) {
                                     OPENSSL_cleanse(v.data(), v.size());
                                     benchmark::ClobberMemory();
                                   }
                                 });
  }

  // Defaults that give stable medians; any flag on the command line overrides them.
  std::vector<char*> args(argv, argv + argc);
  char reps[] = "--benchmark_repetitions=15";
  char interleave[] = "--benchmark_enable_random_interleaving=true";
  char min_time[] = "--benchmark_min_time=0.4";
  char aggregates[] = "--benchmark_report_aggregates_only=true";
  args.insert(args.begin() + 1, {reps, interleave, min_time, aggregates});
  int args_count = static_cast<int>(args.size());
  benchmark::Initialize(&args_count, args.data());
  if (benchmark::ReportUnrecognizedArguments(args_count, args.data())) return 1;
  benchmark::SetDefaultTimeUnit(benchmark::kMillisecond);
  MedianReporter reporter;
  benchmark::RunSpecifiedBenchmarks(&reporter);
  benchmark::Shutdown();
  PrintTable(order, backend_rows);
  return 0;
}
