// SPDX-License-Identifier: Apache-2.0
// Virtual Keymaster time and the sleep() that advances it.
#include "support/virtual_time.h"

#include <time.h>

#include <atomic>
#include <mutex>

#include "support/fault_injector.h"
#include "tavikm_host/keymaster.h"

namespace tavikm_test {
namespace {

std::mutex g_mutex;
bool g_active = false;
uint64_t g_now_ms = 1'000'000;
std::vector<unsigned> g_sleeps;

}  // namespace

VirtualKeymasterTime::VirtualKeymasterTime() {
  {
    std::lock_guard<std::mutex> lock(g_mutex);
    g_active = true;
    g_sleeps.clear();
  }
  tavikm_host::SetKeymasterClock([] {
    std::lock_guard<std::mutex> lock(g_mutex);
    return g_now_ms;
  });
}

VirtualKeymasterTime::~VirtualKeymasterTime() {
  tavikm_host::SetKeymasterClock({});
  std::lock_guard<std::mutex> lock(g_mutex);
  g_active = false;
}

void VirtualKeymasterTime::Advance(unsigned seconds) {
  std::lock_guard<std::mutex> lock(g_mutex);
  g_now_ms += uint64_t{seconds} * 1000;
}

std::vector<unsigned> VirtualKeymasterTime::Sleeps() const {
  std::lock_guard<std::mutex> lock(g_mutex);
  return g_sleeps;
}

}  // namespace tavikm_test

// Replaces the C library's sleep() in the test executable.
extern "C" unsigned int sleep(unsigned int seconds) {
  using namespace tavikm_test;
  // The test's clock, not the library's memory.
  FaultPause pause;
  {
    std::lock_guard<std::mutex> lock(g_mutex);
    if (g_active) {
      g_sleeps.push_back(seconds);
      g_now_ms += uint64_t{seconds} * 1000;
      return 0;
    }
  }
  struct timespec ts = {static_cast<time_t>(seconds), 0};
  while (nanosleep(&ts, &ts) != 0) {
  }
  return 0;
}
