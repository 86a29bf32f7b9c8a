// SPDX-License-Identifier: Apache-2.0
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
    std::string line;  // empty: no acceptable device, and the session says nothing
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
      {{}, "", false},
      {{2}, "", false},
      {{2, 2}, "", false},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(::testing::PrintToString(c.levels));
    tavikm_host::SetKeymasterDeviceLevels(c.levels);
    log_.Clear();
    Keymaster km;
    ASSERT_EQ(static_cast<bool>(km), !c.line.empty());
    if (c.line.empty()) {
      EXPECT_TRUE(log_.Lines().empty());
      continue;
    }
    EXPECT_EQ(km.isSecure(), c.secure);
    EXPECT_EQ(log_.Lines(), (std::vector<LogLine>{KmInfo(c.line)}));
    // The session works on the device it took.
    std::string key;
    EXPECT_TRUE(km.generateKey(kmhost::AesGcmKey(), &key));
    EXPECT_EQ(km.begin(KeyPurpose::ENCRYPT, key, GcmParams(), {}, nullptr).getErrorCode(),
              ErrorCode::OK);
  }
}

// ---- Key calls ------------------------------------------------------------------------------

TEST_F(KeymasterClientTest, GenerateKeyReplacesTheStringOrDropsTheBlobAndDeleteKeyEndsIt) {
  std::string key = "earlier content that must go";
  ASSERT_TRUE(km_->generateKey(kmhost::AesGcmKey(), &key));
  EXPECT_EQ(key.find("earlier content"), std::string::npos);
  EXPECT_GT(key.size(), 32u);
  EXPECT_EQ(Begin(key).getErrorCode(), ErrorCode::OK);
  EXPECT_TRUE(km_->generateKey(kmhost::AesGcmKey(), nullptr));
  EXPECT_EQ(tavikm_host::KeymasterCallCount(KeymasterCall::kGenerateKey), 2);
  EXPECT_TRUE(log_.Lines().empty());
  EXPECT_TRUE(km_->deleteKey(key));
  EXPECT_NE(Begin(key).getErrorCode(), ErrorCode::OK);
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

// Every failing call says which HAL call failed and how, in its own words. A failed update or
// finish has ended the operation on the device: nothing is aborted.
TEST_F(KeymasterClientTest, FailuresAreLoggedPerCallAndKind) {
  const std::string key = AesKey();
  std::string out;
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
      {KeymasterCall::kUpdate, "update",
       [&](Keymaster& km) {
         return km.begin(KeyPurpose::ENCRYPT, key, GcmParams(), {}, nullptr)
             .updateCompletely(Pattern(8), &out);
       }},
      {KeymasterCall::kFinish, "finish",
       [&](Keymaster& km) {
         return km.begin(KeyPurpose::ENCRYPT, key, GcmParams(), {}, nullptr).finish(&out);
       }},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    log_.Clear();
    out = "kept";
    tavikm_host::FailKeymasterCall(c.call, 1, ErrorCode::SECURE_HW_BUSY);
    EXPECT_FALSE(c.run(*km_));
    tavikm_host::FailKeymasterTransport(c.call, 1, "link down");
    EXPECT_FALSE(c.run(*km_));
    EXPECT_EQ(log_.Lines(),
              (std::vector<LogLine>{
                  KmError(c.name + " failed, code -48"),
                  KmError(c.name + " failed: Status(EX_TRANSACTION_FAILED): 'link down'")}));
    // The update empties the caller's string before it calls; a failed finish never writes it.
    EXPECT_EQ(out, c.call == KeymasterCall::kUpdate ? "" : "kept");
  }
  EXPECT_EQ(tavikm_host::KeymasterCallCount(KeymasterCall::kAbort), 0);
  EXPECT_EQ(tavikm_host::KeymasterOpenOperations(), 0u);
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
  std::string out, last;
  ASSERT_TRUE(op.updateCompletely(sealed, &out));
  ASSERT_TRUE(op.finish(&last));
  EXPECT_EQ(out + last, plain);

  // The tag is still checked when the last output is not wanted.
  sealed.back() ^= 1;
  KeymasterOperation tampered = Begin(key, KeyPurpose::DECRYPT);
  ASSERT_TRUE(tampered.updateCompletely(sealed, static_cast<std::string*>(nullptr)));
  EXPECT_FALSE(tampered.finish(nullptr));
  EXPECT_EQ(log_.Lines(), (std::vector<LogLine>{KmError("finish failed, code -30")}));
  EXPECT_EQ(tavikm_host::KeymasterOpenOperations(), 0u);
}

// Empty input never reaches the device: no update, no consumer call.
TEST_F(KeymasterClientTest, UpdateFollowsADeviceThatTakesSixteenBytesAtATime) {
  auto received = kmdev::UseOnly<kmdev::RecordingKeymaster>();
  Keymaster km;
  ASSERT_TRUE(km);
  std::string key;
  ASSERT_TRUE(km.generateKey(kmhost::AesGcmKey(), &key));
  for (size_t n : {0u, 1u, 15u, 16u, 17u, 40u, 64u}) {
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

// A device that takes none of the input, or claims more than it was given: the one update call
// ends the operation, which is not fed again or finished.
TEST_F(KeymasterClientTest, AnUpdateThatClaimsTooMuchOrTakesNothingEndsTheOperation) {
  const std::string key = AesKey();
  struct Case {
    const char* what;
    std::function<void()> arrange;
    size_t aborted;
    std::vector<LogLine> lines;
  };
  const Case cases[] = {
      // Aborted once, at the stall, not again on destruction, and nothing stays open on the
      // device; the caller reports the failed step, the client adds no line of its own.
      {"takes nothing", [] { tavikm_host::SetKeymasterUpdateLimit(0); }, 1, {}},
      // One byte past the input is already too much.
      {"claims too much",
       [] { tavikm_host::SetKeymasterUpdateOverReport(1); },
       0,
       {KmError("update reported too much input consumed")}},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.what);
    const int updates = tavikm_host::KeymasterCallCount(KeymasterCall::kUpdate);
    const size_t aborted = tavikm_host::KeymasterAbortedHandles().size() + c.aborted;
    c.arrange();
    log_.Clear();
    {
      KeymasterOperation op = Begin(key);
      int consumer_calls = 0;
      std::string input = Pattern(10), out;
      EXPECT_FALSE(op.updateCompletely(input.data(), input.size(),
                                       [&](const char*, size_t) { ++consumer_calls; }));
      EXPECT_EQ(consumer_calls, 1);  // the one answer
      EXPECT_EQ(tavikm_host::KeymasterCallCount(KeymasterCall::kUpdate), updates + 1);
      EXPECT_EQ(tavikm_host::KeymasterAbortedHandles().size(), aborted);
      EXPECT_FALSE(op.finish(&out));
    }
    EXPECT_EQ(tavikm_host::KeymasterAbortedHandles().size(), aborted);
    EXPECT_EQ(tavikm_host::KeymasterCallCount(KeymasterCall::kFinish), 0);
    if (c.aborted) {
      EXPECT_EQ(tavikm_host::KeymasterOpenOperations(), 0u);
    }
    EXPECT_EQ(log_.Lines(), c.lines);
    tavikm_host::SetKeymasterUpdateOverReport(0);
    tavikm_host::SetKeymasterUpdateLimit(tavikm_host::kWholeUpdates);
  }
}

// ---- Lifecycle ------------------------------------------------------------------------------

// A live operation is aborted exactly once, by its one owner, when dropped; finished or failed
// ones have nothing to abort.
TEST_F(KeymasterClientTest, MovesLeaveOneOwnerOfTheOperation) {
  std::string key = AesKey();
  {
    KeymasterOperation finished = Begin(key);
    ASSERT_TRUE(finished.finish(nullptr));
    tavikm_host::FailKeymasterCall(KeymasterCall::kBegin, 1, ErrorCode::TOO_MANY_OPERATIONS);
    KeymasterOperation failed = Begin(key);
    EXPECT_EQ(failed.getErrorCode(), ErrorCode::TOO_MANY_OPERATIONS);
  }
  EXPECT_EQ(tavikm_host::KeymasterCallCount(KeymasterCall::kAbort), 0);
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
