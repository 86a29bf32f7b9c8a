// SPDX-License-Identifier: Apache-2.0
// Bounded writes into a caller's km_meta.
#include "metadata/record.h"

#include <stdint.h>
#include <stdlib.h>
#include <string.h>

#include "common/log.h"

bool km_copy_into_record(km_meta* meta, void* field, const void* src, size_t n,
                         const char* caller) {
  const uintptr_t begin = reinterpret_cast<uintptr_t>(meta);
  const uintptr_t at = reinterpret_cast<uintptr_t>(field);
  if (at < begin || at > begin + sizeof(km_meta) || n > begin + sizeof(km_meta) - at) {
    KM_LOGE("%s::Failed, %zu bytes at offset %zu would pass the end of km_meta_t\n", caller, n,
            static_cast<size_t>(at - begin));
    return false;
  }
  memcpy(field, src, n);
  return true;
}
