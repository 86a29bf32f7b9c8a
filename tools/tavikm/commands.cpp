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

const char kPasswordHelp[] =
    "  --password-file FILE     read the password from the first line of FILE (- for\n"
    "                           standard input) instead of asking on the terminal\n";

const char kEmptyPasswordHelp[] =
    "  --allow-empty-password   accept an empty new password (anyone can then unlock)\n";

// An empty password protects nothing; it is taken only when asked for by name.
void RefuseEmpty(const Password& password, bool allow_empty) {
  if (password.size() == 0 && !allow_empty) {
    throw InputError("an empty password is refused; --allow-empty-password accepts it");
  }
}

const char kPlaceHelp[] =
    "KEY_LOC is a secure-storage entry when ro.product.tavi.support_mdfpp is \"true\" and it does\n"
    "not begin with '/'; otherwise it is the path of a metadata file (16384 bytes), and the\n"
    "record lies at --offset N (default 0) in it.\n";

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

int RunSetup(const std::vector<std::string>& args) {
  ArgParser parser(
      "usage: tavikm setup KEY_LOC [--kdf default|1|2|4|5] [--keysize 16|32] [--offset N] "
      "[--password-file FILE] [--allow-empty-password] [--show-key] [--force] [--allow-cost]",
      std::string(
          "Creates a record for KEY_LOC with a new random master key wrapped under a new\n"
          "password, and prints where it is, its KDF and the master key's fingerprint.\n\n") +
          kPlaceHelp +
          "\n"
          "  --kdf K                  1 PBKDF2, 2 scrypt, 4 PBKDF2 with REK, 5 scrypt bound to\n"
          "                           Keymaster; default lets the library choose (4 in MDFPP\n"
          "                           mode, else 5 or 2)\n"
          "  --keysize B              master key length in bytes, 16 or 32 (default 32)\n"
          "  --offset N               for a metadata file: where the record goes; no byte outside\n"
          "                           it changes, and it may not overlap another record\n"
          "  --show-key               also print the master key itself\n"
          "  --force                  replace whatever the record's place holds (the old key is\n"
          "                           lost)\n"
          "  --allow-cost             derive even when the record asks for scrypt beyond\n"
          "                           N·r·p·128 = 1 GiB\n" +
          kPasswordHelp + kEmptyPasswordHelp);
  std::optional<std::string> kdf, keysize, offset, password_file;
  bool show_key = false, force = false, allow_empty = false;
  parser.Value("--kdf", &kdf);
  parser.Value("--keysize", &keysize);
  parser.Value("--offset", &offset);
  parser.Value("--password-file", &password_file);
  parser.Flag("--show-key", &show_key);
  parser.Flag("--force", &force);
  bool allow_cost = false;
  parser.Flag("--allow-cost", &allow_cost);
  parser.Flag("--allow-empty-password", &allow_empty);
  if (!parser.Parse(args, 1, 1)) return kExitOk;
  AllowAnyCost(allow_cost);
  uint32_t kdf_type = ParseKdf(kdf);
  uint64_t size = ParseKeysize(keysize);
  Place place = ResolvePlace(parser.positional()[0], offset);
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

int RunUnlock(const std::vector<std::string>& args) {
  ArgParser parser(
      "usage: tavikm unlock KEY_LOC [--offset N] [--password-file FILE] [--show-key] "
      "[--allow-cost]",
      std::string(
          "Reads the record of KEY_LOC, unwraps its master key with the password and prints\n"
          "the key's fingerprint. A record the library upgrades on the way (an older\n"
          "generation, a Keymaster key bound to an older patch level) is stored again.\n\n") +
          kPlaceHelp +
          "\n"
          "  --offset N               where the record lies in a metadata file (default 0)\n"
          "  --show-key               also print the master key itself\n"
          "  --allow-cost             derive even when the record asks for scrypt beyond\n"
          "                           N·r·p·128 = 1 GiB\n" +
          kPasswordHelp +
          "\nExit status 2 means a wrong password. A key that opens only under the all-zero key\n"
          "(whatever the password) is reported with a warning and exit status 4.\n");
  std::optional<std::string> offset, password_file;
  bool show_key = false;
  parser.Value("--offset", &offset);
  parser.Value("--password-file", &password_file);
  parser.Flag("--show-key", &show_key);
  bool allow_cost = false;
  parser.Flag("--allow-cost", &allow_cost);
  if (!parser.Parse(args, 1, 1)) return kExitOk;
  AllowAnyCost(allow_cost);
  Place place = ResolvePlace(parser.positional()[0], offset);
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

int RunPasswd(const std::vector<std::string>& args) {
  ArgParser parser(
      "usage: tavikm passwd KEY_LOC [--offset N] [--password-file FILE] "
      "[--new-password-file FILE] [--allow-empty-password] [--allow-cost]",
      std::string("Changes the password of KEY_LOC: unwraps the master key with the old password,\n"
                  "wraps the same key under the new one with a new salt, and stores the record\n"
                  "only when that succeeded; on any failure the old record stays as it was.\n\n") +
          kPlaceHelp +
          "\n"
          "  --offset N               where the record lies in a metadata file (default 0)\n"
          "  --allow-cost             derive even when the record asks for scrypt beyond\n"
          "                           N·r·p·128 = 1 GiB\n" +
          kPasswordHelp +
          "  --new-password-file FILE read the new password from FILE (- for standard input: the\n"
          "                           line after the old password when both are -)\n" +
          kEmptyPasswordHelp);
  std::optional<std::string> offset, password_file, new_password_file;
  parser.Value("--offset", &offset);
  parser.Value("--password-file", &password_file);
  parser.Value("--new-password-file", &new_password_file);
  bool allow_cost = false;
  parser.Flag("--allow-cost", &allow_cost);
  bool allow_empty = false;
  parser.Flag("--allow-empty-password", &allow_empty);
  if (!parser.Parse(args, 1, 1)) return kExitOk;
  AllowAnyCost(allow_cost);
  Place place = ResolvePlace(parser.positional()[0], offset);
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

int RunInspect(const std::vector<std::string>& args) {
  ArgParser parser(
      "usage: tavikm inspect KEY_LOC|--entry NAME|--file PATH [--offset N] [--json]",
      std::string(
          "Decodes every field of a stored record or KEK without a password and without the\n"
          "library's checks: a secure-storage entry is read as stored (an older generation\n"
          "shows its real length and is not upgraded), a file's 2704 bytes at the offset\n"
          "are shown whatever they hold. An all-zero slot is reported as empty (exit status "
          "3).\n\n") +
          kPlaceHelp +
          "\n"
          "  --entry NAME             read the secure-storage entry NAME, whatever the MDFPP flag\n"
          "                           says\n"
          "  --file PATH              read PATH as a metadata file, whatever the MDFPP flag says\n"
          "  --offset N               where the record lies in the file (default 0)\n"
          "  --json                   print one JSON object instead of text\n");
  std::optional<std::string> entry, file, offset;
  bool json = false;
  parser.Value("--entry", &entry);
  parser.Value("--file", &file);
  parser.Value("--offset", &offset);
  parser.Flag("--json", &json);
  if (!parser.Parse(args, 0, 1)) return kExitOk;
  if (entry.has_value() + file.has_value() + !parser.positional().empty() != 1) {
    throw UsageError("give one of KEY_LOC, --entry NAME and --file PATH");
  }
  Place place;
  if (entry) {
    if (offset) throw UsageError("--offset applies to metadata files only");
    if (entry->empty()) throw UsageError("the entry name is empty");
    place = Place{true, *entry, 0};
  } else {
    place = ResolvePlace(file ? *file : parser.positional()[0], offset, file.has_value());
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

int RunKek(const std::vector<std::string>& args) {
  const std::string usage = "usage: tavikm kek put|get|delete NAME [options]";
  SetCurrentUsage(usage);
  if (args.empty()) throw UsageError("missing kek command");
  const std::string& verb = args[0];
  std::vector<std::string> rest(args.begin() + 1, args.end());
  const std::string store_help =
      "KEKs live in secure storage, encrypted by the Keymaster, under NAME (a record's key\n"
      "location is a name in the same store).\n";
  if (verb == "--help" || verb == "-h") {
    printf(
        "%s\n%s\n  put NAME                 store a KEK\n  get NAME                 print a KEK's "
        "fingerprint\n"
        "  delete NAME              remove a KEK\nSee tavikm kek put|get|delete --help.\n",
        usage.c_str(), store_help.c_str());
    return kExitOk;
  }
  if (verb == "put") {
    ArgParser parser(
        "usage: tavikm kek put NAME --hex HEX|--key-file FILE|--random [--keysize 16|32] "
        "[--show-key] [--force]",
        store_help +
            "\n"
            "  --hex HEX                the KEK as hexadecimal text (16 or 32 bytes; visible to\n"
            "                           other users in the process list, prefer --key-file)\n"
            "  --key-file FILE          read the KEK as hexadecimal text from FILE (- for "
            "standard\n"
            "                           input)\n"
            "  --random                 a new random KEK of --keysize bytes (default 32)\n"
            "  --show-key               print the KEK itself, not only its fingerprint\n"
            "  --force                  replace an existing entry of that name\n");
    std::optional<std::string> hex, key_file, keysize;
    bool random = false, show_key = false, force = false;
    parser.Value("--hex", &hex);
    parser.Value("--key-file", &key_file);
    parser.Flag("--random", &random);
    parser.Value("--keysize", &keysize);
    parser.Flag("--show-key", &show_key);
    parser.Flag("--force", &force);
    if (!parser.Parse(rest, 1, 1)) return kExitOk;
    CheckKeyLocation(parser.positional()[0]);
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
    const std::string& name = parser.positional()[0];
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
  if (verb == "get") {
    ArgParser parser(
        "usage: tavikm kek get NAME [--show-key]",
        store_help +
            "\nPrints the KEK's length and fingerprint. When the library answers that\n"
            "the Keymaster key was upgraded on the way, it is asked once more; the\n"
            "library has then stored the entry NAME again with the upgraded key.\n\n"
            "  --show-key               print the KEK itself too\n");
    bool show_key = false;
    parser.Flag("--show-key", &show_key);
    if (!parser.Parse(rest, 1, 1)) return kExitOk;
    const std::string& name = parser.positional()[0];
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
  if (verb == "delete") {
    ArgParser parser("usage: tavikm kek delete NAME", store_help);
    if (!parser.Parse(rest, 1, 1)) return kExitOk;
    const std::string& name = parser.positional()[0];
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
  throw UsageError("unknown kek command " + verb);
}

}  // namespace tavikm_tool
