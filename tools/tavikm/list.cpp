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
#include "record_view.h"
#include "tavikm_host/device.h"

namespace tavikm_tool {
namespace {

struct Item {
  std::string name;  // entry name, or the offset in a metadata file
  bool name_complete = true;
  RawRecord raw;
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
    item.raw = ReadImage(dir + "/" + entry->d_name, 0);
    struct stat st;
    if (stat((dir + "/" + entry->d_name).c_str(), &st) == 0) {
      item.raw.stored_length = static_cast<uint64_t>(st.st_size);
    }
    if (auto owner = legacy.find(item.name); owner != legacy.end()) {
      item.legacy_kek_of = owner->second;
    }
    items.push_back(item);
  }
  closedir(folder);
  std::sort(items.begin(), items.end(),
            [](const Item& a, const Item& b) { return a.name < b.name; });
  return items;
}

// Every offset of a metadata file where a record begins (its magic), in order.
std::vector<Item> FileItems(const std::string& path) {
  std::vector<Item> items;
  RawRecord whole = ReadImage(path, 0);
  if (!whole.found) throw ToolError(kExitNotFound, "no metadata file " + path);
  uint64_t end = whole.regular_file ? whole.file_size : KM_METADATA_FILE_SIZE;
  const uint8_t magic[4] = {KM_META_MAGIC & 0xff, (KM_META_MAGIC >> 8) & 0xff,
                            (KM_META_MAGIC >> 16) & 0xff, KM_META_MAGIC >> 24};
  std::vector<uint8_t> bytes(static_cast<size_t>(std::min<uint64_t>(end, 1 << 20)));
  tavikm::ScopedFd fd(open(path.c_str(), O_RDONLY | O_CLOEXEC));
  if (!fd.ok()) throw ToolError(kExitFailure, "cannot open " + path + ": " + strerror(errno));
  ssize_t got = pread(fd.get(), bytes.data(), bytes.size(), 0);
  if (got < 0) throw ToolError(kExitFailure, "cannot read " + path + ": " + strerror(errno));
  for (size_t at = 0; at + KM_META_SIZE <= static_cast<size_t>(got);) {
    if (memcmp(bytes.data() + at, magic, sizeof(magic)) != 0) {
      ++at;
      continue;
    }
    Item item;
    item.name = std::to_string(at);
    item.raw = ReadImage(path, at);
    items.push_back(item);
    at += KM_META_SIZE;
  }
  return items;
}

std::string Kind(const RawRecord& raw) {
  if (raw.Kek()) return "KEK";
  if (raw.meta.magic != KM_META_MAGIC) return "unknown";
  return "record";
}

// Fields are read only from what has a record's magic: anything else may be a plain KEK.
bool HasFields(const Item& item) {
  return !item.legacy_kek_of && item.raw.meta.magic == KM_META_MAGIC;
}

std::string KindText(const Item& item) { return item.legacy_kek_of ? "KEK" : Kind(item.raw); }

std::string SizeText(const Item& item) {
  if (item.legacy_kek_of) return std::to_string(item.raw.stored_length);
  return HasFields(item) ? std::to_string(item.raw.meta.keysize) : "-";
}

std::string KdfText(const RawRecord& raw) {
  if (Kind(raw) != "record") return "-";
  const km_meta& m = raw.meta;
  std::string text = std::to_string(m.kdf_type) + " " + KdfName(m.kdf_type);
  if (m.kdf_type == KM_KDF_SCRYPT || m.kdf_type == KM_KDF_SCRYPT_KEYMASTER) {
    text += " " + std::to_string(m.N_factor) + ":" + std::to_string(m.r_factor) + ":" +
            std::to_string(m.p_factor);
  }
  return text;
}

std::string GenerationText(const Item& item) {
  if (item.legacy_kek_of) return "legacy, plain: the KEK of " + *item.legacy_kek_of;
  const RawRecord& raw = item.raw;
  if (raw.stored_length != KM_META_SIZE) return std::to_string(raw.stored_length) + " bytes";
  if (raw.meta.major_version <= 2) return "v" + std::to_string(raw.meta.major_version);
  return "current";
}

void PrintTable(const std::string& key_title, const std::vector<Item>& items) {
  printf("  %-20s %-7s %-34s %-5s %s\n", key_title.c_str(), "KIND", "KDF", "SIZE", "GENERATION");
  for (const Item& item : items) {
    std::string name = item.name + (item.name_complete ? "" : "...");
    printf("  %-20s %-7s %-34s %-5s %s\n", name.c_str(), KindText(item).c_str(),
           KdfText(item.raw).c_str(), SizeText(item).c_str(), GenerationText(item).c_str());
  }
}

std::string ItemJson(const std::string& key, const std::string& key_value, const Item& item) {
  const km_meta& m = item.raw.meta;
  std::string kind = Kind(item.raw);
  std::string json = "{" + JsonString(key) + ": " + key_value;
  if (!item.name_complete) json += ", \"name_complete\": false";
  if (item.legacy_kek_of) {
    return json + ", \"kind\": \"legacy_kek\", \"kek_of\": " + JsonString(*item.legacy_kek_of) +
           ", \"keysize\": " + std::to_string(item.raw.stored_length) +
           ", \"stored_length\": " + std::to_string(item.raw.stored_length) + "}";
  }
  json += ", \"kind\": " + JsonString(kind == "KEK" ? "kek" : kind);
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

int RunList(const std::vector<std::string>& args) {
  ArgParser parser(
      "usage: tavikm list [FILE]... [--json]",
      "Lists the entries of secure storage, records and KEKs, with their KDF (type, then the\n"
      "scrypt factors N:r:p), their key size in bytes and their generation; and for each\n"
      "metadata FILE, the records at every offset that holds one. No password is needed.\n\n"
      "  --json                   print one JSON object instead of tables\n");
  bool json = false;
  parser.Flag("--json", &json);
  if (!parser.Parse(args, 0, SIZE_MAX)) return kExitOk;
  std::string dir = tavikm_host::DevicePath("kmstore");
  std::vector<Item> entries = SecureStorageItems(dir);
  std::vector<std::pair<std::string, std::vector<Item>>> files;
  for (const std::string& path : parser.positional()) files.push_back({path, FileItems(path)});

  if (json) {
    std::string out = "{\n  \"secure_storage\": {\"dir\": " + JsonString(dir) + ", \"entries\": [";
    for (size_t i = 0; i < entries.size(); ++i) {
      out += (i ? ",\n    " : "\n    ") + ItemJson("name", JsonString(entries[i].name), entries[i]);
    }
    out += entries.empty() ? "]},\n" : "\n  ]},\n";
    out += "  \"files\": [";
    for (size_t f = 0; f < files.size(); ++f) {
      out += (f ? ",\n    " : "\n    ") + std::string("{\"path\": ") + JsonString(files[f].first) +
             ", \"records\": [";
      const std::vector<Item>& items = files[f].second;
      for (size_t i = 0; i < items.size(); ++i) {
        out += (i ? ",\n      " : "\n      ") + ItemJson("offset", items[i].name, items[i]);
      }
      out += items.empty() ? "]}" : "\n    ]}";
    }
    out += files.empty() ? "]\n}\n" : "\n  ]\n}\n";
    fputs(out.c_str(), stdout);
    return kExitOk;
  }
  printf("Secure storage (%s): %zu %s\n", dir.c_str(), entries.size(),
         entries.size() == 1 ? "entry" : "entries");
  if (!entries.empty()) PrintTable("NAME", entries);
  for (const auto& [path, items] : files) {
    printf("%s: %zu %s\n", path.c_str(), items.size(), items.size() == 1 ? "record" : "records");
    if (!items.empty()) PrintTable("OFFSET", items);
  }
  return kExitOk;
}

}  // namespace tavikm_tool
