// SPDX-License-Identifier: Apache-2.0
// Core-dump hardening and secret pages.
#include "secure_memory.h"

#include <openssl/crypto.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <unistd.h>

#include <new>

namespace tavikm_tool {
namespace {

size_t PageRounded(size_t size) {
  size_t page = static_cast<size_t>(sysconf(_SC_PAGESIZE));
  return (size + page - 1) / page * page;
}

}  // namespace

void HardenProcess() {
  struct rlimit none = {0, 0};
  setrlimit(RLIMIT_CORE, &none);
  prctl(PR_SET_DUMPABLE, 0, 0, 0, 0);
}

void* AllocateSecretMemory(size_t size) {
  size_t length = PageRounded(size);
  void* memory = mmap(nullptr, length, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
  if (memory == MAP_FAILED) throw std::bad_alloc();
  madvise(memory, length, MADV_DONTDUMP);
  // Best effort: an unprivileged RLIMIT_MEMLOCK may be too small, and the pages are still kept
  // out of core dumps.
  mlock(memory, length);
  return memory;
}

void FreeSecretMemory(void* memory, size_t size) {
  if (!memory) return;
  size_t length = PageRounded(size);
  OPENSSL_cleanse(memory, length);
  munlock(memory, length);
  munmap(memory, length);
}

}  // namespace tavikm_tool
