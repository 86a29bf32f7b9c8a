// SPDX-License-Identifier: Apache-2.0
// Cost and kind checks of stored records.
#include "record_checks.h"

#include "cli.h"

namespace tavikm_tool {
namespace {

bool g_allow_any_cost = false;

// log2 of the largest N·r·p·128 the tool accepts: 1 GiB.
constexpr unsigned kMaxCostLog2 = 30;

}  // namespace

void AllowAnyCost(bool allow) { g_allow_any_cost = allow; }

bool CostAllowed(const km_meta& meta) {
  if (g_allow_any_cost) return true;
  if (meta.kdf_type != KM_KDF_SCRYPT && meta.kdf_type != KM_KDF_SCRYPT_KEYMASTER_OLD &&
      meta.kdf_type != KM_KDF_SCRYPT_KEYMASTER) {
    return true;
  }
  unsigned factors = unsigned{meta.N_factor} + meta.r_factor + meta.p_factor;
  return factors + 7 <= kMaxCostLog2;
}

std::string ScryptCost(const km_meta& meta) {
  return "N=2^" + std::to_string(meta.N_factor) + " r=2^" + std::to_string(meta.r_factor) +
         " p=2^" + std::to_string(meta.p_factor);
}

void CheckCost(const km_meta& meta, const std::string& where) {
  if (CostAllowed(meta)) return;
  throw ToolError(kExitFailure,
                  "the record looks damaged: " + where + " asks for scrypt with " +
                      ScryptCost(meta) +
                      ", beyond what the tool creates; --allow-cost derives it anyway");
}

bool IsMasterKeyRecord(const RawRecord& raw) {
  if (raw.meta.kdf_type != 0) return true;
  for (uint8_t byte : raw.meta.salt) {
    if (byte) return true;
  }
  return false;
}

}  // namespace tavikm_tool
