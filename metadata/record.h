// SPDX-License-Identifier: Apache-2.0
// Bounded writes into a caller's km_meta.
#ifndef TAVIKM_METADATA_RECORD_H_
#define TAVIKM_METADATA_RECORD_H_

#include <stddef.h>

#include "tavikm.h"

// Copies `n` bytes from `src` to `field`, a position inside `meta`. The copy may run on into the
// fields that follow `field` but never past the record's end: a copy that would is refused
// with one line naming `caller`, and false returned; nothing is written then.
bool km_copy_into_record(km_meta* meta, void* field, const void* src, size_t n, const char* caller);

#endif  // TAVIKM_METADATA_RECORD_H_
