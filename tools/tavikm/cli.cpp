// SPDX-License-Identifier: Apache-2.0
// The usage line, number parsing and the hex and fingerprint texts of the tavikm tool.
#include "cli.h"

#include <stdio.h>

#include "tavikm.h"

namespace tavikm_tool {
namespace {

std::string g_current_usage;

}  // namespace

void SetCurrentUsage(const std::string& usage) { g_current_usage = usage; }

const std::string& CurrentUsage() { return g_current_usage; }

uint64_t ParseUnsigned(const std::string& text, const std::string& what) {
  if (text.empty()) throw UsageError(what + " must be a decimal number");
  uint64_t value = 0;
  bool overflow = false;
  for (char c : text) {
    if (c < '0' || c > '9') throw UsageError(what + " must be a decimal number");
    unsigned digit = static_cast<unsigned>(c - '0');
    if (value > (UINT64_MAX - digit) / 10) overflow = true;
    if (!overflow) value = value * 10 + digit;
  }
  if (overflow) throw UsageError(what + " is too large");
  return value;
}

std::string Hex(const uint8_t* data, size_t size) {
  static const char kDigits[] = "0123456789abcdef";
  std::string text;
  text.reserve(size * 2);
  for (size_t i = 0; i < size; ++i) {
    text += kDigits[data[i] >> 4];
    text += kDigits[data[i] & 15];
  }
  return text;
}

std::string Fingerprint(const uint8_t* data, size_t size) {
  uint8_t digest[32];
  if (km_sha256(data, size, digest) != 0) throw ToolError(kExitFailure, "SHA-256 failed");
  return "sha256:" + Hex(digest, sizeof(digest));
}

}  // namespace tavikm_tool
