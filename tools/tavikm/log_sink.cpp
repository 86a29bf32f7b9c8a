// SPDX-License-Identifier: Apache-2.0
// The liblog logger of the tavikm tool.
#include "log_sink.h"

#include <android/log.h>
#include <errno.h>
#include <fcntl.h>
#include <stdio.h>
#include <string.h>
#include <time.h>
#include <unistd.h>

#include <exception>
#include <string>
#include <vector>

namespace tavikm_tool {
namespace {

bool g_to_stderr = false;
std::function<std::string()> g_resolve;
std::string g_path;
FILE* g_file = nullptr;
struct Seen {
  int priority;
  std::string text;
  int error;  // errno as the line was logged: the cause of a failed system call just before it
};
std::vector<Seen> g_seen;

char PriorityLetter(int priority) {
  switch (priority) {
    case ANDROID_LOG_VERBOSE:
      return 'V';
    case ANDROID_LOG_DEBUG:
      return 'D';
    case ANDROID_LOG_INFO:
      return 'I';
    case ANDROID_LOG_WARN:
      return 'W';
    case ANDROID_LOG_ERROR:
      return 'E';
    case ANDROID_LOG_FATAL:
      return 'F';
    default:
      return '?';
  }
}

// One line per message: trailing newlines dropped, inner ones shown as "\n".
std::string Flatten(const char* message) {
  std::string text = message ? message : "";
  while (!text.empty() && (text.back() == '\n' || text.back() == ' ')) text.pop_back();
  std::string flat;
  for (char c : text) {
    if (c == '\n')
      flat += "\\n";
    else
      flat += c;
  }
  return flat;
}

// "E/TAVIKM: text", "I/TAVIKM[system]: text", or for libbase lines "E/tag Keymaster:42: text".
std::string Format(const __android_logger_data* data, const char* message) {
  std::string line(1, PriorityLetter(data->priority));
  line += '/';
  line += data->tag ? data->tag : "";
  if (data->file) {
    line += ' ';
    line += data->file;
    line += ':' + std::to_string(data->line);
  } else if (data->buffer_id == LOG_ID_SYSTEM) {
    line += "[system]";
  }
  line += ": ";
  line += Flatten(message);
  return line;
}

// Turns the resolver into a path once; false when there is none.
bool Resolve() {
  if (g_resolve) {
    auto resolve = std::move(g_resolve);
    g_resolve = nullptr;
    try {
      g_path = resolve();
    } catch (const std::exception&) {
      g_path.clear();
    }
  }
  return !g_path.empty();
}

void Sink(const __android_logger_data* data, const char* message) {
  int error = errno;
  // Only the lines of the current library call matter; keep the memory bounded regardless.
  if (g_seen.size() >= 4096) g_seen.clear();
  g_seen.push_back({data->priority, message ? message : "", error});
  std::string line = Format(data, message);
  if (g_to_stderr) {
    fprintf(stderr, "%s\n", line.c_str());
    return;
  }
  if (!g_file && Resolve()) {
    // Its lines name key locations and KEKs: the owner's alone, whatever the umask.
    int fd = open(g_path.c_str(), O_WRONLY | O_APPEND | O_CREAT | O_NOFOLLOW | O_CLOEXEC, 0600);
    g_file = fd >= 0 ? fdopen(fd, "a") : nullptr;
    if (!g_file && fd >= 0) close(fd);
    if (!g_file) g_path.clear();  // nowhere to write; do not try at every line
  }
  if (!g_file) return;
  char stamp[32];
  time_t now = time(nullptr);
  struct tm tm;
  strftime(stamp, sizeof(stamp), "%Y-%m-%d %H:%M:%S", localtime_r(&now, &tm));
  fprintf(g_file, "%s %s\n", stamp, line.c_str());
  fflush(g_file);
}

}  // namespace

void InstallLogSink(bool to_stderr) {
  g_to_stderr = to_stderr;
  __android_log_set_minimum_priority(ANDROID_LOG_INFO);
  __android_log_set_logger(Sink);
}

void SetLogFile(std::function<std::string()> path) {
  if (g_file) fclose(g_file);
  g_file = nullptr;
  g_path.clear();
  g_resolve = std::move(path);
}

std::string LogHint() {
  if (g_to_stderr || !Resolve()) return "";
  return " (details in " + g_path + ")";
}

void ForgetSeen() { g_seen.clear(); }

bool LogSaw(const std::string& fragment) {
  for (const Seen& seen : g_seen) {
    if (seen.text.find(fragment) != std::string::npos) return true;
  }
  return false;
}

std::string LibraryCause() {
  // Lines the library logs right after a failed system call: errno then still holds its cause.
  static const char* const kAfterSystemCall[] = {
      "Cannot open metadata file",
      "Cannot seek to real block device",
      "Cannot read real block device metadata",
      "Cannot write real block device metadata",
      "Cannot set metadata file size",
      "Failed to read metadata from Secure Storage",
      "Filed to store metadata to TZ Secure Storage",
      "Filed to store a key encrypted by rek in Secure Storage",
      "Failed to Remove Key file",
  };
  for (const Seen& seen : g_seen) {
    for (const char* fragment : kAfterSystemCall) {
      if (seen.error != 0 && seen.text.find(fragment) != std::string::npos) {
        return strerror(seen.error);
      }
    }
  }
  // A KDF that failed leaves the key all zero, and errno says why (scrypt's memory, say).
  for (const Seen& seen : g_seen) {
    if (seen.text.find("::key is null") != std::string::npos) {
      return std::string("the key derivation failed") +
             (seen.error ? std::string(": ") + strerror(seen.error) : "");
    }
  }
  // Otherwise the library's own words: its first error line, less the trace of the record's
  // place that km_get_km_meta logs as an error at every read. A Keymaster that no longer knows
  // the record's key (INVALID_KEY_BLOB) gets a plain sentence first.
  for (const Seen& seen : g_seen) {
    if (seen.priority < ANDROID_LOG_ERROR || seen.text.rfind("key_loc=", 0) == 0) continue;
    std::string text = Flatten(seen.text.c_str());
    if (text.empty()) continue;
    const std::string invalid_blob = "code -33";
    if (text.size() >= invalid_blob.size() &&
        text.compare(text.size() - invalid_blob.size(), invalid_blob.size(), invalid_blob) == 0) {
      return "the Keymaster no longer accepts the record's key (deleted, as erase --destroy-key "
             "does, or not this device's); the library says \"" +
             text + "\"";
    }
    return "the library says \"" + text + "\"";
  }
  return "";
}

std::string Why() {
  std::string cause = LibraryCause();
  return (cause.empty() ? "" : ": " + cause) + LogHint();
}

}  // namespace tavikm_tool
