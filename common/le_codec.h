// SPDX-License-Identifier: Apache-2.0
// Little-endian fields of the small binary formats kept on disk (the tool's journal and backup
// files, the host Keymaster's key blobs) and of the fuzz targets' inputs. Reads are checked: a
// read past the end fails, reads nothing and leaves the reader failed, so a parser can read a
// whole header and test once. Header-only, usable from every folder.
#ifndef TAVIKM_COMMON_LE_CODEC_H_
#define TAVIKM_COMMON_LE_CODEC_H_

#include <stddef.h>
#include <stdint.h>
#include <string.h>

#include <vector>

namespace tavikm {

class LeReader {
 public:
  LeReader(const void* data, size_t size) : data_(static_cast<const uint8_t*>(data)), size_(size) {
    if (!data_) size_ = 0;
  }

  bool U8(uint8_t* v) { return Number(v, 1); }
  bool U16(uint16_t* v) { return Number(v, 2); }
  bool U32(uint32_t* v) { return Number(v, 4); }
  bool U64(uint64_t* v) { return Number(v, 8); }

  // Copies the next `n` bytes to `out`; on failure `out` is left as it was.
  bool Bytes(void* out, size_t n) {
    const uint8_t* p = Take(n);
    if (p && n) memcpy(out, p, n);
    return p != nullptr;
  }

  // The next `n` bytes in place, or null (and failed) when fewer remain.
  const uint8_t* Take(size_t n) {
    if (!ok_ || n > size_ - pos_) {
      ok_ = false;
      return nullptr;
    }
    const uint8_t* p = data_ + pos_;
    pos_ += n;
    return p;
  }

  // Lenient forms for inputs where a short tail is not an error (fuzz inputs): at most `n`
  // bytes, and values whose missing high bytes read as zero.
  size_t TakeUpTo(size_t n, const uint8_t** p) {
    size_t take = ok_ ? (n < size_ - pos_ ? n : size_ - pos_) : 0;
    *p = data_ + pos_;
    pos_ += take;
    return take;
  }
  uint64_t PartialLe(int n) {
    uint64_t v = 0;
    for (int i = 0; i < n && ok_ && pos_ < size_; ++i) {
      v |= static_cast<uint64_t>(data_[pos_++]) << (8 * i);
    }
    return v;
  }

  size_t remaining() const { return ok_ ? size_ - pos_ : 0; }
  size_t position() const { return pos_; }
  bool ok() const { return ok_; }
  // True when every byte was read and no read failed.
  bool done() const { return ok_ && pos_ == size_; }

 private:
  template <typename T>
  bool Number(T* v, int n) {
    const uint8_t* p = Take(static_cast<size_t>(n));
    if (!p) return false;
    uint64_t value = 0;
    for (int i = n; i-- > 0;) value = value << 8 | p[i];
    *v = static_cast<T>(value);
    return true;
  }

  const uint8_t* data_;
  size_t size_;
  size_t pos_ = 0;
  bool ok_ = true;
};

// Appends little-endian fields to a byte vector.
class LeWriter {
 public:
  explicit LeWriter(std::vector<uint8_t>* out) : out_(out) {}

  LeWriter& U8(uint8_t v) { return Number(v, 1); }
  LeWriter& U16(uint16_t v) { return Number(v, 2); }
  LeWriter& U32(uint32_t v) { return Number(v, 4); }
  LeWriter& U64(uint64_t v) { return Number(v, 8); }
  LeWriter& Bytes(const void* data, size_t n) {
    const uint8_t* p = static_cast<const uint8_t*>(data);
    if (n) out_->insert(out_->end(), p, p + n);
    return *this;
  }

 private:
  LeWriter& Number(uint64_t v, int n) {
    for (int i = 0; i < n; ++i) out_->push_back(static_cast<uint8_t>(v >> (8 * i)));
    return *this;
  }

  std::vector<uint8_t>* out_;
};

}  // namespace tavikm

#endif  // TAVIKM_COMMON_LE_CODEC_H_
