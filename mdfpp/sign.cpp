// SPDX-License-Identifier: Apache-2.0
// Object signing with the RSA binding key: the object is signed as it is (no digest, no
// padding) and the raw signature handed out in a malloc()ed buffer.
#include <keymasterV4_0/authorization_set.h>
#include <stdint.h>
#include <stdlib.h>
#include <string.h>

#include <string>

#include "keymaster/Keymaster.h"
#include "mdfpp/service.h"
#include "tavikm_keymaster.h"

namespace km = android::mdfpp::km;
using android::mdfpp::Keymaster;
using android::mdfpp::KeymasterOperation;

int keymaster_sign_object_for_cryptfs_scrypt_mdfpp(
    const unsigned char* key_blob, unsigned long key_blob_size, unsigned int ratelimit,
    const unsigned char* object, unsigned long object_size, unsigned char** signature_buffer,
    unsigned long* signature_buffer_size) {
  Keymaster dev;
  if (!dev) {
    tavikm::LogNoKeymasterSession();
    return -1;
  }
  if (!key_blob || !object || !signature_buffer || !signature_buffer_size) {
    KM_LOG_INVALID_ARGUMENT();
    return -1;
  }
  // Unlike the object encryption, these copies are released unwiped.
  // assign() rather than the pointer constructor keeps a standard library template out of the
  // exported symbols.
  std::string key, input;
  key.assign(reinterpret_cast<const char*>(key_blob), key_blob_size);
  input.assign(reinterpret_cast<const char*>(object), object_size);
  km::AuthorizationSetBuilder params;
  params.NoDigestOrPadding();

  KeymasterOperation op =
      tavikm::BeginWaitingOutRateLimit(dev, km::KeyPurpose::SIGN, key, params, ratelimit);
  if (op.getErrorCode() == km::ErrorCode::KEY_REQUIRES_UPGRADE) {
    KM_STREAM_LOG(ERROR) << "Keymaster key requires upgrade";
    return -2;
  }
  const int32_t code = static_cast<int32_t>(op.getErrorCode());
  if (op.getErrorCode() != km::ErrorCode::OK) {
    KM_STREAM_LOG(ERROR) << "Error starting keymaster signature transaction: " << code;
    return -1;
  }
  std::string output;
  if (!op.updateCompletely(input.data(), input.size(), [&output](const char* piece, size_t n) {
        if (n) output.append(piece, n);
      })) {
    KM_STREAM_LOG(ERROR) << "Error sending data to keymaster signature transaction: " << code;
    return -1;
  }
  if (!op.finish(&output)) {
    KM_STREAM_LOG(ERROR) << "Error finalizing keymaster signature transaction: " << code;
    return -1;
  }
  *signature_buffer = static_cast<unsigned char*>(malloc(output.size() ? output.size() : 1));
  if (!*signature_buffer) {
    KM_STREAM_LOG(ERROR) << "Error allocation buffer for keymaster signature";
    return -1;
  }
  *signature_buffer_size = output.size();
  if (!output.empty()) memcpy(*signature_buffer, output.data(), output.size());
  return 0;
}
