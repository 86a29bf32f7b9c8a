// What the Keymaster service tests share: virtual Keymaster time (so a key's rate limit really
// runs out without waiting), the expected log lines, and the parameter sets the services are
// meant to send.
#ifndef TAVIKM_TESTS_MDFPP_TEST_UTIL_H_
#define TAVIKM_TESTS_MDFPP_TEST_UTIL_H_

#include <gmock/gmock.h>
#include <keymasterV4_0/authorization_set.h>
#include <stdint.h>

#include <string>
#include <vector>

#include "keymaster_test_devices.h"
#include "support/device_env.h"
#include "support/virtual_time.h"

namespace tavikm_test::mdfpp {

namespace hw = ::android::hardware::keymaster::V4_0;
using Bytes = std::vector<uint8_t>;

// A device directory, log capture, and virtual Keymaster time: sleep() records its seconds and
// moves the Keymaster's clock on instead of waiting.
class MdfppTest : public DeviceTest {
 protected:
  // The seconds of every sleep() the library asked for since the fixture began.
  std::vector<unsigned int> Sleeps() const { return time_.Sleeps(); }

  VirtualKeymasterTime time_;
};

inline LogLine KmInfo(const std::string& text) {
  return LogLine::Base(android::base::INFO, "Keymaster", text);
}
inline LogLine KmError(const std::string& text) {
  return LogLine::Base(android::base::ERROR, "Keymaster", text);
}
// The line a session opened on the default device logs.
LogLine DeviceLine();

// Matches the ":Invalid argument" line of `source` ("mdfpp/sign.cpp"): the source path, the
// line number, then ":Invalid argument".
::testing::Matcher<const LogLine&> InvalidArgumentFrom(const std::string& source);

// The parameters the device received, in order, as comparable sets.
inline hw::AuthorizationSet Params(const kmdev::ReceivedCall& call) {
  hw::AuthorizationSet set;
  for (const hw::KeyParameter& p : call.params) set.push_back(p);
  return set;
}
std::vector<hw::KeyParameter> ToVector(const hw::AuthorizationSet& set);

Bytes Pattern(size_t size, uint8_t start = 1);

}  // namespace tavikm_test::mdfpp

#endif  // TAVIKM_TESTS_MDFPP_TEST_UTIL_H_
