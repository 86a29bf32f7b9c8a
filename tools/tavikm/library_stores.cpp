// SPDX-License-Identifier: Apache-2.0
// Derivations with the library's stores turned away.
#include "library_stores.h"

#include <errno.h>
#include <openssl/crypto.h>
#include <string.h>
#include <unistd.h>

#include <string>

#include "cli.h"
#include "common/scopers.h"

namespace tavikm_tool {
namespace {

// The first 2704 bytes of the metadata file `path`; false when there is no such file.
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

int DeriveWithoutLibraryStores(const Place& own, km_meta* meta,
                               const std::function<int(km_meta*)>& call) {
  // Only kdf 4 stores from inside the KDF.
  if (meta->kdf_type != KM_KDF_PBKDF2_REK) return call(meta);
  km_meta shadow = *meta;
  memset(shadow.key_name, 0, sizeof(shadow.key_name));
  memcpy(shadow.key_name, own.loc.data(), own.loc.size());  // shorter than the field
  // An entry of secure storage is replaced atomically under the command's lock; a file is not
  // touched at all: every byte of the salt field differs from the record's, so the library
  // never takes the record at offset 0 for this one.
  const bool file = own.loc[0] == '/' || !mdfpp_property_get(supportMdfpp);
  km_meta before, after;
  const bool exists = file && ReadAtZero(own.loc, &before);
  if (file) {
    for (uint8_t& byte : shadow.salt) byte = static_cast<uint8_t>(~byte);
  }
  int rc = call(&shadow);
  memcpy(shadow.salt, meta->salt, sizeof(shadow.salt));
  memcpy(shadow.key_name, meta->key_name, sizeof(shadow.key_name));
  *meta = shadow;
  OPENSSL_cleanse(&shadow, sizeof(shadow));
  bool changed =
      exists && (!ReadAtZero(own.loc, &after) || memcmp(&before, &after, sizeof(before)));
  if (exists) {
    OPENSSL_cleanse(&before, sizeof(before));
    OPENSSL_cleanse(&after, sizeof(after));
  }
  if (changed) {
    throw ToolError(kExitFailure, "offset 0 of " + own.loc +
                                      " changed while the key was derived; the command stops "
                                      "here (tavikm inspect shows what it holds)");
  }
  return rc;
}

}  // namespace tavikm_tool
