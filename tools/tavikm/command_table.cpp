// SPDX-License-Identifier: Apache-2.0
// The tavikm tool's commands, their operands and options, and every help text about them. An
// option shared by several commands with one meaning is declared once; an option whose meaning
// differs between commands (--offset of setup and restore, --force) has an entry per meaning.
#include <stdint.h>
#include <stdio.h>

#include <string>

#include "cli.h"
#include "command_table.h"
#include "confirm.h"
#include "lock.h"
#include "version.h"

namespace tavikm_tool {
namespace {

constexpr size_t kMany = SIZE_MAX;

// Global options.

void ApplyDeviceDir(Globals* globals, const std::string& value) {
  if (value.empty()) throw UsageError("--device-dir needs a directory");
  globals->device_dir = value;
  globals->device_dir_given = true;
}

void ApplyProp(Globals* globals, const std::string& value) { globals->props.push_back(value); }

void ApplyWait(Globals*, const std::string& value) {
  uint64_t seconds = ParseUnsigned(value, "--wait");
  SetLockWait(seconds > 3600 ? 3600 : static_cast<unsigned>(seconds));
}

void ApplyBatch(Globals*, const std::string&) { SetBatch(true); }

void ApplyVerbose(Globals* globals, const std::string&) { globals->verbose = true; }

// The kinds of option an entry declares.
Option Flag(const char* name, const char* help) {
  return {name, nullptr, nullptr, nullptr, false, Completion::kNothing, help};
}
Option Value(const char* name, const char* placeholder, const char* help,
             Completion completion = Completion::kNothing) {
  return {name, nullptr, placeholder, nullptr, false, completion, help};
}
Option Choice(const char* name, const char* placeholder, const char* choices, const char* help) {
  return {name, nullptr, placeholder, choices, false, Completion::kChoices, help};
}
// A global option: applied where it stands, or running a command in place of the rest.
Option Global(Option option, void (*apply)(Globals*, const std::string&),
              const char* short_name = nullptr) {
  option.apply = apply;
  option.short_name = short_name;
  return option;
}
Option Runs(Option option, const char* command, const char* short_name = nullptr) {
  option.runs = command;
  option.short_name = short_name;
  return option;
}
Option Repeatable(Option option) {
  option.repeatable = true;
  return option;
}

const Option kDeviceDir = Global(Value("--device-dir", "DIR",
                                       "the emulated device's state (default $TAVIKM_DEVICE_DIR,\n"
                                       "else $XDG_STATE_HOME/tavikm/device, else\n"
                                       "~/.local/state/tavikm/device)",
                                       Completion::kDirectories),
                                 ApplyDeviceDir);
const Option kProp = Global(Repeatable(Value("--prop", "KEY=VALUE",
                                             "set a system property for this run (repeatable), "
                                             "e.g.\n"
                                             "ro.product.tavi.support_mdfpp=true,\n"
                                             "ro.crypto.scrypt_params=12:3:1")),
                            ApplyProp);
const Option kWait = Global(Value("--wait", "SECONDS",
                                  "how long to wait for another command using the same record\n"
                                  "(default 10), then give up with \"... is busy\"; also how\n"
                                  "long a FIFO given as password or key file may stay silent"),
                            ApplyWait);
const Option kBatch = Global(Flag("--batch",
                                  "never ask before replacing or removing a record or a KEK\n"
                                  "(off a terminal the tool never asks)"),
                             ApplyBatch, "-q");
const Option kVerbose = Global(Flag("--verbose",
                                    "library log lines to stderr, not to log.txt in the device\n"
                                    "directory"),
                               ApplyVerbose, "-v");
const Option kVersion = Runs(Flag("--version", "the same as the version command"), "version");
const Option kToolHelp =
    Runs(Flag("--help", "this text, the same as the help command"), "help", "-h");

// Options of the commands.

const Option kOffset =
    Value("--offset", "N", "where the record lies in a metadata file (default 0)");
const Option kSetupOffset = Value("--offset", "N",
                                  "for a metadata file: where the record goes (default 0);\n"
                                  "no byte outside it changes, and it may not overlap another\n"
                                  "record");
const Option kRestoreOffset = Value("--offset", "N",
                                    "where to write it in a metadata file (default: where\n"
                                    "it was taken)");
const Option kPasswordFile = Value("--password-file", "FILE",
                                   "read the password from the first line of FILE (- for\n"
                                   "standard input) instead of asking on the terminal",
                                   Completion::kFiles);
const Option kNewPasswordFile = Value("--new-password-file", "FILE",
                                      "read the new password from FILE (- for standard input: the\n"
                                      "line after the old password when both are -)",
                                      Completion::kFiles);
const Option kAllowEmptyPassword =
    Flag("--allow-empty-password", "accept an empty new password (anyone can then unlock)");
const Option kAllowCost = Flag("--allow-cost",
                               "derive even when the record asks for scrypt beyond\n"
                               "N·r·p·128 = 1 GiB");
const Option kShowKey = Flag("--show-key", "also print the master key itself");
const Option kKdf = Choice("--kdf", "K", "default|1|2|4|5",
                           "1 PBKDF2, 2 scrypt, 4 PBKDF2 with REK, 5 scrypt bound to\n"
                           "Keymaster; default lets the library choose (4 in MDFPP\n"
                           "mode, else 5 or 2)");
const Option kKeysize =
    Choice("--keysize", "B", "16|32", "master key length in bytes, 16 or 32 (default 32)");
const Option kSetupForce = Flag("--force",
                                "replace whatever the record's place holds (the old key is\n"
                                "lost)");
const Option kEntry = Value("--entry", "NAME",
                            "read the secure-storage entry NAME, whatever the MDFPP flag\n"
                            "says");
const Option kFile =
    Value("--file", "PATH", "read PATH as a metadata file, whatever the MDFPP flag says",
          Completion::kFiles);
const Option kInspectJson = Flag("--json", "print one JSON object instead of text");
const Option kListJson = Flag("--json", "print one JSON object instead of tables");
const Option kRestoreForce = Flag("--force", "restore a backup taken of another key location");
const Option kDestroyKey = Flag("--destroy-key",
                                "also delete the record's Keymaster key, so that no backup\n"
                                "of a kdf 4 or 5 record opens again");
const Option kHex = Value("--hex", "HEX",
                          "the KEK as hexadecimal text (16 or 32 bytes; visible to\n"
                          "other users in the process list, prefer --key-file)");
const Option kKeyFile = Value("--key-file", "FILE",
                              "read the KEK as hexadecimal text from FILE (- for standard\n"
                              "input)",
                              Completion::kFiles);
const Option kRandom = Flag("--random", "a new random KEK of --keysize bytes");
const Option kKekKeysize =
    Choice("--keysize", "B", "16|32", "the random KEK's length in bytes, 16 or 32 (default 32)");
const Option kShowKek = Flag("--show-key", "print the KEK itself, not only its fingerprint");
const Option kKekForce = Flag("--force", "replace an existing entry of that name");
const Option kUnlockMs =
    Value("--unlock-ms", "N", "the time an unlock may take, 10 to 60000 ms (default 1000)");
const Option kKeep = Flag("--keep", "keep the device directory");

// Operands.

const char kKeyLocAbout[] =
    "KEY_LOC is a secure-storage entry when ro.product.tavi.support_mdfpp is \"true\" and it does\n"
    "not begin with '/'; otherwise it is the path of a metadata file (16384 bytes), and the\n"
    "record lies at --offset N in it.\n";

const Operand kKeyLoc{"KEY_LOC", 1, 1, Completion::kFiles, {}, kKeyLocAbout};
const Operand kBackupFile{"FILE|-", 1, 1, Completion::kFiles, {}};

const char kKekStore[] =
    "KEKs live in secure storage, encrypted by the Keymaster, under NAME (a record's key\n"
    "location is a name in the same store).\n";

int RunHelp(const Invocation& invocation);

int RunVersionCommand(const Invocation&) { return RunVersion(); }

std::vector<Command> MakeCommands() {
  const Operand kek_name{"NAME", 1, 1, Completion::kNothing, {}};
  return {
      {"setup",
       {kKeyLoc},
       {&kKdf, &kKeysize, &kSetupOffset, &kPasswordFile, &kAllowEmptyPassword, &kShowKey,
        &kSetupForce, &kAllowCost},
       "create a record: a new master key under a new password",
       "Creates a record for KEY_LOC with a new random master key wrapped under a new\n"
       "password, and prints where it is, its KDF and the master key's fingerprint.\n",
       nullptr,
       RunSetup,
       {}},
      {"unlock",
       {kKeyLoc},
       {&kOffset, &kPasswordFile, &kShowKey, &kAllowCost},
       "unwrap the master key with the password, show its fingerprint",
       "Reads the record of KEY_LOC, unwraps its master key with the password and prints\n"
       "the key's fingerprint. A record the library upgrades on the way (an older\n"
       "generation, a Keymaster key bound to an older patch level) is stored again.\n",
       "Exit status 2 means a wrong password. A key that opens only under the all-zero key\n"
       "(whatever the password) is reported with a warning and exit status 4.\n",
       RunUnlock,
       {}},
      {"passwd",
       {kKeyLoc},
       {&kOffset, &kPasswordFile, &kNewPasswordFile, &kAllowEmptyPassword, &kAllowCost},
       "wrap the same master key under a new password",
       "Changes the password of KEY_LOC: unwraps the master key with the old password,\n"
       "wraps the same key under the new one with a new salt, and stores the record\n"
       "only when that succeeded; on any failure the old record stays as it was.\n",
       nullptr,
       RunPasswd,
       {}},
      {"inspect",
       {{"KEY_LOC", 0, 1, Completion::kFiles, {"--entry", "--file"}, kKeyLocAbout}},
       {&kEntry, &kFile, &kOffset, &kInspectJson},
       "decode a stored record field by field, without a password",
       "Decodes every field of a stored record or KEK without a password and without the\n"
       "library's checks: a secure-storage entry is read as stored (an older generation\n"
       "shows its real length and is not upgraded), a file's 2704 bytes at the offset\n"
       "are shown whatever they hold. An all-zero slot is reported as empty (exit status 3).\n",
       nullptr,
       RunInspect,
       {}},
      {"list",
       {{"[FILE]...", 0, kMany, Completion::kFiles, {}}},
       {&kListJson},
       "the entries of secure storage, the records in metadata files",
       "Lists the entries of secure storage, records and KEKs, with their KDF (type, then the\n"
       "scrypt factors N:r:p), their key size in bytes and their generation; and for each\n"
       "metadata FILE (a regular file or a block device), the records at every byte offset\n"
       "that holds one: the whole FILE is read, with a status line on a terminal while that\n"
       "takes long. Names are shown with control characters as \\xNN. No password is needed.\n",
       nullptr,
       RunList,
       {}},
      {"backup",
       {kKeyLoc, kBackupFile},
       {&kOffset},
       "save a record to FILE (- standard output), with a SHA-256",
       "Copies the stored record of KEY_LOC into a new FILE, with a header and a SHA-256\n"
       "that restore checks; - writes it to standard output (not to a terminal). The\n"
       "record holds the wrapped master key: keep FILE as safe as the disk.\n",
       nullptr,
       RunBackup,
       {}},
      {"restore",
       {kKeyLoc, kBackupFile},
       {&kRestoreOffset, &kRestoreForce},
       "write a saved record back (- from standard input)",
       "Writes the record saved in FILE by tavikm backup back to KEY_LOC, replacing\n"
       "what is stored there; - reads it from standard input (not from a terminal).\n"
       "A FILE whose SHA-256 does not match is refused and nothing is written.\n",
       nullptr,
       RunRestore,
       {}},
      {"erase",
       {kKeyLoc},
       {&kOffset, &kDestroyKey},
       "remove a record (--destroy-key: and its Keymaster key)",
       "Removes the record of KEY_LOC as the library deletes one: a secure-storage\n"
       "entry is removed, a record in a metadata file is overwritten with zeros. A\n"
       "backup of it can still be restored. A KEK is refused (tavikm kek delete).\n",
       nullptr,
       RunErase,
       {}},
      {"kek",
       {},
       {},
       "the store of key-encryption keys",
       kKekStore,
       nullptr,
       nullptr,
       {
           {"put",
            {kek_name, {nullptr, 0, 0, Completion::kNothing, {"--hex", "--key-file", "--random"}}},
            {&kHex, &kKeyFile, &kRandom, &kKekKeysize, &kShowKek, &kKekForce},
            "store a KEK",
            nullptr,
            nullptr,
            RunKekPut,
            {}},
           {"get",
            {kek_name},
            {&kShowKek},
            "print a KEK's fingerprint",
            "Prints the KEK's length and fingerprint. When the library answers that\n"
            "the Keymaster key was upgraded on the way, it is asked once more; the\n"
            "library has then stored the entry NAME again with the upgraded key.\n",
            nullptr,
            RunKekGet,
            {}},
           {"delete", {kek_name}, {}, "remove a KEK", nullptr, nullptr, RunKekDelete, {}},
       }},
      {"benchmark",
       {},
       {&kUnlockMs},
       "KDF timings on this machine, and the scrypt cost for an\n"
       "unlock time here",
       "Times PBKDF2 (kdf 1 and 4) and scrypt (kdf 2 and 5) on this machine, and prints the\n"
       "ro.crypto.scrypt_params value whose scrypt takes the longest here within --unlock-ms.\n"
       "The figures and the proposal are this machine's, not a device's: a phone's CPU and\n"
       "memory give other times, so run the benchmark where the property is to be set. scrypt\n"
       "is timed with the default r and p (r=8, p=2) at growing N until one run takes an eighth\n"
       "of the unlock time; larger N are estimated (scrypt's time grows with N), so the run\n"
       "itself stays short. The scrypt line names the Salsa20/8 implementation that ran. kdf 5\n"
       "adds one Keymaster signature to each unlock.\n",
       nullptr,
       RunBenchmark,
       {}},
      {"demo",
       {},
       {&kKeep},
       "a narrated tour in a throwaway device directory",
       "A narrated tour of the library: setup and unlock with every KDF, a wrong\n"
       "password, CBC-only mode, a password change, a Keymaster key upgrade, an old\n"
       "record upgraded, KEKs. It runs in a new device directory that is removed at\n"
       "the end (kept when a step fails). Global --prop settings apply on top of the\n"
       "demo's own (scrypt parameters 10:0:0).\n",
       nullptr,
       RunDemo,
       {},
       false},
      {"help",
       {{"[COMMAND [VERB]]", 0, 2, Completion::kCommands, {}}},
       {},
       "this text, or the command's own help",
       "Without a COMMAND, the tool's help: its commands and global options. With one (and\n"
       "a kek verb), the same as tavikm COMMAND [VERB] --help.\n",
       nullptr,
       RunHelp,
       {},
       false},
      {"version",
       {},
       {},
       "the versions of the tool and of the library it loaded",
       "Prints the version of the tool and that of the libtavikm it runs with, and where\n"
       "that library was loaded from.\n",
       nullptr,
       RunVersionCommand,
       {},
       false},
  };
}

int RunHelp(const Invocation& invocation) {
  const std::vector<std::string>& words = invocation.positional();
  if (words.empty()) {
    fputs(ToolHelpText().c_str(), stdout);
    return kExitOk;
  }
  // help COMMAND [VERB] is COMMAND [VERB] --help.
  std::vector<std::string> args = words;
  args.push_back("--help");
  return Dispatch(args, invocation.globals());
}

}  // namespace

const std::vector<Command>& Commands() {
  static const std::vector<Command> commands = MakeCommands();
  return commands;
}

const std::vector<const Option*>& GlobalOptions() {
  static const std::vector<const Option*> options = {&kDeviceDir, &kProp,    &kWait,    &kBatch,
                                                     &kVerbose,   &kVersion, &kToolHelp};
  return options;
}

const char* ToolDescription() {
  return "Key management for storage encryption, on the host platform's emulated device.\n";
}

const char* ToolEpilogue() {
  return "Exit status: 0 success, 1 usage or unusable input, 2 wrong password, 3 no such record\n"
         "or KEK, 4 any other failure.\n";
}

}  // namespace tavikm_tool
