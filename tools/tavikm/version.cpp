// SPDX-License-Identifier: Apache-2.0
// The library carries no version symbol: its version is in the name of the file the dynamic
// loader resolved (the SONAME link points at libtavikm.so.MAJOR.MINOR.PATCH).
#include "version.h"

#include <dlfcn.h>
#include <limits.h>
#include <stdio.h>
#include <stdlib.h>

#include "cli.h"
#include "tavikm.h"
#include "tavikm_version.h"

namespace tavikm_tool {

std::string LoadedLibraryVersion(std::string* path) {
  Dl_info info{};
  if (dladdr(reinterpret_cast<void*>(&km_sha256), &info) == 0 || info.dli_fname == nullptr) {
    return "";
  }
  char resolved[PATH_MAX];
  *path = realpath(info.dli_fname, resolved) != nullptr ? resolved : info.dli_fname;
  static const char kPrefix[] = "libtavikm.so.";
  size_t slash = path->rfind('/');
  std::string name = path->substr(slash == std::string::npos ? 0 : slash + 1);
  if (name.rfind(kPrefix, 0) != 0) return "";
  std::string version = name.substr(sizeof(kPrefix) - 1);
  if (version.empty() || version.find_first_not_of("0123456789.") != std::string::npos) return "";
  return version;
}

int RunVersion() {
  std::string path;
  std::string library = LoadedLibraryVersion(&path);
  if (library.empty()) library = "unknown";
  int written = printf("tavikm %s\nlibtavikm %s%s%s%s\n", TAVIKM_TOOL_VERSION, library.c_str(),
                       path.empty() ? "" : " (", path.c_str(), path.empty() ? "" : ")");
  if (written < 0 || fflush(stdout) != 0) {
    throw ToolError(kExitFailure, "the version could not be written to standard output");
  }
  return kExitOk;
}

}  // namespace tavikm_tool
