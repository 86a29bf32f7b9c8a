// SPDX-License-Identifier: Apache-2.0
// A secure-storage device whose answers a test can script. The library keeps the first device it
// opens for the whole process, so linking this file opens the scripted device before any test
// runs (a global test environment); unscripted calls go to the built-in file-backed device.
#ifndef TAVIKM_TESTS_SUPPORT_SCRIPTED_KMSTORE_H_
#define TAVIKM_TESTS_SUPPORT_SCRIPTED_KMSTORE_H_

#include <stdint.h>

#include <functional>

namespace tavikm_test {

struct KmstoreScript {
  std::function<int(const char* name, uint8_t* buffer, uint64_t* size)> read;
  std::function<int(const char* name, const uint8_t* buffer, uint64_t length)> write;
  std::function<int(const char* name)> remove;
};

// The script in force; tests assign members and clear it afterwards (ScopedKmstoreScript).
KmstoreScript& kmstore_script();

class ScopedKmstoreScript {
 public:
  ScopedKmstoreScript() { kmstore_script() = {}; }
  ~ScopedKmstoreScript() { kmstore_script() = {}; }
  KmstoreScript* operator->() { return &kmstore_script(); }
};

// The built-in device, for a script that wants to pass a call on.
int BuiltinKmstoreRead(const char* name, uint8_t* buffer, uint64_t* size);
int BuiltinKmstoreWrite(const char* name, const uint8_t* buffer, uint64_t length);
int BuiltinKmstoreRemove(const char* name);

}  // namespace tavikm_test

#endif  // TAVIKM_TESTS_SUPPORT_SCRIPTED_KMSTORE_H_
