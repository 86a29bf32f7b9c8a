// SPDX-License-Identifier: Apache-2.0
// The one way the tool changes a record. A command first opens the place (OpenedPlace: its lock
// taken, a journal left by an interrupted change replayed), reads and checks under that lock,
// and stores through StoreRecord, which picks the safe write for the place and reads the record
// back before anyone is told it was stored.
#ifndef TAVIKM_TOOLS_RECORD_STORE_H_
#define TAVIKM_TOOLS_RECORD_STORE_H_

#include <memory>
#include <string>

#include "journal.h"
#include "lock.h"
#include "place.h"
#include "tavikm.h"

namespace tavikm_tool {

class OpenedPlace {
 public:
  // Locks `place` (a metadata file must be a regular file or a block device) and replays a
  // journal left for its file, with a note on stderr when that changed anything. Throws a
  // failure when the place is busy past the wait or is not a place at all.
  explicit OpenedPlace(const Place& place);

  const Place& place() const { return place_; }
  // Files: whether the metadata file exists (and is locked).
  bool file_exists() const { return lock_->held(); }
  // Files: the locked descriptor (read-only) and the file's identity; -1 when absent.
  int fd() const { return lock_->fd(); }
  const FileId& file_id() const { return id_; }

 private:
  Place place_;
  std::unique_ptr<PlaceLock> lock_;
  FileId id_;
};

// Stores the 2704-byte `image` at the opened place and reads it back:
// - a secure-storage entry through km_put_km_meta (the host replaces entries atomically);
// - into an existing metadata file through km_put_km_meta at the offset, journaled (journal.h)
//   and synced, with SIGINT, SIGTERM, SIGHUP and SIGQUIT held back until the record and its
//   journal are settled; a store that does not reach the disk puts the old record back, or
//   keeps the journal and says so;
// - a missing metadata file is created whole (16384 bytes with the image at the offset) in a
//   temporary file that is synced and then linked to its name, which fails if another command
//   created the file meanwhile; an interrupted creation leaves no file behind.
// `what` names the record in failure sentences ("the new record"). Throws a failure (exit 4)
// when the store fails or the record read back differs from `image`.
void StoreRecord(const OpenedPlace& opened, const km_meta& image, const std::string& what);

}  // namespace tavikm_tool

#endif  // TAVIKM_TOOLS_RECORD_STORE_H_
