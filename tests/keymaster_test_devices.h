// SPDX-License-Identifier: Apache-2.0
// Keymaster 4.0 devices that tests put in place of the enumerated ones: a device that passes
// every call to a software Keymaster and writes down what the library sent to upgradeKey, begin
// and update (purposes, parameters, key blobs, inputs), and the means to override single calls.
#ifndef TAVIKM_TESTS_KEYMASTER_TEST_DEVICES_H_
#define TAVIKM_TESTS_KEYMASTER_TEST_DEVICES_H_

#include <android/hardware/keymaster/4.0/IKeymasterDevice.h>
#include <keymasterV4_0/Keymaster.h>
#include <keymasterV4_0/authorization_set.h>
#include <stdint.h>

#include <functional>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "tavikm_host/keymaster.h"
#include "tavikm_host/keymaster_faults.h"

namespace tavikm_test::kmdev {

namespace hw = ::android::hardware::keymaster::V4_0;
using ::android::hardware::hidl_vec;
using ::android::hardware::Return;
using ::android::hardware::Void;
using hw::ErrorCode;

// One call as the device received it.
struct ReceivedCall {
  tavikm_host::KeymasterCall call;
  hw::KeyPurpose purpose = hw::KeyPurpose::ENCRYPT;  // begin only
  std::vector<uint8_t> key;                          // upgradeKey and begin
  std::vector<hw::KeyParameter> params;              // in the order received
  std::vector<uint8_t> input;                        // update only
};

// What every device of one test saw, in call order, over all enumerations.
struct Received {
  std::vector<ReceivedCall> calls;

  std::vector<ReceivedCall> Of(tavikm_host::KeymasterCall call) const {
    std::vector<ReceivedCall> out;
    for (const ReceivedCall& c : calls) {
      if (c.call == call) out.push_back(c);
    }
    return out;
  }
};

// A software Keymaster of `level` that records what it receives into `received` and otherwise
// answers as the software device does. Subclasses override a call to answer their own way.
class RecordingKeymaster : public hw::support::Keymaster {
 public:
  RecordingKeymaster(std::shared_ptr<Received> received, uint32_t level = 1,
                     const std::string& instance = "default")
      : Keymaster(tavikm_host::kKeymasterDescriptor, instance),
        received_(std::move(received)),
        inner_(tavikm_host::MakeSoftKeymaster(level, instance)) {}

  const VersionResult& halVersion() const override { return inner_->halVersion(); }
  Return<void> getHardwareInfo(getHardwareInfo_cb cb) override {
    return inner_->getHardwareInfo(cb);
  }
  Return<void> generateKey(const hidl_vec<hw::KeyParameter>& p, generateKey_cb cb) override {
    return inner_->generateKey(p, cb);
  }
  Return<void> importKey(const hidl_vec<hw::KeyParameter>& p, hw::KeyFormat f,
                         const hidl_vec<uint8_t>& d, importKey_cb cb) override {
    return inner_->importKey(p, f, d, cb);
  }
  Return<void> getKeyCharacteristics(const hidl_vec<uint8_t>& b, const hidl_vec<uint8_t>& c,
                                     const hidl_vec<uint8_t>& a,
                                     getKeyCharacteristics_cb cb) override {
    return inner_->getKeyCharacteristics(b, c, a, cb);
  }
  Return<void> exportKey(hw::KeyFormat f, const hidl_vec<uint8_t>& b, const hidl_vec<uint8_t>& c,
                         const hidl_vec<uint8_t>& a, exportKey_cb cb) override {
    return inner_->exportKey(f, b, c, a, cb);
  }
  Return<void> upgradeKey(const hidl_vec<uint8_t>& b, const hidl_vec<hw::KeyParameter>& p,
                          upgradeKey_cb cb) override {
    Record(tavikm_host::KeymasterCall::kUpgradeKey, b, p);
    return inner_->upgradeKey(b, p, cb);
  }
  Return<ErrorCode> deleteKey(const hidl_vec<uint8_t>& b) override { return inner_->deleteKey(b); }
  Return<void> begin(hw::KeyPurpose purpose, const hidl_vec<uint8_t>& b,
                     const hidl_vec<hw::KeyParameter>& p, const hw::HardwareAuthToken& a,
                     begin_cb cb) override {
    Record(tavikm_host::KeymasterCall::kBegin, b, p).purpose = purpose;
    return inner_->begin(purpose, b, p, a, cb);
  }
  Return<void> update(uint64_t h, const hidl_vec<hw::KeyParameter>& p, const hidl_vec<uint8_t>& i,
                      const hw::HardwareAuthToken& a, const hw::VerificationToken& v,
                      update_cb cb) override {
    Record(tavikm_host::KeymasterCall::kUpdate, {}, p).input.assign(i.begin(), i.end());
    return inner_->update(h, p, i, a, v, cb);
  }
  Return<void> finish(uint64_t h, const hidl_vec<hw::KeyParameter>& p, const hidl_vec<uint8_t>& i,
                      const hidl_vec<uint8_t>& s, const hw::HardwareAuthToken& a,
                      const hw::VerificationToken& v, finish_cb cb) override {
    return inner_->finish(h, p, i, s, a, v, cb);
  }
  Return<ErrorCode> abort(uint64_t h) override { return inner_->abort(h); }

 private:
  ReceivedCall& Record(tavikm_host::KeymasterCall call, const hidl_vec<uint8_t>& key,
                       const hidl_vec<hw::KeyParameter>& params) {
    ReceivedCall c;
    c.call = call;
    c.key.assign(key.begin(), key.end());
    c.params.assign(params.begin(), params.end());
    received_->calls.push_back(std::move(c));
    return received_->calls.back();
  }

  std::shared_ptr<Received> received_;
  std::unique_ptr<hw::support::Keymaster> inner_;
};

// Enumeration lists one device of type D (made from `received` and `args`) at every call; the
// fault layer still wraps it. Undone by ResetKeymaster (TempDeviceDir does that).
template <typename D, typename... Args>
std::shared_ptr<Received> UseOnly(Args... args) {
  auto received = std::make_shared<Received>();
  tavikm_host::SetKeymasterDeviceFactory([received, args...] {
    hw::support::Keymaster::KeymasterSet set;
    set.push_back(std::make_unique<D>(received, args...));
    return set;
  });
  return received;
}

}  // namespace tavikm_test::kmdev

#endif  // TAVIKM_TESTS_KEYMASTER_TEST_DEVICES_H_
