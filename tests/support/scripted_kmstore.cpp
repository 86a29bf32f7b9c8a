// SPDX-License-Identifier: Apache-2.0
// The scripted secure-storage device and the environment that makes it the library's device.
#include "support/scripted_kmstore.h"

#include <gtest/gtest.h>

#include "support/fault_injector.h"
#include "tavikm.h"
#include "tavikm_host/modules.h"

namespace tavikm_test {
namespace {

KmstoreScript g_script;
kmstore_device* g_builtin = nullptr;

int ScriptedRead(const char* name, uint8_t* buffer, uint64_t* size) {
  // The device is the platform's, not the library's: its calls are never the library's to fail.
  FaultPause pause;
  return g_script.read ? g_script.read(name, buffer, size) : g_builtin->read(name, buffer, size);
}
int ScriptedWrite(const char* name, const uint8_t* buffer, uint64_t length) {
  FaultPause pause;
  return g_script.write ? g_script.write(name, buffer, length)
                        : g_builtin->write(name, buffer, length);
}
int ScriptedRemove(const char* name) {
  FaultPause pause;
  return g_script.remove ? g_script.remove(name) : g_builtin->remove(name);
}

kmstore_device g_scripted_device = [] {
  kmstore_device d{};
  d.common.tag = HARDWARE_DEVICE_TAG;
  d.read = ScriptedRead;
  d.write = ScriptedWrite;
  d.remove = ScriptedRemove;
  return d;
}();

hw_module_methods_t g_scripted_methods = {
    [](const hw_module_t*, const char*, hw_device_t** device) {
      *device = &g_scripted_device.common;
      return 0;
    },
};

hw_module_t g_scripted_module = [] {
  hw_module_t m{};
  m.tag = HARDWARE_MODULE_TAG;
  m.id = "tavikm";
  m.name = "scripted kmstore";
  m.methods = &g_scripted_methods;
  return m;
}();

class ScriptedKmstoreEnvironment : public ::testing::Environment {
 public:
  void SetUp() override {
    tavikm_host::RestoreBuiltinModules();
    const hw_module_t* builtin = nullptr;
    ASSERT_EQ(hw_get_module_by_class("tavikm", nullptr, &builtin), 0);
    hw_device_t* device = nullptr;
    ASSERT_EQ(builtin->methods->open(builtin, "kmstore", &device), 0);
    g_builtin = reinterpret_cast<kmstore_device*>(device);
    tavikm_host::RegisterModule("tavikm", &g_scripted_module);
    kmstore_device* cached = nullptr;
    ASSERT_EQ(kmstore_device_init(&cached), 0);
    ASSERT_EQ(cached, &g_scripted_device);
    tavikm_host::RestoreBuiltinModules();
  }
};

}  // namespace

// Registered at load time: the executable links this object, so every test runs with it.
[[maybe_unused]] static const auto* const g_environment =
    ::testing::AddGlobalTestEnvironment(new ScriptedKmstoreEnvironment);

KmstoreScript& kmstore_script() { return g_script; }

int BuiltinKmstoreRead(const char* name, uint8_t* buffer, uint64_t* size) {
  return g_builtin->read(name, buffer, size);
}
int BuiltinKmstoreWrite(const char* name, const uint8_t* buffer, uint64_t length) {
  return g_builtin->write(name, buffer, length);
}
int BuiltinKmstoreRemove(const char* name) { return g_builtin->remove(name); }

}  // namespace tavikm_test
