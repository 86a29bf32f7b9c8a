// SPDX-License-Identifier: Apache-2.0
// Decoding a raw record field by field for `tavikm inspect`.
#include "record_view.h"

#include <stddef.h>
#include <stdio.h>
#include <string.h>

#include <utility>
#include <vector>

#include "cli.h"
#include "operations.h"
#include "text.h"

namespace tavikm_tool {
namespace {

enum class Kind { kNumber, kBytes, kMasterKey, kBlob, kName };

struct Field {
  const char* name;
  size_t offset;
  size_t width;
  Kind kind;
};

#define KM_FIELD(name, kind) \
  { #name, offsetof(km_meta, name), sizeof(km_meta::name), Kind::kind }
const Field kFields[] = {
    KM_FIELD(magic, kNumber),         KM_FIELD(major_version, kNumber),
    KM_FIELD(minor_version, kNumber), KM_FIELD(keysize, kNumber),
    KM_FIELD(kdf_type, kNumber),      KM_FIELD(N_factor, kNumber),
    KM_FIELD(r_factor, kNumber),      KM_FIELD(p_factor, kNumber),
    KM_FIELD(master_key, kMasterKey), KM_FIELD(object_iv, kBytes),
    KM_FIELD(key_iv, kBytes),         KM_FIELD(salt, kBytes),
    KM_FIELD(km_key_blob, kBlob),     KM_FIELD(km_key_blob_size, kNumber),
    KM_FIELD(key_mac, kBytes),        KM_FIELD(key_name, kName),
    KM_FIELD(xtkm_value, kBytes),     KM_FIELD(xtkm_value_size, kNumber),
    KM_FIELD(kek_mac, kBytes),        KM_FIELD(kek_mac_size, kNumber),
    KM_FIELD(mac_key_enc, kBytes),    KM_FIELD(mac_key_size, kNumber),
};
const Field kPadding[] = {
    KM_FIELD(reserved0, kBytes),
    KM_FIELD(reserved1, kBytes),
    KM_FIELD(pad0, kBytes),
    KM_FIELD(pad1, kBytes),
};
#undef KM_FIELD

constexpr int kLabelWidth = 18;

const uint8_t* Bytes(const RawRecord& raw) { return reinterpret_cast<const uint8_t*>(&raw.meta); }

bool Present(const RawRecord& raw, const Field& field) {
  return field.offset + field.width <= raw.stored_length;
}

uint64_t Number(const RawRecord& raw, const Field& field) {
  uint64_t value = 0;
  for (size_t i = field.width; i-- > 0;) value = value << 8 | Bytes(raw)[field.offset + i];
  return value;
}

// The used part of the wrapped master key: keysize bytes when that fits the field.
size_t MasterKeyLength(const RawRecord& raw) {
  uint64_t keysize = raw.meta.keysize;
  return keysize >= 1 && keysize <= sizeof(raw.meta.master_key) ? keysize
                                                                : sizeof(raw.meta.master_key);
}

// The key name up to its NUL (the whole field when there is none).
std::string KeyName(const RawRecord& raw) {
  const char* name = raw.meta.key_name;
  return std::string(name, strnlen(name, sizeof(raw.meta.key_name)));
}

std::string Generation(const Place& place, const RawRecord& raw) {
  if (!place.secure_storage) {
    if (raw.stored_length == KM_META_SIZE) return "record";
    return "short read: only " + std::to_string(raw.stored_length) + " bytes at the offset";
  }
  switch (raw.stored_length) {
    case 2520:
      return "older generation: ends after key_name (no XTKM value, no kek mac)";
    case 2584:
      return "older generation: adds xtkm_value only";
    case 2592:
      return "older generation: adds xtkm_value_size, no kek mac";
    case 2632:
      return "older generation: MAC fields without the XTKM value";
    case 2640:
      return "older generation: intermediate length";
    case KM_META_SIZE:
      return "current generation";
    default:
      return "unknown length: the library refuses it";
  }
}

std::vector<std::string> NonZeroPadding(const RawRecord& raw) {
  std::vector<std::string> names;
  for (const Field& field : kPadding) {
    for (size_t i = 0; i < field.width; ++i) {
      if (Bytes(raw)[field.offset + i]) {
        names.push_back(field.name);
        break;
      }
    }
  }
  return names;
}

std::string BlobSummary(const RawRecord& raw) {
  uint64_t size = raw.meta.km_key_blob_size;
  if (size == 0) return "empty";
  if (size > sizeof(raw.meta.km_key_blob)) return "size field out of range";
  return Fingerprint(raw.meta.km_key_blob, static_cast<size_t>(size)) + " (first " +
         std::to_string(size) + " bytes)";
}

std::string TextValue(const RawRecord& raw, const Field& field) {
  const uint8_t* at = Bytes(raw) + field.offset;
  switch (field.kind) {
    case Kind::kNumber: {
      uint64_t value = Number(raw, field);
      std::string text = std::to_string(value);
      if (field.offset == offsetof(km_meta, magic)) {
        char hex[16];
        snprintf(hex, sizeof(hex), "0x%08x", static_cast<unsigned>(value));
        text = std::string(hex) + (value == KM_META_MAGIC ? " (valid)" : " (bad magic)");
      } else if (field.offset == offsetof(km_meta, kdf_type)) {
        text += raw.Kek() ? " (none: a KEK)" : " (" + KdfName(static_cast<unsigned>(value)) + ")";
      } else if (field.offset == offsetof(km_meta, keysize) && raw.Kek()) {
        text += " (the KEK's length)";
      } else if (field.offset == offsetof(km_meta, major_version) && value <= 2) {
        text += " (still needs the KEK upgrade)";
      }
      return text;
    }
    case Kind::kBytes: {
      // 32 bytes to a line, continued under the value column.
      std::string hex = Hex(at, field.width), text;
      for (size_t i = 0; i < hex.size(); i += 64) {
        if (i) text += "\n" + std::string(kLabelWidth + 1, ' ');
        text += hex.substr(i, 64);
      }
      return text;
    }
    case Kind::kMasterKey: {
      size_t used = MasterKeyLength(raw);
      return Hex(at, used) + " (wrapped, " + std::to_string(used) + " bytes)";
    }
    case Kind::kBlob:
      return BlobSummary(raw);
    case Kind::kName: {
      std::string name = KeyName(raw);
      std::string text = "\"" + TerminalText(name, true) + "\"";
      if (name.size() == field.width) text += " (no NUL within the field)";
      return text;
    }
  }
  return "";
}

std::string JsonValue(const RawRecord& raw, const Field& field) {
  const uint8_t* at = Bytes(raw) + field.offset;
  switch (field.kind) {
    case Kind::kNumber:
      return std::to_string(Number(raw, field));
    case Kind::kBytes:
      return JsonString(Hex(at, field.width));
    case Kind::kMasterKey:
      return JsonString(Hex(at, MasterKeyLength(raw)));
    case Kind::kBlob: {
      uint64_t size = raw.meta.km_key_blob_size;
      if (size == 0 || size > sizeof(raw.meta.km_key_blob)) return "null";
      return JsonString(Fingerprint(raw.meta.km_key_blob, static_cast<size_t>(size)));
    }
    case Kind::kName:
      break;  // a text member: RecordJson writes it with its hex when needed
  }
  return "null";
}

}  // namespace

std::string RecordText(const Place& place, const RawRecord& raw) {
  std::vector<std::pair<std::string, std::string>> lines;
  if (place.secure_storage) {
    lines.push_back({"place", "secure-storage entry \"" + TerminalText(place.loc, true) + "\""});
  } else {
    lines.push_back(
        {"place", TerminalText(place.loc) + ", offset " + std::to_string(place.offset)});
    lines.push_back({"file", std::to_string(raw.file_size) + " bytes" +
                                 (raw.regular_file ? "" : ", not a regular file")});
  }
  lines.push_back(
      {"stored length", std::to_string(raw.stored_length) + " bytes, " + Generation(place, raw)});
  lines.push_back({"kind", raw.Kek() ? "KEK of the REK/KEK store (tavikm kek get reads it)"
                                     : "record of a master key"});
  for (const Field& field : kFields) {
    std::string value =
        Present(raw, field)
            ? TextValue(raw, field)
            : "(absent from a " + std::to_string(raw.stored_length) + "-byte record)";
    lines.push_back({field.kind == Kind::kBlob ? "km_key_blob" : field.name, value});
    unsigned kdf = raw.meta.kdf_type;
    if (field.offset == offsetof(km_meta, p_factor) &&
        (kdf == KM_KDF_SCRYPT || kdf == KM_KDF_SCRYPT_KEYMASTER_OLD ||
         kdf == KM_KDF_SCRYPT_KEYMASTER)) {
      auto pow2 = [](unsigned factor) { return std::to_string(uint64_t{1} << (factor % 32)); };
      lines.push_back({"scrypt cost", "N=" + pow2(raw.meta.N_factor) +
                                          " r=" + pow2(raw.meta.r_factor) +
                                          " p=" + pow2(raw.meta.p_factor)});
    }
  }
  std::vector<std::string> padding = NonZeroPadding(raw);
  std::string padding_text = "all zero";
  if (!padding.empty()) {
    padding_text = "non-zero bytes in";
    for (const std::string& name : padding) padding_text += " " + name;
  }
  lines.push_back({"reserved, padding", padding_text});

  std::string text;
  for (const auto& [label, value] : lines) {
    char head[32];
    snprintf(head, sizeof(head), "%-*s ", kLabelWidth, label.c_str());
    text += head + value + "\n";
  }
  return text;
}

std::string RecordJson(const Place& place, const RawRecord& raw) {
  // Each member as written; a text member may bring its exact bytes in hex as a second one.
  std::vector<std::string> members;
  auto add = [&members](const std::string& name, const std::string& value) {
    members.push_back(JsonString(name) + ": " + value);
  };
  add("place", JsonString(place.secure_storage ? "secure_storage" : "file"));
  members.push_back(JsonTextMember("key_loc", place.loc));
  if (!place.secure_storage) {
    add("offset", std::to_string(place.offset));
    add("file_size", std::to_string(raw.file_size));
    add("regular_file", raw.regular_file ? "true" : "false");
  }
  add("stored_length", std::to_string(raw.stored_length));
  add("generation", JsonString(Generation(place, raw)));
  add("kind", JsonString(raw.Kek() ? "kek" : "record"));
  add("magic_valid", raw.stored_length >= sizeof(raw.meta.magic) && raw.meta.magic == KM_META_MAGIC
                         ? "true"
                         : "false");
  for (const Field& field : kFields) {
    std::string name = field.kind == Kind::kBlob ? "km_key_blob_sha256" : field.name;
    if (!Present(raw, field)) {
      add(name, "null");
    } else if (field.kind == Kind::kName) {
      members.push_back(JsonTextMember(name, KeyName(raw)));
    } else {
      add(name, JsonValue(raw, field));
    }
  }
  std::string padding = "[";
  for (const std::string& name : NonZeroPadding(raw)) {
    padding += (padding.size() > 1 ? "," : "") + JsonString(name);
  }
  add("nonzero_padding", padding + "]");

  std::string json = "{\n";
  for (size_t i = 0; i < members.size(); ++i) {
    json += "  " + members[i] + (i + 1 < members.size() ? ",\n" : "\n");
  }
  return json + "}\n";
}

}  // namespace tavikm_tool
