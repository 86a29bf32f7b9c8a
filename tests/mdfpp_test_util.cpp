// The shared pieces of the Keymaster service tests.
#include "mdfpp_test_util.h"

namespace tavikm_test::mdfpp {

LogLine DeviceLine() {
  return KmInfo(
      "Using HostKeymasterDevice from TAVIKM host platform for encryption.  Security level: "
      "TRUSTED_ENVIRONMENT, HAL: android.hardware.keymaster@4.0::IKeymasterDevice/default");
}

::testing::Matcher<const LogLine&> InvalidArgumentFrom(const std::string& source) {
  using ::testing::AllOf;
  using ::testing::Field;
  using ::testing::MatchesRegex;
  std::string escaped;
  for (char c : source) {
    if (c == '.') escaped += '\\';
    escaped += c;
  }
  return AllOf(
      Field(&LogLine::source, LogLine::Source::kLibbase), Field(&LogLine::file, "Keymaster"),
      Field(&LogLine::priority, 6),
      Field(&LogLine::text, MatchesRegex("(.*/)?" + escaped + ":[0-9]+:Invalid argument")));
}

std::vector<hw::KeyParameter> ToVector(const hw::AuthorizationSet& set) {
  return std::vector<hw::KeyParameter>(set.begin(), set.end());
}

Bytes Pattern(size_t size, uint8_t start) {
  Bytes b(size);
  for (size_t i = 0; i < size; ++i) b[i] = static_cast<uint8_t>(start + 13 * i);
  return b;
}

}  // namespace tavikm_test::mdfpp
