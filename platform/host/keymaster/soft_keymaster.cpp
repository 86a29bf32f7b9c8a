// SPDX-License-Identifier: Apache-2.0
// The host platform's software Keymaster 4.0 device.
#include "soft_keymaster.h"

#include <string.h>
#include <time.h>

#include <openssl/crypto.h>
#include <openssl/rand.h>

#include "crypto.h"
#include "device_state.h"
#include "operations.h"
#include "tavikm_host/keymaster.h"

namespace tavikm_host::km {

using ::android::hardware::Void;
using hw::AuthorizationSet;
using hw::ErrorCode;
using hw::KeyParameter;
using hw::KeyPurpose;
using hw::Tag;

namespace {

constexpr size_t kGcmNonceSize = 12;
constexpr uint32_t kRsaKeySize = 2048;
constexpr uint64_t kRsaExponent = 65537;

bool IsOperationOnlyTag(Tag tag) {
  return tag == Tag::NONCE || tag == Tag::MAC_LENGTH || tag == Tag::ASSOCIATED_DATA ||
         tag == Tag::APPLICATION_ID || tag == Tag::APPLICATION_DATA;
}

// Tags that are not about the key's use but about its lifetime and bookkeeping, which keystore
// rather than the secure hardware enforces.
bool IsSoftwareEnforced(Tag tag) {
  return tag == Tag::CREATION_DATETIME || tag == Tag::ACTIVE_DATETIME ||
         tag == Tag::ORIGINATION_EXPIRE_DATETIME || tag == Tag::USAGE_EXPIRE_DATETIME ||
         tag == Tag::USER_ID;
}

uint64_t WallClockMs() {
  struct timespec ts;
  clock_gettime(CLOCK_REALTIME, &ts);
  return static_cast<uint64_t>(ts.tv_sec) * 1000 + static_cast<uint64_t>(ts.tv_nsec) / 1000000;
}

bool PurposeServes(hw::Algorithm algorithm, KeyPurpose purpose) {
  if (algorithm == hw::Algorithm::AES) {
    return purpose == KeyPurpose::ENCRYPT || purpose == KeyPurpose::DECRYPT;
  }
  if (algorithm == hw::Algorithm::RSA) {
    return purpose == KeyPurpose::SIGN || purpose == KeyPurpose::VERIFY;
  }
  return false;
}

// Checks generation or import parameters and makes the key material, or takes `imported`
// (AES only) for it.
ErrorCode MakeKey(const AuthorizationSet& params, const SecretBytes* imported,
                  KeyBlobContents* key) {
  auto algorithm = params.GetTagValue(hw::TAG_ALGORITHM);
  if (!algorithm.isOk()) return ErrorCode::UNSUPPORTED_ALGORITHM;
  if (algorithm.value() != hw::Algorithm::AES && algorithm.value() != hw::Algorithm::RSA) {
    return ErrorCode::UNSUPPORTED_ALGORITHM;
  }
  // The device records these itself.
  if (params.Contains(Tag::ORIGIN) || params.Contains(Tag::OS_VERSION) ||
      params.Contains(Tag::OS_PATCHLEVEL)) {
    return ErrorCode::INVALID_TAG;
  }
  if (params.Contains(Tag::ROLLBACK_RESISTANCE)) return ErrorCode::ROLLBACK_RESISTANCE_UNAVAILABLE;
  for (const KeyParameter& param : params) {
    if (param.tag == Tag::PURPOSE && !PurposeServes(algorithm.value(), param.f.purpose)) {
      return ErrorCode::UNSUPPORTED_PURPOSE;
    }
  }
  auto key_size = params.GetTagValue(hw::TAG_KEY_SIZE);
  if (algorithm.value() == hw::Algorithm::AES) {
    if (!key_size.isOk() || (key_size.value() != 128 && key_size.value() != 256)) {
      return ErrorCode::UNSUPPORTED_KEY_SIZE;
    }
    bool gcm = false;
    for (const KeyParameter& param : params) {
      // GCM is the only AES mode this hardware offers.
      if (param.tag == Tag::BLOCK_MODE) {
        if (param.f.blockMode != hw::BlockMode::GCM) return ErrorCode::UNSUPPORTED_BLOCK_MODE;
        gcm = true;
      }
      if (param.tag == Tag::PADDING && param.f.paddingMode != hw::PaddingMode::NONE &&
          param.f.paddingMode != hw::PaddingMode::PKCS7) {
        return ErrorCode::UNSUPPORTED_PADDING_MODE;
      }
    }
    if (gcm) {
      auto min_mac = params.GetTagValue(hw::TAG_MIN_MAC_LENGTH);
      if (!min_mac.isOk()) return ErrorCode::MISSING_MIN_MAC_LENGTH;
      if (min_mac.value() % 8 != 0 || min_mac.value() < 96 || min_mac.value() > 128) {
        return ErrorCode::UNSUPPORTED_MIN_MAC_LENGTH;
      }
    }
    if (imported) {
      key->material = *imported;
      return ErrorCode::OK;
    }
    key->material = SecretBytes(key_size.value() / 8);
    if (RAND_bytes(key->material.data(), key->material.size()) != 1) {
      return ErrorCode::UNKNOWN_ERROR;
    }
    return ErrorCode::OK;
  }
  if (imported) return ErrorCode::UNSUPPORTED_KEY_FORMAT;  // RSA keys are made here only
  // RSA: 2048 bits, exponent 65537, raw signatures only.
  if (!key_size.isOk() || key_size.value() != kRsaKeySize) return ErrorCode::UNSUPPORTED_KEY_SIZE;
  auto exponent = params.GetTagValue(hw::TAG_RSA_PUBLIC_EXPONENT);
  if (!exponent.isOk() || exponent.value() != kRsaExponent) return ErrorCode::INVALID_ARGUMENT;
  for (const KeyParameter& param : params) {
    if (param.tag == Tag::DIGEST && param.f.digest != hw::Digest::NONE) {
      return ErrorCode::UNSUPPORTED_DIGEST;
    }
    if (param.tag == Tag::PADDING && param.f.paddingMode != hw::PaddingMode::NONE) {
      return ErrorCode::UNSUPPORTED_PADDING_MODE;
    }
  }
  return GenerateRsaKey(kRsaKeySize, &key->material) ? ErrorCode::OK : ErrorCode::UNKNOWN_ERROR;
}

ErrorCode BeginGcm(const KeyBlobContents& key, KeyPurpose purpose, const AuthorizationSet& params,
                   AuthorizationSet* out_params, std::unique_ptr<Operation>* op) {
  const AuthorizationSet& auths = key.authorizations;
  auto block_mode = params.GetTagValue(hw::TAG_BLOCK_MODE);
  if (!block_mode.isOk() || block_mode.value() != hw::BlockMode::GCM) {
    return ErrorCode::UNSUPPORTED_BLOCK_MODE;
  }
  if (!auths.Contains(hw::TAG_BLOCK_MODE, block_mode.value())) {
    return ErrorCode::INCOMPATIBLE_BLOCK_MODE;
  }
  auto padding = params.GetTagValue(hw::TAG_PADDING);
  if (!padding.isOk() ||
      (padding.value() != hw::PaddingMode::NONE && padding.value() != hw::PaddingMode::PKCS7)) {
    return ErrorCode::UNSUPPORTED_PADDING_MODE;
  }
  if (padding.value() != hw::PaddingMode::NONE ||
      !auths.Contains(hw::TAG_PADDING, padding.value())) {
    return ErrorCode::INCOMPATIBLE_PADDING_MODE;  // GCM takes no padding
  }
  auto mac_length = params.GetTagValue(hw::TAG_MAC_LENGTH);
  if (!mac_length.isOk()) return ErrorCode::MISSING_MAC_LENGTH;
  if (mac_length.value() % 8 != 0 || mac_length.value() < 96 || mac_length.value() > 128) {
    return ErrorCode::UNSUPPORTED_MAC_LENGTH;
  }
  auto min_mac_length = auths.GetTagValue(hw::TAG_MIN_MAC_LENGTH);
  if (min_mac_length.isOk() && mac_length.value() < min_mac_length.value()) {
    return ErrorCode::INVALID_MAC_LENGTH;
  }
  uint8_t nonce[kGcmNonceSize];
  auto given = params.GetTagValue(hw::TAG_NONCE);
  if (given.isOk()) {
    if (purpose == KeyPurpose::ENCRYPT && !auths.Contains(Tag::CALLER_NONCE)) {
      return ErrorCode::CALLER_NONCE_PROHIBITED;
    }
    if (given.value().size() != kGcmNonceSize) return ErrorCode::INVALID_NONCE;
    memcpy(nonce, given.value().data(), kGcmNonceSize);
  } else {
    if (purpose == KeyPurpose::DECRYPT) return ErrorCode::MISSING_NONCE;
    if (RAND_bytes(nonce, sizeof(nonce)) != 1) return ErrorCode::UNKNOWN_ERROR;
    out_params->push_back(hw::TAG_NONCE, hidl_vec<uint8_t>(nonce, nonce + kGcmNonceSize));
  }
  ErrorCode error;
  *op = MakeGcmOperation(key.material, nonce, purpose == KeyPurpose::ENCRYPT,
                         mac_length.value() / 8, &error);
  return error;
}

ErrorCode BeginRsa(const KeyBlobContents& key, KeyPurpose purpose, const AuthorizationSet& params,
                   std::unique_ptr<Operation>* op) {
  const AuthorizationSet& auths = key.authorizations;
  auto digest = params.GetTagValue(hw::TAG_DIGEST);
  if (!digest.isOk() || digest.value() != hw::Digest::NONE) return ErrorCode::UNSUPPORTED_DIGEST;
  if (!auths.Contains(hw::TAG_DIGEST, digest.value())) return ErrorCode::INCOMPATIBLE_DIGEST;
  auto padding = params.GetTagValue(hw::TAG_PADDING);
  if (!padding.isOk() || padding.value() != hw::PaddingMode::NONE) {
    return ErrorCode::UNSUPPORTED_PADDING_MODE;
  }
  if (!auths.Contains(hw::TAG_PADDING, padding.value())) {
    return ErrorCode::INCOMPATIBLE_PADDING_MODE;
  }
  ErrorCode error;
  *op = MakeRsaOperation(key.material, purpose == KeyPurpose::SIGN, &error);
  return error;
}

uint32_t KeyValue(const AuthorizationSet& auths, Tag tag) {
  int index = auths.find(tag);
  return index < 0 ? 0 : auths[index].f.integer;
}

// What upgradeKey does to a key's binding: OK with `*changed` false when the key is current;
// OK with the binding moved to the current system and `*changed` true when nothing of it is
// newer than the system; INVALID_ARGUMENT when something is, except that an OS version may
// always go down to 0.
ErrorCode RebindToCurrentOs(KeyBlobContents* key, bool* changed) {
  AuthorizationSet& auths = key->authorizations;
  const uint32_t os_version = KeyValue(auths, Tag::OS_VERSION);
  const uint32_t patchlevel = KeyValue(auths, Tag::OS_PATCHLEVEL);
  const uint32_t current_version = CurrentOsVersion();
  const uint32_t current_patchlevel = CurrentOsPatchlevel();
  *changed = false;
  // No going back to an older system; version 0 (an unreadable release) is the one exception.
  if ((os_version > current_version && current_version != 0) || patchlevel > current_patchlevel) {
    return ErrorCode::INVALID_ARGUMENT;
  }
  if (os_version == current_version && patchlevel == current_patchlevel) return ErrorCode::OK;
  bool has_version = false, has_patchlevel = false;
  for (size_t i = 0; i < auths.size(); ++i) {
    KeyParameter& param = auths[static_cast<int>(i)];
    if (param.tag == Tag::OS_VERSION) {
      param.f.integer = current_version;
      has_version = true;
    }
    if (param.tag == Tag::OS_PATCHLEVEL) {
      param.f.integer = current_patchlevel;
      has_patchlevel = true;
    }
  }
  // A binding the blob lacks reads as 0, so it must be added, or the upgraded blob would ask
  // for an upgrade again and a caller that upgrades until begin succeeds never ends.
  if (!has_version) auths.push_back(hw::TAG_OS_VERSION, current_version);
  if (!has_patchlevel) auths.push_back(hw::TAG_OS_PATCHLEVEL, current_patchlevel);
  *changed = true;
  return ErrorCode::OK;
}

}  // namespace

ErrorCode CheckOsBinding(const KeyBlobContents& key) {
  if (KeyValue(key.authorizations, Tag::OS_VERSION) != CurrentOsVersion() ||
      KeyValue(key.authorizations, Tag::OS_PATCHLEVEL) != CurrentOsPatchlevel()) {
    return ErrorCode::KEY_REQUIRES_UPGRADE;
  }
  return ErrorCode::OK;
}

ErrorCode CheckUserAuthentication(const AuthorizationSet& key_auths) {
  if (key_auths.Contains(Tag::USER_SECURE_ID) && !key_auths.Contains(Tag::NO_AUTH_REQUIRED)) {
    return ErrorCode::KEY_USER_NOT_AUTHENTICATED;
  }
  return ErrorCode::OK;
}

ErrorCode CheckPurpose(const AuthorizationSet& key_auths, KeyPurpose purpose) {
  auto algorithm = key_auths.GetTagValue(hw::TAG_ALGORITHM);
  if (!algorithm.isOk() || !PurposeServes(algorithm.value(), purpose)) {
    return ErrorCode::UNSUPPORTED_PURPOSE;
  }
  if (!key_auths.Contains(hw::TAG_PURPOSE, purpose)) return ErrorCode::INCOMPATIBLE_PURPOSE;
  return ErrorCode::OK;
}

SoftKeymaster::SoftKeymaster(uint32_t level, const std::string& instance_name)
    : hw::support::Keymaster(kKeymasterDescriptor, instance_name), level_(level) {
  version_.keymasterName = kKeymasterName;
  version_.authorName = kKeymasterAuthorName;
  version_.majorVersion = 4;
  version_.securityLevel = static_cast<hw::SecurityLevel>(level);
  version_.supportsEc = false;
}

ErrorCode SoftKeymaster::LoadKey(const hidl_vec<uint8_t>& blob, const AuthorizationSet& given,
                                 KeyBlobContents* key) const {
  // Another device's blob is as foreign as another phone's.
  if (!OpenKeyBlob(blob.data(), blob.size(), key) || key->level != level_ ||
      !HiddenMatches(*key, given)) {
    return ErrorCode::INVALID_KEY_BLOB;
  }
  return ErrorCode::OK;
}

hw::KeyCharacteristics SoftKeymaster::Characteristics(const KeyBlobContents& key) const {
  AuthorizationSet hardware, software;
  for (const KeyParameter& param : key.authorizations) {
    if (level_ == static_cast<uint32_t>(hw::SecurityLevel::SOFTWARE) ||
        IsSoftwareEnforced(param.tag)) {
      software.push_back(param);
    } else {
      hardware.push_back(param);
    }
  }
  hw::KeyCharacteristics characteristics;
  characteristics.hardwareEnforced = std::vector<KeyParameter>(hardware.begin(), hardware.end());
  characteristics.softwareEnforced = std::vector<KeyParameter>(software.begin(), software.end());
  return characteristics;
}

Return<void> SoftKeymaster::getHardwareInfo(getHardwareInfo_cb _hidl_cb) {
  _hidl_cb(version_.securityLevel, version_.keymasterName, version_.authorName);
  return Void();
}

ErrorCode SoftKeymaster::CompleteKey(const AuthorizationSet& params, hw::KeyOrigin origin,
                                     KeyBlobContents* key, std::vector<uint8_t>* blob) const {
  key->level = level_;
  for (const KeyParameter& param : params) {
    if (!IsOperationOnlyTag(param.tag)) key->authorizations.push_back(param);
  }
  if (!params.Contains(Tag::CREATION_DATETIME)) {
    key->authorizations.push_back(hw::TAG_CREATION_DATETIME, WallClockMs());
  }
  key->authorizations.push_back(hw::TAG_ORIGIN, origin);
  key->authorizations.push_back(hw::TAG_OS_VERSION, CurrentOsVersion());
  key->authorizations.push_back(hw::TAG_OS_PATCHLEVEL, CurrentOsPatchlevel());
  key->hidden = HiddenParams(params);
  return SealKeyBlob(*key, blob) ? ErrorCode::OK : ErrorCode::UNKNOWN_ERROR;
}

Return<void> SoftKeymaster::generateKey(const hidl_vec<KeyParameter>& keyParams,
                                        generateKey_cb _hidl_cb) {
  AuthorizationSet params(keyParams);
  KeyBlobContents key;
  std::vector<uint8_t> blob;
  ErrorCode error = MakeKey(params, nullptr, &key);
  if (error == ErrorCode::OK) error = CompleteKey(params, hw::KeyOrigin::GENERATED, &key, &blob);
  if (error != ErrorCode::OK) {
    _hidl_cb(error, hidl_vec<uint8_t>(), hw::KeyCharacteristics());
    return Void();
  }
  _hidl_cb(ErrorCode::OK, hidl_vec<uint8_t>(blob), Characteristics(key));
  return Void();
}

Return<void> SoftKeymaster::importKey(const hidl_vec<KeyParameter>& keyParams,
                                      hw::KeyFormat keyFormat, const hidl_vec<uint8_t>& keyData,
                                      importKey_cb _hidl_cb) {
  AuthorizationSet params(keyParams);
  SecretBytes imported(keyData.data(), keyData.size());
  KeyBlobContents key;
  std::vector<uint8_t> blob;
  ErrorCode error = ErrorCode::OK;
  auto algorithm = params.GetTagValue(hw::TAG_ALGORITHM);
  if (!algorithm.isOk() || algorithm.value() != hw::Algorithm::AES ||
      keyFormat != hw::KeyFormat::RAW) {
    // Raw AES keys are the only ones that come in.
    error = algorithm.isOk() && algorithm.value() != hw::Algorithm::AES &&
                    algorithm.value() != hw::Algorithm::RSA
                ? ErrorCode::UNSUPPORTED_ALGORITHM
                : ErrorCode::UNSUPPORTED_KEY_FORMAT;
  } else {
    auto key_size = params.GetTagValue(hw::TAG_KEY_SIZE);
    if (!key_size.isOk()) {
      params.push_back(hw::TAG_KEY_SIZE, static_cast<uint32_t>(keyData.size() * 8));
    } else if (key_size.value() != keyData.size() * 8) {
      error = ErrorCode::IMPORT_PARAMETER_MISMATCH;
    }
  }
  if (error == ErrorCode::OK) error = MakeKey(params, &imported, &key);
  if (error == ErrorCode::OK) error = CompleteKey(params, hw::KeyOrigin::IMPORTED, &key, &blob);
  if (error != ErrorCode::OK) {
    _hidl_cb(error, hidl_vec<uint8_t>(), hw::KeyCharacteristics());
    return Void();
  }
  _hidl_cb(ErrorCode::OK, hidl_vec<uint8_t>(blob), Characteristics(key));
  return Void();
}

Return<void> SoftKeymaster::getKeyCharacteristics(const hidl_vec<uint8_t>& keyBlob,
                                                  const hidl_vec<uint8_t>& clientId,
                                                  const hidl_vec<uint8_t>& appData,
                                                  getKeyCharacteristics_cb _hidl_cb) {
  KeyBlobContents key;
  ErrorCode error = LoadKey(keyBlob, HiddenParams(clientId, appData), &key);
  if (error == ErrorCode::OK) error = CheckOsBinding(key);
  if (error != ErrorCode::OK) {
    _hidl_cb(error, hw::KeyCharacteristics());
    return Void();
  }
  _hidl_cb(ErrorCode::OK, Characteristics(key));
  return Void();
}

Return<void> SoftKeymaster::exportKey(hw::KeyFormat keyFormat, const hidl_vec<uint8_t>& keyBlob,
                                      const hidl_vec<uint8_t>& clientId,
                                      const hidl_vec<uint8_t>& appData, exportKey_cb _hidl_cb) {
  KeyBlobContents key;
  ErrorCode error = LoadKey(keyBlob, HiddenParams(clientId, appData), &key);
  if (error == ErrorCode::OK) error = CheckOsBinding(key);
  std::vector<uint8_t> exported;
  if (error == ErrorCode::OK) {
    auto algorithm = key.authorizations.GetTagValue(hw::TAG_ALGORITHM);
    // Only public keys leave the hardware.
    if (!algorithm.isOk() || algorithm.value() != hw::Algorithm::RSA ||
        keyFormat != hw::KeyFormat::X509) {
      error = ErrorCode::UNSUPPORTED_KEY_FORMAT;
    } else if (!RsaPublicKeyInfo(key.material, &exported)) {
      error = ErrorCode::UNKNOWN_ERROR;
    }
  }
  _hidl_cb(error, hidl_vec<uint8_t>(exported));
  return Void();
}

Return<void> SoftKeymaster::upgradeKey(const hidl_vec<uint8_t>& keyBlobToUpgrade,
                                       const hidl_vec<KeyParameter>& upgradeParams,
                                       upgradeKey_cb _hidl_cb) {
  KeyBlobContents key;
  ErrorCode error = LoadKey(keyBlobToUpgrade, AuthorizationSet(upgradeParams), &key);
  std::vector<uint8_t> blob;
  bool changed = false;
  if (error == ErrorCode::OK) error = RebindToCurrentOs(&key, &changed);
  // A key that is current needs nothing: OK and no blob, as the HAL says.
  if (error == ErrorCode::OK && changed && !SealKeyBlob(key, &blob)) {
    error = ErrorCode::UNKNOWN_ERROR;
  }
  _hidl_cb(error, hidl_vec<uint8_t>(blob));
  return Void();
}

Return<ErrorCode> SoftKeymaster::deleteKey(const hidl_vec<uint8_t>& keyBlob) {
  KeyBlobContents key;
  if (!OpenKeyBlob(keyBlob.data(), keyBlob.size(), &key) || key.level != level_) {
    return ErrorCode::INVALID_KEY_BLOB;
  }
  return MarkKeyDeleted(KeyId(key.material)) ? ErrorCode::OK : ErrorCode::UNKNOWN_ERROR;
}

Return<void> SoftKeymaster::begin(KeyPurpose purpose, const hidl_vec<uint8_t>& keyBlob,
                                  const hidl_vec<KeyParameter>& inParams,
                                  const hw::HardwareAuthToken&, begin_cb _hidl_cb) {
  AuthorizationSet params(inParams);
  AuthorizationSet out_params;
  KeyBlobContents key;
  std::unique_ptr<Operation> op;
  ErrorCode error = LoadKey(keyBlob, params, &key);
  if (error == ErrorCode::OK) error = CheckOsBinding(key);
  if (error == ErrorCode::OK) error = CheckPurpose(key.authorizations, purpose);
  if (error == ErrorCode::OK) error = CheckUserAuthentication(key.authorizations);
  if (error == ErrorCode::OK) {
    auto algorithm = key.authorizations.GetTagValue(hw::TAG_ALGORITHM);
    error = algorithm.value() == hw::Algorithm::AES
                ? BeginGcm(key, purpose, params, &out_params, &op)
                : BeginRsa(key, purpose, params, &op);
  }
  uint64_t handle = 0;
  if (error == ErrorCode::OK) {
    op->owner = level_;
    op->key_id = KeyId(key.material);
    error = AddOperation(std::move(op), key.authorizations, &handle);
  }
  if (error != ErrorCode::OK) {
    _hidl_cb(error, hidl_vec<KeyParameter>(), 0);
    return Void();
  }
  _hidl_cb(ErrorCode::OK, out_params.hidl_data(), handle);
  return Void();
}

Return<void> SoftKeymaster::update(uint64_t operationHandle, const hidl_vec<KeyParameter>& inParams,
                                   const hidl_vec<uint8_t>& input, const hw::HardwareAuthToken&,
                                   const hw::VerificationToken&, update_cb _hidl_cb) {
  std::vector<uint8_t> output;
  size_t consumed = 0;
  ErrorCode error = UpdateOperation(operationHandle, level_, AuthorizationSet(inParams),
                                    input.data(), input.size(), &consumed, &output);
  if (error != ErrorCode::OK) {
    _hidl_cb(error, 0, hidl_vec<KeyParameter>(), hidl_vec<uint8_t>());
  } else {
    hidl_vec<uint8_t> out;
    out.setToExternal(output.data(), output.size());
    _hidl_cb(ErrorCode::OK, static_cast<uint32_t>(consumed), hidl_vec<KeyParameter>(), out);
  }
  if (!output.empty()) OPENSSL_cleanse(output.data(), output.size());
  return Void();
}

Return<void> SoftKeymaster::finish(uint64_t operationHandle, const hidl_vec<KeyParameter>& inParams,
                                   const hidl_vec<uint8_t>& input,
                                   const hidl_vec<uint8_t>& signature, const hw::HardwareAuthToken&,
                                   const hw::VerificationToken&, finish_cb _hidl_cb) {
  std::vector<uint8_t> output;
  ErrorCode error =
      FinishOperation(operationHandle, level_, AuthorizationSet(inParams), input.data(),
                      input.size(), signature.data(), signature.size(), &output);
  if (error != ErrorCode::OK) {
    _hidl_cb(error, hidl_vec<KeyParameter>(), hidl_vec<uint8_t>());
  } else {
    hidl_vec<uint8_t> out;
    out.setToExternal(output.data(), output.size());
    _hidl_cb(ErrorCode::OK, hidl_vec<KeyParameter>(), out);
  }
  if (!output.empty()) OPENSSL_cleanse(output.data(), output.size());
  return Void();
}

Return<ErrorCode> SoftKeymaster::abort(uint64_t operationHandle) {
  return AbortOperation(operationHandle, level_);
}

}  // namespace tavikm_host::km

namespace tavikm_host {

std::unique_ptr<android::hardware::keymaster::V4_0::support::Keymaster> MakeSoftKeymaster(
    uint32_t level, const std::string& instance_name) {
  return std::make_unique<km::SoftKeymaster>(level, instance_name);
}

}  // namespace tavikm_host
