// SPDX-License-Identifier: Apache-2.0
// The commands of the tavikm tool. Each takes the arguments after its name, prints its results
// and returns the exit code; failures are thrown as ToolError.
#ifndef TAVIKM_TOOLS_COMMANDS_H_
#define TAVIKM_TOOLS_COMMANDS_H_

#include <string>
#include <vector>

namespace tavikm_tool {

// The global options, which the demo applies again inside its own device directory.
struct Globals {
  bool device_dir_given = false;
  std::vector<std::string> props;  // KEY=VALUE
  bool verbose = false;
};

// Applies --prop KEY=VALUE settings to this process's properties.
void ApplyProps(const std::vector<std::string>& props);

int RunSetup(const std::vector<std::string>& args);
int RunUnlock(const std::vector<std::string>& args);
int RunPasswd(const std::vector<std::string>& args);
int RunInspect(const std::vector<std::string>& args);
int RunKek(const std::vector<std::string>& args);
int RunList(const std::vector<std::string>& args);
int RunBackup(const std::vector<std::string>& args);
int RunRestore(const std::vector<std::string>& args);
int RunErase(const std::vector<std::string>& args);
int RunBenchmark(const std::vector<std::string>& args);
int RunDemo(const std::vector<std::string>& args, const Globals& globals);

}  // namespace tavikm_tool

#endif  // TAVIKM_TOOLS_COMMANDS_H_
