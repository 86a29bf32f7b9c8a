// crypto_scrypt against the scrypt of libsodium, libscrypt and libcrypto's EVP_PBE_scrypt, on
// the same inputs in one run, plus each Salsa20/8 back end this CPU can run and the cost of
// wiping the table. Prints each median and its ratio to crypto_scrypt after the run.
#include <benchmark/benchmark.h>
#include <libscrypt.h>
#include <openssl/crypto.h>
#include <openssl/evp.h>
#include <sodium.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

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
};

const Params kParams[] = {{1 << 15, 8, 2, 32}, {1 << 14, 8, 1, 32}};
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

void PrintTable(const std::vector<std::string>& order) {
  printf("\nMedians in ms; the ratio is CPU time as a multiple of crypto_scrypt's.\n");
  for (const Params& q : kParams) {
    const auto found = g_medians.find(q.Label());
    if (found == g_medians.end()) continue;
    const auto& row = found->second;
    const auto ours = row.find("crypto_scrypt");
    printf("\n%s, %zu-byte key, V = %llu MiB\n", q.Label().c_str(), q.out_len,
           static_cast<unsigned long long>(128 * q.r * q.N >> 20));
    printf("  %-36s %8s  %8s   %5s\n", "", "cpu", "wall", "ratio");
    for (const std::string& impl : order) {
      const auto it = row.find(impl);
      if (it == row.end()) continue;
      printf("  %-36s %8.2f  %8.2f", impl.c_str(), it->second.cpu, it->second.wall);
      if (ours != row.end() && ours->second.cpu > 0) {
        printf("   %5.2f", it->second.cpu / ours->second.cpu);
      }
      printf("\n");
    }
  }
}

}  // namespace

int main(int argc, char** argv) {
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
  std::vector<std::string> order;
  for (const Impl& impl : impls) order.push_back(impl.name);
  const std::vector<const km_scrypt_backend*> backends = km_scrypt_usable_backends();
  for (const km_scrypt_backend* backend : backends) {
    order.push_back(std::string("back end ") + backend->name);
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
  char reps[] = "--benchmark_repetitions=21";
  char interleave[] = "--benchmark_enable_random_interleaving=true";
  char min_time[] = "--benchmark_min_time=0.2";
  char aggregates[] = "--benchmark_report_aggregates_only=true";
  args.insert(args.begin() + 1, {reps, interleave, min_time, aggregates});
  int args_count = static_cast<int>(args.size());
  benchmark::Initialize(&args_count, args.data());
  if (benchmark::ReportUnrecognizedArguments(args_count, args.data())) return 1;
  benchmark::SetDefaultTimeUnit(benchmark::kMillisecond);
  MedianReporter reporter;
  benchmark::RunSpecifiedBenchmarks(&reporter);
  benchmark::Shutdown();
  PrintTable(order);
  return 0;
}
