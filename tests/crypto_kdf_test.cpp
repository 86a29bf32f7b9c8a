// SPDX-License-Identifier: Apache-2.0
// The KDF table's two plain entries against independently computed keys, and scrypt factors
// that crypto_scrypt refuses.
#include <gtest/gtest.h>
#include <string.h>

#include <string>
#include <vector>

#include "crypto/kdf.h"
#include "support/log_capture.h"
#include "tavikm.h"

namespace {

using tavikm_test::LogCapture;
using tavikm_test::LogLine;
using Bytes = std::vector<uint8_t>;

// The expected keys below were made with Python 3's hashlib for password "correct horse" and
// salt 00 01 02 ... 0f:
//   hashlib.pbkdf2_hmac('sha256', pw, salt, 8192, 32)
//   hashlib.scrypt(pw, salt=salt, n=32768, r=8, p=2, dklen=16, maxmem=64 * 1024 * 1024)
constexpr char kPassword[] = "correct horse";
const Bytes kPbkdf2Key = {0x47, 0x2c, 0xe8, 0x64, 0xf2, 0x18, 0x52, 0xa7, 0x16, 0x1b, 0x7b,
                          0x05, 0x5a, 0xfa, 0x84, 0xc0, 0xc6, 0xc5, 0x97, 0x24, 0x1e, 0x81,
                          0xb5, 0x1c, 0x58, 0xf7, 0xb1, 0x55, 0xb8, 0xaf, 0xa6, 0x49};
const Bytes kScryptKey = {0xc0, 0xde, 0x1d, 0xac, 0x64, 0x55, 0xc8, 0xdb,
                          0x7b, 0x62, 0x2f, 0x06, 0x1b, 0x09, 0xa0, 0xba};

constexpr uint8_t kUntouched = 0xEE;

class CryptoKdfTest : public ::testing::Test {
 protected:
  CryptoKdfTest() {
    for (int i = 0; i < 16; ++i) salt_[i] = static_cast<uint8_t>(i);
    memset(out_, kUntouched, sizeof(out_));
  }

  // Runs the table's entry for the record's kdf_type.
  int Derive() {
    return km_kdf_table[meta_.kdf_type - 1](kPassword, strlen(kPassword), salt_, out_, &meta_);
  }
  Bytes Out(size_t from, size_t to) const { return Bytes(out_ + from, out_ + to); }

  LogCapture log_;
  km_meta meta_ = {};
  uint8_t salt_[16];
  uint8_t out_[64];
};

TEST_F(CryptoKdfTest, Pbkdf2EntryDerivesKeysizeBytes) {
  meta_.kdf_type = KM_KDF_PBKDF2;
  meta_.keysize = 32;
  EXPECT_EQ(Derive(), 0);
  EXPECT_EQ(Out(0, 32), kPbkdf2Key);
  EXPECT_EQ(Out(32, 64), Bytes(32, kUntouched));
  EXPECT_EQ(log_.Lines(), (std::vector<LogLine>{LogLine::Info("Using pbkdf2 for KDF")}));
}

TEST_F(CryptoKdfTest, ScryptEntryUsesPowersOfTheStoredFactors) {
  meta_.kdf_type = KM_KDF_SCRYPT;
  meta_.keysize = 16;
  meta_.N_factor = 15;
  meta_.r_factor = 3;
  meta_.p_factor = 1;
  EXPECT_EQ(Derive(), 0);
  EXPECT_EQ(Out(0, 16), kScryptKey);
  EXPECT_EQ(Out(16, 64), Bytes(48, kUntouched));
  EXPECT_EQ(log_.Lines(), (std::vector<LogLine>{LogLine::Info("Using scrypt for KDF")}));
}

TEST_F(CryptoKdfTest, ScryptEntryReportsSuccessWhenScryptRefusesItsFactors) {
  struct Case {
    uint8_t n, r, p;
  };
  const Case cases[] = {
      {31, 0, 0},   // N = 1 << 31 widened with its sign: not a power of two
      {4, 20, 10},  // r * p = 2^30
  };
  meta_.kdf_type = KM_KDF_SCRYPT;
  meta_.keysize = 32;
  for (const Case& c : cases) {
    SCOPED_TRACE(testing::Message() << int{c.n} << "/" << int{c.r} << "/" << int{c.p});
    log_.Clear();
    meta_.N_factor = c.n;
    meta_.r_factor = c.r;
    meta_.p_factor = c.p;
    EXPECT_EQ(Derive(), 0);
    EXPECT_EQ(Out(0, 64), Bytes(64, kUntouched));
    EXPECT_EQ(log_.Lines(), (std::vector<LogLine>{LogLine::Info("Using scrypt for KDF")}));
  }
}

TEST_F(CryptoKdfTest, ScryptFactorsAreShiftCountsModulo32) {
  meta_.kdf_type = KM_KDF_SCRYPT;
  meta_.keysize = 32;
  meta_.N_factor = 33;
  meta_.r_factor = 32;
  meta_.p_factor = 64;
  ASSERT_EQ(Derive(), 0);
  const Bytes wrapped_factors = Out(0, 32);
  meta_.N_factor = 1;
  meta_.r_factor = 0;
  meta_.p_factor = 0;
  ASSERT_EQ(Derive(), 0);
  EXPECT_EQ(wrapped_factors, Out(0, 32));
  EXPECT_NE(wrapped_factors, Bytes(32, kUntouched));
}

}  // namespace
