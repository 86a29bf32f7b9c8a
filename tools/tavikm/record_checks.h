// SPDX-License-Identifier: Apache-2.0
// Checks of stored records that protect the user from the library: a record whose scrypt cost
// is beyond anything the tool creates (a damaged or hostile record would make a derivation run
// for hours or exhaust memory), and master-key records that the KEK commands must not touch.
#ifndef TAVIKM_TOOLS_RECORD_CHECKS_H_
#define TAVIKM_TOOLS_RECORD_CHECKS_H_

#include "place.h"
#include "tavikm.h"

namespace tavikm_tool {

// --allow-cost: derive whatever the record asks for.
void AllowAnyCost(bool allow);

// False for an scrypt record (kdf_type 2, 3 or 5) whose N_factor + r_factor + p_factor is above
// 23, that is N·r·p·128 bytes above 1 GiB, unless any cost is allowed.
bool CostAllowed(const km_meta& meta);

// Throws "the record looks damaged" (exit 4) for a stored record whose cost is not allowed.
// `where` names the record.
void CheckCost(const km_meta& meta, const std::string& where);

// Throws "the record is damaged" (exit 4), naming the field, when a field the derivation or the
// unwrapping depends on holds a value under which no password can open the record: a keysize
// the wrapping cannot use, an unknown kdf_type, scrypt factors beyond scrypt's range, a missing
// or oversized Keymaster key, lengths beyond their fields. Otherwise the library's failure would
// read as a wrong password. `cbc_only`: the wrapping is CBC with a password MAC.
void CheckOpenable(const km_meta& meta, const std::string& where, bool cbc_only);

// "N=2^15 r=2^3 p=2^1"
std::string ScryptCost(const km_meta& meta);

// A master-key record has a salt or a kdf_type; a KEK record of the REK/KEK store has neither.
bool IsMasterKeyRecord(const RawRecord& raw);

}  // namespace tavikm_tool

#endif  // TAVIKM_TOOLS_RECORD_CHECKS_H_
