// SPDX-License-Identifier: Apache-2.0
// The Keymaster-bound scrypt KDF: scrypt, a raw RSA signature by the record's key, scrypt again.
#include <stdlib.h>
#include <string.h>

#include <string>
#include <vector>

#include <cutils/properties.h>
#include <gtest/gtest.h>

#include "crypto/kdf.h"
#include "crypto/scrypt_keymaster.h"
#include "support/device_env.h"
#include "support/virtual_time.h"
#include "tavikm.h"
#include "tavikm_host/keymaster_faults.h"
#include "tavikm_keymaster.h"

namespace tavikm_test {
namespace {

constexpr char kPassword[] = "binding password";

class ScryptKeymasterTest : public DeviceTest {
 protected:
  void SetUp() override {
    memset(&meta_, 0, sizeof(meta_));
    meta_.keysize = 32;
    meta_.kdf_type = KM_KDF_SCRYPT_KEYMASTER;
    meta_.N_factor = 10;  // small costs keep the test quick
    meta_.r_factor = 3;
    meta_.p_factor = 0;
    for (int i = 0; i < 16; ++i) meta_.salt[i] = static_cast<uint8_t>(i);
    ASSERT_EQ(keymaster_create_key_for_cryptfs_scrypt_mdfpp(
                  2048, 65537, 1, meta_.km_key_blob, KM_KEY_BLOB_CAPACITY, &meta_.km_key_blob_size),
              0);
    log_.Clear();
  }

  int Derive(uint8_t* out) {
    return km_scrypt_keymaster(kPassword, strlen(kPassword), meta_.salt, out, &meta_);
  }

  std::vector<uint8_t> Scrypt(const uint8_t* in, size_t len) {
    const km_scrypt_cost cost = km_scrypt_cost_of(&meta_);
    std::vector<uint8_t> out(meta_.keysize);
    EXPECT_EQ(
        crypto_scrypt(in, len, meta_.salt, 16, cost.N, cost.r, cost.p, out.data(), out.size()), 0);
    return out;
  }

  km_meta meta_;
  VirtualKeymasterTime time_;
};

// The signed object is 0x00, the intermediate key, then zeros to 256 bytes; the final key is
// scrypt over the signature. Rebuilt here from the exported pieces.
TEST_F(ScryptKeymasterTest, DerivesScryptOfTheSignatureOfThePaddedIntermediateKey) {
  uint8_t out[64] = {};
  ASSERT_EQ(Derive(out), 0);

  std::vector<uint8_t> intermediate =
      Scrypt(reinterpret_cast<const uint8_t*>(kPassword), strlen(kPassword));
  uint8_t object[256] = {};
  memcpy(object + 1, intermediate.data(), intermediate.size());
  unsigned char* signature = nullptr;
  unsigned long signature_size = 0;
  ASSERT_EQ(keymaster_sign_object_for_cryptfs_scrypt_mdfpp(
                meta_.km_key_blob, meta_.km_key_blob_size, 1, object, sizeof(object), &signature,
                &signature_size),
            0);
  std::vector<uint8_t> expected = Scrypt(signature, signature_size);
  free(signature);
  EXPECT_EQ(std::vector<uint8_t>(out, out + 32), expected);

  // Deterministic: the same inputs give the same key.
  uint8_t again[64] = {};
  ASSERT_EQ(Derive(again), 0);
  EXPECT_EQ(memcmp(again, out, 32), 0);
  EXPECT_EQ(log_.Lines()[0], LogLine::Info("Using scrypt with keymaster for KDF"));
}

// The table routes type 3 to this entry too, which runs the first scrypt and then refuses it:
// such a record cannot be unwrapped.
TEST_F(ScryptKeymasterTest, Type3RunsTheFirstScryptThenIsRefused) {
  meta_.kdf_type = KM_KDF_SCRYPT_KEYMASTER_OLD;
  uint8_t out[64] = {};
  EXPECT_EQ(Derive(out), -1);
  EXPECT_EQ(std::vector<uint8_t>(out, out + 32),
            Scrypt(reinterpret_cast<const uint8_t*>(kPassword), strlen(kPassword)));
  log_.Clear();
  EXPECT_EQ(km_decrypt_key(kPassword, strlen(kPassword), meta_.salt, meta_.master_key, out, &meta_),
            -1);
  EXPECT_EQ(log_.Lines(), (std::vector<LogLine>{
                              LogLine::Info("Using scrypt with keymaster for KDF"),
                              LogLine::Error("Unknown KDF type 3"),
                              LogLine::Error("Signing failed"),
                              LogLine::Error("km_decrypt_key : kdf failed, rc=-1"),
                          }));
}

TEST_F(ScryptKeymasterTest, AnEmptyOrForeignBlobMakesSigningFail) {
  uint8_t out[64] = {};
  km_meta saved = meta_;
  meta_.km_key_blob_size = 0;
  EXPECT_EQ(Derive(out), -1);
  meta_ = saved;
  meta_.km_key_blob[meta_.km_key_blob_size / 2] ^= 1;
  EXPECT_EQ(Derive(out), -1);
  std::vector<std::string> texts = log_.Texts();
  EXPECT_EQ(texts.back(), "Signing failed");
}

TEST_F(ScryptKeymasterTest, AKeyNeedingAnUpgradeIsUpgradedInTheRecord) {
  uint8_t before[64] = {};
  ASSERT_EQ(Derive(before), 0);
  km_meta old = meta_;
  property_set("ro.build.version.security_patch", "2027-02-05");

  uint8_t after[64] = {};
  ASSERT_EQ(Derive(after), 0);
  EXPECT_EQ(tavikm_host::KeymasterCallCount(tavikm_host::KeymasterCall::kUpgradeKey), 1);
  EXPECT_NE(memcmp(old.km_key_blob, meta_.km_key_blob, sizeof(old.km_key_blob)), 0);
  // The upgraded key is the same RSA key: the derived key does not change.
  EXPECT_EQ(memcmp(before, after, 32), 0);
}

TEST_F(ScryptKeymasterTest, AFailedUpgradeFailsTheDerivation) {
  property_set("ro.build.version.security_patch", "2027-02-05");
  tavikm_host::FailKeymasterCall(tavikm_host::KeymasterCall::kUpgradeKey, 1,
                                 android::hardware::keymaster::V4_0::ErrorCode::UNKNOWN_ERROR);
  uint8_t out[64] = {};
  EXPECT_EQ(Derive(out), -1);
  std::vector<std::string> texts = log_.Texts();
  ASSERT_GE(texts.size(), 2u);
  EXPECT_EQ(std::vector<std::string>(texts.end() - 2, texts.end()),
            (std::vector<std::string>{"Failed to upgrade key", "Signing failed"}));
  // The failed upgrade cleared the size it reports.
  EXPECT_EQ(meta_.km_key_blob_size, 0u);
}

}  // namespace
}  // namespace tavikm_test
