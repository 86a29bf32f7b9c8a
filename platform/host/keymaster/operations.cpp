// SPDX-License-Identifier: Apache-2.0
// Operations of the emulated Keymaster hardware and their process-wide table.
#include "operations.h"

#include <string.h>

#include <map>
#include <mutex>

#include <openssl/crypto.h>
#include <openssl/rand.h>

#include "device_state.h"
#include "tavikm_host/keymaster.h"

namespace tavikm_host::km {
namespace {

using hw::ErrorCode;

class GcmOperation : public Operation {
 public:
  GcmOperation(bool encrypt, size_t tag_bytes) : encrypt_(encrypt), tag_bytes_(tag_bytes) {}

  bool Init(const SecretBytes& key, const uint8_t* nonce) {
    return stream_.InitGcm(key, nonce, 12, encrypt_);
  }

  ErrorCode Update(const hw::AuthorizationSet& params, const uint8_t* input, size_t size,
                   size_t* consumed, std::vector<uint8_t>* output) override {
    for (const hw::KeyParameter& param : params) {
      if (param.tag != hw::Tag::ASSOCIATED_DATA) continue;
      // Associated data comes before the message, never in between.
      if (data_started_) return ErrorCode::INVALID_TAG;
      if (!stream_.AddAad(param.blob.data(), param.blob.size())) return ErrorCode::UNKNOWN_ERROR;
    }
    *consumed = size;
    if (size == 0) return ErrorCode::OK;
    data_started_ = true;
    if (encrypt_) {
      return stream_.Update(input, size, output) ? ErrorCode::OK : ErrorCode::UNKNOWN_ERROR;
    }
    held_.Append(input, size);
    if (held_.size() <= tag_bytes_) return ErrorCode::OK;
    size_t ready = held_.size() - tag_bytes_;
    if (!stream_.Update(held_.data(), ready, output)) return ErrorCode::UNKNOWN_ERROR;
    held_.Consume(ready);
    return ErrorCode::OK;
  }

  ErrorCode Finish(const hw::AuthorizationSet& params, const uint8_t* input, size_t size,
                   const uint8_t*, size_t, std::vector<uint8_t>* output) override {
    size_t consumed;
    ErrorCode error = Update(params, input, size, &consumed, output);
    if (error != ErrorCode::OK) return error;
    if (encrypt_) {
      return stream_.FinishEncryptGcm(tag_bytes_, output) ? ErrorCode::OK
                                                          : ErrorCode::UNKNOWN_ERROR;
    }
    if (held_.size() < tag_bytes_) return ErrorCode::INVALID_INPUT_LENGTH;
    if (!stream_.FinishDecryptGcm(held_.data(), tag_bytes_)) {
      // Nothing of an unauthentic message is handed out at the end.
      OPENSSL_cleanse(output->data(), output->size());
      output->clear();
      return ErrorCode::VERIFICATION_FAILED;
    }
    return ErrorCode::OK;
  }

 private:
  AesStream stream_;
  bool encrypt_;
  size_t tag_bytes_;
  bool data_started_ = false;
  SecretBytes held_;
};

class CbcOperation : public Operation {
 public:
  bool Init(const SecretBytes& key, const uint8_t* iv, bool encrypt) {
    return stream_.InitCbc(key, iv, encrypt);
  }

  ErrorCode Update(const hw::AuthorizationSet&, const uint8_t* input, size_t size, size_t* consumed,
                   std::vector<uint8_t>* output) override {
    *consumed = size;
    return stream_.Update(input, size, output) ? ErrorCode::OK : ErrorCode::UNKNOWN_ERROR;
  }

  ErrorCode Finish(const hw::AuthorizationSet& params, const uint8_t* input, size_t size,
                   const uint8_t*, size_t, std::vector<uint8_t>* output) override {
    size_t consumed;
    ErrorCode error = Update(params, input, size, &consumed, output);
    if (error != ErrorCode::OK) return error;
    // Without padding, a partial last block cannot be processed.
    return stream_.FinishCbc(output) ? ErrorCode::OK : ErrorCode::INVALID_INPUT_LENGTH;
  }

 private:
  AesStream stream_;
};

class RsaOperation : public Operation {
 public:
  RsaOperation(const SecretBytes& key, size_t modulus_size, bool sign)
      : key_(key), modulus_size_(modulus_size), sign_(sign) {}

  ErrorCode Update(const hw::AuthorizationSet&, const uint8_t* input, size_t size, size_t* consumed,
                   std::vector<uint8_t>*) override {
    // Unpadded input must fit the modulus.
    if (data_.size() + size > modulus_size_) return ErrorCode::INVALID_INPUT_LENGTH;
    data_.Append(input, size);
    *consumed = size;
    return ErrorCode::OK;
  }

  ErrorCode Finish(const hw::AuthorizationSet& params, const uint8_t* input, size_t size,
                   const uint8_t* signature, size_t signature_size,
                   std::vector<uint8_t>* output) override {
    size_t consumed;
    ErrorCode error = Update(params, input, size, &consumed, output);
    if (error != ErrorCode::OK) return error;
    // Shorter input is taken as a number: zeros on the left.
    SecretBytes padded(modulus_size_);
    memcpy(padded.data() + modulus_size_ - data_.size(), data_.data(), data_.size());
    if (sign_) {
      if (!RsaRawPrivate(key_, padded.data(), padded.size(), output)) {
        return ErrorCode::INVALID_ARGUMENT;  // not below the modulus
      }
      return ErrorCode::OK;
    }
    std::vector<uint8_t> recovered;
    if (signature_size != modulus_size_ ||
        !RsaRawPublic(key_, signature, signature_size, &recovered) ||
        CRYPTO_memcmp(recovered.data(), padded.data(), modulus_size_) != 0) {
      return ErrorCode::VERIFICATION_FAILED;
    }
    return ErrorCode::OK;
  }

 private:
  SecretBytes key_;
  size_t modulus_size_;
  bool sign_;
  SecretBytes data_;
};

struct Table {
  std::mutex mutex;
  std::map<uint64_t, std::unique_ptr<Operation>> operations;
};

// Never destroyed: devices may be used from static destructors of tests.
Table& TheTable() {
  static Table* table = new Table;
  return *table;
}

uint64_t FreshHandle(const Table& table) {
  uint64_t handle = 0;
  while (handle == 0 || table.operations.count(handle)) {
    if (RAND_bytes(reinterpret_cast<uint8_t*>(&handle), sizeof(handle)) != 1) handle = 0;
  }
  return handle;
}

// The operation is over (finished, aborted or failed): a rate-limited key's timer starts now.
void EndOperation(const Operation& op) {
  if (op.min_seconds) StartRateLimit(op.key_id, op.min_seconds, NowMs());
}

}  // namespace

std::unique_ptr<Operation> MakeGcmOperation(const SecretBytes& key, const uint8_t* nonce,
                                            bool encrypt, size_t tag_bytes, ErrorCode* error) {
  auto op = std::make_unique<GcmOperation>(encrypt, tag_bytes);
  if (!op->Init(key, nonce)) {
    *error = ErrorCode::UNKNOWN_ERROR;
    return nullptr;
  }
  *error = ErrorCode::OK;
  return op;
}

std::unique_ptr<Operation> MakeCbcOperation(const SecretBytes& key, const uint8_t* iv, bool encrypt,
                                            ErrorCode* error) {
  auto op = std::make_unique<CbcOperation>();
  if (!op->Init(key, iv, encrypt)) {
    *error = ErrorCode::UNKNOWN_ERROR;
    return nullptr;
  }
  *error = ErrorCode::OK;
  return op;
}

std::unique_ptr<Operation> MakeRsaOperation(const SecretBytes& private_key, bool sign,
                                            ErrorCode* error) {
  size_t modulus_size = RsaModulusSize(private_key);
  if (modulus_size == 0) {
    *error = ErrorCode::INVALID_KEY_BLOB;
    return nullptr;
  }
  *error = ErrorCode::OK;
  return std::make_unique<RsaOperation>(private_key, modulus_size, sign);
}

ErrorCode AddOperation(std::unique_ptr<Operation> op, const hw::AuthorizationSet& key_auths,
                       uint64_t* handle) {
  Table& table = TheTable();
  auto min_seconds = key_auths.GetTagValue(hw::TAG_MIN_SECONDS_BETWEEN_OPS);
  std::lock_guard<std::mutex> lock(table.mutex);
  if (min_seconds.isOk() && min_seconds.value() != 0) {
    if (RateLimitRunning(op->key_id, NowMs())) return ErrorCode::KEY_RATE_LIMIT_EXCEEDED;
    op->min_seconds = min_seconds.value();
  }
  if (table.operations.size() >= kKeymasterMaxOperations) return ErrorCode::TOO_MANY_OPERATIONS;
  *handle = FreshHandle(table);
  table.operations[*handle] = std::move(op);
  return ErrorCode::OK;
}

ErrorCode UpdateOperation(uint64_t handle, int64_t owner, const hw::AuthorizationSet& params,
                          const uint8_t* input, size_t size, size_t* consumed,
                          std::vector<uint8_t>* output) {
  Table& table = TheTable();
  std::lock_guard<std::mutex> lock(table.mutex);
  auto it = table.operations.find(handle);
  if (it == table.operations.end() || it->second->owner != owner) {
    return ErrorCode::INVALID_OPERATION_HANDLE;
  }
  ErrorCode error = it->second->Update(params, input, size, consumed, output);
  // A failed step ends the operation on the device's side.
  if (error != ErrorCode::OK) {
    EndOperation(*it->second);
    table.operations.erase(it);
  }
  return error;
}

ErrorCode FinishOperation(uint64_t handle, int64_t owner, const hw::AuthorizationSet& params,
                          const uint8_t* input, size_t size, const uint8_t* signature,
                          size_t signature_size, std::vector<uint8_t>* output) {
  Table& table = TheTable();
  std::lock_guard<std::mutex> lock(table.mutex);
  auto it = table.operations.find(handle);
  if (it == table.operations.end() || it->second->owner != owner) {
    return ErrorCode::INVALID_OPERATION_HANDLE;
  }
  std::unique_ptr<Operation> op = std::move(it->second);
  table.operations.erase(it);
  ErrorCode error = op->Finish(params, input, size, signature, signature_size, output);
  EndOperation(*op);
  return error;
}

ErrorCode AbortOperation(uint64_t handle, int64_t owner) {
  Table& table = TheTable();
  std::lock_guard<std::mutex> lock(table.mutex);
  auto it = table.operations.find(handle);
  if (it == table.operations.end() || it->second->owner != owner) {
    return ErrorCode::INVALID_OPERATION_HANDLE;
  }
  EndOperation(*it->second);
  table.operations.erase(it);
  return ErrorCode::OK;
}

void ResetOperations() {
  Table& table = TheTable();
  std::lock_guard<std::mutex> lock(table.mutex);
  table.operations.clear();
  ForgetRateLimits();
}

}  // namespace tavikm_host::km

namespace tavikm_host {

size_t KeymasterOpenOperations() {
  km::Table& table = km::TheTable();
  std::lock_guard<std::mutex> lock(table.mutex);
  return table.operations.size();
}

}  // namespace tavikm_host
