// SPDX-License-Identifier: Apache-2.0
// Runs the tavikm binary for the tool suites.
#include "support/tool_runner.h"

#include <fcntl.h>
#include <stdlib.h>
#include <sys/wait.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <iterator>
#include <regex>
#include <sstream>

#include "tavikm.h"

namespace tavikm_test {

std::string Slurp(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  return std::string(std::istreambuf_iterator<char>(in), {});
}

std::string FingerprintIn(const std::string& out) {
  std::smatch match;
  static const std::regex kLine("(master key|kek) +sha256:([0-9a-f]{64})");
  return std::regex_search(out, match, kLine) ? match[2].str() : "";
}

ToolRunner::ToolRunner() : dir_(std::filesystem::canonical(device_.path()).string()) {
  std::filesystem::create_directories(dir_ + "/scratch");
}

Args ToolRunner::ToolArgv(const Args& args) const {
  Args argv = {TAVIKM_TOOL_PATH, "--device-dir", dir_, "--prop", kFastScrypt};
  for (const std::string& prop : props_) {
    argv.push_back("--prop");
    argv.push_back(prop);
  }
  argv.insert(argv.end(), args.begin(), args.end());
  return argv;
}

void ToolRunner::ExecInChild(Args argv, const Env& env) const {
  if (in_child_) in_child_();
  // Journals are kept per user, outside any device directory; each test keeps its own.
  setenv("TAVIKM_JOURNAL_DIR", (dir_ + "/journal").c_str(), 1);
  for (const auto& [key, value] : env) setenv(key.c_str(), value.c_str(), 1);
  // The sanitizer runtime would refuse a preloaded library ahead of it.
  if (env.count("LD_PRELOAD")) {
    const char* asan = getenv("ASAN_OPTIONS");
    setenv("ASAN_OPTIONS", (std::string(asan ? asan : "") + ":verify_asan_link_order=0").c_str(),
           1);
  }
  if (hang_guard_seconds_) alarm(hang_guard_seconds_);
  // A cross build runs the tool under the same emulator as this test.
  std::istringstream emulator(TAVIKM_TOOL_EMULATOR);
  argv.insert(argv.begin(), std::istream_iterator<std::string>(emulator), {});
  std::vector<char*> cargv;
  for (const std::string& arg : argv) cargv.push_back(const_cast<char*>(arg.c_str()));
  cargv.push_back(nullptr);
  execvp(cargv[0], cargv.data());
  _exit(127);
}

pid_t ToolRunner::Start(const Args& argv, const std::string& input, const Env& env,
                        const std::string& tag) {
  std::string in = Scratch("stdin-" + tag);
  std::ofstream(in, std::ios::binary) << input;
  pid_t pid = fork();
  if (pid == 0) {
    int fds[3] = {open(in.c_str(), O_RDONLY),
                  open(Scratch("stdout-" + tag).c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600),
                  open(Scratch("stderr-" + tag).c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600)};
    for (int i = 0; i < 3; ++i) dup2(fds[i], i);
    ExecInChild(argv, env);
  }
  return pid;
}

ToolResult ToolRunner::Finish(pid_t pid, const std::string& tag) {
  int status = 0;
  waitpid(pid, &status, 0);
  ToolResult result;
  result.status = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
  result.out = Slurp(Scratch("stdout-" + tag));
  result.err = Slurp(Scratch("stderr-" + tag));
  return result;
}

std::string ToolRunner::PasswordFile(const std::string& password) {
  std::string path = Scratch("password-" + std::to_string(++files_));
  std::ofstream(path) << password << "\n";
  return path;
}

std::vector<uint8_t> ToolRunner::Entry(const std::string& name) {
  kmstore_device* device = nullptr;
  EXPECT_EQ(kmstore_device_init(&device), 0);
  std::vector<uint8_t> bytes(8192);
  uint64_t size = bytes.size();
  if (device->read(name.c_str(), bytes.data(), &size) != 0) return {};
  bytes.resize(size);
  return bytes;
}

}  // namespace tavikm_test
