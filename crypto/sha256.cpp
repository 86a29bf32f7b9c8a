// SPDX-License-Identifier: Apache-2.0
// SHA-256 of a buffer through the EVP digest interface.
#include <openssl/evp.h>

#include "common/log.h"
#include "common/scopers.h"
#include "tavikm.h"

int km_sha256(const uint8_t* data, size_t len, uint8_t* digest) {
  if ((!data && len) || !digest) {
    KM_LOGE("%s::Failed, %s is NULL! \n", "km_sha256", !digest ? "digest" : "data");
    return -1;
  }
  tavikm::ScopedMdCtx ctx(EVP_MD_CTX_new());
  unsigned int digest_len = 0;
  if (!ctx || EVP_DigestInit_ex(ctx.get(), EVP_sha256(), nullptr) != 1 ||
      EVP_DigestUpdate(ctx.get(), data, len) != 1 ||
      EVP_DigestFinal_ex(ctx.get(), digest, &digest_len) != 1) {
    KM_LOGE("Failed to digest init for sha256\n");
    return -1;
  }
  if (digest_len != 32) {
    KM_LOGE("Output size(%u) is differ from sha256 size(32)", digest_len);
    return -1;
  }
  return 0;
}
