// The legacy "keystore" module: its version from host.keystore.api_version, the keymaster1
// device's AES-CBC over the Keymaster 4.0 device's key blobs (checked against libcrypto on an
// imported key), its checks, and the malloc'ed outputs the caller owns.
#include <cutils/properties.h>
#include <errno.h>
#include <gtest/gtest.h>
#include <hardware/hardware.h>
#include <hardware/keymaster0.h>
#include <hardware/keymaster1.h>
#include <openssl/evp.h>
#include <stdlib.h>
#include <string.h>

#include <string>
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

// The parameters the library's message encryption passes: AES, no padding, CBC, the IV.
struct CbcParams {
  explicit CbcParams(const Bytes& iv) {
    params[0] = keymaster_param_enum(KM_TAG_ALGORITHM, KM_ALGORITHM_AES);
    params[1] = keymaster_param_enum(KM_TAG_PADDING, KM_PAD_NONE);
    params[2] = keymaster_param_enum(KM_TAG_BLOCK_MODE, KM_MODE_CBC);
    params[3] = keymaster_param_blob(KM_TAG_NONCE, iv.data(), iv.size());
    set = {params, 4u};
  }
  keymaster_key_param_t params[4];
  keymaster_key_param_set_t set;
};

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

  Bytes ImportedKey(const Bytes& raw) {
    KeymasterPtr km = FirstDevice();
    KeyResult key = Import(*km, AesGcmKey(static_cast<uint32_t>(raw.size() * 8)), raw);
    EXPECT_EQ(key.error, ErrorCode::OK);
    return key.blob;
  }

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

Bytes Pattern(size_t size, uint8_t start) {
  Bytes b(size);
  for (size_t i = 0; i < size; ++i) b[i] = static_cast<uint8_t>(start + 3 * i);
  return b;
}

Bytes LibcryptoCbc(const Bytes& key, const Bytes& iv, const Bytes& input, bool encrypt) {
  const EVP_CIPHER* cipher = key.size() == 16 ? EVP_aes_128_cbc() : EVP_aes_256_cbc();
  EVP_CIPHER_CTX* ctx = EVP_CIPHER_CTX_new();
  Bytes out(input.size() + 16);
  int n = 0, m = 0;
  EXPECT_TRUE(EVP_CipherInit_ex(ctx, cipher, nullptr, key.data(), iv.data(), encrypt));
  EXPECT_TRUE(EVP_CIPHER_CTX_set_padding(ctx, 0));
  EXPECT_TRUE(EVP_CipherUpdate(ctx, out.data(), &n, input.data(), input.size()));
  EXPECT_TRUE(EVP_CipherFinal_ex(ctx, out.data() + n, &m));
  EVP_CIPHER_CTX_free(ctx);
  out.resize(n + m);
  return out;
}

// How the library opens the module, and what it logs of it, is proven in keymaster_legacy_test.cpp.
TEST(LegacyModuleTest, VersionComesFromTheProperty) {
  TempDeviceDir device;
  int rc;
  for (const char* version : {"0x0100", "0x0200", "0x0003", "2"}) {
    SCOPED_TRACE(version);
    property_set("host.keystore.api_version", version);
    const hw_module_t* module = Lookup(&rc);
    ASSERT_EQ(rc, 0);
    EXPECT_EQ(module->module_api_version, strtoul(version, nullptr, 0));
  }
  for (const char* none : {"", "junk", "0x10000"}) {
    SCOPED_TRACE(none);
    property_set("host.keystore.api_version", none);
    EXPECT_EQ(Lookup(&rc), nullptr);
    EXPECT_EQ(rc, -ENOENT);
  }
}

TEST_F(LegacyKeymasterTest, CbcMatchesLibcryptoOnTheSameKey) {
  for (size_t key_size : {size_t{16}, size_t{32}}) {
    SCOPED_TRACE(key_size);
    Bytes raw = Pattern(key_size, 0x30);
    Bytes blob = ImportedKey(raw);
    Bytes iv = Pattern(16, 0x90);
    Bytes secret = Pattern(32, 0x01);
    Bytes encrypted;
    ASSERT_EQ(Run(KM_PURPOSE_ENCRYPT, blob, CbcParams(iv), secret, &encrypted), KM_ERROR_OK);
    EXPECT_EQ(encrypted, LibcryptoCbc(raw, iv, secret, true));
    Bytes decrypted;
    ASSERT_EQ(Run(KM_PURPOSE_DECRYPT, blob, CbcParams(iv), encrypted, &decrypted), KM_ERROR_OK);
    EXPECT_EQ(decrypted, secret);
  }
  EXPECT_EQ(tavikm_host::KeymasterOpenOperations(), 0u);
}

TEST_F(LegacyKeymasterTest, TakesTheRecordsGcmKeyForCbcWhateverItsLevelAndOsBinding) {
  // The record's one AES key is made for GCM only, and the legacy messages need it for CBC: this
  // device allows that, as the design requires (a standalone keymaster1 would answer
  // KM_ERROR_INCOMPATIBLE_BLOCK_MODE). It predates levels and OS binding too: a software
  // Keymaster's key, after a patch, works.
  property_set("host.keymaster.devices", "SOFTWARE");
  KeyResult key = Generate(*FirstDevice(), AesGcmKey());
  ASSERT_EQ(key.error, ErrorCode::OK);
  property_set("ro.build.version.security_patch", "2027-06-01");
  Bytes iv(16, 7), out;
  EXPECT_EQ(Run(KM_PURPOSE_ENCRYPT, key.blob, CbcParams(iv), Bytes(32, 1), &out), KM_ERROR_OK);
  EXPECT_EQ(out.size(), 32u);
}

// What the library's legacy calls can meet: a changed blob, and a message not in whole blocks.
// The legacy HAL's other rules (modes, padding, purposes, nonces) are never reached from it.
TEST_F(LegacyKeymasterTest, BeginChecksTheBlobAndWholeBlocks) {
  Bytes blob = ImportedKey(Bytes(32, 5));
  Bytes iv(16, 1), out;
  Bytes changed = blob;
  changed[20] ^= 1;
  EXPECT_EQ(Run(KM_PURPOSE_ENCRYPT, changed, CbcParams(iv), Bytes(32), &out),
            KM_ERROR_INVALID_KEY_BLOB);
  EXPECT_EQ(Run(KM_PURPOSE_ENCRYPT, blob, CbcParams(iv), Bytes(20), &out),
            KM_ERROR_INVALID_INPUT_LENGTH);
  EXPECT_EQ(tavikm_host::KeymasterOpenOperations(), 0u);
}

TEST_F(LegacyKeymasterTest, SharesTheOperationTableButNotTheHandles) {
  Bytes blob = ImportedKey(Bytes(16, 9));
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
  KeymasterPtr km = FirstDevice();
  EXPECT_EQ(Begin(*km, hw::KeyPurpose::ENCRYPT, blob, GcmParams(Bytes(12, 0))).error,
            ErrorCode::TOO_MANY_OPERATIONS);
  // The Keymaster 4.0 device cannot touch the legacy device's operations.
  EXPECT_EQ(Abort(*km, handles[0]), ErrorCode::INVALID_OPERATION_HANDLE);
  for (auto handle : handles) EXPECT_EQ(km1_->abort(km1_, handle), KM_ERROR_OK);
  EXPECT_EQ(tavikm_host::KeymasterOpenOperations(), 0u);
}

}  // namespace
}  // namespace tavikm_test::kmhost
