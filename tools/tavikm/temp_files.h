// SPDX-License-Identifier: Apache-2.0
// Temporary files beside the file they will become: created exclusively under a name nobody can
// predict, locked by their creator while it lives, and removed by the next creator in the same
// folder once that creator is gone (a crash, a kill).
#ifndef TAVIKM_TOOLS_TEMP_FILES_H_
#define TAVIKM_TOOLS_TEMP_FILES_H_

#include <string>

namespace tavikm_tool {

// Creates a new 0600 file ".tavikm-new-<pid>-<random>" in `dir`, locked by this process, after
// removing the ones left there by processes that are gone. Returns its descriptor and sets
// `path`; -1 with errno set on failure.
int CreateTemporary(const std::string& dir, std::string* path);

}  // namespace tavikm_tool

#endif  // TAVIKM_TOOLS_TEMP_FILES_H_
