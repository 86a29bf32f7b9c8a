// The REK/KEK store: KEKs by name in secure storage, protected by Keymaster 4.0 object encryption
// or, in CBC-only mode, by the legacy Keymaster path and a kek mac.
#include <string.h>

#include <string>
#include <vector>

#include <cutils/properties.h>
#include <gtest/gtest.h>

#include "support/device_env.h"
#include "support/virtual_time.h"
#include "tavikm.h"
#include "tavikm_host/kmstore.h"

namespace tavikm_test {
namespace {

class RekStoreTest : public DeviceTest, public ::testing::WithParamInterface<bool> {
 protected:
  void SetUp() override {
    property_set("ro.product.tavi.support_cbc_only", GetParam() ? "true" : "");
  }

  std::string EntryPath(const std::string& name) {
    return device_.Path("kmstore/" + tavikm_host::KmstoreEntryFileName(name));
  }

  std::vector<uint8_t> Kek(size_t n, uint8_t seed) {
    std::vector<uint8_t> kek(n);
    for (size_t i = 0; i < n; ++i) kek[i] = static_cast<uint8_t>(seed + 7 * i);
    return kek;
  }

  VirtualKeymasterTime time_;
};

TEST_P(RekStoreTest, PutGetDeleteByName) {
  for (size_t len : {size_t{32}, size_t{16}}) {
    SCOPED_TRACE(len);
    std::vector<uint8_t> kek = Kek(len, static_cast<uint8_t>(len));
    ASSERT_EQ(km_put_kek_enc_by_rek("disk_kek", kek.data(), kek.size()), 0);
    // Always in secure storage, whatever the MDFPP flag says.
    EXPECT_EQ(ReadFile(EntryPath("disk_kek")).size(), size_t{KM_META_SIZE});

    uint8_t out[64] = {};
    uint64_t out_len = 0;
    ASSERT_EQ(km_get_kek_enc_by_rek("disk_kek", out, &out_len), 0);
    ASSERT_EQ(out_len, len);
    EXPECT_EQ(std::vector<uint8_t>(out, out + len), kek);
  }
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

TEST_P(RekStoreTest, NullNamesAreRefused) {
  uint8_t kek[32] = {};
  uint64_t len = 0;
  EXPECT_EQ(km_put_kek_enc_by_rek(nullptr, kek, 32), -1);
  EXPECT_EQ(km_get_kek_enc_by_rek(nullptr, kek, &len), -1);
  EXPECT_EQ(km_delete_kek_enc_by_rek(nullptr), -1);
  EXPECT_EQ(log_.Lines(), (std::vector<LogLine>{
                              LogLine::Error("km_put_kek_enc_by_rek::Failed, key_name is NULL! \n"),
                              LogLine::Error("km_get_kek_enc_by_rek::Failed, key_name is NULL! \n"),
                              LogLine::Error("km_delete_kek_enc_by_rek::Failed, key_name is NULL! \n"),
                          }));
}

INSTANTIATE_TEST_SUITE_P(BothBranches, RekStoreTest, ::testing::Bool(),
                         [](const ::testing::TestParamInfo<bool>& info) {
                           return info.param ? "CbcOnly" : "Keymaster4";
                         });

class RekStoreCbcOnlyTest : public DeviceTest {
 protected:
  void SetUp() override { property_set("ro.product.tavi.support_cbc_only", "true"); }
  std::string EntryPath(const std::string& name) {
    return device_.Path("kmstore/" + tavikm_host::KmstoreEntryFileName(name));
  }
  VirtualKeymasterTime time_;
};

// In CBC-only mode the kek mac catches a changed XTKM value before anything is decrypted. (With
// Keymaster 4.0 the GCM tag catches it at finish, which the object-decryption tests cover.)
TEST_F(RekStoreCbcOnlyTest, AChangedXtkmValueFailsTheMac) {
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

using RekStoreUpgradeTest = DeviceTest;

// After a system update the AES key must be upgraded: the first get stores the upgraded record
// and answers with an empty KEK; asking again gives the KEK.
TEST_F(RekStoreUpgradeTest, AGetThatUpgradesAnswersEmptyThenTheKek) {
  VirtualKeymasterTime time;
  property_set("ro.product.tavi.support_mdfpp", "true");  // the upgraded record goes back to SS
  uint8_t kek[32];
  for (int i = 0; i < 32; ++i) kek[i] = static_cast<uint8_t>(i);
  ASSERT_EQ(km_put_kek_enc_by_rek("kek", kek, sizeof(kek)), 0);
  std::vector<uint8_t> before = ReadFile(device_.Path("kmstore/e-kek"));

  property_set("ro.build.version.security_patch", "2027-02-05");
  uint8_t out[64];
  memset(out, 0xAB, sizeof(out));
  uint64_t out_len = 99;
  ASSERT_EQ(km_get_kek_enc_by_rek("kek", out, &out_len), 0);
  EXPECT_EQ(out_len, 0u);
  EXPECT_EQ(out[0], 0xAB);
  EXPECT_NE(ReadFile(device_.Path("kmstore/e-kek")), before);

  ASSERT_EQ(km_get_kek_enc_by_rek("kek", out, &out_len), 0);
  ASSERT_EQ(out_len, 32u);
  EXPECT_EQ(memcmp(out, kek, 32), 0);
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
