// SPDX-License-Identifier: Apache-2.0
// Conversion between key bytes and hexadecimal key text.
#include <ctype.h>
#include <openssl/crypto.h>
#include <stdlib.h>
#include <string.h>

#include "common/log.h"
#include "common/scopers.h"
#include "tavikm.h"

namespace {

// Value of one hexadecimal digit, or -1.
int HexValue(char c) {
  if (c >= '0' && c <= '9') return c - '0';
  int lower = tolower(static_cast<unsigned char>(c));
  if (lower >= 'a' && lower <= 'f') return lower - 'a' + 10;
  return -1;
}

}  // namespace

uint8_t* km_convert_hex_ascii_to_key(const char* hex, size_t* out_size) {
  if (!out_size) {
    KM_LOGE("%s::Failed, out_size is NULL! \n", "km_convert_hex_ascii_to_key");
    return nullptr;
  }
  *out_size = 0;
  if (!hex) {
    KM_LOGE("%s::Failed, hex is NULL! \n", "km_convert_hex_ascii_to_key");
    return nullptr;
  }
  size_t length = strlen(hex);
  if (length % 2 != 0) {
    KM_LOGE("Trying to convert ascii string of odd length");
    return nullptr;
  }
  auto* key = static_cast<uint8_t*>(malloc(length / 2));
  if (!key) {
    KM_LOGE("Cannot allocate");
    return nullptr;
  }
  for (size_t i = 0; i < length; i += 2) {
    int high = HexValue(hex[i]);
    int low = HexValue(hex[i + 1]);
    if (high < 0 || low < 0) {
      // The count of bytes converted so far stays with the caller on purpose.
      KM_LOGE("Invalid hex string");
      tavikm::WipeAndFree(key, i / 2);
      return nullptr;
    }
    key[i / 2] = static_cast<uint8_t>(high * 16 + low);
    ++*out_size;
  }
  return key;
}

void km_convert_key_to_hex_ascii(const uint8_t* key, size_t count, char* out) {
  static const char kDigits[] = "0123456789ABCDEF";
  if (!out || (!key && count)) {
    KM_LOGE("%s::Failed, %s is NULL! \n", "km_convert_key_to_hex_ascii", !out ? "out" : "key");
    // Nothing to convert: an empty text rather than none.
    if (out) out[0] = '\0';
    return;
  }
  for (size_t i = 0; i < count; ++i) {
    out[2 * i] = kDigits[key[i] >> 4];
    out[2 * i + 1] = kDigits[key[i] & 0x0f];
  }
  out[2 * count] = '\0';
}
