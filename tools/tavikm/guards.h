// SPDX-License-Identifier: Apache-2.0
// Hazards the library's contract leaves to its caller, refused before anything is written: its
// file store sets a regular file to the fixed metadata length (a longer file would lose its
// tail), writes past the end of a device without complaint at the first bytes, and knows nothing
// of other records in the same file.
#ifndef TAVIKM_TOOLS_GUARDS_H_
#define TAVIKM_TOOLS_GUARDS_H_

#include <stdint.h>

#include "place.h"
#include "record_store.h"

namespace tavikm_tool {

// Throws unless a record at `place` fits its file: an existing regular file must be exactly
// 16384 bytes long (a failure, exit 4) and the record must end within it; on a block device it
// must end within the device (a usage error for the offset, exit 1). `fd` is the place's open
// file, or -1 to look it up by path. A missing file and secure storage always fit.
void CheckFits(const Place& place, int fd = -1);

// The offset of another record (its magic within 2704 bytes either side) that a record stored at
// the opened place would partly overwrite, or -1.
int64_t OverlappedRecord(const OpenedPlace& opened);

// Throws the failure that names the overlapped record, when there is one.
void RefuseOverlap(const OpenedPlace& opened);

}  // namespace tavikm_tool

#endif  // TAVIKM_TOOLS_GUARDS_H_
