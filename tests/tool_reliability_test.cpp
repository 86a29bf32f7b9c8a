// What survives what: the real tavikm binary under torn writes, concurrent commands, odd files,
// hostile records and core-dump probes. Every test counts its trials and how many held, prints
// both, and holds only when all held. A trial is a question asked of the tool from outside (a
// process killed at a byte, two processes racing, a record planted), never of its internals.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <sys/file.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <map>
#include <regex>
#include <sstream>
#include <string>
#include <vector>

#include "support/device_env.h"
#include "tavikm.h"

namespace tavikm_test {
namespace {

constexpr char kFastScrypt[] = "ro.crypto.scrypt_params=10:0:0";
constexpr char kMdfpp[] = "ro.product.tavi.support_mdfpp=true";
constexpr char kCbcOnly[] = "ro.product.tavi.support_cbc_only=true";
constexpr int kKilled = 128 + SIGKILL;

struct Result {
  int status = -1;
  std::string out;
  std::string err;
};

std::string Slurp(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  std::stringstream text;
  text << in.rdbuf();
  return text.str();
}

std::string FingerprintIn(const std::string& out) {
  std::smatch match;
  static const std::regex kLine("(master key|kek) +sha256:([0-9a-f]{64})");
  return std::regex_search(out, match, kLine) ? match[2].str() : "";
}

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

class ToolReliabilityTest : public ::testing::Test {
 protected:
  void SetUp() override {
    if (std::string(TAVIKM_TOOL_EMULATOR).size() > 0) {
      GTEST_SKIP() << "the fault shim and /proc probes need the tool to run natively";
    }
    dir_ = std::filesystem::canonical(device_.path()).string();
    std::filesystem::create_directories(dir_ + "/scratch");
  }

  // Starts the tool with the device directory, cheap scrypt and `props_`; `env` is added to the
  // environment. A hang guard (SIGALRM after 60 s) keeps a broken tool from stalling the suite.
  pid_t Start(const std::vector<std::string>& args, const std::map<std::string, std::string>& env,
              const std::string& tag) {
    std::vector<std::string> argv = {TAVIKM_TOOL_PATH, "--device-dir", dir_, "--prop", kFastScrypt};
    for (const std::string& prop : props_) {
      argv.push_back("--prop");
      argv.push_back(prop);
    }
    argv.insert(argv.end(), args.begin(), args.end());
    std::string out = Scratch("stdout-" + tag), err = Scratch("stderr-" + tag);
    pid_t pid = fork();
    if (pid == 0) {
      int fds[3] = {open("/dev/null", O_RDONLY),
                    open(out.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600),
                    open(err.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600)};
      for (int i = 0; i < 3; ++i) dup2(fds[i], i);
      for (const auto& [key, value] : env) setenv(key.c_str(), value.c_str(), 1);
      // The sanitizer runtime would refuse a preloaded library ahead of it.
      if (env.count("LD_PRELOAD")) {
        const char* asan = getenv("ASAN_OPTIONS");
        std::string options = std::string(asan ? asan : "") + ":verify_asan_link_order=0";
        setenv("ASAN_OPTIONS", options.c_str(), 1);
      }
      std::vector<char*> cargv;
      for (const std::string& arg : argv) cargv.push_back(const_cast<char*>(arg.c_str()));
      cargv.push_back(nullptr);
      alarm(60);
      execv(cargv[0], cargv.data());
      _exit(127);
    }
    return pid;
  }

  Result Finish(pid_t pid, const std::string& tag) {
    int status = 0;
    waitpid(pid, &status, 0);
    Result result;
    result.status = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
    result.out = Slurp(Scratch("stdout-" + tag));
    result.err = Slurp(Scratch("stderr-" + tag));
    return result;
  }

  Result Tool(const std::vector<std::string>& args,
              const std::map<std::string, std::string>& env = {}) {
    return Finish(Start(args, env, "one"), "one");
  }

  std::string Scratch(const std::string& name) { return dir_ + "/scratch/" + name; }

  std::string PasswordFile(const std::string& password) {
    std::string path = Scratch("pw-" + password);
    std::ofstream(path) << password << "\n";
    return path;
  }

  std::vector<std::string> Passwd(const std::string& loc, const std::string& from,
                                  const std::string& to) {
    return {"passwd",        loc, "--password-file", PasswordFile(from), "--new-password-file",
            PasswordFile(to)};
  }

  Result Setup(const std::string& loc, const std::string& password,
               std::vector<std::string> options = {}) {
    std::vector<std::string> args = {"setup", loc, "--password-file", PasswordFile(password)};
    args.insert(args.end(), options.begin(), options.end());
    return Tool(args);
  }

  Result Unlock(const std::string& loc, const std::string& password,
                std::vector<std::string> options = {}) {
    std::vector<std::string> args = {"unlock", loc, "--password-file", PasswordFile(password)};
    args.insert(args.end(), options.begin(), options.end());
    return Tool(args);
  }

  std::string MetadataFile() const { return dir_ + "/metadata"; }

  bool NoJournalLeft() const {
    std::error_code error;
    return std::filesystem::is_empty(dir_ + "/journal", error) || error;
  }

  // The record opens with one of `passwords` and gives `fingerprint`.
  bool OpensWithOneOf(const std::string& loc, const std::vector<std::string>& passwords,
                      const std::string& fingerprint) {
    for (const std::string& password : passwords) {
      Result unlock = Unlock(loc, password);
      if (unlock.status == 0) return FingerprintIn(unlock.out) == fingerprint;
    }
    return false;
  }

  TempDeviceDir device_;
  std::string dir_;
  std::vector<std::string> props_;
};

TEST_F(ToolReliabilityTest, APasswdKilledAtAnyByteLeavesARecordTheOldOrNewPasswordOpens) {
  for (bool cbc : {false, true}) {
    Tally tally(cbc ? "torn passwd, CBC-only" : "torn passwd, GCM");
    props_ = cbc ? std::vector<std::string>{kCbcOnly} : std::vector<std::string>{};
    std::filesystem::remove_all(dir_ + "/journal");
    std::filesystem::remove(MetadataFile());
    Result setup = Setup(MetadataFile(), "old", {"--kdf", "1"});
    ASSERT_EQ(setup.status, 0) << setup.err;
    const std::string fingerprint = FingerprintIn(setup.out);
    const std::vector<uint8_t> before = ReadFile(MetadataFile());

    // A run to the end counts every byte the change writes: the journal, then the record.
    std::map<std::string, std::string> env = {
        {"LD_PRELOAD", TAVIKM_TEAR_SHIM},
        {"TEAR_PATHS", MetadataFile() + ":" + dir_ + "/journal/"},
        {"TEAR_REPORT", Scratch("report")}};
    ASSERT_EQ(Tool(Passwd(MetadataFile(), "old", "new"), env).status, 0);
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
      std::filesystem::remove_all(dir_ + "/journal");
      env["TEAR_AFTER"] = std::to_string(cut);
      Result torn = Tool(Passwd(MetadataFile(), "old", "new"), env);
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
    std::map<std::string, std::string> env = {{"LD_PRELOAD", TAVIKM_TEAR_SHIM},
                                              {"TEAR_PATHS", dir_ + "/.tavikm-new-"},
                                              {"TEAR_AFTER", std::to_string(cut)}};
    Result torn =
        Tool({"setup", MetadataFile(), "--kdf", "1", "--password-file", PasswordFile("pw")}, env);
    bool held = torn.status == kKilled && !std::filesystem::exists(MetadataFile());
    Result retry = Setup(MetadataFile(), "pw", {"--kdf", "1"});
    held = held && retry.status == 0 &&
           OpensWithOneOf(MetadataFile(), {"pw"}, FingerprintIn(retry.out));
    tally.Trial(held, "killed after byte " + std::to_string(cut) + ": " + torn.err + retry.err);
  }
}

TEST_F(ToolReliabilityTest, TwoCommandsOnOnePlaceNeverBothSucceed) {
  constexpr int kRounds = 8;
  struct Case {
    std::string what;
    std::vector<std::string> props;
    std::string loc;
  };
  const std::vector<Case> places = {
      {"file", {}, MetadataFile()},
      {"secure storage", {kMdfpp}, "userdata"},
  };
  auto race = [&](const std::vector<std::string>& a, const std::vector<std::string>& b) {
    pid_t pa = Start(a, {}, "a"), pb = Start(b, {}, "b");
    return std::pair<Result, Result>(Finish(pa, "a"), Finish(pb, "b"));
  };
  for (const Case& c : places) {
    props_ = c.props;
    {
      Tally tally("concurrent passwd, " + c.what);
      Result setup = Setup(c.loc, "p0", {"--kdf", "1"});
      ASSERT_EQ(setup.status, 0) << setup.err;
      const std::string fingerprint = FingerprintIn(setup.out);
      std::string current = "p0";
      for (int round = 0; round < kRounds; ++round) {
        std::string a = "a" + std::to_string(round), b = "b" + std::to_string(round);
        auto [ra, rb] = race(Passwd(c.loc, current, a), Passwd(c.loc, current, b));
        // Exactly one wins; the other finds the old password changed under it.
        bool held =
            (ra.status == 0) != (rb.status == 0) && (ra.status == 0 ? rb.status : ra.status) == 2;
        std::string winner = ra.status == 0 ? a : b;
        held = held && OpensWithOneOf(c.loc, {winner}, fingerprint);
        tally.Trial(held, "round " + std::to_string(round) + ": " + std::to_string(ra.status) +
                              "/" + std::to_string(rb.status) + " " + ra.err + rb.err);
        current = OpensWithOneOf(c.loc, {a}, fingerprint) ? a : b;
      }
    }
    {
      Tally tally("concurrent setup, " + c.what);
      for (int round = 0; round < kRounds; ++round) {
        if (c.loc[0] == '/') {
          std::filesystem::remove(c.loc);
        } else {
          std::filesystem::remove(dir_ + "/kmstore/e-" + c.loc);
        }
        auto setup = [&](const std::string& pw) {
          return std::vector<std::string>{"setup",           c.loc,           "--kdf", "1",
                                          "--password-file", PasswordFile(pw)};
        };
        auto [ra, rb] = race(setup("a"), setup("b"));
        bool held = (ra.status == 0) != (rb.status == 0) && ra.status + rb.status == 4;
        const Result& won = ra.status == 0 ? ra : rb;
        held = held && OpensWithOneOf(c.loc, {ra.status == 0 ? "a" : "b"}, FingerprintIn(won.out));
        tally.Trial(held, "round " + std::to_string(round) + ": " + std::to_string(ra.status) +
                              "/" + std::to_string(rb.status) + " " + ra.err + rb.err);
      }
    }
  }
  Tally tally("concurrent kek put");
  props_ = {kMdfpp};
  for (int round = 0; round < kRounds; ++round) {
    std::filesystem::remove(dir_ + "/kmstore/e-vold");
    auto [ra, rb] = race({"kek", "put", "vold", "--random"}, {"kek", "put", "vold", "--random"});
    bool held = (ra.status == 0) != (rb.status == 0) && ra.status + rb.status == 4;
    Result get = Tool({"kek", "get", "vold"});
    held = held && get.status == 0 &&
           FingerprintIn(get.out) == FingerprintIn(ra.status == 0 ? ra.out : rb.out);
    tally.Trial(held, "round " + std::to_string(round) + ": " + std::to_string(ra.status) + "/" +
                          std::to_string(rb.status) + " " + ra.err + rb.err);
  }
}

TEST_F(ToolReliabilityTest, ABusyPlaceIsReportedAfterTheWaitAndLeftAlone) {
  Tally tally("busy places");
  ASSERT_EQ(Setup(MetadataFile(), "pw", {"--kdf", "1"}).status, 0);
  props_ = {kMdfpp};
  ASSERT_EQ(Setup("userdata", "pw", {"--kdf", "1"}).status, 0);
  std::filesystem::create_directories(dir_ + "/locks");
  struct Case {
    std::string loc;
    std::string lock_file;  // what another command would hold
    std::string described;
  };
  const std::vector<Case> cases = {
      {MetadataFile(), MetadataFile(), MetadataFile() + " at offset 0"},
      {"userdata", dir_ + "/locks/e-userdata", "secure-storage entry \"userdata\""},
  };
  for (const Case& c : cases) {
    int fd = open(c.lock_file.c_str(), O_RDWR | O_CREAT, 0600);
    ASSERT_EQ(flock(fd, LOCK_EX), 0);
    std::vector<uint8_t> before = c.loc[0] == '/' ? ReadFile(c.loc) : std::vector<uint8_t>{};
    Result busy = Tool({"--wait", "0", "passwd", c.loc, "--password-file", PasswordFile("pw"),
                        "--new-password-file", PasswordFile("new")});
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
    Result setup = Setup(MetadataFile(), pw, {"--kdf", c.kdf, "--offset", offset, "--force"});
    std::vector<uint8_t> after = ReadFile(MetadataFile());
    bool held = after.size() == before.size();
    for (size_t i = 0; held && i < after.size(); ++i) {
      bool inside = c.fits && i >= c.offset && i < c.offset + KM_META_SIZE;
      held = inside || after[i] == before[i];
    }
    if (c.fits) {
      held = held && setup.status == 0;
      Result unlock = Unlock(MetadataFile(), pw, {"--offset", offset});
      held = held && unlock.status == 0 && FingerprintIn(unlock.out) == FingerprintIn(setup.out);
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
  Result upgraded = Unlock(MetadataFile(), "pw5408", {"--offset", "5408"});
  const std::vector<uint8_t> after = ReadFile(MetadataFile());
  bool elsewhere_unchanged = true;
  for (size_t i = 0; i < after.size(); ++i) {
    if ((i < 5408 || i >= 5408 + KM_META_SIZE) && after[i] != before[i])
      elsewhere_unchanged = false;
  }
  tally.Trial(upgraded.status == 0 &&
                  upgraded.out.find("the record was stored again") != std::string::npos &&
                  elsewhere_unchanged,
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
    for (const std::vector<std::string>& args :
         {std::vector<std::string>{"setup", path, "--password-file", PasswordFile("pw")},
          std::vector<std::string>{"unlock", path, "--password-file", PasswordFile("pw")},
          Passwd(path, "pw", "new"), std::vector<std::string>{"inspect", "--file", path}}) {
      Result result = Tool(args);
      tally.Trial(result.status == 4 && result.err == sentence && result.out.empty(),
                  args[0] + " " + path + ": " + std::to_string(result.status) + " " + result.err);
    }
  }
  close(s);

  // A FIFO in place of a secure-storage entry or of build.prop blocks nothing.
  props_ = {kMdfpp};
  std::filesystem::create_directories(dir_ + "/kmstore");
  ASSERT_EQ(mkfifo((dir_ + "/kmstore/e-userdata").c_str(), 0600), 0);
  Result entry = Unlock("userdata", "pw");
  tally.Trial(entry.status == 4, "kmstore FIFO: " + entry.err);
  ASSERT_EQ(mkfifo((dir_ + "/build.prop").c_str(), 0600), 0);
  Result prop = Unlock(Scratch("absent"), "pw");
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
    for (const std::vector<std::string>& args :
         {std::vector<std::string>{"unlock", MetadataFile(), "--password-file", PasswordFile("pw")},
          Passwd(MetadataFile(), "pw", "new")}) {
      Result result = Tool(args);
      tally.Trial(result.status == 4 &&
                      result.err.rfind("tavikm: the record looks damaged: ", 0) == 0 &&
                      ReadFile(MetadataFile()) == bad,
                  args[0] + ": " + result.err);
    }
  }
  // Nor does the tool create such a record.
  props_ = {"ro.crypto.scrypt_params=20:4:0"};
  Result setup = Setup(Scratch("costly"), "pw", {"--kdf", "2"});
  tally.Trial(setup.status == 4 && !std::filesystem::exists(Scratch("costly")), setup.err);
  props_.clear();

  // Key locations and KEK names the record's 256-byte key_name cannot hold.
  const std::string longest(255, 'k'), too_long(256, 'k'), far_too_long(441, 'k');
  props_ = {kMdfpp};
  for (const std::string& name : {too_long, far_too_long}) {
    for (const std::vector<std::string>& args :
         {std::vector<std::string>{"setup", name, "--password-file", PasswordFile("pw")},
          std::vector<std::string>{"unlock", name, "--password-file", PasswordFile("pw")},
          std::vector<std::string>{"kek", "put", name, "--random"},
          std::vector<std::string>{"kek", "delete", name}}) {
      Result result = Tool(args);
      tally.Trial(result.status == 1 && result.err.find("bytes long") != std::string::npos,
                  args[0] + " of " + std::to_string(name.size()) + ": " + result.err);
    }
  }
  tally.Trial(Setup(longest, "pw", {"--kdf", "1"}).status == 0, "a 255-byte name");

  // KEK commands leave master-key records alone, whatever --force says.
  ASSERT_EQ(Setup("userdata", "pw", {"--kdf", "1"}).status, 0);
  ASSERT_EQ(Setup("rek", "pw", {"--kdf", "4"}).status, 0);
  for (const std::string& name : {std::string("userdata"), std::string("rek")}) {
    const std::vector<uint8_t> entry = ReadFile(dir_ + "/kmstore/e-" + name);
    for (const std::vector<std::string>& args :
         {std::vector<std::string>{"kek", "delete", name},
          std::vector<std::string>{"kek", "put", name, "--random", "--force"}}) {
      Result result = Tool(args);
      tally.Trial(result.status == 4 &&
                      result.err == "tavikm: the entry \"" + name +
                                        "\" is a master-key record, not a KEK; kek " + args[1] +
                                        " leaves it alone\n" &&
                      ReadFile(dir_ + "/kmstore/e-" + name) == entry,
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
      Start({"unlock", MetadataFile(), "--password-file", fifo},
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
  Result unlock = Finish(pid, "probe");
  tally.Trial(unlock.status == 0, unlock.err);
  tally.Trial(Slurp(Scratch("report")).find("dumpable=0 core=0\n") != std::string::npos,
              Slurp(Scratch("report")));
}

}  // namespace
}  // namespace tavikm_test
