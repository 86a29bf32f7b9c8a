// SPDX-License-Identifier: Apache-2.0
// Random bytes from libcrypto's generator.
#include <openssl/err.h>
#include <openssl/rand.h>
#include <stdint.h>
#include <stdlib.h>

#include "common/log.h"
#include "tavikm.h"

int km_generate_drbg_bytes(void* /*unused*/, uint8_t* out, size_t count) {
  if (!out && count) {
    KM_LOGE("%s::Failed, out is NULL! \n", "km_generate_drbg_bytes");
    return -1;
  }
  if (RAND_bytes(out, count) != 1) {
    // Callers were never told about a failing generator and carry on with what they got: a
    // master key, salt or KEK that is not random. The process ends after the line instead.
    KM_LOGE("Getting random bytes error = %ld\n",
            static_cast<long>(static_cast<uint32_t>(ERR_get_error())));
    abort();
  }
  return 0;
}
