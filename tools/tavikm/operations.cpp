// The tool's use of the library: setup, unlock, password change and the KEK store.
#include "operations.h"

#include <stdio.h>
#include <string.h>

#include "cli.h"
#include "log_sink.h"
#include "progress.h"

namespace tavikm_tool {
namespace {

// The text km_decrypt_key logs when the GCM tag does not match under the password nor under
// the all-zero key: that, and only that, is a wrong password in GCM mode.
constexpr char kGcmMismatch[] = "Failed to decrypt_gcm key";

std::string Hex32(uint32_t value) {
  char text[16];
  snprintf(text, sizeof(text), "0x%08x", value);
  return text;
}

ToolError NotFound(const Place& place, const RawRecord& raw) {
  if (place.secure_storage) {
    return ToolError(kExitNotFound, "no record named \"" + place.loc + "\" in secure storage");
  }
  if (!raw.found) return ToolError(kExitNotFound, "no metadata file " + place.loc);
  return ToolError(kExitNotFound,
                   "no record in " + place.loc + " at offset " + std::to_string(place.offset));
}

ToolError KekNotRecord(const Place& place) {
  std::string reader = "tavikm kek get " + place.loc;
  return ToolError(
      kExitFailure,
      place.Describe() + " holds a KEK, not the record of a master key (" + reader + " reads it)");
}

// Why km_get_km_meta refused a file record, from the raw bytes.
ToolError UnreadableRecord(const Place& place, const RawRecord& raw) {
  if (!place.secure_storage) {
    if (raw.regular_file && raw.file_size != KM_METADATA_FILE_SIZE) {
      return ToolError(kExitFailure,
                       place.loc + " is not a metadata file: " + std::to_string(raw.file_size) +
                           " bytes instead of " + std::to_string(KM_METADATA_FILE_SIZE));
    }
    if (raw.stored_length == KM_META_SIZE && raw.meta.magic != KM_META_MAGIC) {
      return ToolError(kExitFailure,
                       place.Describe() + " holds no record (magic " + Hex32(raw.meta.magic) + ")");
    }
  }
  return ToolError(kExitFailure, "cannot read the record at " + place.Describe() + Why());
}

bool CbcOnly() { return mdfpp_property_get(supportCBConly); }

// Wrapped-key length of a record; the library refuses anything but 16 and 32 later on, this
// only keeps the tool's own copies within the fields.
size_t KeyLength(const km_meta& meta) {
  if (meta.keysize == 0 || meta.keysize > sizeof(meta.master_key)) {
    throw ToolError(kExitFailure,
                    "the record's keysize " + std::to_string(meta.keysize) + " is not usable");
  }
  return static_cast<size_t>(meta.keysize);
}

void Store(const Place& place, const km_meta& meta, const std::string& what) {
  ForgetSeen();
  if (km_put_km_meta(place.loc.c_str(), static_cast<int64_t>(place.offset), &meta) != 0) {
    throw ToolError(kExitFailure, "cannot store " + what + " at " + place.Describe() + Why());
  }
}

// Non-zero bytes where a new record would be written, described for the refusal.
std::string Occupied(const Place& place) {
  RawRecord raw = ReadRaw(place);
  if (place.secure_storage) {
    return raw.found ? place.Describe() + " already exists" : "";
  }
  if (!raw.found) return "";
  if (raw.regular_file && raw.file_size != KM_METADATA_FILE_SIZE) {
    return place.loc + " is not a metadata file (" + std::to_string(raw.file_size) + " bytes)";
  }
  return raw.Empty() ? "" : place.Describe() + " already holds data";
}

}  // namespace

std::string KdfName(unsigned kdf_type) {
  switch (kdf_type) {
    case KM_KDF_PBKDF2:
      return "PBKDF2";
    case KM_KDF_SCRYPT:
      return "scrypt";
    case KM_KDF_SCRYPT_KEYMASTER_OLD:
      return "scrypt bound to Keymaster (old)";
    case KM_KDF_PBKDF2_REK:
      return "PBKDF2 with REK";
    case KM_KDF_SCRYPT_KEYMASTER:
      return "scrypt bound to Keymaster";
    default:
      return "unknown";
  }
}

SetupResult Setup(const Place& place, const Password& password, uint64_t keysize, uint32_t kdf_type,
                  bool force) {
  if (keysize == 0 || keysize > KeyBytes::capacity()) {
    throw UsageError("a keysize of " + std::to_string(keysize) + " bytes is not possible");
  }
  CheckRoom(place);
  if (!force) {
    std::string occupied = Occupied(place);
    if (occupied.empty() && !place.secure_storage && place.offset != 0) {
      Place first = place;
      first.offset = 0;
      occupied = Occupied(first);
    }
    if (!occupied.empty()) throw ToolError(kExitFailure, occupied + "; --force replaces it");
  }
  SetupResult result;
  ForgetSeen();
  int rc;
  {
    Progress progress(SetupDeriving(kdf_type));
    rc = km_initial_setup(place.loc.c_str(), password.c_str(), password.size(),
                          result.master_key.data(), keysize, kdf_type, &result.meta);
  }
  if (rc != 0) {
    throw ToolError(kExitFailure, "cannot set up " + place.Describe() + Why());
  }
  result.master_key.set_size(static_cast<size_t>(keysize));
  if (!place.secure_storage && place.offset != 0) {
    Store(place, result.meta, "the new record");
    // The copy km_initial_setup left at offset 0 would keep opening with this password after
    // a later password change; only the record at the offset may remain.
    ForgetSeen();
    if (km_delete_meta(place.loc.c_str(), 0) != 0) {
      throw ToolError(kExitFailure, "cannot clear offset 0 of " + place.loc + Why());
    }
  }
  return result;
}

void RequireRecord(const Place& place) {
  RawRecord raw = ReadRaw(place);
  if (raw.Empty()) throw NotFound(place, raw);
  if (raw.Kek()) throw KekNotRecord(place);
}

UnlockResult Unlock(const Place& place, const Password& password) {
  RawRecord raw = ReadRaw(place);
  if (raw.Empty()) throw NotFound(place, raw);
  if (raw.Kek()) throw KekNotRecord(place);
  UnlockResult result;
  ForgetSeen();
  int rc = km_get_km_meta(place.loc.c_str(), place.offset, &result.meta);
  if (rc == 1) throw NotFound(place, raw);
  if (rc != 0) throw UnreadableRecord(place, raw);
  if (place.secure_storage) {
    RawRecord now = ReadRaw(place);
    if (now.stored_length != raw.stored_length ||
        memcmp(&now.meta, &raw.meta, sizeof(km_meta)) != 0) {
      result.upgraded_on_read = true;
      result.old_length = raw.stored_length;
      result.old_major_version = raw.meta.major_version;
    }
  }
  km_meta before = result.meta;
  size_t keysize = KeyLength(result.meta);

  // The record is stored again only when the derivation itself got through (a wrong password
  // is found after it); a failed Keymaster upgrade may leave the key blob half-changed in memory.
  auto store_if_changed = [&] {
    if (memcmp(&before, &result.meta, sizeof(km_meta)) == 0) return;
    Store(place, result.meta, "the record with its upgraded Keymaster key");
    result.stored_again = true;
  };
  ToolError wrong_password(kExitWrongPassword, "wrong password for " + place.loc);

  if (CbcOnly()) {
    uint8_t mac[32];
    ForgetSeen();
    {
      Progress progress(Deriving(result.meta));
      rc = km_get_key_mac_by_password(result.meta.master_key, result.meta.salt, password.c_str(),
                                      password.size(), mac, &result.meta);
    }
    if (rc != 0) {
      throw ToolError(kExitFailure, "cannot check the password of " + place.loc + Why());
    }
    store_if_changed();
    before = result.meta;
    if (km_verify_key_mac(result.meta.key_mac, mac) != 0) throw wrong_password;
  }

  ForgetSeen();
  {
    Progress progress(Deriving(result.meta));
    rc = km_decrypt_key(password.c_str(), password.size(), result.meta.salt, result.meta.master_key,
                        result.master_key.data(), &result.meta);
  }
  if (rc == 0 || rc == 9) {
    result.master_key.set_size(keysize);
    result.zero_key = rc == 9;
    store_if_changed();
    return result;
  }
  if (rc == -1 && LogSaw(kGcmMismatch)) {
    store_if_changed();
    throw wrong_password;
  }
  throw ToolError(kExitFailure, "cannot unlock " + place.loc + Why());
}

PasswdResult ChangePassword(const Place& place, const Password& old_password,
                            const Password& new_password) {
  CheckRoom(place);
  PasswdResult result;
  result.unlocked = Unlock(place, old_password);
  if (result.unlocked.zero_key) {
    throw ToolError(kExitFailure, place.loc +
                                      " opened only under the all-zero key, not under the "
                                      "password; its password is left as it is");
  }
  const km_meta& current = result.unlocked.meta;
  size_t keysize = KeyLength(current);
  km_meta copy = current;
  // The new salt, wrapped key and MAC stay apart from the copy until every step has succeeded:
  // a Keymaster key upgrade inside the KDF stores the record it is given, and that record must
  // still be the complete old one.
  uint8_t salt[sizeof(copy.salt)];
  km_generate_drbg_bytes(nullptr, salt, sizeof(salt));
  uint8_t wrapped[sizeof(copy.master_key)] = {};
  uint8_t mac[32];
  bool cbc = CbcOnly();
  bool wrapped_ok = false, mac_ok = false;
  ForgetSeen();
  {
    Progress progress(Deriving(copy));
    wrapped_ok = km_encrypt_key(new_password.c_str(), new_password.size(), salt, wrapped,
                                result.unlocked.master_key.data(), &copy) == 0;
    mac_ok =
        !cbc || (wrapped_ok && km_get_key_mac_by_password(wrapped, salt, new_password.c_str(),
                                                          new_password.size(), mac, &copy) == 0);
  }
  if (!wrapped_ok) {
    throw ToolError(kExitFailure, "cannot wrap the master key of " + place.loc +
                                      " under the new password (the record is unchanged)" + Why());
  }
  if (!mac_ok) {
    throw ToolError(kExitFailure, "cannot make the new password MAC of " + place.loc +
                                      " (the record is unchanged)" + Why());
  }
  memcpy(copy.master_key, wrapped, keysize);
  memcpy(copy.salt, salt, sizeof(salt));
  if (cbc) memcpy(copy.key_mac, mac, sizeof(mac));
  Store(place, copy, "the record under the new password");
  result.stored = copy;
  return result;
}

void PutKek(const std::string& name, const KeyBytes& kek, bool force) {
  if (!force) {
    Place place{true, name, 0};
    if (ReadRaw(place).found) {
      throw ToolError(kExitFailure, "secure storage already holds an entry \"" + name +
                                        "\"; --force replaces it");
    }
  }
  ForgetSeen();
  int rc = km_put_kek_enc_by_rek(name.c_str(), kek.data(), kek.size());
  if (rc != 0) {
    throw ToolError(kExitFailure, "cannot store the KEK \"" + name + "\"" + Why());
  }
}

KeyBytes GetKek(const std::string& name, bool* asked_twice) {
  KeyBytes kek;
  *asked_twice = false;
  for (int attempt = 0; attempt < 2; ++attempt) {
    uint64_t length = 0;
    ForgetSeen();
    int rc = km_get_kek_enc_by_rek(name.c_str(), kek.data(), &length);
    if (rc == 1) throw ToolError(kExitNotFound, "no KEK named \"" + name + "\"");
    if (rc != 0) {
      throw ToolError(kExitFailure, "cannot read the KEK \"" + name + "\"" + Why());
    }
    if (length > kek.capacity()) {
      throw ToolError(kExitFailure, "the KEK \"" + name + "\" came back with a length of " +
                                        std::to_string(length) + " bytes");
    }
    if (length > 0) {
      kek.set_size(static_cast<size_t>(length));
      return kek;
    }
    // An empty answer: the Keymaster key was upgraded and the record stored; ask again.
    *asked_twice = true;
  }
  throw ToolError(kExitFailure, "the KEK \"" + name + "\" came back empty twice" + LogHint());
}

void DeleteKek(const std::string& name) {
  Place place{true, name, 0};
  if (!ReadRaw(place).found) throw ToolError(kExitNotFound, "no KEK named \"" + name + "\"");
  ForgetSeen();
  int rc = km_delete_kek_enc_by_rek(name.c_str());
  if (rc != 0) {
    throw ToolError(kExitFailure, "cannot delete the KEK \"" + name + "\"" + Why());
  }
}

}  // namespace tavikm_tool
