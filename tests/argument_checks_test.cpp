// SPDX-License-Identifier: Apache-2.0
// Every exported function with each of its pointer arguments missing in turn: the call fails
// with its failure value and one line, and neither crashes nor touches anything. The caller is a
// long-lived daemon, so a missing pointer must never end it.
#include <errno.h>
#include <string.h>
#include <unistd.h>

#include <functional>
#include <string>
#include <vector>

#include <cutils/properties.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "keymaster/Keymaster.h"
#include "mdfpp_test_util.h"
#include "tavikm.h"
#include "tavikm_host/keymaster.h"
#include "tavikm_host/keymaster_faults.h"
#include "tavikm_host/kmstore.h"
#include "tavikm_keymaster.h"

namespace tavikm_test::mdfpp {
namespace {

using ::testing::ElementsAre;
using Lines = std::vector<LogLine>;

std::string Null(const std::string& function, const std::string& what) {
  return function + "::Failed, " + what + " is NULL! \n";
}

class ArgumentChecksTest : public MdfppTest {
 protected:
  void SetUp() override {
    property_set("ro.product.tavi.support_mdfpp", "true");
    ASSERT_EQ(km_initial_setup("userdata", "pw", 2, master_key_, 32, KM_KDF_PBKDF2, &meta_), 0);
    kmstore_device* device = nullptr;
    ASSERT_EQ(kmstore_device_init(&device), 0);
    entries_before_ = Entries();
    log_.Clear();
  }

  std::string EntryPath(const std::string& name) {
    return device_.Path("kmstore/" + tavikm_host::KmstoreEntryFileName(name));
  }
  // The entries a refused call could have made, so it can be seen to have stored nothing.
  std::vector<std::string> Entries() {
    std::vector<std::string> names;
    for (const char* name : {"userdata", "k", "x"}) {
      if (access(EntryPath(name).c_str(), F_OK) == 0) names.push_back(name);
    }
    return names;
  }

  uint8_t master_key_[32] = {};
  km_meta meta_ = {};
  std::vector<std::string> entries_before_;
};

// The record and crypto layer: each missing pointer gets its own line, in the functions' own
// "%s::Failed, ... is NULL!" wording, and nothing else is logged.
TEST_F(ArgumentChecksTest, RecordAndCryptoFunctionsRefuseEachMissingPointer) {
  km_meta meta = meta_;
  uint8_t buffer[64] = {};
  uint8_t key[32] = {};
  uint8_t iv[16] = {};
  uint8_t tag[16] = {};
  uint64_t length = 0;
  size_t size = 0;
  const uint8_t* salt = meta.salt;
  const std::string kSetupStart = "Key manager meta data initial setup start!!\n";
  struct Case {
    std::string name;
    std::function<int()> call;
    int rc;
    Lines lines;
  };
  const std::vector<Case> cases = {
      {"get record",
       [&] { return km_get_km_meta("userdata", 0, nullptr); },
       -1,
       {LogLine::Error(Null("km_get_km_meta", "km_meta"))}},
      {"get place",
       [&] { return km_get_km_meta(nullptr, 0, &meta); },
       -1,
       {LogLine::Error(Null("km_get_km_meta", "key_loc"))}},
      {"put record",
       [&] { return km_put_km_meta("x", 0, nullptr); },
       -1,
       {LogLine::Error(Null("km_put_km_meta", "km_meta"))}},
      {"put place",
       [&] { return km_put_km_meta(nullptr, 0, &meta); },
       -1,
       {LogLine::Error(Null("km_put_km_meta", "key_loc"))}},
      {"delete place",
       [&] { return km_delete_meta(nullptr, 0); },
       -1,
       {LogLine::Error(Null("km_delete_meta", "key_loc"))}},
      {"setup password",
       [&] { return km_initial_setup("x", nullptr, 8, buffer, 32, KM_KDF_PBKDF2, &meta); },
       -1,
       {LogLine::Info(kSetupStart), LogLine::Error(Null("km_initial_setup", "passwd"))}},
      {"setup master key",
       [&] { return km_initial_setup("x", "pw", 2, nullptr, 32, KM_KDF_PBKDF2, &meta); },
       -1,
       {LogLine::Info(kSetupStart), LogLine::Error(Null("km_initial_setup", "master_key"))}},
      {"setup record",
       [&] { return km_initial_setup("x", "pw", 2, buffer, 32, KM_KDF_PBKDF2, nullptr); },
       -1,
       {LogLine::Info(kSetupStart), LogLine::Error("km_meta is Null!!\n")}},
      {"init record",
       [&] { return km_init_km_meta(nullptr, "x", 32, KM_KDF_PBKDF2); },
       -1,
       {LogLine::Error(Null("km_init_km_meta", "km_meta"))}},
      {"init for rek record",
       [&] { return km_init_km_meta_enc_by_rek(nullptr, "x", 32); },
       -1,
       {LogLine::Error(Null("km_init_km_meta_enc_by_rek", "km_meta"))}},
      {"put kek",
       [&] { return km_put_kek_enc_by_rek("k", nullptr, 32); },
       -1,
       {LogLine::Error(Null("km_put_kek_enc_by_rek", "kek"))}},
      {"get kek output",
       [&] { return km_get_kek_enc_by_rek("k", nullptr, &length); },
       -1,
       {LogLine::Error(Null("km_get_kek_enc_by_rek", "kek_out"))}},
      {"get kek length",
       [&] { return km_get_kek_enc_by_rek("k", buffer, nullptr); },
       -1,
       {LogLine::Error(Null("km_get_kek_enc_by_rek", "kek_len_out"))}},
      {"rek kdf password",
       [&] { return km_pbkdf2_rek(nullptr, 2, salt, buffer, &meta); },
       -1,
       {LogLine::Error(Null("km_pbkdf2_rek", "passwd"))}},
      {"rek kdf salt",
       [&] { return km_pbkdf2_rek("pw", 2, nullptr, buffer, &meta); },
       -1,
       {LogLine::Error(Null("km_pbkdf2_rek", "salt"))}},
      {"rek kdf output",
       [&] { return km_pbkdf2_rek("pw", 2, salt, nullptr, &meta); },
       -1,
       {LogLine::Error(Null("km_pbkdf2_rek", "ikey"))}},
      {"rek kdf record",
       [&] { return km_pbkdf2_rek("pw", 2, salt, buffer, nullptr); },
       -1,
       {LogLine::Error(Null("km_pbkdf2_rek", "km_meta"))}},
      {"device",
       [&] { return kmstore_device_init(nullptr); },
       -1,
       {LogLine::Error(Null("kmstore_device_init", "out"))}},
      {"property",
       [&] { return mdfpp_property_get(nullptr) ? 1 : 0; },
       0,
       {LogLine::Error(Null("mdfpp_property_get", "key"))}},
      {"hex text",
       [&] {
         size = 99;
         const uint8_t* bytes = km_convert_hex_ascii_to_key(nullptr, &size);
         return bytes == nullptr && size == 0 ? -1 : 0;
       },
       -1,
       {LogLine::Error(Null("km_convert_hex_ascii_to_key", "hex"))}},
      {"hex size",
       [&] { return km_convert_hex_ascii_to_key("0a", nullptr) ? 0 : -1; },
       -1,
       {LogLine::Error(Null("km_convert_hex_ascii_to_key", "out_size"))}},
      {"to hex key",
       [&] {
         char text[8] = "xxxxxxx";
         km_convert_key_to_hex_ascii(nullptr, 2, text);
         return text[0] == '\0' ? -1 : 0;
       },
       -1,
       {LogLine::Error(Null("km_convert_key_to_hex_ascii", "key"))}},
      {"to hex text",
       [&] {
         km_convert_key_to_hex_ascii(key, 2, nullptr);
         return -1;
       },
       -1,
       {LogLine::Error(Null("km_convert_key_to_hex_ascii", "out"))}},
      {"sha256 data",
       [&] { return km_sha256(nullptr, 5, buffer); },
       -1,
       {LogLine::Error(Null("km_sha256", "data"))}},
      {"sha256 digest",
       [&] { return km_sha256(key, 5, nullptr); },
       -1,
       {LogLine::Error(Null("km_sha256", "digest"))}},
      {"random output",
       [&] { return km_generate_drbg_bytes(nullptr, nullptr, 5); },
       -1,
       {LogLine::Error(Null("km_generate_drbg_bytes", "out"))}},
      {"verify mac",
       [&] { return km_verify_key_mac(nullptr, key); },
       -1,
       {LogLine::Error("Lack of parameter for verify MAC\n")}},
      {"mac record",
       [&] { return km_get_key_mac_by_password(key, salt, "pw", 2, buffer, nullptr); },
       -1,
       {LogLine::Error(Null("km_get_key_mac_by_password", "km_meta"))}},
  };
  std::vector<Case> all = cases;
  // The cipher calls, each pointer missing in turn.
  const std::vector<std::pair<std::string, std::function<int(int)>>> ciphers = {
      {"km_aes_gcm_encrypt",
       [&](int m) {
         return km_aes_gcm_encrypt(m == 0 ? nullptr : key, 32, nullptr, 0, m == 1 ? nullptr : key,
                                   32, m == 2 ? nullptr : iv, m == 3 ? nullptr : buffer,
                                   m == 4 ? nullptr : tag);
       }},
      {"km_aes_gcm_decrypt",
       [&](int m) {
         return km_aes_gcm_decrypt(m == 0 ? nullptr : key, 32, nullptr, 0, m == 1 ? nullptr : tag,
                                   m == 2 ? nullptr : key, 32, m == 3 ? nullptr : iv,
                                   m == 4 ? nullptr : buffer);
       }},
      {"km_aes_encrypt",
       [&](int m) {
         return km_aes_encrypt(m == 0 ? nullptr : key, 32, m == 1 ? nullptr : key, 32,
                               m == 2 ? nullptr : iv, m == 3 ? nullptr : buffer, 0);
       }},
      {"km_aes_decrypt",
       [&](int m) {
         return km_aes_decrypt(m == 0 ? nullptr : key, 32, m == 1 ? nullptr : key, 32,
                               m == 2 ? nullptr : iv, m == 3 ? nullptr : buffer, 0);
       }},
  };
  const std::vector<std::vector<std::string>> cipher_names = {
      {"plaintext", "key", "iv", "ciphertext", "tag"},
      {"ciphertext", "tag", "key", "iv", "plaintext"},
      {"in", "key", "iv", "out"},
      {"in", "key", "iv", "out"},
  };
  for (size_t c = 0; c < ciphers.size(); ++c) {
    for (size_t m = 0; m < cipher_names[c].size(); ++m) {
      const auto& call = ciphers[c].second;
      all.push_back({ciphers[c].first + " " + cipher_names[c][m],
                     [call, m] { return call(m); },
                     -1,
                     {LogLine::Error(Null(ciphers[c].first, cipher_names[c][m]))}});
    }
  }
  // The wrapping calls: password, salt, wrapped key, master key, record.
  for (const char* op : {"km_encrypt_key", "km_decrypt_key"}) {
    const char* names[] = {"passwd", "salt", "encrypted_key", "master_key", "km_meta"};
    for (int m = 0; m < 5; ++m) {
      all.push_back({std::string(op) + " " + names[m],
                     [&, op, m] {
                       const char* pw = m == 0 ? nullptr : "pw";
                       const uint8_t* s = m == 1 ? nullptr : salt;
                       uint8_t* wrapped = m == 2 ? nullptr : meta.master_key;
                       uint8_t* plain = m == 3 ? nullptr : buffer;
                       km_meta* record = m == 4 ? nullptr : &meta;
                       return strcmp(op, "km_encrypt_key") == 0
                                  ? km_encrypt_key(pw, 2, s, wrapped, plain, record)
                                  : km_decrypt_key(pw, 2, s, wrapped, plain, record);
                     },
                     -1,
                     {LogLine::Error(Null(op, names[m]))}});
    }
  }
  // scrypt refuses a missing buffer that should hold bytes, with EINVAL.
  const char* scrypt_names[] = {"password", "salt", "out"};
  for (int m = 0; m < 3; ++m) {
    all.push_back({std::string("crypto_scrypt ") + scrypt_names[m],
                   [&, m] {
                     errno = 0;
                     const int rc = crypto_scrypt(m == 0 ? nullptr : key, 8, m == 1 ? nullptr : key,
                                                  16, 16, 1, 1, m == 2 ? nullptr : buffer, 32);
                     return rc == -1 && errno == EINVAL ? -1 : 0;
                   },
                   -1,
                   {LogLine::Error(Null("crypto_scrypt", scrypt_names[m]))}});
  }

  const std::vector<uint8_t> stored_before = ReadFile(EntryPath("userdata"));
  for (const Case& c : all) {
    SCOPED_TRACE(c.name);
    log_.Clear();
    EXPECT_EQ(c.call(), c.rc);
    EXPECT_EQ(log_.Lines(), c.lines);
  }
  EXPECT_EQ(memcmp(&meta, &meta_, sizeof(meta)), 0);
  EXPECT_EQ(ReadFile(EntryPath("userdata")), stored_before);
  EXPECT_EQ(Entries(), entries_before_);
  // Buffers without bytes may be missing.
  EXPECT_EQ(km_sha256(nullptr, 0, buffer), 0);
  EXPECT_EQ(crypto_scrypt(nullptr, 0, nullptr, 0, 16, 1, 1, nullptr, 0), 0);
}

// Negative lengths never reach libcrypto.
TEST_F(ArgumentChecksTest, CipherCallsRefuseNegativeLengths) {
  uint8_t key[32] = {}, iv[16] = {}, tag[16] = {}, out[64];
  EXPECT_EQ(km_aes_gcm_encrypt(key, -16, nullptr, 0, key, 32, iv, out, tag), -1);
  EXPECT_EQ(km_aes_gcm_decrypt(key, 16, key, -1, tag, key, 32, iv, out), -1);
  EXPECT_EQ(km_aes_encrypt(key, -16, key, 32, iv, out, 0), -1);
  EXPECT_EQ(km_aes_decrypt(key, -32, key, 32, iv, out, 1), -1);
  EXPECT_EQ(log_.Texts(),
            (std::vector<std::string>{
                "(km_aes_gcm_encrypt)Invalid length -16", "(km_aes_gcm_decrypt)Invalid length -1",
                "(km_aes_encrypt)Invalid length -16", "(km_aes_decrypt)Invalid length -32"}));
}

// The Keymaster services beyond the pointers their own checks name: a missing nonce that should
// hold bytes, and a missing blob to upgrade.
TEST_F(ArgumentChecksTest, KeymasterServicesRefuseMissingBlobsAndNonces) {
  const Bytes key = CreateAesKey(), object(32, 7);
  unsigned char buffer[2048];
  unsigned char* out = nullptr;
  unsigned int size = 77;
  unsigned long blob_size = 77;
  struct Case {
    const char* source;
    std::function<int()> call;
  };
  const std::vector<Case> cases = {
      {"mdfpp/object_crypto.cpp",
       [&] {
         return keymaster_encrypt_object_for_mdfpp(key.data(), key.size(), nullptr, 12, 1,
                                                   object.data(), object.size(), &out, &size,
                                                   nullptr, 0, nullptr);
       }},
      {"mdfpp/object_crypto.cpp",
       [&] {
         return keymaster_decrypt_object_for_mdfpp(key.data(), key.size(), nullptr, 12, 1,
                                                   object.data(), object.size(), &out, &size,
                                                   nullptr, 0, nullptr);
       }},
      {"mdfpp/scrypt_keys.cpp",
       [&] {
         return keymaster_upgrade_key_for_cryptfs_scrypt_mdfpp(2048, 65537, 1, nullptr, 100, buffer,
                                                               sizeof(buffer), &blob_size);
       }},
  };
  const int begins = tavikm_host::KeymasterCallCount(tavikm_host::KeymasterCall::kBegin);
  for (const Case& c : cases) {
    SCOPED_TRACE(c.source);
    log_.Clear();
    EXPECT_EQ(c.call(), -1);
    EXPECT_THAT(log_.Lines(), ElementsAre(DeviceLine(), InvalidArgumentFrom(c.source)));
  }
  // This upgrade checks its blob before it opens a session.
  log_.Clear();
  EXPECT_EQ(keymaster_upgrade_key_for_cryptfs_pbkdf2_mdfpp(nullptr, 100, buffer, sizeof(buffer),
                                                           &blob_size),
            -1);
  EXPECT_THAT(log_.Lines(), ElementsAre(InvalidArgumentFrom("mdfpp/scrypt_keys.cpp")));
  EXPECT_EQ(tavikm_host::KeymasterCallCount(tavikm_host::KeymasterCall::kBegin), begins);
  EXPECT_EQ(tavikm_host::KeymasterCallCount(tavikm_host::KeymasterCall::kUpgradeKey), 0);
  EXPECT_EQ(out, nullptr);
  EXPECT_EQ(size, 77u);
}

// The client classes: an update without input or consumer fails and ends the operation (the
// device sees an abort, not an update), and a session without a device fails every call.
TEST_F(ArgumentChecksTest, KeymasterClientRefusesMissingInputConsumerAndDevice) {
  namespace hw = ::android::hardware::keymaster::V4_0;
  using android::mdfpp::Keymaster;
  const Bytes blob = CreateAesKey();
  const std::string key(blob.begin(), blob.end());
  hw::AuthorizationSetBuilder params;
  params.Authorization(hw::TAG_BLOCK_MODE, hw::BlockMode::GCM)
      .Authorization(hw::TAG_MAC_LENGTH, 128u)
      .Padding(hw::PaddingMode::NONE);
  const std::string nonce(12, 'n');
  params.Authorization(hw::TAG_NONCE, nonce.data(), nonce.size());
  {
    Keymaster km;
    for (bool missing_input : {true, false}) {
      SCOPED_TRACE(missing_input);
      auto op = km.begin(hw::KeyPurpose::ENCRYPT, key, params, {}, nullptr);
      ASSERT_EQ(op.getErrorCode(), hw::ErrorCode::OK);
      const int updates = tavikm_host::KeymasterCallCount(tavikm_host::KeymasterCall::kUpdate);
      log_.Clear();
      EXPECT_FALSE(missing_input ? op.updateCompletely(nullptr, 5, [](const char*, size_t) {})
                                 : op.updateCompletely("12345", 5, nullptr));
      EXPECT_EQ(log_.Lines(),
                (Lines{KmError(std::string("update failed: ") +
                               (missing_input ? "input" : "consumer") + " is missing")}));
      EXPECT_EQ(tavikm_host::KeymasterCallCount(tavikm_host::KeymasterCall::kUpdate), updates);
      EXPECT_FALSE(op.finish(nullptr));
      EXPECT_EQ(tavikm_host::KeymasterOpenOperations(), 0u);
    }
  }
  tavikm_host::SetKeymasterDeviceLevels({});
  Keymaster none;
  ASSERT_FALSE(none);
  log_.Clear();
  std::string out;
  EXPECT_FALSE(none.generateKey(params, &out));
  EXPECT_FALSE(none.upgradeKey(key, params, &out));
  EXPECT_FALSE(none.deleteKey(key));
  EXPECT_EQ(none.begin(hw::KeyPurpose::ENCRYPT, key, params, {}, nullptr).getErrorCode(),
            hw::ErrorCode::UNKNOWN_ERROR);
  EXPECT_FALSE(none.isSecure());
  EXPECT_EQ(log_.Lines(), (Lines{KmError("generate_key failed: no Keymaster device"),
                                 KmError("upgrade_key failed: no Keymaster device"),
                                 KmError("delete_key failed: no Keymaster device"),
                                 KmError("begin failed: no Keymaster device"),
                                 KmError("is_secure failed: no Keymaster device")}));
}

}  // namespace
}  // namespace tavikm_test::mdfpp
