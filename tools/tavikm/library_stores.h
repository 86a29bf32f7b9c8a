// SPDX-License-Identifier: Apache-2.0
// The library's own stores of a file record. The KDF of kdf_type 4 stores a record whose
// Keymaster key it had to upgrade, and always at offset 0 of the file its key_name names,
// whatever offset the record really lies at: beside another record at 0 that record would be
// lost. The tool lets no such store stand: the 2704 bytes at offset 0 are journaled before the
// call and put back after it, and the caller stores the upgraded record at its own place through
// StoreRecord.
#ifndef TAVIKM_TOOLS_LIBRARY_STORES_H_
#define TAVIKM_TOOLS_LIBRARY_STORES_H_

#include <functional>

#include "record_store.h"
#include "tavikm.h"

namespace tavikm_tool {

// Runs `call` (a library call that derives with `*meta`'s KDF) and returns its result, undoing any
// store it made into a metadata file. While it runs, the record's key_name is the command's own
// key location, so that whatever name the record carries, the library stores nowhere else.
// Throws a failure when the bytes cannot be put back (the journal then puts them back at the next
// command on that file).
int UndoLibraryStores(const OpenedPlace& opened, km_meta* meta, const std::function<int()>& call);

}  // namespace tavikm_tool

#endif  // TAVIKM_TOOLS_LIBRARY_STORES_H_
