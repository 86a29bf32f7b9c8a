// SPDX-License-Identifier: Apache-2.0
// Exclusive, unpredictable, self-cleaning temporary files.
#include "temp_files.h"

#include <dirent.h>
#include <errno.h>
#include <fcntl.h>
#include <signal.h>
#include <stdlib.h>
#include <string.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include "cli.h"
#include "tavikm.h"

namespace tavikm_tool {
namespace {

constexpr char kPrefix[] = ".tavikm-new-";

// A leftover is removed only when its creator is gone: its lock is free (a live creator holds it
// from right after creating the file) and no process of its number runs here, or the number is
// this process's own, which has made none yet (a PID namespace hands numbers out again).
void RemoveStale(const std::string& dir) {
  DIR* folder = opendir(dir.c_str());
  if (!folder) return;
  while (dirent* entry = readdir(folder)) {
    std::string name = entry->d_name;
    if (name.rfind(kPrefix, 0) != 0) continue;
    pid_t creator = static_cast<pid_t>(strtol(name.c_str() + sizeof(kPrefix) - 1, nullptr, 10));
    if (creator > 0 && creator != getpid() && (kill(creator, 0) == 0 || errno != ESRCH)) continue;
    std::string path = dir + "/" + name;
    int fd = open(path.c_str(), O_RDONLY | O_NONBLOCK | O_NOFOLLOW | O_CLOEXEC);
    if (fd < 0) continue;
    struct stat st;
    if (fstat(fd, &st) == 0 && S_ISREG(st.st_mode) && flock(fd, LOCK_EX | LOCK_NB) == 0) {
      unlink(path.c_str());  // under its lock: nobody else is removing or using it
    }
    close(fd);
  }
  closedir(folder);
}

}  // namespace

int CreateTemporary(const std::string& dir, std::string* path) {
  RemoveStale(dir);
  for (int attempt = 0; attempt < 8; ++attempt) {
    uint8_t random[8];
    km_generate_drbg_bytes(nullptr, random, sizeof(random));
    *path = dir + "/" + kPrefix + std::to_string(getpid()) + "-" + Hex(random, sizeof(random));
    int fd = open(path->c_str(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0600);
    if (fd < 0 && errno == EEXIST) continue;
    if (fd < 0) return -1;
    if (flock(fd, LOCK_EX | LOCK_NB) != 0 || fchmod(fd, 0600) != 0) {
      int err = errno;
      unlink(path->c_str());
      close(fd);
      errno = err;
      return -1;
    }
    return fd;
  }
  errno = EEXIST;
  return -1;
}

}  // namespace tavikm_tool
