// SPDX-License-Identifier: Apache-2.0
// `tavikm demo`: a narrated tour of the library in a throwaway device directory. Each step does
// what the storage-encryption service would do and checks the outcome; the tour ends with one
// line saying that every step passed, or stops at the first step that did not.
#include <cutils/properties.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include <filesystem>
#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "cli.h"
#include "commands.h"
#include "log_sink.h"
#include "operations.h"
#include "place.h"
#include "tavikm.h"
#include "tavikm_host/device.h"
#include "tavikm_host/keymaster.h"

namespace tavikm_tool {
namespace {

// Small scrypt costs (N=1024, r=1, p=1) keep the tour quick; --prop can set others.
constexpr char kDemoScryptParams[] = "10:0:0";
// Later than any patch level the emulated device starts with.
constexpr char kLaterPatchLevel[] = "2099-12-05";

Password MakePassword(const char* text) {
  Password password;
  size_t length = strlen(text);
  memcpy(password.data(), text, length);
  password.set_size(length);
  return password;
}

std::string Short(const KeyBytes& key) {
  return Fingerprint(key.data(), key.size()).substr(0, 7 + 16) + "...";
}

void Expect(bool ok, const std::string& what) {
  if (!ok) throw ToolError(kExitFailure, what);
}

// Runs `step` and returns the exit code of the ToolError it throws; 0 when it throws none.
int ExitCodeOf(const std::function<void()>& step) {
  try {
    step();
  } catch (const ToolError& e) {
    return e.code();
  }
  return kExitOk;
}

void Say(const std::string& line) { printf("       %s\n", line.c_str()); }

void SetFlag(const char* property, bool on) { property_set(property, on ? "true" : ""); }

class Tour {
 public:
  explicit Tour(std::string dir) : dir_(std::move(dir)), file_(dir_ + "/metadata") {}

  struct Step {
    std::string title;
    std::function<void()> run;
  };

  std::vector<Step> Steps() {
    return {
        {"PBKDF2 (kdf 1): a record at offset 8192 of a metadata file", [this] { Pbkdf2(); }},
        {"scrypt (kdf 2): a second record at offset 0 of the same file", [this] { Scrypt(); }},
        {"PBKDF2 with REK (kdf 4): MDFPP mode, the record in secure storage",
         [this] { Pbkdf2Rek(); }},
        {"scrypt bound to Keymaster (kdf 5): an RSA key signs the scrypt output",
         [this] { ScryptKeymaster(); }},
        {"a wrong password is refused", [this] { WrongPassword(); }},
        {"CBC-only mode: a password MAC guards the CBC-wrapped key", [this] { CbcOnly(); }},
        {"REK/KEK flag: a KEK inside the record, under a kek mac", [this] { RekKek(); }},
        {"a password change keeps the master key", [this] { ChangePassword(); }},
        {"a security patch raise: Keymaster keys are upgraded on the way", [this] { Patch(); }},
        {"a record of an older generation is upgraded when it is read", [this] { OldRecord(); }},
        {"KEKs stored, read and deleted", [this] { Keks(); }},
    };
  }

 private:
  // Sets up `place` and unlocks it again; both must give the same master key.
  SetupResult SetupAndUnlock(const Place& place, const Password& password, uint32_t kdf_type) {
    SetupResult created = Setup(place, password, 32, kdf_type, false);
    Expect(created.meta.kdf_type == kdf_type,
           "setup made kdf_type " + std::to_string(created.meta.kdf_type));
    UnlockResult opened = Unlock(place, password);
    Expect(!opened.zero_key, "the key opened only under the all-zero key");
    Expect(opened.master_key == created.master_key, "unlock gave another master key");
    Say("set up " + place.Describe() + " and unlocked it: master key " + Short(opened.master_key));
    return created;
  }

  void Pbkdf2() { SetupAndUnlock(Place{false, file_, 8192}, pin_, KM_KDF_PBKDF2); }

  void Scrypt() {
    SetupResult created = SetupAndUnlock(Place{false, file_, 0}, pin_, KM_KDF_SCRYPT);
    Say("scrypt factors from ro.crypto.scrypt_params: N=2^" +
        std::to_string(created.meta.N_factor) + " r=2^" + std::to_string(created.meta.r_factor) +
        " p=2^" + std::to_string(created.meta.p_factor));
    // The first record, at 8192, is still there and still opens.
    Unlock(Place{false, file_, 8192}, pin_);
  }

  void Pbkdf2Rek() {
    SetFlag(supportMdfpp, true);
    SetupResult created = SetupAndUnlock(userdata_, password_, KM_KDF_PBKDF2_REK);
    Say("its Keymaster AES key blob takes " + std::to_string(created.meta.km_key_blob_size) +
        " bytes of the record");
  }

  void ScryptKeymaster() {
    SetupResult created = SetupAndUnlock(bound_, bound_password_, KM_KDF_SCRYPT_KEYMASTER);
    Say("its RSA-2048 key blob takes " + std::to_string(created.meta.km_key_blob_size) +
        " bytes; the device limits it to one signature a second");
  }

  void WrongPassword() {
    Password wrong = MakePassword("Tr0ub4dor&3");
    Expect(ExitCodeOf([&] { Unlock(userdata_, wrong); }) == kExitWrongPassword,
           "a wrong password was not refused as one");
    Expect(ExitCodeOf([&] {
             Unlock(Place{false, file_, 0}, wrong);
           }) == kExitWrongPassword,
           "a wrong password for the file record was not refused as one");
    Say("the GCM tag does not match under the derived key: exit status 2, nothing changed");
  }

  void CbcOnly() {
    SetFlag(supportCBConly, true);
    Place place{true, "cbc-only", 0};
    SetupAndUnlock(place, password_, KM_KDF_SCRYPT);
    Expect(ExitCodeOf([&] { Unlock(place, pin_); }) == kExitWrongPassword,
           "the password MAC let a wrong password through");
    Say("a wrong password fails the password MAC before anything is unwrapped");
    SetFlag(supportCBConly, false);
  }

  void RekKek() {
    SetFlag(supportRekKek, true);
    Place place{true, "rek-kek", 0};
    SetupResult created = SetupAndUnlock(place, password_, KM_KDF_PBKDF2_REK);
    Expect(created.meta.xtkm_value_size == created.meta.keysize && created.meta.kek_mac_size == 32,
           "the record holds no KEK with a kek mac");
    Say("xtkm_value holds the " + std::to_string(created.meta.xtkm_value_size) +
        "-byte KEK, kek_mac its HMAC-SHA256");
    SetFlag(supportRekKek, false);
  }

  void ChangePassword() {
    Password fresh = MakePassword("correct horse battery staple");
    PasswdResult changed = tavikm_tool::ChangePassword(userdata_, password_, fresh);
    UnlockResult opened = Unlock(userdata_, fresh);
    Expect(opened.master_key == changed.unlocked.master_key,
           "the new password opened another master key");
    Expect(ExitCodeOf([&] { Unlock(userdata_, password_); }) == kExitWrongPassword,
           "the old password still opens the record");
    Say("new salt, same master key " + Short(opened.master_key) + "; the old password is refused");
    password_ = fresh;
  }

  void Patch() {
    uint32_t level = tavikm_host::KeymasterOsPatchlevel();
    property_set("ro.build.version.security_patch", kLaterPatchLevel);
    Say("ro.build.version.security_patch set to " + std::string(kLaterPatchLevel) +
        ": keys are bound to patch level " + std::to_string(tavikm_host::KeymasterOsPatchlevel()) +
        " now, not " + std::to_string(level));
    for (const Place& place : {bound_, userdata_}) {
      const Password& password = place.loc == userdata_.loc ? password_ : bound_password_;
      RawRecord before = ReadRaw(place);
      UnlockResult opened = Unlock(place, password);
      RawRecord after = ReadRaw(place);
      Expect(opened.stored_again || memcmp(before.meta.km_key_blob, after.meta.km_key_blob,
                                           sizeof(before.meta.km_key_blob)) != 0,
             "the Keymaster key of " + place.loc + " was not upgraded");
      Expect(!Unlock(place, password).stored_again,
             "the key of " + place.loc + " was upgraded a second time");
    }
    Say("both Keymaster-bound records opened, their key blobs upgraded and stored again");
  }

  void OldRecord() {
    // A current scrypt record, cut back to the 2520-byte generation that kept its KEK in a
    // separate "<name>_kek" entry.
    Place place{true, "legacy", 0};
    SetupResult created = Setup(place, password_, 32, KM_KDF_SCRYPT, false);
    km_meta old = created.meta;
    old.major_version = 2;
    uint8_t kek[32];
    km_generate_drbg_bytes(nullptr, kek, sizeof(kek));
    kmstore_device* storage = SecureStorage();
    Expect(storage->write("legacy", reinterpret_cast<const uint8_t*>(&old), 2520) == 0 &&
               storage->write("legacy_kek", kek, sizeof(kek)) == 0,
           "cannot write the old-generation entries");
    Say("wrote \"legacy\" as a 2520-byte record of major version 2 and its KEK as \"legacy_kek\"");
    UnlockResult opened = Unlock(place, password_);
    RawRecord now = ReadRaw(place);
    Expect(opened.upgraded_on_read && now.stored_length == KM_META_SIZE &&
               now.meta.major_version == 3 && now.meta.xtkm_value_size == 32,
           "the old record was not brought to the current generation");
    Expect(!ReadRaw(Place{true, "legacy_kek", 0}).found, "the old KEK entry is still there");
    Expect(opened.master_key == created.master_key, "the upgraded record opened another key");
    Say("read back as 2704 bytes, major version 3, the KEK inside; \"legacy_kek\" removed");
  }

  void Keks() {
    KeyBytes kek;
    kek.set_size(32);
    km_generate_drbg_bytes(nullptr, kek.data(), kek.size());
    PutKek("demo-kek", kek, false);
    bool asked_twice = false;
    Expect(GetKek("demo-kek", &asked_twice) == kek, "the KEK read back differs");
    DeleteKek("demo-kek");
    Expect(ExitCodeOf([&] { GetKek("demo-kek", &asked_twice); }) == kExitNotFound,
           "the deleted KEK is still there");
    Say("\"demo-kek\" " + Short(kek) + " stored, read back equal, deleted");
  }

  std::string dir_;
  std::string file_;
  Password pin_ = MakePassword("1234");
  // userdata's password; it changes on the way.
  Password password_ = MakePassword("an old password");
  Password bound_password_ = MakePassword("a bound password");
  Place userdata_{true, "userdata", 0};
  Place bound_{true, "scrypt-bound", 0};
};

}  // namespace

int RunDemo(const Invocation& in) {
  bool keep = in.Flag("--keep");
  const Globals& globals = in.globals();
  if (globals.device_dir_given) {
    throw UsageError("demo makes its own device directory; --device-dir does not apply");
  }

  std::string dir = std::filesystem::temp_directory_path().string() + "/tavikm-demo-XXXXXX";
  if (!mkdtemp(dir.data())) {
    throw ToolError(kExitFailure,
                    std::string("cannot make a device directory: ") + strerror(errno));
  }
  setenv("TAVIKM_DEVICE_DIR", dir.c_str(), 1);
  // The demo's files are thrown away with it, and so are their journals.
  setenv("TAVIKM_JOURNAL_DIR", (dir + "/journal").c_str(), 1);
  tavikm_host::ResetProperties();
  property_set("ro.crypto.scrypt_params", kDemoScryptParams);
  ApplyProps(globals.props);
  SetLogFile([dir] { return dir + "/log.txt"; });

  char params[PROPERTY_VALUE_MAX];
  property_get("ro.crypto.scrypt_params", params, "");
  printf("tavikm demo in %s (scrypt parameters %s)\n", dir.c_str(), params);
  Tour tour(dir);
  std::vector<Tour::Step> steps = tour.Steps();
  for (size_t i = 0; i < steps.size(); ++i) {
    printf("[%zu/%zu] %s\n", i + 1, steps.size(), steps[i].title.c_str());
    fflush(stdout);
    try {
      steps[i].run();
    } catch (const std::exception& e) {
      fflush(stdout);
      fprintf(stderr, "tavikm: demo step %zu (%s) failed: %s; the device directory %s is kept\n",
              i + 1, steps[i].title.c_str(), e.what(), dir.c_str());
      return kExitFailure;
    }
  }
  if (keep) {
    printf("demo: the device directory %s is kept\n", dir.c_str());
  } else {
    std::error_code ec;
    std::filesystem::remove_all(dir, ec);
  }
  printf("demo: all %zu steps passed\n", steps.size());
  return kExitOk;
}

}  // namespace tavikm_tool
