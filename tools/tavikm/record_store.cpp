// SPDX-License-Identifier: Apache-2.0
// Locked, journaled and verified record stores.
#include "record_store.h"

#include <errno.h>
#include <fcntl.h>
#include <openssl/crypto.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
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

// Signals that end the tool wait while a record and its journal are between two states: the
// store then runs to its end (a few milliseconds), and the signal acts after it.
class HeldSignals {
 public:
  HeldSignals() {
    sigset_t held;
    sigemptyset(&held);
    for (int sig : {SIGINT, SIGTERM, SIGHUP, SIGQUIT}) sigaddset(&held, sig);
    sigprocmask(SIG_BLOCK, &held, &before_);
  }
  ~HeldSignals() { sigprocmask(SIG_SETMASK, &before_, nullptr); }
  HeldSignals(const HeldSignals&) = delete;
  HeldSignals& operator=(const HeldSignals&) = delete;

 private:
  sigset_t before_;
};

void UpdateFileInPlace(const OpenedPlace& opened, const km_meta& image, const std::string& what) {
  const Place& place = opened.place();
  // Opened for writing before anything else, so a file that cannot be written (a read-only
  // file system, no permission) fails here, with no journal written.
  tavikm::ScopedFd rw(open(place.loc.c_str(), O_RDWR | O_NONBLOCK | O_CLOEXEC));
  struct stat st;
  if (!rw.ok() || fstat(rw.get(), &st) != 0) {
    throw ToolError(kExitFailure, "cannot store " + what + " at " + place.Describe() + ": " +
                                      strerror(errno) + "; the record is unchanged");
  }
  if (!(FileId::Of(st) == opened.file_id())) {
    throw ToolError(kExitFailure, place.loc +
                                      " was replaced by another file while the command ran; "
                                      "nothing was stored");
  }
  RawRecord raw = ReadRaw(place);
  HeldSignals held;
  WriteJournal(opened.file_id(), place.loc, place.offset, raw.meta, image);
  OPENSSL_cleanse(&raw.meta, sizeof(raw.meta));
  ForgetSeen();
  int rc = km_put_km_meta(place.loc.c_str(), static_cast<int64_t>(place.offset), &image);
  int err = rc == 0 ? 0 : EIO;
  // The library syncs its own descriptor; this one tells whether the write reached the disk.
  if (rc == 0 && fsync(rw.get()) != 0) err = errno;
  if (rc == 0 && err == 0) {
    DropJournal(opened.file_id());
    return;
  }
  // Part of the record may have landed, or all of it without reaching the disk: the old record
  // goes back now, and the journal stays until that is on the disk.
  std::string cause = rc != 0 ? Why() : std::string(": ") + strerror(err);
  if (!PutBackOldImage(opened.file_id(), place.loc, rw.get())) {
    throw ToolError(kExitFailure, "cannot store " + what + " at " + place.Describe() + cause +
                                      ", nor put the old record back; the journal in " +
                                      JournalDir() +
                                      " is kept, and the next command on the file puts it back");
  }
  throw ToolError(kExitFailure, "cannot store " + what + " at " + place.Describe() + cause +
                                    "; the record is unchanged");
}

}  // namespace

OpenedPlace::OpenedPlace(const Place& place)
    : place_(place), lock_(std::make_unique<PlaceLock>(place)) {
  if (place.secure_storage || !lock_->held()) return;
  id_ = FileId::Of(lock_->status());
  ReplayResult replay = ReplayJournal(id_, place.loc, lock_->fd());
  switch (replay.outcome) {
    case Replay::kCompleted:
      fprintf(stderr, "tavikm: note: an interrupted change of %s had completed; it stands\n",
              place.loc.c_str());
      break;
    case Replay::kRestored:
      fprintf(stderr, "tavikm: note: an interrupted change of %s was undone\n", place.loc.c_str());
      break;
    case Replay::kStale:
      fprintf(stderr,
              "tavikm: note: a journal of an earlier change does not match what %s holds now "
              "(the file was replaced or changed since), so it was not applied and %s\n",
              place.loc.c_str(),
              replay.journal.empty() ? "could not be moved out of the way"
                                     : ("was set aside in " + replay.journal).c_str());
      break;
    case Replay::kNone:
    case Replay::kDiscarded:
      break;
  }
  std::string earlier = SetAsideEarlierJournal(id_, place.loc);
  if (!earlier.empty()) {
    fprintf(stderr,
            "tavikm: note: a journal an earlier tavikm left for %s cannot be checked against "
            "what the file holds, so it was not applied and is in %s\n",
            place.loc.c_str(), earlier.c_str());
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
