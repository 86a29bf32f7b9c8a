// SPDX-License-Identifier: Apache-2.0
// The wrapped allocator calls behind AllocationWatch. Nothing in a hook may allocate: the state
// lives in fixed arrays.
#include "support/alloc_watch.h"

#include <stdlib.h>
#include <string.h>

#include <new>

#include <openssl/rand.h>

#if __has_include(<valgrind/memcheck.h>)
#include <valgrind/memcheck.h>
#else
#define VALGRIND_MAKE_MEM_DEFINED_IF_ADDRESSABLE(address, size) ((void)(address), (void)(size))
#endif

#ifdef OPENSSL_IS_BORINGSSL
using RandLength = size_t;
#else
using RandLength = int;
#endif

extern "C" {
void* __real_malloc(size_t size);
void* __real_calloc(size_t count, size_t size);
void __real_free(void* p);
void* __real__Znwm(size_t size);
void __real__ZdlPv(void* p);
void __real__ZdlPvm(void* p, size_t size);
int __real_RAND_bytes(uint8_t* out, RandLength length);
}

namespace {

constexpr size_t kMaxBlocks = 1 << 14;
constexpr size_t kMaxNeedles = 4;
constexpr size_t kMaxNeedle = 64;

struct Watch {
  bool armed = false;
  bool overflowed = false;
  size_t block_count = 0;
  tavikm_test::HeapBlock blocks[kMaxBlocks];
  bool from_malloc[kMaxBlocks] = {};
  size_t needle_count = 0;
  size_t needle_sizes[kMaxNeedles] = {};
  uint8_t needles[kMaxNeedles][kMaxNeedle] = {};
  int freed_holding_secrets = 0;
};
Watch g_watch;
bool g_fail_random = false;

void Allocated(void* p, size_t size, bool from_malloc) {
  if (!g_watch.armed || !p) return;
  if (g_watch.block_count == kMaxBlocks) {
    g_watch.overflowed = true;
    return;
  }
  g_watch.from_malloc[g_watch.block_count] = from_malloc;
  g_watch.blocks[g_watch.block_count++] = {p, size};
}

bool Holds(const void* block, size_t size) {
  // A block being freed may hold bytes never written (a container's spare room): under memcheck
  // they are searched as they are, not reported.
  VALGRIND_MAKE_MEM_DEFINED_IF_ADDRESSABLE(block, size);
  for (size_t i = 0; i < g_watch.needle_count; ++i) {
    if (memmem(block, size, g_watch.needles[i], g_watch.needle_sizes[i])) return true;
  }
  return false;
}

// Before the block goes: searched if the watch saw it allocated, or when the caller says how
// long it is (a sized delete of a block the standard library allocated out of sight).
void Freeing(void* p, size_t size_if_known = 0) {
  if (!g_watch.armed || !p) return;
  for (size_t i = 0; i < g_watch.block_count; ++i) {
    if (g_watch.blocks[i].address != p) continue;
    if (Holds(p, g_watch.blocks[i].size)) ++g_watch.freed_holding_secrets;
    --g_watch.block_count;
    g_watch.blocks[i] = g_watch.blocks[g_watch.block_count];
    g_watch.from_malloc[i] = g_watch.from_malloc[g_watch.block_count];
    return;
  }
  if (size_if_known && Holds(p, size_if_known)) ++g_watch.freed_holding_secrets;
}

}  // namespace

extern "C" {
void* __wrap_malloc(size_t size) {
  void* p = __real_malloc(size);
  Allocated(p, size, true);
  return p;
}
void* __wrap_calloc(size_t count, size_t size) {
  void* p = __real_calloc(count, size);
  Allocated(p, count * size, true);
  return p;
}
void __wrap_free(void* p) {
  Freeing(p);
  __real_free(p);
}
void* __wrap__Znwm(size_t size) {
  void* p = __real__Znwm(size);
  Allocated(p, size, false);
  return p;
}
void __wrap__ZdlPv(void* p) {
  Freeing(p);
  __real__ZdlPv(p);
}
void __wrap__ZdlPvm(void* p, size_t size) {
  Freeing(p, size);
  __real__ZdlPvm(p, size);
}
int __wrap_RAND_bytes(uint8_t* out, RandLength length) {
  if (g_fail_random) return 0;
  return __real_RAND_bytes(out, length);
}
}

namespace tavikm_test {

AllocationWatch::AllocationWatch(const std::vector<std::vector<uint8_t>>& needles) {
  g_watch.armed = false;
  g_watch.block_count = 0;
  g_watch.overflowed = false;
  g_watch.freed_holding_secrets = 0;
  g_watch.needle_count = 0;
  for (const std::vector<uint8_t>& needle : needles) {
    if (g_watch.needle_count == kMaxNeedles || needle.size() < 8 || needle.size() > kMaxNeedle) {
      abort();  // a test's own mistake
    }
    memcpy(g_watch.needles[g_watch.needle_count], needle.data(), needle.size());
    g_watch.needle_sizes[g_watch.needle_count++] = needle.size();
  }
  g_watch.armed = true;
}

AllocationWatch::~AllocationWatch() { Stop(); }

void AllocationWatch::Stop() { g_watch.armed = false; }

int AllocationWatch::FreedHoldingSecrets() const {
  return g_watch.overflowed ? -1 : g_watch.freed_holding_secrets;
}

std::vector<HeapBlock> AllocationWatch::Outstanding() const {
  const bool was_armed = g_watch.armed;
  g_watch.armed = false;
  std::vector<HeapBlock> blocks;
  for (size_t i = 0; i < g_watch.block_count; ++i) {
    if (g_watch.from_malloc[i]) blocks.push_back(g_watch.blocks[i]);
  }
  g_watch.armed = was_armed;
  return blocks;
}

bool BlockHolds(const HeapBlock& block, const std::vector<uint8_t>& needle) {
  VALGRIND_MAKE_MEM_DEFINED_IF_ADDRESSABLE(block.address, block.size);
  return memmem(block.address, block.size, needle.data(), needle.size()) != nullptr;
}

bool BlockIsZero(const HeapBlock& block) {
  VALGRIND_MAKE_MEM_DEFINED_IF_ADDRESSABLE(block.address, block.size);
  const auto* p = static_cast<const uint8_t*>(block.address);
  for (size_t i = 0; i < block.size; ++i) {
    if (p[i]) return false;
  }
  return true;
}

FailingRandom::FailingRandom() { g_fail_random = true; }
FailingRandom::~FailingRandom() { g_fail_random = false; }

}  // namespace tavikm_test
