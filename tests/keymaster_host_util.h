// SPDX-License-Identifier: Apache-2.0
// Shorthands for the host Keymaster tests: synchronous wrappers that turn the HAL's callbacks
// into return values (checking that each transport succeeded), and the key and operation
// parameter sets the library uses.
#ifndef TAVIKM_TESTS_KEYMASTER_HOST_UTIL_H_
#define TAVIKM_TESTS_KEYMASTER_HOST_UTIL_H_

#include <stdint.h>

#include <memory>
#include <ostream>
#include <string>
#include <vector>

#include <android/hardware/keymaster/4.0/IKeymasterDevice.h>
#include <gtest/gtest.h>
#include <hardware/keymaster_defs.h>
#include <keymasterV4_0/Keymaster.h>
#include <keymasterV4_0/authorization_set.h>

namespace android::hardware::keymaster::V4_0 {
// Error codes print as their numbers in failure messages.
inline void PrintTo(ErrorCode error, std::ostream* os) { *os << static_cast<int32_t>(error); }
}  // namespace android::hardware::keymaster::V4_0

namespace tavikm_test::kmhost {

namespace hw = ::android::hardware::keymaster::V4_0;
using ::android::hardware::hidl_vec;
using Bytes = std::vector<uint8_t>;
using hw::ErrorCode;
using KeymasterPtr = std::unique_ptr<hw::support::Keymaster>;

inline hidl_vec<uint8_t> View(const Bytes& bytes) {
  hidl_vec<uint8_t> view;
  view.setToExternal(const_cast<uint8_t*>(bytes.data()), bytes.size());
  return view;
}

inline Bytes ToBytes(const hidl_vec<uint8_t>& v) { return Bytes(v.begin(), v.end()); }

inline Bytes Concat(Bytes a, const Bytes& b) {
  a.insert(a.end(), b.begin(), b.end());
  return a;
}

// The first device of a fresh enumeration; fails the test when there is none.
inline KeymasterPtr FirstDevice() {
  auto devices = hw::support::Keymaster::enumerateAvailableDevices();
  if (devices.empty()) {
    ADD_FAILURE() << "no Keymaster device";
    return nullptr;
  }
  return std::move(devices[0]);
}

// Every wrapper checks the call's transport.
inline void ExpectOk(const ::android::hardware::details::return_status& rc) {
  EXPECT_TRUE(rc.isOk()) << rc.description();
}

struct KeyResult {
  ErrorCode error = ErrorCode::UNKNOWN_ERROR;
  Bytes blob;
  hw::KeyCharacteristics characteristics;
  auto Callback() {
    return [this](ErrorCode e, const hidl_vec<uint8_t>& b, const hw::KeyCharacteristics& c) {
      *this = {e, ToBytes(b), c};
    };
  }
};

inline KeyResult Generate(hw::IKeymasterDevice& km, const hw::AuthorizationSet& params) {
  KeyResult result;
  ExpectOk(km.generateKey(params.hidl_data(), result.Callback()));
  return result;
}

inline KeyResult Import(hw::IKeymasterDevice& km, const hw::AuthorizationSet& params,
                        const Bytes& raw_key) {
  KeyResult result;
  ExpectOk(km.importKey(params.hidl_data(), hw::KeyFormat::RAW, View(raw_key), result.Callback()));
  return result;
}

struct BlobResult {
  ErrorCode error = ErrorCode::UNKNOWN_ERROR;
  Bytes blob;
  auto Callback() {
    return [this](ErrorCode e, const hidl_vec<uint8_t>& b) { *this = {e, ToBytes(b)}; };
  }
};

inline BlobResult Upgrade(hw::IKeymasterDevice& km, const Bytes& blob,
                          const hw::AuthorizationSet& params = {}) {
  BlobResult result;
  ExpectOk(km.upgradeKey(View(blob), params.hidl_data(), result.Callback()));
  return result;
}

struct Begun {
  ErrorCode error = ErrorCode::UNKNOWN_ERROR;
  uint64_t handle = 0;
};

inline Begun Begin(hw::IKeymasterDevice& km, hw::KeyPurpose purpose, const Bytes& blob,
                   const hw::AuthorizationSet& params) {
  Begun result;
  ExpectOk(km.begin(purpose, View(blob), params.hidl_data(), hw::HardwareAuthToken(),
                    [&](ErrorCode error, const hidl_vec<hw::KeyParameter>&, uint64_t handle) {
                      result = {error, handle};
                    }));
  return result;
}

struct Step {
  ErrorCode error = ErrorCode::UNKNOWN_ERROR;
  uint32_t consumed = 0;
  Bytes output;
};

inline Step Update(hw::IKeymasterDevice& km, uint64_t handle, const Bytes& input) {
  Step result;
  ExpectOk(km.update(handle, {}, View(input), hw::HardwareAuthToken(), hw::VerificationToken(),
                     [&](ErrorCode error, uint32_t consumed, const hidl_vec<hw::KeyParameter>&,
                         const hidl_vec<uint8_t>& output) {
                       result = {error, consumed, ToBytes(output)};
                     }));
  return result;
}

inline Step Finish(hw::IKeymasterDevice& km, uint64_t handle, const Bytes& input = {},
                   const Bytes& signature = {}) {
  Step result;
  ExpectOk(km.finish(
      handle, {}, View(input), View(signature), hw::HardwareAuthToken(), hw::VerificationToken(),
      [&](ErrorCode error, const hidl_vec<hw::KeyParameter>&, const hidl_vec<uint8_t>& output) {
        result = {error, 0, ToBytes(output)};
      }));
  return result;
}

inline ErrorCode Abort(hw::IKeymasterDevice& km, uint64_t handle) {
  auto rc = km.abort(handle);
  EXPECT_TRUE(rc.isOk()) << rc.description();
  return rc.isOk() ? static_cast<ErrorCode>(rc) : ErrorCode::UNKNOWN_ERROR;
}

// The library's AES key: AES-256, both directions, GCM, caller nonce, no authentication,
// tags of at least 128 bits, no padding.
inline hw::AuthorizationSetBuilder AesGcmKey(uint32_t bits = 256) {
  hw::AuthorizationSetBuilder params;
  params.Authorization(hw::TAG_ALGORITHM, hw::Algorithm::AES)
      .Authorization(hw::TAG_KEY_SIZE, bits)
      .Authorization(hw::TAG_PURPOSE, hw::KeyPurpose::ENCRYPT)
      .Authorization(hw::TAG_PURPOSE, hw::KeyPurpose::DECRYPT)
      .Authorization(hw::TAG_BLOCK_MODE, hw::BlockMode::GCM)
      .Authorization(hw::TAG_CALLER_NONCE)
      .Authorization(hw::TAG_NO_AUTH_REQUIRED)
      .Authorization(hw::TAG_MIN_MAC_LENGTH, 128u)
      .Padding(hw::PaddingMode::NONE);
  return params;
}

// The library's GCM operation parameters with a caller nonce (referred to, not copied).
inline hw::AuthorizationSetBuilder GcmParams(const Bytes& nonce) {
  hw::AuthorizationSetBuilder params;
  params.Authorization(hw::TAG_BLOCK_MODE, hw::BlockMode::GCM)
      .Authorization(hw::TAG_MAC_LENGTH, 128u)
      .Authorization(hw::TAG_NONCE, nonce.data(), nonce.size())
      .Padding(hw::PaddingMode::NONE);
  return params;
}

// Encrypts or decrypts `input` in one update and a finish; the result is both outputs.
inline Step GcmRun(hw::IKeymasterDevice& km, hw::KeyPurpose purpose, const Bytes& blob,
                   const Bytes& nonce, const Bytes& input) {
  Begun begun = Begin(km, purpose, blob, GcmParams(nonce));
  if (begun.error != ErrorCode::OK) return Step{begun.error, 0, {}};
  Step update = Update(km, begun.handle, input);
  if (update.error != ErrorCode::OK) return update;
  Step finish = Finish(km, begun.handle);
  finish.output = Concat(update.output, finish.output);
  return finish;
}

// The parameters the library's legacy message encryption passes: AES, no padding, CBC, the IV
// (referred to, not copied).
struct CbcParams {
  explicit CbcParams(const Bytes& iv)
      : params{keymaster_param_enum(KM_TAG_ALGORITHM, KM_ALGORITHM_AES),
               keymaster_param_enum(KM_TAG_PADDING, KM_PAD_NONE),
               keymaster_param_enum(KM_TAG_BLOCK_MODE, KM_MODE_CBC),
               keymaster_param_blob(KM_TAG_NONCE, iv.data(), iv.size())},
        set{params, 4u} {}
  keymaster_key_param_t params[4];
  keymaster_key_param_set_t set;
};

}  // namespace tavikm_test::kmhost

#endif  // TAVIKM_TESTS_KEYMASTER_HOST_UTIL_H_
