// SPDX-License-Identifier: Apache-2.0
// Journaled undo of the stores the library makes by itself.
#include "library_stores.h"

#include <errno.h>
#include <fcntl.h>
#include <limits.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include <memory>

#include "cli.h"
#include "common/scopers.h"
#include "journal.h"
#include "write_guard.h"

namespace tavikm_tool {
namespace {

bool ReadAt(int fd, km_meta* image) {
  memset(image, 0, sizeof(*image));
  ssize_t n = pread(fd, image, sizeof(*image), 0);
  return n >= 0;
}

}  // namespace

int UndoLibraryStores(const OpenedPlace& opened, km_meta* meta,
                      const std::function<int()>& own_call) {
  // Only kdf 4 stores from inside the KDF; a name that the library would send to secure
  // storage is an entry, replaced atomically under the lock the command holds.
  if (meta->kdf_type != KM_KDF_PBKDF2_REK) return own_call();
  auto call = [&] { return WithOwnKeyName(opened.place(), meta, own_call); };
  const std::string& target = opened.place().loc;
  if (target[0] != '/' && mdfpp_property_get(supportMdfpp)) return call();

  struct stat st;
  if (!tavikm::ScopedFd(OpenMetadataFile(target, &st)).ok()) {
    return call();  // the library would create it; nothing there to lose
  }
  // The file of another place needs its own lock and journal replay; the command's own file has
  // had both.
  std::unique_ptr<OpenedPlace> other;
  struct stat own;
  if (opened.place().secure_storage || !opened.file_exists() || fstat(opened.fd(), &own) != 0 ||
      own.st_dev != st.st_dev || own.st_ino != st.st_ino) {
    other = std::make_unique<OpenedPlace>(Place{false, target, 0});
  }
  char resolved[PATH_MAX];
  if (!realpath(target.c_str(), resolved)) {
    throw ToolError(kExitFailure, "cannot resolve " + target + ": " + strerror(errno));
  }
  tavikm::ScopedFd file(open(resolved, O_RDWR | O_NONBLOCK | O_CLOEXEC));
  if (!file.ok()) throw ToolError(kExitFailure, "cannot open " + target + ": " + strerror(errno));
  km_meta before;
  if (!ReadAt(file.get(), &before)) throw ToolError(kExitFailure, "cannot read " + target);
  // The intended image is the old one: a crash inside the call gets the old bytes back.
  WriteJournal(resolved, 0, before, before);
  int rc = call();
  km_meta after;
  bool ok = ReadAt(file.get(), &after);
  if (ok && memcmp(&after, &before, sizeof(before)) != 0) {
    ok = pwrite(file.get(), &before, sizeof(before), 0) == static_cast<ssize_t>(sizeof(before)) &&
         fsync(file.get()) == 0;
  }
  file.reset();
  if (!ok) throw ToolError(kExitFailure, "cannot put back offset 0 of " + target);
  DropJournal(resolved);
  return rc;
}

}  // namespace tavikm_tool
