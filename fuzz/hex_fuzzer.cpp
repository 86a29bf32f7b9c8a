// SPDX-License-Identifier: Apache-2.0
// Fuzz target: km_convert_hex_ascii_to_key over any text (the input up to its first NUL), checked
// against the conversion back to text.
#include <ctype.h>
#include <stdint.h>
#include <stdlib.h>
#include <string.h>

#include <string>
#include <vector>

#include "fuzz_env.h"
#include "tavikm.h"

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  tavikm_fuzz::InitFuzzDevice();
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  // Exactly the text's bytes on the heap, so a read past the NUL is caught.
  char* text = static_cast<char*>(malloc(size + 1));
  memcpy(text, data, size);
  text[size] = '\0';
  const size_t length = strlen(text);

  // The pairs that convert before the first bad one; an odd length converts none.
  size_t good_pairs = 0;
  if (length % 2 == 0) {
    while (2 * good_pairs < length && isxdigit(static_cast<unsigned char>(text[2 * good_pairs])) &&
           isxdigit(static_cast<unsigned char>(text[2 * good_pairs + 1]))) {
      ++good_pairs;
    }
  }

  size_t count = 12345;
  uint8_t* key = km_convert_hex_ascii_to_key(text, &count);
  // Also on failure the count says how far the conversion got.
  if (count != good_pairs) abort();
  if (!key && length % 2 == 0 && 2 * good_pairs == length) abort();
  if (key) {
    // Accepted: every pair was a hex digit pair and the round trip gives the text back.
    if (length % 2 != 0 || count != length / 2) abort();
    std::vector<char> back(2 * count + 1);
    km_convert_key_to_hex_ascii(key, count, back.data());
    for (size_t i = 0; i < length; ++i) {
      if (toupper(static_cast<unsigned char>(text[i])) != back[i]) abort();
    }
    if (back[length] != '\0') abort();
    free(key);
  }
  free(text);
  return 0;
}
