// SPDX-License-Identifier: Apache-2.0
// Cost and kind checks of stored records.
#include "record_checks.h"

#include "cli.h"
#include "common/record_view.h"

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

void CheckOpenable(const km_meta& meta, const std::string& where, bool cbc_only) {
  auto damaged = [&](const std::string& field, const std::string& why) {
    throw ToolError(kExitFailure, "the record is damaged: " + where + " has " + field + " " + why +
                                      "; no password can open it");
  };
  const uint8_t kdf = meta.kdf_type;
  if (kdf < KM_KDF_PBKDF2 || kdf > KM_KDF_SCRYPT_KEYMASTER) {
    damaged("kdf_type", std::to_string(kdf) + ", which is no KDF (1 to 5)");
  }
  // The REK wrapping of kdf 4 is CBC too, so only whole AES blocks.
  const bool cbc = cbc_only || (kdf == KM_KDF_PBKDF2_REK && mdfpp_property_get(supportRekKek));
  if (meta.keysize != 16 && meta.keysize != 32 && (cbc || meta.keysize != 24)) {
    damaged("keysize", std::to_string(meta.keysize) + ", which the wrapping cannot use (" +
                           (cbc ? "16 or 32" : "16, 24 or 32") + " bytes)");
  }
  if (kdf == KM_KDF_SCRYPT || kdf == KM_KDF_SCRYPT_KEYMASTER_OLD ||
      kdf == KM_KDF_SCRYPT_KEYMASTER) {
    // N is taken as a signed 32-bit power of two, and r*p must stay below 2^30.
    if (meta.N_factor > 30) {
      damaged("N_factor", std::to_string(meta.N_factor) + ", beyond scrypt's range (0 to 30)");
    }
    if (unsigned{meta.r_factor} + meta.p_factor >= 30) {
      damaged("r_factor and p_factor", std::to_string(meta.r_factor) + " and " +
                                           std::to_string(meta.p_factor) +
                                           ", whose r*p reaches 2^30, beyond scrypt's range");
    }
  }
  if (kdf >= KM_KDF_SCRYPT_KEYMASTER_OLD) {
    // With no key the library would make a new one, under which the old wrapping never opens.
    if (meta.km_key_blob_size == 0 || meta.km_key_blob_size > KM_KEY_BLOB_CAPACITY) {
      damaged("km_key_blob_size", std::to_string(meta.km_key_blob_size) +
                                      ", not a Keymaster key (1 to " +
                                      std::to_string(KM_KEY_BLOB_CAPACITY) + " bytes)");
    }
  }
  if (kdf == KM_KDF_PBKDF2_REK && mdfpp_property_get(supportRekKek)) {
    if (meta.xtkm_value_size > tavikm::kMaxRecordXtkmValueSize) {
      damaged("xtkm_value_size", std::to_string(meta.xtkm_value_size) + ", beyond the record");
    }
    if (meta.kek_mac_size > tavikm::kMaxRecordKekMacSize) {
      damaged("kek_mac_size", std::to_string(meta.kek_mac_size) + ", beyond its field");
    }
    if (meta.mac_key_size > tavikm::kMaxRecordMacKeySize) {
      damaged("mac_key_size", std::to_string(meta.mac_key_size) + ", beyond its field");
    }
  }
}

bool IsMasterKeyRecord(const RawRecord& raw) {
  if (raw.meta.kdf_type != 0) return true;
  for (uint8_t byte : raw.meta.salt) {
    if (byte) return true;
  }
  return false;
}

}  // namespace tavikm_tool
