// SPDX-License-Identifier: Apache-2.0
// The emulated Keymaster's state outside its key blobs.
#include "device_state.h"

#include <errno.h>
#include <fcntl.h>
#include <stdio.h>
#include <stdlib.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>

#include <fstream>
#include <functional>
#include <mutex>
#include <sstream>
#include <string>
#include <vector>

#include <cutils/properties.h>
#include <openssl/rand.h>
#include <openssl/sha.h>

#include "common/files.h"
#include "common/scopers.h"
#include "tavikm_host/device.h"
#include "tavikm_host/keymaster.h"

namespace tavikm_host::km {
namespace {

std::mutex g_clock_mutex;
std::function<uint64_t()> g_clock;

std::string KeymasterDir() {
  std::string dir = tavikm_host::DevicePath("keymaster");
  if (mkdir(dir.c_str(), 0700) != 0 && errno != EEXIST) return "";
  return dir;
}

bool ReadExactly(const std::string& path, uint8_t* out, size_t size) {
  tavikm::ScopedFd fd(open(path.c_str(), O_RDONLY | O_CLOEXEC));
  if (!fd.ok()) return false;
  size_t got = 0;
  bool ok = true;
  while (ok && got < size) {
    ssize_t n = read(fd.get(), out + got, size - got);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0)
      ok = false;
    else
      got += static_cast<size_t>(n);
  }
  // The secret is exactly its size: a longer file is as corrupt as a shorter one.
  uint8_t extra;
  return ok && read(fd.get(), &extra, 1) == 0;
}

// Writes a fresh secret to a temporary file and links it into place, so a reader never sees a
// partial secret and two first users agree on one.
bool CreateSecret(const std::string& dir, const std::string& path) {
  SecretBytes fresh(kDeviceSecretSize);
  if (RAND_bytes(fresh.data(), fresh.size()) != 1) return false;
  std::string temp = dir + "/.device_secret.XXXXXX";
  tavikm::ScopedFd fd(mkstemp(temp.data()));
  if (!fd.ok()) return false;
  bool ok = fchmod(fd.get(), 0600) == 0 && tavikm::WriteAll(fd.get(), fresh.data(), fresh.size()) &&
            fsync(fd.get()) == 0;
  fd.reset();
  if (ok && link(temp.c_str(), path.c_str()) != 0 && errno != EEXIST) ok = false;
  unlink(temp.c_str());
  return ok;
}

uint32_t ParseNumber(const std::string& text, size_t* pos) {
  uint32_t value = 0;
  size_t start = *pos;
  while (*pos < text.size() && text[*pos] >= '0' && text[*pos] <= '9' && *pos - start < 6) {
    value = value * 10 + static_cast<uint32_t>(text[*pos] - '0');
    ++*pos;
  }
  return *pos == start ? UINT32_MAX : value;
}

std::string RateLimitsPath(bool create) {
  try {
    if (create) {
      std::string dir = KeymasterDir();
      return dir.empty() ? "" : dir + "/rate_limits";
    }
    return tavikm_host::DeviceDir() + "/keymaster/rate_limits";
  } catch (const std::exception&) {
    return "";
  }
}

std::string ReadAll(int fd) {
  std::string text;
  char buffer[4096];
  ssize_t n;
  while ((n = read(fd, buffer, sizeof(buffer))) != 0) {
    if (n < 0 && errno == EINTR) continue;
    if (n < 0) break;
    text.append(buffer, static_cast<size_t>(n));
  }
  return text;
}

// One timer per line: "<key id> <start ms> <seconds>". Lines that do not parse (a write cut
// short) are skipped.
struct RateTimer {
  std::string key_id;
  uint64_t start_ms;
  uint32_t seconds;

  bool Running(uint64_t now_ms) const {
    return start_ms <= now_ms && now_ms - start_ms < uint64_t{seconds} * 1000;
  }
};

std::vector<RateTimer> ParseTimers(const std::string& text) {
  std::vector<RateTimer> timers;
  std::istringstream lines(text);
  std::string line;
  while (std::getline(lines, line)) {
    std::istringstream fields(line);
    RateTimer timer;
    if (fields >> timer.key_id >> timer.start_ms >> timer.seconds) timers.push_back(timer);
  }
  return timers;
}

std::string Property(const char* key, const char* def) {
  char value[PROPERTY_VALUE_MAX];
  property_get(key, value, def);
  return value;
}

}  // namespace

bool LoadDeviceSecret(SecretBytes* secret) {
  std::string dir;
  try {
    dir = KeymasterDir();
  } catch (const std::exception&) {
    return false;
  }
  if (dir.empty()) return false;
  std::string path = dir + "/device_secret";
  SecretBytes bytes(kDeviceSecretSize);
  if (!ReadExactly(path, bytes.data(), bytes.size())) {
    if (access(path.c_str(), F_OK) == 0) return false;  // present but corrupt: never replace it
    if (!CreateSecret(dir, path) || !ReadExactly(path, bytes.data(), bytes.size())) return false;
  }
  *secret = std::move(bytes);
  return true;
}

uint32_t CurrentOsVersion() {
  std::string release = Property("ro.build.version.release", "14");
  // Up to three numbers joined by dots. Whatever follows them ("-rc1", a fourth number) is not
  // part of the version, and a release that does not start with a number is version 0.
  uint32_t parts[3] = {0, 0, 0};
  size_t pos = 0;
  for (int i = 0; i < 3; ++i) {
    uint32_t n = ParseNumber(release, &pos);
    if (n == UINT32_MAX) {
      if (i == 0) return 0;
      break;
    }
    if (n > 99) return 0;  // does not fit MMmmss
    parts[i] = n;
    if (pos == release.size() || release[pos] != '.') break;
    ++pos;
  }
  return parts[0] * 10000 + parts[1] * 100 + parts[2];
}

uint32_t CurrentOsPatchlevel() {
  std::string patch = Property("ro.build.version.security_patch", "2026-11-05");
  // YYYY-MM-DD
  if (patch.size() != 10 || patch[4] != '-' || patch[7] != '-') return 0;
  size_t pos = 0;
  uint32_t year = ParseNumber(patch, &pos);
  if (pos != 4) return 0;
  pos = 5;
  uint32_t month = ParseNumber(patch, &pos);
  if (pos != 7 || month < 1 || month > 12) return 0;
  pos = 8;
  uint32_t day = ParseNumber(patch, &pos);
  if (pos != 10 || day < 1 || day > 31) return 0;
  return year * 100 + month;
}

uint64_t NowMs() {
  std::function<uint64_t()> clock;
  {
    std::lock_guard<std::mutex> lock(g_clock_mutex);
    clock = g_clock;
  }
  if (clock) return clock();
  // Since boot, suspend included, and the same in every process: a TEE's timers last until
  // the next boot.
  struct timespec ts;
  clock_gettime(CLOCK_BOOTTIME, &ts);
  return static_cast<uint64_t>(ts.tv_sec) * 1000 + static_cast<uint64_t>(ts.tv_nsec) / 1000000;
}

std::string KeyId(const SecretBytes& material) {
  uint8_t digest[SHA256_DIGEST_LENGTH];
  SHA256(material.data(), material.size(), digest);
  static const char kHex[] = "0123456789abcdef";
  std::string id;
  for (int i = 0; i < 16; ++i) {
    id += kHex[digest[i] >> 4];
    id += kHex[digest[i] & 15];
  }
  return id;
}

bool IsKeyDeleted(const std::string& key_id) {
  std::string dir;
  try {
    dir = tavikm_host::DeviceDir();
  } catch (const std::exception&) {
    return false;
  }
  std::ifstream in(dir + "/keymaster/deleted_keys");
  std::string line;
  while (std::getline(in, line)) {
    if (line == key_id) return true;
  }
  return false;
}

bool MarkKeyDeleted(const std::string& key_id) {
  if (IsKeyDeleted(key_id)) return true;
  std::string dir;
  try {
    dir = KeymasterDir();
  } catch (const std::exception&) {
    return false;
  }
  if (dir.empty()) return false;
  std::ofstream out(dir + "/deleted_keys", std::ios::app);
  out << key_id << "\n";
  out.flush();
  return static_cast<bool>(out);
}

bool RateLimitRunning(const std::string& key_id, uint64_t now_ms) {
  std::string path = RateLimitsPath(false);
  if (path.empty()) return false;
  std::vector<RateTimer> timers;
  {
    tavikm::ScopedFd fd(open(path.c_str(), O_RDONLY | O_CLOEXEC));
    if (!fd.ok()) return false;
    flock(fd.get(), LOCK_SH);
    timers = ParseTimers(ReadAll(fd.get()));
  }
  for (const RateTimer& timer : timers) {
    if (timer.key_id == key_id && timer.Running(now_ms)) return true;
  }
  return false;
}

bool StartRateLimit(const std::string& key_id, uint32_t seconds, uint64_t now_ms) {
  std::string path = RateLimitsPath(true);
  if (path.empty()) return false;
  tavikm::ScopedFd fd(open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600));
  if (!fd.ok()) return false;
  // Held until close: the timers of other processes are read, kept and written back whole.
  flock(fd.get(), LOCK_EX);
  std::string kept;
  for (const RateTimer& timer : ParseTimers(ReadAll(fd.get()))) {
    // Timers that ran out are dropped, so the file stays as small as the keys in use.
    if (timer.key_id == key_id || !timer.Running(now_ms)) continue;
    kept += timer.key_id + " " + std::to_string(timer.start_ms) + " " +
            std::to_string(timer.seconds) + "\n";
  }
  kept += key_id + " " + std::to_string(now_ms) + " " + std::to_string(seconds) + "\n";
  return lseek(fd.get(), 0, SEEK_SET) == 0 && ftruncate(fd.get(), 0) == 0 &&
         tavikm::WriteAll(fd.get(), reinterpret_cast<const uint8_t*>(kept.data()), kept.size());
}

void ForgetRateLimits() {
  std::string path = RateLimitsPath(false);
  if (!path.empty()) unlink(path.c_str());
}

}  // namespace tavikm_host::km

namespace tavikm_host {

void SetKeymasterClock(std::function<uint64_t()> now_ms) {
  std::lock_guard<std::mutex> lock(km::g_clock_mutex);
  km::g_clock = std::move(now_ms);
}

uint32_t KeymasterOsVersion() { return km::CurrentOsVersion(); }
uint32_t KeymasterOsPatchlevel() { return km::CurrentOsPatchlevel(); }

}  // namespace tavikm_host
