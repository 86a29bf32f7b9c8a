// SPDX-License-Identifier: Apache-2.0
// The rate-limited begin and the operation runner shared by the object encryption and signing
// services.
#include "mdfpp/service.h"

#include <unistd.h>

namespace tavikm {

namespace km = android::mdfpp::km;

android::mdfpp::KeymasterOperation BeginWaitingOutRateLimit(android::mdfpp::Keymaster& keymaster,
                                                            km::KeyPurpose purpose,
                                                            const std::string& key,
                                                            const km::AuthorizationSet& params,
                                                            unsigned int ratelimit) {
  // The device's answer parameters are of no use to these services.
  km::AuthorizationSet ignored;
  android::mdfpp::KeymasterOperation op =
      keymaster.begin(purpose, key, params, km::HardwareAuthToken(), &ignored);
  // The key itself sets the pace (MIN_SECONDS_BETWEEN_OPS): wait, however often it takes.
  while (op.getErrorCode() == km::ErrorCode::KEY_RATE_LIMIT_EXCEEDED) {
    sleep(ratelimit);
    op = keymaster.begin(purpose, key, params, km::HardwareAuthToken(), &ignored);
  }
  return op;
}

namespace {

// Wipes a client string, then lets it go.
void WipeString(std::string* s) {
  OPENSSL_cleanse(&(*s)[0], s->capacity());
  s->clear();
}

}  // namespace

int OperationRunner::Begin(km::KeyPurpose purpose, const unsigned char* key_blob,
                           size_t key_blob_size, const km::AuthorizationSet& params,
                           unsigned int ratelimit) {
  // The client takes the blob as a std::string: that copy is wiped as soon as begin is done.
  std::string blob;
  if (key_blob_size) blob.assign(reinterpret_cast<const char*>(key_blob), key_blob_size);
  op_.emplace(BeginWaitingOutRateLimit(keymaster_, purpose, blob, params, ratelimit));
  WipeString(&blob);
  if (op_->getErrorCode() == km::ErrorCode::KEY_REQUIRES_UPGRADE) {
    KM_STREAM_LOG(ERROR) << "Keymaster key requires upgrade";
    return -2;
  }
  if (op_->getErrorCode() != km::ErrorCode::OK) {
    KM_STREAM_LOG(ERROR) << messages_.starting << Code();
    return -1;
  }
  return 0;
}

bool OperationRunner::UpdateCompletely(const unsigned char* input, size_t size,
                                       SecretBytes* output) {
  if (!op_->updateCompletely(reinterpret_cast<const char*>(input), size,
                             [output](const char* piece, size_t n) { output->Append(piece, n); })) {
    KM_STREAM_LOG(ERROR) << messages_.sending << Code();
    return false;
  }
  return true;
}

bool OperationRunner::Finish(SecretBytes* output) {
  std::string last;
  const bool finished = op_->finish(&last);
  if (finished) output->Assign(last.data(), last.size());
  WipeString(&last);
  if (!finished) {
    KM_STREAM_LOG(ERROR) << messages_.finalizing << Code();
    return false;
  }
  return true;
}

}  // namespace tavikm
