// SPDX-License-Identifier: Apache-2.0
// What the tool's commands share. Each command (command_table.h names them) takes its parsed
// invocation, prints its results and returns the exit code; failures are thrown as ToolError.
#ifndef TAVIKM_TOOLS_COMMANDS_H_
#define TAVIKM_TOOLS_COMMANDS_H_

#include <string>
#include <vector>

#include "command_table.h"

namespace tavikm_tool {

// Applies --prop KEY=VALUE settings to this process's properties.
void ApplyProps(const std::vector<std::string>& props);

}  // namespace tavikm_tool

#endif  // TAVIKM_TOOLS_COMMANDS_H_
