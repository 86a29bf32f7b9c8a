// SPDX-License-Identifier: Apache-2.0
// Locked, journaled and verified record stores.
#include "record_store.h"

#include <errno.h>
#include <fcntl.h>
#include <limits.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include <vector>

#include "cli.h"
#include "common/files.h"
#include "common/scopers.h"
#include "journal.h"
#include "log_sink.h"
#include "temp_files.h"

namespace tavikm_tool {
namespace {

std::string DirOf(const std::string& path) {
  size_t slash = path.rfind('/');
  if (slash == std::string::npos) return ".";
  return slash == 0 ? "/" : path.substr(0, slash);
}

ToolError StoreFailed(const Place& place, const std::string& what) {
  return ToolError(kExitFailure, "cannot store " + what + " at " + place.Describe() + Why());
}

// A new metadata file appears whole or not at all, and never over one that another command
// made in the meantime.
void CreateFile(const Place& place, const km_meta& image) {
  std::vector<uint8_t> file(KM_METADATA_FILE_SIZE, 0);
  memcpy(file.data() + place.offset, &image, sizeof(image));
  std::string dir = DirOf(place.loc);
  std::string tmp;
  tavikm::ScopedFd fd(CreateTemporary(dir, &tmp));
  if (!fd.ok()) {
    throw ToolError(kExitFailure, "cannot create " + place.loc + ": " + strerror(errno));
  }
  int err =
      tavikm::WriteAll(fd.get(), file.data(), file.size()) && fsync(fd.get()) == 0 ? 0 : errno;
  if (fd.close() != 0 && !err) err = errno;
  if (err) {
    unlink(tmp.c_str());
    throw ToolError(kExitFailure, "cannot create " + place.loc + ": " + strerror(err));
  }
  int rc = link(tmp.c_str(), place.loc.c_str());
  err = errno;
  unlink(tmp.c_str());
  tavikm::SyncDir(dir);
  if (rc != 0 && err == EEXIST) {
    throw ToolError(kExitFailure, place.loc +
                                      " was created by another command meanwhile; nothing was "
                                      "stored");
  }
  if (rc != 0) throw ToolError(kExitFailure, "cannot create " + place.loc + ": " + strerror(err));
}

void UpdateFileInPlace(const OpenedPlace& opened, const km_meta& image, const std::string& what) {
  const Place& place = opened.place();
  km_meta old{};
  RawRecord raw = ReadRaw(place);
  old = raw.meta;
  WriteJournal(opened.canonical_path(), place.offset, old, image);
  ForgetSeen();
  if (km_put_km_meta(place.loc.c_str(), static_cast<int64_t>(place.offset), &image) != 0 ||
      fsync(opened.fd()) != 0) {
    // Part of the record may have landed: put the old one back now rather than at the next run.
    ReplayJournal(opened.canonical_path());
    throw StoreFailed(place, what);
  }
  DropJournal(opened.canonical_path());
}

}  // namespace

OpenedPlace::OpenedPlace(const Place& place)
    : place_(place), lock_(std::make_unique<PlaceLock>(place)) {
  if (place.secure_storage || !lock_->held()) return;
  char resolved[PATH_MAX];
  if (!realpath(place.loc.c_str(), resolved)) {
    throw ToolError(kExitFailure, "cannot resolve " + place.loc + ": " + strerror(errno));
  }
  canonical_ = resolved;
  switch (ReplayJournal(canonical_)) {
    case Replay::kCompleted:
      fprintf(stderr, "tavikm: note: an interrupted change of %s had completed; it stands\n",
              place.loc.c_str());
      break;
    case Replay::kRestored:
      fprintf(stderr, "tavikm: note: an interrupted change of %s was undone\n", place.loc.c_str());
      break;
    case Replay::kNone:
    case Replay::kDiscarded:
      break;
  }
}

void StoreRecord(const OpenedPlace& opened, const km_meta& image, const std::string& what) {
  const Place& place = opened.place();
  if (place.secure_storage) {
    ForgetSeen();
    if (km_put_km_meta(place.loc.c_str(), 0, &image) != 0) throw StoreFailed(place, what);
  } else if (opened.file_exists()) {
    UpdateFileInPlace(opened, image, what);
  } else {
    CreateFile(place, image);
  }
  RawRecord back;
  try {
    back = ReadRaw(place);
  } catch (const ToolError& e) {
    // The store itself succeeded: say so, rather than what a failed store says.
    throw ToolError(kExitFailure, what + " was stored at " + place.Describe() +
                                      ", but could not be read back to verify: " + e.what());
  }
  if (back.stored_length != KM_META_SIZE || memcmp(&back.meta, &image, sizeof(image)) != 0) {
    throw ToolError(kExitFailure, "the record read back from " + place.Describe() +
                                      " differs from what was stored");
  }
}

}  // namespace tavikm_tool
