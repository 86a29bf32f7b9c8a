// SPDX-License-Identifier: Apache-2.0
// The REK/KEK store: KEKs by name in secure storage, protected by Keymaster 4.0 object encryption
// or, in CBC-only mode, by the legacy Keymaster path and a kek mac.
#include <cutils/properties.h>
#include <errno.h>
#include <gtest/gtest.h>
#include <string.h>
#include <unistd.h>

#include <algorithm>
#include <functional>
#include <string>
#include <vector>

#include "support/device_env.h"
#include "support/expected_leak.h"
#include "support/scripted_kmstore.h"
#include "support/virtual_time.h"
#include "tavikm.h"
#include "tavikm_host/keymaster.h"
#include "tavikm_host/keymaster_faults.h"
#include "tavikm_host/kmstore.h"

namespace tavikm_test {
namespace {

std::vector<uint8_t> Pattern(size_t n, uint8_t seed) {
  std::vector<uint8_t> bytes(n);
  for (size_t i = 0; i < n; ++i) bytes[i] = static_cast<uint8_t>(seed + 7 * i);
  return bytes;
}

class RekStoreBase : public DeviceTest {
 protected:
  std::string EntryPath(const std::string& name) {
    return device_.Path("kmstore/" + tavikm_host::KmstoreEntryFileName(name));
  }
  VirtualKeymasterTime time_;
};

class RekStoreTest : public RekStoreBase, public ::testing::WithParamInterface<bool> {
 protected:
  void SetUp() override {
    property_set("ro.product.tavi.support_cbc_only", GetParam() ? "true" : "");
  }
};

TEST_P(RekStoreTest, PutGetDeleteByName) {
  std::vector<uint8_t> kek = Pattern(32, 1);
  ASSERT_EQ(km_put_kek_enc_by_rek("disk_kek", kek.data(), kek.size()), 0);
  // Always in secure storage, whatever the MDFPP flag says.
  EXPECT_EQ(ReadFile(EntryPath("disk_kek")).size(), size_t{KM_META_SIZE});
  EXPECT_EQ(km_delete_kek_enc_by_rek("disk_kek"), 0);
  EXPECT_EQ(km_delete_kek_enc_by_rek("disk_kek"), 0);

  uint8_t out[64];
  memset(out, 0xEE, sizeof(out));
  uint64_t out_len = 12345;
  log_.Clear();
  EXPECT_EQ(km_get_kek_enc_by_rek("disk_kek", out, &out_len), 1);
  EXPECT_EQ(out_len, 12345u);
  EXPECT_EQ(out[0], 0xEE);
  EXPECT_EQ(log_.Lines(), std::vector<LogLine>{
                              LogLine::Info("NO key from Secure Storage: key_name = disk_kek\n")});
}

// A KEK is kept only if it comes back whole: up to 48 bytes beside its GCM tag, up to 32 bytes
// through the legacy path. Anything else is refused before a key is made or anything written.
TEST_P(RekStoreTest, KekLengthLimits) {
  const bool cbc_only = GetParam();
  const size_t limit = cbc_only ? KM_KEK_MAX_SIZE_CBC : KM_KEK_MAX_SIZE_GCM;
  for (size_t len : {size_t{0}, size_t{16}, size_t{32}, size_t{48}, size_t{49}, size_t{64}}) {
    SCOPED_TRACE(len);
    const std::string name = "kek_" + std::to_string(len);
    std::vector<uint8_t> kek = Pattern(64, static_cast<uint8_t>(len));
    kek.resize(len);
    const int keys_made = tavikm_host::KeymasterCallCount(tavikm_host::KeymasterCall::kGenerateKey);
    log_.Clear();
    if (len == 0 || len > limit) {
      EXPECT_EQ(km_put_kek_enc_by_rek(name.c_str(), kek.data(), len), -1);
      EXPECT_EQ(log_.Lines(), std::vector<LogLine>{LogLine::Error(
                                  "km_put_kek_enc_by_rek::kek_len " + std::to_string(len) +
                                  " is too large(for " + (cbc_only ? "CBC" : "GCM") + ")\n")});
      EXPECT_EQ(tavikm_host::KeymasterCallCount(tavikm_host::KeymasterCall::kGenerateKey),
                keys_made);
      EXPECT_NE(access(EntryPath(name).c_str(), F_OK), 0);
      continue;
    }
    ASSERT_EQ(km_put_kek_enc_by_rek(name.c_str(), kek.data(), len), 0);
    uint8_t out[64] = {};
    uint64_t out_len = 0;
    ASSERT_EQ(km_get_kek_enc_by_rek(name.c_str(), out, &out_len), 0);
    EXPECT_EQ(std::vector<uint8_t>(out, out + out_len), kek);
  }
}

TEST_P(RekStoreTest, NullNamesAreRefused) {
  uint8_t kek[32] = {};
  uint64_t len = 0;
  EXPECT_EQ(km_put_kek_enc_by_rek(nullptr, kek, 32), -1);
  EXPECT_EQ(km_get_kek_enc_by_rek(nullptr, kek, &len), -1);
  EXPECT_EQ(km_delete_kek_enc_by_rek(nullptr), -1);
  EXPECT_EQ(log_.Lines(),
            (std::vector<LogLine>{
                LogLine::Error("km_put_kek_enc_by_rek::Failed, key_name is NULL! \n"),
                LogLine::Error("km_get_kek_enc_by_rek::Failed, key_name is NULL! \n"),
                LogLine::Error("km_delete_kek_enc_by_rek::Failed, key_name is NULL! \n"),
            }));
}

INSTANTIATE_TEST_SUITE_P(BothBranches, RekStoreTest, ::testing::Bool(),
                         [](const ::testing::TestParamInfo<bool>& info) {
                           return info.param ? "CbcOnly" : "Keymaster4";
                         });

// In CBC-only mode the kek mac catches a changed XTKM value before anything is decrypted. (With
// Keymaster 4.0 the GCM tag catches it at finish, which the object-decryption tests cover.)
TEST_F(RekStoreBase, CbcOnlyAChangedXtkmValueFailsTheMac) {
  property_set("ro.product.tavi.support_cbc_only", "true");
  std::vector<uint8_t> kek(32, 0x42);
  ASSERT_EQ(km_put_kek_enc_by_rek("tampered", kek.data(), kek.size()), 0);
  std::vector<uint8_t> entry = ReadFile(EntryPath("tampered"));
  entry[offsetof(km_meta, xtkm_value) + 3] ^= 0x01;
  WriteFile(EntryPath("tampered"), entry);

  uint8_t out[64] = {};
  uint64_t out_len = 0;
  log_.Clear();
  EXPECT_EQ(km_get_kek_enc_by_rek("tampered", out, &out_len), -1);
  std::vector<std::string> texts = log_.Texts();
  ASSERT_FALSE(texts.empty());
  EXPECT_EQ(texts.back(), "Failed to verify tampered_mac");
  EXPECT_EQ(out_len, 0u);
}

using tavikm_host::KeymasterCall;
using tavikm_host::KeymasterCallCount;

constexpr char kNewerPatch[] = "2027-02-05";

// From the next Keymaster enumeration after the first key was made, the system carries a newer
// patch level: a put meets a key that needs an upgrade between making and using it.
void RaisePatchLevelAfterKeyGeneration() {
  const int made_before = KeymasterCallCount(KeymasterCall::kGenerateKey);
  tavikm_host::SetKeymasterDeviceFactory([made_before] {
    if (KeymasterCallCount(KeymasterCall::kGenerateKey) > made_before) {
      property_set("ro.build.version.security_patch", kNewerPatch);
    }
    android::hardware::keymaster::V4_0::support::Keymaster::KeymasterSet set;
    set.push_back(tavikm_host::MakeSoftKeymaster(1, "default"));  // TRUSTED_ENVIRONMENT
    return set;
  });
}

class RekStoreUpgradeTest : public RekStoreBase {
 protected:
  void TearDown() override { tavikm_host::SetKeymasterDeviceFactory({}); }
  ScopedKmstoreScript script_;
};

// An upgraded KEK record goes back to its secure-storage entry whatever the MDFPP flag says:
// never to a file named after the KEK, and the next get gives the KEK.
TEST_F(RekStoreUpgradeTest, AnUpgradedRecordGoesBackToItsEntry) {
  constexpr char kName[] = "rek_upgrade_kek";
  struct Case {
    const char* name;
    bool mdfpp;
    bool upgrade_in_put;
  };
  for (const Case& c : {Case{"get, MDFPP unset", false, false}, Case{"get, MDFPP set", true, false},
                        Case{"put, MDFPP unset", false, true}}) {
    SCOPED_TRACE(c.name);
    property_set("ro.product.tavi.support_mdfpp", c.mdfpp ? "true" : "");
    property_set("ro.build.version.security_patch", "");
    std::vector<std::string> writes;
    script_->write = [&](const char* name, const uint8_t* data, uint64_t length) {
      writes.push_back(name);
      return BuiltinKmstoreWrite(name, data, length);
    };
    const std::vector<uint8_t> kek = Pattern(32, 0x30);
    if (c.upgrade_in_put) RaisePatchLevelAfterKeyGeneration();
    ASSERT_EQ(km_put_kek_enc_by_rek(kName, kek.data(), kek.size()), 0);
    tavikm_host::SetKeymasterDeviceFactory({});
    uint8_t out[64];
    uint64_t out_len = 99;
    if (c.upgrade_in_put) {
      // The upgraded record, then the finished one.
      EXPECT_EQ(writes, (std::vector<std::string>{kName, kName}));
    } else {
      const std::vector<uint8_t> before = ReadFile(EntryPath(kName));
      property_set("ro.build.version.security_patch", kNewerPatch);
      memset(out, 0xAB, sizeof(out));
      ASSERT_EQ(km_get_kek_enc_by_rek(kName, out, &out_len), 0);
      EXPECT_EQ(out_len, 0u);
      EXPECT_EQ(out[0], 0xAB);
      EXPECT_NE(ReadFile(EntryPath(kName)), before);
    }
    EXPECT_NE(access(kName, F_OK), 0) << "a file named after the KEK in the working directory";
    ASSERT_EQ(km_get_kek_enc_by_rek(kName, out, &out_len), 0);
    ASSERT_EQ(out_len, kek.size());
    EXPECT_EQ(std::vector<uint8_t>(out, out + out_len), kek);
    EXPECT_EQ(km_delete_kek_enc_by_rek(kName), 0);
  }
}

// A kdf 4 record read from another offset of a metadata file meets a key upgrade: the KDF must
// not write it over the different record at offset 0, and the unlock still succeeds.
TEST_F(RekStoreUpgradeTest, Pbkdf2RekLeavesAnotherRecordAtOffsetZeroAlone) {
  const std::string file = device_.Path("metadata");
  uint8_t master_key[32];
  km_meta meta;
  ASSERT_EQ(km_initial_setup(file.c_str(), "first", 5, master_key, 32, KM_KDF_PBKDF2_REK, &meta),
            0);
  ASSERT_EQ(km_put_km_meta(file.c_str(), 8192, &meta), 0);
  uint8_t other_key[32];
  ASSERT_EQ(km_initial_setup(file.c_str(), "second", 6, other_key, 32, KM_KDF_PBKDF2_REK, &meta),
            0);
  const std::vector<uint8_t> before = ReadFile(file);
  property_set("ro.build.version.security_patch", kNewerPatch);

  km_meta record;
  ASSERT_EQ(km_get_km_meta(file.c_str(), 8192, &record), 0);
  log_.Clear();
  uint8_t unwrapped[32];
  ASSERT_EQ(km_decrypt_key("first", 5, record.salt, record.master_key, unwrapped, &record), 0);
  EXPECT_EQ(memcmp(unwrapped, master_key, sizeof(master_key)), 0);
  EXPECT_EQ(ReadFile(file), before);
  const std::vector<std::string> texts = log_.Texts();
  EXPECT_NE(std::find(texts.begin(), texts.end(),
                      "Upgraded key of " + file + " not stored: another record at offset 0"),
            texts.end());
}

// The KDF hands out the KEK's whole ciphertext, tag included, and nothing past it.
TEST_F(RekStoreUpgradeTest, Pbkdf2RekHandsOutCiphertextAndTag) {
  const std::string file = device_.Path("metadata");
  uint8_t master_key[32];
  km_meta meta;
  ASSERT_EQ(km_initial_setup(file.c_str(), "pw", 2, master_key, 32, KM_KDF_PBKDF2_REK, &meta), 0);
  uint8_t ikey[64];
  memset(ikey, 0xAB, sizeof(ikey));
  ASSERT_EQ(km_pbkdf2_rek("pw", 2, meta.salt, ikey, &meta), 0);
  EXPECT_NE(std::vector<uint8_t>(ikey + 32, ikey + 48), std::vector<uint8_t>(16, 0xAB));
  EXPECT_EQ(std::vector<uint8_t>(ikey + 48, ikey + 64), std::vector<uint8_t>(16, 0xAB));
}

// The failures of the store that only a faulty device shows.
TEST_F(RekStoreUpgradeTest, DeviceFaults) {
  constexpr char kName[] = "k";
  const std::vector<uint8_t> kek = Pattern(32, 0x50);
  uint8_t out[64];
  uint64_t out_len;
  auto put = [&] { return km_put_kek_enc_by_rek(kName, kek.data(), kek.size()); };
  auto get = [&] {
    memset(out, 0xEE, sizeof(out));
    out_len = 77;
    return km_get_kek_enc_by_rek(kName, out, &out_len);
  };
  auto fail_writes = [&] {
    script_->write = [](const char*, const uint8_t*, uint64_t) { return -1; };
  };
  const std::vector<std::string> kWriteUpgradeFails = {
      "Filed to store metadata to TZ Secure Storage\n", "Failed to write upgraded km_meta\n"};
  struct Case {
    const char* name;
    std::function<void()> arrange;  // runs before the log is cleared
    std::function<int()> act;
    bool act_is_get;
    bool leaks;
    int rc;
    std::vector<std::string> last_lines;
  };
  const Case cases[] = {
      {"upgrade during a put, write fails",
       [&] {
         RaisePatchLevelAfterKeyGeneration();
         fail_writes();
       },
       put, false, false, -1, kWriteUpgradeFails},
      // Only -2 leads to an upgrade; any other failure ends the put.
      {"encryption fails during a put",
       [&] {
         tavikm_host::FailKeymasterCall(
             tavikm_host::KeymasterCall::kBegin, 1,
             android::hardware::keymaster::V4_0::ErrorCode::INCOMPATIBLE_PADDING_MODE);
       },
       put,
       false,
       false,
       -1,
       {"km_put_kek_enc_by_rek : Failed to encrypt KEK by keymaster, rc=-1",
        "In addition, Not case of upgrading"}},
      {"upgrade during a get, write fails",
       [&] {
         ASSERT_EQ(put(), 0);
         property_set("ro.build.version.security_patch", kNewerPatch);
         fail_writes();
       },
       get, true, true, -1, kWriteUpgradeFails},
      {"read fails",
       [&] { script_->read = [](const char*, uint8_t*, uint64_t*) { return -1; }; },
       get,
       true,
       false,
       -1,
       {"Failed to read a key encrypted by rek from Secure Storage: key_name = k\n"}},
      {"delete answers 2",
       [&] {
         script_->remove = [](const char*) {
           errno = EIO;
           return 2;
         };
       },
       [&] { return km_delete_kek_enc_by_rek(kName); },
       false,
       false,
       0,
       {"Remove KEK:Unknown Error::Input/output error"}},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    property_set("ro.build.version.security_patch", "");
    c.arrange();
    log_.Clear();
    EXPECT_EQ(c.leaks ? WithExpectedLeak(c.act) : c.act(), c.rc);
    std::vector<std::string> texts = log_.Texts();
    ASSERT_GE(texts.size(), c.last_lines.size());
    EXPECT_EQ(std::vector<std::string>(texts.end() - c.last_lines.size(), texts.end()),
              c.last_lines);
    if (c.act_is_get) {
      EXPECT_EQ(out[0], 0xEE);  // nothing handed out
      EXPECT_EQ(out_len, 77u);
    }
    kmstore_script() = {};
    tavikm_host::SetKeymasterDeviceFactory({});
    BuiltinKmstoreRemove(kName);
  }
}

// Every length a stored record carries is checked once before anything of the record reaches
// the Keymaster: at its bound the get goes on to the Keymaster, one past it (or absurd) the get
// fails with its own message without a Keymaster call.
TEST_F(RekStoreUpgradeTest, CorruptRecordsAreRefusedBeforeTheKeymaster) {
  const std::vector<uint8_t> kek = Pattern(32, 0x70);
  ASSERT_EQ(km_put_kek_enc_by_rek("view", kek.data(), kek.size()), 0);
  km_meta stored;
  const std::vector<uint8_t> entry = ReadFile(EntryPath("view"));
  ASSERT_EQ(entry.size(), sizeof(stored));
  memcpy(&stored, entry.data(), sizeof(stored));

  auto name_of = [](size_t length) {
    return [length](km_meta* m) {
      memset(m->key_name, 'n', sizeof(m->key_name));
      if (length < sizeof(m->key_name)) m->key_name[length] = '\0';
    };
  };
  constexpr uint64_t kAbsurd = ~uint64_t{0};
  struct Case {
    const char* name;
    std::function<void(km_meta*)> corrupt;
    bool refused;
  };
  const Case cases[] = {
      {"keysize 64", [](km_meta* m) { m->keysize = 64; }, false},
      {"keysize 65", [](km_meta* m) { m->keysize = 65; }, true},
      {"keysize absurd", [&](km_meta* m) { m->keysize = kAbsurd; }, true},
      {"key blob 2048", [](km_meta* m) { m->km_key_blob_size = 2048; }, false},
      {"key blob 2049", [](km_meta* m) { m->km_key_blob_size = 2049; }, true},
      {"key blob absurd", [&](km_meta* m) { m->km_key_blob_size = kAbsurd; }, true},
      {"key_name 255", name_of(255), false},
      {"key_name without NUL", name_of(256), true},
      {"xtkm_value_size 184", [](km_meta* m) { m->xtkm_value_size = 184; }, false},
      {"xtkm_value_size 185", [](km_meta* m) { m->xtkm_value_size = 185; }, true},
      {"xtkm_value_size absurd", [&](km_meta* m) { m->xtkm_value_size = kAbsurd; }, true},
      {"kek_mac_size 32", [](km_meta* m) { m->kek_mac_size = 32; }, false},
      {"kek_mac_size 33", [](km_meta* m) { m->kek_mac_size = 33; }, true},
      {"kek_mac_size absurd", [](km_meta* m) { m->kek_mac_size = ~uint32_t{0}; }, true},
      {"mac_key_size 64", [](km_meta* m) { m->mac_key_size = 64; }, false},
      {"mac_key_size 65", [](km_meta* m) { m->mac_key_size = 65; }, true},
      {"mac_key_size absurd", [&](km_meta* m) { m->mac_key_size = kAbsurd; }, true},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    km_meta corrupt = stored;
    c.corrupt(&corrupt);
    const uint8_t* bytes = reinterpret_cast<const uint8_t*>(&corrupt);
    WriteFile(EntryPath("view"), std::vector<uint8_t>(bytes, bytes + sizeof(corrupt)));
    const int begins = KeymasterCallCount(KeymasterCall::kBegin);
    uint8_t out[64];
    uint64_t out_len = 0;
    log_.Clear();
    const int rc = WithExpectedLeak([&] { return km_get_kek_enc_by_rek("view", out, &out_len); });
    EXPECT_EQ(KeymasterCallCount(KeymasterCall::kBegin) > begins, !c.refused);
    if (c.refused) {
      EXPECT_EQ(rc, -1);
      ASSERT_FALSE(log_.Texts().empty());
      EXPECT_EQ(log_.Texts().back(), "Failed to decrypt KEK by keymaster");
    }
  }
}

// A KEK name the get would refuse (one that fills the record's field without a NUL) is refused
// by the put too, with one line and nothing stored; even a name longer than the record.
TEST_F(RekStoreUpgradeTest, PutRefusesNamesTheGetWouldRefuse) {
  const std::vector<uint8_t> kek = Pattern(32, 0x11);
  const std::string longest(255, 'n');
  ASSERT_EQ(km_put_kek_enc_by_rek(longest.c_str(), kek.data(), kek.size()), 0);
  uint8_t out[64];
  uint64_t out_len = 0;
  ASSERT_EQ(km_get_kek_enc_by_rek(longest.c_str(), out, &out_len), 0);
  EXPECT_EQ(std::vector<uint8_t>(out, out + out_len), kek);
  for (size_t length : {size_t{256}, size_t{440}, size_t{441}, size_t{4000}}) {
    SCOPED_TRACE(length);
    const std::string name(length, 'n');
    const int keys_made = KeymasterCallCount(KeymasterCall::kGenerateKey);
    log_.Clear();
    EXPECT_EQ(km_put_kek_enc_by_rek(name.c_str(), kek.data(), kek.size()), -1);
    EXPECT_EQ(log_.Lines(), std::vector<LogLine>{
                                LogLine::Error("km_put_kek_enc_by_rek::Failed, key_name of " +
                                               std::to_string(length) + " bytes is too long! \n")});
    EXPECT_EQ(KeymasterCallCount(KeymasterCall::kGenerateKey), keys_made);
    EXPECT_NE(access(EntryPath(name.substr(0, 200)).c_str(), F_OK), 0);
  }
}

// A record is stored back where it was read, whatever name its bytes carry: a kdf 4 record
// restored under another entry, or copied from a metadata file into secure storage, meets a key
// upgrade during its unlock. The upgrade goes to the entry it was read from; the entry or file
// its stored name gives stays as it was.
TEST_F(RekStoreUpgradeTest, AnUpgradeDuringUnlockGoesWhereTheRecordWasRead) {
  const std::string file = device_.Path("metadata");
  struct Case {
    const char* name;
    std::string created_at;  // where setup stored the record (its key_name)
  };
  for (const Case& c :
       {Case{"restored under another entry", "userdata"}, Case{"copied from a file", file}}) {
    SCOPED_TRACE(c.name);
    property_set("ro.product.tavi.support_mdfpp", "true");
    property_set("ro.build.version.security_patch", "");
    uint8_t master_key[32];
    km_meta meta;
    ASSERT_EQ(
        km_initial_setup(c.created_at.c_str(), "pw", 2, master_key, 32, KM_KDF_PBKDF2_REK, &meta),
        0);
    const std::string original_path =
        c.created_at[0] == '/' ? c.created_at : EntryPath(c.created_at);
    const std::vector<uint8_t> original = ReadFile(original_path);
    const std::vector<uint8_t> image(original.begin(), original.begin() + sizeof(km_meta));
    WriteFile(EntryPath("userdata2"), image);
    property_set("ro.build.version.security_patch", kNewerPatch);

    const int upgrades = KeymasterCallCount(KeymasterCall::kUpgradeKey);
    km_meta record;
    ASSERT_EQ(km_get_km_meta("userdata2", 0, &record), 0);
    uint8_t unwrapped[32];
    ASSERT_EQ(km_decrypt_key("pw", 2, record.salt, record.master_key, unwrapped, &record), 0);
    EXPECT_EQ(memcmp(unwrapped, master_key, sizeof(master_key)), 0);
    ASSERT_EQ(KeymasterCallCount(KeymasterCall::kUpgradeKey), upgrades + 1);
    EXPECT_EQ(ReadFile(original_path), original);
    const std::vector<uint8_t> stored = ReadFile(EntryPath("userdata2"));
    ASSERT_EQ(stored.size(), sizeof(km_meta));
    km_meta stored_record;
    memcpy(&stored_record, stored.data(), sizeof(stored_record));
    EXPECT_EQ(stored_record.km_key_blob_size, record.km_key_blob_size);
    EXPECT_EQ(memcmp(stored_record.km_key_blob, record.km_key_blob, sizeof(record.km_key_blob)), 0);

    // Stored for good: the next unlock needs no upgrade.
    ASSERT_EQ(km_get_km_meta("userdata2", 0, &record), 0);
    ASSERT_EQ(km_decrypt_key("pw", 2, record.salt, record.master_key, unwrapped, &record), 0);
    EXPECT_EQ(KeymasterCallCount(KeymasterCall::kUpgradeKey), upgrades + 1);
    EXPECT_EQ(km_delete_meta("userdata2", 0), 0);
  }
}

// A record whose place the library never saw (bytes the caller got elsewhere) is upgraded in
// the caller's memory only: nothing is written, not even to the place its name gives.
TEST_F(RekStoreUpgradeTest, AnUpgradeOfARecordFromNowhereIsLeftToTheCaller) {
  property_set("ro.product.tavi.support_mdfpp", "true");
  uint8_t master_key[32];
  km_meta meta;
  ASSERT_EQ(km_initial_setup("userdata", "pw", 2, master_key, 32, KM_KDF_PBKDF2_REK, &meta), 0);
  const std::vector<uint8_t> original = ReadFile(EntryPath("userdata"));
  km_meta record;
  memcpy(&record, original.data(), sizeof(record));
  // Another record now has the place the library last saw this one at.
  uint8_t other_key[32];
  ASSERT_EQ(km_initial_setup("userdata", "pw", 2, other_key, 32, KM_KDF_PBKDF2_REK, &meta), 0);
  const std::vector<uint8_t> other = ReadFile(EntryPath("userdata"));
  property_set("ro.build.version.security_patch", kNewerPatch);
  log_.Clear();
  uint8_t unwrapped[32];
  ASSERT_EQ(km_decrypt_key("pw", 2, record.salt, record.master_key, unwrapped, &record), 0);
  EXPECT_EQ(memcmp(unwrapped, master_key, sizeof(master_key)), 0);
  EXPECT_EQ(ReadFile(EntryPath("userdata")), other);
  const std::vector<std::string> texts = log_.Texts();
  EXPECT_NE(std::find(texts.begin(), texts.end(),
                      "Upgraded key not stored: the record's place is unknown"),
            texts.end());
}

TEST_F(RekStoreUpgradeTest, InitForRekSetsTheHeaderWithoutClearing) {
  km_meta meta;
  memset(&meta, 0x5C, sizeof(meta));
  ASSERT_EQ(km_init_km_meta_enc_by_rek(&meta, "name", 16), 0);
  EXPECT_EQ(meta.magic, KM_META_MAGIC);
  EXPECT_EQ(meta.major_version, 3);
  EXPECT_EQ(meta.minor_version, 0);
  EXPECT_EQ(meta.keysize, 16u);
  EXPECT_EQ(std::string(meta.key_name, 4), "name");
  EXPECT_EQ(static_cast<uint8_t>(meta.key_name[4]), 0x5C);  // not NUL-terminated by this call
  EXPECT_EQ(meta.salt[0], 0x5C);
  EXPECT_EQ(km_init_km_meta_enc_by_rek(&meta, nullptr, 16), -1);
}

}  // namespace
}  // namespace tavikm_test
