// SPDX-License-Identifier: Apache-2.0
// Object signing with the RSA binding key: the object is signed as it is (no digest, no
// padding) and the raw signature handed out in a malloc()ed buffer.
#include <keymasterV4_0/authorization_set.h>
#include <stdint.h>
#include <stdlib.h>
#include <string.h>

#include <new>
#include <string>

#include "keymaster/Keymaster.h"
#include "mdfpp/service.h"
#include "tavikm_keymaster.h"

namespace {

namespace km = android::mdfpp::km;
using android::mdfpp::Keymaster;

const tavikm::OperationMessages kSigning = {
    "Error starting keymaster signature transaction: ",
    "Error sending data to keymaster signature transaction: ",
    "Error finalizing keymaster signature transaction: ",
};

int Sign(const unsigned char* key_blob, unsigned long key_blob_size, unsigned int ratelimit,
         const unsigned char* object, unsigned long object_size, unsigned char** signature_buffer,
         unsigned long* signature_buffer_size) {
  Keymaster dev;
  if (!dev) {
    tavikm::LogNoKeymasterSession();
    return -1;
  }
  // The client's views hold at most 2^32 - 1 bytes.
  if (!key_blob || !object || !signature_buffer || !signature_buffer_size ||
      key_blob_size > UINT32_MAX || object_size > UINT32_MAX) {
    KM_LOG_INVALID_ARGUMENT();
    return -1;
  }
  km::AuthorizationSetBuilder params;
  params.NoDigestOrPadding();

  // The object (the caller's intermediate key) is fed from the caller's buffer, and the
  // signature (the next derivation's password) is held only where it is wiped.
  tavikm::OperationRunner operation(dev, kSigning);
  const int begun =
      operation.Begin(km::KeyPurpose::SIGN, key_blob, key_blob_size, params, ratelimit);
  if (begun != 0) return begun;
  tavikm::SecretBytes signature;
  if (!operation.UpdateCompletely(object, object_size, &signature)) return -1;
  if (!operation.Finish(&signature)) return -1;

  *signature_buffer = static_cast<unsigned char*>(malloc(signature.size() ? signature.size() : 1));
  if (!*signature_buffer) {
    KM_STREAM_LOG(ERROR) << "Error allocation buffer for keymaster signature";
    return -1;
  }
  *signature_buffer_size = signature.size();
  if (!signature.empty()) memcpy(*signature_buffer, signature.data(), signature.size());
  return 0;
}

}  // namespace

int keymaster_sign_object_for_cryptfs_scrypt_mdfpp(
    const unsigned char* key_blob, unsigned long key_blob_size, unsigned int ratelimit,
    const unsigned char* object, unsigned long object_size, unsigned char** signature_buffer,
    unsigned long* signature_buffer_size) {
  // Running out of memory anywhere in the operation fails the call; it never ends the process.
  try {
    return Sign(key_blob, key_blob_size, ratelimit, object, object_size, signature_buffer,
                signature_buffer_size);
  } catch (const std::bad_alloc&) {
    KM_STREAM_LOG(ERROR) << "Error allocation buffer for keymaster signature";
    return -1;
  }
}
