// SPDX-License-Identifier: Apache-2.0
// The tavikm tool run as a user runs it: one process per command over a temporary device
// directory, with its output, stderr and exit status checked. Records are crafted and checked
// in this process through the library where the tool cannot make them.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <linux/capability.h>
#include <linux/securebits.h>
#include <poll.h>
#include <pty.h>
#include <signal.h>
#include <stdlib.h>
#include <string.h>
#include <sys/mount.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <termios.h>
#include <unistd.h>

#include <cstring>
#include <filesystem>
#include <fstream>
#include <functional>
#include <regex>
#include <string>
#include <vector>

#include "json_reader.h"
#include "support/tool_runner.h"
#include "tavikm.h"

namespace tavikm_test {
namespace {

constexpr char kRekKek[] = "ro.product.tavi.support_rek_kek=true";
// Later than the patch level the emulated device starts with: Keymaster keys need an upgrade.
constexpr char kLaterPatch[] = "ro.build.version.security_patch=2099-12-05";
constexpr size_t kNone = std::string::npos;

std::string HexOf(const uint8_t* data, size_t size) {
  std::string text;
  for (size_t i = 0; i < size; ++i)
    text += "0123456789abcdef"[data[i] >> 4] + std::string(1, "0123456789abcdef"[data[i] & 15]);
  return text;
}

class ToolTest : public ToolRunner {
 protected:
  // The tool with a pseudo-terminal as standard input, output and error: `out` gets all it
  // wrote there. `answers` are typed in turn, each once the text before it has appeared.
  ToolResult OnTerminal(const Args& args,
                        const std::vector<std::pair<std::string, std::string>>& answers = {}) {
    int master = -1;
    pid_t pid = forkpty(&master, nullptr, nullptr, nullptr);
    if (pid == 0) ExecInChild(ToolArgv(args));
    ToolResult result;
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
      if (next < answers.size() && result.out.find(answers[next].first) != kNone) {
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
};

// Every kdf at every kind of place through the tool: setup, unlock, a wrong password, passwd
// and an unlock after a patch raise.
TEST_F(ToolTest, EachKdfAndPlaceGoesThroughSetupUnlockPasswdAndAKeyUpgrade) {
  struct Case {
    std::string kdf;   // --kdf
    std::string made;  // the kdf_type the record gets
    Args props;
    std::string loc;
    Args place;     // --offset N for file records
    bool upgraded;  // a patch raise has the record stored again with an upgraded Keymaster key
  };
  const std::vector<Case> cases = {
      {"1", "1", {}, MetadataFile(), {}, false},
      {"2", "2", {}, Path("other"), {"--offset", "8192"}, false},
      {"2", "2", {kMdfpp}, "userdata", {}, false},
      {"2", "2", {kCbcOnly}, Path("cbc"), {}, false},
      {"4", "4", {kMdfpp}, "rek", {}, true},
      {"4", "4", {kMdfpp, kCbcOnly, kRekKek}, "rek-cbc", {}, false},
      {"5", "5", {}, Path("bound"), {"--offset", "4096"}, true},
      {"5", "5", {kMdfpp}, "bound", {}, true},
      // The library's choice: 4 in MDFPP mode, else 5 on a secure Keymaster.
      {"default", "4", {kMdfpp}, "chosen", {}, true},
      {"default", "5", {}, Path("chosen"), {}, true},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE("kdf " + c.kdf + " at " + c.loc);
    props_ = c.props;
    ToolResult setup = Setup(c.loc, "old", Join({"--kdf", c.kdf}, c.place));
    ASSERT_EQ(setup.status, 0) << setup.err;
    EXPECT_NE(setup.out.find("kdf          " + c.made + " ("), kNone) << setup.out;

    ToolResult unlock = Unlock(c.loc, "old", Join(c.place, {"--show-key"}));
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

    // A wrong password: exit status 2, one sentence, nothing on stdout, nothing changed.
    const std::vector<uint8_t> before = Stored(c.loc);
    const size_t at = c.place.empty() ? 0 : std::stoul(c.place[1]);
    ToolResult wrong = Unlock(c.loc, "wrong", c.place);
    EXPECT_EQ(wrong.status, 2);
    EXPECT_EQ(wrong.err, "tavikm: wrong password for " + c.loc + "\n");
    EXPECT_EQ(wrong.out, "");
    EXPECT_EQ(Stored(c.loc), before);

    // A new file with its record at an offset leaves no copy at offset 0.
    if (!c.place.empty()) {
      EXPECT_NE(setup.out.find("place        " + c.loc + " at offset " + c.place[1]), kNone);
      EXPECT_EQ(std::vector<uint8_t>(before.begin(), before.begin() + KM_META_SIZE),
                std::vector<uint8_t>(KM_META_SIZE, 0));
      EXPECT_EQ(Unlock(c.loc, "old").status, 3);
    }

    // passwd, both passwords from standard input: a new salt, the same key.
    Args passwd = {"passwd", c.loc, "--password-file", "-", "--new-password-file", "-"};
    ToolResult changed = Tool(Join(passwd, c.place), "old\nnew\n");
    ASSERT_EQ(changed.status, 0) << changed.err;
    const std::vector<uint8_t> after = Stored(c.loc);
    const size_t salt = at + offsetof(km_meta, salt);
    EXPECT_NE(memcmp(after.data() + salt, before.data() + salt, sizeof(km_meta::salt)), 0)
        << "no new salt";
    EXPECT_EQ(Unlock(c.loc, "old", c.place).status, 2);

    // After a patch raise an upgraded record is stored again: by the tool at the record's own
    // offset (the library upgrades a kdf 5 key in memory only), by the library in secure
    // storage. The next unlock needs no upgrade.
    props_.push_back(kLaterPatch);
    for (bool first : {true, false}) {
      ToolResult later = Unlock(c.loc, "new", c.place);
      ASSERT_EQ(later.status, 0) << later.err;
      EXPECT_EQ(FingerprintIn(later.out), FingerprintIn(setup.out));
      EXPECT_EQ(later.out.find("Note: a Keymaster key was upgraded on the way; the record was "
                               "stored again.\n") != kNone,
                c.upgraded && first)
          << later.out;
    }
    EXPECT_EQ(Stored(c.loc) != after, c.upgraded);
  }
}

TEST_F(ToolTest, AnOlderGenerationIsInspectedAsStoredAndUpgradedByUnlock) {
  props_ = {kMdfpp};
  ToolResult setup = Setup("userdata", "pw", {"--kdf", "2"});
  ASSERT_EQ(setup.status, 0);
  std::vector<uint8_t> entry = Entry("userdata");
  ASSERT_EQ(entry.size(), static_cast<size_t>(KM_META_SIZE));
  kmstore_device* device = nullptr;
  ASSERT_EQ(kmstore_device_init(&device), 0);

  ASSERT_EQ(device->write("userdata", entry.data(), 2520), 0);
  ToolResult inspect = Tool({"inspect", "userdata", "--json"});
  ASSERT_EQ(inspect.status, 0) << inspect.err;
  Json json = JsonParser(inspect.out).Parse();
  EXPECT_EQ(json["place"].string, "secure_storage");
  EXPECT_EQ(json["stored_length"].Int(), 2520);
  EXPECT_EQ(json["key_name"].string, "userdata");
  EXPECT_EQ(json["xtkm_value"].type, Json::Type::kNull);
  EXPECT_EQ(json["mac_key_size"].type, Json::Type::kNull);
  ToolResult text = Tool({"inspect", "userdata"});
  EXPECT_NE(text.out.find("2520 bytes, older generation: ends after key_name"), kNone) << text.out;
  EXPECT_EQ(Entry("userdata").size(), 2520u);

  ASSERT_EQ(device->write("userdata", entry.data(), 2592), 0);
  ToolResult unlock = Unlock("userdata", "pw");
  ASSERT_EQ(unlock.status, 0) << unlock.err;
  EXPECT_EQ(FingerprintIn(unlock.out), FingerprintIn(setup.out));
  EXPECT_NE(unlock.out.find("Note: the entry (2592 bytes, major version 3) was upgraded while it "
                            "was read.\n"),
            kNone)
      << unlock.out;
  EXPECT_EQ(Entry("userdata").size(), static_cast<size_t>(KM_META_SIZE));
}

TEST_F(ToolTest, InspectShowsTheStoredRecordAsJsonAndTextEvenABadOne) {
  ASSERT_EQ(
      Setup(MetadataFile(), "pw", {"--kdf", "2", "--keysize", "16", "--offset", "4096"}).status, 0);
  std::vector<uint8_t> file = ReadFile(MetadataFile());
  ASSERT_EQ(file.size(), static_cast<size_t>(KM_METADATA_FILE_SIZE));
  km_meta meta;
  memcpy(&meta, file.data() + 4096, sizeof(meta));

  ToolResult inspect = Tool({"inspect", MetadataFile(), "--offset", "4096", "--json"});
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
  ToolResult text = Tool({"inspect", "--file", MetadataFile(), "--offset", "4096"});
  ASSERT_EQ(text.status, 0);
  EXPECT_NE(text.out.find("magic              0xd14ab29c (valid)"), kNone) << text.out;
  EXPECT_NE(text.out.find("salt               " + HexOf(meta.salt, 16)), kNone);
  EXPECT_NE(text.out.find("scrypt cost        N=1024 r=1 p=1"), kNone);

  // A bad record is shown as it is (unlock refuses it: see
  // EachExitStatusHasOneMeaningAndAFailedCommandChangesNothing).
  WriteFile(MetadataFile(), std::vector<uint8_t>(KM_METADATA_FILE_SIZE, 0x5a));
  inspect = Tool({"inspect", MetadataFile()});
  EXPECT_EQ(inspect.status, 0) << inspect.err;
  EXPECT_NE(inspect.out.find("magic              0x5a5a5a5a (bad magic)"), kNone) << inspect.out;
  EXPECT_NE(inspect.out.find("non-zero bytes in reserved0 reserved1 pad0 pad1"), kNone);
}

TEST_F(ToolTest, BadUsageExitsOneWithTheUsageLine) {
  props_ = {kMdfpp};
  const std::vector<std::pair<Args, std::string>> cases = {
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
      {{"benchmark", "--unlock-ms", "5"}, "--unlock-ms must be from 10 to 60000"},
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
  for (const auto& [args, sentence] : cases) {
    SCOPED_TRACE(::testing::PrintToString(args));
    ToolResult result = Tool(args);
    EXPECT_EQ(result.status, 1) << result.err;
    // One sentence, then the usage line.
    EXPECT_TRUE(std::regex_match(result.err, std::regex("tavikm: [^\n]+\nusage: tavikm [^\n]+\n")))
        << result.err;
    EXPECT_EQ(result.err.rfind("tavikm: " + sentence + "\n", 0), 0u) << result.err;
  }
  // No terminal to ask and no --password-file.
  ASSERT_EQ(Setup("userdata", "pw", {"--kdf", "1"}).status, 0);
  ToolResult result = Tool({"unlock", "userdata"});
  EXPECT_EQ(result.status, 1);
  EXPECT_NE(result.err.find("tavikm: no terminal to ask for the password"), kNone);
}

TEST_F(ToolTest, EveryCommandHasHelpAndHelpTouchesNoDevice) {
  std::string fresh = Path("never-made");
  for (std::string command : {"setup", "unlock", "passwd", "inspect", "list", "backup", "restore",
                              "kek", "benchmark", "demo"}) {
    SCOPED_TRACE(command);
    ToolResult result = Exec({TAVIKM_TOOL_PATH, "--device-dir", fresh, command, "--help"});
    EXPECT_EQ(result.status, 0);
    EXPECT_EQ(result.out.rfind("usage: tavikm " + command, 0), 0u) << result.out;
    // help COMMAND is the command's help, not the global one.
    EXPECT_EQ(Exec({TAVIKM_TOOL_PATH, "--device-dir", fresh, "help", command}).out, result.out);
  }
  EXPECT_EQ(Exec({TAVIKM_TOOL_PATH, "help", "kek", "get"}).out,
            Exec({TAVIKM_TOOL_PATH, "kek", "get", "--help"}).out);
  // What a derivation command takes is in its usage line, not only in its option list.
  for (std::string command : {"setup", "unlock", "passwd"}) {
    std::string usage = Exec({TAVIKM_TOOL_PATH, command, "--help"}).out;
    EXPECT_NE(usage.substr(0, usage.find('\n')).find("[--allow-cost]"), kNone) << usage;
  }
  EXPECT_FALSE(std::filesystem::exists(fresh));
  ToolResult result = Exec({TAVIKM_TOOL_PATH, "--help"});
  EXPECT_EQ(result.status, 0);
  EXPECT_NE(result.out.find("Exit status: 0 success, 1 usage or unusable input, 2 wrong password"),
            kNone);
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

  ToolResult unlock = Unlock(MetadataFile(), "anything");
  EXPECT_EQ(unlock.status, 4);
  EXPECT_EQ(FingerprintIn(unlock.out), HexOf(digest, sizeof(digest)));
  EXPECT_EQ(unlock.err, "tavikm: warning: the master key of " + MetadataFile() +
                            " opened under the all-zero key, not under the password, so any "
                            "password opens it\n");
  EXPECT_EQ(Tool(Passwd(MetadataFile(), "x", "y")).status, 4);
  EXPECT_EQ(ReadFile(MetadataFile()), before);
}

TEST_F(ToolTest, LibraryLinesGoToTheDeviceLogOrWithVToStderr) {
  ASSERT_EQ(Setup(MetadataFile(), "pw", {"--kdf", "1"}).status, 0);
  const std::string line = "E/TAVIKM: (km_decrypt_key)Failed to decrypt_gcm key keysize=32\n";
  EXPECT_EQ(Unlock(MetadataFile(), "wrong").status, 2);
  std::string log = Slurp(Path("log.txt"));
  EXPECT_NE(log.find(line), kNone) << log;

  std::filesystem::remove(Path("log.txt"));
  ToolResult verbose =
      Tool({"-v", "unlock", MetadataFile(), "--password-file", PasswordFile("wrong")});
  EXPECT_EQ(verbose.status, 2);
  EXPECT_NE(verbose.err.find(line), kNone) << verbose.err;
  EXPECT_FALSE(std::filesystem::exists(Path("log.txt")));
}

TEST_F(ToolTest, ASecondKdf5UnlockRightAfterTheFirstWaitsOutTheKeysRateLimit) {
  // Each unlock is its own process; the Keymaster's timer for the record's key lives in the
  // device directory, as a TEE keeps it across its callers.
  ToolResult setup = Setup(MetadataFile(), "pw", {"--kdf", "5"});
  ASSERT_EQ(setup.status, 0) << setup.err;
  ASSERT_EQ(Unlock(MetadataFile(), "pw").status, 0);
  ToolResult second = Tool({"-v", "unlock", MetadataFile(), "--password-file", PasswordFile("pw")});
  ASSERT_EQ(second.status, 0) << second.err;
  EXPECT_EQ(FingerprintIn(second.out), FingerprintIn(setup.out));
  // Natively the second signature begins milliseconds after the first ended; under valgrind or
  // qemu, and with AddressSanitizer on a loaded machine, the second tool's start and scrypt can
  // take longer than the key's one second, so there only the result is checked.
#if defined(__SANITIZE_ADDRESS__)
  constexpr bool kInstrumented = true;
#else
  constexpr bool kInstrumented = false;
#endif
  if (std::string(TAVIKM_TOOL_EMULATOR).empty() && !kInstrumented) {
    static const std::regex kRefused("E/\\S* Keymaster:[0-9]+: begin failed, code -54\n");
    EXPECT_TRUE(std::regex_search(second.err, kRefused)) << second.err;
  }
}

TEST_F(ToolTest, KeksArePutReadAndDeleted) {
  const std::string hex = "000102030405060708090a0b0c0d0e0f101112131415161718191a1b1c1d1e1f";
  std::string key_file = Scratch("kek.hex");
  std::ofstream(key_file) << hex << "\n";
  ToolResult put = Tool({"kek", "put", "vold", "--key-file", key_file});
  ASSERT_EQ(put.status, 0) << put.err;
  EXPECT_EQ(put.out.rfind("Stored the KEK \"vold\" (32 bytes)\n", 0), 0u) << put.out;
  ToolResult get = Tool({"kek", "get", "vold", "--show-key"});
  ASSERT_EQ(get.status, 0) << get.err;
  EXPECT_NE(get.out.find("key (hex)    " + hex + "\n"), kNone) << get.out;

  // An existing name is replaced only when forced (its refusal is in EachExitStatusHasOneMeaning).
  ToolResult forced = Tool({"kek", "put", "vold", "--random", "--keysize", "16", "--force"});
  ASSERT_EQ(forced.status, 0) << forced.err;
  const std::string fingerprint = "sha256:" + FingerprintIn(forced.out);
  get = Tool({"kek", "get", "vold"});
  EXPECT_NE(get.out.find("KEK \"vold\" (16 bytes)\n  kek          " + fingerprint), kNone)
      << get.out;

  // After a patch raise the first answer is empty (its key was upgraded); the tool asks again.
  // The library stores the upgraded record through the record store, which reaches secure
  // storage only in MDFPP mode.
  props_ = {kMdfpp, kLaterPatch};
  get = Tool({"kek", "get", "vold"});
  ASSERT_EQ(get.status, 0) << get.err;
  EXPECT_NE(get.out.find(fingerprint), kNone);
  EXPECT_NE(get.out.find("Note: its Keymaster key was upgraded on the way"), kNone) << get.out;

  EXPECT_EQ(Tool({"kek", "delete", "vold"}).status, 0);
  EXPECT_EQ(Tool({"kek", "get", "vold"}).status, 3);
  EXPECT_EQ(Tool({"kek", "delete", "vold"}).status, 3);
}

TEST_F(ToolTest, DemoEndsWithItsSuccessLineAndCleansUp) {
  ToolResult demo = Exec({TAVIKM_TOOL_PATH, "demo"});
  ASSERT_EQ(demo.status, 0) << demo.out << demo.err;
  EXPECT_EQ(demo.err, "");
  std::smatch dir;
  ASSERT_TRUE(std::regex_search(demo.out, dir, std::regex("^tavikm demo in (\\S+) ")));
  EXPECT_FALSE(std::filesystem::exists(dir[1].str()));
  std::smatch last;
  ASSERT_TRUE(std::regex_search(demo.out, last, std::regex("demo: all (\\d+) steps passed\n$")));
  // Every step announced itself before the last line.
  EXPECT_NE(demo.out.find("[" + last[1].str() + "/" + last[1].str() + "] "), kNone);
}

TEST_F(ToolTest, EachExitStatusHasOneMeaningAndAFailedCommandChangesNothing) {
  props_ = {kMdfpp};
  ASSERT_EQ(Setup("userdata", "pw", {"--kdf", "1"}).status, 0);
  ASSERT_EQ(Tool({"kek", "put", "vold", "--random"}).status, 0);
  const std::string file = MetadataFile(), nowhere = Path("nowhere"), empty = Scratch("empty");
  const std::string absent = Scratch("absent"), bad = Scratch("bad"), short_file = Scratch("short");
  ToolResult first = Setup(file, "pw", {"--kdf", "2"});
  ASSERT_EQ(first.status, 0);
  std::ofstream(empty).flush();
  WriteFile(bad, std::vector<uint8_t>(KM_METADATA_FILE_SIZE, 0x5a));
  WriteFile(short_file, std::vector<uint8_t>(100, 0x5a));
  const std::vector<uint8_t> file_before = ReadFile(file), userdata = Entry("userdata"),
                             vold = Entry("vold");
  struct Case {
    Args args;
    int status;
    std::string err;  // the whole of stderr
  };
  const std::vector<Case> cases = {
      {{"unlock", "userdata", "--password-file", absent},
       1,
       "cannot open password file " + absent + ": No such file or directory"},
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
      {{"inspect", "nosuch"}, 3, "no record named \"nosuch\" in secure storage"},
      {{"kek", "get", "nosuch"}, 3, "no KEK named \"nosuch\""},
      {{"unlock", nowhere}, 3, "no metadata file " + nowhere},
      {{"inspect", "--file", nowhere}, 3, "no metadata file " + nowhere},
      // Zeros at the offset, as a deleted record leaves them, or a read past the end.
      {{"unlock", file, "--offset", "8192"}, 3, "no record in " + file + " at offset 8192"},
      {{"inspect", file, "--offset", "8192"}, 3, file + " at offset 8192 is empty"},
      {{"inspect", file, "--offset", "20000"}, 3, file + " at offset 20000 is empty"},
      // A failed passwd leaves the record byte-identical.
      {Passwd(file, "wrong", "new"), 2, "wrong password for " + file},
      {{"passwd", file, "--password-file", PasswordFile("pw"), "--new-password-file", absent},
       1,
       "cannot open password file " + absent + ": No such file or directory"},
      {{"passwd", file, "--password-file", PasswordFile("pw"), "--new-password-file", empty},
       1,
       "password file " + empty + " is empty"},
      {Passwd(file, "pw", ""), 1,
       "an empty password is refused; --allow-empty-password accepts it"},
      {{"unlock", bad, "--password-file", PasswordFile("pw")},
       4,
       bad + " at offset 0 holds no record (magic 0x5a5a5a5a)"},
      {{"unlock", short_file, "--password-file", PasswordFile("pw")},
       4,
       short_file + " is not a metadata file: 100 bytes instead of 16384"},
      {{"unlock", "vold"},
       4,
       "secure-storage entry \"vold\" holds a KEK, not the record of a master key (tavikm kek get "
       "vold reads it)"},
      // What exists is kept unless forced, and --force never lets a record overlap another.
      {{"setup", file, "--password-file", PasswordFile("pw")},
       4,
       file + " at offset 0 already holds data; --force replaces it"},
      {{"setup", file, "--offset", "100", "--force", "--password-file", PasswordFile("pw")},
       4,
       "a record at offset 100 of " + file + " would overlap the record at offset 0"},
      {{"kek", "put", "vold", "--random"},
       4,
       "secure storage already holds an entry \"vold\"; --force replaces it"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(::testing::PrintToString(c.args));
    ToolResult result = Tool(c.args);
    EXPECT_EQ(result.status, c.status);
    EXPECT_EQ(result.err, "tavikm: " + c.err + "\n");
    EXPECT_EQ(ReadFile(file), file_before);
    EXPECT_EQ(Entry("userdata"), userdata);
    EXPECT_EQ(Entry("vold"), vold);
  }
  ToolResult allowed = Setup("new", "", {"--kdf", "1", "--allow-empty-password"});
  ASSERT_EQ(allowed.status, 0) << allowed.err;
  EXPECT_EQ(Unlock("new", "").status, 0);
  ToolResult forced = Setup(file, "pw", {"--kdf", "1", "--force"});
  EXPECT_EQ(forced.status, 0);
  EXPECT_NE(FingerprintIn(forced.out), FingerprintIn(first.out));
  // inspect reads a KEK as one.
  ToolResult kek = Tool({"inspect", "--entry", "vold"});
  EXPECT_EQ(kek.status, 0);
  EXPECT_NE(kek.out.find("kdf_type           0 (none: a KEK)\n"), kNone) << kek.out;
}

// A field under which no password can open the record is damage, named as such, never a wrong
// password; the record stays as it was, and the good password still gets through beside it.
TEST_F(ToolTest, AFieldNoPasswordCanOpenIsDamageNotAWrongPassword) {
  struct Case {
    std::string kdf;
    Args props;
    std::function<void(km_meta*)> damage;
    std::string why;  // after "<place> has "
  };
  const std::vector<Case> cases = {
      {"2",
       {},
       [](km_meta* m) { m->keysize = 20; },
       "keysize 20, which the wrapping cannot use (16, 24 or 32 bytes)"},
      {"1",
       {kCbcOnly},
       [](km_meta* m) { m->keysize = 24; },
       "keysize 24, which the wrapping cannot use (16 or 32 bytes)"},
      {"5",
       {},
       [](km_meta* m) { m->km_key_blob_size = 0; },
       "km_key_blob_size 0, not a Keymaster key (1 to 2048 bytes)"},
      {"5",
       {},
       [](km_meta* m) { m->km_key_blob_size = 4096; },
       "km_key_blob_size 4096, not a Keymaster key (1 to 2048 bytes)"},
      {"1", {}, [](km_meta* m) { m->kdf_type = 9; }, "kdf_type 9, which is no KDF (1 to 5)"},
      {"2",
       {},
       [](km_meta* m) { m->N_factor = 31; },
       "N_factor 31, beyond scrypt's range (0 to 30)"},
      {"2",
       {},
       [](km_meta* m) { m->r_factor = 15, m->p_factor = 15; },
       "r_factor and p_factor 15 and 15, whose r*p reaches 2^30, beyond scrypt's range"},
  };
  const std::string file = MetadataFile();
  for (const Case& c : cases) {
    SCOPED_TRACE(c.why);
    props_ = c.props;
    ASSERT_EQ(Setup(file, "pw", {"--kdf", c.kdf, "--force"}).status, 0);
    std::vector<uint8_t> bytes = ReadFile(file);
    c.damage(reinterpret_cast<km_meta*>(bytes.data()));
    WriteFile(file, bytes);
    // --allow-cost: the damage is found without a cost limit in the way.
    for (const Args& args :
         {Args{"unlock", file, "--allow-cost", "--password-file", PasswordFile("pw")},
          Join(Passwd(file, "pw", "new"), {"--allow-cost"})}) {
      ToolResult result = Tool(args);
      EXPECT_EQ(result.status, 4);
      EXPECT_EQ(result.err, "tavikm: the record is damaged: " + file + " at offset 0 has " + c.why +
                                "; no password can open it\n");
      EXPECT_EQ(ReadFile(file), bytes);
    }
  }
  props_ = {};
  ASSERT_EQ(Setup(file, "pw", {"--kdf", "2", "--force"}).status, 0);
  EXPECT_EQ(Unlock(file, "pw").status, 0);
}

// Runs `arrange` in a throwaway child: "" when it can set up what a case needs here, else why
// not, so that a case this machine cannot provide is skipped with its reason instead of failing.
std::string Probe(const std::function<std::string()>& arrange) {
  int fds[2];
  if (pipe(fds) != 0) return std::string("pipe: ") + strerror(errno);
  pid_t pid = fork();
  if (pid == 0) {
    close(fds[0]);
    std::string why = arrange();
    if (write(fds[1], why.data(), why.size()) < 0) _exit(1);
    _exit(0);
  }
  close(fds[1]);
  std::string why;
  char buffer[256];
  for (ssize_t n; (n = read(fds[0], buffer, sizeof(buffer))) > 0;) why.append(buffer, n);
  close(fds[0]);
  int status = 0;
  waitpid(pid, &status, 0);
  if (why.empty() && !(WIFEXITED(status) && WEXITSTATUS(status) == 0)) why = "the probe died";
  return why;
}

std::string Failed(const char* what) { return std::string(what) + ": " + strerror(errno); }

// Root passes permission checks by its capabilities, not by its uid: without them (and kept
// from regaining them at exec) it meets a folder's mode as any owner does. Changing to another
// uid instead would need a path to the tool and its libraries that the uid may enter.
std::string WithoutPrivileges() {
  if (geteuid() != 0) return "";
  if (prctl(PR_SET_SECUREBITS, SECBIT_NOROOT | SECBIT_NOROOT_LOCKED) != 0)
    return Failed("cannot keep root from regaining its capabilities");
  __user_cap_header_struct header = {_LINUX_CAPABILITY_VERSION_3, 0};
  __user_cap_data_struct none[_LINUX_CAPABILITY_U32S_3] = {};
  if (syscall(SYS_capset, &header, none) != 0) return Failed("cannot drop root's capabilities");
  return "";
}

// `dir` as a 16 KiB file system that is already full, seen only by this process and its
// children: a mount namespace of its own (in a user namespace when not root), so nothing is
// left mounted whatever happens to the test.
std::string FullFileSystemAt(const std::string& dir) {
  uid_t uid = geteuid();
  gid_t gid = getegid();
  if (uid != 0) {
    if (unshare(CLONE_NEWUSER | CLONE_NEWNS) != 0)
      return Failed("no user namespace for a private mount as a user");
    std::ofstream("/proc/self/setgroups") << "deny";
    std::ofstream("/proc/self/uid_map") << uid << " " << uid << " 1";
    std::ofstream("/proc/self/gid_map") << gid << " " << gid << " 1";
  } else if (unshare(CLONE_NEWNS) != 0) {
    return Failed("no mount namespace");
  }
  // Fails where "/" is no mount point, as in a chroot into a plain folder.
  if (mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0)
    return Failed("cannot make / private in a new mount namespace");
  if (mount("tmpfs", dir.c_str(), "tmpfs", 0, "size=16k") != 0)
    return Failed("cannot mount a tmpfs");
  int fd = open((dir + "/filler").c_str(), O_WRONLY | O_CREAT, 0600);
  if (fd < 0) return Failed("cannot fill the tmpfs");
  char block[4096] = {};
  while (write(fd, block, sizeof(block)) > 0) {
  }
  close(fd);
  return "";
}

class ToolFailureTest : public ToolTest {
 protected:
  // `setup` of `loc` fails with exit 4 and one sentence: what failed, where, and the system's
  // cause.
  void ExpectSetupFailure(const std::string& loc, const std::string& cause,
                          const Args& options = {}) {
    ToolResult setup =
        Tool(Join({"setup", loc, "--kdf", "2", "--password-file", "-"}, options), "pw\n");
    // Instrumented builds' own lines: a sanitizer's warning, or gcov's, which cannot write its
    // counters without privileges.
    setup.err =
        std::regex_replace(setup.err, std::regex("(==[0-9]+==WARNING: |profiling:)[^\n]*\n"), "");
    ASSERT_NE(setup.status, 125) << "the case could not be arranged in the tool's process";
    EXPECT_EQ(setup.status, 4);
    EXPECT_EQ(setup.err.rfind("tavikm: cannot ", 0), 0u) << setup.err;
    EXPECT_NE(setup.err.find(loc), kNone) << setup.err;
    EXPECT_NE(setup.err.find(": " + cause), kNone) << setup.err;
    EXPECT_EQ(std::count(setup.err.begin(), setup.err.end(), '\n'), 1) << setup.err;
  }
  // The tool's process runs `arrange` first; the test is skipped when this machine cannot.
  bool Arrange(std::function<std::string()> arrange, std::string* why) {
    *why = Probe(arrange);
    in_child_ = [arrange] {
      if (!arrange().empty()) _exit(125);
    };
    return why->empty();
  }
};

TEST_F(ToolFailureTest, FailuresNameThePlaceAndTheCause) {
  ExpectSetupFailure(Scratch("missing") + "/meta", "No such file or directory");
  // 1 TiB: the request fails as malloc fails, also under AddressSanitizer (whose warning line is
  // dropped).
  in_child_ = [] { setenv("ASAN_OPTIONS", "allocator_may_return_null=1", 1); };
  props_ = {"ro.crypto.scrypt_params=30:3:1"};
  // --allow-cost: past the tool's own refusal, to the allocation.
  ExpectSetupFailure(MetadataFile(), "the key derivation failed: Cannot allocate memory",
                     {"--allow-cost"});
  in_child_ = nullptr;

  // Secure storage gives the system's cause too: here the device directory cannot be made.
  std::ofstream(Path("kmstore-blocker")).flush();
  ToolResult put = Exec({TAVIKM_TOOL_PATH, "--device-dir", Path("kmstore-blocker/dev"), "kek",
                         "put", "x", "--random"});
  EXPECT_EQ(put.status, 4);
  EXPECT_NE(put.err.find(": Not a directory"), kNone) << put.err;
}

TEST_F(ToolFailureTest, AFolderWithoutWriteAccessIsNamedWithItsCause) {
  std::string locked = Scratch("locked");
  std::filesystem::create_directories(locked);
  chmod(locked.c_str(), 0555);
  std::string why;
  if (!Arrange(WithoutPrivileges, &why)) GTEST_SKIP() << why;
  ExpectSetupFailure(locked + "/meta", "Permission denied");
}

// (A read-only file system fails the same open as a folder without write access.)
TEST_F(ToolFailureTest, AFullFileSystemIsNamedWithItsCause) {
  std::string full = Scratch("full");
  std::filesystem::create_directories(full);
  std::string why;
  if (!Arrange([full] { return FullFileSystemAt(full); }, &why)) GTEST_SKIP() << why;
  ExpectSetupFailure(full + "/meta", "No space left on device");
}

TEST_F(ToolTest, ListShowsEntriesAndTheRecordsOfMetadataFiles) {
  props_ = {kMdfpp};
  ASSERT_EQ(Setup("user/data", "pw", {"--kdf", "2"}).status, 0);
  ASSERT_EQ(Tool({"kek", "put", "vold", "--random", "--keysize", "16"}).status, 0);
  props_ = {};
  // Setup passes through offset 0 on the way to another offset: that one comes first.
  ASSERT_EQ(Setup(MetadataFile(), "pw", {"--kdf", "5", "--offset", "5000"}).status, 0);
  ASSERT_EQ(Setup(MetadataFile(), "pw", {"--kdf", "1", "--keysize", "16"}).status, 0);

  ToolResult list = Tool({"list", "--json", MetadataFile()});
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

  ToolResult text = Tool({"list", MetadataFile()});
  EXPECT_TRUE(std::regex_search(text.out, std::regex("\n  vold +KEK +- +16 +current\n")))
      << text.out;
  EXPECT_NE(text.out.find(MetadataFile() + ": 2 records\n"), kNone);
}

TEST_F(ToolTest, RestoreBringsBackTheRecordAsItWasBackedUp) {
  struct Case {
    Args props;
    std::string loc;
    Args place;
  };
  const std::vector<Case> cases = {
      {{}, MetadataFile(), {"--offset", "4096"}},
      {{kMdfpp}, "userdata", {}},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.loc);
    props_ = c.props;
    ToolResult setup = Setup(c.loc, "old", Join({"--kdf", "2"}, c.place));
    ASSERT_EQ(setup.status, 0) << setup.err;
    const std::vector<uint8_t> before = Stored(c.loc);
    std::string backup = Scratch("backup-" + std::to_string(++files_));
    Args args = Join({"backup", c.loc, backup}, c.place);
    ToolResult saved = Tool(args);
    ASSERT_EQ(saved.status, 0) << saved.err;
    EXPECT_EQ(Tool(args).status, 4) << "a backup replaced a file";
    // The layout is pinned, so backups written by earlier releases still restore: magic,
    // version 1, kind (1 entry, 2 file), offset, the two lengths (all little-endian), the key
    // location, the image, and a SHA-256 over all of that.
    {
      const uint64_t offset = c.place.empty() ? 0 : 4096;
      std::vector<uint8_t> expected = {'T', 'A', 'V', 'I', 'K', 'M', 'B', 'K', 1, 0, 0, 0};
      expected.push_back(c.props.empty() ? 2 : 1);
      expected.insert(expected.end(), {0, 0, 0});
      for (int i = 0; i < 8; ++i) expected.push_back(static_cast<uint8_t>(offset >> (8 * i)));
      for (uint32_t length : {static_cast<uint32_t>(c.loc.size()), uint32_t{KM_META_SIZE}}) {
        for (int i = 0; i < 4; ++i) expected.push_back(static_cast<uint8_t>(length >> (8 * i)));
      }
      expected.insert(expected.end(), c.loc.begin(), c.loc.end());
      // Stored() is the whole file for a metadata file: the record is at the offset.
      expected.insert(expected.end(), before.begin() + static_cast<long>(offset),
                      before.begin() + static_cast<long>(offset + KM_META_SIZE));
      uint8_t digest[32];
      ASSERT_EQ(km_sha256(expected.data(), expected.size(), digest), 0);
      expected.insert(expected.end(), digest, digest + sizeof(digest));
      EXPECT_EQ(ReadFile(backup), expected);
    }

    Args passwd = {"passwd", c.loc, "--password-file", "-", "--new-password-file", "-"};
    ASSERT_EQ(Tool(Join(passwd, c.place), "old\nnew\n").status, 0);
    const std::vector<uint8_t> changed = Stored(c.loc);

    // A damaged copy is refused and changes nothing.
    std::vector<uint8_t> bytes = ReadFile(backup);
    bytes[bytes.size() / 2] ^= 1;
    std::string damaged = backup + "-damaged";
    WriteFile(damaged, bytes);
    ToolResult refused = Tool({"restore", c.loc, damaged});
    EXPECT_EQ(refused.status, 1);
    EXPECT_EQ(refused.err, "tavikm: " + damaged + " is damaged: its SHA-256 does not match\n");
    EXPECT_EQ(Stored(c.loc), changed);

    ToolResult restored = Tool({"restore", c.loc, backup});
    ASSERT_EQ(restored.status, 0) << restored.err;
    EXPECT_EQ(Stored(c.loc), before);
    ToolResult unlock = Unlock(c.loc, "old", c.place);
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
  ToolResult bench = Tool({"benchmark", "--unlock-ms", "10"});
  ASSERT_EQ(bench.status, 0) << bench.err;
  EXPECT_EQ(bench.err, "");
  // The figures and the proposal are said to be this machine's, and the scrypt line names the
  // Salsa20/8 implementation that produced them (each process times the candidates at start, so
  // on a busy machine the tool may pick another one than this test would).
  EXPECT_TRUE(std::regex_match(
      bench.out,
      std::regex("Timings of this machine, not of a device:\n"
                 "PBKDF2-HMAC-SHA256, 8192 iterations \\(kdf 1 and 4\\) +[0-9.]+ ms\n"
                 "scrypt, r=8 p=2 \\(kdf 2 and 5\\), Salsa20/8 back end [a-z0-9]+:\n"
                 "  N +memory +time\n"
                 "(  N=2\\^[0-9]+ +[0-9]+ [KM]iB [ ~] *[0-9.]+ ms\n)+"
                 "(For an unlock of at most 10 ms on this machine: "
                 "ro.crypto.scrypt_params=[0-9]+:3:1\n"
                 "A device gives other times: run the benchmark there before setting the "
                 "property.\n|"
                 "Even N=2\\^10 takes longer than 10 ms on this machine.\n)")))
      << bench.out;
}

TEST_F(ToolTest, ProgressAndPromptsShowOnlyOnATerminal) {
  // kdf 5 signs once to unlock and once to wrap again: the second signature waits out the
  // Keymaster's one-a-second limit, inside the derivation, so both the status and the note show.
  ASSERT_EQ(Setup(MetadataFile(), "old", {"--kdf", "5"}).status, 0);
  ToolResult terminal = OnTerminal(Passwd(MetadataFile(), "old", "new"));
  ASSERT_EQ(terminal.status, 0) << terminal.out;
  EXPECT_NE(terminal.out.find("\rwaiting for the Keymaster (one signature a second) ... "), kNone)
      << terminal.out;
  EXPECT_NE(terminal.out.find("\r\033[K"), kNone) << "the status line was not erased";

  ToolResult pipe = Tool(Passwd(MetadataFile(), "new", "old"));
  ASSERT_EQ(pipe.status, 0) << pipe.err;
  EXPECT_EQ(pipe.err, "");

  // Asked on the terminal, a new password is typed twice and must match.
  ToolResult mismatch =
      OnTerminal({"passwd", MetadataFile(), "--password-file", PasswordFile("old")},
                 {{"New password", "one"}, {"Repeat", "two"}});
  EXPECT_EQ(mismatch.status, 1);
  EXPECT_NE(mismatch.out.find("tavikm: the two passwords do not match"), kNone) << mismatch.out;
}

// On a terminal, what destroys a record or a KEK says what is lost and waits for "yes"; anything
// else changes nothing. --batch, or no terminal, never asks.
TEST_F(ToolTest, ReplacingOrRemovingAsksOnATerminalUnlessBatch) {
  props_ = {kMdfpp};
  const std::string file = MetadataFile(), saved = Scratch("saved");
  ASSERT_EQ(Setup(file, "pw").status, 0);
  ASSERT_EQ(Tool({"backup", file, saved}).status, 0);
  ASSERT_EQ(Tool({"kek", "put", "vold", "--random"}).status, 0);
  const std::vector<uint8_t> record = ReadFile(file), kek = Entry("vold");
  const std::string question = "Type yes to go on: ";
  struct Case {
    Args args;
    std::string loss;
  };
  const std::vector<Case> cases = {
      {{"setup", file, "--force", "--password-file", PasswordFile("new")},
       file + " at offset 0 is replaced by a new record: the master key stored there now is lost "
              "for good."},
      {{"restore", file, saved},
       file + " at offset 0 is replaced by the backup: what it holds now "
              "is lost."},
      {{"kek", "put", "vold", "--random", "--force"},
       "The KEK \"vold\" is replaced: what it protects cannot be opened without it."},
      {{"kek", "delete", "vold"},
       "The KEK \"vold\" is deleted: what it protects cannot be opened without it."},
      {{"erase", file},
       file + " at offset 0 is erased: its master key is lost unless a backup of it is restored."},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(::testing::PrintToString(c.args));
    for (std::string answer : {"no", "", "YES", "y"}) {
      ToolResult refused = OnTerminal(c.args, {{question, answer}});
      EXPECT_EQ(refused.status, 4);
      EXPECT_EQ(refused.out, c.loss + "\r\n" + question + answer +
                                 "\r\ntavikm: not confirmed; nothing was changed\r\n");
      EXPECT_EQ(ReadFile(file), record);
      EXPECT_EQ(Entry("vold"), kek);
    }
  }
  // Confirmed, the command runs as without a terminal.
  ToolResult yes = OnTerminal(cases[3].args, {{question, "yes"}});
  EXPECT_EQ(yes.status, 0) << yes.out;
  EXPECT_NE(yes.out.find("Deleted the KEK \"vold\""), kNone) << yes.out;
  EXPECT_TRUE(Entry("vold").empty());
  ToolResult batch = OnTerminal(Join({"--batch"}, cases[1].args));
  EXPECT_EQ(batch.status, 0) << batch.out;
  EXPECT_EQ(batch.out.find(question), kNone) << batch.out;
  ASSERT_EQ(Tool({"kek", "put", "vold", "--random"}).status, 0);
  ToolResult quiet = OnTerminal({"-q", "kek", "delete", "vold"});
  EXPECT_EQ(quiet.status, 0) << quiet.out;
  EXPECT_EQ(quiet.out.find(question), kNone) << quiet.out;
  // Off a terminal, scripts run as they always have, with or without --batch.
  ASSERT_EQ(Tool({"kek", "put", "vold", "--random"}).status, 0);
  EXPECT_EQ(Tool({"kek", "put", "vold", "--random", "--force"}).status, 0);
  ToolResult piped = Tool({"--batch", "kek", "delete", "vold"});
  EXPECT_EQ(piped.status, 0);
  EXPECT_EQ(piped.err, "");
  // Nothing to lose, nothing asked.
  ToolResult fresh =
      OnTerminal({"setup", Path("other"), "--force", "--password-file", PasswordFile("pw")});
  EXPECT_EQ(fresh.status, 0) << fresh.out;
  EXPECT_EQ(fresh.out.find(question), kNone) << fresh.out;
}

// erase removes a record as the library deletes one; its backup brings it back, unless
// --destroy-key also deleted the Keymaster key the record is bound to.
TEST_F(ToolTest, AnErasedRecordComesBackFromItsBackupUnlessItsKeyWasDestroyed) {
  props_ = {kMdfpp};
  struct Case {
    std::string loc;
    Args offset;
    std::string kdf;
    bool bound;  // to a Keymaster key
  };
  const std::vector<Case> cases = {
      {Path("bound"), {"--offset", "4096"}, "5", true},
      {"userdata", {}, "5", true},
      {"rek", {}, "4", true},
      {"plain", {}, "2", false},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.loc);
    const std::string saved = Scratch(c.kdf + "-" + std::to_string(c.loc.size()));
    ToolResult made = Setup(c.loc, "pw", Join({"--kdf", c.kdf}, c.offset));
    ASSERT_EQ(made.status, 0) << made.err;
    ASSERT_EQ(Tool(Join({"backup", c.loc, saved}, c.offset)).status, 0);
    std::vector<uint8_t> around = Stored(c.loc);
    ToolResult erased = Tool(Join({"erase", c.loc}, c.offset));
    EXPECT_EQ(erased.status, 0) << erased.err;
    EXPECT_EQ(Unlock(c.loc, "pw", c.offset).status, 3);
    if (c.loc[0] == '/') {
      // Zeros where the record was, nothing else touched.
      std::fill(around.begin() + 4096, around.begin() + 4096 + KM_META_SIZE, 0);
      EXPECT_EQ(ReadFile(c.loc), around);
    } else {
      EXPECT_TRUE(Entry(c.loc).empty());
    }
    ASSERT_EQ(Tool(Join({"restore", c.loc, saved}, c.offset)).status, 0);
    ToolResult back = Unlock(c.loc, "pw", c.offset);
    EXPECT_EQ(back.status, 0) << back.err;
    EXPECT_EQ(FingerprintIn(back.out), FingerprintIn(made.out));

    ToolResult destroyed = Tool(Join({"erase", c.loc, "--destroy-key"}, c.offset));
    EXPECT_EQ(destroyed.status, 0) << destroyed.err;
    EXPECT_NE(destroyed.out.find(c.bound ? "Deleted its Keymaster key: no backup of it opens again."
                                         : "It had no Keymaster key"),
              kNone)
        << destroyed.out;
    ASSERT_EQ(Tool(Join({"restore", c.loc, saved}, c.offset)).status, 0);
    ToolResult reopened = Unlock(c.loc, "pw", c.offset);
    EXPECT_EQ(reopened.status, c.bound ? 4 : 0);
    if (c.bound) {
      EXPECT_NE(reopened.err.find("the Keymaster no longer accepts the record's key"), kNone)
          << reopened.err;
    }
  }
  ASSERT_EQ(Tool({"kek", "put", "vold", "--random"}).status, 0);
  const std::vector<uint8_t> kek = Entry("vold");
  ToolResult refused = Tool({"erase", "vold"});
  EXPECT_EQ(refused.status, 4);
  EXPECT_EQ(refused.err,
            "tavikm: secure-storage entry \"vold\" holds a KEK, not the record of a master key "
            "(tavikm kek delete vold removes it)\n");
  EXPECT_EQ(Entry("vold"), kek);
  EXPECT_EQ(Tool({"erase", "nosuch"}).status, 3);
}

TEST_F(ToolTest, AResultThatCannotBeWrittenIsAFailureThatSaysWhatStands) {
  props_ = {kMdfpp};
  ASSERT_EQ(Setup("userdata", "pw", {"--kdf", "1"}).status, 0);
  struct Case {
    Args args;
    std::string err;
    std::function<bool()> stands;  // the change took effect all the same
  };
  const std::string full = ", but the output could not be written: No space left on device\n";
  const std::vector<Case> cases = {
      {{"kek", "put", "k1", "--random", "--show-key"},
       "tavikm: the KEK \"k1\" was stored" + full,
       [&] {
         return Tool({"kek", "get", "k1"}).status == 0;
       }},
      {{"setup", "fresh", "--kdf", "1", "--show-key", "--password-file", PasswordFile("pw")},
       "tavikm: the record of fresh was created" + full,
       [&] { return Unlock("fresh", "pw").status == 0; }},
      {Passwd("fresh", "pw", "new"), "tavikm: the password of fresh was changed" + full,
       [&] { return Unlock("fresh", "new").status == 0; }},
      {{"kek", "delete", "k1"},
       "tavikm: the KEK \"k1\" was deleted" + full,
       [&] {
         return Tool({"kek", "get", "k1"}).status == 3;
       }},
      {{"unlock", "userdata", "--password-file", PasswordFile("pw"), "--show-key"},
       "tavikm: cannot write to standard output: No space left on device\n",
       nullptr},
      {{"inspect", "userdata", "--json"},
       "tavikm: cannot write to standard output: No space left on device\n",
       nullptr},
      {{"list", "--json"},
       "tavikm: cannot write to standard output: No space left on device\n",
       nullptr},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(::testing::PrintToString(c.args));
    in_child_ = [] {
      int full_fd = open("/dev/full", O_WRONLY);
      if (full_fd < 0 || dup2(full_fd, STDOUT_FILENO) < 0) _exit(125);
    };
    ToolResult result = Tool(c.args);
    in_child_ = nullptr;
    EXPECT_EQ(result.status, 4);
    EXPECT_EQ(result.err, c.err);
    if (c.stands) {
      EXPECT_TRUE(c.stands());
    }
  }
}

// A terminal for the prompt, opened by the test too so that its settings can be read whatever
// the tool does with them.
class PromptTest : public ToolTest {
 protected:
  // Starts `args` on a new pseudo-terminal; with `job_control`, under a small shell that runs it
  // as a foreground job, says "[stopped echo=E]" when it stops, turns echo on for itself as a
  // shell does, and continues the job when "fg" is typed.
  pid_t StartOnTerminal(const Args& args, bool job_control) {
    pid_t pid = forkpty(&master_, nullptr, nullptr, nullptr);
    if (pid == 0) {
      if (!job_control) ExecInChild(ToolArgv(args));
      signal(SIGTTOU, SIG_IGN);
      pid_t job = fork();
      if (job == 0) {
        setpgid(0, 0);
        tcsetpgrp(STDIN_FILENO, getpid());
        signal(SIGTTOU, SIG_DFL);
        ExecInChild(ToolArgv(args));
      }
      setpgid(job, job);
      tcsetpgrp(STDIN_FILENO, job);
      for (;;) {
        int status = 0;
        if (waitpid(job, &status, WUNTRACED) < 0) _exit(125);
        if (!WIFSTOPPED(status)) _exit(WIFEXITED(status) ? WEXITSTATUS(status) : 125);
        tcsetpgrp(STDIN_FILENO, getpgrp());
        struct termios tty;
        tcgetattr(STDIN_FILENO, &tty);
        printf("[stopped echo=%d]\n", (tty.c_lflag & ECHO) ? 1 : 0);
        fflush(stdout);
        tty.c_lflag |= ECHO;
        tcsetattr(STDIN_FILENO, TCSANOW, &tty);
        char line[16];
        if (!fgets(line, sizeof(line), stdin)) _exit(125);
        tcsetpgrp(STDIN_FILENO, job);
        kill(-job, SIGCONT);
      }
    }
    slave_ = open(ptsname(master_), O_RDWR | O_NOCTTY);
    return pid;
  }
  void TearDown() override {
    if (slave_ >= 0) close(slave_);
    if (master_ >= 0) close(master_);
    slave_ = master_ = -1;
  }

  // Reads the terminal until `text` has appeared (or the tool is gone, or 30 s of silence).
  bool ReadUntil(const std::string& text) {
    while (out_.find(text) == kNone) {
      struct pollfd ready = {master_, POLLIN, 0};
      if (poll(&ready, 1, 30000) <= 0) return false;
      char buffer[1024];
      ssize_t n = read(master_, buffer, sizeof(buffer));
      if (n <= 0) return false;
      out_.append(buffer, static_cast<size_t>(n));
    }
    return true;
  }
  bool Echo() const {
    struct termios tty;
    return tcgetattr(slave_, &tty) == 0 && (tty.c_lflag & ECHO);
  }
  // Waits up to 5 s for echo to be `on`.
  bool EchoBecomes(bool on) const {
    for (int i = 0; i < 500 && Echo() != on; ++i) usleep(10000);
    return Echo() == on;
  }
  int Type(const std::string& text) {
    return static_cast<int>(write(master_, text.data(), text.size()));
  }
  // Waits for the tool's end (at most 30 s), keeping what it wrote; the test's own descriptor of
  // the terminal keeps it open, so its end is the process's, not the terminal's.
  int Status(pid_t pid) {
    int status = 0;
    for (int i = 0; i < 3000; ++i) {
      struct pollfd ready = {master_, POLLIN, 0};
      bool gone = waitpid(pid, &status, WNOHANG) == pid;
      while (poll(&ready, 1, gone ? 0 : 10) > 0) {
        char buffer[1024];
        ssize_t n = read(master_, buffer, sizeof(buffer));
        if (n <= 0) break;
        out_.append(buffer, static_cast<size_t>(n));
      }
      if (gone) return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
    }
    kill(pid, SIGKILL);
    waitpid(pid, &status, 0);
    ADD_FAILURE() << "the tool did not end; output: " << out_;
    return -1;
  }

  int master_ = -1, slave_ = -1;
  std::string out_;
};

TEST_F(PromptTest, EchoComesBackWhicheverSignalEndsTheTool) {
  ASSERT_EQ(Setup(MetadataFile(), "secret", {"--kdf", "1"}).status, 0);
  for (int sig : {SIGINT, SIGTERM, SIGQUIT, SIGHUP}) {
    SCOPED_TRACE(strsignal(sig));
    out_.clear();
    pid_t pid = StartOnTerminal({"unlock", MetadataFile()}, false);
    ASSERT_TRUE(ReadUntil("Password for")) << out_;
    EXPECT_TRUE(EchoBecomes(false));
    kill(pid, sig);
    EXPECT_EQ(Status(pid), 128 + sig);
    EXPECT_TRUE(Echo()) << "the tool ended with echo off";
    TearDown();
  }
}

// Ctrl-Z at the prompt, then fg: echo is on while the job is stopped, what was typed before is
// dropped, and after fg echo is off again before the rest of the password is typed.
TEST_F(PromptTest, CtrlZThenFgNeverShowsThePassword) {
  if (!std::string(TAVIKM_TOOL_EMULATOR).empty()) {
    GTEST_SKIP() << "the stop would be the emulator's, not the tool's own";
  }
  ASSERT_EQ(Setup(MetadataFile(), "secret", {"--kdf", "1"}).status, 0);
  pid_t pid = StartOnTerminal({"unlock", MetadataFile()}, true);
  ASSERT_TRUE(ReadUntil("Password for")) << out_;
  ASSERT_TRUE(EchoBecomes(false));
  Type("sec");
  Type("\x1a");
  ASSERT_TRUE(ReadUntil("[stopped echo=")) << out_;
  ASSERT_TRUE(ReadUntil("]")) << out_;
  EXPECT_NE(out_.find("[stopped echo=1]"), kNone) << "stopped with echo off: " << out_;
  Type("fg\n");
  EXPECT_TRUE(EchoBecomes(false)) << "echo stayed on after fg";
  size_t typed_at = out_.size();
  Type("secret\n");
  EXPECT_EQ(Status(pid), 0) << out_;
  EXPECT_EQ(out_.find("secret", typed_at), kNone) << "the password was echoed: " << out_;
  EXPECT_NE(out_.find("Unlocked "), kNone) << out_;
}

}  // namespace
}  // namespace tavikm_test
