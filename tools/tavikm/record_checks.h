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

// "N=2^15 r=2^3 p=2^1"
std::string ScryptCost(const km_meta& meta);

// A master-key record has a salt or a kdf_type; a KEK record of the REK/KEK store has neither.
bool IsMasterKeyRecord(const RawRecord& raw);

}  // namespace tavikm_tool

#endif  // TAVIKM_TOOLS_RECORD_CHECKS_H_
