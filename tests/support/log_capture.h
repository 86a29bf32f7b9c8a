// SPDX-License-Identifier: Apache-2.0
// Captures what the library logs, so tests can assert exact lines: liblog lines with buffer,
// priority, tag and text; libbase (stream logger) lines with severity, file, line and text.
#ifndef TAVIKM_TESTS_SUPPORT_LOG_CAPTURE_H_
#define TAVIKM_TESTS_SUPPORT_LOG_CAPTURE_H_

#include <ostream>
#include <string>
#include <vector>

#include <android-base/logging.h>

namespace tavikm_test {

struct LogLine {
  enum class Source { kLiblog, kLibbase };
  Source source = Source::kLiblog;
  int buffer = 0;     // liblog buffer: 0 main, 3 system (liblog lines only)
  int priority = 0;   // android_LogPriority: 4 info, 5 warning, 6 error
  std::string tag;    // liblog lines only
  std::string file;   // libbase lines only
  unsigned line = 0;  // libbase lines only; 0 in an expectation means "any line"
  std::string text;

  // Expectations. Liblog defaults: main buffer, tag "TAVIKM".
  static LogLine Error(std::string text) { return Liblog(6, std::move(text)); }
  static LogLine Warning(std::string text) { return Liblog(5, std::move(text)); }
  static LogLine Info(std::string text) { return Liblog(4, std::move(text)); }
  static LogLine SystemError(std::string text) { return Liblog(6, std::move(text), 3); }
  static LogLine SystemInfo(std::string text) { return Liblog(4, std::move(text), 3); }
  static LogLine Liblog(int priority, std::string text, int buffer = 0, std::string tag = "TAVIKM");
  static LogLine Base(android::base::LogSeverity severity, std::string file, std::string text,
                      unsigned line = 0);

  android::base::LogSeverity severity() const;
  bool operator==(const LogLine& other) const;
};

void PrintTo(const LogLine& line, std::ostream* os);

// While alive, routes every liblog and libbase line of the process into memory, at every
// priority. Only one may be alive at a time.
class LogCapture {
 public:
  LogCapture();
  ~LogCapture();
  LogCapture(const LogCapture&) = delete;
  LogCapture& operator=(const LogCapture&) = delete;

  // Everything captured since construction or the last Clear().
  std::vector<LogLine> Lines() const;
  // Just the texts, for tests that only care about wording and order.
  std::vector<std::string> Texts() const;
  void Clear();
};

}  // namespace tavikm_test

#endif  // TAVIKM_TESTS_SUPPORT_LOG_CAPTURE_H_
