// SPDX-License-Identifier: Apache-2.0
// What the command table makes: the parsing of a command line, the dispatch to a command, and
// the usage lines and help texts.
#include <stdio.h>
#include <stdlib.h>

#include <stdexcept>
#include <utility>

#include "cli.h"
#include "command_table.h"
#include "commands.h"
#include "log_sink.h"
#include "progress.h"
#include "tavikm_host/device.h"

namespace tavikm_tool {
namespace {

// The option lists' first column: two spaces and 24 characters, then the text.
constexpr size_t kLabelWidth = 24;
constexpr size_t kTextColumn = 2 + kLabelWidth + 1;

std::string TwoColumns(const std::string& label, const std::string& text) {
  std::string out = "  " + label;
  if (label.size() <= kLabelWidth) {
    out += std::string(kLabelWidth + 1 - label.size(), ' ');
  } else {
    out += "\n" + std::string(kTextColumn, ' ');
  }
  for (char c : text) {
    out += c;
    if (c == '\n') out += std::string(kTextColumn, ' ');
  }
  return out + "\n";
}

const Option* Match(const std::vector<const Option*>& options, const std::string& name) {
  for (const Option* option : options) {
    if (name == option->name || (option->short_name && name == option->short_name)) return option;
  }
  return nullptr;
}

// A word of a usage text: capitals are placeholders, '-' alone is literal, the rest punctuation.
void AddWord(const std::string& text, std::vector<UsagePiece>* pieces) {
  for (size_t i = 0; i < text.size();) {
    size_t j = i;
    if ((text[i] >= 'A' && text[i] <= 'Z') || text[i] == '_') {
      while (j < text.size() && ((text[j] >= 'A' && text[j] <= 'Z') || text[j] == '_')) ++j;
      pieces->push_back({UsagePiece::kPlaceholder, text.substr(i, j - i)});
    } else if (text[i] == ' ') {
      ++j;
      pieces->push_back({UsagePiece::kSpace, " "});
    } else if (text[i] == '-' || (text[i] >= 'a' && text[i] <= 'z') ||
               (text[i] >= '0' && text[i] <= '9')) {
      while (j < text.size() && (text[j] == '-' || (text[j] >= 'a' && text[j] <= 'z') ||
                                 (text[j] >= '0' && text[j] <= '9'))) {
        ++j;
      }
      pieces->push_back({UsagePiece::kLiteral, text.substr(i, j - i)});
    } else {
      while (j < text.size() && std::string("[]|.=").find(text[j]) != std::string::npos) ++j;
      if (j == i) ++j;
      pieces->push_back({UsagePiece::kPunctuation, text.substr(i, j - i)});
    }
    i = j;
  }
}

// "--kdf default|1|2|4|5", "--offset N", "-q": the option as a usage line shows it.
void AddOption(const Option& option, std::vector<UsagePiece>* pieces) {
  pieces->push_back({UsagePiece::kLiteral,
                     option.short_name && !option.TakesValue() ? option.short_name : option.name});
  if (!option.TakesValue()) return;
  pieces->push_back({UsagePiece::kJoin, " "});
  if (option.choices) {
    // Every choice is a literal word.
    std::string choices = option.choices;
    size_t start = 0;
    for (size_t bar; (bar = choices.find('|', start)) != std::string::npos; start = bar + 1) {
      pieces->push_back({UsagePiece::kLiteral, choices.substr(start, bar - start)});
      pieces->push_back({UsagePiece::kPunctuation, "|"});
    }
    pieces->push_back({UsagePiece::kLiteral, choices.substr(start)});
  } else {
    AddWord(option.placeholder, pieces);
  }
}

void AddOptional(const Option& option, std::vector<UsagePiece>* pieces) {
  pieces->push_back({UsagePiece::kSpace, " "});
  pieces->push_back({UsagePiece::kPunctuation, "["});
  AddOption(option, pieces);
  pieces->push_back({UsagePiece::kPunctuation, option.repeatable ? "]..." : "]"});
}

std::string Render(const std::vector<UsagePiece>& pieces) {
  std::string text;
  for (const UsagePiece& piece : pieces) text += piece.text;
  return text;
}

bool IsAlternative(const Command& command, const Option& option) {
  for (const Operand& operand : command.operands) {
    for (const char* name : operand.alternatives) {
      if (option.name == std::string(name)) return true;
    }
  }
  return false;
}

const Option* OptionOf(const Command& command, const std::string& name) {
  const Option* option = Match(command.options, name);
  if (!option) throw std::logic_error(std::string(command.name) + " has no option " + name);
  return option;
}

// The positional words of a command ("KEY_LOC FILE|-"), or of each verb when they all agree.
std::string OperandText(const Command& command) {
  if (!command.verbs.empty()) {
    std::string first = OperandText(command.verbs[0]);
    for (const Command& verb : command.verbs) {
      if (OperandText(verb) != first) return "";
    }
    return first;
  }
  std::string text;
  for (const Operand& operand : command.operands) {
    if (operand.text) text += std::string(" ") + operand.text;
  }
  return text;
}

std::string VerbNames(const Command& command) {
  std::string names;
  for (const Command& verb : command.verbs)
    names += (names.empty() ? "" : "|") + std::string(verb.name);
  return names;
}

void PrepareDevice(const Globals& globals) {
  if (!globals.device_dir.empty()) setenv("TAVIKM_DEVICE_DIR", globals.device_dir.c_str(), 1);
  tavikm_host::ResetProperties();
  ApplyProps(globals.props);
  // Resolved at the first line, so --help never creates a device directory.
  SetLogFile([] { return tavikm_host::DevicePath("log.txt"); });
}

}  // namespace

std::string OptionLabel(const Option& option) {
  std::string label = option.short_name ? std::string(option.short_name) + ", " : "";
  label += option.name;
  if (option.TakesValue()) label += std::string(" ") + option.placeholder;
  return label;
}

std::string CommandLabel(const Command& command) {
  std::string label = command.name;
  if (!command.verbs.empty()) label += " " + VerbNames(command);
  return label + OperandText(command);
}

std::vector<UsagePiece> UsagePieces(const std::vector<const Command*>& path, bool optional) {
  std::vector<UsagePiece> pieces = {{UsagePiece::kLiteral, "tavikm"}};
  for (const Command* command : path) {
    pieces.push_back({UsagePiece::kSpace, " "});
    pieces.push_back({UsagePiece::kLiteral, command->name});
  }
  const Command& command = *path.back();
  if (!command.verbs.empty()) {
    pieces.push_back({UsagePiece::kSpace, " "});
    AddWord(VerbNames(command), &pieces);
    AddWord(OperandText(command), &pieces);
    if (!optional) return pieces;
    pieces.push_back({UsagePiece::kSpace, " "});
    pieces.push_back({UsagePiece::kPunctuation, "["});
    pieces.push_back({UsagePiece::kPlaceholder, "options"});
    pieces.push_back({UsagePiece::kPunctuation, "]"});
    return pieces;
  }
  for (const Operand& operand : command.operands) {
    pieces.push_back({UsagePiece::kSpace, " "});
    bool first = true;
    if (operand.text) {
      AddWord(operand.text, &pieces);
      first = false;
    }
    for (const char* name : operand.alternatives) {
      if (!first) pieces.push_back({UsagePiece::kPunctuation, "|"});
      AddOption(*OptionOf(command, name), &pieces);
      first = false;
    }
  }
  for (const Option* option : command.options) {
    if (optional && !IsAlternative(command, *option)) AddOptional(*option, &pieces);
  }
  return pieces;
}

std::vector<UsagePiece> ToolUsagePieces() {
  std::vector<UsagePiece> pieces = {{UsagePiece::kLiteral, "tavikm"}};
  for (const Option* option : GlobalOptions()) {
    if (!option->runs) AddOptional(*option, &pieces);
  }
  AddWord(" COMMAND ...", &pieces);
  return pieces;
}

std::string UsageLine(const std::vector<const Command*>& path) {
  return "usage: " + Render(UsagePieces(path));
}

std::string ToolUsageLine() { return "usage: " + Render(ToolUsagePieces()); }

std::string HelpText(const std::vector<const Command*>& path) {
  const Command& command = *path.back();
  std::string text = UsageLine(path) + "\n";
  if (path.size() > 1 && path[path.size() - 2]->description) {
    // A verb's help begins with what its group is.
    text += path[path.size() - 2]->description;
    if (command.description) text += "\n";
  }
  if (command.description) text += command.description;
  for (const Operand& operand : command.operands) {
    if (operand.about) text += std::string("\n") + operand.about;
  }
  if (!command.verbs.empty()) {
    text += "\n";
    for (const Command& verb : command.verbs) text += TwoColumns(CommandLabel(verb), verb.summary);
    text += "See tavikm " + std::string(command.name) + " " + VerbNames(command) + " --help.\n";
  } else if (!command.options.empty()) {
    text += "\n";
    for (const Option* option : command.options) {
      text += TwoColumns(OptionLabel(*option), option->help);
    }
  }
  if (command.epilogue) text += std::string("\n") + command.epilogue;
  return text;
}

std::string ToolHelpText() {
  std::string text = ToolUsageLine() + "\n" + ToolDescription() + "\nCommands:\n";
  for (const Command& command : Commands()) {
    text += TwoColumns(CommandLabel(command), command.summary);
  }
  text += "Each command explains itself with --help.\n\nOptions (before the command):\n";
  for (const Option* option : GlobalOptions()) {
    text += TwoColumns(OptionLabel(*option), option->help);
  }
  return text + "\n" + ToolEpilogue();
}

const Command* FindCommand(const std::vector<std::string>& path) {
  const std::vector<Command>* commands = &Commands();
  const Command* found = nullptr;
  for (const std::string& word : path) {
    found = nullptr;
    for (const Command& command : *commands) {
      if (word == command.name) found = &command;
    }
    if (!found) return nullptr;
    commands = &found->verbs;
  }
  return found;
}

size_t Invocation::IndexOf(const char* name) const {
  for (size_t i = 0; i < command_->options.size(); ++i) {
    if (std::string(name) == command_->options[i]->name) return i;
  }
  // A handler asking for an option its table entry lacks: a fault of the tool, not of the user.
  throw std::logic_error(std::string(command_->name) + " has no option " + name);
}

size_t Invocation::Count(const char* name) const { return counts_[IndexOf(name)]; }

std::optional<std::string> Invocation::Value(const char* name) const {
  const std::vector<std::string>& values = values_[IndexOf(name)];
  if (values.empty()) return std::nullopt;
  return values.back();
}

const std::vector<std::string>& Invocation::Values(const char* name) const {
  return values_[IndexOf(name)];
}

std::optional<Invocation> ParseCommand(const std::vector<const Command*>& path,
                                       const std::vector<std::string>& args,
                                       const Globals* globals) {
  const Command& command = *path.back();
  SetCurrentUsage(UsageLine(path));
  Invocation invocation(&command, globals);
  invocation.values_.resize(command.options.size());
  invocation.counts_.resize(command.options.size());
  bool options_ended = false;
  for (size_t i = 0; i < args.size(); ++i) {
    const std::string& arg = args[i];
    if (options_ended || arg == "-" || arg.size() < 2 || arg[0] != '-') {
      invocation.positional_.push_back(arg);
      continue;
    }
    if (arg == "--") {
      options_ended = true;
      continue;
    }
    if (arg == "--help" || arg == "-h") {
      fputs(HelpText(path).c_str(), stdout);
      return std::nullopt;
    }
    std::string name = arg;
    std::optional<std::string> inline_value;
    if (size_t eq = arg.find('='); eq != std::string::npos && arg.rfind("--", 0) == 0) {
      name = arg.substr(0, eq);
      inline_value = arg.substr(eq + 1);
    }
    const Option* option = Match(command.options, name);
    if (!option && Match(GlobalOptions(), name)) {
      throw UsageError(name + " is a global option: put it before the command");
    }
    if (!option) throw UsageError("unknown option " + name);
    size_t index = invocation.IndexOf(option->name);
    ++invocation.counts_[index];
    if (!option->TakesValue()) {
      if (inline_value) throw UsageError(name + " takes no value");
    } else if (inline_value) {
      invocation.values_[index].push_back(*inline_value);
    } else if (i + 1 < args.size()) {
      invocation.values_[index].push_back(args[++i]);
    } else {
      throw UsageError(name + " needs a value");
    }
  }
  size_t min = 0, max = 0;
  for (const Operand& operand : command.operands) {
    min += operand.min;
    max = operand.max > SIZE_MAX - max ? SIZE_MAX : max + operand.max;
  }
  if (invocation.positional_.size() < min) throw UsageError("missing argument");
  if (invocation.positional_.size() > max) {
    throw UsageError("unexpected argument " + invocation.positional_[max]);
  }
  return invocation;
}

int Dispatch(const std::vector<std::string>& words, const Globals& globals) {
  const Command* command = FindCommand({words[0]});
  if (!command) throw UsageError("unknown command " + words[0]);
  std::vector<const Command*> path = {command};
  std::vector<std::string> rest(words.begin() + 1, words.end());
  if (command->needs_device) PrepareDevice(globals);
  if (!command->verbs.empty()) {
    SetCurrentUsage(UsageLine(path));
    const std::string group = command->name;
    if (rest.empty()) throw UsageError("missing " + group + " command");
    if (rest[0] == "--help" || rest[0] == "-h") {
      fputs(HelpText(path).c_str(), stdout);
      return kExitOk;
    }
    const Command* verb = FindCommand({group, rest[0]});
    if (!verb) throw UsageError("unknown " + group + " command " + rest[0]);
    path.push_back(verb);
    rest.erase(rest.begin());
  }
  std::optional<Invocation> invocation = ParseCommand(path, rest, &globals);
  if (!invocation) return kExitOk;
  return path.back()->run(*invocation);
}

int RunCommandLine(const std::vector<std::string>& args) {
  SetCurrentUsage(ToolUsageLine());
  Globals globals;
  size_t i = 0;
  // Global options apply in order until the first word that is not one.
  for (; i < args.size() && !args[i].empty() && args[i][0] == '-'; ++i) {
    const std::string& arg = args[i];
    std::string name = arg;
    std::optional<std::string> inline_value;
    if (size_t eq = arg.find('='); eq != std::string::npos && arg.rfind("--", 0) == 0) {
      name = arg.substr(0, eq);
      inline_value = arg.substr(eq + 1);
    }
    const Option* option = Match(GlobalOptions(), name);
    if (!option) throw UsageError("unknown option " + name);
    std::string value;
    if (!option->TakesValue()) {
      if (inline_value) throw UsageError(name + " takes no value");
    } else if (inline_value) {
      value = *inline_value;
    } else if (i + 1 < args.size()) {
      value = args[++i];
    } else {
      throw UsageError(name + " needs a value");
    }
    if (option->apply) option->apply(&globals, value);
    if (option->runs) return Dispatch({option->runs}, globals);
  }
  if (i == args.size()) throw UsageError("missing command");
  InstallLogSink(globals.verbose);
  EnableProgress(!globals.verbose);
  return Dispatch(std::vector<std::string>(args.begin() + static_cast<long>(i), args.end()),
                  globals);
}

}  // namespace tavikm_tool
