// The AES side of the Keymaster services on the software Keymaster and on injected faults: the
// security probe, AES key creation into the caller's buffer, object encryption and decryption
// with the rate-limit wait and the upgrade answer, and the upgrade of the AES key's blob.
#include <cutils/properties.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <stdint.h>
#include <stdlib.h>
#include <string.h>

#include <string>
#include <vector>

#include "keymaster_test_devices.h"
#include "mdfpp_test_util.h"
#include "tavikm_host/keymaster.h"
#include "tavikm_host/keymaster_faults.h"
#include "tavikm_keymaster.h"

#if defined(__SANITIZE_ADDRESS__)
#define TAVIKM_TEST_LSAN 1
#elif defined(__has_feature)
#if __has_feature(address_sanitizer)
#define TAVIKM_TEST_LSAN 1
#endif
#endif
#ifdef TAVIKM_TEST_LSAN
#include <sanitizer/lsan_interface.h>
#endif

namespace tavikm_test::mdfpp {
namespace {

using ::android::hardware::hidl_vec;
using hw::ErrorCode;
using tavikm_host::KeymasterCall;
using ::testing::ElementsAre;

const Bytes kNonce(12, 0x4e);

// The key parameters, in the order the device must receive them.
hw::AuthorizationSet AesKeyParams() {
  hw::AuthorizationSet set;
  set.push_back(hw::TAG_ALGORITHM, hw::Algorithm::AES);
  set.push_back(hw::TAG_KEY_SIZE, 256u);
  set.push_back(hw::TAG_PURPOSE, hw::KeyPurpose::ENCRYPT);
  set.push_back(hw::TAG_PURPOSE, hw::KeyPurpose::DECRYPT);
  set.push_back(hw::TAG_BLOCK_MODE, hw::BlockMode::GCM);
  set.push_back(hw::TAG_CALLER_NONCE);
  set.push_back(hw::TAG_NO_AUTH_REQUIRED);
  set.push_back(hw::TAG_MIN_MAC_LENGTH, 128u);
  set.push_back(hw::TAG_PADDING, hw::PaddingMode::NONE);
  return set;
}

// The begin parameters of a direction, or of the upgrade with the old blob as NONCE.
hw::AuthorizationSet GcmParams(const Bytes& nonce, bool nonce_first) {
  hw::AuthorizationSet set;
  set.push_back(hw::TAG_ALGORITHM, hw::Algorithm::AES);
  set.push_back(hw::TAG_KEY_SIZE, 256u);
  set.push_back(hw::TAG_BLOCK_MODE, hw::BlockMode::GCM);
  hw::KeyParameter mac = hw::Authorization(hw::TAG_MAC_LENGTH, 128u);
  hw::KeyParameter nonce_param = hw::Authorization(hw::TAG_NONCE, hidl_vec<uint8_t>(nonce));
  set.push_back(nonce_first ? nonce_param : mac);
  set.push_back(nonce_first ? mac : nonce_param);
  set.push_back(hw::TAG_PADDING, hw::PaddingMode::NONE);
  return set;
}

class MdfppAesTest : public MdfppTest {
 protected:
  Bytes CreateKey() {
    Bytes key(2048, 0);
    unsigned int size = 0;
    EXPECT_EQ(keymaster_create_aes_key_for_mdfpp(key.data(), key.size(), &size), 0);
    key.resize(size);
    return key;
  }

  // The services' call as the record code makes it; the three upgrade arguments are watched.
  int Encrypt(const Bytes& key, const Bytes& in, Bytes* out, bool encrypt = true,
              unsigned int ratelimit = 1, const Bytes& nonce = kNonce) {
    unsigned char* buffer = sentinel_out_;
    unsigned int size = 0xdead;
    int rc = (encrypt ? keymaster_encrypt_object_for_mdfpp : keymaster_decrypt_object_for_mdfpp)(
        key.data(), key.size(), nonce.empty() ? nullptr : nonce.data(), nonce.size(), ratelimit,
        in.data(), in.size(), &buffer, &size, upgrade_buffer_, sizeof(upgrade_buffer_),
        &upgrade_size_);
    EXPECT_EQ(Bytes(upgrade_buffer_, upgrade_buffer_ + sizeof(upgrade_buffer_)),
              Bytes(sizeof(upgrade_buffer_), 0xa5));
    EXPECT_EQ(upgrade_size_, 0x5a5au);
    if (rc != 0) {
      // Nothing handed out.
      EXPECT_EQ(buffer, sentinel_out_);
      EXPECT_EQ(size, 0xdeadu);
      return rc;
    }
    out->assign(buffer, buffer + size);
    free(buffer);
    return rc;
  }
  int Decrypt(const Bytes& key, const Bytes& in, Bytes* out) {
    return Encrypt(key, in, out, false);
  }

  unsigned char sentinel_out_[1] = {0};
  unsigned char upgrade_buffer_[32];
  unsigned long upgrade_size_ = 0x5a5a;

  void SetUp() override {
    MdfppTest::SetUp();
    memset(upgrade_buffer_, 0xa5, sizeof(upgrade_buffer_));
  }
};

// ---- The probe and key creation ------------------------------------------------------------

TEST_F(MdfppAesTest, CompatibilityTellsSecureFromSoftwareFromNone) {
  EXPECT_EQ(keymaster_compatibility_cryptfs_mdfpp(), 1);
  tavikm_host::SetKeymasterDeviceLevels({0});
  EXPECT_EQ(keymaster_compatibility_cryptfs_mdfpp(), 0);
  tavikm_host::SetKeymasterDeviceLevels({2});
  log_.Clear();
  EXPECT_EQ(keymaster_compatibility_cryptfs_mdfpp(), -1);
  EXPECT_EQ(log_.Lines(), (std::vector<LogLine>{KmError("Failed to initiate keymaster session")}));
}

TEST_F(MdfppAesTest, CreatesTheAesKeyWithItsParametersInOrder) {
  auto received = kmdev::UseOnly<kmdev::RecordingKeymaster>();
  Bytes key = CreateKey();
  ASSERT_FALSE(key.empty());
  auto generated = received->Of(KeymasterCall::kGenerateKey);
  ASSERT_EQ(generated.size(), 1u);
  EXPECT_EQ(generated[0].params, ToVector(AesKeyParams()));
  EXPECT_EQ(log_.Lines(), (std::vector<LogLine>{DeviceLine()}));

  // The key does what the records need: encrypt and decrypt with the caller's nonce.
  Bytes sealed, opened;
  ASSERT_EQ(Encrypt(key, Pattern(32), &sealed), 0);
  ASSERT_EQ(Decrypt(key, sealed, &opened), 0);
  EXPECT_EQ(opened, Pattern(32));
}

TEST_F(MdfppAesTest, KeyBufferMustHoldTheWholeBlob) {
  const size_t length = CreateKey().size();
  // Exactly the blob's length: copied, and the bytes beyond are the caller's.
  Bytes buffer(length + 8, 0xee);
  unsigned int size = 0;
  ASSERT_EQ(keymaster_create_aes_key_for_mdfpp(buffer.data(), length, &size), 0);
  EXPECT_EQ(size, length);
  EXPECT_EQ(Bytes(buffer.begin() + length, buffer.end()), Bytes(8, 0xee));
  EXPECT_NE(Bytes(buffer.begin(), buffer.begin() + length), Bytes(length, 0xee));

  // One byte less: the needed size is reported, the buffer is untouched, nothing is said.
  Bytes small(length - 1, 0xee);
  log_.Clear();
  EXPECT_EQ(keymaster_create_aes_key_for_mdfpp(small.data(), small.size(), &size), -1);
  EXPECT_EQ(size, length);
  EXPECT_EQ(small, Bytes(length - 1, 0xee));
  EXPECT_EQ(log_.Lines(), (std::vector<LogLine>{DeviceLine()}));
}

TEST_F(MdfppAesTest, KeyCreationChecksTheSessionThenTheArguments) {
  Bytes buffer(2048);
  unsigned int size = 77;
  EXPECT_EQ(keymaster_create_aes_key_for_mdfpp(nullptr, 2048, &size), -1);
  EXPECT_EQ(size, 77u);
  EXPECT_EQ(keymaster_create_aes_key_for_mdfpp(buffer.data(), 2048, nullptr), -1);
  EXPECT_THAT(log_.Lines(), ElementsAre(DeviceLine(), InvalidArgumentFrom("mdfpp/aes_key.cpp"),
                                        DeviceLine(), InvalidArgumentFrom("mdfpp/aes_key.cpp")));
  EXPECT_EQ(tavikm_host::KeymasterCallCount(KeymasterCall::kGenerateKey), 0);

  // Without a device that is all that is said, bad arguments or not.
  tavikm_host::SetKeymasterDeviceLevels({});
  log_.Clear();
  EXPECT_EQ(keymaster_create_aes_key_for_mdfpp(nullptr, 2048, &size), -1);
  EXPECT_EQ(size, 77u);
  EXPECT_EQ(log_.Lines(), (std::vector<LogLine>{KmError("Failed to initiate keymaster session")}));

  // A refused generation leaves the size at 0.
  tavikm_host::ResetKeymaster();
  tavikm_host::FailKeymasterCall(KeymasterCall::kGenerateKey, 1, ErrorCode::UNSUPPORTED_KEY_SIZE);
  log_.Clear();
  EXPECT_EQ(keymaster_create_aes_key_for_mdfpp(buffer.data(), 2048, &size), -1);
  EXPECT_EQ(size, 0u);
  EXPECT_EQ(log_.Lines(),
            (std::vector<LogLine>{DeviceLine(), KmError("generate_key failed, code -6")}));
}

// ---- Objects --------------------------------------------------------------------------------

TEST_F(MdfppAesTest, ObjectsGrowByTheTagAndComeBack) {
  auto received = kmdev::UseOnly<kmdev::RecordingKeymaster>();
  Bytes key = CreateKey();
  for (size_t n : {1u, 16u, 32u, 33u, 300u}) {
    SCOPED_TRACE(n);
    received->calls.clear();
    Bytes plain = Pattern(n), sealed, opened;
    ASSERT_EQ(Encrypt(key, plain, &sealed), 0);
    ASSERT_EQ(sealed.size(), n + 16);
    EXPECT_NE(Bytes(sealed.begin(), sealed.begin() + n), plain);
    ASSERT_EQ(Decrypt(key, sealed, &opened), 0);
    EXPECT_EQ(opened, plain);

    auto begun = received->Of(KeymasterCall::kBegin);
    ASSERT_EQ(begun.size(), 2u);
    EXPECT_EQ(begun[0].purpose, hw::KeyPurpose::ENCRYPT);
    EXPECT_EQ(begun[0].key, key);
    EXPECT_EQ(begun[0].params, ToVector(GcmParams(kNonce, false)));
    EXPECT_EQ(begun[1].purpose, hw::KeyPurpose::DECRYPT);
    EXPECT_EQ(begun[1].params, ToVector(GcmParams(kNonce, true)));
  }
  EXPECT_TRUE(Sleeps().empty());
  EXPECT_EQ(tavikm_host::KeymasterOpenOperations(), 0u);
  // Only the session lines: success is quiet.
  for (const LogLine& line : log_.Lines()) EXPECT_EQ(line, DeviceLine());
}

TEST_F(MdfppAesTest, AChangedTagFailsAtFinish) {
  Bytes key = CreateKey();
  Bytes sealed, opened;
  ASSERT_EQ(Encrypt(key, Pattern(40), &sealed), 0);
  sealed.back() ^= 0x01;
  log_.Clear();
  int rc;
  {
#ifdef TAVIKM_TEST_LSAN
    // A failing finish leaves the update's output buffer allocated, by design of the service;
    // only what this one call allocates is exempt from leak checking.
    __lsan::ScopedDisabler expected_leak;
#endif
    rc = Decrypt(key, sealed, &opened);
  }
  EXPECT_EQ(rc, -1);
  EXPECT_EQ(log_.Lines(), (std::vector<LogLine>{
                              DeviceLine(), KmError("finish failed, code -30"),
                              KmError("Error finalizing keymaster decryption transaction: 0")}));
}

TEST_F(MdfppAesTest, RateLimitIsWaitedOutOtherCodesAreNot) {
  Bytes key = CreateKey();
  tavikm_host::FailKeymasterCall(KeymasterCall::kBegin, 1, ErrorCode::KEY_RATE_LIMIT_EXCEEDED);
  tavikm_host::FailKeymasterCall(KeymasterCall::kBegin, 2, ErrorCode::KEY_RATE_LIMIT_EXCEEDED);
  Bytes sealed, opened;
  ASSERT_EQ(Encrypt(key, Pattern(20), &sealed, true, 3), 0);
  EXPECT_EQ(Sleeps(), (std::vector<unsigned int>{3, 3}));
  EXPECT_EQ(tavikm_host::KeymasterCallCount(KeymasterCall::kBegin), 3);
  ASSERT_EQ(Decrypt(key, sealed, &opened), 0);
  EXPECT_EQ(opened, Pattern(20));

  // A concurrent-access conflict is a failure like any other: no retry.
  tavikm_host::ResetKeymaster();
  tavikm_host::FailKeymasterCall(KeymasterCall::kBegin, 1, ErrorCode::CONCURRENT_ACCESS_CONFLICT);
  log_.Clear();
  EXPECT_EQ(Encrypt(key, Pattern(20), &sealed, true, 3), -1);
  EXPECT_EQ(Sleeps().size(), 2u);
  EXPECT_EQ(tavikm_host::KeymasterCallCount(KeymasterCall::kBegin), 1);
  EXPECT_EQ(log_.Lines(), (std::vector<LogLine>{
                              DeviceLine(), KmError("begin failed, code -47"),
                              KmError("Error starting keymaster encryption transaction: -47")}));
}

TEST_F(MdfppAesTest, BeginAndUpdateFailuresNameTheirStep) {
  Bytes key = CreateKey();
  Bytes out;
  tavikm_host::FailKeymasterTransport(KeymasterCall::kBegin, 1, "binder died");
  tavikm_host::FailKeymasterCall(KeymasterCall::kUpdate, 1, ErrorCode::INVALID_INPUT_LENGTH);
  log_.Clear();
  EXPECT_EQ(Decrypt(key, Pattern(40), &out), -1);
  EXPECT_EQ(Encrypt(key, Pattern(40), &out), -1);
  // A missing nonce passes the argument check; the device refuses the empty one.
  EXPECT_EQ(Encrypt(key, Pattern(40), &out, true, 1, Bytes()), -1);
  EXPECT_EQ(log_.Lines(),
            (std::vector<LogLine>{
                DeviceLine(), KmError("begin failed: Status(EX_TRANSACTION_FAILED): 'binder died'"),
                KmError("Error starting keymaster decryption transaction: -1000"), DeviceLine(),
                KmError("update failed, code -21"),
                KmError("Error sending data to keymaster encryption transaction: 0"), DeviceLine(),
                KmError("begin failed, code -52"),
                KmError("Error starting keymaster encryption transaction: -52")}));
  EXPECT_EQ(tavikm_host::KeymasterOpenOperations(), 0u);
}

TEST_F(MdfppAesTest, ObjectArgumentsAndSessionAreChecked) {
  Bytes key = CreateKey(), in = Pattern(16);
  unsigned char* out = nullptr;
  unsigned int size = 0;
  log_.Clear();
  for (auto* service : {keymaster_encrypt_object_for_mdfpp, keymaster_decrypt_object_for_mdfpp}) {
    EXPECT_EQ(service(nullptr, key.size(), kNonce.data(), 12, 1, in.data(), 16, &out, &size,
                      nullptr, 0, nullptr),
              -1);
    EXPECT_EQ(service(key.data(), key.size(), kNonce.data(), 12, 1, nullptr, 16, &out, &size,
                      nullptr, 0, nullptr),
              -1);
    EXPECT_EQ(service(key.data(), key.size(), kNonce.data(), 12, 1, in.data(), 16, nullptr, &size,
                      nullptr, 0, nullptr),
              -1);
    EXPECT_EQ(service(key.data(), key.size(), kNonce.data(), 12, 1, in.data(), 16, &out, nullptr,
                      nullptr, 0, nullptr),
              -1);
  }
  auto invalid = InvalidArgumentFrom("mdfpp/object_crypto.cpp");
  std::vector<::testing::Matcher<const LogLine&>> expected;
  for (int i = 0; i < 8; ++i) {
    expected.push_back(DeviceLine());
    expected.push_back(invalid);
  }
  EXPECT_THAT(log_.Lines(), ::testing::ElementsAreArray(expected));
  EXPECT_EQ(tavikm_host::KeymasterCallCount(KeymasterCall::kBegin), 0);

  tavikm_host::SetKeymasterDeviceLevels({});
  log_.Clear();
  Bytes result;
  EXPECT_EQ(Encrypt(key, in, &result), -1);
  EXPECT_EQ(Decrypt(key, in, &result), -1);
  EXPECT_EQ(log_.Lines(), (std::vector<LogLine>{KmError("Failed to initiate keymaster session"),
                                                KmError("Failed to initiate keymaster session")}));
}

// ---- Upgrade of the AES key ----------------------------------------------------------------

TEST_F(MdfppAesTest, AKeyThatNeedsAnUpgradeIsUpgradedInPlaceAndWorksAgain) {
  auto received = kmdev::UseOnly<kmdev::RecordingKeymaster>();
  // As the records hold it: a 2048-byte buffer and its length field.
  Bytes blob(2048, 0);
  unsigned int created = 0;
  ASSERT_EQ(keymaster_create_aes_key_for_mdfpp(blob.data(), blob.size(), &created), 0);
  Bytes old_key(blob.begin(), blob.begin() + created);
  Bytes sealed, opened;
  ASSERT_EQ(Encrypt(old_key, Pattern(32), &sealed), 0);

  property_set("ro.build.version.security_patch", "2027-02-01");
  log_.Clear();
  EXPECT_EQ(Decrypt(old_key, sealed, &opened), -2);
  EXPECT_EQ(log_.Lines(), (std::vector<LogLine>{DeviceLine(), KmError("begin failed, code -62"),
                                                KmError("Keymaster key requires upgrade")}));

  received->calls.clear();
  unsigned long size = created;
  ASSERT_EQ(keymaster_upgrade_key_for_cryptfs_pbkdf2_mdfpp(blob.data(), size, blob.data(),
                                                           blob.size(), &size),
            0);
  auto upgrades = received->Of(KeymasterCall::kUpgradeKey);
  ASSERT_EQ(upgrades.size(), 1u);
  EXPECT_EQ(upgrades[0].key, old_key);
  // The old blob stands in the NONCE parameter.
  EXPECT_EQ(upgrades[0].params, ToVector(GcmParams(old_key, false)));
  ASSERT_GT(size, 0u);
  Bytes new_key(blob.begin(), blob.begin() + size);
  EXPECT_NE(new_key, old_key);
  EXPECT_EQ(Bytes(blob.begin() + size, blob.end()), Bytes(blob.size() - size, 0));

  ASSERT_EQ(Decrypt(new_key, sealed, &opened), 0);
  EXPECT_EQ(opened, Pattern(32));
}

TEST_F(MdfppAesTest, NoUpgradeLeavesTheSize) {
  Bytes key = CreateKey();
  property_set("ro.build.version.security_patch", "2027-02-01");
  Bytes buffer(2048);
  unsigned long size = 77;
  // Without a device the size is left as it was; a refused upgrade is logged by the client.
  tavikm_host::SetKeymasterDeviceLevels({});
  log_.Clear();
  EXPECT_EQ(keymaster_upgrade_key_for_cryptfs_pbkdf2_mdfpp(key.data(), key.size(), buffer.data(),
                                                           buffer.size(), &size),
            -1);
  EXPECT_EQ(size, 77u);
  tavikm_host::ResetKeymaster();
  tavikm_host::FailKeymasterCall(KeymasterCall::kUpgradeKey, 1, ErrorCode::INVALID_KEY_BLOB);
  EXPECT_EQ(keymaster_upgrade_key_for_cryptfs_pbkdf2_mdfpp(key.data(), key.size(), buffer.data(),
                                                           buffer.size(), &size),
            -1);
  EXPECT_EQ(size, 77u);
  EXPECT_EQ(log_.Lines(),
            (std::vector<LogLine>{KmError("Failed to initiate keymaster session"), DeviceLine(),
                                  KmError("upgrade_key failed, code -33")}));
}

}  // namespace
}  // namespace tavikm_test::mdfpp
