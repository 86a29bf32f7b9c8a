// SPDX-License-Identifier: Apache-2.0
// The legacy Keymaster path on the host's "keystore" module: opening the device, the 32-byte
// message encryption (checked against libcrypto on an imported key), its failure messages, and
// the kek mac made and checked over a record.
#include <cutils/properties.h>
#include <errno.h>
#include <gtest/gtest.h>
#include <openssl/evp.h>
#include <openssl/hmac.h>
#include <stddef.h>
#include <string.h>

#include <string>
#include <vector>

#include "keymaster/legacy_keymaster.h"
#include "keymaster_host_util.h"
#include "support/device_env.h"
#include "tavikm_host/keymaster.h"
#include "tavikm_host/keymaster_faults.h"
#include "tavikm_host/modules.h"

namespace tavikm_test {
namespace {

using kmhost::Bytes;
using tavikm_host::LegacyKeymasterCall;

// What every call that opens the keymaster1 device logs first.
const std::vector<LogLine> kOpenLines = {
    LogLine::Info("keymaster module name is TAVIKM host keystore"),
    LogLine::Info("keymaster version is 256"),
    LogLine::Info("Found keymaster1 module, using keymaster1 API."),
};

const std::vector<LogLine> kKeymaster0OpenLines = {
    LogLine::Info("keymaster module name is TAVIKM host keystore"),
    LogLine::Info("keymaster version is 512"),
    LogLine::Info("Found keymaster0 module, using keymaster0 API."),
};

std::vector<LogLine> AfterOpen(std::vector<LogLine> more) {
  std::vector<LogLine> lines = kOpenLines;
  lines.insert(lines.end(), more.begin(), more.end());
  return lines;
}

Bytes Pattern(size_t size, uint8_t start) {
  Bytes b(size);
  for (size_t i = 0; i < size; ++i) b[i] = static_cast<uint8_t>(start + 5 * i);
  return b;
}

Bytes AesCbc(const Bytes& key, const uint8_t* iv, const Bytes& in, bool encrypt) {
  EVP_CIPHER_CTX* ctx = EVP_CIPHER_CTX_new();
  Bytes out(in.size() + 16);
  int n = 0, m = 0;
  EXPECT_TRUE(EVP_CipherInit_ex(ctx, EVP_aes_256_cbc(), nullptr, key.data(), iv, encrypt));
  EXPECT_TRUE(EVP_CIPHER_CTX_set_padding(ctx, 0));
  EXPECT_TRUE(EVP_CipherUpdate(ctx, out.data(), &n, in.data(), static_cast<int>(in.size())));
  EXPECT_TRUE(EVP_CipherFinal_ex(ctx, out.data() + n, &m));
  EVP_CIPHER_CTX_free(ctx);
  out.resize(static_cast<size_t>(n + m));
  return out;
}

class LegacyKeymasterTest : public DeviceTest {
 protected:
  // A record with the library's AES key, made from known key bytes so libcrypto can check the
  // device's work, and a 32-byte XTKM value.
  void SetUp() override {
    memset(&meta_, 0, sizeof(meta_));
    strcpy(meta_.key_name, "userdata");
    Bytes iv = Pattern(16, 0x90);
    memcpy(meta_.object_iv, iv.data(), iv.size());
    raw_key_ = Pattern(32, 0x30);
    kmhost::KeymasterPtr km = kmhost::FirstDevice();
    ASSERT_TRUE(km);
    kmhost::KeyResult key = kmhost::Import(*km, kmhost::AesGcmKey(256), raw_key_);
    ASSERT_EQ(key.error, kmhost::ErrorCode::OK);
    ASSERT_LE(key.blob.size(), sizeof(meta_.km_key_blob));
    memcpy(meta_.km_key_blob, key.blob.data(), key.blob.size());
    meta_.km_key_blob_size = key.blob.size();
    Bytes xtkm = Pattern(32, 0x11);
    memcpy(meta_.xtkm_value, xtkm.data(), xtkm.size());
    meta_.xtkm_value_size = xtkm.size();
    key_ = {meta_.km_key_blob, meta_.km_key_blob_size};
  }

  int Encrypt(const Bytes& in, Bytes* out) {
    out->assign(32, 0);
    return km_keymaster_encrypt_message(&meta_, &key_, in.data(), out->data());
  }
  int Decrypt(const Bytes& in, Bytes* out) {
    out->assign(32, 0);
    return km_keymaster_decrypt_message(&meta_, &key_, in.data(), out->data());
  }

  // The record's MAC key, as the device recovers it.
  Bytes MacKey() {
    Bytes key;
    EXPECT_EQ(Decrypt(Bytes(meta_.mac_key_enc, meta_.mac_key_enc + 32), &key), 0);
    return key;
  }

  km_meta meta_;
  Bytes raw_key_;
  keymaster_key_blob_t key_;
};

// ---- Opening the device ---------------------------------------------------------------------

TEST_F(LegacyKeymasterTest, InitOpensAKeymaster1OrAKeymaster0Device) {
  keymaster0_device_t* km0 = nullptr;
  keymaster1_device_t* km1 = nullptr;
  ASSERT_EQ(km_keymaster_init(&km0, &km1), 0);
  EXPECT_EQ(km0, nullptr);
  ASSERT_NE(km1, nullptr);
  keymaster1_close(km1);
  EXPECT_EQ(log_.Lines(), kOpenLines);

  // Any version but exactly 1.0, newer ones included, is taken as keymaster0.
  property_set("host.keystore.api_version", "0x0200");
  log_.Clear();
  ASSERT_EQ(km_keymaster_init(&km0, &km1), 0);
  ASSERT_NE(km0, nullptr);
  EXPECT_EQ(km1, nullptr);
  keymaster0_close(km0);
  EXPECT_EQ(log_.Lines(), kKeymaster0OpenLines);

  // A keymaster0 module refuses messages without a word, before any operation.
  const int closes = tavikm_host::LegacyKeymasterCallCount(LegacyKeymasterCall::kClose);
  log_.Clear();
  Bytes out;
  EXPECT_EQ(Encrypt(Pattern(32, 1), &out), -1);
  EXPECT_EQ(Decrypt(Pattern(32, 1), &out), -1);
  std::vector<LogLine> twice = kKeymaster0OpenLines;
  twice.insert(twice.end(), kKeymaster0OpenLines.begin(), kKeymaster0OpenLines.end());
  EXPECT_EQ(log_.Lines(), twice);
  EXPECT_EQ(tavikm_host::LegacyKeymasterCallCount(LegacyKeymasterCall::kClose), closes + 2);
  EXPECT_EQ(tavikm_host::LegacyKeymasterCallCount(LegacyKeymasterCall::kBegin), 0);
}

TEST_F(LegacyKeymasterTest, InitReportsLookupAndOpenFailuresWithBothOutputsNull) {
  keymaster0_device_t* km0 = reinterpret_cast<keymaster0_device_t*>(&meta_);
  keymaster1_device_t* km1 = reinterpret_cast<keymaster1_device_t*>(&meta_);
  tavikm_host::FailModuleLookup("keystore", -ENODEV);
  EXPECT_EQ(km_keymaster_init(&km0, &km1), -ENODEV);
  EXPECT_EQ(km0, nullptr);
  EXPECT_EQ(km1, nullptr);
  // No module, no message.
  Bytes out;
  EXPECT_EQ(Encrypt(Pattern(32, 2), &out), -1);
  EXPECT_EQ(log_.Lines(),
            (std::vector<LogLine>{LogLine::Error("could not find any keystore module"),
                                  LogLine::Error("could not find any keystore module"),
                                  LogLine::Error("Failed to init keymaster")}));

  tavikm_host::RestoreBuiltinModules();
  tavikm_host::FailLegacyKeymasterCall(LegacyKeymasterCall::kOpen, 1, -EIO);
  km1 = reinterpret_cast<keymaster1_device_t*>(&meta_);
  log_.Clear();
  EXPECT_EQ(km_keymaster_init(&km0, &km1), -EIO);
  EXPECT_EQ(km0, nullptr);
  EXPECT_EQ(km1, nullptr);
  EXPECT_EQ(log_.Lines(),
            AfterOpen({LogLine::Error(
                "could not open keymaster device in keystore (Input/output error)")}));
}

// ---- Messages -------------------------------------------------------------------------------

TEST_F(LegacyKeymasterTest, MessagesAreAesCbcUnderTheRecordsKeyAndIv) {
  Bytes secret = Pattern(32, 0x01), sealed, opened;
  ASSERT_EQ(Encrypt(secret, &sealed), 0);
  EXPECT_EQ(sealed, AesCbc(raw_key_, meta_.object_iv, secret, true));
  ASSERT_EQ(Decrypt(sealed, &opened), 0);
  EXPECT_EQ(opened, secret);
  EXPECT_EQ(log_.Lines(), AfterOpen(kOpenLines));
  // The device is opened and closed per message, and no operation is left behind.
  EXPECT_EQ(tavikm_host::LegacyKeymasterCallCount(LegacyKeymasterCall::kOpen), 2);
  EXPECT_EQ(tavikm_host::LegacyKeymasterCallCount(LegacyKeymasterCall::kClose), 2);
  EXPECT_EQ(tavikm_host::KeymasterOpenOperations(), 0u);

  // In place, as the callers do with the XTKM value.
  Bytes buffer = secret;
  ASSERT_EQ(km_keymaster_encrypt_message(&meta_, &key_, buffer.data(), buffer.data()), 0);
  EXPECT_EQ(buffer, sealed);
}

TEST_F(LegacyKeymasterTest, EachFailingStepSaysSoExceptADecryptUpdate) {
  struct Case {
    LegacyKeymasterCall call;
    bool encrypt;
    const char* line;
  };
  const Case cases[] = {
      {LegacyKeymasterCall::kBegin, true, "Failed to begin cipher for aes enc(err=-48)"},
      {LegacyKeymasterCall::kBegin, false, "Failed to begin cipher for aes dec(err=-48)"},
      {LegacyKeymasterCall::kUpdate, true, "Failed to update cipher for aes enc(err=-48)"},
      {LegacyKeymasterCall::kUpdate, false, nullptr},
      {LegacyKeymasterCall::kFinish, true, "Failed to finish cipher for aes enc(err=-48)"},
      {LegacyKeymasterCall::kFinish, false, "Failed to finish cipher for aes dec(err=-48)"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(static_cast<int>(c.call) * 2 + c.encrypt);
    tavikm_host::ResetKeymaster();
    log_.Clear();
    tavikm_host::FailLegacyKeymasterCall(c.call, 1, KM_ERROR_SECURE_HW_BUSY);
    Bytes out;
    EXPECT_EQ(c.encrypt ? Encrypt(Pattern(32, 2), &out) : Decrypt(Pattern(32, 2), &out), -1);
    EXPECT_EQ(log_.Lines(), c.line ? AfterOpen({LogLine::Error(c.line)}) : kOpenLines);
    EXPECT_EQ(tavikm_host::LegacyKeymasterCallCount(LegacyKeymasterCall::kClose), 1);
    // A failed step ends the operation on the device: nothing is aborted.
    EXPECT_EQ(tavikm_host::LegacyKeymasterCallCount(LegacyKeymasterCall::kAbort), 0);
    EXPECT_EQ(tavikm_host::KeymasterOpenOperations(), 0u);
  }
}

// ---- The kek mac ----------------------------------------------------------------------------

TEST_F(LegacyKeymasterTest, GeneratedMacVerifiesAndCoversTheXtkmValue) {
  ASSERT_EQ(km_generate_HMAC(&meta_), 0);
  EXPECT_EQ(meta_.kek_mac_size, 32u);
  EXPECT_EQ(meta_.mac_key_size, 32u);

  // kek_mac is HMAC-SHA256 under the key that mac_key_enc holds for the device.
  Bytes mac_key = MacKey();
  uint8_t expected[32];
  unsigned int len = 0;
  ASSERT_TRUE(
      HMAC(EVP_sha256(), mac_key.data(), mac_key.size(), meta_.xtkm_value, 32, expected, &len));
  EXPECT_EQ(Bytes(meta_.kek_mac, meta_.kek_mac + 32), Bytes(expected, expected + 32));
  EXPECT_NE(mac_key, Bytes(32, 0));

  log_.Clear();
  EXPECT_EQ(km_verify_HMAC(&meta_), 0);
  EXPECT_EQ(log_.Lines(), AfterOpen({LogLine::Info("success to verify userdata_mac\n")}));

  // Only the used bytes are covered.
  meta_.xtkm_value[40] ^= 1;
  EXPECT_EQ(km_verify_HMAC(&meta_), 0);

  // A fresh MAC key each time.
  km_meta again = meta_;
  ASSERT_EQ(km_generate_HMAC(&again), 0);
  EXPECT_NE(Bytes(again.mac_key_enc, again.mac_key_enc + 32),
            Bytes(meta_.mac_key_enc, meta_.mac_key_enc + 32));
}

TEST_F(LegacyKeymasterTest, AnyChangedByteFailsVerification) {
  ASSERT_EQ(km_generate_HMAC(&meta_), 0);
  const km_meta good = meta_;
  struct Case {
    const char* what;
    uint8_t* byte;
    bool unterminated_name;  // the name in the message is cut at its field
  };
  const Case cases[] = {
      {"xtkm_value", &meta_.xtkm_value[0], false},
      {"last used xtkm_value byte", &meta_.xtkm_value[31], false},
      {"kek_mac", &meta_.kek_mac[17], false},
      {"mac_key_enc", &meta_.mac_key_enc[3], false},
      {"xtkm_value, unterminated key_name", &meta_.xtkm_value[0], true},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.what);
    meta_ = good;
    *c.byte ^= 0x01;
    if (c.unterminated_name) memset(meta_.key_name, 'k', sizeof(meta_.key_name));
    const std::string name = c.unterminated_name ? std::string(256, 'k') : "userdata";
    log_.Clear();
    EXPECT_EQ(km_verify_HMAC(&meta_), -1);
    EXPECT_EQ(log_.Lines(), AfterOpen({LogLine::Error("Failed to verify " + name + "_mac\n")}));
  }
}

TEST_F(LegacyKeymasterTest, KeymasterFailuresStopTheMac) {
  tavikm_host::FailLegacyKeymasterCall(LegacyKeymasterCall::kBegin, 1, KM_ERROR_INVALID_KEY_BLOB);
  EXPECT_EQ(km_generate_HMAC(&meta_), -1);
  EXPECT_EQ(log_.Lines(), AfterOpen({LogLine::Error("Failed to begin cipher for aes enc(err=-33)"),
                                     LogLine::Error("Failed to encrypt mac key by keymaster")}));
  EXPECT_EQ(meta_.kek_mac_size, 0u);
  EXPECT_EQ(meta_.mac_key_size, 32u);  // set before the encryption, and left so

  ASSERT_EQ(km_generate_HMAC(&meta_), 0);
  tavikm_host::FailLegacyKeymasterCall(LegacyKeymasterCall::kUpdate, 1, KM_ERROR_UNKNOWN_ERROR);
  log_.Clear();
  EXPECT_EQ(km_verify_HMAC(&meta_), -1);
  EXPECT_EQ(log_.Lines(), AfterOpen({LogLine::Error("Failed to decrypt mac key by keymaster")}));
}

TEST_F(LegacyKeymasterTest, AnUpdateThatTakesLessThanTheMessageFails) {
  Bytes secret = Pattern(32, 0x55), sealed;
  ASSERT_EQ(Encrypt(secret, &sealed), 0);
  for (size_t limit : {size_t{0}, size_t{16}, size_t{31}}) {
    SCOPED_TRACE(limit);
    tavikm_host::SetKeymasterUpdateLimit(limit);
    const int aborts = tavikm_host::LegacyKeymasterCallCount(LegacyKeymasterCall::kAbort);
    Bytes out;
    log_.Clear();
    EXPECT_EQ(Encrypt(secret, &out), -1);
    EXPECT_EQ(out, Bytes(32, 0));  // not even the blocks the device did take
    EXPECT_EQ(log_.Lines(),
              AfterOpen({LogLine::Error("Failed to update cipher for aes enc(err=0)")}));
    log_.Clear();
    EXPECT_EQ(Decrypt(sealed, &out), -1);
    EXPECT_EQ(out, Bytes(32, 0));
    EXPECT_EQ(log_.Lines(), kOpenLines);  // the decrypt side keeps its silence
    // Neither operation was finished; both were aborted, none is left open.
    EXPECT_EQ(tavikm_host::LegacyKeymasterCallCount(LegacyKeymasterCall::kAbort), aborts + 2);
    EXPECT_EQ(tavikm_host::LegacyKeymasterCallCount(LegacyKeymasterCall::kFinish), 1);
    EXPECT_EQ(tavikm_host::KeymasterOpenOperations(), 0u);
  }
}

// Records come from storage: their lengths are not trusted to stay inside the record.
TEST_F(LegacyKeymasterTest, CorruptLengthsFailInsteadOfReadingOutsideTheRecord) {
  const size_t to_end = sizeof(km_meta) - offsetof(km_meta, xtkm_value);
  ASSERT_EQ(to_end, 184u);
  km_meta edge = meta_;
  edge.xtkm_value_size = to_end;  // runs to the record's last byte: still MACed
  EXPECT_EQ(km_generate_HMAC(&edge), 0);
  const km_meta before = edge;
  edge.xtkm_value_size = to_end + 1;
  log_.Clear();
  EXPECT_EQ(km_generate_HMAC(&edge), -1);
  EXPECT_EQ(log_.Lines(), AfterOpen({LogLine::Error("Failed to create userdata_mac\n")}));
  EXPECT_EQ(Bytes(edge.kek_mac, edge.kek_mac + 32), Bytes(before.kek_mac, before.kek_mac + 32));

  ASSERT_EQ(km_generate_HMAC(&meta_), 0);
  const km_meta good = meta_;
  meta_.xtkm_value_size = UINT64_MAX;
  log_.Clear();
  EXPECT_EQ(km_verify_HMAC(&meta_), -1);
  EXPECT_EQ(log_.Lines(),
            AfterOpen({LogLine::Error("Failed to create userdata_mac for verify\n")}));

  // The MAC key may be up to its 64-byte buffer long, not longer.
  meta_ = good;
  meta_.mac_key_size = 64;
  // The buffer's zeroed tail: HMAC pads short keys with zeros anyway, so the MAC still holds.
  EXPECT_EQ(km_verify_HMAC(&meta_), 0);
  meta_.mac_key_size = 65;
  log_.Clear();
  EXPECT_EQ(km_verify_HMAC(&meta_), -1);
  EXPECT_EQ(log_.Lines(),
            AfterOpen({LogLine::Error("Failed to create userdata_mac for verify\n")}));

  // A blob length past the blob field never reaches the device.
  meta_ = good;
  meta_.km_key_blob_size = sizeof(meta_.km_key_blob) + 1;
  log_.Clear();
  EXPECT_EQ(km_generate_HMAC(&meta_), -1);
  EXPECT_EQ(km_verify_HMAC(&meta_), -1);
  EXPECT_EQ(log_.Lines(),
            (std::vector<LogLine>{LogLine::Error("Failed to encrypt mac key by keymaster"),
                                  LogLine::Error("Failed to decrypt mac key by keymaster")}));
}

}  // namespace
}  // namespace tavikm_test
