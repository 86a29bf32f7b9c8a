// SPDX-License-Identifier: Apache-2.0
// Moving a km_meta record between the caller's memory and its place: an entry in secure
// storage, or a metadata file (regular file or block device) at an offset.
#include "metadata/store.h"

#include <errno.h>
#include <fcntl.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include "common/flags.h"
#include "common/log.h"
#include "common/scopers.h"
#include "metadata/kmstore.h"
#include "metadata/upgrade.h"
#include "tavikm.h"

namespace {

// read()/write() until `n` bytes moved, EOF or an error; returns the bytes moved.
template <typename Io, typename Ptr>
size_t TransferAll(Io io, int fd, Ptr buffer, size_t n) {
  size_t done = 0;
  while (done < n) {
    ssize_t r = io(fd, buffer + done, n - done);
    if (r < 0 && errno == EINTR) continue;
    if (r <= 0) break;
    done += static_cast<size_t>(r);
  }
  return done;
}

// fsync that tolerates objects with nothing to synchronise (EINVAL: not a file or device).
bool Sync(int fd) { return fsync(fd) == 0 || errno == EINVAL; }

int GetFromSecureStorage(const char* key_loc, km_meta* meta) {
  uint64_t length = KM_META_SIZE;
  kmstore_device* device = nullptr;
  int rc = km_open_kmstore(kKmstoreInitFailed, "get_km_meta", &device);
  if (rc < 0) return rc;
  rc = device->read(key_loc, reinterpret_cast<uint8_t*>(meta), &length);
  if (rc < 0) {
    KM_LOGE("Failed to read metadata from Secure Storage\n");
    return -1;
  }
  if (length == KM_META_SIZE) {
    if (rc == 1) return 1;
  } else if (km_meta_upgrade_size(key_loc, meta, length) != 0) {
    return -1;
  }
  if (meta->major_version > 2) return 0;
  return km_meta_upgrade_kek(key_loc, meta);
}

int GetFromFile(const char* key_loc, uint64_t offset, km_meta* meta) {
  tavikm::ScopedFd fd(open(key_loc, O_RDWR | O_CLOEXEC));
  if (!fd.ok()) {
    KM_LOGE("Cannot open metadata file %s for get\n", key_loc);
    return -1;
  }
  struct stat st;
  if (fstat(fd.get(), &st) != 0 || (S_ISREG(st.st_mode) && st.st_size != KM_METADATA_FILE_SIZE)) {
    KM_LOGE("metadata file %s is not the expected size!\n", key_loc);
    return -1;
  }
  if (lseek64(fd.get(), static_cast<off64_t>(offset), SEEK_SET) == -1) {
    KM_LOGE("Cannot seek to real block device metadata\n");
    return -1;
  }
  if (TransferAll(read, fd.get(), reinterpret_cast<uint8_t*>(meta), KM_META_SIZE) != KM_META_SIZE) {
    KM_LOGE("Cannot read real block device metadata\n");
    return -1;
  }
  if (meta->magic != KM_META_MAGIC) {
    KM_LOGE("magic = %d, Bad magic for real block device %s\n", static_cast<int>(meta->magic),
            key_loc);
    return -1;
  }
  if (meta->major_version != KM_META_MAJOR_VERSION) {
    KM_LOGE("Cannot understand major version %d real block device metadata; expected %d\n",
            meta->major_version, KM_META_MAJOR_VERSION);
    meta->major_version = KM_META_MAJOR_VERSION;
  }
  if (meta->minor_version != KM_META_MINOR_VERSION) {
    KM_LOGW("Warning: metadata minor version %d, expected <= %d, continuing...\n",
            meta->minor_version, KM_META_MINOR_VERSION);
  }
  return 0;
}

// Writes `image` (2704 bytes) into the metadata file at `offset`; a regular file is then set to
// its fixed length and synchronised. Shared by put and delete, messages included.
int WriteToFile(const char* key_loc, int64_t offset, const void* image) {
  tavikm::ScopedFd fd(open(key_loc, O_RDWR | O_CREAT | O_CLOEXEC, 0600));
  if (!fd.ok()) {
    KM_LOGE("Cannot open metadata file %s for put\n", key_loc);
    return -1;
  }
  if (lseek64(fd.get(), offset, SEEK_SET) == -1) {
    KM_LOGE("Cannot seek to real block device meatadata\n");
    return -1;
  }
  if (TransferAll(write, fd.get(), static_cast<const uint8_t*>(image), KM_META_SIZE) !=
      KM_META_SIZE) {
    KM_LOGE("Cannot write real block device metadata\n");
    return -1;
  }
  struct stat st;
  if (fstat(fd.get(), &st) != 0 ||
      (S_ISREG(st.st_mode) && ftruncate(fd.get(), KM_METADATA_FILE_SIZE) != 0)) {
    KM_LOGE("Cannot set metadata file size\n");
    return -1;
  }
  // The record guards the disk's master key: make it survive a power cut before reporting it
  // stored.
  if (!Sync(fd.get())) {
    KM_LOGE("Cannot write real block device metadata\n");
    return -1;
  }
  return 0;
}

}  // namespace

int km_get_km_meta(const char* key_loc, uint64_t offset, km_meta* meta) {
  if (!key_loc) {
    KM_LOGE("%s::Failed, key_loc is NULL! \n", "km_get_km_meta");
    return -1;
  }
  KM_LOGE("key_loc=%s, %llu\n", key_loc, static_cast<unsigned long long>(offset));
  if (km_place_is_secure_storage(key_loc)) return GetFromSecureStorage(key_loc, meta);
  return GetFromFile(key_loc, offset, meta);
}

int km_put_km_meta(const char* key_loc, int64_t offset, const km_meta* meta) {
  if (!key_loc) {
    KM_LOGE("%s::Failed, key_loc is NULL! \n", "km_put_km_meta");
    return -1;
  }
  if (!km_place_is_secure_storage(key_loc)) return WriteToFile(key_loc, offset, meta);
  return km_put_km_meta_to_secure_storage(key_loc, meta);
}

bool km_place_is_secure_storage(const char* key_loc) {
  return km_flag_is_set(supportMdfpp) && key_loc[0] != '/';
}

int km_put_km_meta_to_secure_storage(const char* key_loc, const km_meta* meta) {
  kmstore_device* device = nullptr;
  int rc = km_open_kmstore(kKmstoreInitFailed, "put_km_meta", &device);
  if (rc < 0) return rc;
  if (device->write(key_loc, reinterpret_cast<const uint8_t*>(meta), KM_META_SIZE) < 0) {
    KM_LOGE("Filed to store metadata to TZ Secure Storage\n");
    return -1;
  }
  return 0;
}

bool km_peek_file_record(const char* key_loc, int64_t offset, km_meta* meta) {
  tavikm::ScopedFd fd(open(key_loc, O_RDONLY | O_CLOEXEC));
  if (!fd.ok()) return false;
  return lseek64(fd.get(), offset, SEEK_SET) != -1 &&
         TransferAll(read, fd.get(), reinterpret_cast<uint8_t*>(meta), KM_META_SIZE) ==
             KM_META_SIZE;
}

int km_delete_meta(const char* key_loc, int64_t offset) {
  if (!key_loc) {
    KM_LOGE("%s::Failed, key_loc is NULL! \n", "km_delete_meta");
    return -1;
  }
  if (!km_place_is_secure_storage(key_loc)) {
    static const uint8_t kZeros[KM_META_SIZE] = {};
    return WriteToFile(key_loc, offset, kZeros);
  }

  kmstore_device* device = nullptr;
  int init_rc = km_open_kmstore(kKmstoreInitFailedForDelete, "delete_meta", &device);
  if (init_rc < 0) return init_rc;
  // The delete's own non-negative result is deliberately not examined.
  if (device->remove(key_loc) < 0) {
    KM_LOGE("Failed to Remove Key file : %s", key_loc);
    KM_LOGE("Error::%s", strerror(errno));
    return -1;
  }
  if (init_rc >= 2) KM_LOGE("Remove Meta:Unknown Error::%s", strerror(errno));
  return 0;
}
