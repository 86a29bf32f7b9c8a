// SPDX-License-Identifier: Apache-2.0
// Operations of the emulated Keymaster hardware and the one table that holds them, for the
// Keymaster 4.0 devices and the legacy device alike, with the per-key rate limit.
#ifndef TAVIKM_HOST_KEYMASTER_OPERATIONS_H_
#define TAVIKM_HOST_KEYMASTER_OPERATIONS_H_

#include <stddef.h>
#include <stdint.h>

#include <memory>
#include <string>
#include <vector>

#include <keymasterV4_0/authorization_set.h>

#include "crypto.h"
#include "key_blob.h"

namespace tavikm_host::km {

// Who began an operation: a Keymaster 4.0 device's security level, or the legacy device. An
// operation answers only to its owner.
constexpr int64_t kLegacyOwner = -1;

class Operation {
 public:
  virtual ~Operation() = default;
  // Takes input; `consumed` says how much of it.
  virtual hw::ErrorCode Update(const hw::AuthorizationSet& params, const uint8_t* input,
                               size_t size, size_t* consumed, std::vector<uint8_t>* output) = 0;
  // Takes the last input (and, to verify, the signature) and ends the operation.
  virtual hw::ErrorCode Finish(const hw::AuthorizationSet& params, const uint8_t* input,
                               size_t size, const uint8_t* signature, size_t signature_size,
                               std::vector<uint8_t>* output) = 0;

  int64_t owner = 0;
  std::string key_id;
  // The key's MIN_SECONDS_BETWEEN_OPS, whose timer starts when the operation ends; 0: none.
  uint32_t min_seconds = 0;
};

// AES-GCM (Keymaster 4.0). Decryption holds back the last `tag_bytes` of the input: they may
// be the tag, checked at finish.
std::unique_ptr<Operation> MakeGcmOperation(const SecretBytes& key, const uint8_t* nonce,
                                            bool encrypt, size_t tag_bytes, hw::ErrorCode* error);
// AES-CBC without padding (legacy device); the input must come to whole blocks by finish.
std::unique_ptr<Operation> MakeCbcOperation(const SecretBytes& key, const uint8_t* iv, bool encrypt,
                                            hw::ErrorCode* error);
// Raw RSA signing or verification (digest NONE, padding NONE).
std::unique_ptr<Operation> MakeRsaOperation(const SecretBytes& private_key, bool sign,
                                            hw::ErrorCode* error);

// Starts using a key at begin: KEY_RATE_LIMIT_EXCEEDED while the key's MIN_SECONDS_BETWEEN_OPS
// timer runs, TOO_MANY_OPERATIONS when the table is full; otherwise the operation is stored
// under a fresh handle.
hw::ErrorCode AddOperation(std::unique_ptr<Operation> op, const hw::AuthorizationSet& key_auths,
                           uint64_t* handle);

// Runs `update` / `finish` / abort on the operation `handle` of `owner`; INVALID_OPERATION_HANDLE
// when there is none. An operation leaves the table at finish, at abort and at any error, and
// that is when the timer of a rate-limited key starts, as the HAL has it.
hw::ErrorCode UpdateOperation(uint64_t handle, int64_t owner, const hw::AuthorizationSet& params,
                              const uint8_t* input, size_t size, size_t* consumed,
                              std::vector<uint8_t>* output);
hw::ErrorCode FinishOperation(uint64_t handle, int64_t owner, const hw::AuthorizationSet& params,
                              const uint8_t* input, size_t size, const uint8_t* signature,
                              size_t signature_size, std::vector<uint8_t>* output);
hw::ErrorCode AbortOperation(uint64_t handle, int64_t owner);

// Drops every operation and every rate-limit timer.
void ResetOperations();

}  // namespace tavikm_host::km

#endif  // TAVIKM_HOST_KEYMASTER_OPERATIONS_H_
