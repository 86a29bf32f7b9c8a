// SPDX-License-Identifier: Apache-2.0
// Derivations with the library's stores turned away.
#include "library_stores.h"

#include <openssl/crypto.h>
#include <string.h>
#include <unistd.h>

#include <string>

#include "cli.h"
#include "common/scopers.h"
#include "place.h"

namespace tavikm_tool {
namespace {

// The first 2704 bytes of the metadata file `path`; false when there is no such file. Anything
// else under that name (a FIFO, a device the library would block reading) is refused, since the
// library looks at offset 0 of it before it would store.
bool ReadAtZero(const std::string& path, km_meta* image) {
  memset(image, 0, sizeof(*image));
  struct stat st;
  tavikm::ScopedFd fd(OpenMetadataFile(path, &st));
  if (!fd.ok()) return false;
  if (pread(fd.get(), image, sizeof(*image), 0) < 0) {
    throw ToolError(kExitFailure, "cannot read " + path + ": " + strerror(errno));
  }
  return true;
}

}  // namespace

int DeriveWithoutLibraryStores(km_meta* meta, const std::function<int(km_meta*)>& call) {
  std::string target(meta->key_name, strnlen(meta->key_name, sizeof(meta->key_name)));
  // Only kdf 4 stores from inside the KDF; a name the library sends to secure storage is an
  // entry, replaced atomically under the lock the command holds.
  if (meta->kdf_type != KM_KDF_PBKDF2_REK || target.empty() ||
      (target[0] != '/' && mdfpp_property_get(supportMdfpp))) {
    return call(meta);
  }
  km_meta before, after, shadow = *meta;
  bool exists = ReadAtZero(target, &before);
  // Every byte of the salt field differs from the record's, so the library never takes the
  // record at offset 0 for this one.
  for (uint8_t& byte : shadow.salt) byte = static_cast<uint8_t>(~byte);
  int rc = call(&shadow);
  memcpy(shadow.salt, meta->salt, sizeof(shadow.salt));
  *meta = shadow;
  OPENSSL_cleanse(&shadow, sizeof(shadow));
  bool changed = exists && (!ReadAtZero(target, &after) || memcmp(&before, &after, sizeof(before)));
  OPENSSL_cleanse(&before, sizeof(before));
  OPENSSL_cleanse(&after, sizeof(after));
  if (changed) {
    throw ToolError(kExitFailure, "offset 0 of " + target +
                                      " changed while the key was derived; the command stops "
                                      "here (tavikm inspect shows what it holds)");
  }
  return rc;
}

}  // namespace tavikm_tool
