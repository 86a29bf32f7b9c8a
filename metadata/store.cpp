// SPDX-License-Identifier: Apache-2.0
// Moving a km_meta record between the caller's memory and its place: an entry in secure
// storage, or a metadata file (regular file or block device) at an offset.
#include "metadata/store.h"

#include <errno.h>
#include <fcntl.h>
#include <stddef.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include <mutex>

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

// The places of the records last read or stored, newest by sequence. Locked: the KDFs of two
// threads working on different records must not tear each other's place.
struct RememberedOrigin {
  bool used = false;
  bool known = false;  // false: the place was too long to keep, so nothing may be written back
  const km_meta* address = nullptr;
  uint64_t sequence = 0;
  uint8_t salt[sizeof(km_meta::salt)] = {};
  uint8_t master_key[sizeof(km_meta::master_key)] = {};
  km_record_origin origin = {};
};
constexpr size_t kRememberedOrigins = 8;
std::mutex g_origins_mutex;
RememberedOrigin g_origins[kRememberedOrigins];
uint64_t g_origin_sequence = 0;

bool SameRecord(const RememberedOrigin& entry, const km_meta* meta) {
  return memcmp(entry.salt, meta->salt, sizeof(entry.salt)) == 0 &&
         memcmp(entry.master_key, meta->master_key, sizeof(entry.master_key)) == 0;
}

bool SamePlace(const km_record_origin& origin, const char* key_loc, bool secure_storage,
               uint64_t offset) {
  return origin.secure_storage == secure_storage && strcmp(origin.key_loc, key_loc) == 0 &&
         (secure_storage || origin.offset == offset);
}

}  // namespace

void km_remember_origin(const char* key_loc, bool secure_storage, uint64_t offset,
                        const km_meta* meta) {
  const std::lock_guard<std::mutex> lock(g_origins_mutex);
  const bool known = strlen(key_loc) < sizeof(km_record_origin::key_loc);
  // The place holds this record now, and no other.
  for (RememberedOrigin& entry : g_origins) {
    if (entry.used && entry.known && SamePlace(entry.origin, key_loc, secure_storage, offset)) {
      entry = RememberedOrigin();
    }
  }
  RememberedOrigin* slot = &g_origins[0];
  for (RememberedOrigin& entry : g_origins) {
    if (!entry.used) {
      slot = &entry;
      break;
    }
    if (entry.sequence < slot->sequence) slot = &entry;
  }
  slot->used = true;
  slot->known = known;
  slot->address = meta;
  slot->sequence = ++g_origin_sequence;
  memcpy(slot->salt, meta->salt, sizeof(slot->salt));
  memcpy(slot->master_key, meta->master_key, sizeof(slot->master_key));
  slot->origin.secure_storage = secure_storage;
  slot->origin.offset = offset;
  slot->origin.key_loc[0] = '\0';
  if (known) memcpy(slot->origin.key_loc, key_loc, strlen(key_loc) + 1);
}

void km_forget_origin(const char* key_loc, bool secure_storage, uint64_t offset) {
  const std::lock_guard<std::mutex> lock(g_origins_mutex);
  for (RememberedOrigin& entry : g_origins) {
    if (entry.used && entry.known && SamePlace(entry.origin, key_loc, secure_storage, offset)) {
      entry = RememberedOrigin();
    }
  }
}

bool km_find_origin(const km_meta* meta, km_record_origin* origin) {
  const std::lock_guard<std::mutex> lock(g_origins_mutex);
  // The newest place of this very buffer first, else the newest place of the same record.
  const RememberedOrigin* found = nullptr;
  for (bool same_address : {true, false}) {
    for (const RememberedOrigin& entry : g_origins) {
      if (!entry.used || !SameRecord(entry, meta)) continue;
      if (same_address && entry.address != meta) continue;
      if (!found || entry.sequence > found->sequence) found = &entry;
    }
    if (found) break;
  }
  if (!found || !found->known) return false;
  *origin = found->origin;
  return true;
}

int km_get_km_meta(const char* key_loc, uint64_t offset, km_meta* meta) {
  if (!key_loc) {
    KM_LOGE("%s::Failed, key_loc is NULL! \n", "km_get_km_meta");
    return -1;
  }
  if (!meta) {
    KM_LOGE("%s::Failed, km_meta is NULL! \n", "km_get_km_meta");
    return -1;
  }
  KM_LOGE("key_loc=%s, %llu\n", key_loc, static_cast<unsigned long long>(offset));
  const bool secure_storage = km_place_is_secure_storage(key_loc);
  const int rc =
      secure_storage ? GetFromSecureStorage(key_loc, meta) : GetFromFile(key_loc, offset, meta);
  if (rc == 0) km_remember_origin(key_loc, secure_storage, offset, meta);
  return rc;
}

int km_put_km_meta(const char* key_loc, int64_t offset, const km_meta* meta) {
  if (!key_loc) {
    KM_LOGE("%s::Failed, key_loc is NULL! \n", "km_put_km_meta");
    return -1;
  }
  if (!meta) {
    KM_LOGE("%s::Failed, km_meta is NULL! \n", "km_put_km_meta");
    return -1;
  }
  const bool secure_storage = km_place_is_secure_storage(key_loc);
  const int rc = secure_storage ? km_put_km_meta_to_secure_storage(key_loc, meta)
                                : WriteToFile(key_loc, offset, meta);
  if (rc == 0) km_remember_origin(key_loc, secure_storage, static_cast<uint64_t>(offset), meta);
  return rc;
}

int km_put_km_meta_to_file(const char* key_loc, int64_t offset, const km_meta* meta) {
  return WriteToFile(key_loc, offset, meta);
}

bool km_peek_secure_storage_record(const char* key_loc, km_meta* meta) {
  kmstore_device* device = nullptr;
  if (kmstore_device_init(&device) < 0 || !device) return false;
  memset(meta, 0, sizeof(*meta));
  uint64_t length = KM_META_SIZE;
  const int rc = device->read(key_loc, reinterpret_cast<uint8_t*>(meta), &length);
  return rc >= 0 && !(rc == 1 && length == KM_META_SIZE) && length <= KM_META_SIZE &&
         length >= offsetof(km_meta, km_key_blob);
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
    const int rc = WriteToFile(key_loc, offset, kZeros);
    if (rc == 0) km_forget_origin(key_loc, false, static_cast<uint64_t>(offset));
    return rc;
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
  km_forget_origin(key_loc, true, 0);
  if (init_rc >= 2) KM_LOGE("Remove Meta:Unknown Error::%s", strerror(errno));
  return 0;
}
