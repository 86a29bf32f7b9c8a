// SPDX-License-Identifier: Apache-2.0
// The emulated device's state directory.
#include <errno.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>

#include <stdexcept>
#include <string>

#include "tavikm_host/device.h"

namespace tavikm_host {
namespace {

void MakeDirs(const std::string& path, mode_t mode) {
  for (size_t pos = 1; pos <= path.size(); ++pos) {
    if (pos != path.size() && path[pos] != '/') continue;
    std::string prefix = path.substr(0, pos);
    if (mkdir(prefix.c_str(), mode) != 0 && errno != EEXIST) {
      throw std::runtime_error("cannot create " + prefix + ": " + strerror(errno));
    }
  }
}

}  // namespace

std::string DeviceDir() {
  std::string dir;
  if (const char* env = getenv("TAVIKM_DEVICE_DIR"); env && *env) {
    dir = env;
  } else if (const char* state = getenv("XDG_STATE_HOME"); state && *state) {
    dir = std::string(state) + "/tavikm/device";
  } else if (const char* home = getenv("HOME"); home && *home) {
    dir = std::string(home) + "/.local/state/tavikm/device";
  } else {
    throw std::runtime_error("no device directory: set TAVIKM_DEVICE_DIR or HOME");
  }
  while (dir.size() > 1 && dir.back() == '/') dir.pop_back();
  struct stat st;
  if (stat(dir.c_str(), &st) != 0) {
    // Parents get the usual mode; the device directory itself holds secrets.
    auto slash = dir.rfind('/');
    if (slash != std::string::npos && slash > 0) MakeDirs(dir.substr(0, slash), 0755);
    if (mkdir(dir.c_str(), 0700) != 0 && errno != EEXIST) {
      throw std::runtime_error("cannot create " + dir + ": " + strerror(errno));
    }
  } else if (!S_ISDIR(st.st_mode)) {
    throw std::runtime_error(dir + " is not a directory");
  }
  return dir;
}

std::string DevicePath(const std::string& relative) { return DeviceDir() + "/" + relative; }

}  // namespace tavikm_host
