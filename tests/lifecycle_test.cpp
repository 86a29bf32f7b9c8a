// SPDX-License-Identifier: Apache-2.0
// The roads of a key location, end to end on the host platform: setup, unlock as the
// storage-encryption service does it, a wrong password, and a Keymaster upgrade on the way,
// for every KDF and every combination of the three feature flags.
#include <cutils/properties.h>
#include <gtest/gtest.h>
#include <string.h>

#include <algorithm>
#include <string>
#include <tuple>
#include <vector>

#include "support/device_env.h"
#include "support/virtual_time.h"
#include "tavikm.h"
#include "tavikm_host/keymaster_faults.h"

namespace tavikm_test {
namespace {

constexpr char kPassword[] = "correct horse battery staple";
constexpr char kWrongPassword[] = "correct horse battery stapler";
constexpr uint64_t kKeysize = 32;

struct Flags {
  bool mdfpp;
  bool cbc_only;
  bool rek_kek;
};

std::string FlagsName(const Flags& f) {
  std::string name;
  name += f.mdfpp ? "Mdfpp" : "NoMdfpp";
  name += f.cbc_only ? "CbcOnly" : "Gcm";
  name += f.rek_kek ? "RekKek" : "NoRekKek";
  return name;
}

using Road = std::tuple<Flags, int /*kdf_type*/>;

class LifecycleTest : public DeviceTest, public ::testing::WithParamInterface<Road> {
 protected:
  void SetUp() override {
    const Flags& flags = std::get<0>(GetParam());
    property_set("ro.product.tavi.support_mdfpp", flags.mdfpp ? "true" : "");
    property_set("ro.product.tavi.support_cbc_only", flags.cbc_only ? "true" : "");
    property_set("ro.product.tavi.support_rek_kek", flags.rek_kek ? "true" : "");
    // Small scrypt costs keep the suite quick; the KDF's own tests use the real defaults.
    property_set("ro.crypto.scrypt_params", "10:3:0");
    key_loc_ = flags.mdfpp ? "userdata" : device_.Path("metadata");
  }

  bool CbcOnly() const { return std::get<0>(GetParam()).cbc_only; }

  // Unlocks as the service does: in CBC-only mode the password MAC is checked first.
  // Returns the result of the first step that refused, or km_decrypt_key's result.
  int Unlock(const char* password, km_meta* meta, uint8_t* master_key) {
    if (CbcOnly()) {
      uint8_t mac[32];
      int rc = km_get_key_mac_by_password(meta->master_key, meta->salt, password, strlen(password),
                                          mac, meta);
      if (rc != 0) return rc;
      rc = km_verify_key_mac(meta->key_mac, mac);
      if (rc != 0) return rc;
    }
    return km_decrypt_key(password, strlen(password), meta->salt, meta->master_key, master_key,
                          meta);
  }

  std::string key_loc_;
  VirtualKeymasterTime time_;
};

TEST_P(LifecycleTest, SetupThenUnlockYieldsTheSameMasterKey) {
  const int kdf_type = std::get<1>(GetParam());
  uint8_t master_key[kKeysize] = {};
  km_meta meta;
  ASSERT_EQ(km_initial_setup(key_loc_.c_str(), kPassword, strlen(kPassword), master_key, kKeysize,
                             kdf_type, &meta),
            0);
  EXPECT_EQ(meta.major_version, 3);
  EXPECT_NE(meta.kdf_type, 0);

  km_meta stored;
  ASSERT_EQ(km_get_km_meta(key_loc_.c_str(), 0, &stored), 0);
  EXPECT_EQ(memcmp(&stored, &meta, sizeof(meta)), 0);

  uint8_t unwrapped[kKeysize] = {};
  ASSERT_EQ(Unlock(kPassword, &stored, unwrapped), 0);
  EXPECT_EQ(memcmp(unwrapped, master_key, kKeysize), 0);

  // A wrong password: the GCM tag refuses it, or in CBC-only mode the password MAC does.
  km_meta again;
  ASSERT_EQ(km_get_km_meta(key_loc_.c_str(), 0, &again), 0);
  uint8_t wrong[kKeysize] = {};
  EXPECT_EQ(Unlock(kWrongPassword, &again, wrong), -1);
}

// A system update between setup and unlock: the Keymaster key bound to the old patch level is
// upgraded on the way, and the master key is the same.
class KeyUpgradeRoadTest : public DeviceTest {
 protected:
  void SetUp() override { property_set("ro.crypto.scrypt_params", "10:3:0"); }

  static void RaisePatchLevel() { property_set("ro.build.version.security_patch", "2027-02-05"); }

  static int Upgrades() {
    return tavikm_host::KeymasterCallCount(tavikm_host::KeymasterCall::kUpgradeKey);
  }

  VirtualKeymasterTime time_;
};

// Type 5 upgrades in the caller's record only (scrypt_keymaster_test.cpp; the failing upgrade
// below also ends in one). Type 4 stores the upgraded record itself, under its key name.
TEST_F(KeyUpgradeRoadTest, ThePbkdf2RekKeyIsUpgradedAndStoredOnTheWay) {
  property_set("ro.product.tavi.support_mdfpp", "true");
  uint8_t master_key[kKeysize];
  km_meta meta;
  ASSERT_EQ(km_initial_setup("userdata", kPassword, strlen(kPassword), master_key, kKeysize,
                             KM_KDF_DEFAULT, &meta),
            0);
  ASSERT_EQ(meta.kdf_type, KM_KDF_PBKDF2_REK);
  RaisePatchLevel();

  km_meta record;
  ASSERT_EQ(km_get_km_meta("userdata", 0, &record), 0);
  uint8_t unwrapped[kKeysize];
  ASSERT_EQ(km_decrypt_key(kPassword, strlen(kPassword), record.salt, record.master_key, unwrapped,
                           &record),
            0);
  EXPECT_EQ(memcmp(unwrapped, master_key, kKeysize), 0);
  EXPECT_EQ(Upgrades(), 1);
  std::vector<LogLine> upgrade_lines;
  for (const LogLine& line : log_.Lines()) {
    if (line.text == "NEED TO UPGRADE KEY\n" || line.text == "Write upgraded Key successfully")
      upgrade_lines.push_back(line);
  }
  EXPECT_EQ(upgrade_lines,
            (std::vector<LogLine>{LogLine::Info("NEED TO UPGRADE KEY\n"),
                                  LogLine::Info("Write upgraded Key successfully")}));

  // The KDF stored the upgraded record itself, under the record's key name.
  km_meta stored;
  ASSERT_EQ(km_get_km_meta("userdata", 0, &stored), 0);
  EXPECT_EQ(stored.km_key_blob_size, record.km_key_blob_size);
  EXPECT_EQ(memcmp(stored.km_key_blob, record.km_key_blob, record.km_key_blob_size), 0);
  ASSERT_EQ(km_decrypt_key(kPassword, strlen(kPassword), stored.salt, stored.master_key, unwrapped,
                           &stored),
            0);
  EXPECT_EQ(memcmp(unwrapped, master_key, kKeysize), 0);
  EXPECT_EQ(Upgrades(), 1);
}

// A device that answers KEY_REQUIRES_UPGRADE at begin and then "nothing to do" (OK, no blob) at
// upgradeKey: the unlock fails, and neither the record in memory nor the stored one loses its
// Keymaster key, so the next unlock, on a device that does upgrade, still opens the disk.
TEST_F(KeyUpgradeRoadTest, AnUpgradeWithoutABlobFailsTheUnlockButKeepsTheKey) {
  struct Case {
    int kdf;
    const char* mdfpp;
    std::string key_loc;
  };
  const Case cases[] = {
      {KM_KDF_SCRYPT_KEYMASTER, "", device_.Path("metadata")},
      {KM_KDF_PBKDF2_REK, "true", "userdata"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.kdf);
    property_set("ro.product.tavi.support_mdfpp", c.mdfpp);
    property_set("ro.build.version.security_patch", "2026-11-05");
    uint8_t master_key[kKeysize];
    km_meta meta;
    ASSERT_EQ(km_initial_setup(c.key_loc.c_str(), kPassword, strlen(kPassword), master_key,
                               kKeysize, c.kdf, &meta),
              0);
    RaisePatchLevel();
    km_meta record;
    ASSERT_EQ(km_get_km_meta(c.key_loc.c_str(), 0, &record), 0);
    const km_meta read = record;

    tavikm_host::FailKeymasterCall(tavikm_host::KeymasterCall::kUpgradeKey, 1,
                                   android::hardware::keymaster::V4_0::ErrorCode::OK);
    log_.Clear();
    uint8_t unwrapped[kKeysize];
    EXPECT_EQ(km_decrypt_key(kPassword, strlen(kPassword), record.salt, record.master_key,
                             unwrapped, &record),
              -1);
    EXPECT_EQ(record.km_key_blob_size, read.km_key_blob_size);
    EXPECT_EQ(memcmp(record.km_key_blob, read.km_key_blob, sizeof(read.km_key_blob)), 0);
    km_meta stored;
    ASSERT_EQ(km_get_km_meta(c.key_loc.c_str(), 0, &stored), 0);
    EXPECT_EQ(memcmp(&stored, &meta, sizeof(meta)), 0);
    const std::vector<std::string> texts = log_.Texts();
    EXPECT_NE(std::find(texts.begin(), texts.end(), "Upgraded key blob is empty"), texts.end());

    time_.Advance(1);
    ASSERT_EQ(km_decrypt_key(kPassword, strlen(kPassword), record.salt, record.master_key,
                             unwrapped, &record),
              0);
    EXPECT_EQ(memcmp(unwrapped, master_key, kKeysize), 0);
  }
}

std::vector<Road> AllRoads() {
  std::vector<Road> roads;
  for (bool mdfpp : {false, true})
    for (bool cbc : {false, true})
      for (bool rek : {false, true})
        for (int kdf : {1, 2, 4, 5, 10}) roads.emplace_back(Flags{mdfpp, cbc, rek}, kdf);
  return roads;
}

INSTANTIATE_TEST_SUITE_P(AllFlagsAndKdfs, LifecycleTest, ::testing::ValuesIn(AllRoads()),
                         [](const ::testing::TestParamInfo<Road>& info) {
                           return FlagsName(std::get<0>(info.param)) + "Kdf" +
                                  std::to_string(std::get<1>(info.param));
                         });

}  // namespace
}  // namespace tavikm_test
