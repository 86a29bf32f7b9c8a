// SPDX-License-Identifier: Apache-2.0
// The built-in legacy "keystore" module (class "keystore", no instance): its device "keymaster"
// is a keymaster1 device when module_api_version is 1.0 and a keymaster0 device otherwise. The
// keymaster1 device runs AES-CBC without padding over the same key blobs and operation table as
// the Keymaster 4.0 devices. Like the legacy path of the TEE it stands for, and as the record's
// one AES key (made for GCM) requires, it does not hold keys to their block modes; a compliant
// standalone keymaster1 would. Its other calls answer KM_ERROR_UNIMPLEMENTED, and all
// keymaster0 calls fail.
#include <errno.h>
#include <stdlib.h>
#include <string.h>

#include <algorithm>
#include <map>
#include <memory>
#include <mutex>
#include <vector>

#include <cutils/properties.h>
#include <hardware/keymaster0.h>
#include <hardware/keymaster1.h>
#include <openssl/crypto.h>
#include <openssl/rand.h>

#include "../builtin_modules.h"
#include "device_state.h"
#include "faults.h"
#include "key_blob.h"
#include "operations.h"
#include "soft_keymaster.h"
#include "tavikm_host/keymaster.h"

namespace tavikm_host::km {
namespace {

using hw::AuthorizationSet;
using hw::ErrorCode;
using hw::KeyParameter;
using hw::Tag;

constexpr size_t kCbcIvSize = 16;

keymaster_error_t KmError(ErrorCode error) { return static_cast<keymaster_error_t>(error); }

// The caller's C parameters as Keymaster 4.0 ones (the tag and enum numbers are the same).
// False when a byte value is missing its bytes.
bool ToAuthorizationSet(const keymaster_key_param_set_t* in, AuthorizationSet* out) {
  if (!in) return true;
  if (!in->params && in->length) return false;
  for (size_t i = 0; i < in->length; ++i) {
    const keymaster_key_param_t& from = in->params[i];
    KeyParameter param;
    param.tag = static_cast<Tag>(from.tag);
    switch (keymaster_tag_get_type(from.tag)) {
      case KM_ENUM:
      case KM_ENUM_REP:
        param.f.integer = from.enumerated;
        break;
      case KM_UINT:
      case KM_UINT_REP:
        param.f.integer = from.integer;
        break;
      case KM_ULONG:
      case KM_ULONG_REP:
        param.f.longInteger = from.long_integer;
        break;
      case KM_DATE:
        param.f.dateTime = from.date_time;
        break;
      case KM_BOOL:
        param.f.boolValue = from.boolean;
        break;
      case KM_BYTES:
      case KM_BIGNUM:
        if (!from.blob.data && from.blob.data_length) return false;
        param.blob = std::vector<uint8_t>(from.blob.data, from.blob.data + from.blob.data_length);
        break;
      default:
        break;
    }
    out->push_back(std::move(param));
  }
  return true;
}

// Output the caller owns and frees: never null, also when empty.
void HandOver(const std::vector<uint8_t>& bytes, keymaster_blob_t* output) {
  uint8_t* data = static_cast<uint8_t*>(malloc(bytes.empty() ? 1 : bytes.size()));
  if (data && !bytes.empty()) memcpy(data, bytes.data(), bytes.size());
  output->data = data;
  output->data_length = data ? bytes.size() : 0;
}

keymaster_error_t NonceOut(const uint8_t* nonce, keymaster_key_param_set_t* out_params) {
  auto* param = static_cast<keymaster_key_param_t*>(calloc(1, sizeof(keymaster_key_param_t)));
  auto* bytes = static_cast<uint8_t*>(malloc(kCbcIvSize));
  if (!param || !bytes) {
    free(param);
    free(bytes);
    return KM_ERROR_MEMORY_ALLOCATION_FAILED;
  }
  memcpy(bytes, nonce, kCbcIvSize);
  *param = keymaster_param_blob(KM_TAG_NONCE, bytes, kCbcIvSize);
  out_params->params = param;
  out_params->length = 1;
  return KM_ERROR_OK;
}

keymaster_error_t Begin(const keymaster1_device*, keymaster_purpose_t purpose,
                        const keymaster_key_blob_t* key, const keymaster_key_param_set_t* in_params,
                        keymaster_key_param_set_t* out_params,
                        keymaster_operation_handle_t* operation_handle) {
  if (auto answer = OnLegacyCall(LegacyKeymasterCall::kBegin)) {
    return static_cast<keymaster_error_t>(*answer);
  }
  if (!key || !operation_handle) return KM_ERROR_UNEXPECTED_NULL_POINTER;
  if (out_params) *out_params = keymaster_key_param_set_t{nullptr, 0};
  AuthorizationSet params;
  if (!ToAuthorizationSet(in_params, &params)) return KM_ERROR_UNEXPECTED_NULL_POINTER;

  KeyBlobContents contents;
  // Any level's blob: this path predates the levels, and OS binding too.
  if (!OpenKeyBlob(key->key_material, key->key_material_size, &contents) ||
      !HiddenMatches(contents, params)) {
    return KM_ERROR_INVALID_KEY_BLOB;
  }
  const AuthorizationSet& auths = contents.authorizations;
  auto algorithm = auths.GetTagValue(hw::TAG_ALGORITHM);
  auto requested = params.GetTagValue(hw::TAG_ALGORITHM);
  if (!algorithm.isOk() || algorithm.value() != hw::Algorithm::AES ||
      (requested.isOk() && requested.value() != hw::Algorithm::AES)) {
    return KM_ERROR_INCOMPATIBLE_ALGORITHM;
  }
  ErrorCode error = CheckPurpose(auths, static_cast<hw::KeyPurpose>(purpose));
  if (error == ErrorCode::OK) error = CheckUserAuthentication(auths);
  if (error != ErrorCode::OK) return KmError(error);

  auto block_mode = params.GetTagValue(hw::TAG_BLOCK_MODE);
  if (!block_mode.isOk() || block_mode.value() != hw::BlockMode::CBC) {
    return KM_ERROR_UNSUPPORTED_BLOCK_MODE;
  }
  auto padding = params.GetTagValue(hw::TAG_PADDING);
  if (!padding.isOk() || padding.value() != hw::PaddingMode::NONE) {
    return KM_ERROR_UNSUPPORTED_PADDING_MODE;
  }
  if (!auths.Contains(hw::TAG_PADDING, padding.value())) return KM_ERROR_INCOMPATIBLE_PADDING_MODE;

  uint8_t iv[kCbcIvSize];
  bool generated = false;
  auto nonce = params.GetTagValue(hw::TAG_NONCE);
  if (nonce.isOk()) {
    if (purpose == KM_PURPOSE_ENCRYPT && !auths.Contains(Tag::CALLER_NONCE)) {
      return KM_ERROR_CALLER_NONCE_PROHIBITED;
    }
    if (nonce.value().size() != kCbcIvSize) return KM_ERROR_INVALID_NONCE;
    memcpy(iv, nonce.value().data(), kCbcIvSize);
  } else {
    if (purpose == KM_PURPOSE_DECRYPT) return KM_ERROR_MISSING_NONCE;
    if (!out_params) return KM_ERROR_OUTPUT_PARAMETER_NULL;  // the IV would be lost
    if (RAND_bytes(iv, sizeof(iv)) != 1) return KM_ERROR_UNKNOWN_ERROR;
    generated = true;
  }

  std::unique_ptr<Operation> op =
      MakeCbcOperation(contents.material, iv, purpose == KM_PURPOSE_ENCRYPT, &error);
  if (!op) return KmError(error);
  op->owner = kLegacyOwner;
  op->key_id = KeyId(contents.material);
  uint64_t handle = 0;
  error = AddOperation(std::move(op), auths, &handle);
  if (error != ErrorCode::OK) return KmError(error);
  if (generated) {
    keymaster_error_t out_error = NonceOut(iv, out_params);
    if (out_error != KM_ERROR_OK) {
      AbortOperation(handle, kLegacyOwner);
      return out_error;
    }
  }
  *operation_handle = handle;
  return KM_ERROR_OK;
}

keymaster_error_t Update(const keymaster1_device*, keymaster_operation_handle_t operation_handle,
                         const keymaster_key_param_set_t* in_params, const keymaster_blob_t* input,
                         size_t* input_consumed, keymaster_key_param_set_t* out_params,
                         keymaster_blob_t* output) {
  if (auto answer = OnLegacyCall(LegacyKeymasterCall::kUpdate)) {
    AbortOperation(operation_handle, kLegacyOwner);
    return static_cast<keymaster_error_t>(*answer);
  }
  if (!input || !input_consumed || (!input->data && input->data_length)) {
    return KM_ERROR_UNEXPECTED_NULL_POINTER;
  }
  if (!output) return KM_ERROR_OUTPUT_PARAMETER_NULL;
  if (out_params) *out_params = keymaster_key_param_set_t{nullptr, 0};
  output->data = nullptr;
  output->data_length = 0;
  AuthorizationSet params;
  if (!ToAuthorizationSet(in_params, &params)) return KM_ERROR_UNEXPECTED_NULL_POINTER;
  std::vector<uint8_t> out;
  size_t consumed = 0;
  ErrorCode error = UpdateOperation(operation_handle, kLegacyOwner, params, input->data,
                                    std::min(input->data_length, UpdateLimit()), &consumed, &out);
  if (error != ErrorCode::OK) return KmError(error);
  *input_consumed = consumed;
  HandOver(out, output);
  if (!out.empty()) OPENSSL_cleanse(out.data(), out.size());
  return output->data ? KM_ERROR_OK : KM_ERROR_MEMORY_ALLOCATION_FAILED;
}

keymaster_error_t Finish(const keymaster1_device*, keymaster_operation_handle_t operation_handle,
                         const keymaster_key_param_set_t* in_params,
                         const keymaster_blob_t* signature, keymaster_key_param_set_t* out_params,
                         keymaster_blob_t* output) {
  if (auto answer = OnLegacyCall(LegacyKeymasterCall::kFinish)) {
    AbortOperation(operation_handle, kLegacyOwner);
    return static_cast<keymaster_error_t>(*answer);
  }
  if (!output) return KM_ERROR_OUTPUT_PARAMETER_NULL;
  if (out_params) *out_params = keymaster_key_param_set_t{nullptr, 0};
  output->data = nullptr;
  output->data_length = 0;
  AuthorizationSet params;
  if (!ToAuthorizationSet(in_params, &params)) return KM_ERROR_UNEXPECTED_NULL_POINTER;
  std::vector<uint8_t> out;
  ErrorCode error = FinishOperation(operation_handle, kLegacyOwner, params, nullptr, 0,
                                    signature ? signature->data : nullptr,
                                    signature ? signature->data_length : 0, &out);
  if (error != ErrorCode::OK) return KmError(error);
  HandOver(out, output);
  if (!out.empty()) OPENSSL_cleanse(out.data(), out.size());
  return output->data ? KM_ERROR_OK : KM_ERROR_MEMORY_ALLOCATION_FAILED;
}

keymaster_error_t Abort(const keymaster1_device*, keymaster_operation_handle_t operation_handle) {
  if (auto answer = OnLegacyCall(LegacyKeymasterCall::kAbort)) {
    return static_cast<keymaster_error_t>(*answer);
  }
  return KmError(AbortOperation(operation_handle, kLegacyOwner));
}

int CloseKeymaster1(hw_device_t* device) {
  OnLegacyCall(LegacyKeymasterCall::kClose);
  delete reinterpret_cast<keymaster1_device_t*>(device);
  return 0;
}

int CloseKeymaster0(hw_device_t* device) {
  OnLegacyCall(LegacyKeymasterCall::kClose);
  delete reinterpret_cast<keymaster0_device_t*>(device);
  return 0;
}

keymaster1_device_t* NewKeymaster1(const hw_module_t* module) {
  auto* device = new keymaster1_device_t{};
  device->common.tag = HARDWARE_DEVICE_TAG;
  device->common.version = KEYMASTER_DEVICE_API_VERSION_1_0;
  device->common.module = const_cast<hw_module_t*>(module);
  device->common.close = CloseKeymaster1;
  device->flags = KEYMASTER_BLOBS_ARE_STANDALONE;
  device->get_supported_algorithms = [](const keymaster1_device*, keymaster_algorithm_t**,
                                        size_t*) { return KM_ERROR_UNIMPLEMENTED; };
  device->get_supported_block_modes = [](const keymaster1_device*, keymaster_algorithm_t,
                                         keymaster_purpose_t, keymaster_block_mode_t**,
                                         size_t*) { return KM_ERROR_UNIMPLEMENTED; };
  device->get_supported_padding_modes = [](const keymaster1_device*, keymaster_algorithm_t,
                                           keymaster_purpose_t, keymaster_padding_t**,
                                           size_t*) { return KM_ERROR_UNIMPLEMENTED; };
  device->get_supported_digests = [](const keymaster1_device*, keymaster_algorithm_t,
                                     keymaster_purpose_t, keymaster_digest_t**,
                                     size_t*) { return KM_ERROR_UNIMPLEMENTED; };
  device->get_supported_import_formats = [](const keymaster1_device*, keymaster_algorithm_t,
                                            keymaster_key_format_t**,
                                            size_t*) { return KM_ERROR_UNIMPLEMENTED; };
  device->get_supported_export_formats = [](const keymaster1_device*, keymaster_algorithm_t,
                                            keymaster_key_format_t**,
                                            size_t*) { return KM_ERROR_UNIMPLEMENTED; };
  device->add_rng_entropy = [](const keymaster1_device*, const uint8_t*, size_t) {
    return KM_ERROR_UNIMPLEMENTED;
  };
  device->generate_key = [](const keymaster1_device*, const keymaster_key_param_set_t*,
                            keymaster_key_blob_t*,
                            keymaster_key_characteristics_t**) { return KM_ERROR_UNIMPLEMENTED; };
  device->get_key_characteristics = [](const keymaster1_device*, const keymaster_key_blob_t*,
                                       const keymaster_blob_t*, const keymaster_blob_t*,
                                       keymaster_key_characteristics_t**) {
    return KM_ERROR_UNIMPLEMENTED;
  };
  device->import_key = [](const keymaster1_device*, const keymaster_key_param_set_t*,
                          keymaster_key_format_t, const keymaster_blob_t*, keymaster_key_blob_t*,
                          keymaster_key_characteristics_t**) { return KM_ERROR_UNIMPLEMENTED; };
  device->export_key = [](const keymaster1_device*, keymaster_key_format_t,
                          const keymaster_key_blob_t*, const keymaster_blob_t*,
                          const keymaster_blob_t*,
                          keymaster_blob_t*) { return KM_ERROR_UNIMPLEMENTED; };
  device->delete_key = [](const keymaster1_device*, const keymaster_key_blob_t*) {
    return KM_ERROR_UNIMPLEMENTED;
  };
  device->delete_all_keys = [](const keymaster1_device*) { return KM_ERROR_UNIMPLEMENTED; };
  device->begin = Begin;
  device->update = Update;
  device->finish = Finish;
  device->abort = Abort;
  return device;
}

keymaster0_device_t* NewKeymaster0(const hw_module_t* module) {
  auto* device = new keymaster0_device_t{};
  device->common.tag = HARDWARE_DEVICE_TAG;
  device->common.version = KEYMASTER_DEVICE_API_VERSION_0_3;
  device->common.module = const_cast<hw_module_t*>(module);
  device->common.close = CloseKeymaster0;
  device->generate_keypair = [](const keymaster0_device*, const keymaster_keypair_t, const void*,
                                uint8_t**, size_t*) { return -1; };
  device->import_keypair = [](const keymaster0_device*, const uint8_t*, const size_t, uint8_t**,
                              size_t*) { return -1; };
  device->get_keypair_public = [](const keymaster0_device*, const uint8_t*, const size_t, uint8_t**,
                                  size_t*) { return -1; };
  device->delete_keypair = [](const keymaster0_device*, const uint8_t*, const size_t) {
    return -1;
  };
  device->delete_all = [](const keymaster0_device*) { return -1; };
  device->sign_data = [](const keymaster0_device*, const void*, const uint8_t*, const size_t,
                         const uint8_t*, const size_t, uint8_t**, size_t*) { return -1; };
  device->verify_data = [](const keymaster0_device*, const void*, const uint8_t*, const size_t,
                           const uint8_t*, const size_t, const uint8_t*,
                           const size_t) { return -1; };
  return device;
}

int Open(const hw_module_t* module, const char* id, hw_device_t** device) {
  if (!device) return -EINVAL;
  *device = nullptr;
  if (auto answer = OnLegacyCall(LegacyKeymasterCall::kOpen)) return *answer;
  if (!module || !id || strcmp(id, KEYSTORE_KEYMASTER) != 0) return -EINVAL;
  if (module->module_api_version == KEYMASTER_MODULE_API_VERSION_1_0) {
    *device = &NewKeymaster1(module)->common;
  } else {
    *device = &NewKeymaster0(module)->common;
  }
  return 0;
}

hw_module_methods_t g_methods = {Open};

std::mutex g_modules_mutex;

// One module per version ever asked for; never freed, since callers keep module pointers.
std::map<uint16_t, std::unique_ptr<keystore_module>>& Modules() {
  static auto* modules = new std::map<uint16_t, std::unique_ptr<keystore_module>>;
  return *modules;
}

}  // namespace
}  // namespace tavikm_host::km

namespace tavikm_host::internal {

const hw_module_t* KeystoreModule() {
  char value[PROPERTY_VALUE_MAX];
  property_get("host.keystore.api_version", value, "0x0100");
  char* end = nullptr;
  errno = 0;
  unsigned long version = strtoul(value, &end, 0);
  if (!*value || *end || errno || version > 0xffff) return nullptr;

  std::lock_guard<std::mutex> lock(km::g_modules_mutex);
  std::unique_ptr<keystore_module>& module = km::Modules()[static_cast<uint16_t>(version)];
  if (!module) {
    module = std::make_unique<keystore_module>();
    module->common.tag = HARDWARE_MODULE_TAG;
    module->common.module_api_version = static_cast<uint16_t>(version);
    module->common.hal_api_version = 0;
    module->common.id = KEYSTORE_HARDWARE_MODULE_ID;
    module->common.name = kKeystoreModuleName;
    module->common.author = kKeymasterAuthorName;
    module->common.methods = &km::g_methods;
  }
  return &module->common;
}

}  // namespace tavikm_host::internal
