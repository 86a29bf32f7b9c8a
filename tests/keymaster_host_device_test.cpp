// The host's software Keymaster 4.0 device: AES-GCM and raw RSA operations, the checks a real
// Keymaster makes on what the library sends, key blobs bound to the device directory and to the OS
// version and patch level, rate limits, the operation table, and device enumeration.
#include <cutils/properties.h>
#include <gtest/gtest.h>
#include <openssl/evp.h>
#include <openssl/rsa.h>
#include <openssl/x509.h>
#include <stdlib.h>
#include <sys/stat.h>

#include <string>
#include <utility>
#include <vector>

#include "keymaster_host_util.h"
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

  KeymasterPtr km_;
};

// --- AES-GCM -----------------------------------------------------------------------------

TEST_F(KeymasterDeviceTest, GcmRoundTripWithTheCallersNonce) {
  Bytes key = NewAesKey();
  Bytes plain = Message(40);

  Begun enc = Begin(*km_, KeyPurpose::ENCRYPT, key, GcmParams(kNonce));
  ASSERT_EQ(enc.error, ErrorCode::OK);
  EXPECT_NE(enc.handle, 0u);
  EXPECT_TRUE(enc.out.empty());  // the caller's nonce is not echoed
  Step first = Update(*km_, enc.handle, Bytes(plain.begin(), plain.begin() + 25));
  Step second = Update(*km_, enc.handle, Bytes(plain.begin() + 25, plain.end()));
  Step tag = Finish(*km_, enc.handle);
  ASSERT_EQ(tag.error, ErrorCode::OK);
  // Ciphertext as the updates go, the 16-byte tag at finish.
  EXPECT_EQ(first.consumed, 25u);
  EXPECT_EQ(first.output.size(), 25u);
  EXPECT_EQ(second.output.size(), 15u);
  EXPECT_EQ(tag.output.size(), 16u);
  Bytes sealed = Concat(Concat(first.output, second.output), tag.output);
  EXPECT_NE(Bytes(sealed.begin(), sealed.begin() + 40), plain);

  // The same key and nonce give the same bytes; another nonce does not.
  EXPECT_EQ(GcmRun(*km_, KeyPurpose::ENCRYPT, key, kNonce, plain).output, sealed);
  EXPECT_NE(GcmRun(*km_, KeyPurpose::ENCRYPT, key, Bytes(12, 1), plain).output, sealed);

  // Decryption holds back what may be the tag until finish, and hands out the plaintext.
  Begun dec = Begin(*km_, KeyPurpose::DECRYPT, key, GcmParams(kNonce));
  ASSERT_EQ(dec.error, ErrorCode::OK);
  Step part = Update(*km_, dec.handle, sealed);
  EXPECT_EQ(part.consumed, sealed.size());
  EXPECT_EQ(part.output.size(), 40u);
  Step end = Finish(*km_, dec.handle);
  ASSERT_EQ(end.error, ErrorCode::OK);
  EXPECT_EQ(Concat(part.output, end.output), plain);
  EXPECT_EQ(tavikm_host::KeymasterOpenOperations(), 0u);
}

TEST_F(KeymasterDeviceTest, GcmAgreesWithLibcryptoOnAnImportedKey) {
  Bytes raw(32);
  for (size_t i = 0; i < raw.size(); ++i) raw[i] = static_cast<uint8_t>(0xa0 + i);
  hw::AuthorizationSetBuilder params;
  params.AesEncryptionKey(256)
      .GcmModeMinMacLen(96)
      .Padding(hw::PaddingMode::NONE)
      .Authorization(hw::TAG_CALLER_NONCE);
  KeyResult key = Import(*km_, params, raw);
  ASSERT_EQ(key.error, ErrorCode::OK);
  Bytes plain = Message(33);
  Step sealed = GcmRun(*km_, KeyPurpose::ENCRYPT, key.blob, kNonce, plain, 96);
  ASSERT_EQ(sealed.error, ErrorCode::OK);

  Bytes expected(plain.size()), tag(16);
  EVP_CIPHER_CTX* ctx = EVP_CIPHER_CTX_new();
  int n = 0;
  ASSERT_TRUE(EVP_EncryptInit_ex(ctx, EVP_aes_256_gcm(), nullptr, raw.data(), kNonce.data()));
  ASSERT_TRUE(EVP_EncryptUpdate(ctx, expected.data(), &n, plain.data(), plain.size()));
  ASSERT_TRUE(EVP_EncryptFinal_ex(ctx, tag.data(), &n));
  ASSERT_TRUE(EVP_CIPHER_CTX_ctrl(ctx, EVP_CTRL_GCM_GET_TAG, 16, tag.data()));
  EVP_CIPHER_CTX_free(ctx);
  // A 96-bit MAC length is the first 12 bytes of the tag.
  EXPECT_EQ(sealed.output, Concat(expected, Bytes(tag.begin(), tag.begin() + 12)));
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

// The refusals the library's own calls can meet: its nonce and its key's purposes. The HAL's
// other GCM rules (MAC lengths, modes, padding) are never reached from the library.
TEST_F(KeymasterDeviceTest, GcmBeginChecksTheNonceAndThePurpose) {
  Bytes key = NewAesKey();
  hw::AuthorizationSetBuilder no_caller_nonce_params;
  no_caller_nonce_params.AesEncryptionKey(256).GcmModeMinMacLen(96).Padding(hw::PaddingMode::NONE);
  Bytes no_caller_nonce = NewAesKey(no_caller_nonce_params);
  hw::AuthorizationSetBuilder encrypt_only_params;
  encrypt_only_params.AesKey(128)
      .Authorization(hw::TAG_PURPOSE, KeyPurpose::ENCRYPT)
      .GcmModeMinMacLen(128)
      .Padding(hw::PaddingMode::NONE)
      .Authorization(hw::TAG_CALLER_NONCE);
  Bytes encrypt_only = NewAesKey(encrypt_only_params);
  // The builder refers to the nonce's bytes: they must outlive the cases.
  const Bytes long_nonce(16, 1);
  hw::AuthorizationSetBuilder no_nonce;
  no_nonce.GcmModeMacLen(128).Padding(hw::PaddingMode::NONE);

  struct Case {
    const char* what;
    const Bytes* key;
    KeyPurpose purpose;
    hw::AuthorizationSetBuilder params;
    ErrorCode expected;
  } cases[] = {
      {"nonce refused by the key", &no_caller_nonce, KeyPurpose::ENCRYPT, GcmParams(kNonce),
       ErrorCode::CALLER_NONCE_PROHIBITED},
      {"16-byte nonce", &key, KeyPurpose::ENCRYPT, GcmParams(long_nonce), ErrorCode::INVALID_NONCE},
      {"decrypt without nonce", &key, KeyPurpose::DECRYPT, no_nonce, ErrorCode::MISSING_NONCE},
      {"purpose the key lacks", &encrypt_only, KeyPurpose::DECRYPT, GcmParams(kNonce),
       ErrorCode::INCOMPATIBLE_PURPOSE},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.what);
    EXPECT_EQ(Begin(*km_, c.purpose, *c.key, c.params).error, c.expected);
  }
  EXPECT_EQ(tavikm_host::KeymasterOpenOperations(), 0u);
}

// The sizes and exponents the library's callers choose, and the binding only the device sets.
TEST_F(KeymasterDeviceTest, GenerationRefusesWhatThisHardwareCannotMake) {
  hw::AuthorizationSetBuilder os_bound = AesGcmKey(), rsa1024, rsa_e3;
  os_bound.Authorization(hw::TAG_OS_PATCHLEVEL, 201801u);
  rsa1024.RsaSigningKey(1024, 65537).NoDigestOrPadding();
  rsa_e3.RsaSigningKey(2048, 3).NoDigestOrPadding();
  struct Case {
    const char* what;
    hw::AuthorizationSetBuilder params;
    ErrorCode expected;
  } cases[] = {
      {"AES-192", AesGcmKey(192), ErrorCode::UNSUPPORTED_KEY_SIZE},
      {"the device's own OS binding", os_bound, ErrorCode::INVALID_TAG},
      {"RSA-1024", rsa1024, ErrorCode::UNSUPPORTED_KEY_SIZE},
      {"RSA exponent 3", rsa_e3, ErrorCode::INVALID_ARGUMENT},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.what);
    KeyResult key = Generate(*km_, c.params);
    EXPECT_EQ(key.error, c.expected);
    EXPECT_TRUE(key.blob.empty());
  }
}

// --- RSA ---------------------------------------------------------------------------------

TEST_F(KeymasterDeviceTest, RawRsaSignatureVerifiesWithTheExportedPublicKey) {
  KeyResult key = Generate(*km_, RsaSigningKey(0));
  ASSERT_EQ(key.error, ErrorCode::OK);
  hw::AuthorizationSetBuilder raw;
  raw.NoDigestOrPadding();

  // The library's object: a zero byte, then data.
  Bytes object(256, 0);
  for (size_t i = 1; i < object.size(); ++i) object[i] = static_cast<uint8_t>(i);
  Begun sign = Begin(*km_, KeyPurpose::SIGN, key.blob, raw);
  ASSERT_EQ(sign.error, ErrorCode::OK);
  Step fed = Update(*km_, sign.handle, object);
  EXPECT_TRUE(fed.output.empty());
  Step signature = Finish(*km_, sign.handle);
  ASSERT_EQ(signature.error, ErrorCode::OK);
  ASSERT_EQ(signature.output.size(), 256u);

  BlobResult spki = Export(*km_, key.blob);
  ASSERT_EQ(spki.error, ErrorCode::OK);
  const uint8_t* p = spki.blob.data();
  EVP_PKEY* pub = d2i_PUBKEY(nullptr, &p, static_cast<long>(spki.blob.size()));
  ASSERT_NE(pub, nullptr);
  EXPECT_EQ(EVP_PKEY_bits(pub), 2048);
  EVP_PKEY_CTX* ctx = EVP_PKEY_CTX_new(pub, nullptr);
  Bytes recovered(256);
  size_t recovered_size = recovered.size();
  ASSERT_GT(EVP_PKEY_encrypt_init(ctx), 0);
  ASSERT_GT(EVP_PKEY_CTX_set_rsa_padding(ctx, RSA_NO_PADDING), 0);
  ASSERT_GT(EVP_PKEY_encrypt(ctx, recovered.data(), &recovered_size, signature.output.data(),
                             signature.output.size()),
            0);
  EVP_PKEY_CTX_free(ctx);
  EVP_PKEY_free(pub);
  EXPECT_EQ(recovered, object);  // s^e mod n is the object itself: no padding, no digest

  // The device verifies its own signature, and nothing else.
  Begun verify = Begin(*km_, KeyPurpose::VERIFY, key.blob, raw);
  EXPECT_EQ(Finish(*km_, verify.handle, object, signature.output).error, ErrorCode::OK);
  Bytes forged = signature.output;
  forged[100] ^= 1;
  verify = Begin(*km_, KeyPurpose::VERIFY, key.blob, raw);
  EXPECT_EQ(Finish(*km_, verify.handle, object, forged).error, ErrorCode::VERIFICATION_FAILED);

  // Shorter input is a number with zeros on the left.
  sign = Begin(*km_, KeyPurpose::SIGN, key.blob, raw);
  EXPECT_EQ(Finish(*km_, sign.handle, Bytes(object.begin() + 1, object.end())).output,
            signature.output);
}

TEST_F(KeymasterDeviceTest, RsaRefusesInputItCannotSignRaw) {
  KeyResult key = Generate(*km_, RsaSigningKey(0));
  ASSERT_EQ(key.error, ErrorCode::OK);
  hw::AuthorizationSetBuilder raw;
  raw.NoDigestOrPadding();

  // Longer than the modulus: refused as it comes in.
  Begun sign = Begin(*km_, KeyPurpose::SIGN, key.blob, raw);
  EXPECT_EQ(Update(*km_, sign.handle, Bytes(200)).error, ErrorCode::OK);
  EXPECT_EQ(Update(*km_, sign.handle, Bytes(57)).error, ErrorCode::INVALID_INPUT_LENGTH);
  // As long as the modulus but not below it: refused at finish.
  sign = Begin(*km_, KeyPurpose::SIGN, key.blob, raw);
  EXPECT_EQ(Update(*km_, sign.handle, Bytes(256, 0xff)).error, ErrorCode::OK);
  EXPECT_EQ(Finish(*km_, sign.handle).error, ErrorCode::INVALID_ARGUMENT);
  EXPECT_EQ(tavikm_host::KeymasterOpenOperations(), 0u);
}

// --- Key blobs ---------------------------------------------------------------------------

TEST_F(KeymasterDeviceTest, DeviceSecretIsMadeOnFirstUsePrivateAndKept) {
  struct stat st;
  ASSERT_NE(stat(device_.Path("keymaster/device_secret").c_str(), &st), 0);
  Bytes key = NewAesKey();
  ASSERT_EQ(stat(device_.Path("keymaster/device_secret").c_str(), &st), 0);
  EXPECT_EQ(st.st_size, 32);
  EXPECT_EQ(st.st_mode & 0777, 0600u);
  Bytes secret = ReadFile(device_.Path("keymaster/device_secret"));
  NewAesKey();
  EXPECT_EQ(ReadFile(device_.Path("keymaster/device_secret")), secret);

  // A damaged secret is never replaced: keys made under it would be lost for good.
  WriteFile(device_.Path("keymaster/device_secret"), Bytes(31, 0));
  EXPECT_EQ(Generate(*km_, AesGcmKey()).error, ErrorCode::UNKNOWN_ERROR);
  EXPECT_EQ(Begin(*km_, KeyPurpose::ENCRYPT, key, GcmParams(kNonce)).error,
            ErrorCode::INVALID_KEY_BLOB);
  EXPECT_EQ(ReadFile(device_.Path("keymaster/device_secret")).size(), 31u);
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
    EXPECT_EQ(Begin(*km_, KeyPurpose::ENCRYPT, blob, GcmParams(kNonce)).error,
              ErrorCode::INVALID_KEY_BLOB);
    EXPECT_EQ(Upgrade(*km_, blob).error, ErrorCode::INVALID_KEY_BLOB);
  }
}

TEST_F(KeymasterDeviceTest, BlobsOfAnotherDeviceDirectoryOrLevelAreInvalid) {
  Bytes key = NewAesKey();
  std::string other = device_.Path("other-device");
  setenv("TAVIKM_DEVICE_DIR", other.c_str(), 1);
  EXPECT_EQ(Begin(*km_, KeyPurpose::ENCRYPT, key, GcmParams(kNonce)).error,
            ErrorCode::INVALID_KEY_BLOB);
  EXPECT_EQ(Generate(*km_, AesGcmKey()).error, ErrorCode::OK);  // that device has its own secret
  setenv("TAVIKM_DEVICE_DIR", device_.path().c_str(), 1);
  EXPECT_EQ(GcmRun(*km_, KeyPurpose::ENCRYPT, key, kNonce, Message(4)).error, ErrorCode::OK);

  // A TEE's blob means nothing to a software Keymaster of the same phone.
  property_set("host.keymaster.devices", "SOFTWARE");
  KeymasterPtr software = FirstDevice();
  ASSERT_TRUE(software);
  EXPECT_EQ(Begin(*software, KeyPurpose::ENCRYPT, key, GcmParams(kNonce)).error,
            ErrorCode::INVALID_KEY_BLOB);
}

TEST_F(KeymasterDeviceTest, ApplicationBindingMustBeGivenAtEveryUse) {
  hw::AuthorizationSetBuilder params = AesGcmKey();
  params.Authorization(hw::TAG_APPLICATION_ID, "app", size_t{3});
  KeyResult key = Generate(*km_, params);
  ASSERT_EQ(key.error, ErrorCode::OK);
  for (const auto& list :
       {key.characteristics.hardwareEnforced, key.characteristics.softwareEnforced}) {
    for (const hw::KeyParameter& p : list) EXPECT_NE(p.tag, hw::Tag::APPLICATION_ID);
  }
  EXPECT_EQ(Begin(*km_, KeyPurpose::ENCRYPT, key.blob, GcmParams(kNonce)).error,
            ErrorCode::INVALID_KEY_BLOB);
  hw::AuthorizationSetBuilder wrong = GcmParams(kNonce);
  wrong.Authorization(hw::TAG_APPLICATION_ID, "apq", size_t{3});
  EXPECT_EQ(Begin(*km_, KeyPurpose::ENCRYPT, key.blob, wrong).error, ErrorCode::INVALID_KEY_BLOB);
  hw::AuthorizationSetBuilder right = GcmParams(kNonce);
  right.Authorization(hw::TAG_APPLICATION_ID, "app", size_t{3});
  Begun begun = Begin(*km_, KeyPurpose::ENCRYPT, key.blob, right);
  EXPECT_EQ(begun.error, ErrorCode::OK);
  Abort(*km_, begun.handle);
}

TEST_F(KeymasterDeviceTest, DeletedKeysStayDeleted) {
  Bytes key = NewAesKey();
  Bytes kept = NewAesKey();
  EXPECT_EQ(static_cast<ErrorCode>(km_->deleteKey(View(key))), ErrorCode::OK);
  EXPECT_EQ(Begin(*km_, KeyPurpose::ENCRYPT, key, GcmParams(kNonce)).error,
            ErrorCode::INVALID_KEY_BLOB);
  // Also for later device objects, which is how the library meets it.
  EXPECT_EQ(Begin(*FirstDevice(), KeyPurpose::ENCRYPT, key, GcmParams(kNonce)).error,
            ErrorCode::INVALID_KEY_BLOB);
  EXPECT_EQ(GcmRun(*km_, KeyPurpose::ENCRYPT, kept, kNonce, Message(4)).error, ErrorCode::OK);
  EXPECT_EQ(static_cast<ErrorCode>(km_->deleteKey(View(Bytes(40, 1)))),
            ErrorCode::INVALID_KEY_BLOB);
}

// --- OS binding and upgrades -------------------------------------------------------------

TEST_F(KeymasterDeviceTest, PatchLevelRaiseRequiresUpgradeAndTheUpgradedBlobWorks) {
  EXPECT_EQ(tavikm_host::KeymasterOsPatchlevel(), 202611u);
  EXPECT_EQ(tavikm_host::KeymasterOsVersion(), 140000u);
  Bytes key = NewAesKey();
  property_set("ro.build.version.security_patch", "2026-11-28");  // same month: same level
  EXPECT_EQ(GcmRun(*km_, KeyPurpose::ENCRYPT, key, kNonce, Message(4)).error, ErrorCode::OK);

  property_set("ro.build.version.security_patch", "2027-01-05");
  EXPECT_EQ(Begin(*km_, KeyPurpose::ENCRYPT, key, GcmParams(kNonce)).error,
            ErrorCode::KEY_REQUIRES_UPGRADE);
  EXPECT_EQ(tavikm_host::KeymasterOpenOperations(), 0u);

  // The library's AES upgrade parameters: its begin set with the old blob as NONCE.
  hw::AuthorizationSetBuilder upgrade_params;
  upgrade_params.Authorization(hw::TAG_ALGORITHM, hw::Algorithm::AES)
      .Authorization(hw::TAG_KEY_SIZE, 256u)
      .Authorization(hw::TAG_BLOCK_MODE, hw::BlockMode::GCM)
      .Authorization(hw::TAG_MAC_LENGTH, 128u)
      .Authorization(hw::TAG_NONCE, static_cast<const uint8_t*>(key.data()), key.size())
      .Padding(hw::PaddingMode::NONE);
  BlobResult upgraded = Upgrade(*km_, key, upgrade_params);
  ASSERT_EQ(upgraded.error, ErrorCode::OK);
  ASSERT_FALSE(upgraded.blob.empty());
  EXPECT_NE(upgraded.blob, key);

  // Same key inside: what the old blob sealed, the new one opens.
  property_set("ro.build.version.security_patch", "2026-11-05");
  Bytes sealed = GcmRun(*km_, KeyPurpose::ENCRYPT, key, kNonce, Message(16)).output;
  property_set("ro.build.version.security_patch", "2027-01-05");
  Step opened = GcmRun(*km_, KeyPurpose::DECRYPT, upgraded.blob, kNonce, sealed);
  EXPECT_EQ(opened.error, ErrorCode::OK);
  EXPECT_EQ(opened.output, Message(16));
  EXPECT_EQ(Begin(*km_, KeyPurpose::ENCRYPT, key, GcmParams(kNonce)).error,
            ErrorCode::KEY_REQUIRES_UPGRADE);

  // An up-to-date blob needs nothing: OK and no new blob, as the HAL says.
  BlobResult again = Upgrade(*km_, upgraded.blob);
  EXPECT_EQ(again.error, ErrorCode::OK);
  EXPECT_TRUE(again.blob.empty());
}

TEST_F(KeymasterDeviceTest, AnyOtherSystemNeedsAnUpgradeWhichNeverGoesBackExceptToVersionZero) {
  // Made under release 14, patch 2026-11.
  struct Case {
    const char* release;
    const char* patch;
    ErrorCode upgrade;  // OK: the upgraded blob is bound to the system below and works there
    uint32_t version = 0, patchlevel = 0;
  };
  const Case cases[] = {
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
    property_set("ro.build.version.release", c.release);
    property_set("ro.build.version.security_patch", c.patch);
    // Older and newer alike: only upgradeKey tells them apart.
    EXPECT_EQ(Begin(*km_, KeyPurpose::ENCRYPT, key, GcmParams(kNonce)).error,
              ErrorCode::KEY_REQUIRES_UPGRADE);
    BlobResult upgraded = Upgrade(*km_, key);
    ASSERT_EQ(upgraded.error, c.upgrade);
    if (c.upgrade != ErrorCode::OK) {
      EXPECT_TRUE(upgraded.blob.empty());
      continue;
    }
    ErrorCode error;
    hw::AuthorizationSet chars = Characteristics(*km_, upgraded.blob, &error).hardwareEnforced;
    EXPECT_EQ(error, ErrorCode::OK);
    EXPECT_TRUE(chars.Contains(hw::TAG_OS_VERSION, c.version));
    EXPECT_TRUE(chars.Contains(hw::TAG_OS_PATCHLEVEL, c.patchlevel));
    EXPECT_EQ(GcmRun(*km_, KeyPurpose::ENCRYPT, upgraded.blob, kNonce, Message(4)).error,
              ErrorCode::OK);
  }
}

TEST_F(KeymasterDeviceTest, OsVersionIsTheReleaseReadAsTheHalSays) {
  const std::pair<const char*, uint32_t> cases[] = {
      {"14", 140000},
      {"13.1.2", 130102},
      {"14.0.0-rc1", 140000},
      {"14-rc1", 140000},
      {"12.1", 120100},
      {"9.0.0.7", 90000},
      {"14.", 140000},
      {"14.x", 140000},
      {"Tiramisu", 0},
      {"", 0},
      {"-14", 0},
      {"100", 0},
      {"14.100", 0},
  };
  for (const auto& [release, version] : cases) {
    property_set("ro.build.version.release", release);
    EXPECT_EQ(tavikm_host::KeymasterOsVersion(), version) << '"' << release << '"';
  }
}

// --- Rate limit and operation table ------------------------------------------------------

TEST_F(KeymasterDeviceTest, MinSecondsBetweenOpsRunFromTheEndOfTheLastOperation) {
  uint64_t now = 5000;
  tavikm_host::SetKeymasterClock([&now] { return now; });
  hw::AuthorizationSetBuilder params = AesGcmKey();
  params.Authorization(hw::TAG_MIN_SECONDS_BETWEEN_OPS, 1u);
  Bytes key = NewAesKey(params);
  Bytes other = NewAesKey(params);

  // A begin that fails on its parameters does not use the key.
  EXPECT_EQ(Begin(*km_, KeyPurpose::ENCRYPT, key, GcmParams(kNonce, 100)).error,
            ErrorCode::UNSUPPORTED_MAC_LENGTH);
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
  Begun unrelated = Begin(*km_, KeyPurpose::ENCRYPT, other, GcmParams(kNonce));
  EXPECT_EQ(unrelated.error, ErrorCode::OK);
  Abort(*km_, unrelated.handle);
  now += 1;
  Begun later = Begin(*km_, KeyPurpose::ENCRYPT, key, GcmParams(kNonce));
  ASSERT_EQ(later.error, ErrorCode::OK);
  // An update the device refuses ends the operation too.
  hw::AuthorizationSetBuilder late_aad;
  late_aad.Authorization(hw::TAG_ASSOCIATED_DATA, "aad", size_t{3});
  ASSERT_EQ(Update(*km_, later.handle, Message(4)).error, ErrorCode::OK);
  ASSERT_EQ(Update(*km_, later.handle, Message(4), late_aad).error, ErrorCode::INVALID_TAG);
  EXPECT_EQ(Begin(*km_, KeyPurpose::ENCRYPT, key, GcmParams(kNonce)).error,
            ErrorCode::KEY_RATE_LIMIT_EXCEEDED);

  // A reboot forgets the timers.
  tavikm_host::ResetKeymaster();
  tavikm_host::SetKeymasterClock([&now] { return now; });
  Begun rebooted = Begin(*km_, KeyPurpose::ENCRYPT, key, GcmParams(kNonce));
  EXPECT_EQ(rebooted.error, ErrorCode::OK);
  Abort(*km_, rebooted.handle);

  // The real clock: two uses in quick succession are one too many.
  tavikm_host::SetKeymasterClock({});
  Begun real = Begin(*km_, KeyPurpose::ENCRYPT, key, GcmParams(kNonce));
  EXPECT_EQ(real.error, ErrorCode::OK);
  Abort(*km_, real.handle);
  EXPECT_EQ(Begin(*km_, KeyPurpose::ENCRYPT, key, GcmParams(kNonce)).error,
            ErrorCode::KEY_RATE_LIMIT_EXCEEDED);
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
  EXPECT_EQ(Abort(*devices[0], handles[0]), ErrorCode::INVALID_OPERATION_HANDLE);
  Begun again = Begin(*devices[0], KeyPurpose::ENCRYPT, tee_key, GcmParams(kNonce));
  EXPECT_EQ(again.error, ErrorCode::OK);
  EXPECT_EQ(tavikm_host::KeymasterOpenOperations(), tavikm_host::kKeymasterMaxOperations);

  tavikm_host::ResetKeymaster();
  EXPECT_EQ(tavikm_host::KeymasterOpenOperations(), 0u);
}

TEST_F(KeymasterDeviceTest, UnknownAndFinishedHandlesAreInvalid) {
  Bytes key = NewAesKey();
  EXPECT_EQ(Update(*km_, 12345, Message(4)).error, ErrorCode::INVALID_OPERATION_HANDLE);
  EXPECT_EQ(Finish(*km_, 12345).error, ErrorCode::INVALID_OPERATION_HANDLE);
  EXPECT_EQ(Abort(*km_, 12345), ErrorCode::INVALID_OPERATION_HANDLE);
  Begun begun = Begin(*km_, KeyPurpose::ENCRYPT, key, GcmParams(kNonce));
  ASSERT_EQ(Finish(*km_, begun.handle, Message(4)).error, ErrorCode::OK);
  EXPECT_EQ(Update(*km_, begun.handle, Message(4)).error, ErrorCode::INVALID_OPERATION_HANDLE);
  EXPECT_EQ(Abort(*km_, begun.handle), ErrorCode::INVALID_OPERATION_HANDLE);
}

// --- Enumeration and characteristics -----------------------------------------------------

TEST_F(KeymasterDeviceTest, DevicesFollowThePropertyAtEachEnumeration) {
  EXPECT_EQ(km_->halVersion().securityLevel, hw::SecurityLevel::TRUSTED_ENVIRONMENT);
  EXPECT_EQ(std::string(km_->halVersion().keymasterName), tavikm_host::kKeymasterName);
  EXPECT_EQ(std::string(km_->halVersion().authorName), tavikm_host::kKeymasterAuthorName);
  EXPECT_EQ(km_->halVersion().majorVersion, 4);
  EXPECT_EQ(std::string(km_->descriptor()), "android.hardware.keymaster@4.0::IKeymasterDevice");
  EXPECT_EQ(std::string(km_->instanceName()), "default");

  property_set("host.keymaster.devices", "STRONGBOX, SOFTWARE,TRUSTED_ENVIRONMENT,NOSUCH,SOFTWARE");
  auto devices = hw::support::Keymaster::enumerateAvailableDevices();
  std::vector<hw::SecurityLevel> levels;
  std::vector<std::string> names;
  for (const auto& d : devices) {
    levels.push_back(d->halVersion().securityLevel);
    names.push_back(d->instanceName());
  }
  EXPECT_EQ(levels, (std::vector<hw::SecurityLevel>{
                        hw::SecurityLevel::STRONGBOX, hw::SecurityLevel::SOFTWARE,
                        hw::SecurityLevel::TRUSTED_ENVIRONMENT, hw::SecurityLevel::SOFTWARE}));
  EXPECT_EQ(names, (std::vector<std::string>{"strongbox", "software", "default", "software_3"}));

  property_set("host.keymaster.devices", "");
  EXPECT_TRUE(hw::support::Keymaster::enumerateAvailableDevices().empty());
}

}  // namespace
}  // namespace tavikm_test::kmhost
