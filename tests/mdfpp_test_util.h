// SPDX-License-Identifier: Apache-2.0
// What the Keymaster service tests share: virtual Keymaster time (so a key's rate limit really
// runs out without waiting), an AES key, and the expected log lines.
#ifndef TAVIKM_TESTS_MDFPP_TEST_UTIL_H_
#define TAVIKM_TESTS_MDFPP_TEST_UTIL_H_

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <keymasterV4_0/authorization_set.h>
#include <stdint.h>

#include <string>
#include <vector>

#include "keymaster_test_devices.h"
#include "support/device_env.h"
#include "support/virtual_time.h"
#include "tavikm_keymaster.h"

namespace tavikm_test::mdfpp {

namespace hw = ::android::hardware::keymaster::V4_0;
using Bytes = std::vector<uint8_t>;

// A device directory, log capture, and virtual Keymaster time: sleep() records its seconds and
// moves the Keymaster's clock on instead of waiting.
class MdfppTest : public DeviceTest {
 protected:
  // The seconds of every sleep() the library asked for since the fixture began.
  std::vector<unsigned int> Sleeps() const { return time_.Sleeps(); }

  // An AES key from the service.
  Bytes CreateAesKey() {
    Bytes key(2048, 0);
    unsigned int size = 0;
    EXPECT_EQ(keymaster_create_aes_key_for_mdfpp(key.data(), key.size(), &size), 0);
    key.resize(size);
    return key;
  }

  VirtualKeymasterTime time_;
};

inline LogLine KmInfo(const std::string& text) {
  return LogLine::Base(android::base::INFO, "Keymaster", text);
}
inline LogLine KmError(const std::string& text) {
  return LogLine::Base(android::base::ERROR, "Keymaster", text);
}

// The line a session opened on the default device logs.
inline LogLine DeviceLine() {
  return KmInfo(
      "Using HostKeymasterDevice from TAVIKM host platform for encryption.  Security level: "
      "TRUSTED_ENVIRONMENT, HAL: android.hardware.keymaster@4.0::IKeymasterDevice/default");
}

// Matches the ":Invalid argument" line of `source` ("mdfpp/sign.cpp"): the source path, the
// line number, then ":Invalid argument".
inline ::testing::Matcher<const LogLine&> InvalidArgumentFrom(const std::string& source) {
  using ::testing::Field;
  std::string escaped;
  for (char c : source) {
    if (c == '.') escaped += '\\';
    escaped += c;
  }
  return ::testing::AllOf(
      Field(&LogLine::source, LogLine::Source::kLibbase), Field(&LogLine::file, "Keymaster"),
      Field(&LogLine::priority, 6),
      Field(&LogLine::text,
            ::testing::MatchesRegex("(.*/)?" + escaped + ":[0-9]+:Invalid argument")));
}

inline Bytes Pattern(size_t size, uint8_t start = 1) {
  Bytes b(size);
  for (size_t i = 0; i < size; ++i) b[i] = static_cast<uint8_t>(start + 13 * i);
  return b;
}

}  // namespace tavikm_test::mdfpp

#endif  // TAVIKM_TESTS_MDFPP_TEST_UTIL_H_
