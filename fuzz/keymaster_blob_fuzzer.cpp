// SPDX-License-Identifier: Apache-2.0
// Fuzz target: key blobs handed to the software Keymaster 4.0 device's upgradeKey and begin (and,
// when begin accepts, update and finish), through support::Keymaster enumeration as the library
// reaches it.
//
// Input: flags (1 byte: bits 0-1 the device's security level, bit 2 sealed mode), purpose (1),
// begin/upgrade parameters (2-byte length + a serialized AuthorizationSet), operation input
// (2-byte length + bytes), then the blob:
// - raw mode: the rest is the blob, as stored in a record;
// - sealed mode: level (4), material (2-byte length + bytes), then serialized authorizations and
//   the serialized application binding. The target seals these with the device secret, so that
//   what lies behind the blob's authentication (material, authorizations) is fuzzed too.
#include <cutils/properties.h>
#include <keymasterV4_0/Keymaster.h>
#include <keymasterV4_0/authorization_set.h>
#include <stdint.h>
#include <stdlib.h>

#include <sstream>
#include <string>
#include <vector>

#include "fuzz_env.h"
#include "platform/host/keymaster/key_blob.h"

namespace {

namespace hw = ::android::hardware::keymaster::V4_0;
using ::android::hardware::hidl_vec;

const char* const kLevels[] = {"SOFTWARE", "TRUSTED_ENVIRONMENT", "STRONGBOX",
                               "TRUSTED_ENVIRONMENT"};

hw::AuthorizationSet ParseSet(const std::vector<uint8_t>& bytes) {
  std::istringstream in(std::string(bytes.begin(), bytes.end()));
  hw::AuthorizationSet set;
  set.Deserialize(&in);
  return set;
}

std::vector<uint8_t> SealedBlob(tavikm_fuzz::Reader* in) {
  tavikm_host::km::KeyBlobContents contents;
  contents.level = in->U32();
  std::vector<uint8_t> material = in->Bytes(in->U16());
  contents.material = tavikm_host::km::SecretBytes(material.data(), material.size());
  std::vector<uint8_t> rest = in->Rest();
  std::istringstream sets(std::string(rest.begin(), rest.end()));
  contents.authorizations.Deserialize(&sets);
  contents.hidden.Deserialize(&sets);
  std::vector<uint8_t> blob;
  if (!tavikm_host::km::SealKeyBlob(contents, &blob)) abort();
  return blob;
}

// Runs one operation with `blob`; returns begin's error.
hw::ErrorCode RunOperation(hw::support::Keymaster* device, hw::KeyPurpose purpose,
                           const hidl_vec<uint8_t>& blob, const hw::AuthorizationSet& params,
                           const hidl_vec<uint8_t>& input) {
  hw::ErrorCode begin_error = hw::ErrorCode::UNKNOWN_ERROR;
  uint64_t handle = 0;
  if (!device
           ->begin(purpose, blob, params.hidl_data(), hw::HardwareAuthToken(),
                   [&](hw::ErrorCode error, const hidl_vec<hw::KeyParameter>&, uint64_t h) {
                     begin_error = error;
                     handle = h;
                   })
           .isOk()) {
    abort();
  }
  if (begin_error != hw::ErrorCode::OK) return begin_error;

  hw::ErrorCode error = hw::ErrorCode::UNKNOWN_ERROR;
  device->update(handle, {}, input, hw::HardwareAuthToken(), hw::VerificationToken(),
                 [&](hw::ErrorCode e, uint32_t consumed, const hidl_vec<hw::KeyParameter>&,
                     const hidl_vec<uint8_t>&) {
                   error = e;
                   if (e == hw::ErrorCode::OK && consumed > input.size()) abort();
                 });
  if (error == hw::ErrorCode::OK) {
    // A verification gets the input back as its signature; the others ignore it.
    device->finish(handle, {}, {}, input, hw::HardwareAuthToken(), hw::VerificationToken(),
                   [&](hw::ErrorCode e, const hidl_vec<hw::KeyParameter>&,
                       const hidl_vec<uint8_t>&) { error = e; });
  }
  if (error != hw::ErrorCode::OK) device->abort(handle);
  return begin_error;
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  tavikm_fuzz::InitFuzzDevice();
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  tavikm_fuzz::ResetFuzzDevice();
  tavikm_fuzz::Reader in(data, size);
  const uint8_t flags = in.U8();
  const auto purpose = static_cast<hw::KeyPurpose>(in.U8());
  const hw::AuthorizationSet params = ParseSet(in.Bytes(in.U16()));
  const hidl_vec<uint8_t> input(in.Bytes(in.U16()));
  const hidl_vec<uint8_t> blob((flags & 4) ? SealedBlob(&in) : in.Rest());

  property_set("host.keymaster.devices", kLevels[flags & 3]);
  hw::support::Keymaster::KeymasterSet devices =
      hw::support::Keymaster::enumerateAvailableDevices();
  if (devices.empty()) abort();
  hw::support::Keymaster* device = devices[0].get();

  hw::ErrorCode upgrade_error = hw::ErrorCode::UNKNOWN_ERROR;
  hidl_vec<uint8_t> upgraded;
  if (!device
           ->upgradeKey(blob, params.hidl_data(),
                        [&](hw::ErrorCode error, const hidl_vec<uint8_t>& new_blob) {
                          upgrade_error = error;
                          upgraded = new_blob;
                        })
           .isOk()) {
    abort();
  }
  if (upgrade_error != hw::ErrorCode::OK && upgraded.size() != 0) abort();

  RunOperation(device, purpose, blob, params, input);
  // An upgraded blob is current: it never asks for another upgrade.
  if (upgraded.size() != 0 && RunOperation(device, purpose, upgraded, params, input) ==
                                  hw::ErrorCode::KEY_REQUIRES_UPGRADE) {
    abort();
  }
  return 0;
}
