// SPDX-License-Identifier: Apache-2.0
// setup, unlock, passwd, inspect and kek: options, the library calls (operations.h) and output.
#include "commands.h"

#include <cutils/properties.h>
#include <fcntl.h>
#include <openssl/crypto.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include <optional>

#include "cli.h"
#include "common/scopers.h"
#include "confirm.h"
#include "guards.h"
#include "input_files.h"
#include "legacy_kek.h"
#include "operations.h"
#include "outcome.h"
#include "password.h"
#include "place.h"
#include "record_checks.h"
#include "record_store.h"
#include "record_view.h"
#include "tavikm.h"
#include "text.h"

namespace tavikm_tool {
namespace {

// An empty password protects nothing; it is taken only when asked for by name.
void RefuseEmpty(const Password& password, bool allow_empty) {
  if (password.size() == 0 && !allow_empty) {
    throw InputError("an empty password is refused; --allow-empty-password accepts it");
  }
}

void PrintRow(const char* label, const std::string& value) {
  printf("  %-12s %s\n", label, TerminalText(value).c_str());
}

std::string KdfDescription(const km_meta& meta) {
  std::string text = std::to_string(meta.kdf_type) + " (" + KdfName(meta.kdf_type);
  if (meta.kdf_type == KM_KDF_SCRYPT || meta.kdf_type == KM_KDF_SCRYPT_KEYMASTER) {
    text += ", N=2^" + std::to_string(meta.N_factor) + " r=2^" + std::to_string(meta.r_factor) +
            " p=2^" + std::to_string(meta.p_factor);
  }
  return text + ")";
}

void PrintKey(const char* label, const KeyBytes& key, bool show) {
  PrintRow(label, Fingerprint(key.data(), key.size()));
  if (show) PrintRow("key (hex)", Hex(key.data(), key.size()));
}

uint64_t ParseKeysize(const std::optional<std::string>& text) {
  if (!text) return 32;
  if (*text == "16") return 16;
  if (*text == "32") return 32;
  throw UsageError("--keysize must be 16 or 32");
}

uint32_t ParseKdf(const std::optional<std::string>& text) {
  if (!text || *text == "default") return KM_KDF_DEFAULT;
  if (*text == "1") return KM_KDF_PBKDF2;
  if (*text == "2") return KM_KDF_SCRYPT;
  if (*text == "4") return KM_KDF_PBKDF2_REK;
  if (*text == "5") return KM_KDF_SCRYPT_KEYMASTER;
  throw UsageError("--kdf must be default, 1, 2, 4 or 5");
}

// Notes about what happened to the record on the way, for unlock and passwd.
void PrintUnlockNotes(const UnlockResult& result) {
  if (result.upgraded_on_read) {
    printf("Note: the entry (%llu bytes, major version %u) was upgraded while it was read.\n",
           static_cast<unsigned long long>(result.old_length), result.old_major_version);
  }
  if (result.stored_again) {
    printf("Note: a Keymaster key was upgraded on the way; the record was stored again.\n");
  }
}

// Hex text to key bytes: 16 or 32 bytes.
KeyBytes KeyFromHex(std::string hex, const std::string& source) {
  while (!hex.empty() && isspace(static_cast<unsigned char>(hex.back()))) hex.pop_back();
  size_t start = 0;
  while (start < hex.size() && isspace(static_cast<unsigned char>(hex[start]))) ++start;
  hex.erase(0, start);
  KeyBytes key;
  size_t size = 0;
  uint8_t* bytes = km_convert_hex_ascii_to_key(hex.c_str(), &size);
  OPENSSL_cleanse(&hex[0], hex.size());
  const tavikm::ScopedWipedBuffer owned(bytes, size);
  if (!bytes) throw UsageError(source + " is not hexadecimal text of 16 or 32 bytes");
  bool ok = size == 16 || size == 32;
  if (ok) {
    memcpy(key.data(), bytes, size);
    key.set_size(size);
  }
  if (!ok)
    throw UsageError(source + " holds " + std::to_string(size) + " bytes; a KEK has 16 or 32");
  return key;
}

std::string ReadKeyFile(const std::string& file) {
  int fd = file == "-" ? STDIN_FILENO : OpenInput(file, "key file");
  std::string text;
  text.reserve(4096);
  char buffer[4096];
  for (;;) {
    ssize_t n = read(fd, buffer, sizeof(buffer));
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) break;
    if (text.size() + static_cast<size_t>(n) > 4096) break;  // far longer than any key text
    text.append(buffer, static_cast<size_t>(n));
  }
  OPENSSL_cleanse(buffer, sizeof(buffer));
  if (fd != STDIN_FILENO) close(fd);
  return text;
}

}  // namespace

void ApplyProps(const std::vector<std::string>& props) {
  for (const std::string& prop : props) {
    size_t eq = prop.find('=');
    if (eq == std::string::npos || eq == 0) throw UsageError("--prop needs KEY=VALUE, not " + prop);
    std::string key = prop.substr(0, eq);
    std::string value = prop.substr(eq + 1);
    if (property_set(key.c_str(), value.c_str()) != 0) {
      throw UsageError("cannot set property " + key + " (a value has at most " +
                       std::to_string(PROPERTY_VALUE_MAX - 1) + " characters)");
    }
  }
}

int RunSetup(const Invocation& in) {
  std::optional<std::string> kdf = in.Value("--kdf"), keysize = in.Value("--keysize"),
                             offset = in.Value("--offset"),
                             password_file = in.Value("--password-file");
  bool show_key = in.Flag("--show-key"), force = in.Flag("--force"),
       allow_empty = in.Flag("--allow-empty-password"), allow_cost = in.Flag("--allow-cost");
  AllowAnyCost(allow_cost);
  uint32_t kdf_type = ParseKdf(kdf);
  uint64_t size = ParseKeysize(keysize);
  Place place = ResolvePlace(in.positional()[0], offset);
  CheckRoom(place);
  CheckFits(place);
  if (force && Holds(place)) {
    ConfirmLoss(place.Describe() +
                " is replaced by a new record: the master key stored there now "
                "is lost for good.");
  }
  Password password =
      ReadNewPassword(password_file, "New password for " + TerminalText(place.loc) + ": ");
  RefuseEmpty(password, allow_empty);
  SetupResult result = Setup(place, password, size, kdf_type, force);
  NoteChanged("the record of " + place.loc + " was created");
  printf("Created the record of %s\n", TerminalText(place.loc).c_str());
  PrintRow("place", place.Describe());
  PrintRow("kdf", KdfDescription(result.meta));
  PrintRow("keysize", std::to_string(result.meta.keysize) + " bytes");
  PrintKey("master key", result.master_key, show_key);
  return kExitOk;
}

int RunUnlock(const Invocation& in) {
  std::optional<std::string> offset = in.Value("--offset"),
                             password_file = in.Value("--password-file");
  bool show_key = in.Flag("--show-key"), allow_cost = in.Flag("--allow-cost");
  AllowAnyCost(allow_cost);
  Place place = ResolvePlace(in.positional()[0], offset);
  RequireRecord(place);
  Password password = ReadPassword(password_file, "Password for " + TerminalText(place.loc) + ": ");
  UnlockResult result = Unlock(place, password);
  if (result.stored_again || result.upgraded_on_read) {
    NoteChanged("the record of " + place.loc + " was unlocked and stored again");
  }
  printf("Unlocked %s\n", TerminalText(place.loc).c_str());
  PrintRow("place", place.Describe());
  PrintRow("kdf", KdfDescription(result.meta));
  PrintKey("master key", result.master_key, show_key);
  PrintUnlockNotes(result);
  if (result.zero_key) {
    fprintf(stderr,
            "tavikm: warning: the master key of %s opened under the all-zero key, not under the "
            "password, so any password opens it\n",
            place.loc.c_str());
    return kExitFailure;
  }
  return kExitOk;
}

int RunPasswd(const Invocation& in) {
  std::optional<std::string> offset = in.Value("--offset"),
                             password_file = in.Value("--password-file"),
                             new_password_file = in.Value("--new-password-file");
  bool allow_cost = in.Flag("--allow-cost"), allow_empty = in.Flag("--allow-empty-password");
  AllowAnyCost(allow_cost);
  Place place = ResolvePlace(in.positional()[0], offset);
  CheckRoom(place);
  RequireRecord(place);
  Password old_password =
      ReadPassword(password_file, "Old password for " + TerminalText(place.loc) + ": ");
  Password new_password =
      ReadNewPassword(new_password_file, "New password for " + TerminalText(place.loc) + ": ");
  RefuseEmpty(new_password, allow_empty);
  PasswdResult result = ChangePassword(place, old_password, new_password);
  NoteChanged("the password of " + place.loc + " was changed");
  printf("Changed the password of %s\n", TerminalText(place.loc).c_str());
  PrintRow("place", place.Describe());
  PrintRow("kdf", KdfDescription(result.stored));
  PrintKey("master key", result.unlocked.master_key, false);
  PrintUnlockNotes(result.unlocked);
  return kExitOk;
}

int RunInspect(const Invocation& in) {
  std::optional<std::string> entry = in.Value("--entry"), file = in.Value("--file"),
                             offset = in.Value("--offset");
  bool json = in.Flag("--json");
  if (entry.has_value() + file.has_value() + !in.positional().empty() != 1) {
    throw UsageError("give one of KEY_LOC, --entry NAME and --file PATH");
  }
  Place place;
  if (entry) {
    if (offset) throw UsageError("--offset applies to metadata files only");
    if (entry->empty()) throw UsageError("the entry name is empty");
    place = Place{true, *entry, 0};
  } else {
    place = ResolvePlace(file ? *file : in.positional()[0], offset, file.has_value());
  }
  OpenedPlace opened(place);  // shows the record as an interrupted change left it to stand
  RawRecord raw = ReadRaw(place);
  if (!raw.found) {
    throw ToolError(kExitNotFound, place.secure_storage
                                       ? "no record named \"" + place.loc + "\" in secure storage"
                                       : "no metadata file " + place.loc);
  }
  if (raw.Empty()) {
    throw ToolError(kExitNotFound, place.Describe() + " is empty");
  }
  std::string text;
  if (place.secure_storage && !DecodableEntry(raw)) {
    std::optional<std::string> owner = LegacyKekOwner(place.loc);
    text = json ? OpaqueEntryJson(place, raw, owner) : OpaqueEntryText(place, raw, owner);
  } else {
    text = json ? RecordJson(place, raw) : RecordText(place, raw);
  }
  fputs(text.c_str(), stdout);
  return kExitOk;
}

int RunKekPut(const Invocation& in) {
  std::optional<std::string> hex = in.Value("--hex"), key_file = in.Value("--key-file"),
                             keysize = in.Value("--keysize");
  bool random = in.Flag("--random"), show_key = in.Flag("--show-key"), force = in.Flag("--force");
  CheckKeyLocation(in.positional()[0]);
  if (hex.has_value() + key_file.has_value() + random != 1) {
    throw UsageError("give exactly one of --hex, --key-file and --random");
  }
  if (keysize && !random) throw UsageError("--keysize goes with --random");
  KeyBytes kek;
  if (random) {
    kek.set_size(static_cast<size_t>(ParseKeysize(keysize)));
    km_generate_drbg_bytes(nullptr, kek.data(), kek.size());
  } else if (hex) {
    kek = KeyFromHex(*hex, "--hex");
  } else {
    kek = KeyFromHex(ReadKeyFile(*key_file), *key_file);
  }
  const std::string& name = in.positional()[0];
  if (force && Holds(Place{true, name, 0})) {
    ConfirmLoss("The KEK \"" + name +
                "\" is replaced: what it protects cannot be opened without it.");
  }
  PutKek(name, kek, force);
  NoteChanged("the KEK \"" + name + "\" was stored");
  printf("Stored the KEK \"%s\" (%zu bytes)\n", TerminalText(name, true).c_str(), kek.size());
  PrintKey("kek", kek, show_key);
  return kExitOk;
}

int RunKekGet(const Invocation& in) {
  bool show_key = in.Flag("--show-key");
  const std::string& name = in.positional()[0];
  bool asked_twice = false;
  KeyBytes kek = GetKek(name, &asked_twice);
  if (asked_twice) NoteChanged("the KEK \"" + name + "\" was stored again");
  printf("KEK \"%s\" (%zu bytes)\n", TerminalText(name, true).c_str(), kek.size());
  PrintKey("kek", kek, show_key);
  if (asked_twice) {
    printf("Note: its Keymaster key was upgraded on the way and the KEK asked for again.\n");
  }
  return kExitOk;
}

int RunKekDelete(const Invocation& in) {
  const std::string& name = in.positional()[0];
  CheckKeyLocation(name);
  if (Holds(Place{true, name, 0})) {
    ConfirmLoss("The KEK \"" + name +
                "\" is deleted: what it protects cannot be opened without it.");
  }
  DeleteKek(name);
  NoteChanged("the KEK \"" + name + "\" was deleted");
  printf("Deleted the KEK \"%s\"\n", TerminalText(name, true).c_str());
  return kExitOk;
}

}  // namespace tavikm_tool
