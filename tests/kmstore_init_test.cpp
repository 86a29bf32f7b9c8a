// SPDX-License-Identifier: Apache-2.0
// Opening the secure-storage device: once per process, a failure not remembered. The library
// keeps the device for the life of the process, so every case runs in a fresh child process
// (a fork of this one, which never opens the device itself).
#include <errno.h>
#include <stdlib.h>

#include <functional>
#include <string>
#include <vector>

#include <cutils/properties.h>
#include <gtest/gtest.h>

#include "support/device_env.h"
#include "tavikm.h"
#include "tavikm_host/modules.h"

namespace tavikm_test {
namespace {

// Runs `body` in a forked child with a fresh library state; the test passes when the body
// records no failure there.
void InFreshProcess(const std::function<void()>& body) {
  EXPECT_EXIT(
      {
        body();
        exit(::testing::Test::HasFailure() ? 1 : 0);
      },
      ::testing::ExitedWithCode(0), "");
}

using KmstoreInitTest = DeviceTest;

// A failure is reported with its error and not remembered; the device, once open, is kept.
TEST_F(KmstoreInitTest, AFailureIsReportedAndRetriedAndTheDeviceOpenedOnce) {
  const struct {
    std::function<void()> fail;
    int rc;
    const char* log;
  } cases[] = {
      {[] { tavikm_host::FailModuleLookup("tavikm", -ENOENT); }, -ENOENT,
       "could not find any kmstore module"},
      {[] { tavikm_host::FailModuleOpen("tavikm", -EACCES); }, -EACCES,
       "could not open keymaster device in tavikm (Permission denied)"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.log);
    InFreshProcess([this, &c] {
      c.fail();
      kmstore_device* device = reinterpret_cast<kmstore_device*>(0x1);
      EXPECT_EQ(kmstore_device_init(&device), c.rc);
      EXPECT_EQ(device, nullptr);
      EXPECT_EQ(log_.Lines(), std::vector<LogLine>{LogLine::Error(c.log)});

      tavikm_host::RestoreBuiltinModules();
      kmstore_device* again = nullptr;
      EXPECT_EQ(kmstore_device_init(&device), 0);
      EXPECT_NE(device, nullptr);
      EXPECT_EQ(kmstore_device_init(&again), 0);
      EXPECT_EQ(again, device);
      EXPECT_EQ(tavikm_host::ModuleLookupCount("tavikm"), 1);
    });
  }
}

TEST_F(KmstoreInitTest, RecordCallsReportAFailedInitWithTheirOwnWords) {
  InFreshProcess([this] {
    ASSERT_EQ(property_set("ro.product.tavi.support_mdfpp", "true"), 0);
    tavikm_host::FailModuleLookup("tavikm", -ENODEV);
    km_meta meta{};
    EXPECT_EQ(km_get_km_meta("a", 0, &meta), -ENODEV);
    EXPECT_EQ(km_put_km_meta("a", 0, &meta), -ENODEV);
    EXPECT_EQ(km_delete_meta("a", 0), -ENODEV);
    LogLine lookup = LogLine::Error("could not find any kmstore module");
    EXPECT_EQ(log_.Lines(), (std::vector<LogLine>{
                                LogLine::Error("key_loc=a, 0\n"),
                                lookup,
                                LogLine::Error("TAVIKM kmstore could not be initialized;"),
                                lookup,
                                LogLine::Error("TAVIKM kmstore could not be initialized;"),
                                lookup,
                                LogLine::Error("Failed to init kmstore device"),
                            }));
  });
}

// A module whose open succeeds without producing a device.
hw_module_methods_t g_null_methods = {
    [](const hw_module_t*, const char*, hw_device_t** device) {
      *device = nullptr;
      return 0;
    },
};
hw_module_t g_null_module = [] {
  hw_module_t m{};
  m.tag = HARDWARE_MODULE_TAG;
  m.methods = &g_null_methods;
  return m;
}();

TEST_F(KmstoreInitTest, ANullDeviceIsRefusedByEachRecordCall) {
  InFreshProcess([this] {
    ASSERT_EQ(property_set("ro.product.tavi.support_mdfpp", "true"), 0);
    tavikm_host::RegisterModule("tavikm", &g_null_module);
    km_meta meta{};
    EXPECT_EQ(km_get_km_meta("a", 0, &meta), -1);
    EXPECT_EQ(km_put_km_meta("a", 0, &meta), -1);
    EXPECT_EQ(km_delete_meta("a", 0), -1);
    EXPECT_EQ(log_.Lines(), (std::vector<LogLine>{
                                LogLine::Error("key_loc=a, 0\n"),
                                LogLine::Error("kmstore device is null.\nFailed to get_km_meta"),
                                LogLine::Error("kmstore device is null.\nFailed to put_km_meta"),
                                LogLine::Error("kmstore device is null.\nFailed to delete_meta"),
                            }));
    // Nothing usable was remembered: the next call looks the module up again.
    EXPECT_EQ(tavikm_host::ModuleLookupCount("tavikm"), 3);
  });
}

}  // namespace
}  // namespace tavikm_test
