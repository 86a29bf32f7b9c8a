// SPDX-License-Identifier: Apache-2.0
// The tool's use of the library: setup, unlock, password change and the KEK store.
#include "operations.h"

#include <errno.h>
#include <openssl/crypto.h>
#include <stdio.h>
#include <string.h>
#include <unistd.h>

#include <vector>

#include "cli.h"
#include "guards.h"
#include "legacy_kek.h"
#include "library_stores.h"
#include "log_sink.h"
#include "progress.h"
#include "record_checks.h"
#include "record_store.h"
#include "write_guard.h"

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

// The record of a metadata file as the library's read would return it, read by the tool itself:
// the library opens the file for writing to read it, and unlocking must work on a read-only
// file. A file record is never upgraded on read, so nothing is lost by that.
km_meta FileRecord(const Place& place, const RawRecord& raw) {
  if ((raw.regular_file && raw.file_size != KM_METADATA_FILE_SIZE) ||
      (raw.stored_length == KM_META_SIZE && raw.meta.magic != KM_META_MAGIC)) {
    throw UnreadableRecord(place, raw);
  }
  if (raw.stored_length != KM_META_SIZE) {
    throw ToolError(kExitFailure, place.Describe() + " holds only " +
                                      std::to_string(raw.stored_length) + " bytes of a record");
  }
  km_meta meta = raw.meta;
  // Read as the current major version, as the library does; the stored bytes stay as they are.
  meta.major_version = KM_META_MAJOR_VERSION;
  return meta;
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

// What a new record would replace at the place, described for the refusal; "" when free.
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

namespace {

SetupResult SetupOpened(const OpenedPlace& opened, const Password& password, uint64_t keysize,
                        uint32_t kdf_type, bool force) {
  const Place& place = opened.place();
  // Checked under the lock: a place another command filled or cut meanwhile is refused.
  CheckFits(place, opened.fd());
  if (place.secure_storage) RefuseLegacyKek(place.loc, "setup");
  if (!force) {
    std::string occupied = Occupied(place);
    if (!occupied.empty()) throw ToolError(kExitFailure, occupied + "; --force replaces it");
  }
  RefuseOverlap(opened);
  // The steps of km_initial_setup without its store at offset 0: the record is stored once,
  // at its own place, by StoreRecord.
  SetupResult result;
  std::string failed = "cannot set up " + place.Describe();
  ForgetSeen();
  int rc = km_init_km_meta(&result.meta, place.loc.c_str(), keysize, kdf_type);
  if (rc != 0) throw ToolError(kExitFailure, failed + Why());
  if (!CostAllowed(result.meta)) {
    throw ToolError(kExitFailure, "ro.crypto.scrypt_params asks for scrypt with " +
                                      ScryptCost(result.meta) +
                                      ", beyond N·r·p·128 = 1 GiB; --allow-cost creates it anyway");
  }
  km_generate_drbg_bytes(nullptr, result.master_key.data(), static_cast<size_t>(keysize));
  km_generate_drbg_bytes(nullptr, result.meta.salt, sizeof(result.meta.salt));
  {
    Progress progress(SetupDeriving(kdf_type));
    ForgetSeen();
    rc = km_encrypt_key(password.c_str(), password.size(), result.meta.salt, result.meta.master_key,
                        result.master_key.data(), &result.meta);
    if (rc == 0 && CbcOnly()) {
      rc = km_get_key_mac_by_password(result.meta.master_key, result.meta.salt, password.c_str(),
                                      password.size(), result.meta.key_mac, &result.meta);
    }
  }
  if (rc != 0) throw ToolError(kExitFailure, failed + Why());
  result.master_key.set_size(static_cast<size_t>(keysize));
  StoreRecord(opened, result.meta, "the new record");
  return result;
}

}  // namespace

SetupResult Setup(const Place& place, const Password& password, uint64_t keysize, uint32_t kdf_type,
                  bool force) {
  if (keysize == 0 || keysize > KeyBytes::capacity()) {
    throw UsageError("a keysize of " + std::to_string(keysize) + " bytes is not possible");
  }
  CheckRoom(place);
  OpenedPlace opened(place);
  WriteGuard guard(opened, nullptr, 0);
  return guard.Run([&] { return SetupOpened(opened, password, keysize, kdf_type, force); });
}

void RequireRecord(const Place& place) {
  // Under the lock and after any replay, so a record an interrupted change left torn is judged
  // as it will stand.
  OpenedPlace opened(place);
  RawRecord raw = ReadRaw(place);
  if (raw.Empty()) throw NotFound(place, raw);
  if (raw.Kek()) throw KekNotRecord(place);
}

namespace {

UnlockResult UnlockOpened(const OpenedPlace& opened, const Password& password) {
  const Place& place = opened.place();
  RawRecord raw = ReadRaw(place);
  if (raw.Empty()) throw NotFound(place, raw);
  if (raw.Kek()) throw KekNotRecord(place);
  UnlockResult result;
  int rc = 0;
  if (place.secure_storage) {
    // The library's read upgrades an older entry as it reads it, which the tool reports.
    ForgetSeen();
    rc = km_get_km_meta(place.loc.c_str(), place.offset, &result.meta);
    if (rc == 1) throw NotFound(place, raw);
    if (rc != 0) throw UnreadableRecord(place, raw);
  } else {
    result.meta = FileRecord(place, raw);
  }
  CheckCost(result.meta, place.Describe());
  CheckOpenable(result.meta, place.Describe(), CbcOnly());
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
    StoreRecord(opened, result.meta, "the record with its upgraded Keymaster key");
    result.stored_again = true;
  };
  ToolError wrong_password(kExitWrongPassword, "wrong password for " + place.loc);

  if (CbcOnly()) {
    uint8_t mac[32];
    ForgetSeen();
    rc = DeriveWithoutLibraryStores(opened.place(), &result.meta, [&](km_meta* meta) {
      Progress progress(Deriving(*meta));
      return km_get_key_mac_by_password(result.meta.master_key, result.meta.salt, password.c_str(),
                                        password.size(), mac, meta);
    });
    if (rc != 0) throw ToolError(kExitFailure, "cannot check the password of " + place.loc + Why());
    store_if_changed();
    before = result.meta;
    if (km_verify_key_mac(result.meta.key_mac, mac) != 0) throw wrong_password;
  }

  ForgetSeen();
  rc = DeriveWithoutLibraryStores(opened.place(), &result.meta, [&](km_meta* meta) {
    Progress progress(Deriving(*meta));
    return km_decrypt_key(password.c_str(), password.size(), result.meta.salt,
                          result.meta.master_key, result.master_key.data(), meta);
  });
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

PasswdResult ChangePasswordOpened(const OpenedPlace& opened, const Password& old_password,
                                  const Password& new_password) {
  const Place& place = opened.place();
  PasswdResult result;
  result.unlocked = UnlockOpened(opened, old_password);
  if (result.unlocked.zero_key) {
    throw ToolError(kExitFailure, place.loc +
                                      " opened only under the all-zero key, not under the "
                                      "password; its password is left as it is");
  }
  const km_meta& current = result.unlocked.meta;
  size_t keysize = KeyLength(current);
  km_meta copy = current;
  // The new salt, wrapped key and MAC stay apart from the copy until every step has succeeded,
  // so the copy is the complete old record plus whatever the derivation upgraded in it.
  uint8_t salt[sizeof(copy.salt)];
  km_generate_drbg_bytes(nullptr, salt, sizeof(salt));
  uint8_t wrapped[sizeof(copy.master_key)] = {};
  uint8_t mac[32];
  bool cbc = CbcOnly();
  ForgetSeen();
  if (DeriveWithoutLibraryStores(opened.place(), &copy, [&](km_meta* meta) {
        Progress progress(Deriving(*meta));
        return km_encrypt_key(new_password.c_str(), new_password.size(), salt, wrapped,
                              result.unlocked.master_key.data(), meta);
      }) != 0) {
    throw ToolError(kExitFailure, "cannot wrap the master key of " + place.loc +
                                      " under the new password (the record is unchanged)" + Why());
  }
  if (cbc && DeriveWithoutLibraryStores(opened.place(), &copy, [&](km_meta* meta) {
               Progress progress(Deriving(*meta));
               return km_get_key_mac_by_password(wrapped, salt, new_password.c_str(),
                                                 new_password.size(), mac, meta);
             }) != 0) {
    throw ToolError(kExitFailure, "cannot make the new password MAC of " + place.loc +
                                      " (the record is unchanged)" + Why());
  }
  memcpy(copy.master_key, wrapped, keysize);
  memcpy(copy.salt, salt, sizeof(salt));
  if (cbc) memcpy(copy.key_mac, mac, sizeof(mac));
  StoreRecord(opened, copy, "the record under the new password");
  result.stored = copy;
  return result;
}

}  // namespace

UnlockResult Unlock(const Place& place, const Password& password) {
  OpenedPlace opened(place);
  RawRecord raw = ReadRaw(place);
  WriteGuard guard(opened, &raw.meta, raw.stored_length);
  return guard.Run([&] { return UnlockOpened(opened, password); });
}

PasswdResult ChangePassword(const Place& place, const Password& old_password,
                            const Password& new_password) {
  CheckRoom(place);
  OpenedPlace opened(place);
  RawRecord raw = ReadRaw(place);
  WriteGuard guard(opened, &raw.meta, raw.stored_length);
  return guard.Run([&] { return ChangePasswordOpened(opened, old_password, new_password); });
}

namespace {

// The KEK commands replace and delete KEK records only, never a master-key record of the same
// store.
void RefuseMasterKeyRecord(const std::string& name, const RawRecord& raw, const std::string& verb) {
  if (!IsMasterKeyRecord(raw)) return;
  throw ToolError(kExitFailure, "the entry \"" + name +
                                    "\" is a master-key record, not a KEK; kek " + verb +
                                    " leaves it alone");
}

}  // namespace

void PutKek(const std::string& name, const KeyBytes& kek, bool force) {
  CheckKeyLocation(name);
  Place place{true, name, 0};
  OpenedPlace opened(place);
  RawRecord raw = ReadRaw(place);
  if (raw.found) {
    RefuseLegacyKek(name, "kek put");
    if (!force) {
      throw ToolError(kExitFailure, "secure storage already holds an entry \"" + name +
                                        "\"; --force replaces it");
    }
    RefuseMasterKeyRecord(name, raw, "put");
  }
  ForgetSeen();
  if (km_put_kek_enc_by_rek(name.c_str(), kek.data(), kek.size()) != 0) {
    throw ToolError(kExitFailure, "cannot store the KEK \"" + name + "\"" + Why());
  }
  // Read back before anyone is told it was stored.
  KeyBytes back;
  uint64_t length = 0;
  ForgetSeen();
  if (km_get_kek_enc_by_rek(name.c_str(), back.data(), &length) != 0) {
    throw ToolError(
        kExitFailure,
        "the KEK \"" + name + "\" was stored, but could not be read back to verify" + Why());
  }
  if (length != kek.size() || CRYPTO_memcmp(back.data(), kek.data(), kek.size()) != 0) {
    throw ToolError(kExitFailure,
                    "the KEK \"" + name + "\" read back differs from what was stored" + LogHint());
  }
}

KeyBytes GetKek(const std::string& name, bool* asked_twice) {
  CheckKeyLocation(name);
  OpenedPlace opened(Place{true, name, 0});
  KeyBytes kek;
  *asked_twice = false;
  for (int attempt = 0; attempt < 2; ++attempt) {
    uint64_t length = 0;
    ForgetSeen();
    int rc = km_get_kek_enc_by_rek(name.c_str(), kek.data(), &length);
    if (rc == 1) throw ToolError(kExitNotFound, "no KEK named \"" + name + "\"");
    if (rc != 0) throw ToolError(kExitFailure, "cannot read the KEK \"" + name + "\"" + Why());
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
  CheckKeyLocation(name);
  Place place{true, name, 0};
  OpenedPlace opened(place);
  RawRecord raw = ReadRaw(place);
  if (!raw.found) throw ToolError(kExitNotFound, "no KEK named \"" + name + "\"");
  RefuseLegacyKek(name, "kek delete");
  RefuseMasterKeyRecord(name, raw, "delete");
  ForgetSeen();
  if (km_delete_kek_enc_by_rek(name.c_str()) != 0) {
    throw ToolError(kExitFailure, "cannot delete the KEK \"" + name + "\"" + Why());
  }
}

}  // namespace tavikm_tool
