// SPDX-License-Identifier: Apache-2.0
// Size, room and overlap checks of a record's place.
#include "guards.h"

#include <errno.h>
#include <fcntl.h>
#include <linux/fs.h>
#include <string.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <vector>

#include "cli.h"
#include "common/scopers.h"

namespace tavikm_tool {

void CheckFits(const Place& place, int fd) {
  if (place.secure_storage) return;
  struct stat st;
  tavikm::ScopedFd owned(fd < 0 ? OpenMetadataFile(place.loc, &st) : -1);
  if (fd < 0) {
    if (!owned.ok()) return;  // created whole at the fixed length
    fd = owned.get();
  } else if (fstat(fd, &st) != 0) {
    throw ToolError(kExitFailure,
                    "cannot read the status of " + place.loc + ": " + strerror(errno));
  }
  uint64_t end = place.offset + KM_META_SIZE;
  if (S_ISREG(st.st_mode)) {
    if (static_cast<uint64_t>(st.st_size) != KM_METADATA_FILE_SIZE) {
      throw ToolError(kExitFailure,
                      place.loc + " is not a metadata file: " + std::to_string(st.st_size) +
                          " bytes instead of " + std::to_string(KM_METADATA_FILE_SIZE));
    }
    if (end > KM_METADATA_FILE_SIZE) {
      throw UsageError("--offset " + std::to_string(place.offset) +
                       " leaves no room for a record in a " +
                       std::to_string(KM_METADATA_FILE_SIZE) + "-byte metadata file");
    }
    return;
  }
  if (!S_ISBLK(st.st_mode)) return;  // OpenMetadataFile refuses everything else
  uint64_t size = 0;
  if (ioctl(fd, BLKGETSIZE64, &size) != 0) {
    throw ToolError(kExitFailure, "cannot read the size of " + place.loc + ": " + strerror(errno));
  }
  if (end > size) {
    throw UsageError("--offset " + std::to_string(place.offset) +
                     " leaves no room for a record on " + place.loc + " (" + std::to_string(size) +
                     " bytes)");
  }
}

int64_t OverlappedRecord(const OpenedPlace& opened) {
  const Place& place = opened.place();
  if (place.secure_storage || !opened.file_exists()) return -1;
  uint64_t first = place.offset >= KM_META_SIZE ? place.offset - (KM_META_SIZE - 1) : 0;
  uint64_t end = place.offset + (KM_META_SIZE - 1) + sizeof(uint32_t);
  std::vector<uint8_t> bytes(end - first);
  ssize_t n = pread(opened.fd(), bytes.data(), bytes.size(), static_cast<off_t>(first));
  if (n < 0) throw ToolError(kExitFailure, "cannot read " + place.loc + ": " + strerror(errno));
  const uint32_t magic = KM_META_MAGIC;
  for (size_t i = 0; i + sizeof(magic) <= static_cast<size_t>(n); ++i) {
    if (first + i == place.offset || memcmp(bytes.data() + i, &magic, sizeof(magic)) != 0) continue;
    return static_cast<int64_t>(first + i);
  }
  return -1;
}

void RefuseOverlap(const OpenedPlace& opened) {
  int64_t other = OverlappedRecord(opened);
  if (other < 0) return;
  const Place& place = opened.place();
  throw ToolError(kExitFailure, "a record at offset " + std::to_string(place.offset) + " of " +
                                    place.loc + " would overlap the record at offset " +
                                    std::to_string(other));
}

}  // namespace tavikm_tool
