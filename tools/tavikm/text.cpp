// SPDX-License-Identifier: Apache-2.0
// UTF-8 checks, JSON string literals, terminal-safe text and display widths.
//
// Widths come from a small table of our own rather than wcwidth(): the names are UTF-8 whatever
// the locale says, and the table lines up the scripts a key name plausibly uses (Latin, Greek,
// Cyrillic, CJK, Hangul, combining accents, common emoji) the same way on every machine. A
// character it gets wrong costs one misaligned row, never a wrong name.
#include "text.h"

#include <stdint.h>
#include <stdio.h>

#include <algorithm>
#include <iterator>

#include "cli.h"

namespace tavikm_tool {
namespace {

// The length of the well-formed sequence at `at`, with its code point in `cp`; 0 when the byte
// at `at` does not begin one.
size_t DecodeOne(const std::string& text, size_t at, uint32_t* cp) {
  const unsigned char* p = reinterpret_cast<const unsigned char*>(text.data()) + at;
  const size_t left = text.size() - at;
  const unsigned char lead = p[0];
  if (lead < 0x80) {
    *cp = lead;
    return 1;
  }
  size_t length;
  uint32_t value, least;
  if (lead >= 0xc2 && lead <= 0xdf) {
    length = 2, value = lead & 0x1f, least = 0x80;
  } else if (lead >= 0xe0 && lead <= 0xef) {
    length = 3, value = lead & 0x0f, least = 0x800;
  } else if (lead >= 0xf0 && lead <= 0xf4) {
    length = 4, value = lead & 0x07, least = 0x10000;
  } else {
    return 0;
  }
  if (left < length) return 0;
  for (size_t i = 1; i < length; ++i) {
    if ((p[i] & 0xc0) != 0x80) return 0;
    value = value << 6 | (p[i] & 0x3f);
  }
  if (value < least || value > 0x10ffff || (value >= 0xd800 && value <= 0xdfff)) return 0;
  *cp = value;
  return length;
}

// Characters that act on a terminal or reorder what follows them, rather than show.
bool Control(uint32_t cp) {
  return cp < 0x20 || (cp >= 0x7f && cp <= 0x9f) || cp == 0x061c || cp == 0x200e || cp == 0x200f ||
         (cp >= 0x2028 && cp <= 0x202e) || (cp >= 0x2066 && cp <= 0x2069);
}

struct Range {
  uint32_t first, last;
};

bool In(const Range* begin, const Range* end, uint32_t cp) {
  const Range* it = std::lower_bound(begin, end, cp,
                                     [](const Range& r, uint32_t value) { return r.last < value; });
  return it != end && it->first <= cp;
}

const Range kZeroWidth[] = {
    {0x0300, 0x036f}, {0x0483, 0x0489},   {0x0591, 0x05bd}, {0x0610, 0x061a}, {0x064b, 0x065f},
    {0x0e31, 0x0e31}, {0x0e34, 0x0e3a},   {0x0e47, 0x0e4e}, {0x1ab0, 0x1aff}, {0x1dc0, 0x1dff},
    {0x200b, 0x200d}, {0x2060, 0x2064},   {0x20d0, 0x20ff}, {0xfe00, 0xfe0f}, {0xfe20, 0xfe2f},
    {0xfeff, 0xfeff}, {0xe0100, 0xe01ef},
};

const Range kWide[] = {
    {0x1100, 0x115f},   {0x231a, 0x231b},   {0x2329, 0x232a},   {0x23e9, 0x23ec},
    {0x25fd, 0x25fe},   {0x2614, 0x2615},   {0x2648, 0x2653},   {0x26a1, 0x26a1},
    {0x26aa, 0x26ab},   {0x26bd, 0x26be},   {0x26c4, 0x26c5},   {0x26ce, 0x26ce},
    {0x26d4, 0x26d4},   {0x26ea, 0x26ea},   {0x26f2, 0x26f5},   {0x26fa, 0x26fd},
    {0x2705, 0x2705},   {0x270a, 0x270b},   {0x2728, 0x2728},   {0x274c, 0x274c},
    {0x2753, 0x2755},   {0x2757, 0x2757},   {0x2795, 0x2797},   {0x27b0, 0x27b0},
    {0x2b1b, 0x2b1c},   {0x2b50, 0x2b50},   {0x2e80, 0x303e},   {0x3041, 0x33ff},
    {0x3400, 0x4dbf},   {0x4e00, 0x9fff},   {0xa000, 0xa4cf},   {0xa960, 0xa97f},
    {0xac00, 0xd7a3},   {0xf900, 0xfaff},   {0xfe10, 0xfe19},   {0xfe30, 0xfe6f},
    {0xff00, 0xff60},   {0xffe0, 0xffe6},   {0x1f004, 0x1f004}, {0x1f0cf, 0x1f0cf},
    {0x1f18e, 0x1f18e}, {0x1f191, 0x1f19a}, {0x1f200, 0x1f251}, {0x1f300, 0x1f64f},
    {0x1f680, 0x1f6ff}, {0x1f7e0, 0x1f7eb}, {0x1f90c, 0x1f9ff}, {0x1fa70, 0x1faff},
    {0x20000, 0x2fffd}, {0x30000, 0x3fffd},
};

size_t Width(uint32_t cp) {
  if (In(std::begin(kZeroWidth), std::end(kZeroWidth), cp)) return 0;
  return In(std::begin(kWide), std::end(kWide), cp) ? 2 : 1;
}

void AppendByteEscape(std::string* out, unsigned char byte) {
  char escaped[8];
  snprintf(escaped, sizeof(escaped), "\\x%02x", byte);
  *out += escaped;
}

}  // namespace

bool ValidUtf8(const std::string& bytes) {
  uint32_t cp;
  for (size_t at = 0; at < bytes.size();) {
    size_t length = DecodeOne(bytes, at, &cp);
    if (length == 0) return false;
    at += length;
  }
  return true;
}

std::string JsonString(const std::string& bytes) {
  std::string out = "\"";
  for (size_t at = 0; at < bytes.size();) {
    uint32_t cp;
    size_t length = DecodeOne(bytes, at, &cp);
    if (length == 0) {
      out += "\\ufffd";
      ++at;
      continue;
    }
    if (cp == '"' || cp == '\\') {
      out += '\\';
      out += static_cast<char>(cp);
    } else if (cp == '\n') {
      out += "\\n";
    } else if (cp == '\t') {
      out += "\\t";
    } else if (cp == '\r') {
      out += "\\r";
    } else if (Control(cp)) {
      char escaped[8];
      snprintf(escaped, sizeof(escaped), "\\u%04x", static_cast<unsigned>(cp));
      out += escaped;
    } else {
      out.append(bytes, at, length);
    }
    at += length;
  }
  return out + "\"";
}

std::string JsonTextMember(const std::string& name, const std::string& bytes) {
  std::string member = JsonString(name) + ": " + JsonString(bytes);
  if (!ValidUtf8(bytes)) {
    member += ", " + JsonString(name + "_hex") + ": " +
              JsonString(Hex(reinterpret_cast<const uint8_t*>(bytes.data()), bytes.size()));
  }
  return member;
}

std::string TerminalText(const std::string& bytes, bool quoted) {
  std::string out;
  for (size_t at = 0; at < bytes.size();) {
    uint32_t cp;
    size_t length = DecodeOne(bytes, at, &cp);
    if (length == 0 || Control(cp)) {
      for (size_t i = 0; i < std::max<size_t>(length, 1); ++i) {
        AppendByteEscape(&out, static_cast<unsigned char>(bytes[at + i]));
      }
      at += std::max<size_t>(length, 1);
      continue;
    }
    if (cp == '\\' || (quoted && cp == '"')) out += '\\';
    out.append(bytes, at, length);
    at += length;
  }
  return out;
}

size_t DisplayWidth(const std::string& text) {
  size_t width = 0;
  for (size_t at = 0; at < text.size();) {
    uint32_t cp;
    size_t length = DecodeOne(text, at, &cp);
    // Not expected after TerminalText; a stray byte is shown as one replacement character.
    width += length ? Width(cp) : 1;
    at += length ? length : 1;
  }
  return width;
}

std::string PadToWidth(const std::string& text, size_t width) {
  size_t used = DisplayWidth(text);
  return used >= width ? text : text + std::string(width - used, ' ');
}

std::string FitToWidth(const std::string& text, size_t width) {
  if (DisplayWidth(text) <= width) return text;
  if (width < 3) return std::string(width, '.');
  std::string out;
  size_t used = 0;
  for (size_t at = 0; at < text.size();) {
    uint32_t cp;
    size_t length = DecodeOne(text, at, &cp);
    size_t w = length ? Width(cp) : 1;
    if (used + w > width - 3) break;
    out.append(text, at, length ? length : 1);
    used += w;
    at += length ? length : 1;
  }
  return out + "...";
}

}  // namespace tavikm_tool
