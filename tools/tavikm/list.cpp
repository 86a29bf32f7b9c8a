// SPDX-License-Identifier: Apache-2.0
// `tavikm list`: the entries of secure storage (records and KEKs, with their names decoded from
// the host's file names) and the records found in metadata files.
#include <ctype.h>
#include <dirent.h>
#include <errno.h>
#include <fcntl.h>
#include <stdint.h>
#include <stdio.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <iterator>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "cli.h"
#include "commands.h"
#include "common/scopers.h"
#include "legacy_kek.h"
#include "operations.h"
#include "place.h"
#include "progress.h"
#include "record_view.h"
#include "tavikm_host/device.h"
#include "text.h"

namespace tavikm_tool {
namespace {

struct Item {
  std::string name;  // entry name, or the offset in a metadata file
  bool name_complete = true;
  RawRecord raw;
  // An entry that is not a regular file, or could not be read: what it is, and why not.
  std::string unusual;
  std::string why;
  std::optional<std::string> legacy_kek_of;  // the record whose plain KEK this entry is
};

// The entry name of a kmstore file name ("e-" and %XX escapes), false when it is not one. A long
// name was stored as a prefix and a hash: the prefix is all that can be recovered.
bool DecodeEntryName(const std::string& file, std::string* name, bool* complete) {
  if (file.rfind("e-", 0) != 0) return false;
  name->clear();
  *complete = true;
  for (size_t i = 2; i < file.size(); ++i) {
    char c = file[i];
    if (c == '~') {
      *complete = false;
      return true;
    }
    if (c == '%' && i + 2 < file.size() && isxdigit(static_cast<unsigned char>(file[i + 1])) &&
        isxdigit(static_cast<unsigned char>(file[i + 2]))) {
      *name += static_cast<char>(std::stoi(file.substr(i + 1, 2), nullptr, 16));
      i += 2;
    } else {
      *name += c;
    }
  }
  return true;
}

// Reads up to one record's bytes of `path` from `offset`.
RawRecord ReadImage(const std::string& path, uint64_t offset) {
  Place place{false, path, offset};
  return ReadRaw(place);
}

std::string UnusualKind(mode_t mode) {
  if (S_ISFIFO(mode)) return "fifo";
  if (S_ISCHR(mode)) return "character_device";
  if (S_ISBLK(mode)) return "block_device";
  if (S_ISDIR(mode)) return "directory";
  if (S_ISLNK(mode)) return "symlink";
  if (S_ISSOCK(mode)) return "socket";
  return "special_file";
}

// One secure-storage entry, read as the host stores it. Only a regular file is opened (never
// through a symbolic link, never blocking): a FIFO, a device or a link placed among the entries
// is reported as what it is and does not stop the listing.
void ReadEntry(const std::string& path, Item* item) {
  auto unreadable = [item](int err) {
    item->unusual = "unreadable";
    item->why = strerror(err);
  };
  struct stat st;
  if (lstat(path.c_str(), &st) != 0) return unreadable(errno);
  if (!S_ISREG(st.st_mode)) {
    item->unusual = UnusualKind(st.st_mode);
    return;
  }
  tavikm::ScopedFd fd(open(path.c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC));
  if (!fd.ok() || fstat(fd.get(), &st) != 0) return unreadable(errno);
  if (!S_ISREG(st.st_mode)) {
    item->unusual = UnusualKind(st.st_mode);
    return;
  }
  uint8_t* buffer = reinterpret_cast<uint8_t*>(&item->raw.meta);
  size_t got = 0;
  while (got < sizeof(item->raw.meta)) {
    ssize_t n =
        pread(fd.get(), buffer + got, sizeof(item->raw.meta) - got, static_cast<off_t>(got));
    if (n < 0 && errno == EINTR) continue;
    if (n < 0) return unreadable(errno);
    if (n == 0) break;
    got += static_cast<size_t>(n);
  }
  item->raw.found = true;
  item->raw.stored_length = static_cast<uint64_t>(st.st_size);
}

std::vector<Item> SecureStorageItems(const std::string& dir) {
  std::vector<Item> items;
  const std::map<std::string, std::string> legacy = LegacyKekEntries();
  DIR* folder = opendir(dir.c_str());
  if (!folder) {
    if (errno == ENOENT) return items;
    throw ToolError(kExitFailure, "cannot list " + dir + ": " + strerror(errno));
  }
  while (dirent* entry = readdir(folder)) {
    Item item;
    if (!DecodeEntryName(entry->d_name, &item.name, &item.name_complete)) continue;
    ReadEntry(dir + "/" + entry->d_name, &item);
    if (auto owner = legacy.find(item.name); owner != legacy.end() && item.unusual.empty()) {
      item.legacy_kek_of = owner->second;
    }
    items.push_back(item);
  }
  closedir(folder);
  std::sort(items.begin(), items.end(),
            [](const Item& a, const Item& b) { return a.name < b.name; });
  return items;
}

// Reads `size` bytes at `offset`, fewer only at the end of the file.
size_t ReadAt(int fd, const std::string& path, uint8_t* out, size_t size, uint64_t offset) {
  size_t got = 0;
  while (got < size) {
    ssize_t n = pread(fd, out + got, size - got, static_cast<off_t>(offset + got));
    if (n < 0 && errno == EINTR) continue;
    if (n < 0) {
      throw ToolError(kExitFailure, "cannot read " + path + " at offset " +
                                        std::to_string(offset + got) + ": " + strerror(errno));
    }
    if (n == 0) break;
    got += static_cast<size_t>(n);
  }
  return got;
}

// Every offset where a whole record begins (its magic), in order. Setup places a record at any
// byte offset of a block device and refuses one that overlaps another, so every byte is looked
// at and a record's own 2704 bytes are skipped. The file is read in large chunks, each after the
// last bytes of the one before, so a magic across two chunks is found.
std::vector<uint64_t> RecordOffsets(int fd, const std::string& path, uint64_t size) {
  constexpr size_t kChunk = size_t{4} << 20;
  constexpr size_t kCarry = sizeof(uint32_t) - 1;
  const uint8_t magic[4] = {KM_META_MAGIC & 0xff, (KM_META_MAGIC >> 8) & 0xff,
                            (KM_META_MAGIC >> 16) & 0xff, KM_META_MAGIC >> 24};
  std::vector<uint64_t> offsets;
  std::vector<uint8_t> buffer(kCarry + kChunk);
  const std::string what = "looking for records in " + TerminalText(path);
  Progress progress(what);
  uint64_t next = 0;  // the first offset not inside a record already found
  size_t carried = 0;
  for (uint64_t at = 0; at < size;) {
    size_t got = ReadAt(fd, path, buffer.data() + carried, kChunk, at);
    if (got == 0) break;
    const uint64_t base = at - carried;  // the file offset of buffer[0]
    const size_t length = carried + got;
    const uint8_t* end = buffer.data() + length;
    for (const uint8_t* p = buffer.data();
         (p = static_cast<const uint8_t*>(memchr(p, magic[0], static_cast<size_t>(end - p))));
         ++p) {
      if (p + sizeof(magic) > end) break;
      const uint64_t offset = base + static_cast<uint64_t>(p - buffer.data());
      if (offset < next || memcmp(p, magic, sizeof(magic)) != 0) continue;
      if (offset + KM_META_SIZE > size) break;
      offsets.push_back(offset);
      next = offset + KM_META_SIZE;
    }
    at += got;
    carried = std::min(kCarry, length);
    memmove(buffer.data(), end - carried, carried);
    progress.Update(what + ": " + std::to_string(at * 100 / size) + "%");
  }
  return offsets;
}

std::vector<Item> FileItems(const std::string& path) {
  struct stat st;
  tavikm::ScopedFd fd(OpenMetadataFile(path, &st));
  if (!fd.ok()) throw ToolError(kExitNotFound, "no metadata file " + path);
  uint64_t size = static_cast<uint64_t>(st.st_size);
  if (S_ISBLK(st.st_mode)) {
    off_t end = lseek(fd.get(), 0, SEEK_END);
    if (end < 0) {
      throw ToolError(kExitFailure, "cannot find the size of " + path + ": " + strerror(errno));
    }
    size = static_cast<uint64_t>(end);
  }
  std::vector<Item> items;
  for (uint64_t offset : RecordOffsets(fd.get(), path, size)) {
    Item item;
    item.name = std::to_string(offset);
    item.raw = ReadImage(path, offset);
    items.push_back(item);
  }
  return items;
}

std::string Kind(const Item& item) {
  if (!item.unusual.empty()) return item.unusual;
  if (item.legacy_kek_of || item.raw.Kek()) return "KEK";
  if (item.raw.meta.magic != KM_META_MAGIC) return "unknown";
  return "record";
}

std::string KdfText(const Item& item) {
  if (Kind(item) != "record") return "-";
  const km_meta& m = item.raw.meta;
  std::string text = std::to_string(m.kdf_type) + " " + KdfName(m.kdf_type);
  if (m.kdf_type == KM_KDF_SCRYPT || m.kdf_type == KM_KDF_SCRYPT_KEYMASTER) {
    text += " " + std::to_string(m.N_factor) + ":" + std::to_string(m.r_factor) + ":" +
            std::to_string(m.p_factor);
  }
  return text;
}

// Fields are read only from what has a record's magic: anything else may be a plain KEK.
bool HasFields(const Item& item) {
  return item.unusual.empty() && !item.legacy_kek_of && item.raw.meta.magic == KM_META_MAGIC;
}

std::string SizeText(const Item& item) {
  if (item.legacy_kek_of) return std::to_string(item.raw.stored_length);
  return HasFields(item) ? std::to_string(item.raw.meta.keysize) : "-";
}

std::string GenerationText(const Item& item) {
  if (item.unusual == "unreadable") return item.why;
  if (!item.unusual.empty()) return "not a regular file";
  if (item.legacy_kek_of) return "legacy, plain: the KEK of " + TerminalText(*item.legacy_kek_of);
  const RawRecord& raw = item.raw;
  if (raw.stored_length != KM_META_SIZE) return std::to_string(raw.stored_length) + " bytes";
  if (raw.meta.major_version <= 2) return "v" + std::to_string(raw.meta.major_version);
  return "current";
}

// Columns are as wide as their widest cell, measured in terminal columns, so a name in any
// script lines up; names are escaped, so none can move the cursor or start a new row.
void PrintTable(const std::string& key_title, const std::vector<Item>& items) {
  std::vector<std::vector<std::string>> rows = {{key_title, "KIND", "KDF", "SIZE", "GENERATION"}};
  for (const Item& item : items) {
    rows.push_back({TerminalText(item.name) + (item.name_complete ? "" : "..."), Kind(item),
                    KdfText(item), SizeText(item), GenerationText(item)});
  }
  std::vector<size_t> widths = {20, 7, 34, 5, 0};
  for (const auto& row : rows) {
    for (size_t c = 0; c < row.size(); ++c) widths[c] = std::max(widths[c], DisplayWidth(row[c]));
  }
  for (const auto& row : rows) {
    std::string line = " ";
    for (size_t c = 0; c + 1 < row.size(); ++c) line += " " + PadToWidth(row[c], widths[c]);
    line += " " + row.back() + "\n";
    fputs(line.c_str(), stdout);
  }
}

std::string ItemJson(const std::string& key_member, const Item& item) {
  const km_meta& m = item.raw.meta;
  std::string kind = Kind(item);
  std::string json = "{" + key_member;
  if (!item.name_complete) json += ", \"name_complete\": false";
  json += ", \"kind\": " + JsonString(kind == "KEK" ? "kek" : kind);
  if (!item.unusual.empty()) {
    if (!item.why.empty()) json += ", \"error\": " + JsonString(item.why);
    return json + "}";
  }
  if (item.legacy_kek_of) {
    return "{" + key_member + (item.name_complete ? "" : ", \"name_complete\": false") +
           ", \"kind\": \"legacy_kek\", " + JsonTextMember("kek_of", *item.legacy_kek_of) +
           ", \"keysize\": " + std::to_string(item.raw.stored_length) +
           ", \"stored_length\": " + std::to_string(item.raw.stored_length) + "}";
  }
  if (!HasFields(item)) {
    return json + ", \"stored_length\": " + std::to_string(item.raw.stored_length) + "}";
  }
  json += ", \"kdf_type\": " + std::to_string(m.kdf_type);
  if (m.kdf_type == KM_KDF_SCRYPT || m.kdf_type == KM_KDF_SCRYPT_KEYMASTER) {
    json += ", \"N_factor\": " + std::to_string(m.N_factor) +
            ", \"r_factor\": " + std::to_string(m.r_factor) +
            ", \"p_factor\": " + std::to_string(m.p_factor);
  }
  json += ", \"keysize\": " + std::to_string(m.keysize);
  json += ", \"stored_length\": " + std::to_string(item.raw.stored_length);
  json += ", \"major_version\": " + std::to_string(m.major_version) + "}";
  return json;
}

}  // namespace

int RunList(const Invocation& in) {
  bool json = in.Flag("--json");
  std::string dir = tavikm_host::DevicePath("kmstore");
  std::vector<Item> entries = SecureStorageItems(dir);
  std::vector<std::pair<std::string, std::vector<Item>>> files;
  for (const std::string& path : in.positional()) files.push_back({path, FileItems(path)});

  if (json) {
    std::string out =
        "{\n  \"secure_storage\": {" + JsonTextMember("dir", dir) + ", \"entries\": [";
    for (size_t i = 0; i < entries.size(); ++i) {
      out += (i ? ",\n    " : "\n    ") +
             ItemJson(JsonTextMember("name", entries[i].name), entries[i]);
    }
    out += entries.empty() ? "]},\n" : "\n  ]},\n";
    out += "  \"files\": [";
    for (size_t f = 0; f < files.size(); ++f) {
      out += std::string(f ? ",\n    " : "\n    ") + "{" + JsonTextMember("path", files[f].first) +
             ", \"records\": [";
      const std::vector<Item>& items = files[f].second;
      for (size_t i = 0; i < items.size(); ++i) {
        out += (i ? ",\n      " : "\n      ") + ItemJson("\"offset\": " + items[i].name, items[i]);
      }
      out += items.empty() ? "]}" : "\n    ]}";
    }
    out += files.empty() ? "]\n}\n" : "\n  ]\n}\n";
    fputs(out.c_str(), stdout);
    return kExitOk;
  }
  printf("Secure storage (%s): %zu %s\n", TerminalText(dir).c_str(), entries.size(),
         entries.size() == 1 ? "entry" : "entries");
  if (!entries.empty()) PrintTable("NAME", entries);
  for (const auto& [path, items] : files) {
    printf("%s: %zu %s\n", TerminalText(path).c_str(), items.size(),
           items.size() == 1 ? "record" : "records");
    if (!items.empty()) PrintTable("OFFSET", items);
  }
  return kExitOk;
}

}  // namespace tavikm_tool
