// Fault injection into the emulated Keymaster hardware: each knob of
// tavikm_host/keymaster_faults.h does what it says, counts are kept across enumerations, and
// ResetKeymaster undoes everything.
#include <errno.h>
#include <stdlib.h>

#include <string>
#include <vector>

#include <cutils/properties.h>
#include <gtest/gtest.h>
#include <hardware/hardware.h>
#include <hardware/keymaster1.h>

#include "keymaster_host_util.h"
#include "keymaster_test_devices.h"
#include "support/device_env.h"
#include "tavikm_host/keymaster.h"
#include "tavikm_host/keymaster_faults.h"
#include "tavikm_host/modules.h"

namespace tavikm_test::kmhost {
namespace {

using ::android::hardware::Status;
using hw::KeyPurpose;
using tavikm_host::KeymasterCall;
using tavikm_host::LegacyKeymasterCall;

const Bytes kNonce(12, 3);

class KeymasterFaultsTest : public DeviceTest {
 protected:
  void SetUp() override {
    km_ = FirstDevice();
    ASSERT_TRUE(km_);
    key_ = Generate(*km_, AesGcmKey()).blob;
    ASSERT_FALSE(key_.empty());
  }

  KeymasterPtr km_;
  Bytes key_;
};

TEST_F(KeymasterFaultsTest, ScriptedErrorsAnswerTheNthCallOnly) {
  tavikm_host::FailKeymasterCall(KeymasterCall::kBegin, 2, ErrorCode::KEY_REQUIRES_UPGRADE);
  tavikm_host::FailKeymasterCall(KeymasterCall::kBegin, 3, ErrorCode::KEY_RATE_LIMIT_EXCEEDED);
  Begun first = Begin(*km_, KeyPurpose::ENCRYPT, key_, GcmParams(kNonce));
  EXPECT_EQ(first.error, ErrorCode::OK);
  Begun second = Begin(*FirstDevice(), KeyPurpose::ENCRYPT, key_, GcmParams(kNonce));
  EXPECT_EQ(second.error, ErrorCode::KEY_REQUIRES_UPGRADE);
  EXPECT_EQ(second.handle, 0u);
  EXPECT_EQ(Begin(*km_, KeyPurpose::ENCRYPT, key_, GcmParams(kNonce)).error,
            ErrorCode::KEY_RATE_LIMIT_EXCEEDED);
  Begun fourth = Begin(*km_, KeyPurpose::ENCRYPT, key_, GcmParams(kNonce));
  EXPECT_EQ(fourth.error, ErrorCode::OK);
  // Scripted answers never reached the device.
  EXPECT_EQ(tavikm_host::KeymasterOpenOperations(), 2u);
  EXPECT_EQ(tavikm_host::KeymasterCallCount(KeymasterCall::kBegin), 4);

  // Every kind of call can be scripted, including those that return their code.
  tavikm_host::FailKeymasterCall(KeymasterCall::kGenerateKey, 1, ErrorCode::UNKNOWN_ERROR);
  tavikm_host::FailKeymasterCall(KeymasterCall::kUpgradeKey, 1, ErrorCode::INVALID_KEY_BLOB);
  tavikm_host::FailKeymasterCall(KeymasterCall::kDeleteKey, 1, ErrorCode::SECURE_HW_BUSY);
  tavikm_host::FailKeymasterCall(KeymasterCall::kAbort, 1, ErrorCode::UNIMPLEMENTED);
  tavikm_host::FailKeymasterCall(KeymasterCall::kExportKey, 1, ErrorCode::KEYMASTER_NOT_CONFIGURED);
  EXPECT_EQ(Generate(*km_, AesGcmKey()).error, ErrorCode::UNKNOWN_ERROR);
  EXPECT_EQ(Upgrade(*km_, key_).error, ErrorCode::INVALID_KEY_BLOB);
  EXPECT_EQ(static_cast<ErrorCode>(km_->deleteKey(View(key_))), ErrorCode::SECURE_HW_BUSY);
  EXPECT_EQ(Abort(*km_, first.handle), ErrorCode::UNIMPLEMENTED);
  EXPECT_EQ(Export(*km_, key_).error, ErrorCode::KEYMASTER_NOT_CONFIGURED);
  // The key was not deleted and the operation not aborted: the device never heard of it.
  EXPECT_EQ(Abort(*km_, first.handle), ErrorCode::OK);
  EXPECT_EQ(GcmRun(*km_, KeyPurpose::ENCRYPT, key_, kNonce, Bytes(4)).error, ErrorCode::OK);
}

TEST_F(KeymasterFaultsTest, EveryCallScriptsAnswerUntilReset) {
  tavikm_host::FailKeymasterCall(KeymasterCall::kFinish, tavikm_host::kEveryCall,
                                 ErrorCode::VERIFICATION_FAILED);
  for (int i = 0; i < 3; ++i) {
    EXPECT_EQ(GcmRun(*km_, KeyPurpose::ENCRYPT, key_, kNonce, Bytes(4)).error,
              ErrorCode::VERIFICATION_FAILED);
  }
  tavikm_host::ResetKeymaster();
  EXPECT_EQ(GcmRun(*km_, KeyPurpose::ENCRYPT, key_, kNonce, Bytes(4)).error, ErrorCode::OK);
  EXPECT_EQ(tavikm_host::KeymasterCallCount(KeymasterCall::kFinish), 1);
}

TEST_F(KeymasterFaultsTest, ScriptedUpdateOrFinishFailureEndsTheOperation) {
  tavikm_host::FailKeymasterCall(KeymasterCall::kUpdate, 1, ErrorCode::INVALID_INPUT_LENGTH);
  Begun begun = Begin(*km_, KeyPurpose::ENCRYPT, key_, GcmParams(kNonce));
  EXPECT_EQ(tavikm_host::KeymasterOpenOperations(), 1u);
  Step step = Update(*km_, begun.handle, Bytes(8));
  EXPECT_EQ(step.error, ErrorCode::INVALID_INPUT_LENGTH);
  EXPECT_EQ(step.consumed, 0u);
  EXPECT_EQ(tavikm_host::KeymasterOpenOperations(), 0u);
  EXPECT_TRUE(tavikm_host::KeymasterAbortedHandles().empty());  // ended quietly

  tavikm_host::FailKeymasterTransport(KeymasterCall::kFinish, 1, "dead");
  begun = Begin(*km_, KeyPurpose::ENCRYPT, key_, GcmParams(kNonce));
  auto rc = km_->finish(begun.handle, {}, {}, {}, hw::HardwareAuthToken(), hw::VerificationToken(),
                        [](ErrorCode, const auto&, const auto&) { FAIL() << "callback ran"; });
  EXPECT_FALSE(rc.isOk());
  EXPECT_EQ(tavikm_host::KeymasterOpenOperations(), 0u);
}

TEST_F(KeymasterFaultsTest, TransportFailuresCarryTheirDescription) {
  tavikm_host::FailKeymasterTransport(KeymasterCall::kBegin, 1, "binder died");
  tavikm_host::FailKeymasterTransport(KeymasterCall::kDeleteKey, 1, "no reply");
  tavikm_host::FailKeymasterTransport(KeymasterCall::kGetHardwareInfo, 1, "gone");
  int calls = 0;
  auto rc = km_->begin(KeyPurpose::ENCRYPT, View(key_), GcmParams(kNonce).hidl_data(),
                       hw::HardwareAuthToken(), [&](ErrorCode, const auto&, uint64_t) { ++calls; });
  EXPECT_FALSE(rc.isOk());
  EXPECT_EQ(rc.description(), "Status(EX_TRANSACTION_FAILED): 'binder died'");
  EXPECT_EQ(rc.description(),
            Status::fromExceptionCode(Status::EX_TRANSACTION_FAILED, "binder died").description());
  EXPECT_EQ(calls, 0);
  auto deleted = km_->deleteKey(View(key_));
  EXPECT_FALSE(deleted.isOk());
  EXPECT_EQ(deleted.description(), "Status(EX_TRANSACTION_FAILED): 'no reply'");
  auto info = km_->getHardwareInfo([&](hw::SecurityLevel, const auto&, const auto&) { ++calls; });
  EXPECT_FALSE(info.isOk());
  EXPECT_EQ(calls, 0);
  EXPECT_EQ(tavikm_host::KeymasterOpenOperations(), 0u);
}

TEST_F(KeymasterFaultsTest, UpdateChunkMakesTheCallerLoop) {
  tavikm_host::SetKeymasterUpdateChunk(16);
  Bytes plain(40);
  for (size_t i = 0; i < plain.size(); ++i) plain[i] = static_cast<uint8_t>(i);
  Begun begun = Begin(*km_, KeyPurpose::ENCRYPT, key_, GcmParams(kNonce));
  // What a caller that feeds the remainder again and again sees.
  Bytes sealed;
  std::vector<uint32_t> consumed;
  size_t done = 0;
  while (done < plain.size()) {
    Step step = Update(*km_, begun.handle, Bytes(plain.begin() + done, plain.end()));
    ASSERT_EQ(step.error, ErrorCode::OK);
    consumed.push_back(step.consumed);
    done += step.consumed;
    sealed = Concat(sealed, step.output);
  }
  EXPECT_EQ(consumed, (std::vector<uint32_t>{16, 16, 8}));
  Step tag = Finish(*km_, begun.handle);
  sealed = Concat(sealed, tag.output);
  tavikm_host::SetKeymasterUpdateChunk(0);
  EXPECT_EQ(sealed, GcmRun(*km_, KeyPurpose::ENCRYPT, key_, kNonce, plain).output);
  EXPECT_EQ(tavikm_host::KeymasterCallCount(KeymasterCall::kUpdate), 4);
}

TEST_F(KeymasterFaultsTest, OverReportClaimsMoreThanWasGiven) {
  tavikm_host::SetKeymasterUpdateOverReport(5);
  Begun begun = Begin(*km_, KeyPurpose::ENCRYPT, key_, GcmParams(kNonce));
  Step step = Update(*km_, begun.handle, Bytes(10));
  EXPECT_EQ(step.error, ErrorCode::OK);
  EXPECT_EQ(step.consumed, 15u);
  EXPECT_EQ(step.output.size(), 10u);
  tavikm_host::SetKeymasterUpdateOverReport(0);
  EXPECT_EQ(Update(*km_, begun.handle, Bytes(10)).consumed, 10u);
  Abort(*km_, begun.handle);
}

TEST_F(KeymasterFaultsTest, UpdateLimitHoldsBothDevicesToAPrefixOrNothing) {
  const hw_module_t* module = nullptr;
  ASSERT_EQ(hw_get_module_by_class("keystore", nullptr, &module), 0);
  keymaster1_device_t* km1 = nullptr;
  ASSERT_EQ(keymaster1_open(module, &km1), 0);
  Bytes iv(16, 2);
  keymaster_key_param_t params[] = {keymaster_param_enum(KM_TAG_ALGORITHM, KM_ALGORITHM_AES),
                                    keymaster_param_enum(KM_TAG_PADDING, KM_PAD_NONE),
                                    keymaster_param_enum(KM_TAG_BLOCK_MODE, KM_MODE_CBC),
                                    keymaster_param_blob(KM_TAG_NONCE, iv.data(), iv.size())};
  keymaster_key_param_set_t set = {params, 4};
  keymaster_key_blob_t key = {key_.data(), key_.size()};
  const Bytes input(32, 7);

  // {limit, consumed, GCM output, CBC output (whole blocks only)}
  const size_t cases[][4] = {{0, 0, 0, 0}, {5, 5, 5, 0}, {20, 20, 20, 16}, {64, 32, 32, 32}};
  for (const auto& c : cases) {
    SCOPED_TRACE(c[0]);
    tavikm_host::SetKeymasterUpdateLimit(c[0]);
    Begun begun = Begin(*km_, KeyPurpose::ENCRYPT, key_, GcmParams(kNonce));
    Step step = Update(*km_, begun.handle, input);
    EXPECT_EQ(step.error, ErrorCode::OK);
    EXPECT_EQ(step.consumed, c[1]);
    EXPECT_EQ(step.output.size(), c[2]);
    Abort(*km_, begun.handle);

    keymaster_operation_handle_t handle = 0;
    ASSERT_EQ(km1->begin(km1, KM_PURPOSE_ENCRYPT, &key, &set, nullptr, &handle), KM_ERROR_OK);
    keymaster_blob_t in = {input.data(), input.size()};
    keymaster_blob_t out = {nullptr, 0};
    size_t consumed = 99;
    EXPECT_EQ(km1->update(km1, handle, nullptr, &in, &consumed, nullptr, &out), KM_ERROR_OK);
    EXPECT_EQ(consumed, c[1]);
    EXPECT_EQ(out.data_length, c[3]);
    free(const_cast<uint8_t*>(out.data));
    EXPECT_EQ(km1->abort(km1, handle), KM_ERROR_OK);
  }
  tavikm_host::SetKeymasterUpdateLimit(tavikm_host::kWholeUpdates);
  EXPECT_EQ(GcmRun(*km_, KeyPurpose::ENCRYPT, key_, kNonce, input).error, ErrorCode::OK);
  EXPECT_EQ(keymaster1_close(km1), 0);

  // OK scripted for upgradeKey is a device's "nothing to do": no new blob.
  property_set("ro.build.version.security_patch", "2027-02-05");
  tavikm_host::FailKeymasterCall(KeymasterCall::kUpgradeKey, 1, ErrorCode::OK);
  BlobResult upgraded = Upgrade(*km_, key_);
  EXPECT_EQ(upgraded.error, ErrorCode::OK);
  EXPECT_TRUE(upgraded.blob.empty());
}

// SetKeymasterDeviceLevels is proven through the client's choice of device
// (keymaster_client_test.cpp), which is what it is for.

// A device a test writes itself: the software device, except that it refuses every begin.
class NoBeginKeymaster : public kmdev::RecordingKeymaster {
 public:
  NoBeginKeymaster() : RecordingKeymaster(std::make_shared<kmdev::Received>(), 1, "mock") {}
  android::hardware::Return<void> begin(hw::KeyPurpose, const hidl_vec<uint8_t>&,
                                        const hidl_vec<hw::KeyParameter>&,
                                        const hw::HardwareAuthToken&, begin_cb cb) override {
    cb(ErrorCode::SECURE_HW_ACCESS_DENIED, {}, 0);
    return android::hardware::Void();
  }
};

TEST_F(KeymasterFaultsTest, AFactoryReplacesTheDevicesAndStaysCounted) {
  tavikm_host::SetKeymasterDeviceFactory([] {
    hw::support::Keymaster::KeymasterSet set;
    set.push_back(std::make_unique<NoBeginKeymaster>());
    return set;
  });
  KeymasterPtr mock = FirstDevice();
  ASSERT_TRUE(mock);
  EXPECT_EQ(std::string(mock->instanceName()), "mock");
  EXPECT_EQ(Begin(*mock, KeyPurpose::ENCRYPT, key_, GcmParams(kNonce)).error,
            ErrorCode::SECURE_HW_ACCESS_DENIED);
  tavikm_host::FailKeymasterCall(KeymasterCall::kBegin, 1, ErrorCode::OK);
  EXPECT_EQ(Begin(*mock, KeyPurpose::ENCRYPT, key_, GcmParams(kNonce)).error, ErrorCode::OK);
  EXPECT_EQ(tavikm_host::KeymasterCallCount(KeymasterCall::kBegin), 2);
  tavikm_host::SetKeymasterDeviceFactory({});
  EXPECT_EQ(std::string(FirstDevice()->instanceName()), "default");
}

TEST_F(KeymasterFaultsTest, CallsAndAbortedHandlesAreCountedAcrossEnumerations) {
  Begun a = Begin(*km_, KeyPurpose::ENCRYPT, key_, GcmParams(kNonce));
  Begun b = Begin(*FirstDevice(), KeyPurpose::ENCRYPT, key_, GcmParams(kNonce));
  Abort(*FirstDevice(), b.handle);
  Abort(*km_, a.handle);
  Abort(*km_, 77);
  EXPECT_EQ(tavikm_host::KeymasterAbortedHandles(),
            (std::vector<uint64_t>{b.handle, a.handle, 77}));
  EXPECT_EQ(tavikm_host::KeymasterCallCount(KeymasterCall::kGenerateKey), 1);
  EXPECT_EQ(tavikm_host::KeymasterCallCount(KeymasterCall::kBegin), 2);
  EXPECT_EQ(tavikm_host::KeymasterCallCount(KeymasterCall::kAbort), 3);
  EXPECT_EQ(tavikm_host::KeymasterCallCount(KeymasterCall::kUpdate), 0);
  // Devices made outside enumeration are not watched.
  KeymasterPtr bare = tavikm_host::MakeSoftKeymaster(1, "default");
  Begun c = Begin(*bare, KeyPurpose::ENCRYPT, key_, GcmParams(kNonce));
  EXPECT_EQ(Abort(*bare, c.handle), ErrorCode::OK);
  EXPECT_EQ(tavikm_host::KeymasterCallCount(KeymasterCall::kBegin), 2);
  tavikm_host::ResetKeymaster();
  EXPECT_TRUE(tavikm_host::KeymasterAbortedHandles().empty());
  EXPECT_EQ(tavikm_host::KeymasterCallCount(KeymasterCall::kBegin), 0);
}

TEST_F(KeymasterFaultsTest, LegacyCallsAreScriptedAndCounted) {
  const hw_module_t* module = nullptr;
  ASSERT_EQ(hw_get_module_by_class("keystore", nullptr, &module), 0);
  tavikm_host::FailLegacyKeymasterCall(LegacyKeymasterCall::kOpen, 1, -EIO);
  keymaster1_device_t* km1 = nullptr;
  EXPECT_EQ(keymaster1_open(module, &km1), -EIO);
  EXPECT_EQ(km1, nullptr);
  ASSERT_EQ(keymaster1_open(module, &km1), 0);

  Bytes iv(16, 2);
  keymaster_key_param_t params[] = {keymaster_param_enum(KM_TAG_ALGORITHM, KM_ALGORITHM_AES),
                                    keymaster_param_enum(KM_TAG_PADDING, KM_PAD_NONE),
                                    keymaster_param_enum(KM_TAG_BLOCK_MODE, KM_MODE_CBC),
                                    keymaster_param_blob(KM_TAG_NONCE, iv.data(), iv.size())};
  keymaster_key_param_set_t set = {params, 4};
  keymaster_key_blob_t key = {key_.data(), key_.size()};
  keymaster_operation_handle_t handle = 0;

  tavikm_host::FailLegacyKeymasterCall(LegacyKeymasterCall::kBegin, 1, KM_ERROR_SECURE_HW_BUSY);
  EXPECT_EQ(km1->begin(km1, KM_PURPOSE_ENCRYPT, &key, &set, nullptr, &handle),
            KM_ERROR_SECURE_HW_BUSY);
  ASSERT_EQ(km1->begin(km1, KM_PURPOSE_ENCRYPT, &key, &set, nullptr, &handle), KM_ERROR_OK);
  tavikm_host::FailLegacyKeymasterCall(LegacyKeymasterCall::kUpdate, 1, KM_ERROR_UNKNOWN_ERROR);
  Bytes input(32);
  keymaster_blob_t in = {input.data(), input.size()};
  keymaster_blob_t out = {nullptr, 0};
  size_t consumed = 0;
  EXPECT_EQ(km1->update(km1, handle, nullptr, &in, &consumed, nullptr, &out),
            KM_ERROR_UNKNOWN_ERROR);
  EXPECT_EQ(tavikm_host::KeymasterOpenOperations(), 0u);  // the device ended it
  EXPECT_EQ(km1->abort(km1, handle), KM_ERROR_INVALID_OPERATION_HANDLE);

  EXPECT_EQ(keymaster1_close(km1), 0);
  EXPECT_EQ(tavikm_host::LegacyKeymasterCallCount(LegacyKeymasterCall::kOpen), 2);
  EXPECT_EQ(tavikm_host::LegacyKeymasterCallCount(LegacyKeymasterCall::kClose), 1);
  EXPECT_EQ(tavikm_host::LegacyKeymasterCallCount(LegacyKeymasterCall::kBegin), 2);
  EXPECT_EQ(tavikm_host::LegacyKeymasterCallCount(LegacyKeymasterCall::kUpdate), 1);
  EXPECT_EQ(tavikm_host::LegacyKeymasterCallCount(LegacyKeymasterCall::kAbort), 1);

  // Lookup and open failures of the module itself come from tavikm_host/modules.h.
  tavikm_host::FailModuleLookup("keystore", -ENODEV);
  EXPECT_EQ(hw_get_module_by_class("keystore", nullptr, &module), -ENODEV);
  tavikm_host::FailModuleOpen("keystore", -EACCES);
  ASSERT_EQ(hw_get_module_by_class("keystore", nullptr, &module), 0);
  EXPECT_EQ(keymaster1_open(module, &km1), -EACCES);
}

}  // namespace
}  // namespace tavikm_test::kmhost
