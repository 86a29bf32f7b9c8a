// SPDX-License-Identifier: Apache-2.0
// Place locks: flock with a bounded wait.
#include "lock.h"

#include <errno.h>
#include <fcntl.h>
#include <string.h>
#include <sys/file.h>
#include <time.h>
#include <unistd.h>

#include "cli.h"
#include "tavikm_host/device.h"
#include "tavikm_host/kmstore.h"

namespace tavikm_tool {
namespace {

unsigned g_wait_seconds = 10;

double Now() {
  struct timespec ts;
  clock_gettime(CLOCK_MONOTONIC, &ts);
  return static_cast<double>(ts.tv_sec) + static_cast<double>(ts.tv_nsec) / 1e9;
}

// Polls rather than blocking in flock, so the wait has a bound without signals.
void LockOrThrow(int fd, const Place& place) {
  double deadline = Now() + g_wait_seconds;
  for (;;) {
    if (flock(fd, LOCK_EX | LOCK_NB) == 0) return;
    if (errno != EWOULDBLOCK && errno != EINTR) {
      throw ToolError(kExitFailure, "cannot lock " + place.Describe() + ": " + strerror(errno));
    }
    if (Now() >= deadline) {
      throw ToolError(kExitFailure,
                      place.Describe() + " is busy: another command is using it; try again later");
    }
    usleep(20 * 1000);
  }
}

// The lock file of a secure-storage entry; lock files are never removed, so two commands can
// never lock two different files of one name.
int OpenEntryLockFile(const std::string& name) {
  std::string dir = tavikm_host::DevicePath("locks");
  if (mkdir(dir.c_str(), 0700) != 0 && errno != EEXIST) {
    throw ToolError(kExitFailure, "cannot create " + dir + ": " + strerror(errno));
  }
  std::string path = dir + "/" + tavikm_host::KmstoreEntryFileName(name);
  int fd = open(path.c_str(), O_RDWR | O_CREAT | O_NOFOLLOW | O_CLOEXEC, 0600);
  if (fd < 0) throw ToolError(kExitFailure, "cannot open " + path + ": " + strerror(errno));
  return fd;
}

}  // namespace

void SetLockWait(unsigned seconds) { g_wait_seconds = seconds; }
unsigned LockWait() { return g_wait_seconds; }

PlaceLock::PlaceLock(const Place& place) {
  if (place.secure_storage) {
    fd_ = OpenEntryLockFile(place.loc);
  } else {
    fd_ = OpenMetadataFile(place.loc, &status_);
    if (fd_ < 0) return;
  }
  try {
    LockOrThrow(fd_, place);
  } catch (...) {
    close(fd_);
    throw;
  }
}

PlaceLock::~PlaceLock() {
  if (fd_ >= 0) close(fd_);  // closing the last descriptor releases the flock
}

}  // namespace tavikm_tool
