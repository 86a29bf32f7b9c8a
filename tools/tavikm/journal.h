// SPDX-License-Identifier: Apache-2.0
// The journal of an in-place record update in a metadata file.
//
// Before a record is overwritten where it lies, the old and the new 2704-byte images, the offset
// and the identity of the file go to a journal and reach the disk; after the new record has
// reached the disk the journal is removed. A command that later opens the file and finds a
// journal for it finishes the story, but only if the journal is really about these bytes:
// - every byte now at the journaled place equals the old or the new image's byte there (a write
//   of the new image over the old one, cut anywhere, leaves exactly that): the image that is
//   complete (the new one) stands, anything else gets the old one back; either way that image is
//   written again and synced before the journal is dropped, so a lost earlier write is redone;
// - anything else (the file replaced, restored, moved over, set up anew, its bytes neither image,
//   a place that no longer exists in it) makes the journal stale: it is moved aside, never
//   applied, and the command says so and carries on.
// A crash at any byte of either write thus leaves a record that the old or the new password
// opens, and no journal can write over a record it was not written for.
//
// Where journals live: one directory for all the user's metadata files, not one per device
// directory: $TAVIKM_JOURNAL_DIR, else $XDG_STATE_HOME/tavikm/journal, else
// ~/.local/state/tavikm/journal. A journal is named after the file's identity (device and inode;
// a block device by its device number), not its path, so every name of the file (hard links,
// another spelling of the path) and every --device-dir finds it. A journal beside the file was
// the other candidate; it would travel with the file, but it is not found through a hard link
// in another directory, needs a writable folder next to every block device, and for a device
// node in /dev would live on a memory file system that a power cut empties. What this choice
// gives up: another user (another home) does not see the journal, and a file carried to another
// machine leaves its journal behind (its record is then the torn one, as without a journal).
#ifndef TAVIKM_TOOLS_JOURNAL_H_
#define TAVIKM_TOOLS_JOURNAL_H_

#include <stdint.h>
#include <sys/stat.h>

#include <string>

#include "tavikm.h"

namespace tavikm_tool {

// What a journal is bound to: a block device by its device number (any node of it is the same
// device), any other file by its device and inode.
struct FileId {
  bool block = false;
  uint64_t dev = 0;
  uint64_t ino = 0;

  static FileId Of(const struct stat& st);
  bool operator==(const FileId& other) const {
    return block == other.block && dev == other.dev && ino == other.ino;
  }
};

// The journal directory for this user; "" when there is none (no HOME).
std::string JournalDir();

// Records that the file `id` (named `path` in messages) is about to change at `offset` from
// `old_image` to `new_image`, and syncs the journal and its folder. Throws a failure when it
// cannot; the record is then untouched.
void WriteJournal(const FileId& id, const std::string& path, uint64_t offset,
                  const km_meta& old_image, const km_meta& new_image);

// Removes the journal of `id`; only once the record it protects is known to be on the disk.
void DropJournal(const FileId& id);

enum class Replay {
  kNone,       // no journal for this file
  kDiscarded,  // a journal cut short while it was written: the record had not been touched
  kCompleted,  // the new image was complete; it stands
  kRestored,   // the old image stands (put back, or never overwritten)
  kStale,      // not about these bytes: moved aside, not applied
};

struct ReplayResult {
  Replay outcome = Replay::kNone;
  std::string journal;  // the journal's path; kStale: where it was moved, "" if it could not be
};

// Finishes an interrupted update of the file `id`, which the caller holds locked and has open as
// `fd` (read-only is enough unless a journal must be applied). `path` names it in messages.
// Throws a failure, keeping the journal, when the journal cannot be read or the image it calls
// for cannot be written and synced.
ReplayResult ReplayJournal(const FileId& id, const std::string& path, int fd);

// A journal that an earlier tavikm left for `path` in the device directory's journal/ folder,
// named after the path and holding only a digest of the new image: nothing in it can tell a
// torn record from a file replaced since, so it is never applied. It is set aside with the
// stale journals (its old image stays there for a person to use). Returns where it went, or ""
// when there was none.
std::string SetAsideEarlierJournal(const FileId& id, const std::string& path);

// After a store that did not reach the disk: writes the journaled old image back and syncs it;
// only then is the journal dropped. Returns false, keeping the journal, when that fails.
bool PutBackOldImage(const FileId& id, const std::string& path, int fd_rw);

}  // namespace tavikm_tool

#endif  // TAVIKM_TOOLS_JOURNAL_H_
