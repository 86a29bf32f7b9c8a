// SPDX-License-Identifier: Apache-2.0
// The library's own stores of a file record. The KDF of kdf_type 4 stores a record whose
// Keymaster key it had to upgrade at offset 0 of the file its key_name names, whatever offset
// the record really lies at, and only over a record there with the same salt and wrapped key.
// The tool lets no such store happen: the KDF is given a copy of the record whose salt field
// (which it does not derive with: the salt is passed apart) differs from every stored one, so
// nothing in the file is touched while it derives, nothing needs a journal around a derivation
// that may take seconds, and an interrupt at any moment leaves the file as it was. The caller
// then stores the upgraded record at its own place through StoreRecord.
#ifndef TAVIKM_TOOLS_LIBRARY_STORES_H_
#define TAVIKM_TOOLS_LIBRARY_STORES_H_

#include <functional>

#include "tavikm.h"

namespace tavikm_tool {

// Runs `call` (a library call that derives with the record it is given) on `meta` and returns its
// result; `meta` receives whatever the call changed in the record (an upgraded Keymaster key, a
// new IV and tag). The call must take the salt and wrapped key it works with from elsewhere than
// the record it is given. Throws a failure if a metadata file changed during the call anyway.
int DeriveWithoutLibraryStores(km_meta* meta, const std::function<int(km_meta*)>& call);

}  // namespace tavikm_tool

#endif  // TAVIKM_TOOLS_LIBRARY_STORES_H_
