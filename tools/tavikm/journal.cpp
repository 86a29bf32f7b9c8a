// SPDX-License-Identifier: Apache-2.0
// Journal files, all numbers little-endian:
//   "TAVIKMJ2" | u32 kind (1 file, 2 block device) | u64 device | u64 inode (0 for a device)
//   | u64 offset | u32 image length (2704) | u32 path length | path | old image | new image
//   | SHA-256 of everything before it
// The path is only for people reading the journal; the identity decides.
#include "journal.h"

#include <errno.h>
#include <fcntl.h>
#include <limits.h>
#include <linux/fs.h>
#include <openssl/crypto.h>
#include <openssl/sha.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/ioctl.h>
#include <time.h>
#include <unistd.h>

#include <vector>

#include "cli.h"
#include "common/files.h"
#include "common/le_codec.h"
#include "common/scopers.h"
#include "tavikm_host/device.h"

namespace tavikm_tool {
namespace {

constexpr char kMagic[8] = {'T', 'A', 'V', 'I', 'K', 'M', 'J', '2'};
constexpr uint32_t kKindFile = 1, kKindBlock = 2;
// Far above any journal (two images and a path); a larger file is not one of ours.
constexpr off_t kMaxJournal = 65536;

bool MakeDirs(const std::string& dir) {
  for (size_t slash = dir.find('/', 1);; slash = dir.find('/', slash + 1)) {
    std::string part = dir.substr(0, slash);
    if (mkdir(part.c_str(), 0700) != 0 && errno != EEXIST) return false;
    if (slash == std::string::npos) return true;
  }
}

std::string JournalName(const FileId& id) {
  char name[64];
  if (id.block) {
    snprintf(name, sizeof(name), "b-%llx", static_cast<unsigned long long>(id.dev));
  } else {
    snprintf(name, sizeof(name), "f-%llx-%llx", static_cast<unsigned long long>(id.dev),
             static_cast<unsigned long long>(id.ino));
  }
  return name;
}

bool WriteAllAt(int fd, const void* data, size_t size, uint64_t offset) {
  const uint8_t* p = static_cast<const uint8_t*>(data);
  while (size > 0) {
    ssize_t n = pwrite(fd, p, size, static_cast<off_t>(offset));
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) return false;
    p += n;
    size -= static_cast<size_t>(n);
    offset += static_cast<uint64_t>(n);
  }
  return true;
}

// Reads exactly `size` bytes at `offset`: 1, 0 when the file ends first, -1 on an error.
int ReadExactAt(int fd, void* data, size_t size, uint64_t offset) {
  uint8_t* p = static_cast<uint8_t*>(data);
  while (size > 0) {
    ssize_t n = pread(fd, p, size, static_cast<off_t>(offset));
    if (n < 0 && errno == EINTR) continue;
    if (n < 0) return -1;
    if (n == 0) return 0;
    p += n;
    size -= static_cast<size_t>(n);
    offset += static_cast<uint64_t>(n);
  }
  return 1;
}

struct Parsed {
  FileId id;
  uint64_t offset = 0;
  uint32_t length = 0;
  km_meta old_image{};
  km_meta new_image{};
};

// False for bytes that are not a whole journal: cut short, or not one at all.
bool Parse(const std::vector<uint8_t>& bytes, Parsed* out) {
  tavikm::LeReader in(bytes.data(), bytes.size());
  uint8_t magic[sizeof(kMagic)];
  uint32_t kind = 0, path_length = 0;
  in.Bytes(magic, sizeof(magic));
  in.U32(&kind);
  in.U64(&out->id.dev);
  in.U64(&out->id.ino);
  in.U64(&out->offset);
  in.U32(&out->length);
  in.U32(&path_length);
  in.Take(path_length);
  in.Bytes(&out->old_image, sizeof(out->old_image));
  in.Bytes(&out->new_image, sizeof(out->new_image));
  size_t body = in.position();
  const uint8_t* digest = in.Take(SHA256_DIGEST_LENGTH);
  if (!in.done() || memcmp(magic, kMagic, sizeof(kMagic)) != 0) return false;
  uint8_t expected[SHA256_DIGEST_LENGTH];
  SHA256(bytes.data(), body, expected);
  if (CRYPTO_memcmp(expected, digest, sizeof(expected)) != 0) return false;
  out->id.block = kind == kKindBlock;
  return kind == kKindFile || kind == kKindBlock;
}

ToolError Kept(const std::string& journal, const std::string& path, const std::string& why) {
  return ToolError(kExitFailure, "cannot use the journal " + journal + " of " + path + ": " + why +
                                     "; the journal is kept and nothing was changed");
}

enum class Found { kAbsent, kTorn, kUnusable, kWhole };

// Reads the journal at `journal`. Throws, keeping it, when it exists but cannot be read.
Found ReadJournal(const std::string& journal, const std::string& path, Parsed* parsed) {
  tavikm::ScopedFd fd(open(journal.c_str(), O_RDONLY | O_NONBLOCK | O_NOFOLLOW | O_CLOEXEC));
  if (!fd.ok()) {
    if (errno == ENOENT || errno == ENOTDIR) return Found::kAbsent;
    if (errno == ELOOP) return Found::kUnusable;  // a symlink: never ours
    throw Kept(journal, path, strerror(errno));
  }
  struct stat st;
  if (fstat(fd.get(), &st) != 0) throw Kept(journal, path, strerror(errno));
  if (!S_ISREG(st.st_mode) || st.st_size > kMaxJournal) return Found::kUnusable;
  std::vector<uint8_t> bytes(static_cast<size_t>(st.st_size));
  int got = ReadExactAt(fd.get(), bytes.data(), bytes.size(), 0);
  if (got < 0) throw Kept(journal, path, strerror(errno));
  Found found = got == 1 && Parse(bytes, parsed) ? Found::kWhole : Found::kTorn;
  OPENSSL_cleanse(bytes.data(), bytes.size());
  return found;
}

// The journal's name in its folder must be on the disk before the record is touched.
bool SyncDirChecked(const std::string& dir) {
  tavikm::ScopedFd fd(open(dir.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  return fd.ok() && fsync(fd.get()) == 0;
}

void RemoveJournal(const std::string& journal) {
  unlink(journal.c_str());
  tavikm::SyncDir(JournalDir());
}

// Moves a journal that must not be applied out of the way, keeping it for a person to look at.
std::string MoveAside(const std::string& journal, const FileId& id) {
  std::string dir = JournalDir() + "/stale";
  std::string aside = dir + "/" + JournalName(id) + "." + std::to_string(time(nullptr)) + "." +
                      std::to_string(getpid());
  if (!MakeDirs(dir) || rename(journal.c_str(), aside.c_str()) != 0) return "";
  tavikm::SyncDir(JournalDir());
  return aside;
}

// The bytes the file holds; the largest offset when that cannot be told (the read at the
// journaled place then finds out).
uint64_t SizeOf(int fd, const struct stat& st) {
  if (S_ISREG(st.st_mode)) return static_cast<uint64_t>(st.st_size);
  uint64_t size = 0;
  if (ioctl(fd, BLKGETSIZE64, &size) == 0) return size;
  off_t end = lseek(fd, 0, SEEK_END);
  return end > 0 ? static_cast<uint64_t>(end) : UINT64_MAX;
}

// A descriptor for writing to exactly the file open as `fd`, whatever its names are now.
int ReopenForWriting(int fd, const std::string& path) {
  std::string self = "/proc/self/fd/" + std::to_string(fd);
  int rw = open(self.c_str(), O_RDWR | O_NONBLOCK | O_CLOEXEC);
  if (rw >= 0 || errno != ENOENT) return rw;
  // No /proc: the path, if it still names the same file.
  rw = open(path.c_str(), O_RDWR | O_NONBLOCK | O_CLOEXEC);
  struct stat a, b;
  if (rw >= 0 && (fstat(fd, &a) != 0 || fstat(rw, &b) != 0 || !(FileId::Of(a) == FileId::Of(b)))) {
    close(rw);
    errno = ESTALE;
    return -1;
  }
  return rw;
}

// Writes `image` at the journaled place and syncs it. Writing it even when the bytes already
// match is deliberate: after a failed fsync the kernel may report the next one clean although
// the earlier write never reached the disk.
bool WriteAndSync(int fd, const Parsed& journal, const km_meta& image) {
  return WriteAllAt(fd, &image, sizeof(image), journal.offset) && fsync(fd) == 0;
}

}  // namespace

FileId FileId::Of(const struct stat& st) {
  FileId id;
  id.block = S_ISBLK(st.st_mode);
  id.dev = id.block ? static_cast<uint64_t>(st.st_rdev) : static_cast<uint64_t>(st.st_dev);
  id.ino = id.block ? 0 : static_cast<uint64_t>(st.st_ino);
  return id;
}

std::string JournalDir() {
  if (const char* dir = getenv("TAVIKM_JOURNAL_DIR"); dir && *dir) return dir;
  if (const char* state = getenv("XDG_STATE_HOME"); state && *state) {
    return std::string(state) + "/tavikm/journal";
  }
  if (const char* home = getenv("HOME"); home && *home) {
    return std::string(home) + "/.local/state/tavikm/journal";
  }
  return "";
}

void WriteJournal(const FileId& id, const std::string& path, uint64_t offset,
                  const km_meta& old_image, const km_meta& new_image) {
  std::string dir = JournalDir();
  if (dir.empty()) {
    throw ToolError(kExitFailure, "cannot journal the change of " + path +
                                      ": set TAVIKM_JOURNAL_DIR or HOME; the record is unchanged");
  }
  if (!MakeDirs(dir)) {
    throw ToolError(kExitFailure,
                    "cannot create " + dir + ": " + strerror(errno) + "; the record is unchanged");
  }
  std::vector<uint8_t> bytes;
  tavikm::LeWriter out(&bytes);
  out.Bytes(kMagic, sizeof(kMagic))
      .U32(id.block ? kKindBlock : kKindFile)
      .U64(id.dev)
      .U64(id.ino)
      .U64(offset)
      .U32(KM_META_SIZE)
      .U32(static_cast<uint32_t>(path.size()))
      .Bytes(path.data(), path.size())
      .Bytes(&old_image, sizeof(old_image))
      .Bytes(&new_image, sizeof(new_image));
  uint8_t digest[SHA256_DIGEST_LENGTH];
  SHA256(bytes.data(), bytes.size(), digest);
  out.Bytes(digest, sizeof(digest));

  // A new file each time: the caller has replayed or moved aside any earlier journal under the
  // file's lock, so one that exists now belongs to something this command does not understand.
  std::string journal = dir + "/" + JournalName(id);
  tavikm::ScopedFd fd(
      open(journal.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0600));
  const bool created = fd.ok();
  int err = created ? 0 : errno;
  if (!err && !(tavikm::WriteAll(fd.get(), bytes.data(), bytes.size()) && fsync(fd.get()) == 0)) {
    err = errno ? errno : EIO;
  }
  if (created && fd.close() != 0 && !err) err = errno;
  if (!err && !SyncDirChecked(dir)) err = errno ? errno : EIO;
  OPENSSL_cleanse(bytes.data(), bytes.size());
  if (err) {
    // The record was not touched, so our own half-written journal holds nothing worth keeping.
    if (created) unlink(journal.c_str());
    throw ToolError(kExitFailure, "cannot write the journal " + journal + ": " + strerror(err) +
                                      "; the record is unchanged");
  }
}

void DropJournal(const FileId& id) { RemoveJournal(JournalDir() + "/" + JournalName(id)); }

ReplayResult ReplayJournal(const FileId& id, const std::string& path, int fd) {
  ReplayResult result;
  std::string dir = JournalDir();
  if (dir.empty()) return result;
  result.journal = dir + "/" + JournalName(id);
  Parsed parsed;
  switch (ReadJournal(result.journal, path, &parsed)) {
    case Found::kAbsent:
      return result;
    case Found::kTorn:
      // The record is touched only after its journal was written whole and synced; a journal
      // that fails its own checksum was cut before that, so the record never changed and the
      // journal holds nothing to go back to.
      RemoveJournal(result.journal);
      result.outcome = Replay::kDiscarded;
      return result;
    case Found::kUnusable:
      result.journal = MoveAside(result.journal, id);
      result.outcome = Replay::kStale;
      return result;
    case Found::kWhole:
      break;
  }
  auto stale = [&] {
    result.journal = MoveAside(result.journal, id);
    result.outcome = Replay::kStale;
    OPENSSL_cleanse(&parsed, sizeof(parsed));
    return result;
  };
  struct stat st;
  if (fstat(fd, &st) != 0) throw Kept(result.journal, path, strerror(errno));
  uint64_t size = SizeOf(fd, st);
  if (!(parsed.id == id) || parsed.length != KM_META_SIZE || parsed.offset > size ||
      size - parsed.offset < KM_META_SIZE) {
    return stale();
  }
  km_meta now;
  int got = ReadExactAt(fd, &now, sizeof(now), parsed.offset);
  if (got < 0) throw Kept(result.journal, path, strerror(errno));
  if (got == 0) return stale();
  const uint8_t* cur = reinterpret_cast<const uint8_t*>(&now);
  const uint8_t* old_bytes = reinterpret_cast<const uint8_t*>(&parsed.old_image);
  const uint8_t* new_bytes = reinterpret_cast<const uint8_t*>(&parsed.new_image);
  bool mix = true, is_new = true;
  for (size_t i = 0; i < sizeof(now); ++i) {
    mix = mix && (cur[i] == old_bytes[i] || cur[i] == new_bytes[i]);
    is_new = is_new && cur[i] == new_bytes[i];
  }
  OPENSSL_cleanse(&now, sizeof(now));
  if (!mix) return stale();

  result.outcome = is_new ? Replay::kCompleted : Replay::kRestored;
  tavikm::ScopedFd rw(ReopenForWriting(fd, path));
  if (!rw.ok()) throw Kept(result.journal, path, strerror(errno));
  bool ok = WriteAndSync(rw.get(), parsed, is_new ? parsed.new_image : parsed.old_image);
  int err = errno;
  OPENSSL_cleanse(&parsed, sizeof(parsed));
  if (!ok) throw Kept(result.journal, path, strerror(err));
  RemoveJournal(result.journal);
  return result;
}

std::string SetAsideEarlierJournal(const FileId& id, const std::string& path) {
  char resolved[PATH_MAX];
  if (!realpath(path.c_str(), resolved)) return "";
  uint8_t digest[SHA256_DIGEST_LENGTH];
  SHA256(reinterpret_cast<const uint8_t*>(resolved), strlen(resolved), digest);
  std::string earlier = tavikm_host::DevicePath("journal") + "/" + Hex(digest, 16);
  struct stat st;
  if (lstat(earlier.c_str(), &st) != 0) return "";
  std::string aside = MoveAside(earlier, id);
  return aside.empty() ? earlier : aside;
}

bool PutBackOldImage(const FileId& id, const std::string& path, int fd_rw) {
  std::string journal = JournalDir() + "/" + JournalName(id);
  Parsed parsed;
  bool ok = false;
  try {
    ok = ReadJournal(journal, path, &parsed) == Found::kWhole && parsed.id == id &&
         WriteAndSync(fd_rw, parsed, parsed.old_image);
  } catch (const ToolError&) {
    ok = false;
  }
  OPENSSL_cleanse(&parsed, sizeof(parsed));
  if (ok) RemoveJournal(journal);
  return ok;
}

}  // namespace tavikm_tool
