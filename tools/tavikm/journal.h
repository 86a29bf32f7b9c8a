// SPDX-License-Identifier: Apache-2.0
// The journal of an in-place record update in a metadata file. Before a record is overwritten
// where it lies, the old 2704 bytes, the place and the SHA-256 of the image about to be written
// go to a journal file in the device directory (journal/, one per metadata file) and reach the
// disk; after the new record has reached the disk the journal is removed. A command that opens
// the file later and finds a journal finishes the story: the new image complete on disk drops
// the journal, anything else gets the old image back, and a journal that fails its own checksum
// was cut short before the record was touched and is discarded. A crash at any byte of either
// write thus leaves a record that the old or the new password opens.
#ifndef TAVIKM_TOOLS_JOURNAL_H_
#define TAVIKM_TOOLS_JOURNAL_H_

#include <stdint.h>

#include <string>

#include "tavikm.h"

namespace tavikm_tool {

// Records that `path` (canonical) is about to change at `offset` from `old_image` to
// `new_image`, and syncs the journal and its folder. Throws a failure when it cannot; the
// record is then untouched.
void WriteJournal(const std::string& path, uint64_t offset, const km_meta& old_image,
                  const km_meta& new_image);

// Removes the journal of `path` after the new record reached the disk.
void DropJournal(const std::string& path);

enum class Replay {
  kNone,       // no journal for this file
  kDiscarded,  // a torn journal: the record had not been touched
  kCompleted,  // the new image was on disk in full
  kRestored,   // the old image was put back
};

// Finishes an interrupted update of `path` (canonical); the caller holds the file's lock.
// Throws a failure when the old image cannot be put back (the journal is then kept).
Replay ReplayJournal(const std::string& path);

}  // namespace tavikm_tool

#endif  // TAVIKM_TOOLS_JOURNAL_H_
