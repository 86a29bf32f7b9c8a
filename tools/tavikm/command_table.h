// SPDX-License-Identifier: Apache-2.0
// The tavikm tool's commands and options, declared once. The table drives the parsing of a
// command line, the dispatch to each command, the usage line shown after a usage error, every
// --help and `help COMMAND`, the tool's own help, and (through tavikm_docs) the bash completion
// and the man page's synopsis, options and commands, so none of them can disagree.
#ifndef TAVIKM_TOOLS_COMMAND_TABLE_H_
#define TAVIKM_TOOLS_COMMAND_TABLE_H_

#include <stddef.h>

#include <optional>
#include <string>
#include <vector>

namespace tavikm_tool {

// What the shell completes for an option's value or an operand.
enum class Completion { kNothing, kFiles, kDirectories, kChoices, kCommands };

struct Globals;

struct Option {
  const char* name;         // "--offset"
  const char* short_name;   // "-q", or nullptr
  const char* placeholder;  // "N" in the option list; nullptr for a flag
  const char* choices;      // "16|32": in the usage line instead of the placeholder, completed
  bool repeatable;          // each occurrence is kept; the usage line shows [...]...
  Completion completion;    // of the value
  // One line per '\n'; the option list indents the lines after the first under it.
  const char* help;
  // Global options only: applied as it is met on the command line (may throw a usage error).
  void (*apply)(Globals* globals, const std::string& value) = nullptr;
  // Global options only: the command this option runs in place of the rest (--version).
  const char* runs = nullptr;

  bool TakesValue() const { return placeholder != nullptr; }
};

// A word of the usage line after the command's name: a positional argument, one that options
// may stand in for (KEY_LOC|--entry NAME|--file PATH), or a required choice of options only.
struct Operand {
  const char* text;  // "KEY_LOC", "FILE|-", "[FILE]..."; nullptr for a choice of options only
  size_t min, max;   // how many positional arguments it takes
  Completion completion;
  std::vector<const char*> alternatives;  // option names, shown after text joined by '|'
  const char* about = nullptr;            // a paragraph the command's help adds about it
};

class Invocation;
using Handler = int (*)(const Invocation& invocation);

struct Command {
  const char* name;
  std::vector<Operand> operands;
  std::vector<const Option*> options;
  const char* summary;  // in the tool's list of commands, one line per '\n'
  // --help's text between the usage line and the options; a group's also opens each verb's.
  const char* description;
  const char* epilogue;  // --help's text after the options, or nullptr
  Handler run;           // nullptr for a group of verbs
  std::vector<Command> verbs;
  // demo makes its own device directory; help and version need none.
  bool needs_device = true;
};

// The table itself.
const std::vector<Command>& Commands();
const std::vector<const Option*>& GlobalOptions();
// The tool's help between its usage line and the list of commands, and after the options.
const char* ToolDescription();
const char* ToolEpilogue();

// The texts the table makes. `path` is the words after "tavikm": {"kek", "put"}.
const Command* FindCommand(const std::vector<std::string>& path);
std::string UsageLine(const std::vector<const Command*>& path);  // "usage: tavikm ..."
std::string HelpText(const std::vector<const Command*>& path);   // usage line first
std::string ToolUsageLine();
std::string ToolHelpText();
// "setup KEY_LOC": the name and its positional arguments (the verbs for a group).
std::string CommandLabel(const Command& command);
// "--kdf K", "-q, --batch".
std::string OptionLabel(const Option& option);
// A usage line in pieces, each tagged for a renderer (the man page sets them in other fonts). A
// space of kind kJoin keeps an option and its value on one line.
struct UsagePiece {
  enum Kind { kLiteral, kPlaceholder, kPunctuation, kSpace, kJoin } kind;
  std::string text;
};
// Without `optional`, only what the command requires: its name, operands and their alternatives.
std::vector<UsagePiece> UsagePieces(const std::vector<const Command*>& path, bool optional = true);
std::vector<UsagePiece> ToolUsagePieces();

// The global options and the command's words, parsed against the table.
struct Globals {
  std::string device_dir;
  bool device_dir_given = false;
  std::vector<std::string> props;  // KEY=VALUE
  bool verbose = false;
};

class Invocation {
 public:
  Invocation(const Command* command, const Globals* globals)
      : command_(command), globals_(globals) {}

  bool Flag(const char* name) const { return Count(name) > 0; }
  // The last value given, if any.
  std::optional<std::string> Value(const char* name) const;
  const std::vector<std::string>& Values(const char* name) const;
  const std::vector<std::string>& positional() const { return positional_; }
  const Globals& globals() const { return *globals_; }

 private:
  friend std::optional<Invocation> ParseCommand(const std::vector<const Command*>& path,
                                                const std::vector<std::string>& args,
                                                const Globals* globals);
  size_t Count(const char* name) const;
  size_t IndexOf(const char* name) const;  // throws std::logic_error for an undeclared option

  const Command* command_;
  const Globals* globals_;
  std::vector<std::vector<std::string>> values_;  // per option of the command, in table order
  std::vector<size_t> counts_;
  std::vector<std::string> positional_;
};

// Parses a command's words (after its name). Options may come before, between or after the
// positional arguments; "--name value" and "--name=value" are both accepted, "--" ends the
// options. Returns nullopt when --help was asked (the help is already printed). Throws a usage
// ToolError for unknown options, missing values and a wrong count of positional arguments.
std::optional<Invocation> ParseCommand(const std::vector<const Command*>& path,
                                       const std::vector<std::string>& args,
                                       const Globals* globals);

// The whole command line: global options, then one command. Returns the exit code.
int RunCommandLine(const std::vector<std::string>& args);
// One command and its words, after the global options.
int Dispatch(const std::vector<std::string>& words, const Globals& globals);

// Handlers the table names (commands.cpp, backup.cpp, list.cpp, benchmark.cpp, demo.cpp).
int RunSetup(const Invocation& invocation);
int RunUnlock(const Invocation& invocation);
int RunPasswd(const Invocation& invocation);
int RunInspect(const Invocation& invocation);
int RunKekPut(const Invocation& invocation);
int RunKekGet(const Invocation& invocation);
int RunKekDelete(const Invocation& invocation);
int RunList(const Invocation& invocation);
int RunBackup(const Invocation& invocation);
int RunRestore(const Invocation& invocation);
int RunErase(const Invocation& invocation);
int RunBenchmark(const Invocation& invocation);
int RunDemo(const Invocation& invocation);

}  // namespace tavikm_tool

#endif  // TAVIKM_TOOLS_COMMAND_TABLE_H_
