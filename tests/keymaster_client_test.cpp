// The Keymaster 4.0 client classes on the software Keymaster and on injected faults: which
// device is taken and how it is announced, what the key calls hand back and log, and how an
// operation is fed, finished and aborted.
#include <cutils/properties.h>
#include <gtest/gtest.h>
#include <stddef.h>
#include <stdint.h>

#include <functional>
#include <string>
#include <utility>
#include <vector>

#include "keymaster/Keymaster.h"
#include "keymaster_host_util.h"
#include "keymaster_test_devices.h"
#include "support/device_env.h"
#include "tavikm_host/keymaster.h"
#include "tavikm_host/keymaster_faults.h"

namespace tavikm_test {
namespace {

namespace hw = ::android::hardware::keymaster::V4_0;
using ::android::hardware::hidl_vec;
using ::android::hardware::Return;
using ::android::hardware::Void;
using ::android::mdfpp::Keymaster;
using ::android::mdfpp::KeymasterOperation;
using hw::ErrorCode;
using hw::KeyPurpose;
using tavikm_host::KeymasterCall;

const std::string kNonce(12, '\x5a');

LogLine KmInfo(const std::string& text) {
  return LogLine::Base(android::base::INFO, "Keymaster", text);
}
LogLine KmError(const std::string& text) {
  return LogLine::Base(android::base::ERROR, "Keymaster", text);
}

std::string DeviceLine(const std::string& level, const std::string& instance) {
  return "Using HostKeymasterDevice from TAVIKM host platform for encryption.  Security level: " +
         level + ", HAL: android.hardware.keymaster@4.0::IKeymasterDevice/" + instance;
}

hw::AuthorizationSet GcmParams(const std::string& nonce = kNonce) {
  hw::AuthorizationSetBuilder params;
  params.Authorization(hw::TAG_BLOCK_MODE, hw::BlockMode::GCM)
      .Authorization(hw::TAG_MAC_LENGTH, 128u)
      .Padding(hw::PaddingMode::NONE);
  if (!nonce.empty()) params.Authorization(hw::TAG_NONCE, nonce.data(), nonce.size());
  return std::move(params);
}

std::string Pattern(size_t size) {
  std::string s(size, '\0');
  for (size_t i = 0; i < size; ++i) s[i] = static_cast<char>(i * 7 + 1);
  return s;
}

class KeymasterClientTest : public DeviceTest {
 protected:
  // A session on the default device, with its announcement already checked and cleared.
  void SetUp() override {
    km_ = std::make_unique<Keymaster>();
    ASSERT_TRUE(*km_);
    log_.Clear();
  }

  std::string AesKey() {
    std::string key;
    EXPECT_TRUE(km_->generateKey(kmhost::AesGcmKey(), &key));
    return key;
  }

  KeymasterOperation Begin(const std::string& key, KeyPurpose purpose = KeyPurpose::ENCRYPT) {
    return km_->begin(purpose, key, GcmParams(), hw::HardwareAuthToken(), nullptr);
  }

  // Encryption through one operation: ciphertext and tag.
  std::string Seal(const std::string& key, const std::string& plain) {
    KeymasterOperation op = Begin(key);
    std::string out, tag;
    EXPECT_TRUE(op.updateCompletely(plain, &out));
    EXPECT_TRUE(op.finish(&tag));
    return out + tag;
  }

  std::unique_ptr<Keymaster> km_;
};

// ---- Device selection -----------------------------------------------------------------------

TEST_F(KeymasterClientTest, TakesTheFirstDeviceThatIsNotStrongBoxAndAnnouncesIt) {
  struct Case {
    std::vector<uint32_t> levels;
    std::string line;
    bool secure;
  };
  const Case cases[] = {
      {{1}, DeviceLine("TRUSTED_ENVIRONMENT", "default"), true},
      {{2, 1}, DeviceLine("TRUSTED_ENVIRONMENT", "default"), true},
      // The list's own order decides between acceptable devices.
      {{0, 1}, DeviceLine("SOFTWARE", "software"), false},
      {{2, 2, 0}, DeviceLine("SOFTWARE", "software"), false},
      {{3}, DeviceLine("0x3", "level3"), true},
      {{18}, DeviceLine("0x12", "level18"), true},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.line);
    tavikm_host::SetKeymasterDeviceLevels(c.levels);
    log_.Clear();
    Keymaster km;
    ASSERT_TRUE(km);
    EXPECT_EQ(km.isSecure(), c.secure);
    EXPECT_EQ(log_.Lines(), (std::vector<LogLine>{KmInfo(c.line)}));
    // The session works on the device it took.
    std::string key;
    EXPECT_TRUE(km.generateKey(kmhost::AesGcmKey(), &key));
    EXPECT_EQ(km.begin(KeyPurpose::ENCRYPT, key, GcmParams(), {}, nullptr).getErrorCode(),
              ErrorCode::OK);
  }
}

TEST_F(KeymasterClientTest, WithoutAnAcceptableDeviceConvertsToFalseSilently) {
  for (const std::vector<uint32_t>& levels :
       {std::vector<uint32_t>{}, std::vector<uint32_t>{2}, std::vector<uint32_t>{2, 2}}) {
    tavikm_host::SetKeymasterDeviceLevels(levels);
    Keymaster km;
    EXPECT_FALSE(km);
  }
  tavikm_host::ResetKeymaster();
  property_set("host.keymaster.devices", "");
  Keymaster none;
  EXPECT_FALSE(none);
  property_set("host.keymaster.devices", "STRONGBOX");
  Keymaster strongbox_only;
  EXPECT_FALSE(strongbox_only);
  EXPECT_TRUE(log_.Lines().empty());
}

// ---- Key calls ------------------------------------------------------------------------------

TEST_F(KeymasterClientTest, GenerateKeyReplacesTheStringOrDropsTheBlob) {
  std::string key = "earlier content that must go";
  ASSERT_TRUE(km_->generateKey(kmhost::AesGcmKey(), &key));
  EXPECT_EQ(key.find("earlier content"), std::string::npos);
  EXPECT_GT(key.size(), 32u);
  EXPECT_EQ(Begin(key).getErrorCode(), ErrorCode::OK);
  EXPECT_TRUE(km_->generateKey(kmhost::AesGcmKey(), nullptr));
  EXPECT_EQ(tavikm_host::KeymasterCallCount(KeymasterCall::kGenerateKey), 2);
  EXPECT_TRUE(log_.Lines().empty());
}

TEST_F(KeymasterClientTest, UpgradeKeyAfterAPatchAndWhenNothingIsToDo) {
  std::string key = AesKey();
  // Current already: the device answers OK with an empty blob, which replaces the string.
  std::string upgraded = "stale";
  ASSERT_TRUE(km_->upgradeKey(key, {}, &upgraded));
  EXPECT_TRUE(upgraded.empty());

  property_set("ro.build.version.security_patch", "2027-03-05");
  EXPECT_EQ(Begin(key).getErrorCode(), ErrorCode::KEY_REQUIRES_UPGRADE);
  ASSERT_TRUE(km_->upgradeKey(key, {}, &upgraded));
  EXPECT_FALSE(upgraded.empty());
  EXPECT_NE(upgraded, key);
  EXPECT_EQ(Begin(upgraded).getErrorCode(), ErrorCode::OK);
  EXPECT_TRUE(km_->upgradeKey(key, {}, nullptr));
  EXPECT_EQ(log_.Lines(), (std::vector<LogLine>{KmError("begin failed, code -62")}));
}

TEST_F(KeymasterClientTest, DeleteKeyMakesTheBlobUseless) {
  std::string key = AesKey();
  EXPECT_TRUE(km_->deleteKey(key));
  EXPECT_NE(Begin(key).getErrorCode(), ErrorCode::OK);
}

// Every failing call says which HAL call failed and how, in its own words.
TEST_F(KeymasterClientTest, FailuresAreLoggedPerCallAndKind) {
  const std::string key = AesKey();
  struct Case {
    KeymasterCall call;
    std::string name;
    std::function<bool(Keymaster&)> run;
  };
  const Case cases[] = {
      {KeymasterCall::kGenerateKey, "generate_key",
       [](Keymaster& km) { return km.generateKey(kmhost::AesGcmKey(), nullptr); }},
      {KeymasterCall::kDeleteKey, "delete_key", [&](Keymaster& km) { return km.deleteKey(key); }},
      {KeymasterCall::kUpgradeKey, "upgrade_key",
       [&](Keymaster& km) { return km.upgradeKey(key, {}, nullptr); }},
      {KeymasterCall::kBegin, "begin",
       [&](Keymaster& km) {
         return km.begin(KeyPurpose::ENCRYPT, key, GcmParams(), {}, nullptr).getErrorCode() ==
                ErrorCode::OK;
       }},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    log_.Clear();
    tavikm_host::FailKeymasterCall(c.call, 1, ErrorCode::SECURE_HW_BUSY);
    EXPECT_FALSE(c.run(*km_));
    tavikm_host::FailKeymasterTransport(c.call, 1, "link down");
    EXPECT_FALSE(c.run(*km_));
    EXPECT_EQ(log_.Lines(),
              (std::vector<LogLine>{
                  KmError(c.name + " failed, code -48"),
                  KmError(c.name + " failed: Status(EX_TRANSACTION_FAILED): 'link down'")}));
  }
}

// A device that answers with an error and a payload all the same.
class PayloadWithErrorKeymaster : public kmdev::RecordingKeymaster {
 public:
  using RecordingKeymaster::RecordingKeymaster;
  Return<void> generateKey(const hidl_vec<hw::KeyParameter>&, generateKey_cb cb) override {
    cb(ErrorCode::UNKNOWN_ERROR, Blob(), hw::KeyCharacteristics());
    return Void();
  }
  Return<void> upgradeKey(const hidl_vec<uint8_t>&, const hidl_vec<hw::KeyParameter>&,
                          upgradeKey_cb cb) override {
    cb(ErrorCode::INVALID_KEY_BLOB, Blob());
    return Void();
  }
  Return<void> begin(hw::KeyPurpose, const hidl_vec<uint8_t>&, const hidl_vec<hw::KeyParameter>&,
                     const hw::HardwareAuthToken&, begin_cb cb) override {
    hw::AuthorizationSet params;
    params.push_back(hw::TAG_NONCE, hidl_vec<uint8_t>(Blob()));
    cb(ErrorCode::KEY_RATE_LIMIT_EXCEEDED, params.hidl_data(), 77);
    return Void();
  }

 private:
  static hidl_vec<uint8_t> Blob() { return hidl_vec<uint8_t>{1, 2, 3}; }
};

TEST_F(KeymasterClientTest, PayloadIsDeliveredOnlyWithOk) {
  kmdev::UseOnly<PayloadWithErrorKeymaster>();
  Keymaster km;
  ASSERT_TRUE(km);
  std::string key = "kept", upgraded = "kept too";
  EXPECT_FALSE(km.generateKey(kmhost::AesGcmKey(), &key));
  EXPECT_FALSE(km.upgradeKey("old", {}, &upgraded));
  hw::AuthorizationSet out;
  out.push_back(hw::TAG_KEY_SIZE, 999u);
  {
    KeymasterOperation op = km.begin(KeyPurpose::ENCRYPT, "k", GcmParams(), {}, &out);
    EXPECT_EQ(op.getErrorCode(), ErrorCode::KEY_RATE_LIMIT_EXCEEDED);
    EXPECT_FALSE(op.updateCompletely(std::string("x"), static_cast<std::string*>(nullptr)));
  }
  EXPECT_EQ(key, "kept");
  EXPECT_EQ(upgraded, "kept too");
  ASSERT_EQ(out.size(), 1u);
  EXPECT_EQ(out[0].tag, hw::Tag::KEY_SIZE);
  // The handle that came with the error was never taken: nothing to abort, nothing updated.
  EXPECT_EQ(tavikm_host::KeymasterCallCount(KeymasterCall::kAbort), 0);
  EXPECT_EQ(tavikm_host::KeymasterCallCount(KeymasterCall::kUpdate), 0);
}

// ---- begin ----------------------------------------------------------------------------------

TEST_F(KeymasterClientTest, BeginHandsBackTheHalsOwnCode) {
  std::string key = AesKey();
  tavikm_host::FailKeymasterCall(KeymasterCall::kBegin, 1, ErrorCode::KEY_REQUIRES_UPGRADE);
  tavikm_host::FailKeymasterCall(KeymasterCall::kBegin, 2, ErrorCode::KEY_RATE_LIMIT_EXCEEDED);
  tavikm_host::FailKeymasterTransport(KeymasterCall::kBegin, 3, "binder died");
  EXPECT_EQ(Begin(key).getErrorCode(), ErrorCode::KEY_REQUIRES_UPGRADE);
  EXPECT_EQ(Begin(key).getErrorCode(), ErrorCode::KEY_RATE_LIMIT_EXCEEDED);
  EXPECT_EQ(Begin(key).getErrorCode(), ErrorCode::UNKNOWN_ERROR);
  // The device's own refusal too: a changed blob.
  std::string changed = key;
  changed[changed.size() / 2] ^= 1;
  EXPECT_EQ(Begin(changed).getErrorCode(), ErrorCode::INVALID_KEY_BLOB);
  EXPECT_EQ(log_.Lines(), (std::vector<LogLine>{
                              KmError("begin failed, code -62"), KmError("begin failed, code -54"),
                              KmError("begin failed: Status(EX_TRANSACTION_FAILED): 'binder died'"),
                              KmError("begin failed, code -33")}));
  EXPECT_EQ(tavikm_host::KeymasterCallCount(KeymasterCall::kAbort), 0);
}

TEST_F(KeymasterClientTest, BeginOutParamsAreReplacedOnlyByANonEmptyList) {
  std::string key = AesKey();
  hw::AuthorizationSet out;
  out.push_back(hw::TAG_KEY_SIZE, 999u);
  // With the caller's nonce the device has nothing to report.
  {
    KeymasterOperation op = km_->begin(KeyPurpose::ENCRYPT, key, GcmParams(), {}, &out);
    ASSERT_EQ(op.getErrorCode(), ErrorCode::OK);
    ASSERT_EQ(out.size(), 1u);
    EXPECT_EQ(out[0].tag, hw::Tag::KEY_SIZE);
  }
  // Without one it reports the nonce it chose, which replaces what was there.
  KeymasterOperation op = km_->begin(KeyPurpose::ENCRYPT, key, GcmParams(""), {}, &out);
  ASSERT_EQ(op.getErrorCode(), ErrorCode::OK);
  ASSERT_EQ(out.size(), 1u);
  EXPECT_EQ(out[0].tag, hw::Tag::NONCE);
  EXPECT_EQ(out[0].blob.size(), 12u);
}

// ---- Operations -----------------------------------------------------------------------------

TEST_F(KeymasterClientTest, OperationsEncryptAndDecryptThroughTheDevice) {
  std::string key = AesKey();
  std::string plain = Pattern(100);
  std::string sealed = Seal(key, plain);
  ASSERT_EQ(sealed.size(), plain.size() + 16);

  KeymasterOperation op = Begin(key, KeyPurpose::DECRYPT);
  std::string out = "earlier output", last = "earlier last";
  ASSERT_TRUE(op.updateCompletely(sealed, &out));
  ASSERT_TRUE(op.finish(&last));
  EXPECT_EQ(out + last, plain);
  EXPECT_EQ(out.find("earlier"), std::string::npos);
  EXPECT_EQ(last.find("earlier"), std::string::npos);

  // The tag is still checked when the last output is not wanted.
  KeymasterOperation unwanted = Begin(key, KeyPurpose::DECRYPT);
  ASSERT_TRUE(unwanted.updateCompletely(sealed, static_cast<std::string*>(nullptr)));
  EXPECT_TRUE(unwanted.finish(nullptr));
  sealed.back() ^= 1;
  KeymasterOperation tampered = Begin(key, KeyPurpose::DECRYPT);
  ASSERT_TRUE(tampered.updateCompletely(sealed, &out));
  EXPECT_FALSE(tampered.finish(&last));
  EXPECT_EQ(log_.Lines(), (std::vector<LogLine>{KmError("finish failed, code -30")}));
  EXPECT_EQ(tavikm_host::KeymasterOpenOperations(), 0u);
}

TEST_F(KeymasterClientTest, EmptyInputDoesNotReachTheDevice) {
  KeymasterOperation op = Begin(AesKey());
  int consumer_calls = 0;
  EXPECT_TRUE(op.updateCompletely(nullptr, 0, [&](const char*, size_t) { ++consumer_calls; }));
  EXPECT_EQ(consumer_calls, 0);
  EXPECT_EQ(tavikm_host::KeymasterCallCount(KeymasterCall::kUpdate), 0);
  std::string tag;
  EXPECT_TRUE(op.finish(&tag));
  EXPECT_EQ(tag.size(), 16u);
}

TEST_F(KeymasterClientTest, UpdateFollowsADeviceThatTakesSixteenBytesAtATime) {
  auto received = kmdev::UseOnly<kmdev::RecordingKeymaster>();
  Keymaster km;
  ASSERT_TRUE(km);
  std::string key;
  ASSERT_TRUE(km.generateKey(kmhost::AesGcmKey(), &key));
  for (size_t n : {1u, 15u, 16u, 17u, 40u, 64u}) {
    SCOPED_TRACE(n);
    std::string plain = Pattern(n);
    tavikm_host::SetKeymasterUpdateChunk(0);
    std::string whole = Seal(key, plain);
    tavikm_host::SetKeymasterUpdateChunk(16);
    received->calls.clear();

    KeymasterOperation op = km.begin(KeyPurpose::ENCRYPT, key, GcmParams(), {}, nullptr);
    std::vector<std::string> pieces;
    ASSERT_TRUE(op.updateCompletely(plain.data(), plain.size(), [&](const char* p, size_t len) {
      pieces.emplace_back(p, len);
    }));
    std::string tag;
    ASSERT_TRUE(op.finish(&tag));

    auto updates = received->Of(KeymasterCall::kUpdate);
    EXPECT_EQ(updates.size(), (n + 15) / 16);
    EXPECT_EQ(pieces.size(), updates.size());  // one consumer call per update
    std::string fed;
    for (const auto& u : updates) fed.append(u.input.begin(), u.input.end());
    EXPECT_EQ(fed, plain);  // each call started where the last one stopped
    std::string out;
    for (const auto& p : pieces) out += p;
    EXPECT_EQ(out + tag, whole);
  }
}

TEST_F(KeymasterClientTest, DeviceClaimingTooMuchInputEndsTheOperation) {
  {
    KeymasterOperation op = Begin(AesKey());
    tavikm_host::SetKeymasterUpdateOverReport(5);
    std::string out;
    EXPECT_FALSE(op.updateCompletely(Pattern(10), &out));
    EXPECT_EQ(tavikm_host::KeymasterCallCount(KeymasterCall::kUpdate), 1);
  }
  EXPECT_EQ(log_.Lines(),
            (std::vector<LogLine>{KmError("update reported too much input consumed")}));
  EXPECT_TRUE(tavikm_host::KeymasterAbortedHandles().empty());
}

TEST_F(KeymasterClientTest, ADeviceThatTakesNothingIsAbortedNotAskedAgain) {
  std::string key = AesKey();
  tavikm_host::SetKeymasterUpdateLimit(0);
  {
    KeymasterOperation op = Begin(key);
    int consumer_calls = 0;
    std::string input = Pattern(10);
    EXPECT_FALSE(op.updateCompletely(input.data(), input.size(),
                                     [&](const char*, size_t) { ++consumer_calls; }));
    EXPECT_EQ(consumer_calls, 1);  // the one answer, empty
    EXPECT_EQ(tavikm_host::KeymasterCallCount(KeymasterCall::kUpdate), 1);
    EXPECT_EQ(tavikm_host::KeymasterAbortedHandles().size(), 1u);
    std::string out;
    EXPECT_FALSE(op.finish(&out));
  }
  // Aborted once, at the stall: not again on destruction, and the device holds nothing open.
  EXPECT_EQ(tavikm_host::KeymasterAbortedHandles().size(), 1u);
  EXPECT_EQ(tavikm_host::KeymasterCallCount(KeymasterCall::kFinish), 0);
  EXPECT_EQ(tavikm_host::KeymasterOpenOperations(), 0u);
  // The caller reports the failed step; the client adds no line of its own.
  EXPECT_TRUE(log_.Lines().empty());
}

TEST_F(KeymasterClientTest, FailedUpdateOrFinishIsLoggedAndNotAborted) {
  std::string key = AesKey();
  tavikm_host::FailKeymasterCall(KeymasterCall::kUpdate, 1, ErrorCode::INVALID_INPUT_LENGTH);
  tavikm_host::FailKeymasterTransport(KeymasterCall::kUpdate, 2, "gone");
  tavikm_host::FailKeymasterCall(KeymasterCall::kFinish, 1, ErrorCode::VERIFICATION_FAILED);
  tavikm_host::FailKeymasterTransport(KeymasterCall::kFinish, 2, "gone again");
  std::string out = "kept";
  {
    KeymasterOperation a = Begin(key);
    EXPECT_FALSE(a.updateCompletely(Pattern(8), &out));
    KeymasterOperation b = Begin(key);
    EXPECT_FALSE(b.updateCompletely(Pattern(8), &out));
    KeymasterOperation c = Begin(key);
    EXPECT_FALSE(c.finish(&out));
    KeymasterOperation d = Begin(key);
    EXPECT_FALSE(d.finish(&out));
    EXPECT_EQ(out, "");  // emptied by the first update, never written after
  }
  EXPECT_EQ(log_.Lines(),
            (std::vector<LogLine>{
                KmError("update failed, code -21"),
                KmError("update failed: Status(EX_TRANSACTION_FAILED): 'gone'"),
                KmError("finish failed, code -30"),
                KmError("finish failed: Status(EX_TRANSACTION_FAILED): 'gone again'")}));
  EXPECT_EQ(tavikm_host::KeymasterCallCount(KeymasterCall::kAbort), 0);
  EXPECT_EQ(tavikm_host::KeymasterOpenOperations(), 0u);
}

// ---- Lifecycle ------------------------------------------------------------------------------

TEST_F(KeymasterClientTest, ADroppedLiveOperationIsAbortedExactlyOnce) {
  std::string key = AesKey();
  {
    KeymasterOperation op = Begin(key);
    ASSERT_EQ(tavikm_host::KeymasterOpenOperations(), 1u);
  }
  EXPECT_EQ(tavikm_host::KeymasterAbortedHandles().size(), 1u);
  EXPECT_EQ(tavikm_host::KeymasterOpenOperations(), 0u);

  // Finished or failed operations have nothing to abort.
  {
    KeymasterOperation finished = Begin(key);
    ASSERT_TRUE(finished.finish(nullptr));
    tavikm_host::FailKeymasterCall(KeymasterCall::kBegin, 1, ErrorCode::TOO_MANY_OPERATIONS);
    KeymasterOperation failed = Begin(key);
    EXPECT_EQ(failed.getErrorCode(), ErrorCode::TOO_MANY_OPERATIONS);
  }
  EXPECT_EQ(tavikm_host::KeymasterCallCount(KeymasterCall::kAbort), 1);
}

TEST_F(KeymasterClientTest, MovesLeaveOneOwnerOfTheOperation) {
  std::string key = AesKey();
  {
    KeymasterOperation source = Begin(key);
    KeymasterOperation target(std::move(source));
    EXPECT_EQ(source.getErrorCode(), ErrorCode::UNKNOWN_ERROR);  // NOLINT: moved from on purpose
    EXPECT_EQ(target.getErrorCode(), ErrorCode::OK);
    std::string out;
    EXPECT_FALSE(source.updateCompletely(Pattern(4), &out));  // NOLINT
    EXPECT_TRUE(target.updateCompletely(Pattern(4), &out));
    EXPECT_EQ(out.size(), 4u);
  }
  EXPECT_EQ(tavikm_host::KeymasterAbortedHandles().size(), 1u);
  EXPECT_EQ(tavikm_host::KeymasterOpenOperations(), 0u);

  // Assigning a repeated begin's result: a failed operation is simply replaced, a live one is
  // aborted first, and the newcomer stays usable.
  {
    tavikm_host::FailKeymasterCall(KeymasterCall::kBegin, 1, ErrorCode::KEY_RATE_LIMIT_EXCEEDED);
    KeymasterOperation op = Begin(key);
    ASSERT_EQ(op.getErrorCode(), ErrorCode::KEY_RATE_LIMIT_EXCEEDED);
    op = Begin(key);
    EXPECT_EQ(op.getErrorCode(), ErrorCode::OK);
    EXPECT_EQ(tavikm_host::KeymasterAbortedHandles().size(), 1u);
    op = Begin(key);
    EXPECT_EQ(tavikm_host::KeymasterAbortedHandles().size(), 2u);
    EXPECT_EQ(tavikm_host::KeymasterOpenOperations(), 1u);
    std::string out, tag;
    EXPECT_TRUE(op.updateCompletely(Pattern(4), &out));
    EXPECT_TRUE(op.finish(&tag));
  }
  EXPECT_EQ(tavikm_host::KeymasterAbortedHandles().size(), 2u);
  EXPECT_EQ(tavikm_host::KeymasterOpenOperations(), 0u);
}

}  // namespace
}  // namespace tavikm_test
