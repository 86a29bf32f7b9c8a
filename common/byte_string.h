// SPDX-License-Identifier: Apache-2.0
// Bytes as the std::string in which the Keymaster client classes carry blobs and data.
#ifndef TAVIKM_COMMON_BYTE_STRING_H_
#define TAVIKM_COMMON_BYTE_STRING_H_

#include <stddef.h>

#include <string>

namespace tavikm {

// A copy of `size` bytes at `data` (which may be null when `size` is 0). Filled with assign():
// building a string from a pointer range would instantiate a standard library template in the
// shared library, where it would be exported.
inline std::string ByteString(const void* data, size_t size) {
  std::string bytes;
  if (size) bytes.assign(static_cast<const char*>(data), size);
  return bytes;
}

}  // namespace tavikm

#endif  // TAVIKM_COMMON_BYTE_STRING_H_
