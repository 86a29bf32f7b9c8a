// SPDX-License-Identifier: Apache-2.0
// tavikm_docs: writes the bash completion (tools/tavikm.bash-completion) and the generated parts
// of the man page (tools/tavikm.8, between its marker comments) from the tool's command table.
// The man page's prose stays hand-written. With --check it writes nothing and fails when the
// files differ from what it would write.
// Usage: tavikm_docs [--check] SOURCE_DIR
#include <stdio.h>

#include <fstream>
#include <map>
#include <set>
#include <sstream>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include "tools/tavikm/command_table.h"

namespace tavikm_tool {
namespace {

const char kCompletionPath[] = "tools/tavikm.bash-completion";
const char kManPath[] = "tools/tavikm.8";

// ---- roff

// Text for the man page: backslashes and option dashes escaped, lines that would read as
// requests protected, and characters beyond ASCII as groff's Unicode escapes.
std::string Roff(const std::string& text) {
  std::string out;
  bool option_word = false;  // the word began with '-': every '-' in it is a minus sign
  bool line_start = true;
  for (size_t i = 0; i < text.size(); ++i) {
    unsigned char c = static_cast<unsigned char>(text[i]);
    if (line_start && (c == '.' || c == '\'')) out += "\\&";
    line_start = c == '\n';
    if (c == ' ' || c == '\n' || c == '(' || c == '[' || c == '|' || c == '"') {
      option_word = false;
      out += static_cast<char>(c);
    } else if (c == '-') {
      bool word_start = i == 0 || std::string(" \n([|\"").find(text[i - 1]) != std::string::npos;
      if (word_start) option_word = true;
      out += option_word ? "\\-" : "-";
    } else if (c == '\\') {
      out += "\\e";
    } else if (c >= 0x80) {
      // A UTF-8 sequence: its code point as \[uXXXX].
      unsigned code = 0;
      size_t extra = c >= 0xf0 ? 3 : c >= 0xe0 ? 2 : 1;
      code = c & (0x3f >> extra);
      for (size_t k = 0; k < extra && i + 1 < text.size(); ++k) {
        code = (code << 6) | (static_cast<unsigned char>(text[++i]) & 0x3f);
      }
      char escape[16];
      snprintf(escape, sizeof(escape), "\\[u%04X]", code);
      out += escape;
    } else {
      out += static_cast<char>(c);
    }
  }
  return out;
}

// A help fragment ("never ask before ...") as a sentence of the man page.
std::string Sentence(std::string text) {
  if (!text.empty() && text[0] >= 'a' && text[0] <= 'z') text[0] = static_cast<char>(text[0] - 32);
  if (!text.empty() && text.back() != '.') text += '.';
  return Roff(text) + "\n";
}

// Usage pieces with bold literals and italic placeholders; a joining space does not break.
std::string RoffPieces(const std::vector<UsagePiece>& pieces, size_t from = 0) {
  std::string out;
  for (size_t i = from; i < pieces.size(); ++i) {
    const UsagePiece& piece = pieces[i];
    switch (piece.kind) {
      case UsagePiece::kLiteral:
        out += "\\fB" + Roff(piece.text) + "\\fR";
        break;
      case UsagePiece::kPlaceholder:
        out += "\\fI" + Roff(piece.text) + "\\fR";
        break;
      case UsagePiece::kPunctuation:
        out += Roff(piece.text);
        break;
      case UsagePiece::kSpace:
        out += " ";
        break;
      case UsagePiece::kJoin:
        out += "\\ ";
        break;
    }
  }
  return out;
}

std::string RoffOptionLabel(const Option& option) {
  std::string out;
  if (option.short_name) out += "\\fB" + Roff(option.short_name) + "\\fR, ";
  out += "\\fB" + Roff(option.name) + "\\fR";
  if (option.TakesValue()) out += " \\fI" + Roff(option.placeholder) + "\\fR";
  return out;
}

std::string ManOptions(const std::vector<const Option*>& options) {
  std::string out;
  for (const Option* option : options) {
    out += ".TP\n" + RoffOptionLabel(*option) + "\n" + Sentence(option->help);
  }
  return out;
}

std::string ManSynopsis() {
  std::string out = ".in +4n\n.ti -4n\n" + RoffPieces(ToolUsagePieces()) + "\n";
  out += ".br\n.ti -4n\n\\fBtavikm\\fR \\fB\\-\\-version\\fR | \\fB\\-\\-help\\fR\n";
  for (const Command& command : Commands()) {
    std::vector<const Command*> path = {&command};
    if (command.verbs.empty()) {
      out += ".br\n.ti -4n\n" + RoffPieces(UsagePieces(path)) + "\n";
    }
    for (const Command& verb : command.verbs) {
      out += ".br\n.ti -4n\n" + RoffPieces(UsagePieces({&command, &verb})) + "\n";
    }
  }
  return out + ".in\n";
}

std::string ManCommand(const std::vector<const Command*>& path) {
  const Command& command = *path.back();
  // The tag: the command's own words and what it requires; its options follow as a list.
  std::string out = ".TP\n" + RoffPieces(UsagePieces(path, false), 2 * path.size()) + "\n";
  std::string text = command.description ? command.description : command.summary;
  out += command.description ? Roff(text) : Sentence(text);
  if (!command.verbs.empty()) {
    out += ".RS\n";
    for (const Command& verb : command.verbs) out += ManCommand({&command, &verb});
    out += ".RE\n";
  } else if (!command.options.empty()) {
    out += ".RS\n" + ManOptions(command.options) + ".RE\n";
  }
  if (command.epilogue) out += ".IP\n" + Roff(command.epilogue);
  return out;
}

std::string ManCommands() {
  std::string out;
  for (const Command& command : Commands()) out += ManCommand({&command});
  return out;
}

// Replaces what lies between each pair of markers in the page.
std::string ManPage(const std::string& page) {
  const std::vector<std::pair<std::string, std::string>> parts = {
      {"synopsis", ManSynopsis()},
      {"options", ManOptions(GlobalOptions())},
      {"commands", ManCommands()},
  };
  std::string out = page;
  for (const auto& [name, text] : parts) {
    const std::string begin = ".\\\" Generated " + name + " begins: make tool-docs writes it.\n";
    const std::string end = ".\\\" Generated " + name + " ends.\n";
    size_t a = out.find(begin);
    size_t b = out.find(end);
    if (a == std::string::npos || b == std::string::npos || b < a) {
      throw std::runtime_error(std::string(kManPath) + " lacks the markers of its generated " +
                               name + ": \"" + begin.substr(0, begin.size() - 1) + "\" and \"" +
                               end.substr(0, end.size() - 1) + "\"");
    }
    out.replace(a + begin.size(), b - a - begin.size(), text);
  }
  return out;
}

// ---- bash

std::string Words(const std::vector<std::string>& words, const char* separator = " ") {
  std::string out;
  for (const std::string& word : words) out += (out.empty() ? "" : separator) + word;
  return out;
}

std::vector<std::string> OptionWords(const std::vector<const Option*>& options) {
  std::vector<std::string> words;
  for (const Option* option : options) {
    words.push_back(option->name);
    if (option->short_name) words.push_back(option->short_name);
  }
  return words;
}

std::string Choices(const char* choices) {
  std::string words = choices;
  for (char& c : words) {
    if (c == '|') c = ' ';
  }
  return words;
}

// How the value of each option name completes, the same in every command that has it.
std::map<std::string, const Option*> ValueOptions() {
  std::map<std::string, const Option*> seen;
  auto note = [&](const Option* option) {
    if (!option->TakesValue()) return;
    auto [it, added] = seen.emplace(option->name, option);
    const Option* other = it->second;
    if (!added && (other->completion != option->completion ||
                   std::string(other->choices ? other->choices : "") !=
                       std::string(option->choices ? option->choices : ""))) {
      throw std::runtime_error(std::string(option->name) +
                               " completes differently in two commands");
    }
  };
  for (const Option* option : GlobalOptions()) note(option);
  for (const Command& command : Commands()) {
    for (const Option* option : command.options) note(option);
    for (const Command& verb : command.verbs) {
      for (const Option* option : verb.options) note(option);
    }
  }
  return seen;
}

std::string CommandCase(const Command& command, const std::string& indent) {
  return indent + command.name + ") options='" + Words(OptionWords(command.options)) + "' ;;\n";
}

std::string BashCompletion() {
  std::map<std::string, const Option*> value_options = ValueOptions();
  std::vector<std::string> global_values;
  for (const Option* option : GlobalOptions()) {
    if (option->TakesValue()) global_values.push_back(option->name);
  }
  std::vector<std::string> groups, commands;
  std::set<std::string> files, names;  // commands whose operands are files, command names
  for (const Command& command : Commands()) {
    commands.push_back(command.name);
    if (!command.verbs.empty()) groups.push_back(command.name);
    for (const Operand& operand : command.operands) {
      if (operand.completion == Completion::kFiles) files.insert(command.name);
      if (operand.completion == Completion::kCommands) names.insert(command.name);
    }
  }
  std::map<std::string, std::vector<std::string>> by_kind;
  std::vector<std::string> file_commands(files.begin(), files.end());
  std::vector<std::string> command_commands(names.begin(), names.end());
  for (const auto& [name, option] : value_options) {
    std::string kind =
        option->completion == Completion::kFiles         ? "_filedir"
        : option->completion == Completion::kDirectories ? "_filedir -d"
        : option->completion == Completion::kChoices
            ? "COMPREPLY=($(compgen -W '" + Choices(option->choices) + "' -- \"$cur\"))"
            : "";
    by_kind[kind].push_back(name);
  }

  std::string out =
      "# SPDX-License-Identifier: Apache-2.0\n"
      "# bash completion for tavikm: commands, their options, and files where a command takes a "
      "path.\n"
      "# Written by `make tool-docs` from the tool's command table "
      "(tools/tavikm/command_table.cpp);\n"
      "# edit the table, not this file.\n"
      "\n"
      "_tavikm() {\n"
      "  local cur prev words cword\n"
      "  _init_completion || return\n"
      "\n"
      "  # The command is the first word after the global options (and their values).\n"
      "  local i command= verb=\n"
      "  for ((i = 1; i < cword; i++)); do\n"
      "    case ${words[i]} in\n"
      "      " +
      Words(global_values, " | ") +
      ") ((i++)) ;;\n"
      "      -*) ;;\n"
      "      *)\n"
      "        if [[ -z $command ]]; then\n"
      "          command=${words[i]}\n"
      "        elif [[ $command == @(" +
      Words(groups, "|") +
      ") && -z $verb ]]; then\n"
      "          verb=${words[i]}\n"
      "        fi\n"
      "        ;;\n"
      "    esac\n"
      "  done\n"
      "\n"
      "  case $prev in\n";
  for (const auto& [kind, names] : by_kind) {
    out += "    " + Words(names, " | ") + ")\n";
    if (!kind.empty()) out += "      " + kind + "\n";
    out += "      return\n      ;;\n";
  }
  out +=
      "  esac\n"
      "\n"
      "  if [[ -z $command ]]; then\n"
      "    if [[ $cur == -* ]]; then\n"
      "      COMPREPLY=($(compgen -W '" +
      Words(OptionWords(GlobalOptions())) +
      "' -- \"$cur\"))\n"
      "    else\n"
      "      COMPREPLY=($(compgen -W '" +
      Words(commands) +
      "' -- \"$cur\"))\n"
      "    fi\n"
      "    return\n"
      "  fi\n"
      "\n"
      "  local options=\n"
      "  case $command in\n";
  for (const Command& command : Commands()) {
    if (command.verbs.empty()) {
      if (!command.options.empty()) out += CommandCase(command, "    ");
      continue;
    }
    std::vector<std::string> verbs;
    for (const Command& verb : command.verbs) verbs.push_back(verb.name);
    out += "    " + std::string(command.name) +
           ")\n"
           "      case $verb in\n"
           "        '')\n"
           "          COMPREPLY=($(compgen -W '" +
           Words(verbs) +
           "' -- \"$cur\"))\n"
           "          return\n"
           "          ;;\n";
    for (const Command& verb : command.verbs) {
      if (!verb.options.empty()) out += CommandCase(verb, "        ");
    }
    out += "      esac\n      ;;\n";
  }
  out +=
      "  esac\n"
      "\n"
      "  if [[ $cur == -* ]]; then\n"
      "    COMPREPLY=($(compgen -W \"$options --help\" -- \"$cur\"))\n"
      "  elif [[ $command == @(" +
      Words(file_commands, "|") +
      ") ]]; then\n"
      "    # Key locations that are metadata files, and backup files.\n"
      "    _filedir\n"
      "  elif [[ $command == @(" +
      Words(command_commands, "|") +
      ") ]]; then\n"
      "    # A command name, then a verb of a group.\n"
      "    case $prev in\n"
      "      " +
      Words(command_commands, " | ") + ") COMPREPLY=($(compgen -W '" + Words(commands) +
      "' -- \"$cur\")) ;;\n";
  for (const Command& command : Commands()) {
    if (command.verbs.empty()) continue;
    std::vector<std::string> verbs;
    for (const Command& verb : command.verbs) verbs.push_back(verb.name);
    out += "      " + std::string(command.name) + ") COMPREPLY=($(compgen -W '" + Words(verbs) +
           "' -- \"$cur\")) ;;\n";
  }
  out +=
      "    esac\n"
      "  fi\n"
      "} && complete -F _tavikm tavikm\n";
  return out;
}

// ---- files

std::string Slurp(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  if (!in) throw std::runtime_error("cannot read " + path);
  std::stringstream text;
  text << in.rdbuf();
  return text.str();
}

void Spill(const std::string& path, const std::string& text) {
  std::ofstream out(path, std::ios::binary | std::ios::trunc);
  out << text;
  if (!out.flush()) throw std::runtime_error("cannot write " + path);
}

int Main(int argc, char** argv) {
  bool check = argc == 3 && std::string(argv[1]) == "--check";
  if (argc != 2 && !check) {
    fprintf(stderr, "usage: tavikm_docs [--check] SOURCE_DIR\n");
    return 2;
  }
  const std::string root = argv[argc - 1];
  const std::vector<std::pair<std::string, std::string>> files = {
      {kCompletionPath, BashCompletion()},
      {kManPath, ManPage(Slurp(root + "/" + kManPath))},
  };
  int stale = 0;
  for (const auto& [relative, text] : files) {
    const std::string path = root + "/" + relative;
    if (!check) {
      Spill(path, text);
    } else if (Slurp(path) != text) {
      fprintf(stderr,
              "%s differs from what the tool's command table gives: run make tool-docs (and "
              "commit the result)\n",
              relative.c_str());
      ++stale;
    }
  }
  return stale ? 1 : 0;
}

}  // namespace
}  // namespace tavikm_tool

int main(int argc, char** argv) {
  try {
    return tavikm_tool::Main(argc, argv);
  } catch (const std::exception& e) {
    fprintf(stderr, "tavikm_docs: %s\n", e.what());
    return 1;
  }
}
