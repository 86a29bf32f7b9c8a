// SPDX-License-Identifier: Apache-2.0
// The place of a record as the library chooses it (a secure-storage entry, or a metadata file at
// an offset), and raw reads of whatever is stored there, without the library's checks or
// upgrades.
#ifndef TAVIKM_TOOLS_PLACE_H_
#define TAVIKM_TOOLS_PLACE_H_

#include <stdint.h>
#include <sys/stat.h>

#include <optional>
#include <string>

#include "tavikm.h"

namespace tavikm_tool {

struct Place {
  bool secure_storage = false;
  std::string loc;  // the key location: entry name or file path
  uint64_t offset = 0;

  // `secure-storage entry "userdata"` or `/path/meta at offset 4096`.
  std::string Describe() const;
};

// Where the library will put `loc`: secure storage when the MDFPP flag is set and `loc` does not
// begin with '/', else the file. `force_file` makes it a file whatever the flag says (inspect
// --file). An --offset for a secure-storage entry is a usage error.
Place ResolvePlace(const std::string& loc, const std::optional<std::string>& offset,
                   bool force_file = false);

// A usage error for a key location or KEK name the record's 256-byte key_name cannot hold with
// its terminating NUL (the library would copy it past the field).
void CheckKeyLocation(const std::string& loc);

// A usage error unless a record at the place fits: in a regular (or missing) metadata file it
// must end within the file's 16384 bytes.
void CheckRoom(const Place& place);

struct RawRecord {
  bool found = false;          // the entry or the file exists
  uint64_t stored_length = 0;  // entry length, or bytes read from the file at the offset
  km_meta meta{};              // the stored bytes; zeros past the stored length
  // Files only.
  bool regular_file = false;
  uint64_t file_size = 0;

  // No record there: no entry, no file, or only zeros at the offset (a deleted record).
  bool Empty() const;
  // A KEK of the REK/KEK store: a record image without a KDF, holding the encrypted KEK.
  bool Kek() const;
};

// Opens `path` without blocking (a FIFO would otherwise hang the open) and refuses anything that
// is not a regular file or a block device with one sentence (exit 4). Returns the descriptor, or
// -1 when the file does not exist; `st` receives its status.
int OpenMetadataFile(const std::string& path, struct stat* st);

// Reads the stored bytes. Throws a failure when the place cannot be read at all.
RawRecord ReadRaw(const Place& place);

// The secure-storage device; throws a failure when it cannot be opened.
kmstore_device* SecureStorage();

}  // namespace tavikm_tool

#endif  // TAVIKM_TOOLS_PLACE_H_
