// SPDX-License-Identifier: Apache-2.0
// The legacy "keystore" module: its version from host.keystore.api_version, the keymaster1
// device's AES-CBC over the Keymaster 4.0 device's key blobs (checked against libcrypto on the
// record's key in keymaster_legacy_test.cpp), the checks the library's calls can meet, the shared
// operation table, and the malloc'ed outputs the caller owns.
#include <cutils/properties.h>
#include <errno.h>
#include <gtest/gtest.h>
#include <hardware/hardware.h>
#include <hardware/keymaster0.h>
#include <hardware/keymaster1.h>
#include <stdlib.h>
#include <string.h>

#include <string>
#include <utility>
#include <vector>

#include "keymaster_host_util.h"
#include "support/device_env.h"
#include "tavikm_host/keymaster.h"

namespace tavikm_test::kmhost {
namespace {

const hw_module_t* Lookup(int* rc) {
  const hw_module_t* module = nullptr;
  *rc = hw_get_module_by_class(KEYSTORE_HARDWARE_MODULE_ID, nullptr, &module);
  return module;
}

class LegacyKeymasterTest : public DeviceTest {
 protected:
  void SetUp() override {
    int rc;
    const hw_module_t* module = Lookup(&rc);
    ASSERT_EQ(rc, 0);
    ASSERT_EQ(keymaster1_open(module, &km1_), 0);
  }
  void TearDown() override {
    if (km1_) keymaster1_close(km1_);
  }

  // The record's key, as the Keymaster 4.0 device makes it.
  Bytes NewKey() { return Generate(*FirstDevice(), AesGcmKey()).blob; }

  // begin, one update, finish; the outputs are freed here as the caller must.
  keymaster_error_t Run(keymaster_purpose_t purpose, const Bytes& blob, const CbcParams& params,
                        const Bytes& input, Bytes* output) {
    keymaster_key_blob_t key = {blob.data(), blob.size()};
    keymaster_key_param_set_t out_params = {nullptr, 0};
    keymaster_operation_handle_t handle = 0;
    keymaster_error_t error = km1_->begin(km1_, purpose, &key, &params.set, &out_params, &handle);
    keymaster_free_param_set(&out_params);
    if (error != KM_ERROR_OK) return error;
    keymaster_blob_t in = {input.data(), input.size()};
    keymaster_blob_t out = {nullptr, 0};
    size_t consumed = 0;
    error = km1_->update(km1_, handle, nullptr, &in, &consumed, nullptr, &out);
    if (error != KM_ERROR_OK) return error;
    EXPECT_EQ(consumed, input.size());
    output->assign(out.data, out.data + out.data_length);
    free(const_cast<uint8_t*>(out.data));
    out = {nullptr, 0};
    error = km1_->finish(km1_, handle, nullptr, nullptr, nullptr, &out);
    if (error != KM_ERROR_OK) return error;
    EXPECT_NE(out.data, nullptr);  // owned by the caller even when empty
    output->insert(output->end(), out.data, out.data + out.data_length);
    free(const_cast<uint8_t*>(out.data));
    return error;
  }

  keymaster1_device_t* km1_ = nullptr;
};

// How the library opens the module, and what it logs of it, is proven in keymaster_legacy_test.cpp.
TEST(LegacyModuleTest, VersionComesFromTheProperty) {
  TempDeviceDir device;
  // -1: no module.
  const std::pair<const char*, int> cases[] = {{"0x0100", 0x100}, {"0x0200", 0x200}, {"0x0003", 3},
                                               {"2", 2},          {"", -1},          {"junk", -1},
                                               {"0x10000", -1}};
  for (const auto& [value, version] : cases) {
    SCOPED_TRACE(value);
    property_set("host.keystore.api_version", value);
    int rc;
    const hw_module_t* module = Lookup(&rc);
    EXPECT_EQ(rc, version < 0 ? -ENOENT : 0);
    EXPECT_EQ(module ? module->module_api_version : -1, version);
  }
}

TEST_F(LegacyKeymasterTest, TakesTheRecordsGcmKeyForCbcWhateverItsLevelAndOsBinding) {
  // The record's one AES key is made for GCM only, and the legacy messages need it for CBC: this
  // device allows that, as the design requires (a standalone keymaster1 would answer
  // KM_ERROR_INCOMPATIBLE_BLOCK_MODE). It predates levels and OS binding too: a software
  // Keymaster's key, after a patch, works.
  property_set("host.keymaster.devices", "SOFTWARE");
  Bytes key = NewKey();
  property_set("ro.build.version.security_patch", "2027-06-01");
  Bytes iv(16, 7), out;
  EXPECT_EQ(Run(KM_PURPOSE_ENCRYPT, key, CbcParams(iv), Bytes(32, 1), &out), KM_ERROR_OK);
  EXPECT_EQ(out.size(), 32u);
}

// What the library's legacy calls can meet: a changed blob, and a message not in whole blocks.
// The legacy HAL's other rules (modes, padding, purposes, nonces) are never reached from it.
TEST_F(LegacyKeymasterTest, BeginChecksTheBlobAndWholeBlocks) {
  Bytes blob = NewKey();
  Bytes iv(16, 1), out;
  Bytes changed = blob;
  changed[20] ^= 1;
  EXPECT_EQ(Run(KM_PURPOSE_ENCRYPT, changed, CbcParams(iv), Bytes(32), &out),
            KM_ERROR_INVALID_KEY_BLOB);
  EXPECT_EQ(Run(KM_PURPOSE_ENCRYPT, blob, CbcParams(iv), Bytes(20), &out),
            KM_ERROR_INVALID_INPUT_LENGTH);
  EXPECT_EQ(tavikm_host::KeymasterOpenOperations(), 0u);
}

TEST_F(LegacyKeymasterTest, SharesTheOperationTable) {
  Bytes blob = NewKey();
  keymaster_key_blob_t key = {blob.data(), blob.size()};
  Bytes iv(16, 3);
  CbcParams params(iv);
  std::vector<keymaster_operation_handle_t> handles;
  for (size_t i = 0; i < tavikm_host::kKeymasterMaxOperations; ++i) {
    keymaster_operation_handle_t handle = 0;
    ASSERT_EQ(km1_->begin(km1_, KM_PURPOSE_ENCRYPT, &key, &params.set, nullptr, &handle),
              KM_ERROR_OK);
    handles.push_back(handle);
  }
  keymaster_operation_handle_t extra = 0;
  EXPECT_EQ(km1_->begin(km1_, KM_PURPOSE_ENCRYPT, &key, &params.set, nullptr, &extra),
            KM_ERROR_TOO_MANY_OPERATIONS);
  EXPECT_EQ(Begin(*FirstDevice(), hw::KeyPurpose::ENCRYPT, blob, GcmParams(Bytes(12, 0))).error,
            ErrorCode::TOO_MANY_OPERATIONS);
  for (auto handle : handles) EXPECT_EQ(km1_->abort(km1_, handle), KM_ERROR_OK);
  EXPECT_EQ(tavikm_host::KeymasterOpenOperations(), 0u);
}

}  // namespace
}  // namespace tavikm_test::kmhost
