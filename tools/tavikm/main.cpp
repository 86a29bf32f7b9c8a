// SPDX-License-Identifier: Apache-2.0
// tavikm: the command-line tool over libtavikm on the host platform. Global options choose the
// device directory and properties before anything touches the platform; then one command runs.
#include <stdio.h>
#include <stdlib.h>
#include <sys/stat.h>

#include <exception>
#include <string>
#include <vector>

#include "cli.h"
#include "commands.h"
#include "confirm.h"
#include "lock.h"
#include "log_sink.h"
#include "outcome.h"
#include "progress.h"
#include "secure_memory.h"
#include "tavikm_host/device.h"
#include "text.h"
#include "version.h"

namespace {

using namespace tavikm_tool;

const char kUsage[] =
    "usage: tavikm [--device-dir DIR] [--prop KEY=VALUE]... [--wait SECONDS] [-q] [-v] COMMAND ...";

const char kHelp[] =
    "Key management for storage encryption, on the host platform's emulated device.\n"
    "\n"
    "Commands:\n"
    "  setup KEY_LOC            create a record: a new master key under a new password\n"
    "  unlock KEY_LOC           unwrap the master key with the password, show its fingerprint\n"
    "  passwd KEY_LOC           wrap the same master key under a new password\n"
    "  inspect KEY_LOC          decode a stored record field by field, without a password\n"
    "  list [FILE]...           the entries of secure storage, the records in metadata files\n"
    "  backup KEY_LOC FILE|-    save a record to FILE (- standard output), with a SHA-256\n"
    "  restore KEY_LOC FILE|-   write a saved record back (- from standard input)\n"
    "  erase KEY_LOC            remove a record (--destroy-key: and its Keymaster key)\n"
    "  kek put|get|delete NAME  the store of key-encryption keys\n"
    "  benchmark                KDF timings on this machine, and the scrypt cost for an\n"
    "                           unlock time here\n"
    "  demo                     a narrated tour in a throwaway device directory\n"
    "  help [COMMAND]           this text, or the command's own help\n"
    "  version                  the versions of the tool and of the library it loaded\n"
    "Each command explains itself with --help.\n"
    "\n"
    "Options (before the command):\n"
    "  --device-dir DIR         the emulated device's state (default $TAVIKM_DEVICE_DIR,\n"
    "                           else $XDG_STATE_HOME/tavikm/device, else\n"
    "                           ~/.local/state/tavikm/device)\n"
    "  --prop KEY=VALUE         set a system property for this run (repeatable), e.g.\n"
    "                           ro.product.tavi.support_mdfpp=true,\n"
    "                           ro.crypto.scrypt_params=12:3:1\n"
    "  --wait SECONDS           how long to wait for another command using the same record\n"
    "                           (default 10), then give up with \"... is busy\"; also how\n"
    "                           long a FIFO given as password or key file may stay silent\n"
    "  -v                       library log lines to stderr, not to log.txt in the device\n"
    "                           directory\n"
    "  -q, --batch              never ask before replacing or removing a record or a KEK\n"
    "                           (off a terminal the tool never asks)\n"
    "  --version                the same as the version command\n"
    "\n"
    "Exit status: 0 success, 1 usage or unusable input, 2 wrong password, 3 no such record\n"
    "or KEK, 4 any other failure.\n";

bool TakeValue(const std::vector<std::string>& args, size_t* i, const std::string& name,
               std::string* value) {
  const std::string& arg = args[*i];
  if (arg == name) {
    if (*i + 1 >= args.size()) throw UsageError(name + " needs a value");
    *value = args[++*i];
    return true;
  }
  if (arg.rfind(name + "=", 0) == 0) {
    *value = arg.substr(name.size() + 1);
    return true;
  }
  return false;
}

int Run(const std::vector<std::string>& args) {
  SetCurrentUsage(kUsage);
  Globals globals;
  std::string device_dir;
  size_t i = 0;
  for (; i < args.size(); ++i) {
    std::string value;
    if (TakeValue(args, &i, "--device-dir", &value)) {
      if (value.empty()) throw UsageError("--device-dir needs a directory");
      device_dir = value;
      globals.device_dir_given = true;
    } else if (TakeValue(args, &i, "--wait", &value)) {
      uint64_t seconds = ParseUnsigned(value, "--wait");
      SetLockWait(seconds > 3600 ? 3600 : static_cast<unsigned>(seconds));
    } else if (TakeValue(args, &i, "--prop", &value)) {
      globals.props.push_back(value);
    } else if (args[i] == "-q" || args[i] == "--batch") {
      SetBatch(true);
    } else if (args[i] == "-v" || args[i] == "--verbose") {
      globals.verbose = true;
    } else if (args[i] == "--version") {
      return RunVersion();
    } else if (args[i] == "--help" || args[i] == "-h") {
      printf("%s\n%s", kUsage, kHelp);
      return kExitOk;
    } else if (!args[i].empty() && args[i][0] == '-') {
      throw UsageError("unknown option " + args[i]);
    } else {
      break;
    }
  }
  if (i == args.size()) throw UsageError("missing command");
  std::string command = args[i];
  std::vector<std::string> rest(args.begin() + static_cast<long>(i) + 1, args.end());
  // help COMMAND [VERB] is COMMAND [VERB] --help.
  if (command == "help" && !rest.empty() && rest[0] != "help") {
    command = rest[0];
    rest.erase(rest.begin());
    rest.push_back("--help");
  }

  InstallLogSink(globals.verbose);
  EnableProgress(!globals.verbose);
  if (command == "demo") return RunDemo(rest, globals);
  if (command == "version") return RunVersion();
  if (!device_dir.empty()) setenv("TAVIKM_DEVICE_DIR", device_dir.c_str(), 1);
  tavikm_host::ResetProperties();
  ApplyProps(globals.props);
  // Resolved at the first line, so --help never creates a device directory.
  SetLogFile([] { return tavikm_host::DevicePath("log.txt"); });

  if (command == "setup") return RunSetup(rest);
  if (command == "unlock") return RunUnlock(rest);
  if (command == "passwd") return RunPasswd(rest);
  if (command == "inspect") return RunInspect(rest);
  if (command == "kek") return RunKek(rest);
  if (command == "list") return RunList(rest);
  if (command == "backup") return RunBackup(rest);
  if (command == "restore") return RunRestore(rest);
  if (command == "erase") return RunErase(rest);
  if (command == "benchmark") return RunBenchmark(rest);
  if (command == "help") {
    printf("%s\n%s", kUsage, kHelp);
    return kExitOk;
  }
  throw UsageError("unknown command " + command);
}

}  // namespace

int main(int argc, char** argv) {
  HardenProcess();
  // Every file and folder the tool and the host platform create holds keys or their traces:
  // owner only, whatever umask the caller had.
  umask(077);
  std::vector<std::string> args(argv + 1, argv + argc);
  try {
    return FinishOutput(Run(args));
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
