// SPDX-License-Identifier: Apache-2.0
// Object encryption and decryption with the Keymaster's AES-256-GCM key and the caller's nonce:
// one operation per call, the result handed out in a malloc()ed buffer. A key that needs an
// upgrade gives -2; the caller upgrades it, stores it and calls again.
#include <keymasterV4_0/authorization_set.h>
#include <openssl/crypto.h>
#include <stdint.h>
#include <stdlib.h>
#include <string.h>

#include <new>
#include <string>

#include "common/byte_string.h"
#include "common/scopers.h"
#include "keymaster/Keymaster.h"
#include "mdfpp/service.h"
#include "tavikm_keymaster.h"

namespace {

namespace km = android::mdfpp::km;
using android::mdfpp::Keymaster;

struct Direction {
  km::KeyPurpose purpose;
  tavikm::OperationMessages messages;
  const char* first_allocation;
  const char* allocation;
};

const Direction kEncryption = {
    km::KeyPurpose::ENCRYPT,
    {"Error starting keymaster encryption transaction: ",
     "Error sending data to keymaster encryption transaction: ",
     "Error finalizing keymaster encryption transaction: "},
    "Error allocation buffer for keymaster encryption",
    "Error allocation buffer for keymaster encryption",
};

// The first buffer's failure keeps the encryption wording on purpose.
const Direction kDecryption = {
    km::KeyPurpose::DECRYPT,
    {"Error starting keymaster decryption transaction: ",
     "Error sending data to keymaster decryption transaction: ",
     "Error finalizing keymaster decryption transaction: "},
    "Error allocation buffer for keymaster encryption",
    "Error allocation buffer for keymaster decryption",
};

// A copy of `bytes` in a fresh malloc()ed buffer; null when it cannot be had.
unsigned char* Duplicate(const tavikm::SecretBytes& bytes) {
  auto* copy = static_cast<unsigned char*>(malloc(bytes.size() ? bytes.size() : 1));
  if (copy && !bytes.empty()) memcpy(copy, bytes.data(), bytes.size());
  return copy;
}

int RunObject(const Direction& direction, const unsigned char* key_blob,
              unsigned long key_blob_size, const unsigned char* nonce, unsigned long nonce_size,
              unsigned int ratelimit, const unsigned char* object, unsigned long object_size,
              unsigned char** out, unsigned int* out_size) {
  Keymaster dev;
  if (!dev) {
    tavikm::LogNoKeymasterSession();
    return -1;
  }
  // A nonce may be missing only when it is empty; the client's views hold at most 2^32 - 1
  // bytes.
  if (!key_blob || !object || !out || !out_size || (!nonce && nonce_size) ||
      key_blob_size > UINT32_MAX || object_size > UINT32_MAX) {
    KM_LOG_INVALID_ARGUMENT();
    return -1;
  }
  const std::string nonce_bytes = tavikm::ByteString(nonce, nonce_size);

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

  tavikm::OperationRunner operation(dev, direction.messages);
  const int begun = operation.Begin(direction.purpose, key_blob, key_blob_size, params, ratelimit);
  if (begun != 0) return begun;

  // Room for the result and its tag up front, so the output is not moved while it grows.
  tavikm::SecretBytes output;
  output.Reserve(object_size + 16);
  if (!operation.UpdateCompletely(object, object_size, &output)) return -1;

  const size_t update_length = output.size();
  unsigned char* first = Duplicate(output);
  if (!first) {
    KM_STREAM_LOG(ERROR) << direction.first_allocation;
    return -1;
  }
  tavikm::ScopedWipedBuffer owned_first(first, update_length);
  // On the two failures below `first` stays allocated: that is this service's settled
  // behaviour, kept on purpose. It is wiped first, so what stays holds nothing.
  auto leave_first_allocated = [&] {
    OPENSSL_cleanse(first, update_length);
    owned_first.release();
  };
  output.Wipe();

  if (!operation.Finish(&output)) {
    leave_first_allocated();
    return -1;
  }
  const size_t finish_length = output.size();
  unsigned char* second = nullptr;
  if (finish_length) {
    second = Duplicate(output);
    if (!second) {
      leave_first_allocated();
      KM_STREAM_LOG(ERROR) << direction.allocation;
      return -1;
    }
    output.Wipe();
  }
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
  return 0;
}

// The client and the allocator may run out of memory anywhere in an operation: that is a
// failure of the call, never the end of the process.
int RunObjectCatching(const Direction& direction, const unsigned char* key_blob,
                      unsigned long key_blob_size, const unsigned char* nonce,
                      unsigned long nonce_size, unsigned int ratelimit, const unsigned char* object,
                      unsigned long object_size, unsigned char** out, unsigned int* out_size) {
  try {
    return RunObject(direction, key_blob, key_blob_size, nonce, nonce_size, ratelimit, object,
                     object_size, out, out_size);
  } catch (const std::bad_alloc&) {
    KM_STREAM_LOG(ERROR) << direction.allocation;
    return -1;
  }
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
  return RunObjectCatching(kEncryption, key_blob, key_blob_size, nonce, nonce_size, ratelimit,
                           object, object_size, out, out_size);
}

int keymaster_decrypt_object_for_mdfpp(const unsigned char* key_blob, unsigned long key_blob_size,
                                       const unsigned char* nonce, unsigned long nonce_size,
                                       unsigned int ratelimit, const unsigned char* object,
                                       unsigned long object_size, unsigned char** out,
                                       unsigned int* out_size,
                                       unsigned char* /*upgraded_key_buffer*/,
                                       unsigned int /*upgraded_key_buffer_size*/,
                                       unsigned long* /*upgraded_key_size*/) {
  return RunObjectCatching(kDecryption, key_blob, key_blob_size, nonce, nonce_size, ratelimit,
                           object, object_size, out, out_size);
}
