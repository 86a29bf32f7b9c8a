// SPDX-License-Identifier: Apache-2.0
// The tool's command table against the tool: every entry's --help, `help COMMAND [VERB]` and
// usage line are what the table makes, a usage error shows the entry's usage line, and a command
// takes exactly the options its entry declares (the completion and the man page are checked
// against the same table by tool_docs_test and against --help by tool_completion_test).
#include <gtest/gtest.h>

#include <stdlib.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <map>
#include <random>
#include <set>
#include <sstream>
#include <string>
#include <vector>

#include "support/tool_runner.h"
#include "tools/tavikm/cli.h"
#include "tools/tavikm/command_table.h"

namespace tavikm_test {
namespace {

using tavikm_tool::Command;
using tavikm_tool::Commands;
using tavikm_tool::GlobalOptions;
using tavikm_tool::Globals;
using tavikm_tool::Option;
using tavikm_tool::ParseCommand;
using tavikm_tool::ToolError;
using EntryPath = std::vector<const Command*>;

// Every entry: each command, each group and each of its verbs.
std::vector<EntryPath> Entries() {
  std::vector<EntryPath> entries;
  for (const Command& command : Commands()) {
    entries.push_back({&command});
    for (const Command& verb : command.verbs) entries.push_back({&command, &verb});
  }
  return entries;
}

Args Words(const EntryPath& path) {
  Args words;
  for (const Command* command : path) words.push_back(command->name);
  return words;
}

std::string Name(const EntryPath& path) {
  std::string name;
  for (const std::string& word : Words(path)) name += (name.empty() ? "" : " ") + word;
  return name;
}

// The sentence a parse of `args` fails with, or "" when it succeeds.
std::string ParseError(const EntryPath& path, const Args& args) {
  Globals globals;
  try {
    ParseCommand(path, args, &globals);
  } catch (const ToolError& e) {
    return e.what();
  }
  return "";
}

class ToolTableTest : public ToolRunner {};

TEST_F(ToolTableTest, EveryHelpAndUsageLineIsTheTables) {
  ToolResult tool = Exec({TAVIKM_TOOL_PATH, "--help"});
  EXPECT_EQ(tool.status, 0);
  EXPECT_EQ(tool.out, tavikm_tool::ToolHelpText());
  EXPECT_EQ(tool.out.substr(0, tool.out.find('\n')), tavikm_tool::ToolUsageLine());
  EXPECT_EQ(Exec({TAVIKM_TOOL_PATH, "-h"}).out, tool.out);
  EXPECT_EQ(Exec({TAVIKM_TOOL_PATH, "help"}).out, tool.out);
  // Every command of the table is in the tool's list, and every global option.
  for (const Command& command : Commands()) {
    EXPECT_NE(tool.out.find("\n  " + tavikm_tool::CommandLabel(command) + " "), std::string::npos)
        << command.name;
  }
  for (const Option* option : GlobalOptions()) {
    EXPECT_NE(tool.out.find("\n  " + tavikm_tool::OptionLabel(*option) + " "), std::string::npos)
        << option->name;
  }

  for (const EntryPath& path : Entries()) {
    SCOPED_TRACE(Name(path));
    std::string help = tavikm_tool::HelpText(path);
    std::string usage = tavikm_tool::UsageLine(path);
    EXPECT_EQ(help.substr(0, help.find('\n')), usage);
    ToolResult asked = Exec(Join(Join({TAVIKM_TOOL_PATH}, Words(path)), {"--help"}));
    EXPECT_EQ(asked.status, 0) << asked.err;
    EXPECT_EQ(asked.out, help);
    EXPECT_EQ(Exec(Join({TAVIKM_TOOL_PATH, "help"}, Words(path))).out, help);
    // Every option of the entry is in its usage line and in its option list.
    for (const Option* option : path.back()->options) {
      EXPECT_NE(usage.find(option->name), std::string::npos) << option->name;
      EXPECT_NE(help.find("\n  " + tavikm_tool::OptionLabel(*option) + " "), std::string::npos)
          << option->name;
    }
  }
  // A usage error names the cause, then shows the usage line of the entry that refused it: a
  // command, a verb, and a group that does not know the verb (every entry's line is checked
  // through the parser below).
  const std::vector<std::pair<Args, std::string>> errors = {
      {{"setup", "--no-such-option"}, "unknown option --no-such-option"},
      {{"kek", "get", "--no-such-option"}, "unknown option --no-such-option"},
      {{"kek", "--no-such-option"}, "unknown kek command --no-such-option"},
  };
  for (const auto& [args, sentence] : errors) {
    ToolResult wrong = Tool(args);
    Args words = args;
    words.pop_back();
    std::vector<const Command*> path;
    for (size_t i = 0; i < words.size(); ++i) {
      path.push_back(tavikm_tool::FindCommand(Args(words.begin(), words.begin() + i + 1)));
    }
    EXPECT_EQ(wrong.status, 1);
    EXPECT_EQ(wrong.err, "tavikm: " + sentence + "\n" + tavikm_tool::UsageLine(path) + "\n");
  }
}

TEST_F(ToolTableTest, ACommandTakesTheOptionsOfItsEntryAndNoOther) {
  std::set<std::string> every_option;
  for (const EntryPath& path : Entries()) {
    for (const Option* option : path.back()->options) every_option.insert(option->name);
  }
  for (const EntryPath& path : Entries()) {
    const Command& command = *path.back();
    if (!command.verbs.empty()) continue;
    SCOPED_TRACE(Name(path));
    ASSERT_NE(command.run, nullptr);
    // Enough positional arguments for the entry's least.
    Args positional;
    size_t min = 0, max = 0;
    for (const tavikm_tool::Operand& operand : command.operands) {
      min += operand.min;
      max = operand.max == SIZE_MAX ? SIZE_MAX : max + operand.max;
      // Each alternative an operand names is an option of the entry.
      for (const char* name : operand.alternatives) {
        bool declared = false;
        for (const Option* option : command.options) declared |= option->name == std::string(name);
        EXPECT_TRUE(declared) << name;
      }
    }
    for (size_t i = 0; i < min; ++i) positional.push_back("p" + std::to_string(i));
    EXPECT_EQ(ParseError(path, positional), "");
    EXPECT_EQ(ParseError(path, {"--no-such-option"}), "unknown option --no-such-option");
    // What main prints after the sentence.
    EXPECT_EQ(tavikm_tool::CurrentUsage(), tavikm_tool::UsageLine(path));
    if (min > 0) {
      EXPECT_EQ(ParseError(path, Args(positional.begin(), positional.end() - 1)),
                "missing argument");
    }
    if (max != SIZE_MAX) {
      Args too_many(max + 1, "x");
      too_many.back() = "extra";
      EXPECT_EQ(ParseError(path, too_many), "unexpected argument extra");
    }

    std::set<std::string> own;
    for (const Option* option : command.options) {
      EXPECT_TRUE(own.insert(option->name).second) << option->name << " twice";
      EXPECT_NE(std::string(option->help), "") << option->name;
      Globals globals;
      if (option->TakesValue()) {
        auto parsed = ParseCommand(path, Join(positional, {option->name, "v1"}), &globals);
        ASSERT_TRUE(parsed.has_value());
        EXPECT_EQ(parsed->Value(option->name), "v1") << option->name;
        auto inline_value =
            ParseCommand(path, Join(positional, {std::string(option->name) + "=v2"}), &globals);
        EXPECT_EQ(inline_value->Value(option->name), "v2") << option->name;
        EXPECT_EQ(ParseError(path, Join(positional, {option->name})),
                  std::string(option->name) + " needs a value");
      } else {
        auto parsed = ParseCommand(path, Join(positional, {option->name}), &globals);
        ASSERT_TRUE(parsed.has_value());
        EXPECT_TRUE(parsed->Flag(option->name)) << option->name;
        EXPECT_EQ(ParseError(path, Join(positional, {std::string(option->name) + "=1"})),
                  std::string(option->name) + " takes no value");
      }
      // What the entry does not declare, the handler cannot ask for either.
      auto plain = ParseCommand(path, positional, &globals);
      EXPECT_FALSE(plain->Flag(option->name));
      EXPECT_THROW(plain->Flag("--no-such-option"), std::logic_error);
    }
    // Another command's option is unknown here; a global one must come before the command.
    for (const std::string& name : every_option) {
      if (own.count(name)) continue;
      EXPECT_EQ(ParseError(path, Join(positional, {name})), "unknown option " + name);
    }
    for (const Option* option : GlobalOptions()) {
      if (option->name == std::string("--help")) continue;
      EXPECT_EQ(ParseError(path, Join(positional, {option->name})),
                std::string(option->name) + " is a global option: put it before the command");
    }
  }
}

TEST_F(ToolTableTest, GlobalOptionsAreTheTables) {
  std::string usage = tavikm_tool::ToolUsageLine();
  // Before the command every global option is taken, by each of its names, with its value given
  // apart or after '='.
  Args apart, joined;
  for (const Option* option : GlobalOptions()) {
    SCOPED_TRACE(option->name);
    // The usage line shows every option that does not run a command of its own, by its short
    // name where it has one.
    std::string shown =
        option->short_name && !option->TakesValue() ? option->short_name : option->name;
    EXPECT_EQ(usage.find("[" + shown) != std::string::npos, option->runs == nullptr);
    if (option->runs) {
      for (const char* name : {option->name, option->short_name}) {
        if (name) {
          EXPECT_EQ(Exec({TAVIKM_TOOL_PATH, name}).out, Exec({TAVIKM_TOOL_PATH, option->runs}).out);
        }
      }
      continue;
    }
    std::string value = option->name == std::string("--prop") ? "a=b" : "1";
    if (option->TakesValue()) {
      apart.insert(apart.end(), {option->name, value});
      joined.push_back(std::string(option->name) + "=" + value);
      ToolResult missing = Exec({TAVIKM_TOOL_PATH, option->name});
      EXPECT_EQ(missing.err,
                "tavikm: " + std::string(option->name) + " needs a value\n" + usage + "\n");
    } else {
      apart.push_back(option->name);
      if (option->short_name) joined.push_back(option->short_name);
    }
  }
  for (const Args& args : {apart, joined}) {
    ToolResult result = Tool(Join(args, {"version"}));
    EXPECT_EQ(result.status, 0) << ::testing::PrintToString(args) << ": " << result.err;
  }
  EXPECT_EQ(Exec({TAVIKM_TOOL_PATH, "--version"}).out.rfind("tavikm ", 0), 0u);
  ToolResult flag_value = Exec({TAVIKM_TOOL_PATH, "--batch=1", "version"});
  EXPECT_EQ(flag_value.err, "tavikm: --batch takes no value\n" + usage + "\n");
}

// The hunt over command lines: random words from the table's own vocabulary (commands, verbs,
// every option, values that are wrong in every way) against a device holding records and a KEK.
// Whatever the line, the tool ends with a status of 0 to 4 and, on failure, one sentence (and
// the usage line after a usage error); a line that fails changes no stored byte, and only the
// commands that replace or remove may change any. TAVIKM_ARGS_SEED and TAVIKM_ARGS_RUNS set the
// hunt.
class CommandLineHuntTest : public ToolTableTest {
 protected:
  using Snapshot = std::map<std::string, std::vector<uint8_t>>;
  // Every stored byte: the metadata file and each secure-storage file.
  Snapshot Take() {
    Snapshot snapshot;
    snapshot[MetadataFile()] = ReadFile(MetadataFile());
    for (const auto& file : std::filesystem::recursive_directory_iterator(Path("kmstore"))) {
      if (file.is_regular_file()) snapshot[file.path().string()] = ReadFile(file.path().string());
    }
    return snapshot;
  }
  void Put(const Snapshot& snapshot) {
    std::filesystem::remove_all(Path("kmstore"));
    for (const auto& [path, bytes] : snapshot) {
      std::filesystem::create_directories(std::filesystem::path(path).parent_path());
      WriteFile(path, bytes);
    }
  }
};

TEST_F(CommandLineHuntTest, AnyCommandLineEndsInOneSentenceAndLosesNothing) {
  const char* seed_text = getenv("TAVIKM_ARGS_SEED");
  const char* runs_text = getenv("TAVIKM_ARGS_RUNS");
  const unsigned seed = seed_text ? static_cast<unsigned>(strtoul(seed_text, nullptr, 10)) : 25;
  // Each run is a process; under an emulator (valgrind, qemu) a few cost what many do here.
  const bool emulated = std::string(TAVIKM_TOOL_EMULATOR).size() > 0;
  const size_t runs = runs_text ? strtoul(runs_text, nullptr, 10) : (emulated ? 20 : 600);
  std::mt19937 random(seed);

  props_ = {kMdfpp};
  ASSERT_EQ(Setup("userdata", "pw", {"--kdf", "2"}).status, 0);
  ASSERT_EQ(Tool({"kek", "put", "vold", "--random"}).status, 0);
  props_ = {};
  ASSERT_EQ(Setup(MetadataFile(), "pw", {"--kdf", "1"}).status, 0);
  ASSERT_EQ(Setup(MetadataFile(), "pw", {"--kdf", "2", "--offset", "2704"}).status, 0);
  ASSERT_EQ(Tool({"backup", MetadataFile(), Scratch("meta.bak")}).status, 0);
  const Snapshot before = Take();

  // The vocabulary. demo and benchmark run for seconds and touch no record: left out.
  Args commands, options;
  std::vector<EntryPath> entries;
  std::set<std::string> changing = {"setup", "passwd", "restore", "erase", "put", "delete"};
  for (const EntryPath& path : Entries()) {
    const std::string name = path.back()->name;
    if (name == "demo" || name == "benchmark") continue;
    commands.push_back(name);
    for (const Option* option : path.back()->options) options.push_back(option->name);
    // The commands that write, where a slip loses a key, come up three times as often.
    if (path.back()->verbs.empty())
      entries.insert(entries.end(), changing.count(name) ? 3 : 1, path);
  }
  // Not --device-dir: a random one would be a folder outside the test's.
  for (const Option* option : GlobalOptions()) {
    if (option->name == std::string("--device-dir")) continue;
    options.push_back(option->name);
    if (option->short_name) options.push_back(option->short_name);
  }
  // A KEY_LOC that is no absolute path names a file in the current folder: a scratch one.
  const std::string cwd = Scratch("cwd");
  std::filesystem::create_directories(cwd);
  in_child_ = [cwd] {
    if (chdir(cwd.c_str()) != 0) _exit(125);
  };
  const Args values = {MetadataFile(),
                       "userdata",
                       "vold",
                       Scratch("meta.bak"),
                       Scratch("none"),
                       PasswordFile("pw"),
                       PasswordFile("wrong"),
                       "-",
                       "--",
                       "",
                       "0",
                       "1",
                       "2",
                       "5",
                       "16",
                       "32",
                       "2704",
                       "16383",
                       "-1",
                       "18446744073709551616",
                       "x=y",
                       "ro.crypto.scrypt_params=10:0:0",
                       "/",
                       "a\x1b[2Jb",
                       "\xff\xfe",
                       std::string(300, 'k'),
                       "--offset=2704",
                       "--password-file=-"};
  const Args places = {MetadataFile(), "userdata", "vold", "other", "meta", Scratch("new")};
  const Args backups = {Scratch("meta.bak"), Scratch("out.bak"), "-", Scratch("none")};
  const std::vector<std::pair<std::string, Args>> kinds_of = {
      {"password-file", {PasswordFile("pw"), PasswordFile("wrong"), PasswordFile("new")}},
      {"offset", {"0", "2704", "5408", "1", "13680"}},
      {"kdf", {"1", "2", "4", "5", "default"}},
      {"keysize", {"16", "32", "64"}},
      {"key-file", {Scratch("meta.bak"), PasswordFile("pw")}},
  };
  auto pick = [&](const Args& from) { return from[random() % from.size()]; };

  size_t failures = 0;
  std::map<int, size_t> statuses;
  for (size_t run = 0; run < runs && failures < 5; ++run) {
    Args words;
    if (random() % 2) {
      // A line as a user would write it: an entry, a place, its own options with values.
      const EntryPath& path = entries[random() % entries.size()];
      words = Words(path);
      for (const tavikm_tool::Operand& operand : path.back()->operands) {
        const bool file = operand.text && std::string(operand.text).find("FILE") == 0;
        for (size_t i = 0; i < std::max<size_t>(operand.min, random() % 2); ++i)
          words.push_back(file ? pick(backups) : pick(places));
      }
      const std::vector<const Option*>& own = path.back()->options;
      for (const Option* option : own) {
        if (std::string(option->name) == "--password-file" && random() % 4) {
          words.insert(words.end(), {"--password-file", PasswordFile(random() % 3 ? "pw" : "x")});
        }
      }
      for (size_t n = own.empty() ? 0 : random() % 5; n > 0; --n) {
        const Option* option = own[random() % own.size()];
        words.push_back(option->name);
        if (!option->TakesValue()) continue;
        // Mostly a value of the option's own kind, so that lines get past the parser.
        const std::string name = option->name;
        const auto own_kind = std::find_if(kinds_of.begin(), kinds_of.end(), [&](const auto& kind) {
          return name.find(kind.first) != std::string::npos;
        });
        words.push_back(own_kind != kinds_of.end() && random() % 4 ? pick(own_kind->second)
                                                                   : pick(values));
      }
    } else {
      // Any words at all.
      const std::vector<const Args*> kinds = {&commands, &options, &values};
      if (random() % 8 != 0) words.push_back(pick(commands));
      for (size_t n = random() % 7; n > 0; --n) words.push_back(pick(*kinds[random() % 3]));
    }
    // Secure storage mostly where a line names an entry, metadata files mostly elsewhere.
    const bool names_entry = std::any_of(words.begin(), words.end(), [](const std::string& w) {
      return w == "userdata" || w == "vold" || w == "other";
    });
    props_ = random() % 4 < (names_entry ? 3u : 1u) ? Args{kMdfpp} : Args{};
    hang_guard_seconds_ = 60;
    ToolResult result = Tool(words);
    ++statuses[result.status];
    const Snapshot after = Take();
    bool may_change = result.status == 0;
    if (may_change) {
      may_change = false;
      for (const std::string& word : words) may_change = may_change || changing.count(word);
    }
    std::vector<std::string> lines;
    std::stringstream err(result.err);
    for (std::string line; std::getline(err, line);) lines.push_back(line);
    bool held = result.status >= 0 && result.status <= 4 && (after == before || may_change);
    if (result.status != 0) {
      held = held && !lines.empty() && result.err.back() == '\n' &&
             lines[0].rfind("tavikm: ", 0) == 0 &&
             (lines.size() == 1 ||
              (lines.size() == 2 && result.status == 1 && lines[1].rfind("usage: tavikm", 0) == 0));
    }
    if (!held) {
      ++failures;
      ADD_FAILURE() << "seed " << seed << ", run " << run << ": tavikm "
                    << ::testing::PrintToString(words) << " (props "
                    << ::testing::PrintToString(props_) << ") exited " << result.status
                    << (after == before ? "" : ", stored bytes changed") << "\n"
                    << result.err;
    }
    if (after != before) Put(before);
  }
  std::string tally;
  for (const auto& [status, count] : statuses) {
    tally +=
        (tally.empty() ? "" : ", ") + std::to_string(count) + " exited " + std::to_string(status);
  }
  printf("command lines: %zu runs from seed %u: %s\n", runs, seed, tally.c_str());
}

// The README quotes usage lines as the tool prints them; each must be one the table makes.
TEST_F(ToolTableTest, TheReadmesUsageLinesAreTheTools) {
  std::set<std::string> lines = {tavikm_tool::ToolUsageLine()};
  for (const EntryPath& path : Entries()) lines.insert(tavikm_tool::UsageLine(path));
  std::ifstream readme(std::string(TAVIKM_SOURCE_DIR) + "/README.md");
  ASSERT_TRUE(readme) << "no README.md in " << TAVIKM_SOURCE_DIR;
  size_t quoted = 0;
  for (std::string line; std::getline(readme, line);) {
    if (line.rfind("usage: tavikm", 0) != 0) continue;
    ++quoted;
    EXPECT_EQ(lines.count(line), 1u) << "README.md quotes a usage line the tool does not print:\n"
                                     << line;
  }
  EXPECT_GT(quoted, 0u);
}

}  // namespace
}  // namespace tavikm_test
