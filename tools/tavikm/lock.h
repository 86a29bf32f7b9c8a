// SPDX-License-Identifier: Apache-2.0
// Exclusive locks that serialise the tool's read, check and write of one place, so two commands
// on one record run one after the other: flock on the metadata file itself, and for a
// secure-storage entry a lock file of that entry in the device directory. A second command waits
// a bounded time and then gives up with "... is busy".
#ifndef TAVIKM_TOOLS_LOCK_H_
#define TAVIKM_TOOLS_LOCK_H_

#include <sys/stat.h>

#include "place.h"

namespace tavikm_tool {

// How long a command waits for a lock another command holds (default 10 seconds).
void SetLockWait(unsigned seconds);
unsigned LockWait();

class PlaceLock {
 public:
  // Locks `place`. For a metadata file that does not exist yet nothing is locked (held() is
  // false): its creation is exclusive instead (see record_store.h). Throws a failure naming the
  // place when it stays busy past the wait, or when it is no metadata file.
  explicit PlaceLock(const Place& place);
  ~PlaceLock();
  PlaceLock(const PlaceLock&) = delete;
  PlaceLock& operator=(const PlaceLock&) = delete;

  bool held() const { return fd_ >= 0; }
  // File places: the locked metadata file (opened read-only) and its status.
  int fd() const { return fd_; }
  const struct stat& status() const { return status_; }

 private:
  int fd_ = -1;
  struct stat status_ = {};
};

}  // namespace tavikm_tool

#endif  // TAVIKM_TOOLS_LOCK_H_
