// SPDX-License-Identifier: Apache-2.0
// The status line, and the tool's own sleep(): the library waits out the Keymaster's rate limit
// with sleep(), so defining it here lets the status say why nothing seems to happen.
#include "progress.h"

#include <cutils/properties.h>
#include <errno.h>
#include <stdio.h>
#include <string.h>
#include <sys/ioctl.h>
#include <time.h>
#include <unistd.h>

#include <chrono>
#include <condition_variable>
#include <memory>
#include <mutex>
#include <thread>
#include <vector>

#include "operations.h"
#include "text.h"

namespace tavikm_tool {
namespace {

using Clock = std::chrono::steady_clock;

constexpr auto kQuietFor = std::chrono::milliseconds(500);
constexpr auto kRefresh = std::chrono::milliseconds(100);
constexpr char kRateLimitNote[] = "waiting for the Keymaster (one signature a second)";
constexpr char kShortRateLimitNote[] = "waiting for the Keymaster";

bool g_enabled = false;

struct Status {
  std::mutex mutex;
  std::condition_variable changed;
  bool active = false;
  bool stop = false;
  bool waiting = false;  // inside the library's sleep
  std::string what;
  Clock::time_point start;
  std::thread thread;
};
Status g_status;

// The terminal's width in columns; 80 when it does not say.
size_t TerminalColumns() {
  struct winsize size = {};
  if (ioctl(STDERR_FILENO, TIOCGWINSZ, &size) == 0 && size.ws_col > 0) return size.ws_col;
  return 80;
}

// The status for a terminal `columns` wide, in its last column but one at most: a character in
// the last column makes some terminals wrap. The most detailed text that fits is shown; while
// the Keymaster makes us wait, saying so matters more than what is being derived.
std::string StatusLine(const std::string& what, bool waiting, Clock::duration elapsed,
                       size_t columns) {
  char time[32];
  snprintf(time, sizeof(time), " ... %.1f s", std::chrono::duration<double>(elapsed).count());
  const size_t room = columns - 1, time_width = strlen(time);
  std::vector<std::string> choices;
  if (waiting) {
    if (!what.empty()) {
      choices.push_back(what + ": " + kRateLimitNote);
      choices.push_back(what + ": " + kShortRateLimitNote);
    }
    choices.push_back(kRateLimitNote);
    choices.push_back(kShortRateLimitNote);
  } else {
    choices.push_back(what);
  }
  for (const std::string& text : choices) {
    if (DisplayWidth(text) + time_width <= room) return text + time;
  }
  if (room >= time_width + 4) return FitToWidth(choices.back(), room - time_width) + time;
  return FitToWidth(choices.back(), room);
}

void Draw(const std::string& what, bool waiting, Clock::duration elapsed) {
  std::string line = StatusLine(what, waiting, elapsed, TerminalColumns());
  fprintf(stderr, "\r%s\033[K", line.c_str());
  fflush(stderr);
}

void Run() {
  std::unique_lock<std::mutex> lock(g_status.mutex);
  bool drawn = false;
  while (!g_status.stop) {
    Clock::duration elapsed = Clock::now() - g_status.start;
    if (elapsed >= kQuietFor || g_status.waiting) {
      Draw(g_status.what, g_status.waiting, elapsed);
      drawn = true;
      g_status.changed.wait_for(lock, kRefresh);
    } else {
      g_status.changed.wait_for(lock, kQuietFor - elapsed);
    }
  }
  if (drawn) {
    fputs("\r\033[K", stderr);
    fflush(stderr);
  }
}

}  // namespace

void EnableProgress(bool enabled) { g_enabled = enabled && isatty(STDERR_FILENO); }

Progress::Progress(const std::string& what) {
  std::lock_guard<std::mutex> lock(g_status.mutex);
  owner_ = g_enabled && !g_status.active;
  if (!owner_) return;
  g_status.active = true;
  g_status.stop = false;
  g_status.waiting = false;
  g_status.what = what;
  g_status.start = Clock::now();
  g_status.thread = std::thread(Run);
}

Progress::~Progress() {
  if (!owner_) return;
  {
    std::lock_guard<std::mutex> lock(g_status.mutex);
    g_status.stop = true;
  }
  g_status.changed.notify_all();
  g_status.thread.join();
  std::lock_guard<std::mutex> lock(g_status.mutex);
  g_status.active = false;
}

void Progress::Update(const std::string& what) {
  if (!owner_) return;
  std::lock_guard<std::mutex> lock(g_status.mutex);
  g_status.what = what;
}

std::string Deriving(unsigned kdf_type, unsigned n_factor, unsigned r_factor, unsigned p_factor) {
  std::string text = "deriving the key: ";
  if (kdf_type == KM_KDF_SCRYPT || kdf_type == KM_KDF_SCRYPT_KEYMASTER ||
      kdf_type == KM_KDF_SCRYPT_KEYMASTER_OLD) {
    text += "scrypt N=2^" + std::to_string(n_factor) +
            " r=" + std::to_string(uint64_t{1} << (r_factor % 32)) +
            " p=" + std::to_string(uint64_t{1} << (p_factor % 32));
    if (kdf_type != KM_KDF_SCRYPT) text += " bound to the Keymaster";
    return text;
  }
  return text + KdfName(kdf_type);
}

std::string SetupDeriving(uint32_t kdf_type) {
  bool mdfpp = mdfpp_property_get(supportMdfpp);
  if (kdf_type == KM_KDF_DEFAULT) kdf_type = mdfpp ? KM_KDF_PBKDF2_REK : KM_KDF_SCRYPT;
  // The library's reading of "N:r:p": three decimal factors up to 255, else 15:3:1.
  unsigned factors[3] = {15, 3, 1};
  char value[PROPERTY_VALUE_MAX] = {};
  property_get("ro.crypto.scrypt_params", value, "");
  unsigned parsed[3] = {};
  int count = 0;
  bool ok = value[0] != 0;
  for (const char* c = value; ok && *c; ++c) {
    if (*c == ':') {
      ok = ++count < 3 && c[1] != ':' && c[1] != 0 && c != value;
    } else {
      ok = *c >= '0' && *c <= '9' && (parsed[count] = parsed[count] * 10 + (*c - '0')) <= 255;
    }
  }
  if (ok && count == 2) {
    for (int i = 0; i < 3; ++i) factors[i] = parsed[i];
  }
  return Deriving(kdf_type, factors[0], factors[1], factors[2]);
}

std::string Deriving(const km_meta& meta) {
  return Deriving(meta.kdf_type, meta.N_factor, meta.r_factor, meta.p_factor);
}

}  // namespace tavikm_tool

// Replaces the C library's sleep() for this program and the libraries it loads.
extern "C" unsigned int sleep(unsigned int seconds) {
  using tavikm_tool::g_status;
  std::unique_ptr<tavikm_tool::Progress> own;
  bool shown = false;
  {
    std::unique_lock<std::mutex> lock(g_status.mutex);
    if (!g_status.active && tavikm_tool::g_enabled) {
      lock.unlock();
      own = std::make_unique<tavikm_tool::Progress>("");
      lock.lock();
    }
    if (g_status.active) {
      g_status.waiting = true;
      shown = true;
    }
  }
  if (shown) g_status.changed.notify_all();
  struct timespec left = {static_cast<time_t>(seconds), 0};
  while (nanosleep(&left, &left) != 0 && errno == EINTR) {
  }
  if (shown) {
    std::lock_guard<std::mutex> lock(g_status.mutex);
    g_status.waiting = false;
  }
  return 0;
}
