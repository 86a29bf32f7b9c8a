// The tavikm tool run as a user runs it: one process per command over a temporary device
// directory, with its output, stderr and exit status checked. Records are crafted and checked
// in this process through the library where the tool cannot make them.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <pty.h>
#include <signal.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <functional>
#include <iterator>
#include <regex>
#include <sstream>
#include <string>
#include <vector>

#include "json_reader.h"
#include "support/device_env.h"
#include "tavikm.h"

namespace tavikm_test {
namespace {

constexpr char kFastScrypt[] = "ro.crypto.scrypt_params=10:0:0";
constexpr char kMdfpp[] = "ro.product.tavi.support_mdfpp=true";
constexpr char kCbcOnly[] = "ro.product.tavi.support_cbc_only=true";
constexpr char kRekKek[] = "ro.product.tavi.support_rek_kek=true";
// Later than the patch level the emulated device starts with: Keymaster keys need an upgrade.
constexpr char kLaterPatch[] = "ro.build.version.security_patch=2099-12-05";

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

std::string HexOf(const uint8_t* data, size_t size) {
  static const char kDigits[] = "0123456789abcdef";
  std::string text;
  for (size_t i = 0; i < size; ++i) {
    text += kDigits[data[i] >> 4];
    text += kDigits[data[i] & 15];
  }
  return text;
}

// The 64 hex digits after "master key   sha256:" in the tool's output, or "".
std::string FingerprintIn(const std::string& out) {
  std::smatch match;
  static const std::regex kLine("master key +sha256:([0-9a-f]{64})");
  return std::regex_search(out, match, kLine) ? match[1].str() : "";
}

class ToolTest : public ::testing::Test {
 protected:
  // Runs the tool with the device directory, fast scrypt and `props_` as global options, then
  // `args`; standard input holds `input`.
  Result Tool(const std::vector<std::string>& args, const std::string& input = "") {
    return Exec(ToolArgv(args), input);
  }

  std::vector<std::string> ToolArgv(const std::vector<std::string>& args) {
    std::vector<std::string> argv = {TAVIKM_TOOL_PATH, "--device-dir", device_.path(), "--prop",
                                     kFastScrypt};
    for (const std::string& prop : props_) {
      argv.push_back("--prop");
      argv.push_back(prop);
    }
    argv.insert(argv.end(), args.begin(), args.end());
    return argv;
  }

  // Runs `in_child_` when set, then the program, in the child process.
  [[noreturn]] void ExecInChild(std::vector<std::string> argv) {
    if (in_child_) in_child_();
    // A cross build runs the tool under the same emulator as this test.
    std::istringstream emulator(TAVIKM_TOOL_EMULATOR);
    std::vector<std::string> prefix{std::istream_iterator<std::string>(emulator), {}};
    argv.insert(argv.begin(), prefix.begin(), prefix.end());
    std::vector<char*> cargv;
    for (const std::string& arg : argv) cargv.push_back(const_cast<char*>(arg.c_str()));
    cargv.push_back(nullptr);
    execvp(cargv[0], cargv.data());
    _exit(127);
  }

  Result Exec(std::vector<std::string> argv, const std::string& input = "") {
    std::string in = Scratch("stdin"), out = Scratch("stdout"), err = Scratch("stderr");
    std::ofstream(in, std::ios::binary) << input;
    pid_t pid = fork();
    if (pid == 0) {
      int fds[3] = {open(in.c_str(), O_RDONLY),
                    open(out.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600),
                    open(err.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600)};
      for (int i = 0; i < 3; ++i) dup2(fds[i], i);
      ExecInChild(argv);
    }
    Result result;
    int status = 0;
    waitpid(pid, &status, 0);
    result.status = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
    result.out = Slurp(out);
    result.err = Slurp(err);
    return result;
  }

  // A file outside the device directory's own folders.
  std::string Scratch(const std::string& name) {
    std::filesystem::create_directories(device_.Path("scratch"));
    return device_.Path("scratch/" + name);
  }

  std::string PasswordFile(const std::string& password) {
    std::string path = Scratch("password-" + std::to_string(++files_));
    std::ofstream(path) << password << "\n";
    return path;
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

  std::string MetadataFile() const { return device_.Path("metadata"); }

  // The stored bytes of `loc`: a metadata file when it is a path, else a secure-storage entry.
  std::vector<uint8_t> Stored(const std::string& loc) {
    return loc[0] == '/' ? ReadFile(loc) : Entry(loc);
  }

  // The secure-storage entry `name` as stored, through the kmstore device of this process.
  std::vector<uint8_t> Entry(const std::string& name) {
    kmstore_device* device = nullptr;
    EXPECT_EQ(kmstore_device_init(&device), 0);
    std::vector<uint8_t> bytes(8192);
    uint64_t size = bytes.size();
    if (device->read(name.c_str(), bytes.data(), &size) != 0) return {};
    bytes.resize(size);
    return bytes;
  }

  // The tool with a pseudo-terminal as standard input, output and error: `out` gets all it
  // wrote there. `answers` are typed in turn, each once the text before it has appeared.
  Result OnTerminal(const std::vector<std::string>& args,
                    const std::vector<std::pair<std::string, std::string>>& answers = {}) {
    int master = -1;
    pid_t pid = forkpty(&master, nullptr, nullptr, nullptr);
    if (pid == 0) ExecInChild(ToolArgv(args));
    Result result;
    size_t next = 0;
    char buffer[4096];
    for (;;) {
      // A tool stuck waiting for input would hang the suite: a minute of silence ends it.
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
      if (next < answers.size() && result.out.find(answers[next].first) != std::string::npos) {
        std::string line = answers[next++].second + "\n";
        EXPECT_EQ(write(master, line.data(), line.size()), static_cast<ssize_t>(line.size()));
      }
    }
    close(master);
    int status = 0;
    waitpid(pid, &status, 0);
    result.status = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
    return result;
  }

  TempDeviceDir device_;
  std::vector<std::string> props_;
  std::function<void()> in_child_;
  int files_ = 0;
};

TEST_F(ToolTest, SetupThenUnlockGiveTheSameMasterKey) {
  struct Case {
    std::string kdf;   // --kdf
    std::string made;  // the kdf_type the record gets
    std::vector<std::string> props;
    std::string loc;
    std::vector<std::string> place;  // --offset N for file records
  };
  const std::vector<Case> cases = {
      {"1", "1", {}, MetadataFile(), {}},
      {"2", "2", {}, device_.Path("other"), {"--offset", "8192"}},
      {"2", "2", {kMdfpp}, "userdata", {}},
      {"2", "2", {kCbcOnly}, device_.Path("cbc"), {}},
      {"4", "4", {kMdfpp}, "rek", {}},
      {"4", "4", {kMdfpp, kCbcOnly, kRekKek}, "rek-cbc", {}},
      {"5", "5", {}, device_.Path("bound"), {"--offset", "4096"}},
      // The library's choice: 4 in MDFPP mode, else 5 on a secure Keymaster.
      {"default", "4", {kMdfpp}, "chosen", {}},
      {"default", "5", {}, device_.Path("chosen"), {}},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE("kdf " + c.kdf + " at " + c.loc);
    props_ = c.props;
    std::vector<std::string> options = {"--kdf", c.kdf};
    options.insert(options.end(), c.place.begin(), c.place.end());
    Result setup = Setup(c.loc, "s3cret", options);
    ASSERT_EQ(setup.status, 0) << setup.err;
    EXPECT_NE(setup.out.find("kdf          " + c.made + " ("), std::string::npos) << setup.out;

    options = c.place;
    options.push_back("--show-key");
    Result unlock = Unlock(c.loc, "s3cret", options);
    ASSERT_EQ(unlock.status, 0) << unlock.err;
    ASSERT_EQ(FingerprintIn(unlock.out), FingerprintIn(setup.out));
    EXPECT_EQ(unlock.err, "");

    // The fingerprint is the SHA-256 of the key that --show-key prints.
    std::smatch key;
    ASSERT_TRUE(std::regex_search(unlock.out, key, std::regex("key \\(hex\\) +([0-9a-f]{64})")));
    uint8_t bytes[32], digest[32];
    for (size_t i = 0; i < 32; ++i) bytes[i] = std::stoi(key[1].str().substr(2 * i, 2), 0, 16);
    ASSERT_EQ(km_sha256(bytes, sizeof(bytes), digest), 0);
    EXPECT_EQ(FingerprintIn(unlock.out), HexOf(digest, sizeof(digest)));
  }
}

TEST_F(ToolTest, WrongPasswordExitsTwoWithOneSentenceAndChangesNothing) {
  struct Case {
    std::string kdf;
    std::vector<std::string> props;
    std::string loc;
  };
  const std::vector<Case> cases = {
      {"2", {}, device_.Path("gcm")},
      {"2", {kCbcOnly}, device_.Path("cbc")},
      {"4", {kMdfpp}, "rek"},
      {"5", {kMdfpp}, "bound"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE("kdf " + c.kdf + " at " + c.loc);
    props_ = c.props;
    ASSERT_EQ(Setup(c.loc, "right", {"--kdf", c.kdf}).status, 0);
    std::vector<uint8_t> before = Stored(c.loc);

    Result unlock = Unlock(c.loc, "wrong");
    EXPECT_EQ(unlock.status, 2);
    EXPECT_EQ(unlock.err, "tavikm: wrong password for " + c.loc + "\n");
    EXPECT_EQ(unlock.out, "");
    EXPECT_EQ(Stored(c.loc), before);
  }
}

TEST_F(ToolTest, UnlockStoresTheRecordAgainWhenAKeymasterKeyWasUpgraded) {
  // kdf 5 at an offset: the library upgrades the RSA key in memory only, the tool must store
  // the record at its own offset. kdf 4 in secure storage: the library stores it as well.
  struct Case {
    std::string kdf;
    std::vector<std::string> props;
    std::string loc;
    std::vector<std::string> place;
  };
  const std::vector<Case> cases = {
      {"5", {}, MetadataFile(), {"--offset", "8192"}},
      {"4", {kMdfpp}, "rek", {}},
  };
  const std::string note =
      "Note: a Keymaster key was upgraded on the way; the record was stored again.\n";
  for (const Case& c : cases) {
    SCOPED_TRACE("kdf " + c.kdf);
    props_ = c.props;
    std::vector<std::string> options = {"--kdf", c.kdf};
    options.insert(options.end(), c.place.begin(), c.place.end());
    Result setup = Setup(c.loc, "pw", options);
    ASSERT_EQ(setup.status, 0) << setup.err;
    std::vector<uint8_t> before = Stored(c.loc);

    props_.push_back(kLaterPatch);
    Result unlock = Unlock(c.loc, "pw", c.place);
    ASSERT_EQ(unlock.status, 0) << unlock.err;
    EXPECT_EQ(FingerprintIn(unlock.out), FingerprintIn(setup.out));
    EXPECT_NE(unlock.out.find(note), std::string::npos) << unlock.out;
    EXPECT_NE(Stored(c.loc), before);

    // Stored with the upgraded key: the next unlock needs no upgrade.
    unlock = Unlock(c.loc, "pw", c.place);
    ASSERT_EQ(unlock.status, 0) << unlock.err;
    EXPECT_EQ(unlock.out.find("Note:"), std::string::npos) << unlock.out;
    EXPECT_EQ(FingerprintIn(unlock.out), FingerprintIn(setup.out));
  }
}

TEST_F(ToolTest, UnlockReportsAnOlderGenerationUpgradedWhileReading) {
  props_ = {kMdfpp};
  Result setup = Setup("userdata", "pw", {"--kdf", "2"});
  ASSERT_EQ(setup.status, 0);
  std::vector<uint8_t> entry = Entry("userdata");
  kmstore_device* device = nullptr;
  ASSERT_EQ(kmstore_device_init(&device), 0);
  ASSERT_EQ(device->write("userdata", entry.data(), 2592), 0);

  Result unlock = Unlock("userdata", "pw");
  ASSERT_EQ(unlock.status, 0) << unlock.err;
  EXPECT_EQ(FingerprintIn(unlock.out), FingerprintIn(setup.out));
  EXPECT_NE(unlock.out.find("Note: the entry (2592 bytes, major version 3) was upgraded while it "
                            "was read.\n"),
            std::string::npos)
      << unlock.out;
  EXPECT_EQ(Entry("userdata").size(), static_cast<size_t>(KM_META_SIZE));
}

TEST_F(ToolTest, InspectJsonMatchesTheStoredRecord) {
  ASSERT_EQ(
      Setup(MetadataFile(), "pw", {"--kdf", "2", "--keysize", "16", "--offset", "4096"}).status, 0);
  std::vector<uint8_t> file = ReadFile(MetadataFile());
  ASSERT_EQ(file.size(), static_cast<size_t>(KM_METADATA_FILE_SIZE));
  km_meta meta;
  memcpy(&meta, file.data() + 4096, sizeof(meta));

  Result inspect = Tool({"inspect", MetadataFile(), "--offset", "4096", "--json"});
  ASSERT_EQ(inspect.status, 0) << inspect.err;
  Json json = JsonParser(inspect.out).Parse();
  EXPECT_EQ(json["place"].string, "file");
  EXPECT_EQ(json["offset"].Int(), 4096);
  EXPECT_EQ(json["stored_length"].Int(), KM_META_SIZE);
  EXPECT_TRUE(json["magic_valid"].boolean);
  EXPECT_EQ(json["magic"].number, static_cast<double>(KM_META_MAGIC));
  EXPECT_EQ(json["major_version"].Int(), 3);
  EXPECT_EQ(json["keysize"].Int(), 16);
  EXPECT_EQ(json["kdf_type"].Int(), 2);
  EXPECT_EQ(json["N_factor"].Int(), 10);
  EXPECT_EQ(json["r_factor"].Int(), 0);
  EXPECT_EQ(json["p_factor"].Int(), 0);
  EXPECT_EQ(json["master_key"].string, HexOf(meta.master_key, 16));
  EXPECT_EQ(json["salt"].string, HexOf(meta.salt, sizeof(meta.salt)));
  EXPECT_EQ(json["key_iv"].string, HexOf(meta.key_iv, sizeof(meta.key_iv)));
  EXPECT_EQ(json["key_mac"].string, HexOf(meta.key_mac, sizeof(meta.key_mac)));
  EXPECT_EQ(json["key_name"].string, MetadataFile());
  EXPECT_EQ(json["km_key_blob_size"].Int(), 0);
  EXPECT_EQ(json["km_key_blob_sha256"].type, Json::Type::kNull);
  EXPECT_TRUE(json["nonzero_padding"].array.empty());

  // The text form shows the same record.
  Result text = Tool({"inspect", "--file", MetadataFile(), "--offset", "4096"});
  ASSERT_EQ(text.status, 0);
  EXPECT_NE(text.out.find("magic              0xd14ab29c (valid)"), std::string::npos) << text.out;
  EXPECT_NE(text.out.find("salt               " + HexOf(meta.salt, 16)), std::string::npos);
  EXPECT_NE(text.out.find("scrypt cost        N=1024 r=1 p=1"), std::string::npos);
}

TEST_F(ToolTest, InspectShowsAnOlderGenerationAsStoredWithoutUpgradingIt) {
  props_ = {kMdfpp};
  ASSERT_EQ(Setup("userdata", "pw", {"--kdf", "2"}).status, 0);
  std::vector<uint8_t> entry = Entry("userdata");
  ASSERT_EQ(entry.size(), static_cast<size_t>(KM_META_SIZE));
  kmstore_device* device = nullptr;
  ASSERT_EQ(kmstore_device_init(&device), 0);
  ASSERT_EQ(device->write("userdata", entry.data(), 2520), 0);

  Result inspect = Tool({"inspect", "userdata", "--json"});
  ASSERT_EQ(inspect.status, 0) << inspect.err;
  Json json = JsonParser(inspect.out).Parse();
  EXPECT_EQ(json["place"].string, "secure_storage");
  EXPECT_EQ(json["stored_length"].Int(), 2520);
  EXPECT_EQ(json["key_name"].string, "userdata");
  EXPECT_EQ(json["xtkm_value"].type, Json::Type::kNull);
  EXPECT_EQ(json["mac_key_size"].type, Json::Type::kNull);
  EXPECT_EQ(Entry("userdata").size(), 2520u);

  Result text = Tool({"inspect", "userdata"});
  EXPECT_NE(text.out.find("2520 bytes, older generation: ends after key_name"), std::string::npos)
      << text.out;
}

TEST_F(ToolTest, ABadRecordIsShownByInspectAndRefusedByUnlock) {
  std::vector<uint8_t> garbage(KM_METADATA_FILE_SIZE, 0x5a);
  WriteFile(MetadataFile(), garbage);

  Result inspect = Tool({"inspect", MetadataFile()});
  EXPECT_EQ(inspect.status, 0) << inspect.err;
  EXPECT_NE(inspect.out.find("magic              0x5a5a5a5a (bad magic)"), std::string::npos)
      << inspect.out;
  EXPECT_NE(inspect.out.find("non-zero bytes in reserved0 reserved1 pad0 pad1"), std::string::npos);

  Result unlock = Unlock(MetadataFile(), "pw");
  EXPECT_EQ(unlock.status, 4);
  EXPECT_EQ(unlock.err,
            "tavikm: " + MetadataFile() + " at offset 0 holds no record (magic 0x5a5a5a5a)\n");

  garbage.resize(100);
  WriteFile(MetadataFile(), garbage);
  unlock = Unlock(MetadataFile(), "pw");
  EXPECT_EQ(unlock.status, 4);
  EXPECT_EQ(unlock.err,
            "tavikm: " + MetadataFile() + " is not a metadata file: 100 bytes instead of 16384\n");
}

TEST_F(ToolTest, PasswdRewrapsTheSameKeyUnderTheNewPassword) {
  struct Case {
    std::string kdf;
    std::vector<std::string> props;
    std::string loc;
  };
  const std::vector<Case> cases = {
      {"1", {}, device_.Path("gcm")},
      {"1", {kCbcOnly}, device_.Path("cbc")},
      {"4", {kMdfpp, kCbcOnly, kRekKek}, "rek"},
      {"5", {}, device_.Path("bound")},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE("kdf " + c.kdf + " at " + c.loc);
    props_ = c.props;
    Result setup = Setup(c.loc, "old", {"--kdf", c.kdf});
    ASSERT_EQ(setup.status, 0) << setup.err;
    km_meta before;
    memcpy(&before, Stored(c.loc).data(), sizeof(before));

    // Both passwords from standard input, one line each.
    Result passwd =
        Tool({"passwd", c.loc, "--password-file", "-", "--new-password-file", "-"}, "old\nnew\n");
    ASSERT_EQ(passwd.status, 0) << passwd.err;
    km_meta after;
    memcpy(&after, Stored(c.loc).data(), sizeof(after));
    EXPECT_NE(memcmp(after.salt, before.salt, sizeof(after.salt)), 0) << "no new salt";

    Result unlock = Unlock(c.loc, "new");
    ASSERT_EQ(unlock.status, 0) << unlock.err;
    EXPECT_EQ(FingerprintIn(unlock.out), FingerprintIn(setup.out));
    EXPECT_EQ(Unlock(c.loc, "old").status, 2);
  }
}

TEST_F(ToolTest, AFailedPasswdLeavesTheRecordByteIdentical) {
  ASSERT_EQ(Setup(MetadataFile(), "old", {"--kdf", "2"}).status, 0);
  const std::vector<uint8_t> before = ReadFile(MetadataFile());
  struct Case {
    std::string why;
    std::string old_password_file;
    std::string new_password_file;
    int status;
  };
  std::string empty = Scratch("empty");
  std::ofstream(empty).flush();
  const std::vector<Case> cases = {
      {"wrong old password", PasswordFile("wrong"), PasswordFile("new"), 2},
      {"missing new password file", PasswordFile("old"), Scratch("absent"), 1},
      {"empty new password file", PasswordFile("old"), empty, 1},
      {"empty new password", PasswordFile("old"), PasswordFile(""), 1},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.why);
    Result passwd = Tool({"passwd", MetadataFile(), "--password-file", c.old_password_file,
                          "--new-password-file", c.new_password_file});
    EXPECT_EQ(passwd.status, c.status) << passwd.err;
    EXPECT_EQ(std::count(passwd.err.begin(), passwd.err.end(), '\n'), 1) << passwd.err;
    EXPECT_EQ(ReadFile(MetadataFile()), before);
  }
  EXPECT_EQ(Unlock(MetadataFile(), "old").status, 0);
}

TEST_F(ToolTest, AMissingKeyLocationExitsThree) {
  Result result = Unlock(device_.Path("nowhere"), "pw");
  EXPECT_EQ(result.status, 3);
  EXPECT_EQ(result.err, "tavikm: no metadata file " + device_.Path("nowhere") + "\n");

  // A file without a record at the offset: zeros, as a deleted record leaves them.
  ASSERT_EQ(Setup(MetadataFile(), "pw", {"--kdf", "1"}).status, 0);
  result = Unlock(MetadataFile(), "pw", {"--offset", "8192"});
  EXPECT_EQ(result.status, 3);
  EXPECT_EQ(result.err, "tavikm: no record in " + MetadataFile() + " at offset 8192\n");

  props_ = {kMdfpp};
  result = Unlock("userdata", "pw");
  EXPECT_EQ(result.status, 3);
  EXPECT_EQ(result.err, "tavikm: no record named \"userdata\" in secure storage\n");
  result = Tool({"inspect", "userdata"});
  EXPECT_EQ(result.status, 3);
  EXPECT_EQ(Tool({"passwd", "userdata", "--password-file", PasswordFile("a"), "--new-password-file",
                  PasswordFile("b")})
                .status,
            3);
}

TEST_F(ToolTest, BadUsageExitsOneWithTheUsageLine) {
  props_ = {kMdfpp};
  struct Case {
    std::vector<std::string> args;
    std::string sentence;
  };
  const std::vector<Case> cases = {
      {{}, "missing command"},
      {{"frobnicate"}, "unknown command frobnicate"},
      {{"--bogus", "unlock", "x"}, "unknown option --bogus"},
      {{"setup"}, "missing argument"},
      {{"setup", "a", "b"}, "unexpected argument b"},
      {{"unlock", "/f", "--bogus"}, "unknown option --bogus"},
      {{"setup", "/f", "--kdf", "3"}, "--kdf must be default, 1, 2, 4 or 5"},
      {{"setup", "/f", "--keysize", "24"}, "--keysize must be 16 or 32"},
      {{"setup", "/f", "--offset", "14000"},
       "--offset 14000 leaves no room for a record in a 16384-byte metadata file"},
      {{"unlock", "/f", "--offset", "12x"}, "--offset must be a decimal number"},
      {{"unlock", "/f", "--offset", "99999999999999999999"}, "--offset is too large"},
      {{"unlock", "/f", "-v"}, "-v is a global option: put it before the command"},
      {{"list", "--prop", "a=b"}, "--prop is a global option: put it before the command"},
      {{"benchmark", "--unlock-time", "5"}, "--unlock-time must be from 10 to 60000 ms"},
      {{"inspect", "--entry", "e", "--offset", "0"}, "--offset applies to metadata files only"},
      {{"restore", "userdata"}, "missing argument"},
      {{"unlock", "userdata", "--offset", "4096"},
       "--offset applies to metadata files only; userdata is a secure-storage entry"},
      {{"unlock", "/f", "--password-file"}, "--password-file needs a value"},
      {{"inspect"}, "give one of KEY_LOC, --entry NAME and --file PATH"},
      {{"inspect", "x", "--file", "/f"}, "give one of KEY_LOC, --entry NAME and --file PATH"},
      {{"kek"}, "missing kek command"},
      {{"kek", "put", "k"}, "give exactly one of --hex, --key-file and --random"},
      {{"kek", "put", "k", "--hex", "0011"}, "--hex holds 2 bytes; a KEK has 16 or 32"},
      {{"--prop", "novalue", "unlock", "x"}, "--prop needs KEY=VALUE, not novalue"},
      {{"demo"}, "demo makes its own device directory; --device-dir does not apply"},
  };
  for (const Case& c : cases) {
    std::string joined;
    for (const std::string& arg : c.args) joined += arg + " ";
    SCOPED_TRACE(joined);
    Result result = Tool(c.args);
    EXPECT_EQ(result.status, 1) << result.err;
    // One sentence, then the usage line.
    EXPECT_TRUE(std::regex_match(result.err, std::regex("tavikm: [^\n]+\nusage: tavikm [^\n]+\n")))
        << result.err;
    EXPECT_EQ(result.err.rfind("tavikm: " + c.sentence + "\n", 0), 0u) << result.err;
  }
  // No terminal to ask and no --password-file.
  ASSERT_EQ(Setup("userdata", "pw", {"--kdf", "1"}).status, 0);
  Result result = Tool({"unlock", "userdata"});
  EXPECT_EQ(result.status, 1);
  EXPECT_NE(result.err.find("tavikm: no terminal to ask for the password"), std::string::npos);
}

TEST_F(ToolTest, EveryCommandHasHelpAndHelpTouchesNoDevice) {
  std::string fresh = device_.Path("never-made");
  for (std::string command : {"setup", "unlock", "passwd", "inspect", "list", "backup", "restore",
                              "kek", "benchmark", "demo"}) {
    SCOPED_TRACE(command);
    Result result = Exec({TAVIKM_TOOL_PATH, "--device-dir", fresh, command, "--help"});
    EXPECT_EQ(result.status, 0);
    EXPECT_EQ(result.out.rfind("usage: tavikm " + command, 0), 0u) << result.out;
  }
  EXPECT_FALSE(std::filesystem::exists(fresh));
  Result result = Exec({TAVIKM_TOOL_PATH, "--help"});
  EXPECT_EQ(result.status, 0);
  EXPECT_NE(result.out.find("Exit status: 0 success, 1 usage or unusable input, 2 wrong password"),
            std::string::npos);
  EXPECT_EQ(Exec({TAVIKM_TOOL_PATH, "help"}).out, result.out);
}

TEST_F(ToolTest, AKeyThatOpensUnderTheZeroKeyIsAWarningNotSuccess) {
  // A PBKDF2 record whose master key was wrapped under the all-zero key: any password opens it.
  km_meta meta = {};
  meta.magic = KM_META_MAGIC;
  meta.major_version = KM_META_MAJOR_VERSION;
  meta.keysize = 32;
  meta.kdf_type = KM_KDF_PBKDF2;
  strcpy(meta.key_name, MetadataFile().c_str());
  uint8_t master_key[32], zero_key[32] = {}, digest[32];
  km_generate_drbg_bytes(nullptr, master_key, sizeof(master_key));
  km_generate_drbg_bytes(nullptr, meta.salt, sizeof(meta.salt));
  ASSERT_EQ(km_aes_gcm_encrypt(master_key, 32, nullptr, 0, zero_key, 32, meta.key_iv,
                               meta.master_key, meta.key_mac),
            32);
  ASSERT_EQ(km_put_km_meta(MetadataFile().c_str(), 0, &meta), 0);
  ASSERT_EQ(km_sha256(master_key, sizeof(master_key), digest), 0);
  const std::vector<uint8_t> before = ReadFile(MetadataFile());

  Result unlock = Unlock(MetadataFile(), "anything");
  EXPECT_EQ(unlock.status, 4);
  EXPECT_EQ(FingerprintIn(unlock.out), HexOf(digest, sizeof(digest)));
  EXPECT_EQ(unlock.err, "tavikm: warning: the master key of " + MetadataFile() +
                            " opened under the all-zero key, not under the password, so any "
                            "password opens it\n");

  Result passwd = Tool({"passwd", MetadataFile(), "--password-file", PasswordFile("x"),
                        "--new-password-file", PasswordFile("y")});
  EXPECT_EQ(passwd.status, 4);
  EXPECT_EQ(ReadFile(MetadataFile()), before);
}

TEST_F(ToolTest, SetupKeepsExistingRecordsUnlessForced) {
  Result first = Setup(MetadataFile(), "pw", {"--kdf", "1"});
  ASSERT_EQ(first.status, 0);
  const std::vector<uint8_t> before = ReadFile(MetadataFile());

  Result again = Setup(MetadataFile(), "pw", {"--kdf", "1"});
  EXPECT_EQ(again.status, 4);
  EXPECT_EQ(again.err,
            "tavikm: " + MetadataFile() + " at offset 0 already holds data; --force replaces it\n");
  // Nor does --force let a record overlap another one.
  EXPECT_EQ(Setup(MetadataFile(), "pw", {"--kdf", "1", "--offset", "100", "--force"}).status, 4);
  EXPECT_EQ(ReadFile(MetadataFile()), before);

  Result forced = Setup(MetadataFile(), "pw", {"--kdf", "1", "--force"});
  EXPECT_EQ(forced.status, 0);
  EXPECT_NE(FingerprintIn(forced.out), FingerprintIn(first.out));
}

TEST_F(ToolTest, SetupAtAnOffsetLeavesNoCopyAtOffsetZero) {
  Result setup = Setup(MetadataFile(), "pw", {"--kdf", "1", "--offset", "8192"});
  ASSERT_EQ(setup.status, 0) << setup.err;
  EXPECT_NE(setup.out.find("place        " + MetadataFile() + " at offset 8192"),
            std::string::npos);
  std::vector<uint8_t> file = ReadFile(MetadataFile());
  EXPECT_EQ(std::vector<uint8_t>(file.begin(), file.begin() + KM_META_SIZE),
            std::vector<uint8_t>(KM_META_SIZE, 0));
  EXPECT_EQ(Unlock(MetadataFile(), "pw").status, 3);
  Result unlock = Unlock(MetadataFile(), "pw", {"--offset", "8192"});
  EXPECT_EQ(unlock.status, 0);
  EXPECT_EQ(FingerprintIn(unlock.out), FingerprintIn(setup.out));
}

TEST_F(ToolTest, LibraryLinesGoToTheDeviceLogOrWithVToStderr) {
  ASSERT_EQ(Setup(MetadataFile(), "pw", {"--kdf", "1"}).status, 0);
  const std::string line = "E/TAVIKM: (km_decrypt_key)Failed to decrypt_gcm key keysize=32";
  EXPECT_EQ(Unlock(MetadataFile(), "wrong").status, 2);
  std::string log = Slurp(device_.Path("log.txt"));
  EXPECT_NE(log.find(line + "\n"), std::string::npos) << log;

  std::filesystem::remove(device_.Path("log.txt"));
  Result verbose = Tool({"-v", "unlock", MetadataFile(), "--password-file", PasswordFile("wrong")});
  EXPECT_EQ(verbose.status, 2);
  EXPECT_NE(verbose.err.find(line + "\n"), std::string::npos) << verbose.err;
  EXPECT_FALSE(std::filesystem::exists(device_.Path("log.txt")));
}

TEST_F(ToolTest, ASecondKdf5UnlockRightAfterTheFirstWaitsOutTheKeysRateLimit) {
  // Each unlock is its own process; the Keymaster's timer for the record's key lives in the
  // device directory, as a TEE keeps it across its callers.
  Result setup = Setup(MetadataFile(), "pw", {"--kdf", "5"});
  ASSERT_EQ(setup.status, 0) << setup.err;
  ASSERT_EQ(Unlock(MetadataFile(), "pw").status, 0);
  Result second = Tool({"-v", "unlock", MetadataFile(), "--password-file", PasswordFile("pw")});
  ASSERT_EQ(second.status, 0) << second.err;
  EXPECT_EQ(FingerprintIn(second.out), FingerprintIn(setup.out));
  // Natively the second signature begins milliseconds after the first ended; under valgrind or
  // qemu the tool's own start can take longer than the key's one second, so there only the
  // result is checked.
  if (std::string(TAVIKM_TOOL_EMULATOR).empty()) {
    static const std::regex kRefused("E/\\S* Keymaster:[0-9]+: begin failed, code -54\n");
    EXPECT_TRUE(std::regex_search(second.err, kRefused)) << second.err;
  }
}

TEST_F(ToolTest, KeksArePutReadAndDeleted) {
  const std::string hex = "000102030405060708090a0b0c0d0e0f101112131415161718191a1b1c1d1e1f";
  std::string key_file = Scratch("kek.hex");
  std::ofstream(key_file) << hex << "\n";
  Result put = Tool({"kek", "put", "vold", "--key-file", key_file});
  ASSERT_EQ(put.status, 0) << put.err;
  EXPECT_EQ(put.out.rfind("Stored the KEK \"vold\" (32 bytes)\n", 0), 0u) << put.out;

  Result get = Tool({"kek", "get", "vold", "--show-key"});
  ASSERT_EQ(get.status, 0) << get.err;
  EXPECT_NE(get.out.find("key (hex)    " + hex + "\n"), std::string::npos) << get.out;

  // An existing name is kept unless forced.
  Result again = Tool({"kek", "put", "vold", "--random"});
  EXPECT_EQ(again.status, 4);
  EXPECT_EQ(again.err,
            "tavikm: secure storage already holds an entry \"vold\"; --force replaces it\n");
  Result forced = Tool({"kek", "put", "vold", "--random", "--keysize", "16", "--force"});
  ASSERT_EQ(forced.status, 0) << forced.err;
  std::smatch fingerprint;
  ASSERT_TRUE(std::regex_search(forced.out, fingerprint, std::regex("kek +(sha256:[0-9a-f]{64})")));
  get = Tool({"kek", "get", "vold"});
  EXPECT_NE(get.out.find("KEK \"vold\" (16 bytes)\n  kek          " + fingerprint[1].str()),
            std::string::npos)
      << get.out;

  // After a patch raise the first answer is empty (its key was upgraded); the tool asks again.
  // The library stores the upgraded record through the record store, which reaches secure
  // storage only in MDFPP mode.
  props_ = {kMdfpp, kLaterPatch};
  get = Tool({"kek", "get", "vold"});
  ASSERT_EQ(get.status, 0) << get.err;
  EXPECT_NE(get.out.find(fingerprint[1].str()), std::string::npos);
  EXPECT_NE(get.out.find("Note: its Keymaster key was upgraded on the way"), std::string::npos)
      << get.out;

  EXPECT_EQ(Tool({"kek", "delete", "vold"}).status, 0);
  Result gone = Tool({"kek", "get", "vold"});
  EXPECT_EQ(gone.status, 3);
  EXPECT_EQ(gone.err, "tavikm: no KEK named \"vold\"\n");
  EXPECT_EQ(Tool({"kek", "delete", "vold"}).status, 3);
}

TEST_F(ToolTest, DemoEndsWithItsSuccessLineAndCleansUp) {
  Result demo = Exec({TAVIKM_TOOL_PATH, "demo"});
  ASSERT_EQ(demo.status, 0) << demo.out << demo.err;
  EXPECT_EQ(demo.err, "");
  std::smatch dir;
  ASSERT_TRUE(std::regex_search(demo.out, dir, std::regex("^tavikm demo in (\\S+) ")));
  EXPECT_FALSE(std::filesystem::exists(dir[1].str()));
  std::smatch last;
  ASSERT_TRUE(std::regex_search(demo.out, last, std::regex("demo: all (\\d+) steps passed\n$")));
  // Every step announced itself before the last line.
  EXPECT_NE(demo.out.find("[" + last[1].str() + "/" + last[1].str() + "] "), std::string::npos);
}

TEST_F(ToolTest, EachExitStatusHasOneMeaning) {
  props_ = {kMdfpp};
  ASSERT_EQ(Setup("userdata", "pw", {"--kdf", "1"}).status, 0);
  ASSERT_EQ(Tool({"kek", "put", "vold", "--random"}).status, 0);
  std::string empty = Scratch("empty");
  std::ofstream(empty).flush();
  struct Case {
    std::vector<std::string> args;
    int status;
    std::string err;  // the whole of stderr
  };
  const std::vector<Case> cases = {
      {{"unlock", "userdata", "--password-file", Scratch("absent")},
       1,
       "cannot open password file " + Scratch("absent") + ": No such file or directory"},
      {{"unlock", "userdata", "--password-file", empty}, 1, "password file " + empty + " is empty"},
      {{"setup", "new", "--password-file", PasswordFile("")},
       1,
       "an empty password is refused; --allow-empty-password accepts it"},
      {{"unlock", "userdata", "--password-file", PasswordFile("wrong")},
       2,
       "wrong password for userdata"},
      // Missing records are found before a password is asked for: no terminal is needed.
      {{"unlock", "nosuch"}, 3, "no record named \"nosuch\" in secure storage"},
      {{"passwd", "nosuch"}, 3, "no record named \"nosuch\" in secure storage"},
      {{"kek", "get", "nosuch"}, 3, "no KEK named \"nosuch\""},
      {{"inspect", "--file", MetadataFile()}, 3, "no metadata file " + MetadataFile()},
      {{"unlock", "vold"},
       4,
       "secure-storage entry \"vold\" holds a KEK, not the record of a master key (tavikm kek get "
       "vold reads it)"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.args[0] + " " + c.args[1]);
    Result result = Tool(c.args);
    EXPECT_EQ(result.status, c.status);
    EXPECT_EQ(result.err, "tavikm: " + c.err + "\n");
  }
  Result allowed = Setup("new", "", {"--kdf", "1", "--allow-empty-password"});
  ASSERT_EQ(allowed.status, 0) << allowed.err;
  EXPECT_EQ(Unlock("new", "").status, 0);

  // inspect reads a KEK as one, and an all-zero slot or a read past the end as empty.
  Result kek = Tool({"inspect", "--entry", "vold"});
  EXPECT_EQ(kek.status, 0);
  EXPECT_NE(kek.out.find("kdf_type           0 (none: a KEK)\n"), std::string::npos) << kek.out;
  props_ = {};
  ASSERT_EQ(Setup(MetadataFile(), "pw", {"--kdf", "1"}).status, 0);
  for (std::string offset : {"8192", "20000"}) {
    Result slot = Tool({"inspect", MetadataFile(), "--offset", offset});
    EXPECT_EQ(slot.status, 3);
    EXPECT_EQ(slot.err, "tavikm: " + MetadataFile() + " at offset " + offset + " is empty\n");
  }
}

TEST_F(ToolTest, FailuresNameThePlaceAndTheCause) {
  // Each case runs the tool in its own mount namespace where it needs a read-only or a full
  // file system, and as an unprivileged user where permissions must count (root passes them).
  const bool root = geteuid() == 0;
  auto private_mounts = [] {
    if (unshare(CLONE_NEWNS) != 0 || mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr)) {
      _exit(125);
    }
  };
  std::string missing = Scratch("missing") + "/meta";
  std::string ro = Scratch("ro"), full = Scratch("full"), locked = Scratch("locked");
  for (const std::string& dir : {ro, full, locked}) std::filesystem::create_directories(dir);
  // The unprivileged user may enter the device directory but not write in `locked`.
  for (const std::string& dir : {device_.path(), Scratch("")}) chmod(dir.c_str(), 0755);
  chmod(locked.c_str(), 0555);
  struct Case {
    std::string why;
    std::string loc;
    std::function<void()> in_child;
    std::string cause;
  };
  std::vector<Case> cases = {
      {"missing directory", missing, nullptr, "No such file or directory"},
      {"permission denied", locked + "/meta",
       [] {
         if (geteuid() == 0 && (setgid(65534) != 0 || setuid(65534) != 0)) _exit(125);
       },
       "Permission denied"},
      // 1 TiB: the request fails as malloc fails, also under AddressSanitizer (whose warning
      // line is dropped below).
      {"scrypt beyond memory", MetadataFile(),
       [] { setenv("ASAN_OPTIONS", "allocator_may_return_null=1", 1); },
       "the key derivation failed: Cannot allocate memory"},
  };
  if (root) {
    cases.push_back({"read-only file system", ro + "/meta",
                     [&] {
                       private_mounts();
                       if (mount(ro.c_str(), ro.c_str(), nullptr, MS_BIND, nullptr) != 0 ||
                           mount(nullptr, ro.c_str(), nullptr, MS_REMOUNT | MS_BIND | MS_RDONLY,
                                 nullptr) != 0) {
                         _exit(125);
                       }
                     },
                     "Read-only file system"});
    cases.push_back({"full file system", full + "/meta",
                     [&] {
                       private_mounts();
                       if (mount("tmpfs", full.c_str(), "tmpfs", 0, "size=16k") != 0) _exit(125);
                       int fd = open((full + "/filler").c_str(), O_WRONLY | O_CREAT, 0600);
                       char block[4096] = {};
                       while (write(fd, block, sizeof(block)) > 0) {
                       }
                       close(fd);
                     },
                     "No space left on device"});
  }
  for (const Case& c : cases) {
    SCOPED_TRACE(c.why);
    in_child_ = c.in_child;
    props_ = {};
    std::vector<std::string> args = {"setup", c.loc, "--kdf", "2", "--password-file", "-"};
    if (c.why == "scrypt beyond memory") {
      props_ = {"ro.crypto.scrypt_params=30:3:1"};
      args.push_back("--allow-cost");  // past the tool's own refusal, to the allocation
    }
    Result setup = Tool(args, "pw\n");
    setup.err = std::regex_replace(setup.err, std::regex("==[0-9]+==WARNING: [^\n]*\n"), "");
    ASSERT_NE(setup.status, 125) << "the case could not be arranged";
    EXPECT_EQ(setup.status, 4);
    // One sentence: what failed, where, and the system's cause.
    EXPECT_EQ(setup.err.rfind("tavikm: cannot ", 0), 0u) << setup.err;
    EXPECT_NE(setup.err.find(c.loc), std::string::npos) << setup.err;
    EXPECT_NE(setup.err.find(": " + c.cause), std::string::npos) << setup.err;
    EXPECT_EQ(std::count(setup.err.begin(), setup.err.end(), '\n'), 1) << setup.err;
  }
  in_child_ = nullptr;

  // Secure storage gives the system's cause too: here the device directory cannot be made.
  std::ofstream(device_.Path("kmstore-blocker")).flush();
  Result put = Exec({TAVIKM_TOOL_PATH, "--device-dir", device_.Path("kmstore-blocker/dev"), "kek",
                     "put", "x", "--random"});
  EXPECT_EQ(put.status, 4);
  EXPECT_NE(put.err.find(": Not a directory"), std::string::npos) << put.err;
}

TEST_F(ToolTest, ListShowsEntriesAndTheRecordsOfMetadataFiles) {
  props_ = {kMdfpp};
  ASSERT_EQ(Setup("user/data", "pw", {"--kdf", "2"}).status, 0);
  ASSERT_EQ(Tool({"kek", "put", "vold", "--random", "--keysize", "16"}).status, 0);
  props_ = {};
  // Setup passes through offset 0 on the way to another offset: that one comes first.
  ASSERT_EQ(Setup(MetadataFile(), "pw", {"--kdf", "5", "--offset", "5000"}).status, 0);
  ASSERT_EQ(Setup(MetadataFile(), "pw", {"--kdf", "1", "--keysize", "16"}).status, 0);

  Result list = Tool({"list", "--json", MetadataFile()});
  ASSERT_EQ(list.status, 0) << list.err;
  Json json = JsonParser(list.out).Parse();
  const std::vector<Json>& entries = json["secure_storage"]["entries"].array;
  ASSERT_EQ(entries.size(), 2u) << list.out;
  EXPECT_EQ(entries[0]["name"].string, "user/data");
  EXPECT_EQ(entries[0]["kind"].string, "record");
  EXPECT_EQ(entries[0]["kdf_type"].Int(), 2);
  EXPECT_EQ(entries[0]["N_factor"].Int(), 10);
  EXPECT_EQ(entries[0]["keysize"].Int(), 32);
  EXPECT_EQ(entries[1]["name"].string, "vold");
  EXPECT_EQ(entries[1]["kind"].string, "kek");
  EXPECT_EQ(entries[1]["keysize"].Int(), 16);
  const std::vector<Json>& records = json["files"].array[0]["records"].array;
  ASSERT_EQ(records.size(), 2u) << list.out;
  EXPECT_EQ(records[0]["offset"].Int(), 0);
  EXPECT_EQ(records[0]["kdf_type"].Int(), 1);
  EXPECT_EQ(records[0]["keysize"].Int(), 16);
  EXPECT_EQ(records[1]["offset"].Int(), 5000);
  EXPECT_EQ(records[1]["kdf_type"].Int(), 5);

  Result text = Tool({"list", MetadataFile()});
  EXPECT_TRUE(std::regex_search(text.out, std::regex("\n  vold +KEK +- +16 +current\n")))
      << text.out;
  EXPECT_NE(text.out.find(MetadataFile() + ": 2 records\n"), std::string::npos);
}

TEST_F(ToolTest, RestoreBringsBackTheRecordAsItWasBackedUp) {
  struct Case {
    std::vector<std::string> props;
    std::string loc;
    std::vector<std::string> place;
  };
  const std::vector<Case> cases = {
      {{}, MetadataFile(), {"--offset", "4096"}},
      {{kMdfpp}, "userdata", {}},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.loc);
    props_ = c.props;
    std::vector<std::string> options = {"--kdf", "2"};
    options.insert(options.end(), c.place.begin(), c.place.end());
    Result setup = Setup(c.loc, "old", options);
    ASSERT_EQ(setup.status, 0) << setup.err;
    const std::vector<uint8_t> before = Stored(c.loc);
    std::string backup = Scratch("backup-" + std::to_string(++files_));
    std::vector<std::string> args = {"backup", c.loc, backup};
    args.insert(args.end(), c.place.begin(), c.place.end());
    Result saved = Tool(args);
    ASSERT_EQ(saved.status, 0) << saved.err;
    EXPECT_EQ(Tool(args).status, 4) << "a backup replaced a file";

    std::vector<std::string> passwd = {
        "passwd", c.loc, "--password-file", "-", "--new-password-file", "-"};
    passwd.insert(passwd.end(), c.place.begin(), c.place.end());
    ASSERT_EQ(Tool(passwd, "old\nnew\n").status, 0);
    const std::vector<uint8_t> changed = Stored(c.loc);

    // A damaged copy is refused and changes nothing.
    std::vector<uint8_t> bytes = ReadFile(backup);
    bytes[bytes.size() / 2] ^= 1;
    std::string damaged = backup + "-damaged";
    WriteFile(damaged, bytes);
    Result refused = Tool({"restore", c.loc, damaged});
    EXPECT_EQ(refused.status, 1);
    EXPECT_EQ(refused.err, "tavikm: " + damaged + " is damaged: its SHA-256 does not match\n");
    EXPECT_EQ(Stored(c.loc), changed);

    Result restored = Tool({"restore", c.loc, backup});
    ASSERT_EQ(restored.status, 0) << restored.err;
    EXPECT_EQ(Stored(c.loc), before);
    Result unlock = Unlock(c.loc, "old", c.place);
    EXPECT_EQ(unlock.status, 0) << unlock.err;
    EXPECT_EQ(FingerprintIn(unlock.out), FingerprintIn(setup.out));
    EXPECT_EQ(Unlock(c.loc, "new", c.place).status, 2);
  }
  // A secure-storage entry of an older generation comes back at its own length.
  kmstore_device* device = nullptr;
  ASSERT_EQ(kmstore_device_init(&device), 0);
  std::vector<uint8_t> entry = Entry("userdata");
  ASSERT_EQ(device->write("userdata", entry.data(), 2592), 0);
  ASSERT_EQ(Tool({"backup", "userdata", Scratch("older")}).status, 0);
  ASSERT_EQ(device->remove("userdata"), 0);
  EXPECT_EQ(Tool({"backup", "userdata", Scratch("none")}).status, 3);
  ASSERT_EQ(Tool({"restore", "userdata", Scratch("older")}).status, 0);
  EXPECT_EQ(Entry("userdata"), std::vector<uint8_t>(entry.begin(), entry.begin() + 2592));
}

TEST_F(ToolTest, BenchmarkTimesTheKdfsAndProposesAScryptCost) {
  Result bench = Tool({"benchmark", "--unlock-time", "10"});
  ASSERT_EQ(bench.status, 0) << bench.err;
  EXPECT_EQ(bench.err, "");
  EXPECT_TRUE(std::regex_match(
      bench.out, std::regex("PBKDF2-HMAC-SHA256, 8192 iterations \\(kdf 1 and 4\\) +[0-9.]+ ms\n"
                            "scrypt, r=8 p=2 \\(kdf 2 and 5\\), Salsa20/8 back end [a-z0-9]+:\n"
                            "  N +memory +time\n"
                            "(  N=2\\^[0-9]+ +[0-9]+ [KM]iB [ ~] *[0-9.]+ ms\n)+"
                            "(For an unlock of at most 10 ms: ro.crypto.scrypt_params=[0-9]+:3:1\n|"
                            "Even N=2\\^10 takes longer than 10 ms here.\n)")))
      << bench.out;
}

TEST_F(ToolTest, ProgressAndPromptsShowOnlyOnATerminal) {
  // kdf 5 signs once to unlock and once to wrap again: the second signature waits out the
  // Keymaster's one-a-second limit, inside the derivation, so both the status and the note show.
  ASSERT_EQ(Setup(MetadataFile(), "old", {"--kdf", "5"}).status, 0);
  std::vector<std::string> passwd = {"passwd", MetadataFile(), "--password-file",
                                     PasswordFile("old"), "--new-password-file"};
  Result terminal =
      OnTerminal({passwd[0], passwd[1], passwd[2], passwd[3], passwd[4], PasswordFile("new")});
  ASSERT_EQ(terminal.status, 0) << terminal.out;
  const std::string status =
      "\rderiving the key: scrypt N=2^10 r=1 p=1 bound to the Keymaster: waiting for the "
      "Keymaster (one signature a second) ... ";
  EXPECT_NE(terminal.out.find(status), std::string::npos) << terminal.out;
  EXPECT_NE(terminal.out.find("\r\033[K"), std::string::npos) << "the status line was not erased";

  passwd.push_back(PasswordFile("old"));
  passwd[3] = PasswordFile("new");
  Result pipe = Tool(passwd);
  ASSERT_EQ(pipe.status, 0) << pipe.err;
  EXPECT_EQ(pipe.err, "");

  // Asked on the terminal, a new password is typed twice and must match.
  Result mismatch = OnTerminal({"passwd", MetadataFile(), "--password-file", PasswordFile("old")},
                               {{"New password", "one"}, {"Repeat", "two"}});
  EXPECT_EQ(mismatch.status, 1);
  EXPECT_NE(mismatch.out.find("tavikm: the two passwords do not match"), std::string::npos)
      << mismatch.out;
}

}  // namespace
}  // namespace tavikm_test
