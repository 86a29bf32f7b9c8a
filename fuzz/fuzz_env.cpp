// SPDX-License-Identifier: Apache-2.0
// The fuzz targets' emulated device and input helpers.
#include "fuzz_env.h"

#include <android/log.h>
#include <cutils/properties.h>
#include <errno.h>
#include <fcntl.h>
#include <stddef.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <string>

#include "tavikm.h"
#include "tavikm_host/device.h"
#include "tavikm_host/keymaster.h"
#include "tavikm_host/modules.h"

namespace tavikm_fuzz {
namespace {

std::string g_device_dir;

// The Keymaster's device secret in every fuzz run and in the seed generator: a fixed value, so
// the blobs inside seeds are genuine keys of the fuzzed device rather than foreign bytes.
constexpr uint8_t kDeviceSecret[32] = {
    0x74, 0x61, 0x76, 0x69, 0x6b, 0x6d, 0x2d, 0x66, 0x75, 0x7a, 0x7a, 0x2d, 0x64, 0x65, 0x76, 0x69,
    0x63, 0x65, 0x2d, 0x73, 0x65, 0x63, 0x72, 0x65, 0x74, 0x2d, 0x30, 0x30, 0x30, 0x30, 0x30, 0x31};

// The library logs on nearly every path; formatting still happens (so a bad argument is still
// caught), only the output is dropped.
void DropLogLine(const __android_logger_data*, const char*) {}

void RemoveDeviceDir() {
  std::error_code ec;
  if (!g_device_dir.empty()) std::filesystem::remove_all(g_device_dir, ec);
}

void Die(const char* what) {
  perror(what);
  abort();
}

void WriteSecret(const std::string& dir) {
  std::string km_dir = dir + "/keymaster";
  if (mkdir(km_dir.c_str(), 0700) != 0 && errno != EEXIST) Die("mkdir keymaster");
  std::string path = km_dir + "/device_secret";
  int fd = open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
  if (fd < 0) Die("open device_secret");
  if (write(fd, kDeviceSecret, sizeof(kDeviceSecret)) != sizeof(kDeviceSecret)) {
    Die("write device_secret");
  }
  close(fd);
}

uint64_t g_clock_ms = 0;

}  // namespace

void InitFuzzDevice() {
  // Memory-backed when available: secure-storage writes fsync on every input.
  std::string base = access("/dev/shm", W_OK) == 0 ? "/dev/shm" : "";
  if (base.empty()) {
    const char* tmp = getenv("TMPDIR");
    base = tmp && *tmp ? tmp : "/tmp";
  }
  std::string dir = base + "/tavikm-fuzz-XXXXXX";
  if (!mkdtemp(dir.data())) Die("mkdtemp");
  g_device_dir = dir;
  atexit(RemoveDeviceDir);
  setenv("TAVIKM_DEVICE_DIR", dir.c_str(), 1);
  WriteSecret(dir);

  // TAVIKM_FUZZ_LOG=1 keeps the library's log on stderr, for replaying one input.
  const char* log = getenv("TAVIKM_FUZZ_LOG");
  if (!log || strcmp(log, "1") != 0) __android_log_set_logger(DropLogLine);
  ResetFuzzDevice();
}

const std::string& FuzzDeviceDir() { return g_device_dir; }

void ResetFuzzDevice() {
  std::error_code ec;
  std::filesystem::remove_all(g_device_dir + "/kmstore", ec);
  std::filesystem::remove(g_device_dir + "/keymaster/deleted_keys", ec);
  tavikm_host::ResetProperties();
  tavikm_host::RestoreBuiltinModules();
  tavikm_host::ResetKeymaster();
  tavikm_host::SetKeymasterClock([] { return g_clock_ms += 3600 * 1000; });
}

void SetFlag(const char* property, bool on) { property_set(property, on ? "true" : "false"); }

void PutEntry(const std::string& name, const uint8_t* data, size_t size) {
  kmstore_device* device = nullptr;
  if (kmstore_device_init(&device) != 0 || !device) Die("kmstore_device_init");
  if (device->write(name.c_str(), data, size) < 0) Die("kmstore write");
}

std::string KeyNameOf(const uint8_t* image, size_t size) {
  const size_t at = offsetof(km_meta, key_name);
  if (size <= at) return "";
  const uint8_t* begin = image + at;
  const uint8_t* nul = static_cast<const uint8_t*>(memchr(begin, 0, size - at));
  return std::string(reinterpret_cast<const char*>(begin),
                     nul ? static_cast<size_t>(nul - begin) : size - at);
}

std::vector<uint8_t> Reader::Bytes(size_t n) {
  const uint8_t* p = nullptr;
  size_t taken = in_.TakeUpTo(n, &p);
  return std::vector<uint8_t>(p, p + taken);
}

}  // namespace tavikm_fuzz
