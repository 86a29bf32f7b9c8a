// SPDX-License-Identifier: Apache-2.0
// Older releases kept a record's KEK in plain text in a secure-storage entry of its own,
// "<key_name>_kek", beside the record (major version 2 or below). The first read of the record
// moves the KEK into it and removes that entry; until then the entry is the record's only KEK.
// No KEK command may replace or delete it, and no command prints its bytes (nor those of any
// entry too short to be a record, which is what a stale one left by a failed removal looks like).
#ifndef TAVIKM_TOOLS_LEGACY_KEK_H_
#define TAVIKM_TOOLS_LEGACY_KEK_H_

#include <map>
#include <optional>
#include <string>

#include "place.h"

namespace tavikm_tool {

// For every older-generation record in secure storage: its KEK entry's name -> its key_name.
std::map<std::string, std::string> LegacyKekEntries();

// The key_name of the record whose legacy KEK the entry `name` is, if it is one.
std::optional<std::string> LegacyKekOwner(const std::string& name);

// Whether the stored bytes of a secure-storage entry may be decoded and shown: false for an
// entry shorter than the shortest generation of a record, which holds no record fields.
bool DecodableEntry(const RawRecord& raw);

// What inspect shows of an entry it does not decode: where, how long, and whose legacy KEK it
// is; none of its bytes.
std::string OpaqueEntryText(const Place& place, const RawRecord& raw,
                            const std::optional<std::string>& owner);
std::string OpaqueEntryJson(const Place& place, const RawRecord& raw,
                            const std::optional<std::string>& owner);

// Throws a failure naming the record when `name` is a legacy KEK; `command` would have replaced
// or removed it ("kek delete").
void RefuseLegacyKek(const std::string& name, const std::string& command);

}  // namespace tavikm_tool

#endif  // TAVIKM_TOOLS_LEGACY_KEK_H_
