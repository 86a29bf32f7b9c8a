// SPDX-License-Identifier: Apache-2.0
// A throwaway device directory per test: TAVIKM_DEVICE_DIR points at a fresh folder, properties
// and module overrides start from a clean slate, and everything is undone afterwards.
#ifndef TAVIKM_TESTS_SUPPORT_DEVICE_ENV_H_
#define TAVIKM_TESTS_SUPPORT_DEVICE_ENV_H_

#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "support/log_capture.h"

namespace tavikm_test {

class TempDeviceDir {
 public:
  TempDeviceDir();
  ~TempDeviceDir();
  const std::string& path() const { return path_; }
  // A path inside the device directory (not created).
  std::string Path(const std::string& relative) const { return path_ + "/" + relative; }
  // Writes build.prop and makes the next property access load it.
  void WriteBuildProp(const std::string& contents) const;

 private:
  std::string path_;
  std::string previous_;
  bool had_previous_ = false;
};

// Reads a whole file; fails the test when it cannot.
std::vector<uint8_t> ReadFile(const std::string& path);
void WriteFile(const std::string& path, const std::vector<uint8_t>& data);

// Base fixture: a temporary device directory and log capture for every test.
class DeviceTest : public ::testing::Test {
 protected:
  TempDeviceDir device_;
  LogCapture log_;
};

}  // namespace tavikm_test

#endif  // TAVIKM_TESTS_SUPPORT_DEVICE_ENV_H_
