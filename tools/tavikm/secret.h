// SPDX-License-Identifier: Apache-2.0
// Holders for the secrets the tool handles (passwords, master keys, KEKs): fixed storage on pages
// kept out of core dumps (and locked where permitted), wiped when the holder goes away, so no
// copy is left behind by a reallocation.
#ifndef TAVIKM_TOOLS_SECRET_H_
#define TAVIKM_TOOLS_SECRET_H_

#include <openssl/crypto.h>
#include <stddef.h>
#include <stdint.h>
#include <string.h>

#include "secure_memory.h"

namespace tavikm_tool {

// Up to `Capacity` secret bytes with a used length.
template <size_t Capacity>
class Secret {
 public:
  Secret() : bytes_(static_cast<uint8_t*>(AllocateSecretMemory(Capacity))) {}
  ~Secret() { FreeSecretMemory(bytes_, Capacity); }
  Secret(const Secret& other) : Secret() {
    memcpy(bytes_, other.bytes_, Capacity);
    size_ = other.size_;
  }
  Secret& operator=(const Secret& other) {
    memcpy(bytes_, other.bytes_, Capacity);
    size_ = other.size_;
    return *this;
  }

  static constexpr size_t capacity() { return Capacity; }
  uint8_t* data() { return bytes_; }
  const uint8_t* data() const { return bytes_; }
  // Null-terminated view for passwords (the byte after the used length is always zero).
  const char* c_str() const { return reinterpret_cast<const char*>(bytes_); }
  size_t size() const { return size_; }
  void set_size(size_t size) { size_ = size < Capacity ? size : Capacity; }
  bool operator==(const Secret& other) const {
    return size_ == other.size_ && CRYPTO_memcmp(bytes_, other.bytes_, size_) == 0;
  }
  bool operator!=(const Secret& other) const { return !(*this == other); }

 private:
  uint8_t* bytes_;
  size_t size_ = 0;
};

// A master key or a KEK: the record's key fields hold at most 64 bytes.
using KeyBytes = Secret<64>;
// A password: one line of at most 1023 bytes, always followed by a NUL.
using Password = Secret<1024>;

}  // namespace tavikm_tool

#endif  // TAVIKM_TOOLS_SECRET_H_
