// SPDX-License-Identifier: Apache-2.0
// Byte strings that hold key material: wiped when they go away.
#ifndef TAVIKM_HOST_KEYMASTER_SECRET_BYTES_H_
#define TAVIKM_HOST_KEYMASTER_SECRET_BYTES_H_

#include <stddef.h>
#include <stdint.h>

#include <utility>
#include <vector>

#include <openssl/crypto.h>

namespace tavikm_host::km {

class SecretBytes {
 public:
  SecretBytes() = default;
  explicit SecretBytes(size_t size) : bytes_(size) {}
  SecretBytes(const uint8_t* data, size_t size) : bytes_(data, data + size) {}
  SecretBytes(const SecretBytes&) = default;
  SecretBytes& operator=(const SecretBytes& other) {
    if (this != &other) {
      Wipe();
      bytes_ = other.bytes_;
    }
    return *this;
  }
  SecretBytes(SecretBytes&& other) noexcept : bytes_(std::move(other.bytes_)) {}
  SecretBytes& operator=(SecretBytes&& other) noexcept {
    if (this != &other) {
      Wipe();
      bytes_ = std::move(other.bytes_);
    }
    return *this;
  }
  ~SecretBytes() { Wipe(); }

  uint8_t* data() { return bytes_.data(); }
  const uint8_t* data() const { return bytes_.data(); }
  size_t size() const { return bytes_.size(); }
  bool empty() const { return bytes_.empty(); }

  void Append(const uint8_t* data, size_t size) {
    // Growing may move the bytes; wipe the old copy ourselves.
    std::vector<uint8_t> grown;
    grown.reserve(bytes_.size() + size);
    grown.insert(grown.end(), bytes_.begin(), bytes_.end());
    grown.insert(grown.end(), data, data + size);
    Wipe();
    bytes_ = std::move(grown);
  }
  // Drops the first `count` bytes.
  void Consume(size_t count) {
    std::vector<uint8_t> rest(bytes_.begin() + static_cast<std::ptrdiff_t>(count), bytes_.end());
    Wipe();
    bytes_ = std::move(rest);
  }
  void Wipe() {
    if (!bytes_.empty()) OPENSSL_cleanse(bytes_.data(), bytes_.size());
    bytes_.clear();
  }

 private:
  std::vector<uint8_t> bytes_;
};

}  // namespace tavikm_host::km

#endif  // TAVIKM_HOST_KEYMASTER_SECRET_BYTES_H_
