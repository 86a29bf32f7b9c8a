// SPDX-License-Identifier: Apache-2.0
// The library's own stores of a record during a derivation. The KDF of kdf_type 4 stores a
// record whose Keymaster key it had to upgrade under the key_name the record carries, in a
// metadata file at offset 0 whatever offset the record really lies at, and there only over a
// record with the same salt and wrapped key. The derivation is given a copy of the record whose
// key_name is the command's own key location, so a store can only land on the place the command
// has locked (write_guard.h); for a metadata file the copy's salt field (the salt the KDF
// derives with is passed apart) also differs from every stored one, so nothing in the file is
// touched while it derives, no journal surrounds a derivation that may take seconds, and an
// interrupt at any moment leaves the file as it was. The caller then stores the upgraded record
// at its own place through StoreRecord.
#ifndef TAVIKM_TOOLS_LIBRARY_STORES_H_
#define TAVIKM_TOOLS_LIBRARY_STORES_H_

#include <functional>

#include "place.h"
#include "tavikm.h"

namespace tavikm_tool {

// Runs `call` (a library call that derives with the record it is given) on a copy of `*meta` and
// returns its result; `*meta` receives whatever the call changed in the record (an upgraded
// Keymaster key, a new IV and tag). The call must take the salt and wrapped key it works with
// from elsewhere than the record it is given. `own` is the command's locked place. Throws a
// failure if offset 0 of the command's metadata file changed during the call anyway.
int DeriveWithoutLibraryStores(const Place& own, km_meta* meta,
                               const std::function<int(km_meta*)>& call);

}  // namespace tavikm_tool

#endif  // TAVIKM_TOOLS_LIBRARY_STORES_H_
