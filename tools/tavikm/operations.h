// SPDX-License-Identifier: Apache-2.0
// What the tool does with the library, the way the storage-encryption service does it: set up a
// key location, unlock it, change its password, and keep KEKs. The commands print the results;
// the demo narrates them. Every failure is a ToolError with its exit code and sentence.
#ifndef TAVIKM_TOOLS_OPERATIONS_H_
#define TAVIKM_TOOLS_OPERATIONS_H_

#include <stdint.h>

#include <string>

#include "place.h"
#include "secret.h"
#include "tavikm.h"

namespace tavikm_tool {

struct SetupResult {
  km_meta meta{};
  KeyBytes master_key;
};

// A new record for `place`: the steps of km_initial_setup, with the one store at the place's own
// offset (no byte outside the record's 2704 bytes changes). Under the place's lock it refuses to
// replace an existing entry, a non-metadata file or non-zero bytes where the record would go
// unless `force`, and always a record that the new one would partly overlap.
SetupResult Setup(const Place& place, const Password& password, uint64_t keysize, uint32_t kdf_type,
                  bool force);

struct UnlockResult {
  km_meta meta{};  // the record as it stands after the unlock
  KeyBytes master_key;
  // km_decrypt_key answered 9: the key opened under the all-zero key, not under the password.
  bool zero_key = false;
  // The record changed in memory on the way (a Keymaster key upgraded) and was stored again.
  bool stored_again = false;
  // Secure storage only: km_get_km_meta rewrote the entry while reading it (an older generation
  // or a record still without its KEK). Its stored length and major version before that:
  bool upgraded_on_read = false;
  uint64_t old_length = 0;
  unsigned old_major_version = 0;
};

// Throws kExitNotFound when `place` holds no record, and a failure when it holds a KEK: checked
// before a password is asked for.
void RequireRecord(const Place& place);

// km_get_km_meta, the password MAC check in CBC-only mode, km_decrypt_key. A wrong password is
// kExitWrongPassword, a missing record kExitNotFound.
UnlockResult Unlock(const Place& place, const Password& password);

struct PasswdResult {
  UnlockResult unlocked;  // the unlock with the old password
  km_meta stored{};       // the record stored under the new password
};

// Unwraps with the old password, wraps the same master key under the new one with a new salt
// in a copy of the record, and stores the copy only when all of that succeeded.
PasswdResult ChangePassword(const Place& place, const Password& old_password,
                            const Password& new_password);

// Every function here holds the place's lock (record_store.h) from its first read to its last
// write, and checks the scrypt cost of a stored record before deriving (record_checks.h).

// The REK/KEK store. Put refuses to replace an existing entry unless `force`; put and delete
// never touch a master-key record.
void PutKek(const std::string& name, const KeyBytes& kek, bool force);
// A "0 with length 0" answer (the Keymaster key was upgraded) is asked again once; `asked_twice`
// tells whether that happened.
KeyBytes GetKek(const std::string& name, bool* asked_twice);
void DeleteKek(const std::string& name);

// A human name of a kdf_type: "scrypt", "PBKDF2 with REK", ...
std::string KdfName(unsigned kdf_type);

}  // namespace tavikm_tool

#endif  // TAVIKM_TOOLS_OPERATIONS_H_
