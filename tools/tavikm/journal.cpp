// SPDX-License-Identifier: Apache-2.0
// Journal files: "TAVIKMJ1", the offset (u64), the path's length (u32) and bytes, the old image,
// the SHA-256 of the new image, and a SHA-256 over all of that.
#include "journal.h"

#include <errno.h>
#include <fcntl.h>
#include <openssl/crypto.h>
#include <openssl/sha.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include <vector>

#include "cli.h"
#include "common/files.h"
#include "common/scopers.h"
#include "tavikm_host/device.h"

namespace tavikm_tool {
namespace {

constexpr char kMagic[8] = {'T', 'A', 'V', 'I', 'K', 'M', 'J', '1'};

std::string JournalDir() { return tavikm_host::DevicePath("journal"); }

std::string JournalPath(const std::string& path) {
  uint8_t digest[SHA256_DIGEST_LENGTH];
  SHA256(reinterpret_cast<const uint8_t*>(path.data()), path.size(), digest);
  return JournalDir() + "/" + Hex(digest, 16);
}

bool WriteAllAt(int fd, const uint8_t* data, size_t size, uint64_t offset) {
  while (size > 0) {
    ssize_t n = pwrite(fd, data, size, static_cast<off_t>(offset));
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) return false;
    data += n;
    size -= static_cast<size_t>(n);
    offset += static_cast<uint64_t>(n);
  }
  return true;
}

bool ReadAll(int fd, uint8_t* data, size_t size, uint64_t offset) {
  while (size > 0) {
    ssize_t n = pread(fd, data, size, static_cast<off_t>(offset));
    if (n < 0 && errno == EINTR) continue;
    if (n < 0) return false;
    if (n == 0) {  // past the end of a short file: reads as zeros, as the library's reader sees it
      memset(data, 0, size);
      return true;
    }
    data += n;
    size -= static_cast<size_t>(n);
    offset += static_cast<uint64_t>(n);
  }
  return true;
}

void Sha256(const km_meta& image, uint8_t* digest) {
  SHA256(reinterpret_cast<const uint8_t*>(&image), sizeof(image), digest);
}

void Put(std::vector<uint8_t>* out, const void* data, size_t size) {
  const uint8_t* bytes = static_cast<const uint8_t*>(data);
  out->insert(out->end(), bytes, bytes + size);
}

struct Parsed {
  std::string path;
  uint64_t offset = 0;
  km_meta old_image{};
  uint8_t intended[SHA256_DIGEST_LENGTH] = {};
};

// False for a journal that was cut short or is not one.
bool Parse(const std::vector<uint8_t>& bytes, Parsed* out) {
  const size_t fixed = sizeof(kMagic) + 8 + 4 + KM_META_SIZE + 2 * SHA256_DIGEST_LENGTH;
  if (bytes.size() < fixed || memcmp(bytes.data(), kMagic, sizeof(kMagic)) != 0) return false;
  uint32_t path_length;
  memcpy(&path_length, bytes.data() + 16, 4);
  if (bytes.size() != fixed + path_length) return false;
  size_t body = bytes.size() - SHA256_DIGEST_LENGTH;
  uint8_t digest[SHA256_DIGEST_LENGTH];
  SHA256(bytes.data(), body, digest);
  if (CRYPTO_memcmp(digest, bytes.data() + body, sizeof(digest)) != 0) return false;
  memcpy(&out->offset, bytes.data() + 8, 8);
  const uint8_t* p = bytes.data() + 20;
  out->path.assign(reinterpret_cast<const char*>(p), path_length);
  p += path_length;
  memcpy(&out->old_image, p, KM_META_SIZE);
  memcpy(out->intended, p + KM_META_SIZE, sizeof(out->intended));
  return true;
}

void Remove(const std::string& journal) {
  unlink(journal.c_str());
  tavikm::SyncDir(JournalDir());
}

}  // namespace

void WriteJournal(const std::string& path, uint64_t offset, const km_meta& old_image,
                  const km_meta& new_image) {
  std::string dir = JournalDir();
  if (mkdir(dir.c_str(), 0700) != 0 && errno != EEXIST) {
    throw ToolError(kExitFailure, "cannot create " + dir + ": " + strerror(errno));
  }
  std::vector<uint8_t> bytes;
  uint32_t path_length = static_cast<uint32_t>(path.size());
  uint8_t intended[SHA256_DIGEST_LENGTH];
  Sha256(new_image, intended);
  Put(&bytes, kMagic, sizeof(kMagic));
  Put(&bytes, &offset, sizeof(offset));
  Put(&bytes, &path_length, sizeof(path_length));
  Put(&bytes, path.data(), path.size());
  Put(&bytes, &old_image, sizeof(old_image));
  Put(&bytes, intended, sizeof(intended));
  uint8_t digest[SHA256_DIGEST_LENGTH];
  SHA256(bytes.data(), bytes.size(), digest);
  Put(&bytes, digest, sizeof(digest));

  std::string journal = JournalPath(path);
  tavikm::ScopedFd fd(
      open(journal.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_NOFOLLOW | O_CLOEXEC, 0600));
  if (!fd.ok()) throw ToolError(kExitFailure, "cannot write " + journal + ": " + strerror(errno));
  bool ok = tavikm::WriteAll(fd.get(), bytes.data(), bytes.size()) && fsync(fd.get()) == 0;
  ok = fd.close() == 0 && ok;
  if (!ok) {
    Remove(journal);
    throw ToolError(kExitFailure, "cannot write " + journal + "; the record is unchanged");
  }
  tavikm::SyncDir(dir);
}

void DropJournal(const std::string& path) { Remove(JournalPath(path)); }

Replay ReplayJournal(const std::string& path) {
  std::string journal = JournalPath(path);
  std::vector<uint8_t> bytes;
  {
    tavikm::ScopedFd fd(open(journal.c_str(), O_RDONLY | O_NONBLOCK | O_NOFOLLOW | O_CLOEXEC));
    if (!fd.ok()) return Replay::kNone;
    struct stat st;
    if (fstat(fd.get(), &st) == 0 && S_ISREG(st.st_mode) && st.st_size < 65536) {
      bytes.resize(static_cast<size_t>(st.st_size));
      if (!ReadAll(fd.get(), bytes.data(), bytes.size(), 0)) bytes.clear();
    }
  }
  Parsed parsed;
  if (!Parse(bytes, &parsed) || parsed.path != path) {
    Remove(journal);
    return Replay::kDiscarded;
  }

  tavikm::ScopedFd file(open(path.c_str(), O_RDWR | O_NONBLOCK | O_CLOEXEC));
  if (!file.ok()) throw ToolError(kExitFailure, "cannot open " + path + ": " + strerror(errno));
  km_meta current;
  uint8_t digest[SHA256_DIGEST_LENGTH];
  bool ok =
      ReadAll(file.get(), reinterpret_cast<uint8_t*>(&current), sizeof(current), parsed.offset);
  if (ok) Sha256(current, digest);
  Replay result = Replay::kCompleted;
  if (!ok || CRYPTO_memcmp(digest, parsed.intended, sizeof(digest)) != 0) {
    result = Replay::kRestored;
    ok = WriteAllAt(file.get(), reinterpret_cast<const uint8_t*>(&parsed.old_image), KM_META_SIZE,
                    parsed.offset);
  }
  ok = fsync(file.get()) == 0 && ok;
  file.reset();
  if (!ok) {
    throw ToolError(kExitFailure, "cannot put back the record of " + path + " from " + journal);
  }
  Remove(journal);
  return result;
}

}  // namespace tavikm_tool
