// SPDX-License-Identifier: Apache-2.0
// A few failure paths of the library leave memory allocated by design (the object service's first
// buffer after a failed finish, the KEK get's record after a failed upgrade write). The tests that
// reach them run that one call through WithExpectedLeak: LeakSanitizer skips what it allocates,
// and tests/valgrind.supp names this frame.
#ifndef TAVIKM_TESTS_SUPPORT_EXPECTED_LEAK_H_
#define TAVIKM_TESTS_SUPPORT_EXPECTED_LEAK_H_

#if defined(__SANITIZE_ADDRESS__)
#define TAVIKM_TEST_LSAN 1
#elif defined(__has_feature)
#if __has_feature(address_sanitizer)
#define TAVIKM_TEST_LSAN 1
#endif
#endif
#ifdef TAVIKM_TEST_LSAN
#include <sanitizer/lsan_interface.h>
#endif

namespace tavikm_test {

template <typename Fn>
int WithExpectedLeak(Fn fn) {
#ifdef TAVIKM_TEST_LSAN
  __lsan::ScopedDisabler expected_leak;
#endif
  return fn();
}

}  // namespace tavikm_test

#endif  // TAVIKM_TESTS_SUPPORT_EXPECTED_LEAK_H_
