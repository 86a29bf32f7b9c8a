// SPDX-License-Identifier: Apache-2.0
// What the tool shows and where it sends it: names of any bytes in JSON and in tables, the
// status line on terminals of 80 and 40 columns, records anywhere on a large file or a block
// device, and backups through standard output and input.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <pty.h>
#include <signal.h>
#include <stdio.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <iterator>
#include <regex>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "json_reader.h"
#include "support/tool_runner.h"

namespace tavikm_test {
namespace {

constexpr size_t kNone = std::string::npos;
constexpr size_t kRecordSize = 2704;

// The columns a terminal gives `text`: the names used here are ASCII, Latin letters and CJK
// ideographs (three-byte sequences led by 0xe3 to 0xe9, two columns each).
size_t Columns(const std::string& text) {
  size_t columns = 0;
  for (unsigned char c : text) {
    if ((c & 0xc0) != 0x80) columns += c >= 0xe3 && c <= 0xe9 ? 2 : 1;
  }
  return columns;
}

std::vector<std::string> Lines(const std::string& text) {
  std::vector<std::string> lines;
  std::istringstream in(text);
  for (std::string line; std::getline(in, line);) lines.push_back(line);
  return lines;
}

// Runs a host command (not under the cross build's emulator) through the shell; its output.
std::string Host(const std::string& command, int* status = nullptr) {
  std::string out;
  FILE* pipe = popen(command.c_str(), "r");
  if (!pipe) return out;
  char buffer[4096];
  for (size_t n; (n = fread(buffer, 1, sizeof(buffer), pipe)) > 0;) out.append(buffer, n);
  int rc = pclose(pipe);
  if (status) *status = WIFEXITED(rc) ? WEXITSTATUS(rc) : -1;
  return out;
}

std::string ShellQuoted(const std::string& arg) {
  std::string quoted = "'";
  for (char c : arg) quoted += c == '\'' ? std::string("'\\''") : std::string(1, c);
  return quoted + "'";
}

class ToolOutputTest : public ToolRunner {
 protected:
  // The tool on a pseudo-terminal `columns` wide as its standard input, output and error; `out`
  // gets everything it wrote there.
  ToolResult OnTerminal(const Args& args, unsigned short columns = 80) {
    struct winsize size = {};
    size.ws_row = 24;
    size.ws_col = columns;
    int master = -1;
    pid_t pid = forkpty(&master, nullptr, nullptr, &size);
    if (pid == 0) ExecInChild(ToolArgv(args));
    ToolResult result;
    char buffer[4096];
    for (;;) {
      struct pollfd ready = {master, POLLIN, 0};
      if (poll(&ready, 1, 60000) == 0) {
        ADD_FAILURE() << "the tool wrote nothing for a minute; output so far: " << result.out;
        kill(pid, SIGKILL);
        break;
      }
      ssize_t n = read(master, buffer, sizeof(buffer));
      if (n < 0 && errno == EINTR) continue;
      if (n <= 0) break;  // EIO once the terminal's last user is gone
      result.out.append(buffer, static_cast<size_t>(n));
    }
    close(master);
    int status = 0;
    waitpid(pid, &status, 0);
    result.status = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
    return result;
  }

  // The screen of a real terminal emulator `columns` wide once the tool has run in it; false,
  // with `why` said, when tmux cannot be run here.
  bool ScreenAfter(const Args& args, int columns, std::string* screen, std::string* why) {
    int status = -1;
    Host("command -v tmux >/dev/null 2>&1", &status);
    if (status != 0) {
      *why = "tmux is not installed";
      return false;
    }
    std::istringstream emulator(TAVIKM_TOOL_EMULATOR);
    Args argv(std::istream_iterator<std::string>(emulator), {});
    Args tool = ToolArgv(args);
    argv.insert(argv.end(), tool.begin(), tool.end());
    std::string command;
    for (const std::string& arg : argv) command += ShellQuoted(arg) + " ";
    command += "; echo \"[exit $?]\"; sleep 600";
    const std::string tmux = "env -u TMUX tmux -S " + ShellQuoted(Path("tmux.sock")) + " ";
    Host(tmux + "-f /dev/null new-session -d -x " + std::to_string(columns) + " -y 24 " +
             ShellQuoted(command) + " 2>&1",
         &status);
    if (status != 0) {
      *why = "tmux cannot start a session here";
      return false;
    }
    auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(60);
    do {
      std::this_thread::sleep_for(std::chrono::milliseconds(100));
      *screen = Host(tmux + "capture-pane -p");
    } while (screen->find("[exit ") == kNone && std::chrono::steady_clock::now() < deadline);
    Host(tmux + "kill-server 2>/dev/null");
    return true;
  }

  // Two tools joined by a pipe, the first one's standard output into the second's input.
  std::pair<ToolResult, ToolResult> Piped(const Args& first, const Args& second) {
    int fds[2];
    EXPECT_EQ(pipe(fds), 0);
    pid_t writer = fork();
    if (writer == 0) {
      dup2(fds[1], STDOUT_FILENO);
      dup2(open(Scratch("stderr-writer").c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600),
           STDERR_FILENO);
      close(fds[0]);
      close(fds[1]);
      ExecInChild(ToolArgv(first));
    }
    pid_t reader = fork();
    if (reader == 0) {
      dup2(fds[0], STDIN_FILENO);
      dup2(open(Scratch("stdout-reader").c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600),
           STDOUT_FILENO);
      dup2(open(Scratch("stderr-reader").c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600),
           STDERR_FILENO);
      close(fds[0]);
      close(fds[1]);
      ExecInChild(ToolArgv(second));
    }
    close(fds[0]);
    close(fds[1]);
    std::pair<ToolResult, ToolResult> results;
    for (auto [pid, result] :
         {std::make_pair(writer, &results.first), std::make_pair(reader, &results.second)}) {
      int status = 0;
      waitpid(pid, &status, 0);
      result->status = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
    }
    results.first.err = Slurp(Scratch("stderr-writer"));
    results.second.out = Slurp(Scratch("stdout-reader"));
    results.second.err = Slurp(Scratch("stderr-reader"));
    return results;
  }

  // The 2704 bytes of a PBKDF2 record, made by the tool in a metadata file of its own.
  std::vector<uint8_t> RecordImage() {
    std::string file = Path("image-source");
    EXPECT_EQ(Setup(file, "pw", {"--kdf", "1"}).status, 0);
    std::vector<uint8_t> bytes = ReadFile(file);
    bytes.resize(kRecordSize);
    return bytes;
  }
};

// Names with letters beyond ASCII, with control characters and with bytes that are not UTF-8,
// among entries that are not records at all.
TEST_F(ToolOutputTest, AnyNameComesBackExactlyInJsonAndHarmlessInText) {
  props_ = {kMdfpp};
  const std::string accented = "clé", ideographs = "東京", controls = "ctl\x1b[2J\nforged",
                    invalid = "bad\xff\xfe";
  for (const std::string& name : {accented, ideographs, controls, invalid}) {
    ToolResult setup = Setup(name, "pw", {"--kdf", "2"});
    ASSERT_EQ(setup.status, 0) << setup.err;
    EXPECT_EQ(setup.out.find('\x1b'), kNone) << setup.out;
  }
  // Reports and failures quote the name escaped, on one line.
  EXPECT_EQ(Unlock(controls, "pw").out.rfind("Unlocked ctl\\x1b[2J\\x0aforged\n", 0), 0u);
  ToolResult wrong = Unlock(controls, "wrong");
  EXPECT_EQ(wrong.status, 2);
  EXPECT_EQ(wrong.err.find('\x1b'), kNone) << wrong.err;
  EXPECT_NE(wrong.err.find("ctl\\x1b[2J\\x0aforged"), kNone) << wrong.err;
  EXPECT_EQ(wrong.err.find('\n'), wrong.err.size() - 1) << wrong.err;
  const std::string store = Path("kmstore");
  ASSERT_EQ(mkfifo((store + "/e-fifo").c_str(), 0600), 0);
  ASSERT_EQ(symlink("/dev/zero", (store + "/e-link").c_str()), 0);
  ASSERT_EQ(mkdir((store + "/e-folder").c_str(), 0700), 0);

  // In byte order of the names; the non-records listed as what they are.
  const std::vector<std::pair<std::string, std::string>> expected = {
      {invalid, "record"},     {accented, "record"}, {controls, "record"},  {"fifo", "fifo"},
      {"folder", "directory"}, {"link", "symlink"},  {ideographs, "record"}};
  ToolResult list = Tool({"list", "--json"});
  ASSERT_EQ(list.status, 0) << list.err;
  Json json = JsonParser(list.out).Parse();
  const std::vector<Json>& entries = json["secure_storage"]["entries"].array;
  ASSERT_EQ(entries.size(), expected.size()) << list.out;
  for (size_t i = 0; i < expected.size(); ++i) {
    const auto& [name, kind] = expected[i];
    SCOPED_TRACE(::testing::PrintToString(name));
    const Json& entry = entries[i];
    EXPECT_EQ(entry["kind"].string, kind);
    if (name == invalid) {
      EXPECT_EQ(entry["name_hex"].string, "626164fffe");
      EXPECT_EQ(entry["name"].string, "bad\xef\xbf\xbd\xef\xbf\xbd");  // U+FFFD for each byte
    } else {
      EXPECT_EQ(entry["name"].string, name);
      EXPECT_EQ(entry.object.count("name_hex"), 0u);
    }
    if (kind != "record") continue;
    ToolResult inspect = Tool({"inspect", "--entry", name, "--json"});
    ASSERT_EQ(inspect.status, 0) << inspect.err;
    Json record = JsonParser(inspect.out).Parse();
    for (const std::string member : {"key_loc", "key_name"}) {
      if (name == invalid) {
        EXPECT_EQ(record[member + "_hex"].string, "626164fffe");
      } else {
        EXPECT_EQ(record[member].string, name);
        EXPECT_EQ(record.object.count(member + "_hex"), 0u);
      }
    }
  }
  // A second parser, where the machine has one.
  int status = -1;
  Host("command -v python3 >/dev/null 2>&1", &status);
  if (status == 0) {
    WriteFile(Scratch("list.json"), std::vector<uint8_t>(list.out.begin(), list.out.end()));
    Host("python3 -c 'import json,sys; json.load(open(sys.argv[1], encoding=\"utf-8\"))' " +
             ShellQuoted(Scratch("list.json")),
         &status);
    EXPECT_EQ(status, 0) << "python3's json module refused: " << list.out;
  }

  // The table: no escape reaches the terminal, the newline forges no row, columns line up.
  ToolResult text = Tool({"list"});
  ASSERT_EQ(text.status, 0) << text.err;
  EXPECT_EQ(text.out.find('\x1b'), kNone) << text.out;
  std::vector<std::string> lines = Lines(text.out);
  ASSERT_EQ(lines.size(), 2 + expected.size()) << text.out;
  EXPECT_NE(text.out.find("  ctl\\x1b[2J\\x0aforged "), kNone) << text.out;
  EXPECT_NE(text.out.find("  bad\\xff\\xfe "), kNone) << text.out;
  EXPECT_NE(text.out.find("  fifo "), kNone) << text.out;
  const size_t kind_column = Columns(lines[1].substr(0, lines[1].find("KIND")));
  const size_t kdf_column = Columns(lines[1].substr(0, lines[1].find("KDF")));
  for (size_t i = 0; i < expected.size(); ++i) {
    const std::string& row = lines[2 + i];
    const std::string& kind = expected[i].second;
    size_t at = row.rfind(" " + kind + " ") + 1;
    EXPECT_EQ(Columns(row.substr(0, at)), kind_column) << row;
    EXPECT_EQ(Columns(row.substr(0, row.find_first_not_of(' ', at + kind.size()))), kdf_column)
        << row;
  }

  ToolResult inspect = Tool({"inspect", "--entry", controls});
  ASSERT_EQ(inspect.status, 0) << inspect.err;
  EXPECT_EQ(inspect.out.find('\x1b'), kNone);
  EXPECT_NE(inspect.out.find("key_name           \"ctl\\x1b[2J\\x0aforged\"\n"), kNone)
      << inspect.out;
}

// A kdf 5 password change waits out the Keymaster's one-signature-a-second limit, long enough
// for the status line to be drawn many times.
TEST_F(ToolOutputTest, TheStatusLineFitsTheTerminalAndLeavesNothingBehind) {
  ASSERT_EQ(Setup(MetadataFile(), "a", {"--kdf", "5"}).status, 0);
  // The password changes only with a change that ran: a screen check this machine cannot make
  // leaves it as it was.
  std::string password = "a";
  auto next = [&] { return std::string(password == "a" ? "b" : "a"); };
  auto passwd = [&] { return Passwd(MetadataFile(), password, next()); };
  for (unsigned short columns : {80, 40}) {
    SCOPED_TRACE(columns);
    ToolResult terminal = OnTerminal(passwd(), columns);
    ASSERT_EQ(terminal.status, 0) << terminal.out;
    password = next();
    // Each draw returns to the line's start and ends by clearing the rest of it.
    std::regex draw("\r([^\r\n\x1b]*)\x1b\\[K");
    size_t draws = 0;
    bool waiting_said = false;
    std::string last;
    for (std::sregex_iterator it(terminal.out.begin(), terminal.out.end(), draw), end; it != end;
         ++it) {
      last = (*it)[1].str();
      if (last.empty()) continue;
      ++draws;
      EXPECT_LT(Columns(last), columns) << last;
      waiting_said = waiting_said || last.find("waiting for the Keymaster") != kNone;
    }
    EXPECT_GT(draws, 1u) << terminal.out;
    EXPECT_TRUE(waiting_said) << terminal.out;
    EXPECT_EQ(last, "") << "the status line was not cleared";
    EXPECT_NE(terminal.out.find("\r\x1b[KChanged the password of "), kNone) << terminal.out;

    std::string screen, why;
    if (!ScreenAfter(passwd(), columns, &screen, &why)) {
      std::cout << "[ SKIPPED  ] the screen check at " << columns << " columns: " << why << "\n";
      continue;
    }
    password = next();
    // The tool's report is the first thing on the screen: no status line left above it, none
    // anywhere else.
    std::vector<std::string> rows = Lines(screen);
    ASSERT_FALSE(rows.empty());
    EXPECT_EQ(rows[0].rfind("Changed the password of ", 0), 0u) << screen;
    EXPECT_EQ(screen.find("deriving"), kNone) << screen;
    EXPECT_EQ(screen.find("waiting"), kNone) << screen;
    EXPECT_NE(screen.find("[exit 0]"), kNone) << screen;
  }
}

TEST_F(ToolOutputTest, ListFindsRecordsAtAnyOffsetOfALargeFile) {
  const std::vector<uint8_t> image = RecordImage();
  const uint64_t mib = 1 << 20, size = 9 * mib + 123;
  // At the start, where the example put one, across the boundary of the tool's 4 MiB
  // reads, right after another, at an odd offset and at the last offset with room.
  const std::vector<uint64_t> offsets = {
      0, 40000, 4 * mib - 2, 4 * mib + 2702, 8 * mib - 1, size - kRecordSize};
  std::string disk = Scratch("disk.img");
  {
    std::ofstream out(disk, std::ios::binary);
    out.seekp(static_cast<std::streamoff>(size - 1));
    out.put(0);
    for (uint64_t offset : offsets) {
      out.seekp(static_cast<std::streamoff>(offset));
      out.write(reinterpret_cast<const char*>(image.data()), kRecordSize);
    }
    // Neither three bytes of the magic nor a magic without room for a record is a record.
    out.seekp(static_cast<std::streamoff>(2 * mib));
    out.write(reinterpret_cast<const char*>(image.data()), 3);
    out.seekp(static_cast<std::streamoff>(size - 1000));
    out.write(reinterpret_cast<const char*>(image.data()), 4);
  }
  ToolResult list = Tool({"list", "--json", disk});
  ASSERT_EQ(list.status, 0) << list.err;
  const Json json = JsonParser(list.out).Parse();
  const std::vector<Json>& records = json["files"].array[0]["records"].array;
  std::vector<uint64_t> found;
  for (const Json& record : records) {
    found.push_back(static_cast<uint64_t>(record["offset"].number));
    EXPECT_EQ(record["kdf_type"].Int(), 1);
  }
  EXPECT_EQ(found, offsets);
  ToolResult text = Tool({"list", disk});
  EXPECT_NE(text.out.find(disk + ": 6 records\n"), kNone) << text.out;
}

TEST_F(ToolOutputTest, ListFindsRecordsAnywhereOnABlockDevice) {
  if (geteuid() != 0) GTEST_SKIP() << "no loop device: the test is not run as root";
  std::string backing = Scratch("device.img");
  {
    std::ofstream out(backing, std::ios::binary);
    out.seekp((1 << 20) - 1);
    out.put(0);
  }
  int status = -1;
  std::string device =
      Host("losetup --find --show " + ShellQuoted(backing) + " 2>/dev/null", &status);
  while (!device.empty() && device.back() == '\n') device.pop_back();
  if (status != 0 || device.empty()) GTEST_SKIP() << "no loop device: losetup could not attach one";
  struct Detach {
    std::string device;
    ~Detach() { Host("losetup -d " + ShellQuoted(device)); }
  } detach{device};
  struct stat st;
  if (stat(device.c_str(), &st) != 0 || !S_ISBLK(st.st_mode)) {
    GTEST_SKIP() << "no loop device: " << device << " was attached but has no node here";
  }

  const uint64_t last = (1 << 20) - kRecordSize;
  for (uint64_t offset : {uint64_t{40000}, last}) {
    ToolResult setup = Setup(device, "pw", {"--kdf", "1", "--offset", std::to_string(offset)});
    ASSERT_EQ(setup.status, 0) << setup.err;
  }
  ToolResult list = Tool({"list", "--json", device});
  ASSERT_EQ(list.status, 0) << list.err;
  const Json json = JsonParser(list.out).Parse();
  const std::vector<Json>& records = json["files"].array[0]["records"].array;
  ASSERT_EQ(records.size(), 2u) << list.out;
  EXPECT_EQ(records[0]["offset"].number, 40000);
  EXPECT_EQ(records[1]["offset"].number, static_cast<double>(last));
  EXPECT_EQ(Unlock(device, "pw", {"--offset", "40000"}).status, 0);
}

TEST_F(ToolOutputTest, BackupGoesThroughStandardOutputAndRestoreReadsStandardInput) {
  props_ = {kMdfpp};
  ToolResult made = Setup("userdata", "first", {"--kdf", "2"});
  ASSERT_EQ(made.status, 0) << made.err;
  ASSERT_EQ(Setup("other", "second", {"--kdf", "2"}).status, 0);
  const bool dash_before = std::filesystem::exists("-");

  // The same bytes as a backup file.
  ToolResult out = Tool({"backup", "userdata", "-"});
  ASSERT_EQ(out.status, 0) << out.err;
  EXPECT_EQ(out.err,
            "Backed up secure-storage entry \"userdata\" (2704 bytes, kdf scrypt) to standard "
            "output\n");
  ASSERT_EQ(Tool({"backup", "userdata", Scratch("userdata.bak")}).status, 0);
  std::vector<uint8_t> file = ReadFile(Scratch("userdata.bak"));
  EXPECT_EQ(out.out, std::string(file.begin(), file.end()));

  // Another entry's backup needs --force, from a pipe as from a file.
  auto refused = Piped({"backup", "userdata", "-"}, {"restore", "other", "-"});
  EXPECT_EQ(refused.second.status, 1);
  EXPECT_EQ(refused.second.err,
            "tavikm: standard input is the backup of userdata, not of other; --force restores it "
            "there\n");
  EXPECT_EQ(Unlock("other", "second").status, 0);

  auto [backup, restore] = Piped({"backup", "userdata", "-"}, {"restore", "other", "-", "--force"});
  ASSERT_EQ(backup.status, 0) << backup.err;
  ASSERT_EQ(restore.status, 0) << restore.err;
  EXPECT_EQ(restore.out,
            "Restored secure-storage entry \"other\" (2704 bytes, kdf scrypt) from standard "
            "input\n");
  ToolResult unlock = Unlock("other", "first");
  EXPECT_EQ(unlock.status, 0) << unlock.err;
  EXPECT_EQ(FingerprintIn(unlock.out), FingerprintIn(made.out));
  EXPECT_EQ(Unlock("other", "second").status, 2);
  EXPECT_EQ(std::filesystem::exists("-"), dash_before) << "a file named - was written";

  // Standard input is checked as a file is, and nothing is written when it fails.
  const std::vector<uint8_t> before = Entry("userdata");
  std::string damaged = out.out;
  damaged[damaged.size() / 2] ^= 1;
  ToolResult bad = Tool({"restore", "userdata", "-"}, damaged);
  EXPECT_EQ(bad.status, 1);
  EXPECT_EQ(bad.err, "tavikm: standard input is damaged: its SHA-256 does not match\n");
  ToolResult empty = Tool({"restore", "userdata", "-"}, "");
  EXPECT_EQ(empty.status, 1);
  EXPECT_EQ(empty.err, "tavikm: standard input is not a tavikm backup\n");
  EXPECT_EQ(Entry("userdata"), before);

  // A terminal is neither written with the backup's bytes nor read for them.
  ToolResult to_terminal = OnTerminal({"backup", "userdata", "-"});
  EXPECT_EQ(to_terminal.status, 1);
  EXPECT_NE(to_terminal.out.find("tavikm: a backup is not written to a terminal"), kNone)
      << to_terminal.out;
  ToolResult from_terminal = OnTerminal({"restore", "userdata", "-"});
  EXPECT_EQ(from_terminal.status, 1);
  EXPECT_NE(from_terminal.out.find("tavikm: a backup is not read from a terminal"), kNone)
      << from_terminal.out;

  // A backup that could not be written is a failure.
  in_child_ = [] { dup2(open("/dev/full", O_WRONLY), STDOUT_FILENO); };
  ToolResult full = Tool({"backup", "userdata", "-"});
  in_child_ = nullptr;
  EXPECT_EQ(full.status, 4);
  EXPECT_EQ(full.err,
            "tavikm: cannot write the backup to standard output: No space left on device\n");
}

}  // namespace
}  // namespace tavikm_test
