// SPDX-License-Identifier: Apache-2.0
// The built-in secure-storage module: class "tavikm", device "kmstore", one file per entry in
// the device directory's kmstore/ folder. Writes are atomic (temporary file, fsync, rename,
// fsync of the folder), so an entry always holds either its old or its new image; a write that
// creates an entry links the temporary file to the entry's name, which fails when another writer
// created it meanwhile, so two writers never both create one entry. Failures are -errno of the
// system call that failed.
#include <errno.h>
#include <fcntl.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <functional>
#include <mutex>
#include <string>

#include <openssl/sha.h>

#include "builtin_modules.h"
#include "common/files.h"
#include "common/scopers.h"
#include "tavikm_host/device.h"
#include "tavikm_host/kmstore.h"
#include "tavikm_kmstore.h"

namespace {

std::mutex g_hook_mutex;
std::function<bool(const std::string&)> g_before_rename;

// The entry's file in the folder of the entries, which is created on demand (the device
// directory may change between calls). Returns 0, or -errno of what failed on the way.
int EntryPath(const char* name, std::string* path, std::string* dir_out) {
  std::string dir;
  errno = 0;
  try {
    dir = tavikm_host::DevicePath("kmstore");
  } catch (const std::exception&) {
    // Thrown right after the failing mkdir, or for a device directory that is not one.
    return errno ? -errno : -ENOTDIR;
  }
  if (mkdir(dir.c_str(), 0700) != 0 && errno != EEXIST) return -errno;
  if (dir_out) *dir_out = dir;
  *path = dir + "/" + tavikm_host::KmstoreEntryFileName(name);
  return 0;
}

int KmstoreRead(const char* name, uint8_t* buffer, uint64_t* size) {
  if (!name || !size || (!buffer && *size)) return -EINVAL;
  std::string path;
  if (int rc = EntryPath(name, &path, nullptr); rc != 0) return rc;
  // Without O_NONBLOCK a FIFO put in the folder would block the read forever.
  tavikm::ScopedFd fd(open(path.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC));
  if (!fd.ok()) return errno == ENOENT ? 1 : -errno;
  struct stat st;
  if (fstat(fd.get(), &st) != 0) return -errno;
  if (!S_ISREG(st.st_mode)) return -EINVAL;
  uint64_t stored = static_cast<uint64_t>(st.st_size);
  uint64_t want = stored < *size ? stored : *size;
  uint64_t got = 0;
  while (got < want) {
    ssize_t n = read(fd.get(), buffer + got, want - got);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) return -(n < 0 ? errno : EIO);
    got += static_cast<uint64_t>(n);
  }
  *size = stored;
  return 0;
}

int KmstoreWrite(const char* name, const uint8_t* buffer, uint64_t length) {
  if (!name || (!buffer && length)) return -EINVAL;
  std::string dir, path;
  if (int rc = EntryPath(name, &path, &dir); rc != 0) return rc;
  std::string file = tavikm_host::KmstoreEntryFileName(name);
  // Entry file names never start with '.', so a temporary file cannot shadow an entry; the
  // counter keeps two writes of one process (two threads) apart.
  static std::atomic<unsigned> counter{0};
  std::string tmp =
      dir + "/.tmp-" + std::to_string(getpid()) + "-" + std::to_string(++counter) + "-" + file;
  // Whether this write creates the entry is decided now: an entry that appears meanwhile was
  // created by another writer, and is not replaced.
  struct stat st;
  bool creates = lstat(path.c_str(), &st) != 0;
  tavikm::ScopedFd fd(open(tmp.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600));
  if (!fd.ok()) return -errno;
  int err = tavikm::WriteAll(fd.get(), buffer, length) && fsync(fd.get()) == 0 ? 0 : errno;
  if (fd.close() != 0 && !err) err = errno;
  if (!err) {
    std::function<bool(const std::string&)> hook;
    {
      std::lock_guard<std::mutex> lock(g_hook_mutex);
      hook = g_before_rename;
    }
    if (hook && !hook(name)) err = EIO;
  }
  if (err) {
    unlink(tmp.c_str());
    errno = err;  // for the caller's message
    return -err;
  }
  if ((creates ? link(tmp.c_str(), path.c_str()) : rename(tmp.c_str(), path.c_str())) != 0) {
    err = errno;
  }
  unlink(tmp.c_str());  // after a link, the entry keeps its own name for the data
  if (err) {
    errno = err;
    return -err;
  }
  tavikm::SyncDir(dir);
  return 0;
}

int KmstoreRemove(const char* name) {
  if (!name) return -EINVAL;
  std::string dir, path;
  if (int rc = EntryPath(name, &path, &dir); rc != 0) return rc;
  if (unlink(path.c_str()) != 0) return errno == ENOENT ? 1 : -errno;
  tavikm::SyncDir(dir);
  return 0;
}

int KmstoreClose(hw_device_t*) { return 0; }

hw_module_methods_t g_methods = {
    .open = [](const hw_module_t* module, const char* id, hw_device_t** device) -> int {
      static kmstore_device dev = [] {
        kmstore_device d{};
        d.common.tag = HARDWARE_DEVICE_TAG;
        d.common.version = 1;
        d.common.close = KmstoreClose;
        d.read = KmstoreRead;
        d.write = KmstoreWrite;
        d.remove = KmstoreRemove;
        return d;
      }();
      if (!device) return -EINVAL;
      *device = nullptr;
      if (!id || strcmp(id, "kmstore") != 0) return -ENODEV;
      dev.common.module = const_cast<hw_module_t*>(module);
      *device = &dev.common;
      return 0;
    },
};

hw_module_t g_module = {
    .tag = HARDWARE_MODULE_TAG,
    .module_api_version = HARDWARE_MODULE_API_VERSION(1, 0),
    .hal_api_version = HARDWARE_MAKE_API_VERSION(1, 0),
    .id = "tavikm",
    .name = "tavikm host secure storage",
    .author = "tavikm host platform",
    .methods = &g_methods,
    .dso = nullptr,
    .reserved = {},
};

}  // namespace

namespace tavikm_host {

std::string KmstoreEntryFileName(const std::string& name) {
  static const char kHex[] = "0123456789ABCDEF";
  std::string encoded = "e-";
  for (unsigned char c : name) {
    if (isalnum(c) || c == '_' || c == '-') {
      encoded += static_cast<char>(c);
    } else {
      encoded += '%';
      encoded += kHex[c >> 4];
      encoded += kHex[c & 15];
    }
  }
  // File names stop at 255 bytes: keep a readable prefix and make long names distinct by hash.
  if (encoded.size() > 200) {
    uint8_t digest[SHA256_DIGEST_LENGTH];
    SHA256(reinterpret_cast<const uint8_t*>(name.data()), name.size(), digest);
    encoded.resize(120);
    encoded += '~';
    for (uint8_t b : digest) {
      encoded += kHex[b >> 4];
      encoded += kHex[b & 15];
    }
  }
  return encoded;
}

void SetKmstoreBeforeRenameHook(std::function<bool(const std::string& name)> hook) {
  std::lock_guard<std::mutex> lock(g_hook_mutex);
  g_before_rename = std::move(hook);
}

namespace internal {
const hw_module_t* KmstoreModule() { return &g_module; }
}  // namespace internal

}  // namespace tavikm_host
