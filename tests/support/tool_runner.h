// SPDX-License-Identifier: Apache-2.0
// The tavikm binary run as a user runs it: one process per command over the test's device
// directory (under the cross build's emulator when there is one), with its standard input given
// and its output, stderr and exit status captured.
#ifndef TAVIKM_TESTS_SUPPORT_TOOL_RUNNER_H_
#define TAVIKM_TESTS_SUPPORT_TOOL_RUNNER_H_

#include <gtest/gtest.h>
#include <sys/types.h>

#include <cstdint>
#include <functional>
#include <map>
#include <string>
#include <vector>

#include "support/device_env.h"

namespace tavikm_test {

inline constexpr char kFastScrypt[] = "ro.crypto.scrypt_params=10:0:0";
inline constexpr char kMdfpp[] = "ro.product.tavi.support_mdfpp=true";
inline constexpr char kCbcOnly[] = "ro.product.tavi.support_cbc_only=true";

using Args = std::vector<std::string>;
inline Args Join(Args a, const Args& b) {
  a.insert(a.end(), b.begin(), b.end());
  return a;
}

struct ToolResult {
  int status = -1;  // the exit status, or 128 + the signal that ended the process
  std::string out;
  std::string err;
};

std::string Slurp(const std::string& path);
// The 64 hex digits after "master key   sha256:" (or "kek   sha256:") in the tool's output.
std::string FingerprintIn(const std::string& out);

class ToolRunner : public ::testing::Test {
 protected:
  using Env = std::map<std::string, std::string>;
  ToolRunner();

  // The device directory, cheap scrypt and `props_` as global options, then `args`.
  Args ToolArgv(const Args& args) const;
  // In a child process: `in_child_`, `env`, the hang guard, then the program under the emulator.
  [[noreturn]] void ExecInChild(Args argv, const Env& env = {}) const;
  // Starts `argv` as it is; `tag` names its files for output.
  pid_t Start(const Args& argv, const std::string& input, const Env& env, const std::string& tag);
  ToolResult Finish(pid_t pid, const std::string& tag);
  ToolResult Exec(const Args& argv, const std::string& input = "") {
    return Finish(Start(argv, input, {}, "one"), "one");
  }
  ToolResult Tool(const Args& args, const std::string& input = "", const Env& env = {}) {
    return Finish(Start(ToolArgv(args), input, env, "one"), "one");
  }
  ToolResult Setup(const std::string& loc, const std::string& password, const Args& options = {}) {
    return Tool(Join({"setup", loc, "--password-file", PasswordFile(password)}, options));
  }
  ToolResult Unlock(const std::string& loc, const std::string& password, const Args& options = {}) {
    return Tool(Join({"unlock", loc, "--password-file", PasswordFile(password)}, options));
  }
  Args Passwd(const std::string& loc, const std::string& from, const std::string& to) {
    return {"passwd",        loc, "--password-file", PasswordFile(from), "--new-password-file",
            PasswordFile(to)};
  }

  std::string Path(const std::string& relative) const { return dir_ + "/" + relative; }
  // A file outside the device directory's own folders.
  std::string Scratch(const std::string& name) const { return dir_ + "/scratch/" + name; }
  std::string PasswordFile(const std::string& password);
  std::string MetadataFile() const { return Path("metadata"); }
  // The stored bytes of `loc`: a metadata file when it is a path, else a secure-storage entry.
  std::vector<uint8_t> Stored(const std::string& loc) {
    return loc[0] == '/' ? ReadFile(loc) : Entry(loc);
  }
  // The secure-storage entry `name` as stored, through the kmstore device of this process.
  std::vector<uint8_t> Entry(const std::string& name);

  TempDeviceDir device_;
  std::string dir_;  // device_'s path, canonical
  Args props_;
  std::function<void()> in_child_;
  unsigned hang_guard_seconds_ = 0;  // SIGALRM ends a tool still running after this long
  int files_ = 0;
};

}  // namespace tavikm_test

#endif  // TAVIKM_TESTS_SUPPORT_TOOL_RUNNER_H_
