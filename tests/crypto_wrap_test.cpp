// SPDX-License-Identifier: Apache-2.0
// Wrapping the master key under a password: GCM and CBC-only modes against independently
// computed results, the all-zero-key rules, KDF lookup and failure paths, the password MAC, and
// the exact log lines of each.
#include <cutils/properties.h>
#include <gtest/gtest.h>
#include <openssl/evp.h>
#include <openssl/hmac.h>
#include <string.h>

#include <string>
#include <vector>

#include "crypto/kdf.h"
#include "crypto/wrap.h"
#include "support/device_env.h"
#include "tavikm.h"

namespace {

using tavikm_test::LogLine;
using Lines = std::vector<LogLine>;
using Bytes = std::vector<uint8_t>;

// Expected values made with Python 3 (hashlib, hmac and the `cryptography` package) for
// password "correct horse", salt 00 01 ... 0f, master key 20 21 ... 3f, key_iv all zero:
//   k    = hashlib.pbkdf2_hmac('sha256', pw, salt, 8192, 32)
//   gcm  = AESGCM(k).encrypt(bytes(16), master, None)          # ciphertext || tag
//   cbc  = AES-256-CBC(k, iv=bytes(16)) over master, no padding
//   mac  = hmac.new(k, cbc, hashlib.sha256).digest()
constexpr char kPassword[] = "correct horse";
constexpr char kWrongPassword[] = "correct horsf";
constexpr char kKeyName[] = "/dev/block/by-name/metadata";
const Bytes kGcmWrapped = {0x8a, 0xaa, 0xe7, 0xc5, 0xa5, 0xd0, 0x14, 0x64, 0xd9, 0x47, 0xe9,
                           0x3d, 0x74, 0x6f, 0xf1, 0x22, 0x49, 0x31, 0x5a, 0xef, 0x8f, 0x2a,
                           0xe7, 0xb2, 0xa6, 0x70, 0x08, 0x1e, 0x43, 0xe7, 0x78, 0xff};
const Bytes kGcmTag = {0x2a, 0x81, 0xf9, 0xfe, 0x0c, 0x0c, 0x2e, 0x42,
                       0x49, 0x46, 0x7f, 0xb4, 0xe4, 0x1e, 0x6b, 0x01};
const Bytes kCbcWrapped = {0x23, 0xae, 0x60, 0x3b, 0xfd, 0xb4, 0x49, 0xd5, 0x38, 0x22, 0x62,
                           0x76, 0x50, 0x93, 0x08, 0x40, 0x41, 0xcc, 0x96, 0xbd, 0x60, 0xc5,
                           0x66, 0x8d, 0xda, 0x01, 0x5a, 0x89, 0x32, 0xeb, 0xc9, 0x95};
const Bytes kCbcMac = {0x96, 0xa3, 0x2b, 0xb3, 0xf4, 0xc0, 0xf0, 0x09, 0x7c, 0x79, 0x66,
                       0x52, 0x61, 0xc4, 0xe9, 0x44, 0x49, 0xa5, 0x1a, 0xde, 0xd1, 0x74,
                       0x45, 0x2f, 0x3a, 0x13, 0x16, 0x5c, 0xd9, 0x6c, 0x6a, 0xb8};

const LogLine kPbkdf2Line = LogLine::Info("Using pbkdf2 for KDF");

// Test KDFs for the seam: the library's table is constant.
int KdfReturnsSeven(const char*, unsigned long, const unsigned char*, unsigned char*, void*) {
  return 7;
}
int KdfWritesNothing(const char*, unsigned long, const unsigned char*, unsigned char*, void*) {
  return 0;
}
// Zero in the first 32 bytes, which is all the null check looks at.
int KdfWritesOnlyPastByte32(const char*, unsigned long, const unsigned char*, unsigned char* out,
                            void*) {
  memset(out + 32, 0x5A, 32);
  return 0;
}
km_kdf_table_t TableOf(km_kdf_fn kdf) { return {kdf, kdf, kdf, kdf, kdf}; }

class CryptoWrapTest : public tavikm_test::DeviceTest {
 protected:
  CryptoWrapTest() {
    for (int i = 0; i < 16; ++i) salt_[i] = static_cast<uint8_t>(i);
    for (int i = 0; i < 32; ++i) master_[i] = static_cast<uint8_t>(0x20 + i);
    meta_.kdf_type = KM_KDF_PBKDF2;
    meta_.keysize = 32;
    strcpy(meta_.key_name, kKeyName);
  }

  void SetCbcOnly(const char* value) { property_set(supportCBConly, value); }

  int Encrypt(const char* password = kPassword) {
    return km_encrypt_key(password, strlen(password), salt_, wrapped_, master_, &meta_);
  }
  int Decrypt(const char* password = kPassword) {
    return km_decrypt_key(password, strlen(password), salt_, wrapped_, unwrapped_, &meta_);
  }
  int Mac(uint8_t* mac, const char* password = kPassword) {
    return km_get_key_mac_by_password(wrapped_, salt_, password, strlen(password), mac, &meta_);
  }
  Bytes Wrapped() const { return Bytes(wrapped_, wrapped_ + meta_.keysize); }
  Bytes Master() const { return Bytes(master_, master_ + meta_.keysize); }
  Bytes Unwrapped() const { return Bytes(unwrapped_, unwrapped_ + meta_.keysize); }
  Bytes Tag() const { return Bytes(meta_.key_mac, meta_.key_mac + 16); }

  km_meta meta_ = {};
  uint8_t salt_[16];
  uint8_t master_[64] = {};
  uint8_t wrapped_[64] = {};
  uint8_t unwrapped_[64] = {};
};

// ---- GCM mode ----

// A wrong password fails the tag, and then the all-zero key is tried too.
TEST_F(CryptoWrapTest, GcmWrapsIntoKeyMacAndUnwrapsOnlyUnderThePassword) {
  meta_.key_mac[16] = 0xA5;  // the tag takes only the first half
  ASSERT_EQ(Encrypt(), 0);
  EXPECT_EQ(Wrapped(), kGcmWrapped);
  EXPECT_EQ(Tag(), kGcmTag);
  EXPECT_EQ(meta_.key_mac[16], 0xA5);
  ASSERT_EQ(Decrypt(), 0);
  EXPECT_EQ(Unwrapped(), Master());
  EXPECT_EQ(log_.Lines(), (Lines{kPbkdf2Line, kPbkdf2Line}));

  log_.Clear();
  EXPECT_EQ(Decrypt(kWrongPassword), -1);
  const LogLine verify_failed =
      LogLine::Error("(km_aes_gcm_decrypt)verify failed for AES GCM Decryption ret = 0");
  EXPECT_EQ(log_.Lines(),
            (Lines{kPbkdf2Line, verify_failed, verify_failed,
                   LogLine::Error("(km_decrypt_key)Failed to decrypt_gcm key keysize=32\n")}));
}

TEST_F(CryptoWrapTest, GcmRoundTripThroughScryptWith16ByteKey) {
  meta_.kdf_type = KM_KDF_SCRYPT;
  meta_.keysize = 16;
  meta_.N_factor = 10;
  meta_.r_factor = 0;
  meta_.p_factor = 0;
  meta_.key_iv[3] = 0x77;  // used as the record holds it
  ASSERT_EQ(Encrypt(), 0);
  ASSERT_EQ(Decrypt(), 0);
  EXPECT_EQ(Unwrapped(), Master());
  EXPECT_EQ(Decrypt(kWrongPassword), -1);
}

TEST_F(CryptoWrapTest, KeyWrappedUnderZeroKeyOpensWithAnyPasswordAndReturns9) {
  const uint8_t zero_key[32] = {};
  ASSERT_EQ(km_aes_gcm_encrypt(master_, 32, nullptr, 0, zero_key, 32, meta_.key_iv, wrapped_,
                               meta_.key_mac),
            32);
  for (const char* password : {kPassword, kWrongPassword, ""}) {
    SCOPED_TRACE(password);
    log_.Clear();
    memset(unwrapped_, 0, sizeof(unwrapped_));
    EXPECT_EQ(Decrypt(password), 9);
    EXPECT_EQ(Unwrapped(), Master());
    EXPECT_EQ(log_.Lines(),
              (Lines{kPbkdf2Line, LogLine::Error("(km_aes_gcm_decrypt)verify failed for AES GCM "
                                                 "Decryption ret = 0")}));
  }
}

// ---- CBC-only mode ----

// The record is left alone, and a wrong password unwraps to garbage: only the password MAC,
// made separately, tells it.
TEST_F(CryptoWrapTest, CbcOnlyWrapsWithoutTouchingTheRecordAndTheMacCatchesAWrongPassword) {
  SetCbcOnly("true");
  const km_meta before = meta_;
  ASSERT_EQ(Encrypt(), 0);
  EXPECT_EQ(Wrapped(), kCbcWrapped);
  EXPECT_EQ(memcmp(&before, &meta_, sizeof(meta_)), 0);
  ASSERT_EQ(Mac(meta_.key_mac), 0);
  EXPECT_EQ(Bytes(meta_.key_mac, meta_.key_mac + 32), kCbcMac);
  ASSERT_EQ(Decrypt(), 0);
  EXPECT_EQ(Unwrapped(), Master());

  log_.Clear();
  uint8_t mac[32];
  ASSERT_EQ(Mac(mac), 0);
  EXPECT_EQ(km_verify_key_mac(meta_.key_mac, mac), 0);
  EXPECT_EQ(Decrypt(kWrongPassword), 0);
  EXPECT_NE(Unwrapped(), Master());
  ASSERT_EQ(Mac(mac, kWrongPassword), 0);
  EXPECT_EQ(km_verify_key_mac(meta_.key_mac, mac), -1);
  EXPECT_EQ(log_.Lines(), (Lines{kPbkdf2Line, LogLine::Info("MAC is verified!!\n"), kPbkdf2Line,
                                 kPbkdf2Line, LogLine::Error("Failed to verify MAC\n")}));
}

// ---- Failures before the cipher ----

// A kdf_type without an entry, and a keysize the key buffer cannot hold: each caller refuses the
// record before any KDF runs, naming it. A name that fills its field without a NUL is named up to
// the field's end.
TEST_F(CryptoWrapTest, RecordsNoKdfCanServeAreRefused) {
  struct Case {
    int kdf_type;
    uint64_t keysize;
    const char* what;
    bool full_name;
  };
  const Case cases[] = {
      {0, 32, "kdf is NULL", false},
      {6, 32, "kdf is NULL", false},
      {KM_KDF_PBKDF2, 65, "keysize 65 is too large", false},
      {255, 32, "kdf is NULL", true},  // last: the name stays filled
  };
  uint8_t mac[32];
  for (const Case& c : cases) {
    SCOPED_TRACE(c.what + std::to_string(c.kdf_type));
    meta_.kdf_type = static_cast<uint8_t>(c.kdf_type);
    meta_.keysize = c.keysize;
    if (c.full_name) {
      memset(meta_.key_name, 'A', sizeof(meta_.key_name));
      memset(meta_.xtkm_value, 'B', sizeof(meta_.xtkm_value));
    }
    const std::string for_name = "(for " + (c.full_name ? std::string(256, 'A') : kKeyName) + ")\n";
    log_.Clear();
    EXPECT_EQ(Encrypt(), -1);
    EXPECT_EQ(Decrypt(), -1);
    EXPECT_EQ(Mac(mac), -1);
    Lines expected;
    for (const char* op : {"km_encrypt_key", "km_decrypt_key", "km_get_key_mac_by_password"}) {
      if (c.kdf_type != KM_KDF_PBKDF2) {
        expected.push_back(
            LogLine::Error("KDF(" + std::to_string(c.kdf_type) + ") is not supported"));
      }
      expected.push_back(LogLine::Error(std::string(op) + "::" + c.what + for_name));
    }
    EXPECT_EQ(log_.Lines(), expected);
  }
}

TEST_F(CryptoWrapTest, KdfCodeReachesOnlyTheUnwrapCaller) {
  const km_kdf_table_t table = TableOf(KdfReturnsSeven);
  uint8_t mac[32];
  EXPECT_EQ(km_encrypt_key_with_kdfs(table, kPassword, 5, salt_, wrapped_, master_, &meta_), -1);
  EXPECT_EQ(km_decrypt_key_with_kdfs(table, kPassword, 5, salt_, wrapped_, unwrapped_, &meta_), 7);
  EXPECT_EQ(km_get_key_mac_by_password_with_kdfs(table, wrapped_, salt_, kPassword, 5, mac, &meta_),
            -1);
  EXPECT_EQ(log_.Lines(),
            (Lines{LogLine::Error("km_encrypt_key::kdf failed"),
                   LogLine::Error("km_decrypt_key : kdf failed, rc=7"),
                   LogLine::Error(std::string("km_get_key_mac_by_password::kdf failed(for ") +
                                  kKeyName + ")\n")}));
}

TEST_F(CryptoWrapTest, ZeroDerivedKeyStopsWrappingButNotTheMac) {
  for (km_kdf_fn kdf : {KdfWritesNothing, KdfWritesOnlyPastByte32}) {
    const km_kdf_table_t table = TableOf(kdf);
    meta_.keysize = 16;
    log_.Clear();
    EXPECT_EQ(km_encrypt_key_with_kdfs(table, kPassword, 5, salt_, wrapped_, master_, &meta_), -1);
    EXPECT_EQ(km_decrypt_key_with_kdfs(table, kPassword, 5, salt_, wrapped_, unwrapped_, &meta_),
              -1);
    EXPECT_EQ(log_.Lines(), (Lines{LogLine::Error("km_encrypt_key::key is null"),
                                   LogLine::Error("km_decrypt_key::key is null")}));
  }

  // The MAC goes on, under the zero key.
  meta_.keysize = 32;
  memcpy(wrapped_, kCbcWrapped.data(), 32);
  uint8_t mac[32];
  ASSERT_EQ(km_get_key_mac_by_password_with_kdfs(TableOf(KdfWritesNothing), wrapped_, salt_,
                                                 kPassword, 5, mac, &meta_),
            0);
  const uint8_t zero_key[32] = {};
  uint8_t expected[32];
  unsigned int expected_len = 0;
  ASSERT_NE(HMAC(EVP_sha256(), zero_key, 32, wrapped_, 32, expected, &expected_len), nullptr);
  EXPECT_EQ(Bytes(mac, mac + 32), Bytes(expected, expected + 32));
}

TEST_F(CryptoWrapTest, KeysizeOtherThan16Or32FailsInTheAesLayer) {
  meta_.keysize = 24;
  EXPECT_EQ(Encrypt(), -1);
  EXPECT_EQ(Decrypt(), -1);
  EXPECT_EQ(log_.Lines(),
            (Lines{kPbkdf2Line, LogLine::Error("(km_aes_gcm_encrypt)Invalid keysize 24"),
                   LogLine::Error(std::string("Failed to encrypt key with GCM Mode fname=") +
                                  kKeyName + "\n"),
                   kPbkdf2Line, LogLine::Error("(km_aes_gcm_decrypt)Invalid keysize 24"),
                   LogLine::Error("(km_aes_gcm_decrypt)Invalid keysize 24"),
                   LogLine::Error("(km_decrypt_key)Failed to decrypt_gcm key keysize=24\n")}));

  SetCbcOnly("true");
  log_.Clear();
  EXPECT_EQ(Encrypt(), -1);
  EXPECT_EQ(Decrypt(), -1);
  EXPECT_EQ(log_.Lines(), (Lines{kPbkdf2Line, LogLine::Error("(km_aes_encrypt)Invalid keysize 24"),
                                 LogLine::Error("Failed to encrypt key with CBC mode\n"),
                                 kPbkdf2Line, LogLine::Error("(km_aes_decrypt)Invalid keysize 24"),
                                 LogLine::Error("(km_decrypt_key)Failed to decrypt key\n")}));
}

// ---- The password MAC's arguments and comparison ----

TEST_F(CryptoWrapTest, MacChecksItsPointersInOrder) {
  struct Case {
    const uint8_t* wrapped;
    const uint8_t* salt;
    const char* password;
    uint8_t* mac;
    const char* message;
  };
  const Case cases[] = {
      {nullptr, nullptr, nullptr, nullptr, "encrypted_key"},
      {wrapped_, nullptr, nullptr, nullptr, "salt"},
      {wrapped_, salt_, nullptr, nullptr, "passwd"},
      {wrapped_, salt_, kPassword, nullptr, "key_mac"},
  };
  for (const Case& c : cases) {
    log_.Clear();
    EXPECT_EQ(km_get_key_mac_by_password(c.wrapped, c.salt, c.password, 5, c.mac, &meta_), -1);
    EXPECT_EQ(log_.Lines(),
              (Lines{LogLine::Error(std::string("km_get_key_mac_by_password::Failed, ") +
                                    c.message + " is NULL! \n")}));
  }
}

TEST_F(CryptoWrapTest, VerifyComparesAll32Bytes) {
  uint8_t a[32], b[32];
  memset(a, 0x11, sizeof(a));
  memcpy(b, a, sizeof(b));
  b[31] ^= 1;
  EXPECT_EQ(km_verify_key_mac(a, b), -1);
  EXPECT_EQ(km_verify_key_mac(nullptr, b), -1);
  EXPECT_EQ(km_verify_key_mac(a, nullptr), -1);
  EXPECT_EQ(log_.Lines(), (Lines{LogLine::Error("Failed to verify MAC\n"),
                                 LogLine::Error("Lack of parameter for verify MAC\n"),
                                 LogLine::Error("Lack of parameter for verify MAC\n")}));
}

}  // namespace
