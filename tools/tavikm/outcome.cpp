// SPDX-License-Identifier: Apache-2.0
// Checked standard output.
#include "outcome.h"

#include <errno.h>
#include <stdio.h>
#include <string.h>

#include "cli.h"
#include "text.h"

namespace tavikm_tool {
namespace {

std::string g_changed;

}  // namespace

void NoteChanged(const std::string& what) { g_changed = what; }

int FinishOutput(int code) {
  errno = 0;
  if (fflush(stdout) == 0 && !ferror(stdout)) return code;
  std::string cause = errno ? strerror(errno) : "write error";
  if (g_changed.empty()) {
    fprintf(stderr, "tavikm: cannot write to standard output: %s\n", cause.c_str());
  } else {
    fprintf(stderr, "tavikm: %s, but the output could not be written: %s\n",
            TerminalText(g_changed).c_str(), cause.c_str());
  }
  return kExitFailure;
}

}  // namespace tavikm_tool
