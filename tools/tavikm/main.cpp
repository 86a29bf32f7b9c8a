// SPDX-License-Identifier: Apache-2.0
// tavikm: the command-line tool over libtavikm on the host platform. Global options choose the
// device directory and properties before anything touches the platform; then one command runs
// (command_table.h declares them all).
#include <stdio.h>
#include <sys/stat.h>

#include <exception>
#include <string>
#include <vector>

#include "cli.h"
#include "command_table.h"
#include "outcome.h"
#include "secure_memory.h"
#include "text.h"

int main(int argc, char** argv) {
  using namespace tavikm_tool;
  HardenProcess();
  // Every file and folder the tool and the host platform create holds keys or their traces:
  // owner only, whatever umask the caller had.
  umask(077);
  std::vector<std::string> args(argv + 1, argv + argc);
  try {
    return FinishOutput(RunCommandLine(args));
  } catch (const ToolError& e) {
    fflush(stdout);  // what was printed before the failure, if it can be
    // Sentences quote names and paths as given; none may act on the terminal.
    fprintf(stderr, "tavikm: %s\n", TerminalText(e.what()).c_str());
    if (e.show_usage()) fprintf(stderr, "%s\n", CurrentUsage().c_str());
    return e.code();
  } catch (const std::exception& e) {
    fflush(stdout);
    fprintf(stderr, "tavikm: %s\n", TerminalText(e.what()).c_str());
    return kExitFailure;
  }
}
