// SPDX-License-Identifier: Apache-2.0
// Locking, keeping and checking the places a library call may write besides its own record.
#include "write_guard.h"

#include <errno.h>
#include <fcntl.h>
#include <limits.h>
#include <openssl/crypto.h>
#include <stddef.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>

#include "cli.h"
#include "common/scopers.h"

namespace tavikm_tool {
namespace {

// More than any entry the library writes, so a longer one is seen as changed too.
constexpr size_t kEntryCapacity = 4096;
// The bytes of a metadata file the library's stores can reach: the fixed length of a regular
// file, and as much of a block device.
constexpr size_t kFileSpan = KM_METADATA_FILE_SIZE;

bool SameFile(const std::string& a, const std::string& b) {
  struct stat sa, sb;
  return stat(a.c_str(), &sa) == 0 && stat(b.c_str(), &sb) == 0 && sa.st_dev == sb.st_dev &&
         sa.st_ino == sb.st_ino;
}

// Up to kFileSpan bytes of `fd` from 0, and its length; false when it cannot be read.
bool ReadSpan(int fd, std::vector<uint8_t>* bytes, uint64_t* length) {
  struct stat st;
  if (fstat(fd, &st) != 0) return false;
  *length = static_cast<uint64_t>(st.st_size);
  bytes->assign(kFileSpan, 0);
  size_t got = 0;
  while (got < bytes->size()) {
    ssize_t n = pread(fd, bytes->data() + got, bytes->size() - got, static_cast<off_t>(got));
    if (n < 0 && errno == EINTR) continue;
    if (n < 0) return false;
    if (n == 0) break;
    got += static_cast<size_t>(n);
  }
  bytes->resize(got);
  return true;
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

}  // namespace

struct WriteGuard::Entry {
  std::string name;
  bool may_vanish = false;  // the legacy KEK entry of the command's own record
  std::unique_ptr<PlaceLock> lock;
  bool found = false;
  std::vector<uint8_t> bytes;

  ~Entry() { OPENSSL_cleanse(bytes.data(), bytes.size()); }

  void Read(bool* found_out, std::vector<uint8_t>* out) const {
    out->assign(kEntryCapacity, 0);
    uint64_t length = out->size();
    int rc = SecureStorage()->read(name.c_str(), out->data(), &length);
    if (rc < 0) {
      throw ToolError(kExitFailure,
                      "cannot read secure-storage entry \"" + name + "\": " + strerror(-rc));
    }
    *found_out = rc == 0;
    out->resize(rc == 0 ? static_cast<size_t>(length) : 0);
  }
};

struct WriteGuard::File {
  std::string path;
  // The command's own file: the record's bytes [from, from + KM_META_SIZE) are its to change.
  bool own = false;
  uint64_t from = 0;
  std::unique_ptr<OpenedPlace> opened;  // another file: locked while the command runs
  bool found = false;
  uint64_t length = 0;
  std::vector<uint8_t> bytes;

  ~File() { OPENSSL_cleanse(bytes.data(), bytes.size()); }
};

WriteGuard::WriteGuard(const OpenedPlace& opened, const km_meta* record, uint64_t stored_length)
    : own_(opened.place()) {
  if (!own_.secure_storage && opened.file_exists()) {
    auto file = std::make_unique<File>();
    file->path = own_.loc;
    file->own = true;
    file->from = own_.offset;
    file->found = ReadSpan(opened.fd(), &file->bytes, &file->length);
    if (!file->found) {
      throw ToolError(kExitFailure, "cannot read " + own_.loc + ": " + strerror(errno));
    }
    files_.push_back(std::move(file));
  }
  if (!record || stored_length < offsetof(km_meta, key_name) + sizeof(record->key_name) ||
      record->magic != KM_META_MAGIC) {
    return;
  }
  std::string key_name(record->key_name, strnlen(record->key_name, sizeof(record->key_name)));
  if (key_name.empty()) return;
  // Reading an older generation from secure storage moves "<key_name>_kek" into the record and
  // may store it under key_name; a kdf 4 derivation may store it under key_name.
  bool upgrade_on_read = own_.secure_storage && record->major_version <= 2;
  if (!upgrade_on_read && record->kdf_type != KM_KDF_PBKDF2_REK) return;
  bool name_is_entry = mdfpp_property_get(supportMdfpp) && key_name[0] != '/';
  if (name_is_entry) {
    if (!own_.secure_storage || key_name != own_.loc) GuardEntry(key_name, false);
  } else if (own_.secure_storage || !SameFile(key_name, own_.loc)) {
    GuardFile(key_name, upgrade_on_read);
  }
  if (upgrade_on_read && key_name + "_kek" != own_.loc) {
    GuardEntry(key_name + "_kek", key_name == own_.loc);
  }
}

WriteGuard::~WriteGuard() = default;

void WriteGuard::GuardEntry(const std::string& name, bool may_vanish) {
  if (name.size() >= sizeof(km_meta::key_name)) return;  // the library cannot name it either
  auto entry = std::make_unique<Entry>();
  entry->name = name;
  entry->may_vanish = may_vanish;
  entry->lock = std::make_unique<PlaceLock>(Place{true, name, 0});
  entry->Read(&entry->found, &entry->bytes);
  entries_.push_back(std::move(entry));
}

void WriteGuard::GuardFile(const std::string& path, bool refuse_odd_length) {
  auto file = std::make_unique<File>();
  file->path = path;
  try {
    file->opened = std::make_unique<OpenedPlace>(Place{false, path, 0});
  } catch (const ToolError&) {
    // No metadata file there (a FIFO, a device, a folder): only an older generation's upgrade
    // would store into it, and then it must not run.
    if (refuse_odd_length) throw;
    return;
  }
  if (file->opened->file_exists()) {
    file->found = true;
    if (!ReadSpan(file->opened->fd(), &file->bytes, &file->length)) {
      throw ToolError(kExitFailure, "cannot read " + path + ": " + strerror(errno));
    }
    struct stat st;
    if (refuse_odd_length && fstat(file->opened->fd(), &st) == 0 && S_ISREG(st.st_mode) &&
        file->length != KM_METADATA_FILE_SIZE) {
      throw ToolError(kExitFailure, "the record at " + own_.Describe() + " names " + path +
                                        " as its place, which is not a metadata file (" +
                                        std::to_string(file->length) +
                                        " bytes): reading it could cut that file; nothing was "
                                        "done");
    }
  }
  files_.push_back(std::move(file));
}

void WriteGuard::Verify() {
  std::string first;  // the first place found changed
  bool put_back = true;
  for (const auto& entry : entries_) {
    bool found = false;
    std::vector<uint8_t> now;
    try {
      entry->Read(&found, &now);
    } catch (const ToolError&) {
      continue;  // cannot be judged, as above
    }
    bool same = found == entry->found && now == entry->bytes;
    OPENSSL_cleanse(now.data(), now.size());
    if (same || (entry->may_vanish && !found)) continue;
    if (first.empty()) first = "secure-storage entry \"" + entry->name + "\"";
    int rc = entry->found ? SecureStorage()->write(entry->name.c_str(), entry->bytes.data(),
                                                   entry->bytes.size())
                          : SecureStorage()->remove(entry->name.c_str());
    if (rc < 0 || rc >= 2) put_back = false;
  }
  for (const auto& file : files_) {
    int opened = open(file->path.c_str(), O_RDWR | O_NONBLOCK | O_CLOEXEC);
    // A file this command cannot write (a read-only file system, no permission) is still
    // compared; only putting bytes back would need the write access.
    if (opened < 0 && (errno == EROFS || errno == EACCES || errno == EPERM)) {
      opened = open(file->path.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC);
    }
    tavikm::ScopedFd fd(opened);
    if (!fd.ok()) {
      if (file->found) {
        if (first.empty()) first = file->path;
        put_back = false;
      }
      continue;
    }
    if (!file->found) {  // the library made a file the command did not ask for
      if (first.empty()) first = file->path;
      put_back = false;
      continue;
    }
    std::vector<uint8_t> now;
    uint64_t length = 0;
    // A file that cannot be read now cannot be judged; the command's own read-back says so.
    if (!ReadSpan(fd.get(), &now, &length)) continue;
    // The own record's bytes are compared by the store's read-back, not here.
    uint64_t end = file->own ? file->from + KM_META_SIZE : 0;
    bool changed = length != file->length || now.size() != file->bytes.size();
    for (size_t i = 0; !changed && i < now.size(); ++i) {
      bool own_bytes = file->own && i >= file->from && i < end;
      changed = !own_bytes && now[i] != file->bytes[i];
    }
    OPENSSL_cleanse(now.data(), now.size());
    if (!changed) continue;
    if (first.empty())
      first = file->own ? file->path + " outside the record at offset " + std::to_string(file->from)
                        : file->path;
    // Back as it was, less the command's own record, which stays as the command stored it.
    bool ok = length == file->length || ftruncate(fd.get(), static_cast<off_t>(file->length)) == 0;
    size_t own_from = file->own ? static_cast<size_t>(file->from) : file->bytes.size();
    size_t own_end = file->own ? static_cast<size_t>(end) : file->bytes.size();
    own_from = std::min(own_from, file->bytes.size());
    own_end = std::min(own_end, file->bytes.size());
    ok =
        ok && WriteAllAt(fd.get(), file->bytes.data(), own_from, 0) &&
        WriteAllAt(fd.get(), file->bytes.data() + own_end, file->bytes.size() - own_end, own_end) &&
        fsync(fd.get()) == 0;
    if (!ok) put_back = false;
  }
  if (first.empty()) return;
  throw ToolError(kExitFailure,
                  "the library changed " + first + ", which this command on " + own_.Describe() +
                      " did not change" +
                      (put_back ? "; it was put back" : "; it could not be put back"));
}

}  // namespace tavikm_tool
