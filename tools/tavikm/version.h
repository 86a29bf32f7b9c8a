// SPDX-License-Identifier: Apache-2.0
// `tavikm --version` and `tavikm version`: the tool's version and that of the libtavikm it runs.
#ifndef TAVIKM_TOOLS_VERSION_H_
#define TAVIKM_TOOLS_VERSION_H_

#include <string>

namespace tavikm_tool {

// The version of the libtavikm shared object this process loaded, read from its file name
// (libtavikm.so.MAJOR.MINOR.PATCH), or "" when the name does not carry one.
std::string LoadedLibraryVersion(std::string* path);

// Prints both versions; a write that fails is a failure of the command.
int RunVersion();

}  // namespace tavikm_tool

#endif  // TAVIKM_TOOLS_VERSION_H_
