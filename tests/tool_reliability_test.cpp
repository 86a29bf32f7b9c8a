// SPDX-License-Identifier: Apache-2.0
// What survives what: the real tavikm binary under torn writes, concurrent commands, odd files,
// hostile records and core-dump probes. Every test counts its trials and how many held, prints
// both, and holds only when all held. A trial is a question asked of the tool from outside (a
// process killed at a byte, two processes racing, a record planted), never of its internals.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/file.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
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
    bool held = ReadFile(copy) == bytes;
    if (name == fifo) {
      // Nothing the library could block on is handed to it.
      held = held && unlock.status == 4 && ReadFile(m) == bytes &&
             unlock.err.find("is a FIFO") != std::string::npos;
    } else {
      held = held && unlock.status == 0 && FingerprintIn(unlock.out) == FingerprintIn(setup.out) &&
             unlock.out.find("stored again") != std::string::npos;
    }
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

// A 64 KiB loop device; skipped where none can be set up (not root, no loop driver).
class LoopDevice {
 public:
  explicit LoopDevice(const std::string& image) {
    std::vector<uint8_t> zeros(65536, 0);
    WriteFile(image, zeros);
    std::string command = "losetup -f --show " + image + " 2>/dev/null";
    FILE* out = popen(command.c_str(), "r");
    char line[256] = {};
    if (out && fgets(line, sizeof(line), out)) path_ = std::string(line, strcspn(line, "\n"));
    if (out) pclose(out);
  }
  ~LoopDevice() {
    if (!path_.empty()) system(("losetup -d " + path_).c_str());
  }
  const std::string& path() const { return path_; }

 private:
  std::string path_;
};

TEST_F(ToolReliabilityTest, AStoreThatFailsPastADevicesEndLocksNothingOut) {
  LoopDevice device(Scratch("loop.img"));
  if (device.path().empty()) GTEST_SKIP() << "no loop device can be set up here (needs root)";
  Tally tally("a store past a device's end");
  const std::string& dev = device.path();
  ToolResult setup = Setup(dev, "A", {"--kdf", "1"});
  ASSERT_EQ(setup.status, 0) << setup.err;
  ToolResult past = Setup(dev, "F", {"--kdf", "1", "--offset", "64000", "--force"});
  tally.Trial(past.status == 4, "setup at 64000 of 65536: " + past.err);
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
  if (geteuid() == 0) {
    // Another user, who may read the file but not write it or its folder.
    const std::string home = Scratch("nobody");
    std::filesystem::create_directories(home + "/journal");
    std::filesystem::create_directories(home + "/device");
    // The same Keymaster: its device secret, readable by that user.
    std::filesystem::create_directories(home + "/device/keymaster");
    std::filesystem::copy_file(Path("keymaster/device_secret"),
                               home + "/device/keymaster/device_secret");
    for (const std::string& path :
         {home, home + "/journal", home + "/device", home + "/device/keymaster",
          home + "/device/keymaster/device_secret"}) {
      ASSERT_EQ(chown(path.c_str(), 65534, 65534), 0);
    }
    for (const std::string& path : {dir_, Scratch(""), folder}) chmod(path.c_str(), 0755);
    chmod(file.c_str(), 0644);
    ways.push_back(
        {"a user without write permission",
         [=](const Args& argv) {
           Args changed = argv;
           changed[2] = home + "/device";  // its own device directory
           return Join({"setpriv", "--reuid=65534", "--regid=65534", "--clear-groups"}, changed);
         },
         {{"TAVIKM_JOURNAL_DIR", home + "/journal"}}});
  }
  if (ways.empty()) GTEST_SKIP() << "neither a private mount namespace nor another user here";
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
