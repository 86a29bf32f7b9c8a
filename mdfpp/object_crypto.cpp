// SPDX-License-Identifier: Apache-2.0
// Object encryption and decryption with the Keymaster's AES-256-GCM key and the caller's nonce:
// one operation per call, the result handed out in a malloc()ed buffer. A key that needs an
// upgrade gives -2; the caller upgrades it, stores it and calls again.
#include <keymasterV4_0/authorization_set.h>
#include <openssl/crypto.h>
#include <stdint.h>
#include <stdlib.h>
#include <string.h>

#include <string>

#include "common/byte_string.h"
#include "common/scopers.h"
#include "keymaster/Keymaster.h"
#include "mdfpp/service.h"
#include "tavikm_keymaster.h"

namespace {

namespace km = android::mdfpp::km;
using android::mdfpp::Keymaster;
using android::mdfpp::KeymasterOperation;

struct Direction {
  km::KeyPurpose purpose;
  const char* starting;
  const char* sending;
  const char* finalizing;
  const char* first_allocation;
  const char* allocation;
};

const Direction kEncryption = {
    km::KeyPurpose::ENCRYPT,
    "Error starting keymaster encryption transaction: ",
    "Error sending data to keymaster encryption transaction: ",
    "Error finalizing keymaster encryption transaction: ",
    "Error allocation buffer for keymaster encryption",
    "Error allocation buffer for keymaster encryption",
};

// The first buffer's failure keeps the encryption wording on purpose.
const Direction kDecryption = {
    km::KeyPurpose::DECRYPT,
    "Error starting keymaster decryption transaction: ",
    "Error sending data to keymaster decryption transaction: ",
    "Error finalizing keymaster decryption transaction: ",
    "Error allocation buffer for keymaster encryption",
    "Error allocation buffer for keymaster decryption",
};

int32_t Code(const KeymasterOperation& op) { return static_cast<int32_t>(op.getErrorCode()); }

// A copy of `bytes` in a fresh malloc()ed buffer; null when it cannot be had.
unsigned char* Duplicate(const std::string& bytes) {
  auto* copy = static_cast<unsigned char*>(malloc(bytes.size() ? bytes.size() : 1));
  if (copy && !bytes.empty()) memcpy(copy, bytes.data(), bytes.size());
  return copy;
}

// Wipes the call's copies of the key, the object and the result on every way out: one of them
// holds the plaintext.
class WipeOnReturn {
 public:
  WipeOnReturn(std::string* a, std::string* b, std::string* c) : strings_{a, b, c} {}
  ~WipeOnReturn() {
    for (std::string* s : strings_) {
      if (!s->empty()) OPENSSL_cleanse(&(*s)[0], s->size());
    }
  }
  WipeOnReturn(const WipeOnReturn&) = delete;
  WipeOnReturn& operator=(const WipeOnReturn&) = delete;

 private:
  std::string* strings_[3];
};

int RunObject(const Direction& direction, const unsigned char* key_blob,
              unsigned long key_blob_size, const unsigned char* nonce, unsigned long nonce_size,
              unsigned int ratelimit, const unsigned char* object, unsigned long object_size,
              unsigned char** out, unsigned int* out_size) {
  Keymaster dev;
  if (!dev) {
    tavikm::LogNoKeymasterSession();
    return -1;
  }
  if (!key_blob || !object || !out || !out_size) {
    KM_LOG_INVALID_ARGUMENT();
    return -1;
  }
  std::string key = tavikm::ByteString(key_blob, key_blob_size);
  std::string input = tavikm::ByteString(object, object_size);
  std::string nonce_bytes = tavikm::ByteString(nonce, nonce_size);
  std::string output;
  // Room for the result and its tag up front, so appending leaves no unwiped copy behind.
  output.reserve(input.size() + 16);
  WipeOnReturn wipe(&key, &input, &output);

  // Same parameters both ways; only NONCE and MAC_LENGTH trade places.
  km::AuthorizationSetBuilder params;
  params.Authorization(km::TAG_ALGORITHM, km::Algorithm::AES)
      .Authorization(km::TAG_KEY_SIZE, 256u)
      .Authorization(km::TAG_BLOCK_MODE, km::BlockMode::GCM);
  if (direction.purpose == km::KeyPurpose::ENCRYPT) {
    params.Authorization(km::TAG_MAC_LENGTH, 128u)
        .Authorization(km::TAG_NONCE, nonce_bytes.c_str(), nonce_bytes.size());
  } else {
    params.Authorization(km::TAG_NONCE, nonce_bytes.c_str(), nonce_bytes.size())
        .Authorization(km::TAG_MAC_LENGTH, 128u);
  }
  params.Padding({km::PaddingMode::NONE});

  KeymasterOperation op =
      tavikm::BeginWaitingOutRateLimit(dev, direction.purpose, key, params, ratelimit);
  if (op.getErrorCode() == km::ErrorCode::KEY_REQUIRES_UPGRADE) {
    KM_STREAM_LOG(ERROR) << "Keymaster key requires upgrade";
    return -2;
  }
  if (op.getErrorCode() != km::ErrorCode::OK) {
    KM_STREAM_LOG(ERROR) << direction.starting << Code(op);
    return -1;
  }

  if (!op.updateCompletely(input.data(), input.size(), [&output](const char* piece, size_t n) {
        if (n) output.append(piece, n);
      })) {
    KM_STREAM_LOG(ERROR) << direction.sending << Code(op);
    return -1;
  }
  OPENSSL_cleanse(&input[0], input.size());

  const size_t update_length = output.size();
  unsigned char* first = Duplicate(output);
  if (!first) {
    KM_STREAM_LOG(ERROR) << direction.first_allocation;
    return -1;
  }
  OPENSSL_cleanse(&output[0], output.size());

  // On the two failures below `first` is neither wiped nor freed. That is this service's settled
  // behaviour, kept on purpose; callers must not count on it being otherwise.
  if (!op.finish(&output)) {
    KM_STREAM_LOG(ERROR) << direction.finalizing << Code(op);
    return -1;
  }
  const size_t finish_length = output.size();
  unsigned char* second = nullptr;
  if (finish_length) {
    second = Duplicate(output);
    if (!second) {
      KM_STREAM_LOG(ERROR) << direction.allocation;
      return -1;
    }
    OPENSSL_cleanse(&output[0], output.size());
  }
  const tavikm::ScopedWipedBuffer owned_first(first, update_length);
  const tavikm::ScopedWipedBuffer owned_second(second, finish_length);

  // The result's length is a 32-bit count; a result that cannot be counted so cannot be handed
  // out either.
  const uint32_t total =
      static_cast<uint32_t>(update_length) + static_cast<uint32_t>(finish_length);
  *out_size = total;
  *out = total == update_length + finish_length
             ? static_cast<unsigned char*>(malloc(total ? total : 1))
             : nullptr;
  if (!*out) {
    KM_STREAM_LOG(ERROR) << direction.allocation;
    return -1;
  }
  if (update_length) memcpy(*out, first, update_length);
  if (finish_length) memcpy(*out + update_length, second, finish_length);
  OPENSSL_cleanse(&key[0], key.size());
  return 0;
}

}  // namespace

int keymaster_encrypt_object_for_mdfpp(const unsigned char* key_blob, unsigned long key_blob_size,
                                       const unsigned char* nonce, unsigned long nonce_size,
                                       unsigned int ratelimit, const unsigned char* object,
                                       unsigned long object_size, unsigned char** out,
                                       unsigned int* out_size,
                                       unsigned char* /*upgraded_key_buffer*/,
                                       unsigned int /*upgraded_key_buffer_size*/,
                                       unsigned long* /*upgraded_key_size*/) {
  return RunObject(kEncryption, key_blob, key_blob_size, nonce, nonce_size, ratelimit, object,
                   object_size, out, out_size);
}

int keymaster_decrypt_object_for_mdfpp(const unsigned char* key_blob, unsigned long key_blob_size,
                                       const unsigned char* nonce, unsigned long nonce_size,
                                       unsigned int ratelimit, const unsigned char* object,
                                       unsigned long object_size, unsigned char** out,
                                       unsigned int* out_size,
                                       unsigned char* /*upgraded_key_buffer*/,
                                       unsigned int /*upgraded_key_buffer_size*/,
                                       unsigned long* /*upgraded_key_size*/) {
  return RunObject(kDecryption, key_blob, key_blob_size, nonce, nonce_size, ratelimit, object,
                   object_size, out, out_size);
}
