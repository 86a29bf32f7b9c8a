// SPDX-License-Identifier: Apache-2.0
// Recognising the plain KEK entries of older-generation records.
#include "legacy_kek.h"

#include <dirent.h>
#include <errno.h>
#include <fcntl.h>
#include <openssl/crypto.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include "cli.h"
#include "common/scopers.h"
#include "record_view.h"
#include "tavikm_host/device.h"
#include "text.h"

namespace tavikm_tool {
namespace {

// The shortest generation of a record; its key_name ends exactly there.
constexpr uint64_t kShortestRecord = 2520;

// The key_name of the older-generation record in the kmstore file `path`, or "".
std::string OlderRecordName(const std::string& path) {
  tavikm::ScopedFd fd(open(path.c_str(), O_RDONLY | O_NONBLOCK | O_NOFOLLOW | O_CLOEXEC));
  struct stat st;
  if (!fd.ok() || fstat(fd.get(), &st) != 0 || !S_ISREG(st.st_mode)) return "";
  km_meta meta;
  ssize_t n = pread(fd.get(), &meta, sizeof(meta), 0);
  std::string name;
  if (n >= static_cast<ssize_t>(kShortestRecord) && meta.magic == KM_META_MAGIC &&
      meta.major_version <= 2) {
    name.assign(meta.key_name, strnlen(meta.key_name, sizeof(meta.key_name)));
  }
  OPENSSL_cleanse(&meta, sizeof(meta));
  return name;
}

}  // namespace

std::map<std::string, std::string> LegacyKekEntries() {
  std::map<std::string, std::string> entries;
  std::string dir = tavikm_host::DevicePath("kmstore");
  DIR* folder = opendir(dir.c_str());
  if (!folder) return entries;
  while (dirent* entry = readdir(folder)) {
    std::string name = OlderRecordName(dir + "/" + entry->d_name);
    if (!name.empty()) entries[name + "_kek"] = name;
  }
  closedir(folder);
  return entries;
}

std::optional<std::string> LegacyKekOwner(const std::string& name) {
  if (name.size() <= 4 || name.compare(name.size() - 4, 4, "_kek") != 0) return std::nullopt;
  std::map<std::string, std::string> entries = LegacyKekEntries();
  auto found = entries.find(name);
  if (found == entries.end()) return std::nullopt;
  return found->second;
}

bool DecodableEntry(const RawRecord& raw) { return raw.stored_length >= kShortestRecord; }

std::string OpaqueEntryText(const Place& place, const RawRecord& raw,
                            const std::optional<std::string>& owner) {
  std::string kind =
      owner ? "the legacy KEK of \"" + TerminalText(*owner, true) + "\", stored plain; not shown"
            : "no record; its bytes are not shown";
  return "place              " + TerminalText(place.Describe()) + "\nstored length      " +
         std::to_string(raw.stored_length) + " bytes\nkind               " + kind + "\n";
}

std::string OpaqueEntryJson(const Place& place, const RawRecord& raw,
                            const std::optional<std::string>& owner) {
  std::string json = "{\n  \"place\": \"secure_storage\",\n  " +
                     JsonTextMember("key_loc", place.loc) +
                     ",\n  \"stored_length\": " + std::to_string(raw.stored_length) +
                     ",\n  \"kind\": " + JsonString(owner ? "legacy_kek" : "unknown");
  if (owner) json += ",\n  " + JsonTextMember("kek_of", *owner);
  return json + "\n}\n";
}

void RefuseLegacyKek(const std::string& name, const std::string& command) {
  std::optional<std::string> owner = LegacyKekOwner(name);
  if (!owner) return;
  throw ToolError(kExitFailure, "the entry \"" + name + "\" is the legacy KEK of the record \"" +
                                    *owner +
                                    "\" (an older generation keeps it there until it is "
                                    "unlocked); " +
                                    command + " leaves it alone");
}

}  // namespace tavikm_tool
