// SPDX-License-Identifier: Apache-2.0
// The log-capture fixture's plumbing.
//
// libbase sends its lines through liblog's logger hook (with the source file set), so one
// liblog logger sees both kinds; a line with a file is a libbase line.
#include "support/log_capture.h"

#include "support/fault_injector.h"

#include <android/log.h>

#include <mutex>
#include <utility>

namespace tavikm_test {
namespace {

std::mutex g_mutex;
std::vector<LogLine>* g_lines = nullptr;

void Capture(const __android_logger_data* data, const char* message) {
  // The test's own bookkeeping inside a library call: not the library's allocations.
  FaultPause pause;
  LogLine line;
  if (data->file) {
    line.source = LogLine::Source::kLibbase;
    line.file = data->file;
    line.line = data->line;
  } else {
    line.source = LogLine::Source::kLiblog;
    line.buffer = data->buffer_id;
    line.tag = data->tag ? data->tag : "";
  }
  line.priority = data->priority;
  line.text = message ? message : "";
  std::lock_guard<std::mutex> lock(g_mutex);
  if (g_lines) g_lines->push_back(std::move(line));
}

// Each libbase severity with its liblog priority; anything else is fatal.
constexpr std::pair<android::base::LogSeverity, int> kLevels[] = {
    {android::base::VERBOSE, ANDROID_LOG_VERBOSE}, {android::base::DEBUG, ANDROID_LOG_DEBUG},
    {android::base::INFO, ANDROID_LOG_INFO},       {android::base::WARNING, ANDROID_LOG_WARN},
    {android::base::ERROR, ANDROID_LOG_ERROR},
};

int PriorityOf(android::base::LogSeverity severity) {
  for (const auto& level : kLevels)
    if (level.first == severity) return level.second;
  return ANDROID_LOG_FATAL;
}

}  // namespace

LogLine LogLine::Liblog(int priority, std::string text, int buffer, std::string tag) {
  LogLine line;
  line.source = Source::kLiblog;
  line.priority = priority;
  line.text = std::move(text);
  line.buffer = buffer;
  line.tag = std::move(tag);
  return line;
}

LogLine LogLine::Base(android::base::LogSeverity severity, std::string file, std::string text,
                      unsigned line_number) {
  LogLine line;
  line.source = Source::kLibbase;
  line.priority = PriorityOf(severity);
  line.file = std::move(file);
  line.text = std::move(text);
  line.line = line_number;
  return line;
}

android::base::LogSeverity LogLine::severity() const {
  for (const auto& level : kLevels)
    if (level.second == priority) return level.first;
  return android::base::FATAL;
}

bool LogLine::operator==(const LogLine& other) const {
  if (source != other.source || priority != other.priority || text != other.text) return false;
  if (source == Source::kLiblog) return buffer == other.buffer && tag == other.tag;
  return file == other.file && (line == 0 || other.line == 0 || line == other.line);
}

void PrintTo(const LogLine& line, std::ostream* os) {
  if (line.source == LogLine::Source::kLiblog) {
    *os << "liblog{buf=" << line.buffer << " prio=" << line.priority << " tag=" << line.tag;
  } else {
    *os << "libbase{sev=" << line.severity() << " " << line.file << ":" << line.line;
  }
  *os << " text=\"";
  for (char c : line.text) {
    if (c == '\n')
      *os << "\\n";
    else
      *os << c;
  }
  *os << "\"}";
}

LogCapture::LogCapture() {
  std::lock_guard<std::mutex> lock(g_mutex);
  g_lines = new std::vector<LogLine>();
  __android_log_set_minimum_priority(ANDROID_LOG_VERBOSE);
  android::base::SetMinimumLogSeverity(android::base::VERBOSE);
  __android_log_set_logger(Capture);
}

LogCapture::~LogCapture() {
  __android_log_set_logger(__android_log_stderr_logger);
  std::lock_guard<std::mutex> lock(g_mutex);
  delete g_lines;
  g_lines = nullptr;
}

std::vector<LogLine> LogCapture::Lines() const {
  std::lock_guard<std::mutex> lock(g_mutex);
  return *g_lines;
}

std::vector<std::string> LogCapture::Texts() const {
  std::vector<std::string> texts;
  for (const LogLine& line : Lines()) texts.push_back(line.text);
  return texts;
}

void LogCapture::Clear() {
  std::lock_guard<std::mutex> lock(g_mutex);
  g_lines->clear();
}

}  // namespace tavikm_test
