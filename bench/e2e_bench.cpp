// SPDX-License-Identifier: Apache-2.0
// End-to-end cost of a setup and of an unlock per kdf_type, through the shipped library on the
// host platform (software Keymaster, secure storage in a throwaway device directory), with the
// default scrypt factors (N=2^15, r=2^3, p=2^1).
//
// An unlock is what the storage-encryption service does: km_get_km_meta, then km_decrypt_key.
// The RSA key of kdf_type 5 signs at most once a second (MIN_SECONDS_BETWEEN_OPS), so unlocks
// rotate over enough records that no key is used twice within a second; the figures are the
// work, not the device's rate limit.
#include <android/log.h>
#include <benchmark/benchmark.h>
#include <cutils/properties.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include <filesystem>
#include <string>
#include <vector>

#include "tavikm.h"
#include "tavikm_host/device.h"

namespace {

constexpr char kPassword[] = "correct horse battery staple";
constexpr uint64_t kKeysize = 32;
// Records per kdf_type that unlocks rotate over: at ~0.1 s or more per unlock of a
// Keymaster-bound record, a key comes round again after more than a second.
constexpr int kUnlockRecords = 12;

// The device directory of the run, made once and removed at exit.
class Device {
 public:
  Device() {
    dir_ = std::filesystem::temp_directory_path().string() + "/tavikm-bench-XXXXXX";
    if (!mkdtemp(dir_.data())) abort();
    setenv("TAVIKM_DEVICE_DIR", dir_.c_str(), 1);
    tavikm_host::ResetProperties();
    property_set("ro.product.tavi.support_mdfpp", "true");
  }
  ~Device() {
    std::error_code ec;
    std::filesystem::remove_all(dir_, ec);
  }

 private:
  std::string dir_;
};

Device& TheDevice() {
  static Device device;
  return device;
}

bool SetupRecord(const std::string& name, uint32_t kdf_type) {
  km_meta meta;
  uint8_t master_key[kKeysize];
  int rc = km_initial_setup(name.c_str(), kPassword, strlen(kPassword), master_key, kKeysize,
                            kdf_type, &meta);
  return rc == 0;
}

void BM_Setup(benchmark::State& state) {
  TheDevice();
  uint32_t kdf_type = static_cast<uint32_t>(state.range(0));
  int n = 0;
  for (auto _ : state) {
    if (!SetupRecord("setup-" + std::to_string(kdf_type) + "-" + std::to_string(n++), kdf_type)) {
      state.SkipWithError("km_initial_setup failed");
      break;
    }
  }
}

void BM_Unlock(benchmark::State& state) {
  TheDevice();
  uint32_t kdf_type = static_cast<uint32_t>(state.range(0));
  std::vector<std::string> names;
  for (int i = 0; i < kUnlockRecords; ++i) {
    names.push_back("unlock-" + std::to_string(kdf_type) + "-" + std::to_string(i));
    if (!SetupRecord(names.back(), kdf_type)) {
      state.SkipWithError("km_initial_setup failed");
      return;
    }
  }
  sleep(1);  // let the signatures of the setups age past the rate limit
  size_t next = 0;
  for (auto _ : state) {
    km_meta meta;
    uint8_t master_key[kKeysize];
    const std::string& name = names[next++ % names.size()];
    if (km_get_km_meta(name.c_str(), 0, &meta) != 0 ||
        km_decrypt_key(kPassword, strlen(kPassword), meta.salt, meta.master_key, master_key,
                       &meta) != 0) {
      state.SkipWithError("unlock failed");
      break;
    }
    benchmark::DoNotOptimize(master_key);
  }
}

void KdfTypes(benchmark::internal::Benchmark* b) {
  b->ArgName("kdf_type");
  for (int kdf_type : {KM_KDF_PBKDF2, KM_KDF_SCRYPT, KM_KDF_PBKDF2_REK, KM_KDF_SCRYPT_KEYMASTER}) {
    b->Arg(kdf_type);
  }
  b->Unit(benchmark::kMillisecond)->MinTime(1.0);
}

BENCHMARK(BM_Setup)->Apply(KdfTypes);
BENCHMARK(BM_Unlock)->Apply(KdfTypes);

}  // namespace

// The library logs every call; its lines would drown the figures.
int main(int argc, char** argv) {
  __android_log_set_logger([](const __android_logger_data*, const char*) {});
  benchmark::Initialize(&argc, argv);
  if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
  benchmark::RunSpecifiedBenchmarks();
  benchmark::Shutdown();
  return 0;
}
