// SPDX-License-Identifier: Apache-2.0
// Where an allocation failure stops: at the edge of the library's C++ code, so that a C caller
// never receives a std::bad_alloc. Header-only, like the scopers.
#ifndef TAVIKM_COMMON_NO_THROW_H_
#define TAVIKM_COMMON_NO_THROW_H_

#include <new>
#include <utility>

namespace tavikm {

// Runs `body` and returns its result; when one of its containers cannot allocate, calls
// `log()` (one line) and returns `failure` instead. A build without exceptions (the device's)
// cannot catch: there a failed allocation ends the process in the allocator, as it does for
// every other program on the platform.
template <typename R, typename Body, typename Log>
R ReturnOnBadAlloc(R failure, Body&& body, Log&& log) {
#if defined(__cpp_exceptions) || defined(__EXCEPTIONS)
  try {
    return std::forward<Body>(body)();
  } catch (const std::bad_alloc&) {
    log();
    return failure;
  }
#else
  (void)failure;
  (void)log;
  return std::forward<Body>(body)();
#endif
}

}  // namespace tavikm

#endif  // TAVIKM_COMMON_NO_THROW_H_
