// SPDX-License-Identifier: Apache-2.0
// Random bytes from libcrypto's generator.
#include <openssl/err.h>
#include <openssl/rand.h>
#include <stdint.h>
#include <stdlib.h>

#include "common/log.h"
#include "tavikm.h"

int km_generate_drbg_bytes(void* /*unused*/, uint8_t* out, size_t count) {
  if (RAND_bytes(out, count) != 1) {
    // Callers are never told about a failing generator, and carrying on would hand out a
    // master key, salt or KEK that is not random: the process ends after the line.
    KM_LOGE("Getting random bytes error = %ld\n",
            static_cast<long>(static_cast<uint32_t>(ERR_get_error())));
    abort();
  }
  return 0;
}
