// SPDX-License-Identifier: Apache-2.0
// Creating a record: the KDF choice, the scrypt factors from their property, the Keymaster key
// and KEK of each type, and the order in which setup stores.
#include <cutils/properties.h>
#include <gtest/gtest.h>
#include <string.h>
#include <unistd.h>

#include <algorithm>
#include <string>
#include <vector>

#include "keymaster/legacy_keymaster.h"
#include "support/device_env.h"
#include "support/virtual_time.h"
#include "tavikm.h"
#include "tavikm_host/keymaster_faults.h"

namespace tavikm_test {
namespace {

using Lines = std::vector<LogLine>;

constexpr char kPassword[] = "setup password";

bool AllZero(const uint8_t* p, size_t n) {
  for (size_t i = 0; i < n; ++i)
    if (p[i]) return false;
  return true;
}

class InitMetaTest : public DeviceTest {
 protected:
  km_meta meta_;
  VirtualKeymasterTime time_;
};

TEST_F(InitMetaTest, DefaultKdfFollowsTheFlagAndTheKeymastersLevel) {
  property_set("ro.product.tavi.support_mdfpp", "true");
  ASSERT_EQ(km_init_km_meta(&meta_, "userdata", 32, KM_KDF_DEFAULT), 0);
  EXPECT_EQ(meta_.kdf_type, KM_KDF_PBKDF2_REK);

  property_set("ro.product.tavi.support_mdfpp", "");
  ASSERT_EQ(km_init_km_meta(&meta_, "userdata", 32, KM_KDF_DEFAULT), 0);
  EXPECT_EQ(meta_.kdf_type, KM_KDF_SCRYPT_KEYMASTER);
  EXPECT_NE(meta_.km_key_blob_size, 0u);

  tavikm_host::SetKeymasterDeviceLevels({0});  // a software Keymaster
  ASSERT_EQ(km_init_km_meta(&meta_, "userdata", 32, KM_KDF_DEFAULT), 0);
  EXPECT_EQ(meta_.kdf_type, KM_KDF_SCRYPT);
  EXPECT_EQ(meta_.km_key_blob_size, 0u);
  EXPECT_EQ((std::vector<int>{meta_.N_factor, meta_.r_factor, meta_.p_factor}),
            (std::vector<int>{15, 3, 1}));
}

TEST_F(InitMetaTest, WithTheMdfppFlagTheDefaultNeedsNoProbe) {
  tavikm_host::SetKeymasterDeviceLevels({});  // no Keymaster 4.0 at all
  ASSERT_EQ(km_init_km_meta(&meta_, "userdata", 32, KM_KDF_DEFAULT), -1);
  EXPECT_EQ(log_.Texts().back(), "Failed to get default KDF on init");

  property_set("ro.product.tavi.support_mdfpp", "true");
  log_.Clear();
  // Type 4 is chosen without asking; it then needs the Keymaster for its AES key.
  ASSERT_EQ(km_init_km_meta(&meta_, "userdata", 32, KM_KDF_DEFAULT), -1);
  EXPECT_EQ(meta_.kdf_type, KM_KDF_PBKDF2_REK);
  std::vector<LogLine> liblog;
  for (const LogLine& line : log_.Lines())
    if (line.source == LogLine::Source::kLiblog) liblog.push_back(line);
  EXPECT_EQ(liblog, (Lines{LogLine::SystemError("Failed to generate a aes key"),
                           LogLine::Error("Failed to create aes key from keymaster")}));
}

TEST_F(InitMetaTest, TypesThatNoRecordIsCreatedWithAreRefused) {
  for (uint32_t type : {0u, 3u, 6u, 9u, 255u, 0x103u}) {
    SCOPED_TRACE(type);
    log_.Clear();
    ASSERT_EQ(km_init_km_meta(&meta_, "name", 16, type), -1);
    EXPECT_EQ(log_.Lines(),
              Lines{LogLine::Error("Unknown KDF type : " + std::to_string(type & 0xff))});
    // What was set before the check stays.
    EXPECT_EQ(meta_.magic, KM_META_MAGIC);
    EXPECT_EQ(meta_.keysize, 16u);
    EXPECT_STREQ(meta_.key_name, "name");
    EXPECT_EQ(meta_.kdf_type, 0);
  }
  // Only the low byte counts.
  ASSERT_EQ(km_init_km_meta(&meta_, "name", 16, 0x201u), 0);
  EXPECT_EQ(meta_.kdf_type, KM_KDF_PBKDF2);
  EXPECT_EQ(meta_.N_factor, 0);  // PBKDF2 gets no scrypt factors
}

TEST_F(InitMetaTest, ScryptFactorsComeFromTheirPropertyOrTheDefaults) {
  property_set("ro.crypto.scrypt_params", "12:8:1");
  ASSERT_EQ(km_init_km_meta(&meta_, "name", 32, KM_KDF_SCRYPT), 0);
  EXPECT_EQ((std::vector<int>{meta_.N_factor, meta_.r_factor, meta_.p_factor}),
            (std::vector<int>{12, 8, 1}));
  EXPECT_TRUE(log_.Lines().empty());

  for (const char* bad : {"12:8", "12:8:1:1", "12:x:1", "256:8:1", ":8:1", "12:8:", "-1:8:1",
                          " 12:8:1", "99999999999:1:1"}) {
    SCOPED_TRACE(bad);
    property_set("ro.crypto.scrypt_params", bad);
    log_.Clear();
    ASSERT_EQ(km_init_km_meta(&meta_, "name", 32, KM_KDF_SCRYPT), 0);
    EXPECT_EQ((std::vector<int>{meta_.N_factor, meta_.r_factor, meta_.p_factor}),
              (std::vector<int>{15, 3, 1}));
    EXPECT_EQ(log_.Lines(), Lines{LogLine::Warning(std::string("bad scrypt parameters '") + bad +
                                                   "' should be like '12:8:1'; using defaults")});
  }
}

// Type 4 always gets a Keymaster key and random IVs; the KEK, with its MAC, is kept in the record
// only under the REK_KEK flag.
TEST_F(InitMetaTest, Pbkdf2RekKeepsAMacedKekOnlyUnderItsFlag) {
  ASSERT_EQ(km_init_km_meta(&meta_, "name", 32, KM_KDF_PBKDF2_REK), 0);
  EXPECT_GT(meta_.km_key_blob_size, 0u);
  EXPECT_FALSE(AllZero(meta_.object_iv, 16));
  EXPECT_FALSE(AllZero(meta_.key_iv, 16));
  EXPECT_TRUE(AllZero(meta_.xtkm_value, sizeof(meta_.xtkm_value)));
  EXPECT_EQ(meta_.xtkm_value_size, 0u);
  EXPECT_EQ(meta_.mac_key_size, 0u);
  EXPECT_EQ(meta_.N_factor, 0);

  property_set("ro.product.tavi.support_rek_kek", "true");
  ASSERT_EQ(km_init_km_meta(&meta_, "name", 32, KM_KDF_PBKDF2_REK), 0);
  EXPECT_FALSE(AllZero(meta_.xtkm_value, 32));
  EXPECT_EQ(meta_.xtkm_value_size, 32u);
  EXPECT_EQ(meta_.kek_mac_size, 32u);
  EXPECT_EQ(meta_.mac_key_size, 32u);
  EXPECT_EQ(km_verify_HMAC(&meta_), 0);
}

TEST_F(InitMetaTest, ALongKeyLocationRunsIntoTheFollowingFieldsButNeverPastTheRecord) {
  std::string name(300, 'k');
  ASSERT_EQ(km_init_km_meta(&meta_, name.c_str(), 32, KM_KDF_PBKDF2), 0);
  EXPECT_EQ(meta_.xtkm_value[0], 'k');
  EXPECT_EQ(meta_.xtkm_value[300 - 256 - 1], 'k');
  EXPECT_EQ(meta_.xtkm_value[300 - 256], 0);

  std::string too_long(441, 'k');
  log_.Clear();
  EXPECT_EQ(km_init_km_meta(&meta_, too_long.c_str(), 32, KM_KDF_PBKDF2), -1);
  EXPECT_EQ(log_.Lines(), std::vector<LogLine>{LogLine::Error(
                              "km_init_km_meta::Failed, 441 bytes at offset 2264 would pass the "
                              "end of km_meta_t\n")});
}

class SetupTest : public DeviceTest {
 protected:
  std::string path_ = device_.Path("metadata");
  km_meta meta_;
  uint8_t master_key_[32];
};

TEST_F(SetupTest, LogsItsStepsAndStoresAtOffsetZero) {
  ASSERT_EQ(km_initial_setup(path_.c_str(), kPassword, strlen(kPassword), master_key_, 32,
                             KM_KDF_PBKDF2, &meta_),
            0);
  EXPECT_EQ(log_.Lines(), (Lines{LogLine::Info("Key manager meta data initial setup start!!\n"),
                                 LogLine::Info("Using pbkdf2 for KDF"),
                                 LogLine::Info("Key manager meta dta initial setup end!!\n")}));
  std::vector<uint8_t> file = ReadFile(path_);
  ASSERT_EQ(file.size(), 16384u);
  EXPECT_EQ(memcmp(file.data(), &meta_, sizeof(meta_)), 0);
  EXPECT_FALSE(AllZero(meta_.salt, 16));
  EXPECT_TRUE(AllZero(meta_.key_iv, 16));  // types other than 4 leave it zero
}

TEST_F(SetupTest, NothingIsStoredWhenWrappingFails) {
  // 24-byte keys have no AES mode here.
  ASSERT_EQ(km_initial_setup(path_.c_str(), kPassword, strlen(kPassword), master_key_, 24,
                             KM_KDF_PBKDF2, &meta_),
            -1);
  EXPECT_EQ(log_.Texts().back(), "Error encrypt master key\n");
  EXPECT_NE(access(path_.c_str(), F_OK), 0);
}

TEST_F(SetupTest, NothingIsStoredWhenAKeymasterStopsTakingInput) {
  // The limit holds both devices: a Keymaster 4.0 update that takes nothing fails the signing
  // or the object encryption; a legacy update must take the whole 32-byte message at once.
  struct Case {
    int kdf;
    const char* rek_kek;
    size_t limit;
    const char* failed_step;
  };
  const Case cases[] = {
      {KM_KDF_SCRYPT_KEYMASTER, "", 0, "Error sending data to keymaster signature transaction: 0"},
      {KM_KDF_PBKDF2_REK, "", 0, "Error sending data to keymaster encryption transaction: 0"},
      {KM_KDF_PBKDF2_REK, "true", 16, "Failed to update cipher for aes enc(err=0)"},
  };
  VirtualKeymasterTime time;
  for (const Case& c : cases) {
    SCOPED_TRACE(c.failed_step);
    property_set("ro.product.tavi.support_rek_kek", c.rek_kek);
    tavikm_host::SetKeymasterUpdateLimit(c.limit);
    const std::string path = path_ + std::to_string(c.kdf) + c.rek_kek;
    log_.Clear();
    EXPECT_EQ(km_initial_setup(path.c_str(), kPassword, strlen(kPassword), master_key_, 32, c.kdf,
                               &meta_),
              -1);
    std::vector<std::string> texts = log_.Texts();
    EXPECT_NE(std::find(texts.begin(), texts.end(), c.failed_step), texts.end());
    EXPECT_NE(access(path.c_str(), F_OK), 0);
  }
}

TEST_F(SetupTest, RefusesMissingArguments) {
  EXPECT_EQ(km_initial_setup(nullptr, kPassword, 1, master_key_, 32, 1, &meta_), -1);
  EXPECT_EQ(km_initial_setup(path_.c_str(), kPassword, 1, master_key_, 32, 1, nullptr), -1);
  EXPECT_EQ(km_initial_setup(path_.c_str(), kPassword, 1, master_key_, 32, 3, &meta_), -1);
  EXPECT_EQ(log_.Lines(), (Lines{LogLine::Error("km_initial_setup::Failed, key_loc is NULL! \n"),
                                 LogLine::Info("Key manager meta data initial setup start!!\n"),
                                 LogLine::Error("km_meta is Null!!\n"),
                                 LogLine::Info("Key manager meta data initial setup start!!\n"),
                                 LogLine::Error("Unknown KDF type : 3"),
                                 LogLine::Error("Failed to init km_meta\n")}));
}

TEST_F(SetupTest, AKekOf24BytesFailsInTheRekStep) {
  property_set("ro.product.tavi.support_rek_kek", "true");
  VirtualKeymasterTime time;
  ASSERT_EQ(km_initial_setup(path_.c_str(), kPassword, strlen(kPassword), master_key_, 24,
                             KM_KDF_PBKDF2_REK, &meta_),
            -1);
  std::vector<std::string> texts = log_.Texts();
  ASSERT_GE(texts.size(), 3u);
  EXPECT_EQ(
      std::vector<std::string>(texts.end() - 3, texts.end()),
      (std::vector<std::string>{"(km_pbkdf2_rek)Failed to encrypt KEK by REK to generate DEKEK\n",
                                "km_encrypt_key::kdf failed", "Error encrypt master key\n"}));
}

}  // namespace
}  // namespace tavikm_test
