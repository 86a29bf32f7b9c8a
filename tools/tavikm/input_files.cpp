// SPDX-License-Identifier: Apache-2.0
// Opening input files without blocking on them.
#include "input_files.h"

#include <errno.h>
#include <fcntl.h>
#include <poll.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include "cli.h"
#include "common/scopers.h"
#include "lock.h"

namespace tavikm_tool {
namespace {

std::string KindOf(mode_t mode) {
  if (S_ISFIFO(mode)) return "a FIFO";
  if (S_ISCHR(mode)) return "a character device";
  if (S_ISBLK(mode)) return "a block device";
  if (S_ISSOCK(mode)) return "a socket";
  if (S_ISDIR(mode)) return "a directory";
  return "not a regular file";
}

// Opens without blocking (a FIFO's open would wait for a writer) and returns it with its status.
int OpenNonBlocking(const std::string& path, const std::string& what, struct stat* st) {
  int fd = open(path.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC);
  if (fd < 0) {
    int err = errno;
    if (stat(path.c_str(), st) == 0 && S_ISSOCK(st->st_mode)) {
      throw InputError(what + " " + path + " is a socket, not a file");
    }
    throw InputError("cannot open " + what + " " + path + ": " + strerror(err));
  }
  if (fstat(fd, st) != 0) {
    int err = errno;
    close(fd);
    throw InputError("cannot read the status of " + what + " " + path + ": " + strerror(err));
  }
  return fd;
}

void Blocking(int fd) { fcntl(fd, F_SETFL, fcntl(fd, F_GETFL) & ~O_NONBLOCK); }

}  // namespace

int OpenInput(const std::string& path, const std::string& what) {
  struct stat st;
  tavikm::ScopedFd fd(OpenNonBlocking(path, what, &st));
  if (S_ISREG(st.st_mode)) {
    Blocking(fd.get());
    return fd.release();
  }
  if (!S_ISFIFO(st.st_mode) && !S_ISCHR(st.st_mode)) {
    throw InputError(what + " " + path + " is " + KindOf(st.st_mode) + ", not a file to read");
  }
  // A FIFO reports nothing until a writer has come; a writer that left reports the end.
  struct pollfd ready = {fd.get(), POLLIN, 0};
  int timeout = static_cast<int>(LockWait()) * 1000;
  int rc;
  do {
    rc = poll(&ready, 1, timeout);
  } while (rc < 0 && errno == EINTR);
  if (rc == 0) {
    throw InputError("nothing came from " + what + " " + path + " (" + KindOf(st.st_mode) +
                     ") within " + std::to_string(LockWait()) +
                     (LockWait() == 1 ? " second" : " seconds"));
  }
  Blocking(fd.get());
  return fd.release();
}

int OpenRegularInput(const std::string& path, const std::string& what) {
  struct stat st;
  tavikm::ScopedFd fd(OpenNonBlocking(path, what, &st));
  if (!S_ISREG(st.st_mode)) {
    throw InputError(what + " " + path + " is " + KindOf(st.st_mode) + ", not a regular file");
  }
  Blocking(fd.get());
  return fd.release();
}

}  // namespace tavikm_tool
