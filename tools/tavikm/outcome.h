// SPDX-License-Identifier: Apache-2.0
// What a command's exit says. A result that could not be written to standard output is a
// failure, and a change that took effect is never reported as if nothing had changed: its
// sentence says what stands.
#ifndef TAVIKM_TOOLS_OUTCOME_H_
#define TAVIKM_TOOLS_OUTCOME_H_

#include <string>

namespace tavikm_tool {

// Records what the running command has changed ("the KEK \"vold\" was stored"), for the sentence
// when its report then cannot be written.
void NoteChanged(const std::string& what);

// Flushes standard output. Returns `code` when everything reached it, else prints the failure
// sentence and returns the failure status.
int FinishOutput(int code);

}  // namespace tavikm_tool

#endif  // TAVIKM_TOOLS_OUTCOME_H_
