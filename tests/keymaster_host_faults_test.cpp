// SPDX-License-Identifier: Apache-2.0
// Fault injection into the emulated Keymaster hardware: each knob of
// tavikm_host/keymaster_faults.h does what it says on the Keymaster 4.0 and the legacy devices,
// counts are kept across enumerations, and ResetKeymaster undoes everything.
#include <errno.h>
#include <stdlib.h>

#include <array>
#include <functional>
#include <iterator>
#include <string>
#include <vector>

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

using hw::KeyPurpose;
using tavikm_host::KeymasterCall;
using tavikm_host::LegacyKeymasterCall;

const Bytes kNonce(12, 3);

// What a begin and one update of 32 bytes get: the first error, the bytes consumed and handed out.
using Answer = std::array<int, 3>;

class KeymasterFaultsTest : public DeviceTest {
 protected:
  void SetUp() override {
    km_ = FirstDevice();
    ASSERT_TRUE(km_);
    key_ = Generate(*km_, AesGcmKey()).blob;
    ASSERT_FALSE(key_.empty());
    ASSERT_EQ(hw_get_module_by_class("keystore", nullptr, &module_), 0);
  }

  // An operation that went well is aborted afterwards.
  Answer UpdateOnce() {
    Begun begun = Begin(*km_, KeyPurpose::ENCRYPT, key_, GcmParams(kNonce));
    if (begun.error != ErrorCode::OK) return {static_cast<int>(begun.error), 0, 0};
    Step step = Update(*km_, begun.handle, Bytes(32, 7));
    if (step.error == ErrorCode::OK) Abort(*km_, begun.handle);
    return {static_cast<int>(step.error), static_cast<int>(step.consumed),
            static_cast<int>(step.output.size())};
  }

  // The same on the legacy device, with the library's CBC parameters.
  Answer LegacyUpdateOnce(keymaster1_device_t* km1) {
    const Bytes iv(16, 2);  // the parameters refer to it
    CbcParams params(iv);
    keymaster_key_blob_t key = {key_.data(), key_.size()};
    keymaster_operation_handle_t handle = 0;
    int error = km1->begin(km1, KM_PURPOSE_ENCRYPT, &key, &params.set, nullptr, &handle);
    if (error != KM_ERROR_OK) return {error, 0, 0};
    const Bytes input(32, 7);
    keymaster_blob_t in = {input.data(), input.size()}, out = {nullptr, 0};
    size_t consumed = 0;
    error = km1->update(km1, handle, nullptr, &in, &consumed, nullptr, &out);
    free(const_cast<uint8_t*>(out.data));
    if (error == KM_ERROR_OK && km1->abort(km1, handle) != KM_ERROR_OK) ADD_FAILURE() << "abort";
    return {error, static_cast<int>(consumed), static_cast<int>(out.data_length)};
  }

  KeymasterPtr km_;
  Bytes key_;
  const hw_module_t* module_ = nullptr;
};

TEST_F(KeymasterFaultsTest, UpdateKnobsActOnBothDevices) {
  namespace th = tavikm_host;
  const int kTooShort = static_cast<int>(ErrorCode::INVALID_INPUT_LENGTH);
  const struct {
    std::function<void()> set;
    Answer km4, legacy;
  } cases[] = {
      {[] {}, {0, 32, 32}, {0, 32, 32}},
      // A prefix or nothing; CBC hands out whole blocks only.
      {[] { th::SetKeymasterUpdateLimit(0); }, {0, 0, 0}, {0, 0, 0}},
      {[] { th::SetKeymasterUpdateLimit(5); }, {0, 5, 5}, {0, 5, 0}},
      {[] { th::SetKeymasterUpdateLimit(20); }, {0, 20, 20}, {0, 20, 16}},
      {[] { th::SetKeymasterUpdateLimit(64); }, {0, 32, 32}, {0, 32, 32}},
      {[] { th::SetKeymasterUpdateChunk(16); }, {0, 16, 16}, {0, 16, 16}},
      {[] { th::SetKeymasterUpdateLimit(5), th::SetKeymasterUpdateChunk(0); },
       {0, 32, 32},
       {0, 32, 32}},
      // Claims more than it was given; the legacy device has no such knob.
      {[] { th::SetKeymasterUpdateOverReport(5); }, {0, 37, 32}, {0, 32, 32}},
      // A scripted failure answers for the device, which ends the operation quietly.
      {[] { th::FailKeymasterCall(KeymasterCall::kUpdate, 1, ErrorCode::INVALID_INPUT_LENGTH); },
       {kTooShort, 0, 0},
       {0, 32, 32}},
      {[] { th::FailLegacyKeymasterCall(LegacyKeymasterCall::kUpdate, 1, KM_ERROR_UNKNOWN_ERROR); },
       {0, 32, 32},
       {KM_ERROR_UNKNOWN_ERROR, 0, 0}},
      {[] { th::FailLegacyKeymasterCall(LegacyKeymasterCall::kBegin, 1, KM_ERROR_SECURE_HW_BUSY); },
       {0, 32, 32},
       {KM_ERROR_SECURE_HW_BUSY, 0, 0}},
  };
  keymaster1_device_t* km1 = nullptr;
  ASSERT_EQ(keymaster1_open(module_, &km1), 0);
  for (size_t i = 0; i < std::size(cases); ++i) {
    SCOPED_TRACE(i);
    th::ResetKeymaster();
    cases[i].set();
    EXPECT_EQ(UpdateOnce(), cases[i].km4);
    EXPECT_EQ(LegacyUpdateOnce(km1), cases[i].legacy);
    EXPECT_EQ(th::KeymasterOpenOperations(), 0u);
    // Scripted calls are counted, and the only aborts seen are the helper's.
    EXPECT_EQ(th::KeymasterAbortedHandles().size(), cases[i].km4[0] ? 0u : 1u);
    EXPECT_EQ(th::KeymasterCallCount(KeymasterCall::kUpdate), 1);
    EXPECT_EQ(th::LegacyKeymasterCallCount(LegacyKeymasterCall::kBegin), 1);
  }
  EXPECT_EQ(keymaster1_close(km1), 0);
}

// What the library makes of scripted answers and transport failures of each call (their texts,
// and that a failed update or finish ends the operation) is asserted in keymaster_client_test.cpp.
TEST_F(KeymasterFaultsTest, ScriptedAnswersReplaceTheNthCallOnly) {
  tavikm_host::FailKeymasterCall(KeymasterCall::kBegin, 2, ErrorCode::KEY_REQUIRES_UPGRADE);
  tavikm_host::FailKeymasterCall(KeymasterCall::kBegin, 3, ErrorCode::KEY_RATE_LIMIT_EXCEEDED);
  Begun first = Begin(*km_, KeyPurpose::ENCRYPT, key_, GcmParams(kNonce));
  EXPECT_EQ(first.error, ErrorCode::OK);
  Begun second = Begin(*FirstDevice(), KeyPurpose::ENCRYPT, key_, GcmParams(kNonce));
  EXPECT_EQ(second.error, ErrorCode::KEY_REQUIRES_UPGRADE);
  EXPECT_EQ(second.handle, 0u);
  EXPECT_EQ(Begin(*km_, KeyPurpose::ENCRYPT, key_, GcmParams(kNonce)).error,
            ErrorCode::KEY_RATE_LIMIT_EXCEEDED);
  EXPECT_EQ(Begin(*km_, KeyPurpose::ENCRYPT, key_, GcmParams(kNonce)).error, ErrorCode::OK);
  // Scripted answers never reach the device; they are counted over all device objects.
  EXPECT_EQ(tavikm_host::KeymasterOpenOperations(), 2u);
  EXPECT_EQ(tavikm_host::KeymasterCallCount(KeymasterCall::kBegin), 4);

  // Calls that return their code: the key is not deleted, the operation not aborted.
  tavikm_host::FailKeymasterCall(KeymasterCall::kDeleteKey, 1, ErrorCode::SECURE_HW_BUSY);
  tavikm_host::FailKeymasterCall(KeymasterCall::kAbort, 1, ErrorCode::UNIMPLEMENTED);
  EXPECT_EQ(static_cast<ErrorCode>(km_->deleteKey(View(key_))), ErrorCode::SECURE_HW_BUSY);
  EXPECT_EQ(Abort(*km_, first.handle), ErrorCode::UNIMPLEMENTED);
  EXPECT_EQ(Abort(*km_, first.handle), ErrorCode::OK);
  EXPECT_EQ(tavikm_host::KeymasterAbortedHandles(),
            (std::vector<uint64_t>{first.handle, first.handle}));
  EXPECT_EQ(GcmRun(*km_, KeyPurpose::ENCRYPT, key_, kNonce, Bytes(4)).error, ErrorCode::OK);

  // kEveryCall answers until a reset.
  tavikm_host::FailKeymasterCall(KeymasterCall::kFinish, tavikm_host::kEveryCall,
                                 ErrorCode::VERIFICATION_FAILED);
  for (int i = 0; i < 2; ++i) {
    EXPECT_EQ(GcmRun(*km_, KeyPurpose::ENCRYPT, key_, kNonce, Bytes(4)).error,
              ErrorCode::VERIFICATION_FAILED);
  }
  tavikm_host::ResetKeymaster();
  EXPECT_EQ(GcmRun(*km_, KeyPurpose::ENCRYPT, key_, kNonce, Bytes(4)).error, ErrorCode::OK);
  EXPECT_TRUE(tavikm_host::KeymasterAbortedHandles().empty());
  EXPECT_EQ(tavikm_host::KeymasterCallCount(KeymasterCall::kBegin), 1);
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
  // Devices made outside enumeration are not watched.
  KeymasterPtr bare = tavikm_host::MakeSoftKeymaster(1, "default");
  EXPECT_EQ(Abort(*bare, Begin(*bare, KeyPurpose::ENCRYPT, key_, GcmParams(kNonce)).handle),
            ErrorCode::OK);
  EXPECT_EQ(tavikm_host::KeymasterCallCount(KeymasterCall::kBegin), 2);
}

TEST_F(KeymasterFaultsTest, LegacyOpensAreScriptedAndCallsCounted) {
  tavikm_host::FailLegacyKeymasterCall(LegacyKeymasterCall::kOpen, 1, -EIO);
  keymaster1_device_t* km1 = nullptr;
  EXPECT_EQ(keymaster1_open(module_, &km1), -EIO);
  EXPECT_EQ(km1, nullptr);
  ASSERT_EQ(keymaster1_open(module_, &km1), 0);
  EXPECT_EQ(LegacyUpdateOnce(km1), (Answer{0, 32, 32}));
  EXPECT_EQ(keymaster1_close(km1), 0);
  EXPECT_EQ(tavikm_host::LegacyKeymasterCallCount(LegacyKeymasterCall::kOpen), 2);
  EXPECT_EQ(tavikm_host::LegacyKeymasterCallCount(LegacyKeymasterCall::kClose), 1);
  EXPECT_EQ(tavikm_host::LegacyKeymasterCallCount(LegacyKeymasterCall::kBegin), 1);
  EXPECT_EQ(tavikm_host::LegacyKeymasterCallCount(LegacyKeymasterCall::kUpdate), 1);
  EXPECT_EQ(tavikm_host::LegacyKeymasterCallCount(LegacyKeymasterCall::kAbort), 1);
}

}  // namespace
}  // namespace tavikm_test::kmhost
