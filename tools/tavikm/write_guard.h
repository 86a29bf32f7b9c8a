// SPDX-License-Identifier: Apache-2.0
// The places a library call may write besides the record it was given. Reading an older
// generation from secure storage moves the KEK out of "<key_name>_kek" (and removes that entry)
// and may store the record under its key_name; a kdf 4 derivation stores a record whose
// Keymaster key it upgraded; a file store rewrites the file's length. A command takes a
// WriteGuard under its own lock: it locks every such place and keeps its bytes, and after the
// command's last write it checks that nothing but the command's own record changed. A change the
// command did not make is put back and reported as a failure naming the place.
#ifndef TAVIKM_TOOLS_WRITE_GUARD_H_
#define TAVIKM_TOOLS_WRITE_GUARD_H_

#include <stdint.h>
#include <string.h>

#include <memory>
#include <string>
#include <vector>

#include "lock.h"
#include "record_store.h"
#include "tavikm.h"

namespace tavikm_tool {

class WriteGuard {
 public:
  // `opened` is the command's own place, locked. `record` is the record the library will read or
  // derive with (as stored there now), or null when the command only stores a new one.
  WriteGuard(const OpenedPlace& opened, const km_meta* record, uint64_t stored_length);
  ~WriteGuard();
  WriteGuard(const WriteGuard&) = delete;
  WriteGuard& operator=(const WriteGuard&) = delete;

  // Throws a failure (exit 4) naming the first place that changed, after putting back every
  // changed place it can.
  void Verify();

  // Runs `command`, then Verify. When the command fails, a change elsewhere is put back and its
  // failure reported instead, since it is the graver one.
  template <typename F>
  auto Run(F&& command) -> decltype(command()) {
    try {
      auto result = command();
      Verify();
      return result;
    } catch (...) {
      Verify();
      throw;
    }
  }

 private:
  struct Entry;
  struct File;
  void GuardEntry(const std::string& name, bool may_vanish);
  void GuardFile(const std::string& path, bool refuse_odd_length);

  Place own_;
  std::vector<std::unique_ptr<Entry>> entries_;
  std::vector<std::unique_ptr<File>> files_;
};

// Places a kdf 4 derivation by the library stores an upgraded record: the record's key_name,
// which for the duration of `call` is set to the command's own key location, so that the store
// lands on the place the command has locked (and journaled) and no other.
template <typename F>
int WithOwnKeyName(const Place& place, km_meta* meta, F&& call) {
  char saved[sizeof(meta->key_name)];
  memcpy(saved, meta->key_name, sizeof(saved));
  memset(meta->key_name, 0, sizeof(meta->key_name));
  memcpy(meta->key_name, place.loc.data(), place.loc.size());  // shorter than the field
  int rc = call();
  memcpy(meta->key_name, saved, sizeof(saved));
  return rc;
}

}  // namespace tavikm_tool

#endif  // TAVIKM_TOOLS_WRITE_GUARD_H_
