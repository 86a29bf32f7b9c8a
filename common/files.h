// SPDX-License-Identifier: Apache-2.0
// Small POSIX file helpers shared by the host platform's secure storage and the tool's record
// stores, which both replace files atomically. Header-only, like the scopers.
#ifndef TAVIKM_COMMON_FILES_H_
#define TAVIKM_COMMON_FILES_H_

#include <errno.h>
#include <fcntl.h>
#include <stdint.h>
#include <unistd.h>

#include <string>

#include "common/scopers.h"

namespace tavikm {

// write() until all `size` bytes are out. False with errno set on failure (EIO when write()
// stops making progress).
inline bool WriteAll(int fd, const uint8_t* data, uint64_t size) {
  while (size > 0) {
    ssize_t n = write(fd, data, size);
    if (n < 0 && errno == EINTR) continue;
    if (n == 0) errno = EIO;
    if (n <= 0) return false;
    data += n;
    size -= static_cast<uint64_t>(n);
  }
  return true;
}

// Makes a rename or link in `dir` durable; best effort, since the change itself already happened.
inline void SyncDir(const std::string& dir) {
  ScopedFd fd(open(dir.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  if (fd.ok()) fsync(fd.get());
}

}  // namespace tavikm

#endif  // TAVIKM_COMMON_FILES_H_
