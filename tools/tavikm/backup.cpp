// SPDX-License-Identifier: Apache-2.0
// `tavikm backup` and `tavikm restore`: a record's stored bytes (for secure storage, the entry
// as stored, whatever its generation) in a file with a small header and a SHA-256 over both.
//
// The file, all numbers little-endian:
//   "TAVIKMBK" | u32 version (1) | u32 place (1 secure-storage entry, 2 metadata file)
//   | u64 offset | u32 key location length | u32 image length | key location | image
//   | SHA-256 of everything before it
#include <errno.h>
#include <fcntl.h>
#include <openssl/crypto.h>
#include <stdio.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include <optional>
#include <string>
#include <vector>

#include "cli.h"
#include "commands.h"
#include "common/files.h"
#include "common/le_codec.h"
#include "common/scopers.h"
#include "confirm.h"
#include "guards.h"
#include "input_files.h"
#include "keymaster/Keymaster.h"
#include "legacy_kek.h"
#include "log_sink.h"
#include "operations.h"
#include "outcome.h"
#include "place.h"
#include "record_store.h"
#include "text.h"
#include "write_guard.h"

namespace tavikm_tool {
namespace {

constexpr char kMagic[8] = {'T', 'A', 'V', 'I', 'K', 'M', 'B', 'K'};
constexpr uint32_t kVersion = 1;
constexpr uint32_t kEntry = 1, kFile = 2;
constexpr size_t kHeaderSize = 8 + 4 + 4 + 8 + 4 + 4;
constexpr size_t kDigestSize = 32;
constexpr size_t kMaxKeyLoc = 4096;

struct Backup {
  bool secure_storage = false;
  uint64_t offset = 0;
  std::string loc;
  std::vector<uint8_t> image;
};

std::vector<uint8_t> Encode(const Backup& backup) {
  std::vector<uint8_t> out;
  tavikm::LeWriter(&out)
      .Bytes(kMagic, sizeof(kMagic))
      .U32(kVersion)
      .U32(backup.secure_storage ? kEntry : kFile)
      .U64(backup.offset)
      .U32(static_cast<uint32_t>(backup.loc.size()))
      .U32(static_cast<uint32_t>(backup.image.size()))
      .Bytes(backup.loc.data(), backup.loc.size())
      .Bytes(backup.image.data(), backup.image.size());
  uint8_t digest[kDigestSize];
  if (km_sha256(out.data(), out.size(), digest) != 0) {
    throw ToolError(kExitFailure, "SHA-256 failed");
  }
  tavikm::LeWriter(&out).Bytes(digest, sizeof(digest));
  return out;
}

// The backup in `bytes`, or an input error naming `file` and what is wrong with it.
Backup Decode(const std::vector<uint8_t>& bytes, const std::string& file) {
  tavikm::LeReader in(bytes.data(), bytes.size());
  uint8_t magic[sizeof(kMagic)];
  uint32_t version = 0, kind = 0, loc_size = 0, image_size = 0;
  uint64_t offset = 0;
  if (!in.Bytes(magic, sizeof(magic)) || memcmp(magic, kMagic, sizeof(kMagic)) != 0 ||
      !in.U32(&version) || !in.U32(&kind) || !in.U64(&offset) || !in.U32(&loc_size) ||
      !in.U32(&image_size) || in.remaining() < kDigestSize) {
    throw InputError(file + " is not a tavikm backup");
  }
  if (version != kVersion) {
    throw InputError(file + " is a backup of version " + std::to_string(version) +
                     ", which this tavikm does not read");
  }
  const uint8_t* loc = in.Take(loc_size);
  const uint8_t* image = in.Take(image_size);
  size_t body = in.position();
  const uint8_t* stored_digest = in.Take(kDigestSize);
  if (!in.done()) throw InputError(file + " is damaged: its length does not match its header");
  uint8_t digest[kDigestSize];
  if (km_sha256(bytes.data(), body, digest) != 0) throw ToolError(kExitFailure, "SHA-256 failed");
  if (CRYPTO_memcmp(digest, stored_digest, kDigestSize) != 0) {
    throw InputError(file + " is damaged: its SHA-256 does not match");
  }
  if ((kind != kEntry && kind != kFile) || loc_size == 0 || loc_size > kMaxKeyLoc ||
      image_size == 0 || image_size > KM_META_SIZE ||
      (kind == kFile && image_size != KM_META_SIZE)) {
    throw InputError(file + " is not a tavikm backup");
  }
  Backup backup;
  backup.secure_storage = kind == kEntry;
  backup.offset = offset;
  backup.loc.assign(reinterpret_cast<const char*>(loc), loc_size);
  backup.image.assign(image, image + image_size);
  return backup;
}

// "-" is standard input or output; "./-" names a file called "-".
bool Standard(const std::string& file) { return file == "-"; }

std::vector<uint8_t> ReadBackupFile(const std::string& file) {
  // Standard input is whatever the caller connected (a pipe, a file); a named backup must be a
  // regular file.
  const std::string name = Standard(file) ? "standard input" : file;
  tavikm::ScopedFd fd(Standard(file) ? dup(STDIN_FILENO) : OpenRegularInput(file, "backup file"));
  if (!fd.ok()) throw InputError("cannot read " + name + ": " + strerror(errno));
  std::vector<uint8_t> bytes;
  uint8_t buffer[4096];
  const size_t limit = kHeaderSize + kMaxKeyLoc + KM_META_SIZE + kDigestSize;
  for (;;) {
    ssize_t n = read(fd.get(), buffer, sizeof(buffer));
    if (n < 0 && errno == EINTR) continue;
    if (n < 0) throw InputError("cannot read " + name + ": " + strerror(errno));
    if (n == 0) break;
    bytes.insert(bytes.end(), buffer, buffer + n);
    if (bytes.size() > limit) break;  // longer than any backup; Decode refuses it
  }
  return bytes;
}

// Writes the backup to standard output, synchronised when that is a file.
void WriteStandardOutput(const std::vector<uint8_t>& bytes) {
  struct stat st;
  bool ok = tavikm::WriteAll(STDOUT_FILENO, bytes.data(), bytes.size()) &&
            (fstat(STDOUT_FILENO, &st) != 0 || !S_ISREG(st.st_mode) || fsync(STDOUT_FILENO) == 0);
  if (!ok) {
    throw ToolError(kExitFailure,
                    std::string("cannot write the backup to standard output: ") + strerror(errno));
  }
}

// Writes a new file `file` (never replacing one), synchronised before it is reported written.
void WriteNewFile(const std::string& file, const std::vector<uint8_t>& bytes) {
  tavikm::ScopedFd fd(open(file.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0600));
  if (!fd.ok()) {
    if (errno == EEXIST) {
      throw ToolError(kExitFailure, file + " already exists; a backup never replaces a file");
    }
    throw ToolError(kExitFailure, "cannot create " + file + ": " + strerror(errno));
  }
  int err =
      tavikm::WriteAll(fd.get(), bytes.data(), bytes.size()) && fsync(fd.get()) == 0 ? 0 : errno;
  if (fd.close() != 0 && !err) err = errno;
  if (err) {
    unlink(file.c_str());
    throw ToolError(kExitFailure, "cannot write " + file + ": " + strerror(err));
  }
}

// Every byte restore writes goes through here, under the place's lock: a whole record through
// the same locked, journaled and read-back store as every other change; an older, shorter
// secure-storage entry as the stored image it was (the host writes entries atomically).
void WriteImage(const OpenedPlace& opened, const std::vector<uint8_t>& image) {
  const Place& place = opened.place();
  if (image.size() == KM_META_SIZE) {
    km_meta meta;
    memcpy(&meta, image.data(), sizeof(meta));
    try {
      StoreRecord(opened, meta, "the restored record");
    } catch (...) {
      OPENSSL_cleanse(&meta, sizeof(meta));
      throw;
    }
    OPENSSL_cleanse(&meta, sizeof(meta));
    return;
  }
  int rc = SecureStorage()->write(place.loc.c_str(), image.data(), image.size());
  if (rc < 0) {
    throw ToolError(kExitFailure, "cannot write " + place.Describe() + ": " + strerror(-rc));
  }
}

std::string Summary(const Place& place, const std::vector<uint8_t>& image) {
  RawRecord raw;
  memcpy(&raw.meta, image.data(), image.size());
  raw.stored_length = image.size();
  // Nothing is read from bytes without a record's magic: they may be a plain KEK.
  std::string kind = raw.Kek() ? "a KEK" : "kdf " + KdfName(raw.meta.kdf_type);
  if (!raw.Kek() && raw.meta.magic != KM_META_MAGIC) {
    std::optional<std::string> owner =
        place.secure_storage ? LegacyKekOwner(place.loc) : std::nullopt;
    kind = owner ? "the legacy KEK of \"" + *owner + "\"" : "no record";
  }
  OPENSSL_cleanse(&raw.meta, sizeof(raw.meta));
  return place.Describe() + " (" + std::to_string(image.size()) + " bytes, " + kind + ")";
}

}  // namespace

int RunBackup(const Invocation& in) {
  std::optional<std::string> offset = in.Value("--offset");
  Place place = ResolvePlace(in.positional()[0], offset);
  const std::string& file = in.positional()[1];
  if (Standard(file) && isatty(STDOUT_FILENO)) {
    throw UsageError("a backup is not written to a terminal: redirect standard output");
  }
  OpenedPlace opened(place);  // a consistent copy, as an interrupted change left it to stand
  RawRecord raw = ReadRaw(place);
  if (raw.Empty()) {
    throw ToolError(kExitNotFound, place.secure_storage
                                       ? "no entry named \"" + place.loc + "\" in secure storage"
                                       : place.Describe() + " holds no record");
  }
  if (raw.stored_length > KM_META_SIZE ||
      (!place.secure_storage && raw.stored_length != KM_META_SIZE)) {
    throw ToolError(kExitFailure, place.Describe() + " does not hold a whole record");
  }
  Backup backup;
  backup.secure_storage = place.secure_storage;
  backup.offset = place.offset;
  backup.loc = place.loc;
  const uint8_t* bytes = reinterpret_cast<const uint8_t*>(&raw.meta);
  backup.image.assign(bytes, bytes + raw.stored_length);
  std::vector<uint8_t> encoded = Encode(backup);
  if (Standard(file)) {
    WriteStandardOutput(encoded);
    NoteChanged("the backup was written to standard output");
  } else {
    WriteNewFile(file, encoded);
    NoteChanged("the backup " + file + " was written");
  }
  OPENSSL_cleanse(encoded.data(), encoded.size());
  OPENSSL_cleanse(backup.image.data(), backup.image.size());
  // With the backup on standard output, the report goes to stderr.
  fprintf(
      Standard(file) ? stderr : stdout, "Backed up %s to %s\n",
      TerminalText(Summary(place, std::vector<uint8_t>(bytes, bytes + raw.stored_length))).c_str(),
      TerminalText(Standard(file) ? "standard output" : file).c_str());
  return kExitOk;
}

int RunRestore(const Invocation& in) {
  std::optional<std::string> offset = in.Value("--offset");
  bool force = in.Flag("--force");
  Place place = ResolvePlace(in.positional()[0], offset);
  const std::string& file = in.positional()[1];
  if (Standard(file) && isatty(STDIN_FILENO)) {
    throw UsageError("a backup is not read from a terminal: redirect standard input");
  }
  std::vector<uint8_t> bytes = ReadBackupFile(file);
  const std::string source = Standard(file) ? "standard input" : file;
  Backup backup = Decode(bytes, source);
  OPENSSL_cleanse(bytes.data(), bytes.size());
  if (backup.secure_storage != place.secure_storage) {
    throw InputError(source + " holds " +
                     (backup.secure_storage ? "a secure-storage entry" : "a metadata file record") +
                     "; " + place.loc + " is " +
                     (place.secure_storage ? "a secure-storage entry" : "a metadata file"));
  }
  if (backup.loc != place.loc && !force) {
    throw InputError(source + " is the backup of " + backup.loc + ", not of " + place.loc +
                     "; --force restores it there");
  }
  if (!place.secure_storage && !offset) place.offset = backup.offset;
  CheckRoom(place);
  CheckFits(place);
  if (Holds(place)) {
    ConfirmLoss(place.Describe() + " is replaced by the backup: what it holds now is lost.");
  }
  OpenedPlace opened(place);
  // Under the lock: the file as it is now, and no record beside it overwritten.
  CheckFits(place, opened.fd());
  RefuseOverlap(opened);
  // A plain KEK comes back only from a backup of it; nothing else replaces it.
  if (place.secure_storage && backup.loc != place.loc) RefuseLegacyKek(place.loc, "restore");
  WriteGuard guard(opened, nullptr, 0);
  guard.Run([&] {
    WriteImage(opened, backup.image);
    return 0;
  });
  NoteChanged(place.Describe() + " was restored from " + source);
  printf("Restored %s from %s\n", TerminalText(Summary(place, backup.image)).c_str(),
         TerminalText(source).c_str());
  OPENSSL_cleanse(backup.image.data(), backup.image.size());
  return kExitOk;
}

int RunErase(const Invocation& in) {
  std::optional<std::string> offset = in.Value("--offset");
  bool destroy_key = in.Flag("--destroy-key");
  Place place = ResolvePlace(in.positional()[0], offset);
  CheckRoom(place);
  auto check = [&](const RawRecord& raw) {
    if (raw.Empty()) {
      throw ToolError(kExitNotFound, place.secure_storage
                                         ? "no record named \"" + place.loc + "\" in secure storage"
                                         : "no record in " + place.Describe());
    }
    if (place.secure_storage) RefuseLegacyKek(place.loc, "erase");
    if (raw.Kek()) {
      throw ToolError(kExitFailure, place.Describe() +
                                        " holds a KEK, not the record of a master key (tavikm "
                                        "kek delete " +
                                        place.loc + " removes it)");
    }
  };
  check(ReadRaw(place));
  ConfirmLoss(place.Describe() + " is erased: its master key is lost" +
              (destroy_key ? ", and with its Keymaster key no backup of it opens again."
                           : " unless a backup of it is restored."));
  OpenedPlace opened(place);
  RawRecord raw = ReadRaw(place);
  check(raw);
  // The key blob is taken before the record goes; only a size the field holds is trusted.
  std::string key;
  if (destroy_key && raw.meta.km_key_blob_size > 0 &&
      raw.meta.km_key_blob_size <= KM_KEY_BLOB_CAPACITY) {
    key.assign(reinterpret_cast<const char*>(raw.meta.km_key_blob),
               static_cast<size_t>(raw.meta.km_key_blob_size));
  }
  OPENSSL_cleanse(&raw.meta, sizeof(raw.meta));
  WriteGuard guard(opened, nullptr, 0);
  guard.Run([&] {
    if (place.secure_storage) {
      ForgetSeen();
      if (km_delete_meta(place.loc.c_str(), 0) != 0) {
        throw ToolError(kExitFailure, "cannot erase " + place.Describe() + Why());
      }
    } else {
      WriteImage(opened, std::vector<uint8_t>(KM_META_SIZE, 0));
    }
    return 0;
  });
  NoteChanged(place.Describe() + " was erased");
  printf("Erased %s\n", TerminalText(place.Describe()).c_str());
  if (destroy_key) {
    if (key.empty()) {
      printf("It had no Keymaster key: a backup of it still opens with its password.\n");
      return kExitOk;
    }
    android::mdfpp::Keymaster keymaster;
    if (!keymaster || !keymaster.deleteKey(key)) {
      throw ToolError(kExitFailure,
                      "the record is erased, but its Keymaster key could not be "
                      "deleted: a backup of it still opens");
    }
    printf("Deleted its Keymaster key: no backup of it opens again.\n");
  }
  return kExitOk;
}

}  // namespace tavikm_tool
