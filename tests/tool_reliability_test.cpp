// SPDX-License-Identifier: Apache-2.0
// What survives what: the real tavikm binary under torn writes, concurrent commands, odd files,
// hostile records and core-dump probes. Every test counts its trials and how many held, prints
// both, and holds only when all held. A trial is a question asked of the tool from outside (a
// process killed at a byte, two processes racing, a record planted), never of its internals.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <linux/loop.h>
#include <sched.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/file.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <functional>
#include <random>
#include <regex>
#include <string>
#include <vector>

#include "support/tool_runner.h"
#include "tavikm.h"

namespace tavikm_test {
namespace {

constexpr int kKilled = 128 + SIGKILL;

// Bytes between two cuts of a torn write: TAVIKM_TEAR_STRIDE, else 128.
unsigned long long TearStride() {
  const char* stride = getenv("TAVIKM_TEAR_STRIDE");
  unsigned long long value = stride ? strtoull(stride, nullptr, 10) : 0;
  return value ? value : 128;
}

// Counts trials and held trials of one test and reports them at the end.
class Tally {
 public:
  explicit Tally(std::string what) : what_(std::move(what)) {}
  ~Tally() {
    printf("%s: %d trials, %d held\n", what_.c_str(), trials_, held_);
    EXPECT_EQ(held_, trials_) << what_;
  }
  // Records one trial; `why` says what went wrong when it did not hold.
  void Trial(bool held, const std::string& why) {
    ++trials_;
    if (held) {
      ++held_;
    } else if (++reported_ <= 5) {
      ADD_FAILURE() << what_ << ": " << why;
    }
  }

 private:
  std::string what_;
  int trials_ = 0, held_ = 0, reported_ = 0;
};

// "round N: A/B" and both stderrs, for a race that did not hold.
std::string Race(int round, const ToolResult& a, const ToolResult& b) {
  return "round " + std::to_string(round) + ": " + std::to_string(a.status) + "/" +
         std::to_string(b.status) + " " + a.err + b.err;
}

class ToolReliabilityTest : public ToolRunner {
 protected:
  void SetUp() override {
    if (std::string(TAVIKM_TOOL_EMULATOR).size() > 0) {
      GTEST_SKIP() << "the fault shim and /proc probes need the tool to run natively";
    }
    hang_guard_seconds_ = 60;  // a broken tool must not stall the suite
  }

  bool NoJournalLeft() const { return PendingJournals() == 0; }

  // Journals waiting for the next command (those set aside as stale are not counted).
  int PendingJournals() const {
    std::error_code error;
    int count = 0;
    for (const auto& entry : std::filesystem::directory_iterator(Path("journal"), error)) {
      count += entry.is_regular_file();
    }
    return count;
  }

  int StaleJournals() const {
    std::error_code error;
    int count = 0;
    for (const auto& entry : std::filesystem::directory_iterator(Path("journal/stale"), error)) {
      count += entry.is_regular_file();
    }
    return count;
  }

  // The fault shim failing (or signalling at) the `nth` call of kind `call` on paths under
  // `prefixes`.
  static Env FailCall(const std::string& call, const std::string& prefixes, int nth,
                      const std::string& errno_or_signal, bool signal = false) {
    return {{"LD_PRELOAD", TAVIKM_TEAR_SHIM},
            {"FAIL_CALL", call},
            {"FAIL_PATHS", prefixes},
            {"FAIL_NTH", std::to_string(nth)},
            {signal ? "FAIL_SIGNAL" : "FAIL_ERRNO", errno_or_signal}};
  }

  // `args` (a command that changes the record in `file`) killed once its journal is on the disk
  // and `cut` bytes of the record have been written.
  ToolResult KilledAfterJournal(const std::string& file, const Args& args, int cut = 0) {
    return Tool(args, "",
                {{"LD_PRELOAD", TAVIKM_TEAR_SHIM},
                 {"TEAR_PATHS", file},
                 {"TEAR_AFTER", std::to_string(cut)}});
  }

  // The record opens with one of `passwords` and gives `fingerprint`.
  bool OpensWithOneOf(const std::string& loc, const std::vector<std::string>& passwords,
                      const std::string& fingerprint) {
    for (const std::string& password : passwords) {
      ToolResult unlock = Unlock(loc, password);
      if (unlock.status == 0) return FingerprintIn(unlock.out) == fingerprint;
    }
    return false;
  }

  std::pair<ToolResult, ToolResult> RaceOf(const Args& a, const Args& b) {
    pid_t pa = Start(ToolArgv(a), "", {}, "a"), pb = Start(ToolArgv(b), "", {}, "b");
    return {Finish(pa, "a"), Finish(pb, "b")};
  }

  // The bytes of the metadata file outside [from, from + KM_META_SIZE) are `before`'s.
  bool ElsewhereUnchanged(const std::vector<uint8_t>& before, uint64_t from) {
    std::vector<uint8_t> after = ReadFile(MetadataFile());
    if (after.size() != before.size()) return false;
    for (size_t i = 0; i < after.size(); ++i) {
      if ((i < from || i >= from + KM_META_SIZE) && after[i] != before[i]) return false;
    }
    return true;
  }
};

TEST_F(ToolReliabilityTest, APasswdKilledAtAnyByteLeavesARecordTheOldOrNewPasswordOpens) {
  for (bool cbc : {false, true}) {
    Tally tally(cbc ? "torn passwd, CBC-only" : "torn passwd, GCM");
    props_ = cbc ? Args{kCbcOnly} : Args{};
    std::filesystem::remove_all(Path("journal"));
    std::filesystem::remove(MetadataFile());
    ToolResult setup = Setup(MetadataFile(), "old", {"--kdf", "1"});
    ASSERT_EQ(setup.status, 0) << setup.err;
    const std::string fingerprint = FingerprintIn(setup.out);
    const std::vector<uint8_t> before = ReadFile(MetadataFile());

    // A run to the end counts every byte the change writes: the journal, then the record.
    Env env = {{"LD_PRELOAD", TAVIKM_TEAR_SHIM},
               {"TEAR_PATHS", MetadataFile() + ":" + Path("journal/")},
               {"TEAR_REPORT", Scratch("report")}};
    ASSERT_EQ(Tool(Passwd(MetadataFile(), "old", "new"), "", env).status, 0);
    unsigned long long total = 0;
    ASSERT_EQ(sscanf(Slurp(Scratch("report")).c_str(), "counted=%llu", &total), 1);
    const unsigned long long journal = total - KM_META_SIZE;

    // Every stride-th byte (128 here, 16 in the slow run), both sides of each write's edges,
    // and the edges of the fields passwd changes: master_key, salt, key_mac.
    std::vector<unsigned long long> cuts;
    for (unsigned long long k = 0; k <= total; k += TearStride()) cuts.push_back(k);
    for (unsigned long long k : {1ull, journal - 1, journal, journal + 1, total - 1, total}) {
      cuts.push_back(k);
    }
    for (size_t field :
         {offsetof(km_meta, master_key), offsetof(km_meta, salt), offsetof(km_meta, km_key_blob),
          offsetof(km_meta, key_mac), offsetof(km_meta, key_name)}) {
      cuts.push_back(journal + field);
      cuts.push_back(journal + field + 1);
    }
    for (unsigned long long cut : cuts) {
      WriteFile(MetadataFile(), before);
      std::filesystem::remove_all(Path("journal"));
      env["TEAR_AFTER"] = std::to_string(cut);
      ToolResult torn = Tool(Passwd(MetadataFile(), "old", "new"), "", env);
      bool held = torn.status == kKilled &&
                  OpensWithOneOf(MetadataFile(), {"old", "new"}, fingerprint) && NoJournalLeft();
      tally.Trial(held, "killed after byte " + std::to_string(cut) + " of " +
                            std::to_string(total) + " (status " + std::to_string(torn.status) +
                            ")");
    }
  }
}

TEST_F(ToolReliabilityTest, AFirstSetupKilledAtAnyByteLeavesNoFileAndARetryWorks) {
  Tally tally("torn first setup");
  for (unsigned long long cut : {0ull, 1ull, 2704ull, 8000ull, 16383ull, 16384ull}) {
    std::filesystem::remove(MetadataFile());
    Env env = {{"LD_PRELOAD", TAVIKM_TEAR_SHIM},
               {"TEAR_PATHS", Path(".tavikm-new-")},
               {"TEAR_AFTER", std::to_string(cut)}};
    ToolResult torn = Tool(
        {"setup", MetadataFile(), "--kdf", "1", "--password-file", PasswordFile("pw")}, "", env);
    bool held = torn.status == kKilled && !std::filesystem::exists(MetadataFile());
    ToolResult retry = Setup(MetadataFile(), "pw", {"--kdf", "1"});
    held = held && retry.status == 0 &&
           OpensWithOneOf(MetadataFile(), {"pw"}, FingerprintIn(retry.out));
    tally.Trial(held, "killed after byte " + std::to_string(cut) + ": " + torn.err + retry.err);
  }
}

TEST_F(ToolReliabilityTest, TwoCommandsOnOnePlaceNeverBothSucceed) {
  constexpr int kRounds = 8;
  struct Case {
    std::string what;
    Args props;
    std::string loc;
    std::string file;  // what holds the record
  };
  const std::vector<Case> places = {
      {"file", {}, MetadataFile(), MetadataFile()},
      {"secure storage", {kMdfpp}, "userdata", Path("kmstore/e-userdata")},
  };
  for (const Case& c : places) {
    props_ = c.props;
    {
      Tally tally("concurrent passwd, " + c.what);
      ToolResult setup = Setup(c.loc, "p0", {"--kdf", "1"});
      ASSERT_EQ(setup.status, 0) << setup.err;
      const std::string fingerprint = FingerprintIn(setup.out);
      std::string current = "p0";
      for (int round = 0; round < kRounds; ++round) {
        std::string a = "a" + std::to_string(round), b = "b" + std::to_string(round);
        auto [ra, rb] = RaceOf(Passwd(c.loc, current, a), Passwd(c.loc, current, b));
        // Exactly one wins; the other finds the old password changed under it.
        bool held =
            (ra.status == 0) != (rb.status == 0) && (ra.status == 0 ? rb.status : ra.status) == 2;
        held = held && OpensWithOneOf(c.loc, {ra.status == 0 ? a : b}, fingerprint);
        tally.Trial(held, Race(round, ra, rb));
        current = OpensWithOneOf(c.loc, {a}, fingerprint) ? a : b;
      }
    }
    Tally tally("concurrent setup, " + c.what);
    for (int round = 0; round < kRounds; ++round) {
      std::filesystem::remove(c.file);
      auto setup = [&](const std::string& pw) {
        return Args{"setup", c.loc, "--kdf", "1", "--password-file", PasswordFile(pw)};
      };
      auto [ra, rb] = RaceOf(setup("a"), setup("b"));
      bool held = (ra.status == 0) != (rb.status == 0) && ra.status + rb.status == 4;
      const ToolResult& won = ra.status == 0 ? ra : rb;
      held = held && OpensWithOneOf(c.loc, {ra.status == 0 ? "a" : "b"}, FingerprintIn(won.out));
      tally.Trial(held, Race(round, ra, rb));
    }
  }
  Tally tally("concurrent kek put");
  props_ = {kMdfpp};
  for (int round = 0; round < kRounds; ++round) {
    std::filesystem::remove(Path("kmstore/e-vold"));
    auto [ra, rb] = RaceOf({"kek", "put", "vold", "--random"}, {"kek", "put", "vold", "--random"});
    bool held = (ra.status == 0) != (rb.status == 0) && ra.status + rb.status == 4;
    ToolResult get = Tool({"kek", "get", "vold"});
    held = held && get.status == 0 &&
           FingerprintIn(get.out) == FingerprintIn(ra.status == 0 ? ra.out : rb.out);
    tally.Trial(held, Race(round, ra, rb));
  }
}

TEST_F(ToolReliabilityTest, ABusyPlaceIsReportedAfterTheWaitAndLeftAlone) {
  Tally tally("busy places");
  ASSERT_EQ(Setup(MetadataFile(), "pw", {"--kdf", "1"}).status, 0);
  props_ = {kMdfpp};
  ASSERT_EQ(Setup("userdata", "pw", {"--kdf", "1"}).status, 0);
  std::filesystem::create_directories(Path("locks"));
  struct Case {
    std::string loc;
    std::string lock_file;  // what another command would hold
    std::string described;
  };
  const std::vector<Case> cases = {
      {MetadataFile(), MetadataFile(), MetadataFile() + " at offset 0"},
      {"userdata", Path("locks/e-userdata"), "secure-storage entry \"userdata\""},
  };
  for (const Case& c : cases) {
    int fd = open(c.lock_file.c_str(), O_RDWR | O_CREAT, 0600);
    ASSERT_EQ(flock(fd, LOCK_EX), 0);
    Args passwd = Passwd(c.loc, "pw", "new");
    passwd.insert(passwd.begin(), {"--wait", "0"});
    ToolResult busy = Tool(passwd);
    close(fd);
    tally.Trial(busy.status == 4 &&
                    busy.err == "tavikm: " + c.described +
                                    " is busy: another command is using it; try again later\n",
                busy.err);
    tally.Trial(Unlock(c.loc, "pw").status == 0, c.loc + " changed while busy");
  }
}

TEST_F(ToolReliabilityTest, SetupAtAnOffsetChangesOnlyItsOwnBytes) {
  Tally tally("setup at offsets");
  ASSERT_EQ(Setup(MetadataFile(), "zero", {"--kdf", "1"}).status, 0);
  struct Case {
    uint64_t offset;
    std::string kdf;
    bool fits;  // false: it overlaps a record already there
  };
  // Records go in one after the other: at 0, then 2704, 5408, 8112, 13680 and 10976 between the
  // last two.
  const std::vector<Case> cases = {
      {1, "1", false},    {2703, "1", false},  {2704, "1", true},  {2705, "1", false},
      {5408, "4", true},  {8111, "1", false},  {8112, "5", true},  {10815, "1", false},
      {13680, "2", true}, {13000, "1", false}, {10976, "1", true},
  };
  for (const Case& c : cases) {
    std::vector<uint8_t> before = ReadFile(MetadataFile());
    std::string offset = std::to_string(c.offset);
    std::string pw = "pw" + offset;
    ToolResult setup = Setup(MetadataFile(), pw, {"--kdf", c.kdf, "--offset", offset, "--force"});
    bool held = ElsewhereUnchanged(before, c.fits ? c.offset : KM_METADATA_FILE_SIZE);
    if (c.fits) {
      ToolResult unlock = Unlock(MetadataFile(), pw, {"--offset", offset});
      held = held && setup.status == 0 && unlock.status == 0 &&
             FingerprintIn(unlock.out) == FingerprintIn(setup.out);
    } else {
      held = held && setup.status == 4 &&
             setup.err.find("would overlap the record at offset") != std::string::npos;
    }
    tally.Trial(held, "offset " + offset + ": " + setup.err);
  }
  // After a patch raise the kdf 4 record's Keymaster key is upgraded, and the library stores the
  // record by itself at offset 0: the tool must put it at its own offset only.
  props_ = {"ro.build.version.security_patch=2099-12-05"};
  const std::vector<uint8_t> before = ReadFile(MetadataFile());
  ToolResult upgraded = Unlock(MetadataFile(), "pw5408", {"--offset", "5408"});
  tally.Trial(upgraded.status == 0 &&
                  upgraded.out.find("the record was stored again") != std::string::npos &&
                  ElsewhereUnchanged(before, 5408),
              "kdf 4 upgrade at 5408: " + upgraded.err);
  tally.Trial(
      Unlock(MetadataFile(), "pw5408", {"--offset", "5408"}).out.find("Note:") == std::string::npos,
      "the upgraded record was not stored at its offset");
  tally.Trial(Unlock(MetadataFile(), "zero").status == 0, "the record at 0 was lost");
}

TEST_F(ToolReliabilityTest, OnlyRegularFilesAndBlockDevicesAreMetadataFiles) {
  Tally tally("odd files");
  std::string fifo = Scratch("fifo"), dir = Scratch("dir"), sock = Scratch("sock");
  ASSERT_EQ(mkfifo(fifo.c_str(), 0600), 0);
  std::filesystem::create_directories(dir);
  int s = socket(AF_UNIX, SOCK_STREAM, 0);
  sockaddr_un addr = {};
  addr.sun_family = AF_UNIX;
  snprintf(addr.sun_path, sizeof(addr.sun_path), "%s", sock.c_str());
  ASSERT_EQ(bind(s, reinterpret_cast<sockaddr*>(&addr), sizeof(addr)), 0);
  const std::vector<std::pair<std::string, std::string>> files = {
      {fifo, "a FIFO"},
      {"/dev/null", "a character device"},
      {"/dev/zero", "a character device"},
      {dir, "a directory"},
      {sock, "a socket"},
  };
  for (const auto& [path, kind] : files) {
    const std::string sentence = "tavikm: " + path + " is " + kind +
                                 ", not a metadata file (a regular file or a block device)\n";
    for (const Args& args : {Args{"setup", path, "--password-file", PasswordFile("pw")},
                             Args{"unlock", path, "--password-file", PasswordFile("pw")},
                             Passwd(path, "pw", "new"), Args{"inspect", "--file", path}}) {
      ToolResult result = Tool(args);
      tally.Trial(result.status == 4 && result.err == sentence && result.out.empty(),
                  args[0] + " " + path + ": " + std::to_string(result.status) + " " + result.err);
    }
  }
  close(s);

  // A FIFO in place of a secure-storage entry or of build.prop blocks nothing.
  props_ = {kMdfpp};
  std::filesystem::create_directories(Path("kmstore"));
  ASSERT_EQ(mkfifo(Path("kmstore/e-userdata").c_str(), 0600), 0);
  ToolResult entry = Unlock("userdata", "pw");
  tally.Trial(entry.status == 4, "kmstore FIFO: " + entry.err);
  ASSERT_EQ(mkfifo(Path("build.prop").c_str(), 0600), 0);
  ToolResult prop = Unlock(Scratch("absent"), "pw");
  tally.Trial(prop.status == 3, "build.prop FIFO: " + prop.err);
}

TEST_F(ToolReliabilityTest, HostileRecordsAndNamesAreRefusedBeforeTheLibrarySeesThem) {
  Tally tally("hostile records and names");
  ASSERT_EQ(Setup(MetadataFile(), "pw", {"--kdf", "2"}).status, 0);
  const std::vector<uint8_t> good = ReadFile(MetadataFile());
  struct Cost {
    uint8_t n, r, p;
  };
  // Above N·r·p·128 = 1 GiB; 16:7:0 is exactly 1 GiB and would be derived.
  for (Cost cost : {Cost{10, 0, 17}, Cost{24, 0, 0}, Cost{16, 8, 0}, Cost{255, 255, 255}}) {
    std::vector<uint8_t> bad = good;
    bad[offsetof(km_meta, N_factor)] = cost.n;
    bad[offsetof(km_meta, r_factor)] = cost.r;
    bad[offsetof(km_meta, p_factor)] = cost.p;
    WriteFile(MetadataFile(), bad);
    for (const Args& args : {Args{"unlock", MetadataFile(), "--password-file", PasswordFile("pw")},
                             Passwd(MetadataFile(), "pw", "new")}) {
      ToolResult result = Tool(args);
      tally.Trial(result.status == 4 &&
                      result.err.rfind("tavikm: the record looks damaged: ", 0) == 0 &&
                      ReadFile(MetadataFile()) == bad,
                  args[0] + ": " + result.err);
    }
  }
  // Nor does the tool create such a record.
  props_ = {"ro.crypto.scrypt_params=20:4:0"};
  ToolResult setup = Setup(Scratch("costly"), "pw", {"--kdf", "2"});
  tally.Trial(setup.status == 4 && !std::filesystem::exists(Scratch("costly")), setup.err);

  // Key locations and KEK names the record's 256-byte key_name cannot hold.
  const std::string longest(255, 'k'), too_long(256, 'k'), far_too_long(441, 'k');
  props_ = {kMdfpp};
  for (const std::string& name : {too_long, far_too_long}) {
    for (const Args& args : {Args{"setup", name, "--password-file", PasswordFile("pw")},
                             Args{"unlock", name, "--password-file", PasswordFile("pw")},
                             Args{"kek", "put", name, "--random"}, Args{"kek", "delete", name}}) {
      ToolResult result = Tool(args);
      tally.Trial(result.status == 1 && result.err.find("bytes long") != std::string::npos,
                  args[0] + " of " + std::to_string(name.size()) + ": " + result.err);
    }
  }
  tally.Trial(Setup(longest, "pw", {"--kdf", "1"}).status == 0, "a 255-byte name");

  // KEK commands leave master-key records alone, whatever --force says.
  ASSERT_EQ(Setup("userdata", "pw", {"--kdf", "1"}).status, 0);
  ASSERT_EQ(Setup("rek", "pw", {"--kdf", "4"}).status, 0);
  for (const std::string& name : {std::string("userdata"), std::string("rek")}) {
    const std::vector<uint8_t> entry = ReadFile(Path("kmstore/e-" + name));
    for (const Args& args :
         {Args{"kek", "delete", name}, Args{"kek", "put", name, "--random", "--force"}}) {
      ToolResult result = Tool(args);
      tally.Trial(result.status == 4 &&
                      result.err == "tavikm: the entry \"" + name +
                                        "\" is a master-key record, not a KEK; kek " + args[1] +
                                        " leaves it alone\n" &&
                      ReadFile(Path("kmstore/e-" + name)) == entry,
                  args[1] + " " + name + ": " + result.err);
    }
  }
}

// Loop device of `size` bytes backed by a file, for the block-device guards; detached at the end.
class LoopDevice {
 public:
  LoopDevice(const std::string& backing, size_t size) {
    WriteFile(backing, std::vector<uint8_t>(size, 0));
    int control = open("/dev/loop-control", O_RDWR | O_CLOEXEC);
    if (control < 0) return;
    int number = ioctl(control, LOOP_CTL_GET_FREE);
    close(control);
    if (number < 0) return;
    path_ = "/dev/loop" + std::to_string(number);
    fd_ = open(path_.c_str(), O_RDWR | O_CLOEXEC);
    int file = open(backing.c_str(), O_RDWR | O_CLOEXEC);
    if (fd_ < 0 || file < 0 || ioctl(fd_, LOOP_SET_FD, file) != 0) path_.clear();
    if (file >= 0) close(file);
  }
  ~LoopDevice() {
    if (!path_.empty()) ioctl(fd_, LOOP_CLR_FD, 0);
    if (fd_ >= 0) close(fd_);
  }
  // "" when no loop device could be set up (not root, no loop driver).
  const std::string& path() const { return path_; }

 private:
  std::string path_;
  int fd_ = -1;
};

TEST_F(ToolReliabilityTest, FilesAndOffsetsTheLibraryWouldDamageAreRefusedAndLeftAlone) {
  Tally tally("files and offsets the library would damage");
  // A regular file of another length is no metadata file: the library's store would cut it to
  // 16384 bytes. A new file is still created.
  ASSERT_EQ(Setup(MetadataFile(), "pw", {"--kdf", "1"}).status, 0);
  const std::string backup = Scratch("b0.bak");
  ASSERT_EQ(Tool({"backup", MetadataFile(), backup}).status, 0);
  for (size_t length : {size_t{1} << 20, size_t{16385}, size_t{16383}, size_t{100}}) {
    const std::string odd = Scratch("odd-" + std::to_string(length));
    std::vector<uint8_t> bytes(length, 0x5a);
    WriteFile(odd, bytes);
    const std::string sentence = "tavikm: " + odd +
                                 " is not a metadata file: " + std::to_string(length) +
                                 " bytes instead of 16384\n";
    for (const Args& args :
         {Args{"setup", odd, "--force", "--kdf", "1", "--password-file", PasswordFile("pw")},
          Args{"restore", odd, backup, "--force"}}) {
      ToolResult result = Tool(args);
      tally.Trial(result.status == 4 && result.err == sentence && ReadFile(odd) == bytes,
                  args[0] + " on " + std::to_string(length) +
                      " bytes: " + std::to_string(result.status) + " " + result.err);
    }
  }
  ToolResult fresh = Tool({"restore", Scratch("fresh"), backup, "--force"});
  tally.Trial(fresh.status == 0 && ReadFile(Scratch("fresh")).size() == KM_METADATA_FILE_SIZE,
              "restore to a new file: " + fresh.err);

  // restore refuses an offset that overlaps another record, as setup does.
  ASSERT_EQ(Setup(MetadataFile(), "pw2", {"--kdf", "1", "--offset", "5408"}).status, 0);
  const std::vector<uint8_t> two = ReadFile(MetadataFile());
  for (uint64_t offset : {4000ull, 2705ull, 8111ull, 1ull}) {
    const std::string at = std::to_string(offset);
    ToolResult result = Tool({"restore", MetadataFile(), backup, "--offset", at});
    tally.Trial(result.status == 4 &&
                    result.err.find("a record at offset " + at + " of " + MetadataFile() +
                                    " would overlap the record at offset ") != std::string::npos &&
                    ReadFile(MetadataFile()) == two,
                "restore at " + at + ": " + result.err);
  }
  ToolResult beside = Tool({"restore", MetadataFile(), backup, "--offset", "10816"});
  tally.Trial(beside.status == 0 && Unlock(MetadataFile(), "pw", {"--offset", "10816"}).status == 0,
              "restore beside: " + beside.err);

  // On a block device a record must end within it.
  LoopDevice loop(Scratch("loop.img"), 65536);
  if (loop.path().empty()) {
    printf("no loop device here: the block-device trials are left out\n");
    return;
  }
  ToolResult made = Setup(loop.path(), "pw", {"--kdf", "1"});
  ASSERT_EQ(made.status, 0) << made.err;
  std::vector<uint8_t> device = ReadFile(Scratch("loop.img"));
  const std::string no_room =
      "tavikm: --offset 64000 leaves no room for a record on " + loop.path() + " (65536 bytes)\n";
  for (const Args& args : {Args{"setup", loop.path(), "--offset", "64000", "--kdf", "1",
                                "--password-file", PasswordFile("pw")},
                           Args{"restore", loop.path(), backup, "--offset", "64000", "--force"}}) {
    ToolResult result = Tool(args);
    tally.Trial(
        result.status == 1 && result.err.rfind(no_room, 0) == 0 &&
            ReadFile(Scratch("loop.img")) == device,
        args[0] + " past the device's end: " + std::to_string(result.status) + " " + result.err);
  }
  ToolResult after = Unlock(loop.path(), "pw");
  tally.Trial(after.status == 0 && FingerprintIn(after.out) == FingerprintIn(made.out),
              "the record at 0 after the refusals: " + after.err);
}

// An older-generation record (major version 2) in secure storage beside its plain KEK entry.
class LegacyKekTest : public ToolReliabilityTest {
 protected:
  void PlantOlderRecord(const std::string& name) {
    std::vector<uint8_t> entry = Entry(name);
    ASSERT_EQ(entry.size(), static_cast<size_t>(KM_META_SIZE));
    entry[offsetof(km_meta, major_version)] = 2;
    entry[offsetof(km_meta, major_version) + 1] = 0;
    kmstore_device* device = nullptr;
    ASSERT_EQ(kmstore_device_init(&device), 0);
    ASSERT_EQ(device->write(name.c_str(), entry.data(), entry.size()), 0);
    // Bytes 16 to 23 read as a keysize of 0x1817161514131211 and byte 24 as a kdf_type of 0:
    // what a reader taking the KEK for a record would print.
    for (size_t i = 0; i < sizeof(kek_); ++i) kek_[i] = static_cast<uint8_t>(i < 24 ? i + 1 : 0);
    ASSERT_EQ(device->write((name + "_kek").c_str(), kek_, sizeof(kek_)), 0);
  }
  // No part of the KEK's bytes shows in `text`: not as hex, not as the numbers a record's
  // fields would read from them.
  bool ShowsNoKekByte(const std::string& text) {
    static const char kDigits[] = "0123456789abcdef";
    for (size_t i = 0; i + 4 <= sizeof(kek_); i += 4) {
      std::string hex;
      for (size_t j = i; j < i + 4; ++j) {
        hex += kDigits[kek_[j] >> 4];
        hex += kDigits[kek_[j] & 15];
      }
      if (text.find(hex) != std::string::npos) return false;
    }
    return text.find(std::to_string(0x1817161514131211ull)) == std::string::npos &&
           text.find("0x04030201") == std::string::npos;
  }
  uint8_t kek_[32];
};

TEST_F(LegacyKekTest, ThePlainKekOfAnOlderRecordIsItsKekAndIsNeverShown) {
  Tally tally("legacy KEK entries");
  props_ = {kMdfpp};
  ToolResult setup = Setup("userdata", "pw", {"--kdf", "2"});
  ASSERT_EQ(setup.status, 0) << setup.err;
  PlantOlderRecord("userdata");
  const std::vector<uint8_t> kek = Entry("userdata_kek");
  ASSERT_EQ(Tool({"backup", "userdata", Scratch("u.bak")}).status, 0);
  const std::vector<std::pair<Args, std::string>> replacing = {
      {{"kek", "delete", "userdata_kek"}, "kek delete"},
      {{"kek", "put", "userdata_kek", "--random", "--force"}, "kek put"},
      {{"setup", "userdata_kek", "--force", "--kdf", "1", "--password-file", PasswordFile("pw")},
       "setup"},
      {{"restore", "userdata_kek", Scratch("u.bak"), "--force"}, "restore"},
  };
  for (const auto& [args, command] : replacing) {
    ToolResult result = Tool(args);
    tally.Trial(result.status == 4 &&
                    result.err ==
                        "tavikm: the entry \"userdata_kek\" is the legacy KEK of the "
                        "record \"userdata\" (an older generation keeps it there until "
                        "it is unlocked); " +
                            command + " leaves it alone\n" &&
                    Entry("userdata_kek") == kek,
                command + ": " + std::to_string(result.status) + " " + result.err);
  }
  ToolResult list = Tool({"list"});
  tally.Trial(list.status == 0 &&
                  std::regex_search(list.out, std::regex("\n  userdata_kek +KEK +- +32 +legacy, "
                                                         "plain: the KEK of userdata\n")) &&
                  ShowsNoKekByte(list.out),
              list.out);
  ToolResult json = Tool({"list", "--json"});
  tally.Trial(json.status == 0 &&
                  json.out.find("{\"name\": \"userdata_kek\", \"kind\": \"legacy_kek\", "
                                "\"kek_of\": \"userdata\"") != std::string::npos &&
                  ShowsNoKekByte(json.out),
              json.out);
  for (const Args& args :
       {Args{"inspect", "userdata_kek"}, Args{"inspect", "--entry", "userdata_kek", "--json"}}) {
    ToolResult inspect = Tool(args);
    tally.Trial(inspect.status == 0 && inspect.out.find("legacy") != std::string::npos &&
                    ShowsNoKekByte(inspect.out),
                "inspect: " + inspect.out);
  }
  ToolResult backup = Tool({"backup", "userdata_kek", Scratch("kek.bak")});
  tally.Trial(backup.status == 0 && ShowsNoKekByte(backup.out) &&
                  backup.out.find("kdf") == std::string::npos,
              "backup: " + backup.out);
  // The record still opens: its upgrade found the KEK and moved it in.
  ToolResult unlock = Unlock("userdata", "pw");
  tally.Trial(unlock.status == 0 && FingerprintIn(unlock.out) == FingerprintIn(setup.out) &&
                  Entry("userdata_kek").empty(),
              "unlock: " + unlock.err);
}

TEST_F(LegacyKekTest, TheLibraryWritesNoPlaceTheCommandDidNotLock) {
  Tally tally("library writes elsewhere");
  props_ = {kMdfpp};
  // A kdf 4 record restored under another name keeps its key_name: after a patch raise, its
  // Keymaster key upgrade must be stored under the name it was read from, not over "userdata".
  ToolResult first = Setup("userdata", "a", {"--kdf", "4"});
  ASSERT_EQ(first.status, 0) << first.err;
  ASSERT_EQ(Tool({"backup", "userdata", Scratch("u.bak")}).status, 0);
  ASSERT_EQ(Tool({"restore", "userdata2", Scratch("u.bak"), "--force"}).status, 0);
  ToolResult second = Setup("userdata", "b", {"--kdf", "4", "--force"});
  ASSERT_EQ(second.status, 0) << second.err;
  props_.push_back("ro.build.version.security_patch=2099-12-05");
  const std::vector<uint8_t> userdata = Entry("userdata");
  ToolResult copy = Unlock("userdata2", "a");
  tally.Trial(copy.status == 0 && FingerprintIn(copy.out) == FingerprintIn(first.out) &&
                  Entry("userdata") == userdata,
              "unlock of the copy: " + copy.err);
  ToolResult original = Unlock("userdata", "b");
  tally.Trial(original.status == 0 && FingerprintIn(original.out) == FingerprintIn(second.out),
              "userdata after the copy's upgrade: " + original.err);
  ToolResult again = Unlock("userdata2", "a");
  tally.Trial(again.status == 0 && again.out.find("Note:") == std::string::npos,
              "the copy's upgrade was stored under its own name: " + again.out + again.err);

  // An older-generation copy under another name shares the original's plain KEK entry: the
  // library leaves that entry to the record that owns it, so the unlock succeeds and the entry
  // is as it was (the tool would put it back and say so, were it changed).
  props_ = {kMdfpp};
  ToolResult older = Setup("old", "pw", {"--kdf", "2"});
  ASSERT_EQ(older.status, 0) << older.err;
  PlantOlderRecord("old");
  ASSERT_EQ(Tool({"backup", "old", Scratch("old.bak")}).status, 0);
  ASSERT_EQ(Tool({"restore", "old2", Scratch("old.bak"), "--force"}).status, 0);
  const std::vector<uint8_t> kek = Entry("old_kek");
  ToolResult taken = Unlock("old2", "pw");
  tally.Trial(taken.status == 0 && taken.err.empty() && Entry("old_kek") == kek,
              "unlock of the older copy: " + std::to_string(taken.status) + " " + taken.err);
  ToolResult kept = Unlock("old", "pw");
  tally.Trial(kept.status == 0 && FingerprintIn(kept.out) == FingerprintIn(older.out),
              "the older original after its copy's upgrade: " + kept.err);
}

TEST_F(ToolReliabilityTest, LeftoversAndOddInputsNeverBlockACommand) {
  Tally tally("leftovers and odd inputs");
  // A first setup killed while writing its temporary file, retried by a process of the same
  // number (as a PID namespace hands them out): the retry works and the leftover goes.
  in_child_ = [] {
    // A user without privileges gets its PID namespace inside a user namespace of its own, mapped
    // to itself so the files it makes are its own (neither exists inside a chroot).
    const uid_t uid = geteuid();
    const gid_t gid = getegid();
    if (unshare(CLONE_NEWPID) != 0) {
      if (unshare(CLONE_NEWUSER | CLONE_NEWPID) != 0) _exit(125);
      std::ofstream("/proc/self/setgroups") << "deny";
      std::ofstream("/proc/self/uid_map") << uid << " " << uid << " 1";
      std::ofstream("/proc/self/gid_map") << gid << " " << gid << " 1";
    }
    // The tool runs as process 2 of the namespace every time (process 1 ignores SIGKILL from
    // itself).
    pid_t init = fork();
    if (init != 0) {
      int status = 0;
      waitpid(init, &status, 0);
      if (WIFSIGNALED(status)) kill(getpid(), WTERMSIG(status));
      _exit(WIFEXITED(status) ? WEXITSTATUS(status) : 125);
    }
    pid_t tool = fork();
    if (tool != 0) {
      int status = 0;
      waitpid(tool, &status, 0);
      if (WIFSIGNALED(status)) _exit(128 + WTERMSIG(status));
      _exit(WEXITSTATUS(status));
    }
  };
  const std::string meta = Scratch("fresh-meta");
  Env env = {{"LD_PRELOAD", TAVIKM_TEAR_SHIM},
             {"TEAR_PATHS", Scratch(".tavikm-new-")},
             {"TEAR_AFTER", "4096"}};
  ToolResult torn =
      Tool({"setup", meta, "--kdf", "1", "--password-file", PasswordFile("pw")}, "", env);
  if (torn.status == 125) {
    in_child_ = nullptr;
    printf("no PID namespace here: the retry after a torn first setup is left out\n");
  } else {
    ToolResult retry = Setup(meta, "pw", {"--kdf", "1"});
    in_child_ = nullptr;
    bool leftover = false;
    for (const auto& file : std::filesystem::directory_iterator(Scratch(""))) {
      leftover = leftover || file.path().filename().string().rfind(".tavikm-new-", 0) == 0;
    }
    tally.Trial(torn.status == 128 + SIGKILL && retry.status == 0 && !leftover &&
                    OpensWithOneOf(meta, {"pw"}, FingerprintIn(retry.out)),
                "retry after a torn first setup: " + std::to_string(torn.status) + " " + retry.err);
  }

  // A FIFO nobody writes to, as a backup, password or key file: refused, or given up after the
  // wait, never a hang.
  hang_guard_seconds_ = 20;
  const std::string fifo = Scratch("silent");
  ASSERT_EQ(mkfifo(fifo.c_str(), 0600), 0);
  ASSERT_EQ(Setup(MetadataFile(), "pw", {"--kdf", "1"}).status, 0);
  props_ = {kMdfpp};
  struct Case {
    Args args;
    std::string err;
  };
  const std::vector<Case> cases = {
      {{"restore", MetadataFile(), fifo}, "backup file " + fifo + " is a FIFO, not a regular file"},
      {{"restore", MetadataFile(), "/dev/zero"},
       "backup file /dev/zero is a character device, not a regular file"},
      {{"unlock", MetadataFile(), "--password-file", fifo},
       "nothing came from password file " + fifo + " (a FIFO) within 1 second"},
      {{"kek", "put", "k", "--key-file", fifo},
       "nothing came from key file " + fifo + " (a FIFO) within 1 second"},
      {{"unlock", MetadataFile(), "--password-file", Scratch("")},
       "password file " + Scratch("") + " is a directory, not a file to read"},
  };
  for (const Case& c : cases) {
    ToolResult result = Tool(Join({"--wait", "1"}, c.args));
    tally.Trial(result.status == 1 && result.err == "tavikm: " + c.err + "\n",
                c.args[0] + ": " + std::to_string(result.status) + " " + result.err);
  }
  // Standard input still gives the password and the key.
  props_ = {};
  ToolResult piped = Tool({"unlock", MetadataFile(), "--password-file", "-"}, "pw\n");
  tally.Trial(piped.status == 0, "password from standard input: " + piped.err);
  props_ = {kMdfpp};
  ToolResult key = Tool({"kek", "put", "k", "--key-file", "-"}, std::string(64, 'a') + "\n");
  tally.Trial(key.status == 0, "key from standard input: " + key.err);
}

TEST_F(ToolReliabilityTest, EveryFileTheToolCreatesIsTheOwnersAloneWhateverTheUmask) {
  Tally tally("modes under umask 000");
  in_child_ = [] { umask(0); };
  const std::string fresh = Scratch("device");
  // A passwd makes the journal folder (the runner's, outside the device directory); a
  // secure-storage setup the locks folder and kmstore.
  ASSERT_EQ(Exec({TAVIKM_TOOL_PATH, "--device-dir", fresh, "--prop", kFastScrypt, "setup",
                  Scratch("meta"), "--kdf", "1", "--password-file", PasswordFile("pw")})
                .status,
            0);
  ASSERT_EQ(Exec({TAVIKM_TOOL_PATH, "--device-dir", fresh, "--prop", kFastScrypt, "passwd",
                  Scratch("meta"), "--password-file", PasswordFile("pw"), "--new-password-file",
                  PasswordFile("new")})
                .status,
            0);
  ASSERT_EQ(Exec({TAVIKM_TOOL_PATH, "--device-dir", fresh, "--prop", kFastScrypt, "--prop", kMdfpp,
                  "setup", "userdata", "--kdf", "1", "--password-file", PasswordFile("pw")})
                .status,
            0);
  ASSERT_EQ(Exec({TAVIKM_TOOL_PATH, "--device-dir", fresh, "backup", Scratch("meta"),
                  Scratch("meta.bak")})
                .status,
            0);
  in_child_ = nullptr;
  for (const std::string& path :
       {fresh + "/log.txt", Scratch("meta"), Scratch("meta.bak"), Path("journal"), fresh + "/locks",
        fresh + "/locks/e-userdata", fresh + "/kmstore", fresh + "/kmstore/e-userdata"}) {
    struct stat st;
    bool held = stat(path.c_str(), &st) == 0 &&
                (st.st_mode & 07777) == (S_ISDIR(st.st_mode) ? 0700u : 0600u);
    char mode[16];
    snprintf(mode, sizeof(mode), "%o", st.st_mode & 07777);
    tally.Trial(held, path + " has mode " + mode);
  }
}

TEST_F(ToolReliabilityTest, AStoreThatTookEffectButCannotBeReadBackSaysSo) {
  Tally tally("stores that cannot be read back");
  ASSERT_EQ(Setup(MetadataFile(), "old", {"--kdf", "1"}).status, 0);
  Env env = {
      {"LD_PRELOAD", TAVIKM_TEAR_SHIM}, {"TEAR_PATHS", MetadataFile()}, {"TEAR_READ_FAIL", "1"}};
  ToolResult passwd = Tool(Passwd(MetadataFile(), "old", "new"), "", env);
  tally.Trial(passwd.status == 4 &&
                  passwd.err == "tavikm: the record under the new password was stored at " +
                                    MetadataFile() +
                                    " at offset 0, but could not be read back to verify: cannot "
                                    "read " +
                                    MetadataFile() + ": Input/output error\n",
              "passwd: " + std::to_string(passwd.status) + " " + passwd.err);
  tally.Trial(Unlock(MetadataFile(), "new").status == 0, "the new password does not open it");
}

TEST_F(ToolReliabilityTest, SecretsStayOutOfCoreDumps) {
  Tally tally("core dumps");
  ASSERT_EQ(Setup(MetadataFile(), "pw", {"--kdf", "1"}).status, 0);
  // The tool blocks opening the FIFO for its password: look at it from outside meanwhile.
  std::string fifo = Scratch("password-fifo");
  ASSERT_EQ(mkfifo(fifo.c_str(), 0600), 0);
  pid_t pid =
      Start(ToolArgv({"unlock", MetadataFile(), "--password-file", fifo}), "",
            {{"LD_PRELOAD", TAVIKM_TEAR_SHIM}, {"TEAR_REPORT", Scratch("report")}}, "probe");
  int writer = open(fifo.c_str(), O_WRONLY);
  ASSERT_GE(writer, 0);
  std::string limits = Slurp("/proc/" + std::to_string(pid) + "/limits");
  tally.Trial(std::regex_search(limits, std::regex("Max core file size +0 +0 ")), limits);
  // Root reads the maps of a non-dumpable process; anyone else is refused, which tells as much.
  std::string smaps = Slurp("/proc/" + std::to_string(pid) + "/smaps");
  if (!smaps.empty()) {
    tally.Trial(std::regex_search(smaps, std::regex("VmFlags:.* dd")),
                "no mapping marked MADV_DONTDUMP");
  }
  ASSERT_EQ(write(writer, "pw\n", 3), 3);
  close(writer);
  ToolResult unlock = Finish(pid, "probe");
  tally.Trial(unlock.status == 0, unlock.err);
  tally.Trial(Slurp(Scratch("report")).find("dumpable=0 core=0\n") != std::string::npos,
              Slurp(Scratch("report")));
}

TEST_F(ToolReliabilityTest, AJournalAppliesOnlyToTheFileAndTheBytesItWasWrittenFor) {
  Tally tally("journals bound to their file and bytes");
  const std::string m = MetadataFile(), other = Scratch("other.img"), link = Scratch("link.img");
  auto fresh = [&] {
    std::filesystem::remove_all(Path("journal"));
    for (const std::string& file : {m, other, link}) std::filesystem::remove(file);
  };
  auto interrupted = [&](const std::string& from, const std::string& to, const Args& extra = {}) {
    ToolResult killed = KilledAfterJournal(m, Join(Passwd(m, from, to), extra));
    EXPECT_EQ(killed.status, kKilled) << killed.err;
  };
  // The record `setup` printed opens with `password` at `offset` of `file`.
  auto opens = [&](const std::string& file, const std::string& password, const ToolResult& setup,
                   const std::string& offset = "0") {
    ToolResult unlock = Unlock(file, password, {"--offset", offset});
    return setup.status == 0 && unlock.status == 0 &&
           FingerprintIn(unlock.out) == FingerprintIn(setup.out);
  };

  // The file removed and set up anew (inode numbers are reused at once).
  fresh();
  ASSERT_EQ(Setup(m, "A", {"--kdf", "1"}).status, 0);
  interrupted("A", "B");
  std::filesystem::remove(m);
  ToolResult again = Setup(m, "F", {"--kdf", "1"});
  tally.Trial(opens(m, "F", again), "rm + setup: the new record was overwritten");

  // The file removed and restored from a backup of an older state.
  fresh();
  ToolResult first = Setup(m, "A", {"--kdf", "1"});
  ASSERT_EQ(Tool({"backup", m, Scratch("a.bak")}).status, 0);
  ASSERT_EQ(Tool(Passwd(m, "A", "B")).status, 0);
  interrupted("B", "C");
  std::filesystem::remove(m);
  ToolResult restored = Tool({"restore", m, Scratch("a.bak")});
  tally.Trial(restored.status == 0 && opens(m, "A", first),
              "restore from a backup: it was undone " + restored.err);
  std::filesystem::remove(Scratch("a.bak"));

  // Another file moved over it.
  fresh();
  ToolResult theirs = Setup(other, "O", {"--kdf", "1"});
  ASSERT_EQ(Setup(m, "A", {"--kdf", "1"}).status, 0);
  interrupted("A", "B");
  ASSERT_EQ(rename(other.c_str(), m.c_str()), 0);
  tally.Trial(opens(m, "O", theirs), "mv other.img: its record was overwritten");

  // A journal of offset 8192 and a new record at 6000, which the old place overlaps.
  fresh();
  ASSERT_EQ(Setup(m, "A", {"--kdf", "1", "--offset", "8192"}).status, 0);
  interrupted("A", "B", {"--offset", "8192"});
  std::filesystem::remove(m);
  ToolResult at6000 = Setup(m, "F", {"--kdf", "1", "--offset", "6000"});
  tally.Trial(opens(m, "F", at6000, "6000"), "offset 8192 journal over a record at 6000");

  // A hard link in another folder is the same file: a torn record is repaired through it, and
  // a later setup through it is not undone by the journal of the first name.
  fresh();
  ToolResult linked = Setup(m, "A", {"--kdf", "1"});
  ASSERT_EQ(::link(m.c_str(), link.c_str()), 0);
  ToolResult torn = KilledAfterJournal(m, Passwd(m, "A", "B"), 1024);
  ASSERT_EQ(torn.status, kKilled);
  tally.Trial(OpensWithOneOf(link, {"A", "B"}, FingerprintIn(linked.out)),
              "a torn record was not repaired through a hard link");
  torn = KilledAfterJournal(m, Passwd(m, "A", "B"), 1024);
  ASSERT_EQ(torn.status, kKilled);
  ToolResult forced = Setup(link, "F", {"--kdf", "1", "--force"});
  tally.Trial(opens(m, "F", forced), "setup --force through a hard link was undone");

  // A passwd run with another device directory is not rolled back by this one's journal.
  fresh();
  ToolResult original = Setup(m, "A", {"--kdf", "1"});
  interrupted("A", "X");
  ToolResult elsewhere =
      Tool(Join({"--device-dir", Scratch("device-b")}, Passwd(m, "A", "B")), "", {});
  tally.Trial(elsewhere.status == 0 && opens(m, "B", original),
              "--device-dir B then A: " + elsewhere.err);
}

TEST_F(ToolReliabilityTest, AnInterruptedKdf4UnlockLeavesNoJournalToReplayLater) {
  // A kdf 4 record needs its Keymaster key upgraded after a patch raise, which the tool then
  // stores; without a raise nothing is stored.
  const std::string m = MetadataFile();
  std::mt19937 random(20261125);
  for (bool upgrade : {false, true}) {
    Tally tally(upgrade ? "interrupted kdf 4 unlocks that store an upgrade"
                        : "interrupted kdf 4 unlocks");
    for (const std::string& sig : {std::to_string(SIGINT), std::to_string(SIGKILL)}) {
      for (int nth = 1; nth <= 5; ++nth) {
        std::filesystem::remove_all(Path("journal"));
        std::filesystem::remove(m);
        props_ = {};
        ToolResult setup = Setup(m, "A", {"--kdf", "4"});
        ASSERT_EQ(setup.status, 0) << setup.err;
        props_ = upgrade ? Args{"ro.build.version.security_patch=2099-12-05"} : Args{};
        ToolResult hit = Tool({"unlock", m, "--password-file", PasswordFile("A")}, "",
                              FailCall("fsync", "/", nth, sig, true));
        std::string what = "signal " + sig + " at fsync " + std::to_string(nth) + " (status " +
                           std::to_string(hit.status) + ")";
        // SIGINT waits for a store in progress; only SIGKILL may leave a journal, which the next
        // command on the file then finishes.
        bool held = sig == std::to_string(SIGKILL) || NoJournalLeft();
        // Straight on to a new file of that name: whatever was left must not touch it.
        std::filesystem::remove(m);
        ToolResult replaced = Setup(m, "F", {"--kdf", "4"});
        held =
            held && replaced.status == 0 && OpensWithOneOf(m, {"F"}, FingerprintIn(replaced.out));
        tally.Trial(held, what + ": " + hit.err + replaced.err);
      }
    }
    // SIGINT at random moments of the whole run.
    for (int round = 0; round < 12; ++round) {
      std::filesystem::remove_all(Path("journal"));
      std::filesystem::remove(m);
      props_ = {};
      ToolResult setup = Setup(m, "A", {"--kdf", "4"});
      ASSERT_EQ(setup.status, 0);
      props_ = upgrade ? Args{"ro.build.version.security_patch=2099-12-05"} : Args{};
      pid_t pid = Start(ToolArgv({"unlock", m, "--password-file", PasswordFile("A")}), "", {}, "i");
      usleep(static_cast<useconds_t>(random() % 40000));
      kill(pid, SIGINT);
      ToolResult interrupted = Finish(pid, "i");
      tally.Trial(NoJournalLeft() && OpensWithOneOf(m, {"A"}, FingerprintIn(setup.out)),
                  "SIGINT round " + std::to_string(round) + ": " + interrupted.err);
    }
  }
}

TEST_F(ToolReliabilityTest, TheNameInsideAKdf4RecordNeverDecidesWhatAnUnlockWrites) {
  // The library would store an upgraded kdf 4 record at offset 0 of the file its key_name
  // names, over a record there with the same salt and wrapped key: here a copy of the file.
  Tally tally("names inside kdf 4 records");
  const std::string m = MetadataFile(), copy = Scratch("copy.img"), fifo = Scratch("fifo");
  ASSERT_EQ(mkfifo(fifo.c_str(), 0600), 0);
  for (const std::string& name : {copy, Scratch("absent"), fifo}) {
    std::filesystem::remove(m);
    props_ = {};
    ToolResult setup = Setup(m, "A", {"--kdf", "4"});
    ASSERT_EQ(setup.status, 0);
    std::vector<uint8_t> bytes = ReadFile(m);
    std::fill(bytes.begin() + offsetof(km_meta, key_name),
              bytes.begin() + offsetof(km_meta, key_name) + sizeof(km_meta::key_name), 0);
    std::copy(name.begin(), name.end(), bytes.begin() + offsetof(km_meta, key_name));
    WriteFile(m, bytes);
    WriteFile(copy, bytes);
    props_ = {"ro.build.version.security_patch=2099-12-05"};
    ToolResult unlock = Unlock(m, "A");
    bool held = ReadFile(copy) == bytes && unlock.status == 0 &&
                FingerprintIn(unlock.out) == FingerprintIn(setup.out) &&
                unlock.out.find("stored again") != std::string::npos;
    tally.Trial(held, "key_name " + name + ": " + std::to_string(unlock.status) + " " + unlock.err);
  }
}

TEST_F(ToolReliabilityTest, AJournalThatCannotBeReadIsKeptAndTheCommandFails) {
  Tally tally("unreadable journals");
  const std::string m = MetadataFile();
  ToolResult setup = Setup(m, "old", {"--kdf", "1"});
  ASSERT_EQ(setup.status, 0);
  ASSERT_EQ(KilledAfterJournal(m, Passwd(m, "old", "new"), 1024).status, kKilled);
  ASSERT_EQ(PendingJournals(), 1);
  for (const std::string call : {"open", "pread"}) {
    for (const Args& args : {Args{"inspect", m}, Args{"backup", m, Scratch("b.bak." + call)},
                             Args{"unlock", m, "--password-file", PasswordFile("old")}}) {
      ToolResult failed = Tool(args, "", FailCall(call, Path("journal/"), 1, "5"));
      tally.Trial(
          failed.status == 4 && failed.out.empty() &&
              std::count(failed.err.begin(), failed.err.end(), '\n') == 1 &&
              failed.err.find("journal") != std::string::npos && PendingJournals() == 1,
          call + " EIO under " + args[0] + ": " + std::to_string(failed.status) + " " + failed.err);
    }
  }
  // Nor may the record's own bytes be misread as a reason to drop or apply the journal.
  ToolResult unread = Tool({"inspect", m}, "", FailCall("pread", m, 1, "5"));
  tally.Trial(unread.status == 4 && PendingJournals() == 1,
              "EIO reading the record under a journal: " + unread.err);
  tally.Trial(OpensWithOneOf(m, {"old", "new"}, FingerprintIn(setup.out)) && NoJournalLeft(),
              "the torn record was not repaired once the journal could be read");
}

TEST_F(ToolReliabilityTest, AJournalForAPlaceTheFileDoesNotHaveIsSetAside) {
  Tally tally("journals that cannot apply");
  const std::string m = MetadataFile();
  ToolResult setup = Setup(m, "A", {"--kdf", "1"});
  ASSERT_EQ(setup.status, 0);
  ASSERT_EQ(KilledAfterJournal(m, Passwd(m, "A", "B")).status, kKilled);
  // The journal rewritten to name offset 2^63 - 100, its checksum made to match.
  std::filesystem::path journal;
  for (const auto& entry : std::filesystem::directory_iterator(Path("journal"))) {
    journal = entry.path();
  }
  std::vector<uint8_t> bytes = ReadFile(journal);
  ASSERT_GT(bytes.size(), 68u);
  uint64_t offset = (uint64_t{1} << 63) - 100;
  for (int i = 0; i < 8; ++i) bytes[28 + i] = static_cast<uint8_t>(offset >> (8 * i));
  ASSERT_EQ(km_sha256(bytes.data(), bytes.size() - 32, bytes.data() + bytes.size() - 32), 0);
  WriteFile(journal, bytes);
  ToolResult inspect = Tool({"inspect", m});
  tally.Trial(inspect.status == 0 && inspect.err.find("set aside") != std::string::npos &&
                  StaleJournals() == 1 && PendingJournals() == 0,
              "offset 2^63-100: " + inspect.err);
  tally.Trial(OpensWithOneOf(m, {"A"}, FingerprintIn(setup.out)), "the record at 0 was lost");

  // A journal an earlier release left in the device directory, named after the file's path and
  // holding only a digest of its new image, is never applied.
  std::vector<uint8_t> earlier = {'T', 'A', 'V', 'I', 'K', 'M', 'J', '1'};
  earlier.resize(8 + 8 + 4 + KM_META_SIZE + 64, 0xa5);
  uint8_t digest[32];
  ASSERT_EQ(km_sha256(reinterpret_cast<const uint8_t*>(m.data()), m.size(), digest), 0);
  char name[33];
  for (int i = 0; i < 16; ++i) snprintf(name + 2 * i, 3, "%02x", digest[i]);
  WriteFile(Path("journal/") + name, earlier);
  const std::vector<uint8_t> before = ReadFile(m);
  ToolResult unlock = Unlock(m, "A");
  tally.Trial(unlock.status == 0 && unlock.err.find("earlier tavikm") != std::string::npos &&
                  ReadFile(m) == before && !std::filesystem::exists(Path("journal/") + name) &&
                  StaleJournals() == 2,
              "a journal of an earlier release: " + unlock.err);
}

TEST_F(ToolReliabilityTest, AStoreThatFailsPastADevicesEndLocksNothingOut) {
  LoopDevice device(Scratch("loop.img"), 65536);
  if (device.path().empty()) GTEST_SKIP() << "no loop device can be set up here (needs root)";
  Tally tally("a store past a device's end");
  const std::string& dev = device.path();
  ToolResult setup = Setup(dev, "A", {"--kdf", "1"});
  ASSERT_EQ(setup.status, 0) << setup.err;
  ToolResult past = Setup(dev, "F", {"--kdf", "1", "--offset", "64000", "--force"});
  tally.Trial(past.status != 0, "setup at 64000 of 65536: " + past.err);
  for (const Args& args :
       {Args{"unlock", dev, "--password-file", PasswordFile("A")}, Args{"inspect", "--file", dev},
        Args{"backup", dev, Scratch("dev.bak")}}) {
    ToolResult result = Tool(args);
    tally.Trial(result.status == 0, args[0] + " afterwards: " + result.err);
  }
  tally.Trial(OpensWithOneOf(dev, {"A"}, FingerprintIn(setup.out)) && NoJournalLeft(),
              "the record at 0");
}

TEST_F(ToolReliabilityTest, AFailedSyncKeepsTheJournalAndSaysSo) {
  Tally tally("failed syncs");
  const std::string m = MetadataFile();
  struct Case {
    std::string what;
    std::string prefix;
    int nth;  // 0: every sync there fails
  };
  const std::vector<Case> cases = {
      {"the record's first sync", m, 1},
      {"every sync of the record", m, 0},
      {"the journal's sync", Path("journal/"), 1},
  };
  for (const Case& c : cases) {
    std::filesystem::remove_all(Path("journal"));
    std::filesystem::remove(m);
    ToolResult setup = Setup(m, "old", {"--kdf", "1"});
    ASSERT_EQ(setup.status, 0);
    ToolResult failed = Tool(Passwd(m, "old", "new"), "", FailCall("fsync", c.prefix, c.nth, "5"));
    bool kept = PendingJournals() == 1;
    // Every sync failing leaves the old record unconfirmed on the disk: the journal stays, and the
    // sentence says so; otherwise the old record was put back and synced.
    bool held =
        failed.status == 4 && failed.out.empty() &&
        failed.err.find(c.nth == 0 ? "journal" : "the record is unchanged") != std::string::npos &&
        kept == (c.nth == 0);
    ToolResult unlock = Unlock(m, "old");
    held = held && unlock.status == 0 && FingerprintIn(unlock.out) == FingerprintIn(setup.out) &&
           Unlock(m, "new").status == 2 && NoJournalLeft();
    tally.Trial(held,
                c.what + ": " + std::to_string(failed.status) + " " + failed.err + unlock.err);
  }
}

TEST_F(ToolReliabilityTest, ReadingARecordNeedsNoWriteAccess) {
  Tally tally("read-only records");
  const std::string folder = Scratch("ro"), file = folder + "/meta";
  std::filesystem::create_directories(folder);
  ToolResult at0 = Setup(file, "p1", {"--kdf", "1"});
  ToolResult at2704 = Setup(file, "p2", {"--kdf", "2", "--offset", "2704"});
  ToolResult at5408 = Setup(file, "p4", {"--kdf", "4", "--offset", "5408"});
  ASSERT_EQ(at0.status + at2704.status + at5408.status, 0);
  const std::vector<uint8_t> before = ReadFile(file);
  const std::vector<std::pair<Args, std::string>> reads = {
      {{"unlock", file, "--password-file", PasswordFile("p1")}, FingerprintIn(at0.out)},
      {{"unlock", file, "--offset", "2704", "--password-file", PasswordFile("p2")},
       FingerprintIn(at2704.out)},
      {{"unlock", file, "--offset", "5408", "--password-file", PasswordFile("p4")},
       FingerprintIn(at5408.out)},
      {{"inspect", file}, ""},
      {{"list", file}, ""},
  };
  // Where backups go: writable by everyone.
  const std::string out = Scratch("out");
  std::filesystem::create_directories(out);
  chmod(out.c_str(), 0777);
  // Each way of being unable to write that can be arranged here.
  struct Way {
    std::string what;
    std::function<Args(const Args&)> wrap;
    Env env;
  };
  std::vector<Way> ways;
  if (Exec({"unshare", "-m", "true"}).status == 0) {
    const std::string script = "mount --bind " + folder + " " + folder +
                               " && mount -o remount,bind,ro " + folder + " " + folder +
                               " && exec \"$@\"";
    ways.push_back({"a read-only bind mount",
                    [=](const Args& argv) {
                      return Join({"unshare", "-m", "sh", "-c", script, "sh"}, argv);
                    },
                    {}});
  }
  // Its owner, with the file and its folder read-only: root among them once it has given up the
  // capabilities that pass over modes (and may not regain them at exec).
  chmod(file.c_str(), 0444);
  chmod(folder.c_str(), 0555);
  ways.push_back({"an owner without write permission",
                  [](const Args& argv) {
                    if (geteuid() != 0) return argv;
                    return Join({"setpriv", "--securebits=+noroot,+noroot_locked",
                                 "--bounding-set=-all", "--inh-caps=-all", "--"},
                                argv);
                  },
                  {}});
  for (const Way& way : ways) {
    for (const auto& [args, fingerprint] : reads) {
      ToolResult result = Finish(Start(way.wrap(ToolArgv(args)), "", way.env, "ro"), "ro");
      tally.Trial(
          result.status == 0 && (fingerprint.empty() || FingerprintIn(result.out) == fingerprint),
          way.what + ", " + args[0] + ": " + result.err);
    }
    const std::string copy = out + "/" + std::to_string(++files_) + ".bak";
    ToolResult backup =
        Finish(Start(way.wrap(ToolArgv({"backup", file, copy})), "", way.env, "ro"), "ro");
    tally.Trial(backup.status == 0 && std::filesystem::exists(copy),
                way.what + ", backup: " + backup.err);
    props_ = {"ro.build.version.security_patch=2099-12-05"};
    ToolResult upgrade = Finish(Start(way.wrap(ToolArgv({"unlock", file, "--offset", "5408",
                                                         "--password-file", PasswordFile("p4")})),
                                      "", way.env, "ro"),
                                "ro");
    props_ = {};
    tally.Trial(upgrade.status == 4 &&
                    std::count(upgrade.err.begin(), upgrade.err.end(), '\n') == 1 &&
                    ReadFile(file) == before && NoJournalLeft(),
                way.what + ", a kdf 4 unlock that must store its upgrade: " + upgrade.err);
  }
}

}  // namespace
}  // namespace tavikm_test
