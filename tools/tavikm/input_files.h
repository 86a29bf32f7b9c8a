// SPDX-License-Identifier: Apache-2.0
// Files the tool reads its input from (password, key and backup files). None may hang it: a
// FIFO nobody writes to, or a terminal nobody types at, is given up after the --wait time.
#ifndef TAVIKM_TOOLS_INPUT_FILES_H_
#define TAVIKM_TOOLS_INPUT_FILES_H_

#include <string>

namespace tavikm_tool {

// Opens `path` for reading, `what` naming it in sentences ("password file"). A regular file is
// opened at once; a directory or socket is an input error; a FIFO or character device is waited
// on until it has something to read, at most the --wait time. The descriptor returned blocks.
// Throws an input error (exit 1) otherwise.
int OpenInput(const std::string& path, const std::string& what);

// Opens a backup file: a regular file only, refused at once otherwise (exit 1).
int OpenRegularInput(const std::string& path, const std::string& what);

}  // namespace tavikm_tool

#endif  // TAVIKM_TOOLS_INPUT_FILES_H_
