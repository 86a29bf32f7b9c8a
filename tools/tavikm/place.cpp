// SPDX-License-Identifier: Apache-2.0
// Choosing a record's place and reading its raw bytes.
#include "place.h"

#include <errno.h>
#include <fcntl.h>
#include <stddef.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include "cli.h"
#include "common/scopers.h"
#include "log_sink.h"

namespace tavikm_tool {
namespace {

std::string KindOf(mode_t mode) {
  if (S_ISCHR(mode)) return "a character device";
  if (S_ISFIFO(mode)) return "a FIFO";
  if (S_ISSOCK(mode)) return "a socket";
  if (S_ISDIR(mode)) return "a directory";
  return "not a regular file";
}

}  // namespace

std::string Place::Describe() const {
  if (secure_storage) return "secure-storage entry \"" + loc + "\"";
  return loc + " at offset " + std::to_string(offset);
}

Place ResolvePlace(const std::string& loc, const std::optional<std::string>& offset,
                   bool force_file) {
  if (loc.empty()) throw UsageError("the key location is empty");
  CheckKeyLocation(loc);
  Place place;
  place.loc = loc;
  place.secure_storage = !force_file && mdfpp_property_get(supportMdfpp) && loc[0] != '/';
  if (!offset) return place;
  if (place.secure_storage) {
    throw UsageError("--offset applies to metadata files only; " + loc +
                     " is a secure-storage entry");
  }
  place.offset = ParseUnsigned(*offset, "--offset");
  if (place.offset > static_cast<uint64_t>(INT64_MAX)) throw UsageError("--offset is too large");
  return place;
}

void CheckKeyLocation(const std::string& loc) {
  constexpr size_t kRoom = sizeof(km_meta::key_name);
  if (loc.size() >= kRoom) {
    throw UsageError("the key location is " + std::to_string(loc.size()) +
                     " bytes long; a record holds at most " + std::to_string(kRoom - 1));
  }
}

void CheckRoom(const Place& place) {
  if (place.secure_storage) return;
  // A regular metadata file is always cut to 16384 bytes, so a record must end within it.
  struct stat st;
  bool regular = stat(place.loc.c_str(), &st) != 0 || S_ISREG(st.st_mode);
  if (regular && place.offset > KM_METADATA_FILE_SIZE - KM_META_SIZE) {
    throw UsageError("--offset " + std::to_string(place.offset) +
                     " leaves no room for a record in a " + std::to_string(KM_METADATA_FILE_SIZE) +
                     "-byte metadata file");
  }
}

int OpenMetadataFile(const std::string& path, struct stat* st) {
  tavikm::ScopedFd fd(open(path.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC));
  if (!fd.ok()) {
    if (errno == ENOENT) return -1;
    int err = errno;
    // A socket cannot be opened at all; say what it is rather than "No such device".
    if (stat(path.c_str(), st) == 0 && !S_ISREG(st->st_mode) && !S_ISBLK(st->st_mode)) {
      throw ToolError(kExitFailure, path + " is " + KindOf(st->st_mode) +
                                        ", not a metadata file (a regular file or a block device)");
    }
    throw ToolError(kExitFailure, "cannot open " + path + ": " + strerror(err));
  }
  if (fstat(fd.get(), st) != 0) {
    throw ToolError(kExitFailure, "cannot read the status of " + path + ": " + strerror(errno));
  }
  if (!S_ISREG(st->st_mode) && !S_ISBLK(st->st_mode)) {
    throw ToolError(kExitFailure, path + " is " + KindOf(st->st_mode) +
                                      ", not a metadata file (a regular file or a block device)");
  }
  return fd.release();
}

bool RawRecord::Kek() const {
  return stored_length >= offsetof(km_meta, kek_mac) && meta.magic == KM_META_MAGIC &&
         meta.kdf_type == 0 && meta.xtkm_value_size != 0;
}

bool RawRecord::Empty() const {
  if (!found || stored_length == 0) return true;
  const uint8_t* bytes = reinterpret_cast<const uint8_t*>(&meta);
  for (size_t i = 0; i < sizeof(meta); ++i) {
    if (bytes[i]) return false;
  }
  return true;
}

kmstore_device* SecureStorage() {
  kmstore_device* device = nullptr;
  ForgetSeen();
  if (kmstore_device_init(&device) != 0 || !device) {
    throw ToolError(kExitFailure, "cannot open the secure-storage device" + Why());
  }
  return device;
}

RawRecord ReadRaw(const Place& place) {
  RawRecord raw;
  uint8_t* buffer = reinterpret_cast<uint8_t*>(&raw.meta);
  if (place.secure_storage) {
    uint64_t length = KM_META_SIZE;
    int rc = SecureStorage()->read(place.loc.c_str(), buffer, &length);
    if (rc < 0) {
      throw ToolError(kExitFailure, "cannot read " + place.Describe() + ": " + strerror(-rc));
    }
    raw.found = rc == 0;
    if (raw.found) raw.stored_length = length;
    return raw;
  }
  struct stat st;
  tavikm::ScopedFd fd(OpenMetadataFile(place.loc, &st));
  if (!fd.ok()) return raw;
  raw.found = true;
  raw.regular_file = S_ISREG(st.st_mode);
  raw.file_size = static_cast<uint64_t>(st.st_size);
  while (raw.stored_length < KM_META_SIZE) {
    ssize_t n = pread(fd.get(), buffer + raw.stored_length, KM_META_SIZE - raw.stored_length,
                      static_cast<off_t>(place.offset + raw.stored_length));
    if (n < 0 && errno == EINTR) continue;
    if (n < 0) throw ToolError(kExitFailure, "cannot read " + place.loc + ": " + strerror(errno));
    if (n == 0) break;
    raw.stored_length += static_cast<uint64_t>(n);
  }
  return raw;
}

}  // namespace tavikm_tool
