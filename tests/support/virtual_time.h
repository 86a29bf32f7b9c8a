// SPDX-License-Identifier: Apache-2.0
// Keymaster time without waiting: while a VirtualKeymasterTime is alive the emulated
// Keymaster's clock is virtual, and sleep() (which the library calls between rate-limited
// attempts) advances it instead of sleeping. Linking this file into a test executable replaces
// sleep() for the whole executable.
#ifndef TAVIKM_TESTS_SUPPORT_VIRTUAL_TIME_H_
#define TAVIKM_TESTS_SUPPORT_VIRTUAL_TIME_H_

#include <vector>

namespace tavikm_test {

class VirtualKeymasterTime {
 public:
  VirtualKeymasterTime();
  ~VirtualKeymasterTime();
  VirtualKeymasterTime(const VirtualKeymasterTime&) = delete;
  VirtualKeymasterTime& operator=(const VirtualKeymasterTime&) = delete;

  // Moves the clock on, as a pause between two calls of the caller would.
  void Advance(unsigned seconds);
  // The arguments of every sleep() since construction.
  std::vector<unsigned> Sleeps() const;
};

}  // namespace tavikm_test

#endif  // TAVIKM_TESTS_SUPPORT_VIRTUAL_TIME_H_
