// SPDX-License-Identifier: Apache-2.0
// Command-line plumbing of the tavikm tool: exit codes, the error that carries one, the usage line
// shown with a usage error, and number and hex texts.
#ifndef TAVIKM_TOOLS_CLI_H_
#define TAVIKM_TOOLS_CLI_H_

#include <stdint.h>

#include <stdexcept>
#include <string>
#include <vector>

namespace tavikm_tool {

enum ExitCode : int {
  kExitOk = 0,
  kExitUsage = 1,
  kExitWrongPassword = 2,
  kExitNotFound = 3,
  kExitFailure = 4,
};

// A failure the tool reports as one sentence on stderr and ends with `code`. A usage error also
// prints the usage line of the command that was running.
class ToolError : public std::runtime_error {
 public:
  ToolError(ExitCode code, const std::string& sentence, bool show_usage = false)
      : std::runtime_error(sentence), code_(code), show_usage_(show_usage) {}
  ExitCode code() const { return code_; }
  bool show_usage() const { return show_usage_; }

 private:
  ExitCode code_;
  bool show_usage_;
};

inline ToolError UsageError(const std::string& sentence) {
  return ToolError(kExitUsage, sentence, true);
}

// Input the command cannot use (a missing or empty password file, passwords that differ): exit
// status 1 like a usage error, without the usage line, which would not help.
inline ToolError InputError(const std::string& sentence) { return ToolError(kExitUsage, sentence); }

// The usage line of the running command, printed after a usage error.
void SetCurrentUsage(const std::string& usage);
const std::string& CurrentUsage();

// Parses a whole decimal number; throws a usage error naming `what` otherwise.
uint64_t ParseUnsigned(const std::string& text, const std::string& what);

// Lower-case hexadecimal text of `size` bytes.
std::string Hex(const uint8_t* data, size_t size);

// "sha256:<hex>" of `size` bytes: how the tool names a key without showing it.
std::string Fingerprint(const uint8_t* data, size_t size);

}  // namespace tavikm_tool

#endif  // TAVIKM_TOOLS_CLI_H_
