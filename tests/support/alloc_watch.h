// SPDX-License-Identifier: Apache-2.0
// A look at the heap blocks of the code linked into a test executable (the library's archive and
// the test itself, not shared libraries), through the linker's --wrap of malloc, calloc, free and
// the plain operator new and delete: while a watch is alive, every block freed that was
// allocated during the watch is searched for the watched bytes, and the blocks still allocated
// at the end can be examined. Executables that link alloc_watch.cpp need the wrap options (see
// tests/CMakeLists.txt). The random generator can be made to fail as well.
#ifndef TAVIKM_TESTS_SUPPORT_ALLOC_WATCH_H_
#define TAVIKM_TESTS_SUPPORT_ALLOC_WATCH_H_

#include <stddef.h>
#include <stdint.h>

#include <vector>

namespace tavikm_test {

struct HeapBlock {
  void* address;
  size_t size;
};

class AllocationWatch {
 public:
  // Watches for any of `needles` (each at most 64 bytes, at least 8) in blocks being freed. Blocks
  // freed by a sized delete are searched whenever the watch is alive, so the needles themselves
  // must outlive it.
  explicit AllocationWatch(const std::vector<std::vector<uint8_t>>& needles);
  ~AllocationWatch();
  AllocationWatch(const AllocationWatch&) = delete;
  AllocationWatch& operator=(const AllocationWatch&) = delete;

  // Ends the watch early; what it saw stays readable.
  void Stop();
  // How many blocks freed during the watch held a needle.
  int FreedHoldingSecrets() const;
  // The blocks malloc()ed or calloc()ed during the watch and not freed by its end (the test
  // frees those it takes). Blocks of operator new are left out: the standard library may free
  // them where no hook sees it.
  std::vector<HeapBlock> Outstanding() const;
};

// Whether a block holds `needle`, or only zero bytes; never-written bytes count as they are.
bool BlockHolds(const HeapBlock& block, const std::vector<uint8_t>& needle);
bool BlockIsZero(const HeapBlock& block);

// While alive, RAND_bytes reports failure without filling anything.
class FailingRandom {
 public:
  FailingRandom();
  ~FailingRandom();
  FailingRandom(const FailingRandom&) = delete;
  FailingRandom& operator=(const FailingRandom&) = delete;
};

}  // namespace tavikm_test

#endif  // TAVIKM_TESTS_SUPPORT_ALLOC_WATCH_H_
