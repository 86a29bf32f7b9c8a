// SPDX-License-Identifier: Apache-2.0
// System properties: build.prop of the device directory, loaded once, plus property_set.
#include <ctype.h>
#include <errno.h>
#include <fcntl.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include <map>
#include <mutex>
#include <optional>
#include <sstream>
#include <string>

#include <cutils/properties.h>

#include "common/scopers.h"
#include "tavikm_host/device.h"

namespace {

std::mutex g_mutex;
std::optional<std::map<std::string, std::string>> g_properties;

std::string Trim(const std::string& s, bool left, bool right) {
  size_t begin = 0, end = s.size();
  if (left)
    while (begin < end && isspace(static_cast<unsigned char>(s[begin]))) ++begin;
  if (right)
    while (end > begin && isspace(static_cast<unsigned char>(s[end - 1]))) --end;
  return s.substr(begin, end - begin);
}

// build.prop: "key=value" lines; blank lines and lines starting with '#' are skipped. Blanks
// around the key and before the value are dropped; the value runs to the end of the line, so a
// trailing blank is part of it. Lines without '=' or with an over-long value are ignored.
std::map<std::string, std::string> LoadBuildProp() {
  std::map<std::string, std::string> props;
  std::string path;
  try {
    path = tavikm_host::DevicePath("build.prop");
  } catch (const std::exception&) {
    return props;
  }
  // Only a regular file: a FIFO or a device in its place would block or never end.
  std::string text;
  {
    tavikm::ScopedFd fd(open(path.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC));
    if (!fd.ok()) return props;
    struct stat st;
    bool regular = fstat(fd.get(), &st) == 0 && S_ISREG(st.st_mode);
    char buffer[4096];
    ssize_t n = 0;
    while (regular &&
           ((n = read(fd.get(), buffer, sizeof(buffer))) > 0 || (n < 0 && errno == EINTR))) {
      if (n > 0) text.append(buffer, static_cast<size_t>(n));
    }
  }
  std::istringstream in(text);
  std::string line;
  while (std::getline(in, line)) {
    if (!line.empty() && line.back() == '\r') line.pop_back();
    std::string trimmed = Trim(line, true, false);
    if (trimmed.empty() || trimmed[0] == '#') continue;
    auto eq = trimmed.find('=');
    if (eq == std::string::npos) continue;
    std::string key = Trim(trimmed.substr(0, eq), false, true);
    std::string value = Trim(trimmed.substr(eq + 1), true, false);
    if (key.empty() || value.size() >= PROPERTY_VALUE_MAX) continue;
    props[key] = value;
  }
  return props;
}

std::map<std::string, std::string>& Properties() {
  if (!g_properties) g_properties = LoadBuildProp();
  return *g_properties;
}

}  // namespace

extern "C" int property_get(const char* key, char* value, const char* default_value) {
  std::string result;
  bool found = false;
  if (key) {
    std::lock_guard<std::mutex> lock(g_mutex);
    auto& props = Properties();
    auto it = props.find(key);
    if (it != props.end()) {
      result = it->second;
      found = true;
    }
  }
  if (!found) result = default_value ? default_value : "";
  if (result.size() >= PROPERTY_VALUE_MAX) result.resize(PROPERTY_VALUE_MAX - 1);
  memcpy(value, result.c_str(), result.size() + 1);
  return static_cast<int>(result.size());
}

extern "C" int property_set(const char* key, const char* value) {
  if (!key || !*key) return -1;
  if (!value) value = "";
  if (strlen(value) >= PROPERTY_VALUE_MAX) return -1;
  std::lock_guard<std::mutex> lock(g_mutex);
  Properties()[key] = value;
  return 0;
}

namespace tavikm_host {

void ResetProperties() {
  std::lock_guard<std::mutex> lock(g_mutex);
  g_properties.reset();
}

}  // namespace tavikm_host
