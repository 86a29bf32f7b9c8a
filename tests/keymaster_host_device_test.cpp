// SPDX-License-Identifier: Apache-2.0
// The host's software Keymaster 4.0 device as the library meets it: AES-GCM and raw RSA
// operations, key blobs bound to the device directory and to the OS version and patch level,
// rate limits, the operation table, and device enumeration.
#include <cutils/properties.h>
#include <gtest/gtest.h>
#include <openssl/evp.h>
#include <stdlib.h>
#include <sys/stat.h>

#include <string>
#include <utility>
#include <vector>

#include "keymaster_host_util.h"
#include "platform/host/keymaster/key_blob.h"
#include "support/device_env.h"
#include "tavikm_host/keymaster.h"

namespace tavikm_test::kmhost {
namespace {

using hw::KeyPurpose;

const Bytes kNonce(12, 0x42);

Bytes Message(size_t size) {
  Bytes m(size);
  for (size_t i = 0; i < size; ++i) m[i] = static_cast<uint8_t>(i * 7 + 1);
  return m;
}

class KeymasterDeviceTest : public DeviceTest {
 protected:
  void SetUp() override {
    km_ = FirstDevice();
    ASSERT_TRUE(km_);
  }

  Bytes NewAesKey(const hw::AuthorizationSet& params = AesGcmKey()) {
    KeyResult key = Generate(*km_, params);
    EXPECT_EQ(key.error, ErrorCode::OK);
    return key.blob;
  }

  // The answer to the library's begin of an encryption; an operation begun is aborted again.
  ErrorCode BeginError(const Bytes& key) {
    Begun begun = Begin(*km_, KeyPurpose::ENCRYPT, key, GcmParams(kNonce));
    if (begun.error == ErrorCode::OK) Abort(*km_, begun.handle);
    return begun.error;
  }

  KeymasterPtr km_;
};

// --- AES-GCM -----------------------------------------------------------------------------

TEST_F(KeymasterDeviceTest, GcmAgreesWithLibcryptoAndStreams) {
  Bytes raw(32);
  for (size_t i = 0; i < raw.size(); ++i) raw[i] = static_cast<uint8_t>(0xa0 + i);
  KeyResult key = Import(*km_, AesGcmKey(), raw);
  ASSERT_EQ(key.error, ErrorCode::OK);
  Bytes plain = Message(40);
  Bytes expected(plain.size()), tag(16);
  EVP_CIPHER_CTX* ctx = EVP_CIPHER_CTX_new();
  int n = 0;
  ASSERT_TRUE(EVP_EncryptInit_ex(ctx, EVP_aes_256_gcm(), nullptr, raw.data(), kNonce.data()));
  ASSERT_TRUE(EVP_EncryptUpdate(ctx, expected.data(), &n, plain.data(), plain.size()));
  ASSERT_TRUE(EVP_EncryptFinal_ex(ctx, tag.data(), &n));
  ASSERT_TRUE(EVP_CIPHER_CTX_ctrl(ctx, EVP_CTRL_GCM_GET_TAG, 16, tag.data()));
  EVP_CIPHER_CTX_free(ctx);

  // Ciphertext as the updates go, the tag at finish.
  Begun enc = Begin(*km_, KeyPurpose::ENCRYPT, key.blob, GcmParams(kNonce));
  ASSERT_EQ(enc.error, ErrorCode::OK);
  Step first = Update(*km_, enc.handle, Bytes(plain.begin(), plain.begin() + 25));
  Step second = Update(*km_, enc.handle, Bytes(plain.begin() + 25, plain.end()));
  Step last = Finish(*km_, enc.handle);
  ASSERT_EQ(last.error, ErrorCode::OK);
  EXPECT_EQ(first.consumed, 25u);
  EXPECT_EQ(Concat(first.output, second.output), expected);
  EXPECT_EQ(second.output.size(), 15u);
  EXPECT_EQ(last.output, tag);
  EXPECT_EQ(Abort(*km_, enc.handle), ErrorCode::INVALID_OPERATION_HANDLE);  // finished

  // Decryption holds back what may be the tag until finish.
  Bytes sealed = Concat(expected, tag);
  Begun dec = Begin(*km_, KeyPurpose::DECRYPT, key.blob, GcmParams(kNonce));
  ASSERT_EQ(dec.error, ErrorCode::OK);
  Step part = Update(*km_, dec.handle, sealed);
  EXPECT_EQ(part.consumed, sealed.size());
  EXPECT_EQ(part.output.size(), 40u);
  Step end = Finish(*km_, dec.handle);
  ASSERT_EQ(end.error, ErrorCode::OK);
  EXPECT_EQ(Concat(part.output, end.output), plain);
  EXPECT_EQ(tavikm_host::KeymasterOpenOperations(), 0u);
}

TEST_F(KeymasterDeviceTest, GcmRefusesAChangedMessageAtFinish) {
  Bytes key = NewAesKey();
  Bytes sealed = GcmRun(*km_, KeyPurpose::ENCRYPT, key, kNonce, Message(32)).output;
  ASSERT_EQ(sealed.size(), 48u);
  for (size_t at : {size_t{0}, size_t{31}, size_t{32}, size_t{47}}) {
    SCOPED_TRACE(at);
    Bytes changed = sealed;
    changed[at] ^= 0x01;
    Begun dec = Begin(*km_, KeyPurpose::DECRYPT, key, GcmParams(kNonce));
    EXPECT_EQ(Update(*km_, dec.handle, changed).error, ErrorCode::OK);
    Step end = Finish(*km_, dec.handle);
    EXPECT_EQ(end.error, ErrorCode::VERIFICATION_FAILED);
    EXPECT_TRUE(end.output.empty());
  }
  EXPECT_EQ(GcmRun(*km_, KeyPurpose::DECRYPT, key, Bytes(12, 0), sealed).error,
            ErrorCode::VERIFICATION_FAILED);
  // Shorter than a tag cannot be a message.
  EXPECT_EQ(GcmRun(*km_, KeyPurpose::DECRYPT, key, kNonce, Bytes(15)).error,
            ErrorCode::INVALID_INPUT_LENGTH);
  EXPECT_EQ(tavikm_host::KeymasterOpenOperations(), 0u);
}

// --- RSA ---------------------------------------------------------------------------------

// The library's callers choose the size and exponent of the binding key.
TEST_F(KeymasterDeviceTest, RsaGenerationRefusesWhatThisHardwareCannotMake) {
  const struct {
    uint32_t bits;
    uint64_t exponent;
    ErrorCode expected;
  } cases[] = {{1024, 65537, ErrorCode::UNSUPPORTED_KEY_SIZE},
               {2048, 3, ErrorCode::INVALID_ARGUMENT}};
  for (const auto& c : cases) {
    SCOPED_TRACE(c.bits);
    hw::AuthorizationSetBuilder params;
    params.RsaSigningKey(c.bits, c.exponent).NoDigestOrPadding();
    KeyResult key = Generate(*km_, params);
    EXPECT_EQ(key.error, c.expected);
    EXPECT_TRUE(key.blob.empty());
  }
}

// The library signs whatever object its caller hands it; that the signature is the raw RSA of
// the object is checked against the public half in mdfpp_rsa_test.cpp. A refused step ends the
// operation, and with it starts the key's rate limit.
TEST_F(KeymasterDeviceTest, RawRsaSignsNumbersBelowTheModulusOnly) {
  uint64_t now = 5000;
  tavikm_host::SetKeymasterClock([&now] { return now; });
  // The library's RSA binding key.
  hw::AuthorizationSetBuilder params;
  params.RsaSigningKey(2048, 65537)
      .NoDigestOrPadding()
      .Authorization(hw::TAG_BLOB_USAGE_REQUIREMENTS, hw::KeyBlobUsageRequirements::STANDALONE)
      .Authorization(hw::TAG_NO_AUTH_REQUIRED)
      .Authorization(hw::TAG_MIN_SECONDS_BETWEEN_OPS, 1u);
  KeyResult key = Generate(*km_, params);
  ASSERT_EQ(key.error, ErrorCode::OK);
  hw::AuthorizationSetBuilder raw;
  raw.NoDigestOrPadding();
  auto sign = [&](const Bytes& object) {
    now += 1000;
    return Finish(*km_, Begin(*km_, KeyPurpose::SIGN, key.blob, raw).handle, object);
  };
  Bytes object(256, 0);  // the library's object: a zero byte, then data
  for (size_t i = 1; i < object.size(); ++i) object[i] = static_cast<uint8_t>(i);
  Step signature = sign(object);
  ASSERT_EQ(signature.error, ErrorCode::OK);
  EXPECT_EQ(signature.output.size(), 256u);
  // Shorter input is a number with zeros on the left.
  EXPECT_EQ(sign(Bytes(object.begin() + 1, object.end())).output, signature.output);
  // As long as the modulus but not below it: refused at finish.
  EXPECT_EQ(sign(Bytes(256, 0xff)).error, ErrorCode::INVALID_ARGUMENT);

  // Longer than the modulus: refused as it comes in.
  now += 1000;
  Begun begun = Begin(*km_, KeyPurpose::SIGN, key.blob, raw);
  EXPECT_EQ(Update(*km_, begun.handle, Bytes(200)).error, ErrorCode::OK);
  EXPECT_EQ(Update(*km_, begun.handle, Bytes(57)).error, ErrorCode::INVALID_INPUT_LENGTH);
  EXPECT_EQ(Begin(*km_, KeyPurpose::SIGN, key.blob, raw).error, ErrorCode::KEY_RATE_LIMIT_EXCEEDED);
  EXPECT_EQ(tavikm_host::KeymasterOpenOperations(), 0u);
}

// --- Key blobs ---------------------------------------------------------------------------

TEST_F(KeymasterDeviceTest, DeviceSecretIsMadeOnFirstUsePrivateAndKept) {
  const std::string path = device_.Path("keymaster/device_secret");
  struct stat st;
  ASSERT_NE(stat(path.c_str(), &st), 0);
  Bytes key = NewAesKey();
  ASSERT_EQ(stat(path.c_str(), &st), 0);
  EXPECT_EQ(st.st_size, 32);
  EXPECT_EQ(st.st_mode & 0777, 0600u);
  Bytes secret = ReadFile(path);
  NewAesKey();
  EXPECT_EQ(ReadFile(path), secret);

  // A damaged secret is never replaced: keys made under it would be lost for good.
  WriteFile(path, Bytes(31, 0));
  EXPECT_EQ(Generate(*km_, AesGcmKey()).error, ErrorCode::UNKNOWN_ERROR);
  EXPECT_EQ(BeginError(key), ErrorCode::INVALID_KEY_BLOB);
  EXPECT_EQ(ReadFile(path).size(), 31u);
}

TEST_F(KeymasterDeviceTest, ChangedOrTruncatedBlobsAreInvalid) {
  Bytes key = NewAesKey();
  ASSERT_EQ(GcmRun(*km_, KeyPurpose::ENCRYPT, key, kNonce, Message(4)).error, ErrorCode::OK);
  std::vector<Bytes> bad = {Bytes(), Bytes(key.begin(), key.end() - 1), Concat(key, {0})};
  for (size_t at = 0; at < key.size(); at += 7) {
    bad.push_back(key);
    bad.back()[at] ^= 0x20;
  }
  bad.push_back(key);
  bad.back().back() ^= 0x01;
  for (const Bytes& blob : bad) {
    EXPECT_EQ(BeginError(blob), ErrorCode::INVALID_KEY_BLOB);
    EXPECT_EQ(Upgrade(*km_, blob).error, ErrorCode::INVALID_KEY_BLOB);
  }
}

TEST_F(KeymasterDeviceTest, BlobsOfAnotherDeviceDirectoryOrLevelAreInvalid) {
  Bytes key = NewAesKey();
  std::string other = device_.Path("other-device");
  setenv("TAVIKM_DEVICE_DIR", other.c_str(), 1);
  EXPECT_EQ(BeginError(key), ErrorCode::INVALID_KEY_BLOB);
  EXPECT_EQ(Generate(*km_, AesGcmKey()).error, ErrorCode::OK);  // that device has its own secret
  setenv("TAVIKM_DEVICE_DIR", device_.path().c_str(), 1);
  EXPECT_EQ(GcmRun(*km_, KeyPurpose::ENCRYPT, key, kNonce, Message(4)).error, ErrorCode::OK);

  // A TEE's blob means nothing to a software Keymaster of the same phone.
  property_set("host.keymaster.devices", "SOFTWARE");
  km_ = FirstDevice();
  ASSERT_TRUE(km_);
  EXPECT_EQ(BeginError(key), ErrorCode::INVALID_KEY_BLOB);
}

TEST_F(KeymasterDeviceTest, DeletedKeysStayDeleted) {
  Bytes key = NewAesKey();
  Bytes kept = NewAesKey();
  EXPECT_EQ(static_cast<ErrorCode>(km_->deleteKey(View(key))), ErrorCode::OK);
  EXPECT_EQ(BeginError(key), ErrorCode::INVALID_KEY_BLOB);
  // Also for later device objects, which is how the library meets it.
  EXPECT_EQ(Begin(*FirstDevice(), KeyPurpose::ENCRYPT, key, GcmParams(kNonce)).error,
            ErrorCode::INVALID_KEY_BLOB);
  EXPECT_EQ(GcmRun(*km_, KeyPurpose::ENCRYPT, kept, kNonce, Message(4)).error, ErrorCode::OK);
  EXPECT_EQ(static_cast<ErrorCode>(km_->deleteKey(View(Bytes(40, 1)))),
            ErrorCode::INVALID_KEY_BLOB);
}

// --- OS binding and upgrades -------------------------------------------------------------

// The binding a blob carries, read from inside it.
std::pair<uint32_t, uint32_t> OsBinding(const Bytes& blob) {
  tavikm_host::km::KeyBlobContents contents;
  EXPECT_TRUE(tavikm_host::km::OpenKeyBlob(blob.data(), blob.size(), &contents));
  return {contents.authorizations.GetTagValue(hw::TAG_OS_VERSION).value(),
          contents.authorizations.GetTagValue(hw::TAG_OS_PATCHLEVEL).value()};
}

TEST_F(KeymasterDeviceTest, AnyOtherSystemNeedsAnUpgradeWhichNeverGoesBackExceptToVersionZero) {
  Bytes current = NewAesKey();
  EXPECT_EQ(OsBinding(current), std::make_pair(140000u, 202611u));  // release 14, 2026-11
  property_set("ro.build.version.security_patch", "2026-11-28");    // same month: same level
  EXPECT_EQ(GcmRun(*km_, KeyPurpose::ENCRYPT, current, kNonce, Message(4)).error, ErrorCode::OK);
  struct Case {
    const char* release;
    const char* patch;
    ErrorCode upgrade;  // OK: the upgraded blob is bound to the system below and works there
    uint32_t version = 0, patchlevel = 0;
  };
  const Case cases[] = {
      {"14", "2027-01-05", ErrorCode::OK, 140000, 202701},  // the patch alone
      {"15", "2026-11-05", ErrorCode::OK, 150000, 202611},
      {"14.0.1", "2027-01-05", ErrorCode::OK, 140001, 202701},
      {"13", "2026-11-05", ErrorCode::INVALID_ARGUMENT},
      {"14", "2026-10-05", ErrorCode::INVALID_ARGUMENT},
      {"15", "2026-10-05", ErrorCode::INVALID_ARGUMENT},
      // A release that is not a number is version 0, which any version may go down to.
      {"Tiramisu", "2026-11-05", ErrorCode::OK, 0, 202611},
      {"Tiramisu", "2026-10-05", ErrorCode::INVALID_ARGUMENT},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(std::string(c.release) + " " + c.patch);
    property_set("ro.build.version.release", "14");
    property_set("ro.build.version.security_patch", "2026-11-05");
    Bytes key = NewAesKey();
    Bytes sealed = GcmRun(*km_, KeyPurpose::ENCRYPT, key, kNonce, Message(16)).output;
    property_set("ro.build.version.release", c.release);
    property_set("ro.build.version.security_patch", c.patch);
    // Older and newer alike: only upgradeKey tells them apart.
    EXPECT_EQ(BeginError(key), ErrorCode::KEY_REQUIRES_UPGRADE);
    EXPECT_EQ(tavikm_host::KeymasterOpenOperations(), 0u);
    // The library's AES upgrade parameters: its begin set with the old blob as NONCE.
    hw::AuthorizationSetBuilder params = GcmParams(key);
    params.Authorization(hw::TAG_ALGORITHM, hw::Algorithm::AES)
        .Authorization(hw::TAG_KEY_SIZE, 256u);
    BlobResult upgraded = Upgrade(*km_, key, params);
    ASSERT_EQ(upgraded.error, c.upgrade);
    if (c.upgrade != ErrorCode::OK) {
      EXPECT_TRUE(upgraded.blob.empty());
      continue;
    }
    EXPECT_EQ(OsBinding(upgraded.blob), std::make_pair(c.version, c.patchlevel));
    // Same key inside: what the old blob sealed, the new one opens; the old one stays behind.
    Step opened = GcmRun(*km_, KeyPurpose::DECRYPT, upgraded.blob, kNonce, sealed);
    EXPECT_EQ(opened.error, ErrorCode::OK);
    EXPECT_EQ(opened.output, Message(16));
    EXPECT_EQ(BeginError(key), ErrorCode::KEY_REQUIRES_UPGRADE);
    // An up-to-date blob needs nothing: OK and no new blob, as the HAL says.
    BlobResult again = Upgrade(*km_, upgraded.blob);
    EXPECT_EQ(again.error, ErrorCode::OK);
    EXPECT_TRUE(again.blob.empty());
  }
}

// A blob without OS_VERSION and OS_PATCHLEVEL (sealed here as the key-blob fuzz target seals
// what it makes) reads as bound to version 0 and patch level 0, so it needs an upgrade. The
// upgrade used to re-seal it unchanged, and every begin asked for another upgrade: a caller
// that upgrades until begin succeeds never stopped.
TEST_F(KeymasterDeviceTest, UpgradeBindsAKeyWithoutOsBinding) {
  tavikm_host::km::KeyBlobContents contents;
  Bytes key = NewAesKey();
  ASSERT_TRUE(tavikm_host::km::OpenKeyBlob(key.data(), key.size(), &contents));
  contents.authorizations.Filter([](const hw::KeyParameter& param) {
    return param.tag != hw::Tag::OS_VERSION && param.tag != hw::Tag::OS_PATCHLEVEL;
  });
  Bytes unbound;
  ASSERT_TRUE(tavikm_host::km::SealKeyBlob(contents, &unbound));
  EXPECT_EQ(BeginError(unbound), ErrorCode::KEY_REQUIRES_UPGRADE);
  BlobResult upgraded = Upgrade(*km_, unbound);
  ASSERT_EQ(upgraded.error, ErrorCode::OK);
  EXPECT_EQ(OsBinding(upgraded.blob), OsBinding(key));
  EXPECT_EQ(GcmRun(*km_, KeyPurpose::ENCRYPT, upgraded.blob, kNonce, Message(16)).error,
            ErrorCode::OK);
}

// --- Rate limit and operation table ------------------------------------------------------

TEST_F(KeymasterDeviceTest, MinSecondsBetweenOpsRunFromTheEndOfTheLastOperation) {
  uint64_t now = 5000;
  tavikm_host::SetKeymasterClock([&now] { return now; });
  hw::AuthorizationSetBuilder params = AesGcmKey();
  params.Authorization(hw::TAG_MIN_SECONDS_BETWEEN_OPS, 1u);
  Bytes key = NewAesKey(params);
  Bytes other = NewAesKey(params);

  // A begin that fails on its parameters (here the caller's nonce) does not use the key.
  EXPECT_EQ(Begin(*km_, KeyPurpose::ENCRYPT, key, GcmParams(Bytes(16, 1))).error,
            ErrorCode::INVALID_NONCE);
  // The timer starts when an operation ends (finish or abort), not at begin.
  Begun first = Begin(*km_, KeyPurpose::ENCRYPT, key, GcmParams(kNonce));
  ASSERT_EQ(first.error, ErrorCode::OK);
  Begun second = Begin(*km_, KeyPurpose::ENCRYPT, key, GcmParams(kNonce));
  ASSERT_EQ(second.error, ErrorCode::OK);
  now += 5000;
  ASSERT_EQ(Finish(*km_, first.handle, Message(4)).error, ErrorCode::OK);
  now += 500;
  Abort(*km_, second.handle);
  now += 999;
  // Per key, and for every device object over the same hardware.
  EXPECT_EQ(Begin(*FirstDevice(), KeyPurpose::ENCRYPT, key, GcmParams(kNonce)).error,
            ErrorCode::KEY_RATE_LIMIT_EXCEEDED);
  EXPECT_EQ(BeginError(other), ErrorCode::OK);
  now += 1;
  EXPECT_EQ(BeginError(key), ErrorCode::OK);

  // A reboot forgets the timers.
  tavikm_host::ResetKeymaster();
  tavikm_host::SetKeymasterClock([&now] { return now; });
  EXPECT_EQ(BeginError(key), ErrorCode::OK);

  // The real clock: two uses in quick succession are one too many.
  tavikm_host::SetKeymasterClock({});
  EXPECT_EQ(BeginError(key), ErrorCode::OK);
  EXPECT_EQ(BeginError(key), ErrorCode::KEY_RATE_LIMIT_EXCEEDED);
}

TEST_F(KeymasterDeviceTest, OperationTableIsSharedAndLimited) {
  property_set("host.keymaster.devices", "TRUSTED_ENVIRONMENT,SOFTWARE");
  auto devices = hw::support::Keymaster::enumerateAvailableDevices();
  ASSERT_EQ(devices.size(), 2u);
  Bytes tee_key = Generate(*devices[0], AesGcmKey()).blob;
  Bytes sw_key = Generate(*devices[1], AesGcmKey()).blob;

  std::vector<uint64_t> handles;
  for (size_t i = 0; i < tavikm_host::kKeymasterMaxOperations; ++i) {
    auto& device = *devices[i % 2];
    Begun begun = Begin(device, KeyPurpose::ENCRYPT, i % 2 ? sw_key : tee_key, GcmParams(kNonce));
    ASSERT_EQ(begun.error, ErrorCode::OK) << i;
    handles.push_back(begun.handle);
  }
  EXPECT_EQ(Begin(*devices[0], KeyPurpose::ENCRYPT, tee_key, GcmParams(kNonce)).error,
            ErrorCode::TOO_MANY_OPERATIONS);
  EXPECT_EQ(Begin(*devices[1], KeyPurpose::ENCRYPT, sw_key, GcmParams(kNonce)).error,
            ErrorCode::TOO_MANY_OPERATIONS);

  // A handle belongs to its device; a fresh object of the same device may use it.
  EXPECT_EQ(Abort(*devices[1], handles[0]), ErrorCode::INVALID_OPERATION_HANDLE);
  EXPECT_EQ(Abort(*FirstDevice(), handles[0]), ErrorCode::OK);
  Begun again = Begin(*devices[0], KeyPurpose::ENCRYPT, tee_key, GcmParams(kNonce));
  EXPECT_EQ(again.error, ErrorCode::OK);
  EXPECT_EQ(tavikm_host::KeymasterOpenOperations(), tavikm_host::kKeymasterMaxOperations);

  tavikm_host::ResetKeymaster();
  EXPECT_EQ(tavikm_host::KeymasterOpenOperations(), 0u);
}

// --- Enumeration -------------------------------------------------------------------------

// What the library logs of the device it takes is asserted in keymaster_client_test.cpp.
TEST_F(KeymasterDeviceTest, DevicesFollowThePropertyAtEachEnumeration) {
  property_set("host.keymaster.devices", "STRONGBOX, SOFTWARE,TRUSTED_ENVIRONMENT,NOSUCH,SOFTWARE");
  std::vector<hw::SecurityLevel> levels;
  std::vector<std::string> names;
  for (const auto& d : hw::support::Keymaster::enumerateAvailableDevices()) {
    levels.push_back(d->halVersion().securityLevel);
    names.push_back(d->instanceName());
  }
  EXPECT_EQ(levels, (std::vector<hw::SecurityLevel>{
                        hw::SecurityLevel::STRONGBOX, hw::SecurityLevel::SOFTWARE,
                        hw::SecurityLevel::TRUSTED_ENVIRONMENT, hw::SecurityLevel::SOFTWARE}));
  EXPECT_EQ(names, (std::vector<std::string>{"strongbox", "software", "default", "software_3"}));
}

}  // namespace
}  // namespace tavikm_test::kmhost
