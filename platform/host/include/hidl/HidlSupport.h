// SPDX-License-Identifier: Apache-2.0
// Host version of the HIDL support types: hidl_vec (a vector that either owns its elements or
// is a non-owning view of someone else's storage) and hidl_string, with the platform's
// semantics: copies are deep, moves hand over ownership as it was, and no vector holds more
// than 2^32 - 1 elements.
#ifndef TAVIKM_HOST_HIDL_HIDLSUPPORT_H_
#define TAVIKM_HOST_HIDL_HIDLSUPPORT_H_

#include <stddef.h>
#include <stdint.h>

#include <algorithm>
#include <initializer_list>
#include <ostream>
#include <string>
#include <vector>

#include <hidl/Status.h>

namespace android {
namespace hardware {

template <typename T>
class hidl_vec {
 public:
  using value_type = T;
  using iterator = T*;
  using const_iterator = const T*;

  hidl_vec() = default;
  explicit hidl_vec(size_t size) { resize(size); }
  hidl_vec(std::initializer_list<T> list) { copyFrom(list.begin(), list.size()); }
  hidl_vec(const std::vector<T>& other) { copyFrom(other.data(), other.size()); }  // NOLINT
  template <typename InputIterator>
  hidl_vec(InputIterator first, InputIterator last) {
    std::vector<T> items(first, last);
    copyFrom(items.data(), items.size());
  }
  hidl_vec(const hidl_vec& other) { copyFrom(other.mBuffer, other.mSize); }
  hidl_vec(hidl_vec&& other) noexcept { *this = std::move(other); }
  ~hidl_vec() { release(); }

  hidl_vec& operator=(const hidl_vec& other) {
    if (this != &other) {
      // Copy first: `other` may be a view into our own buffer.
      hidl_vec copy;
      copy.copyFrom(other.mBuffer, other.mSize);
      *this = std::move(copy);
    }
    return *this;
  }
  // Takes over `other` as it is: an owning vector stays owning, a view stays a view.
  hidl_vec& operator=(hidl_vec&& other) noexcept {
    if (this != &other) {
      release();
      mBuffer = other.mBuffer;
      mSize = other.mSize;
      mOwnsBuffer = other.mOwnsBuffer;
      other.mBuffer = nullptr;
      other.mSize = 0;
      other.mOwnsBuffer = false;
    }
    return *this;
  }
  hidl_vec& operator=(const std::vector<T>& other) {
    hidl_vec copy(other);
    return *this = std::move(copy);
  }

  // Makes this vector a view of `size` elements at `data` (owned, and freed with delete[],
  // only when shouldOwn). Fatal for more than 2^32 - 1 elements.
  void setToExternal(T* data, size_t size, bool shouldOwn = false) {
    if (data == nullptr && size != 0) details::logAlwaysFatal("sizeless buffer");
    if (size > UINT32_MAX) details::logAlwaysFatal("external vector size exceeds 2^32 elements.");
    release();
    mBuffer = data;
    mSize = static_cast<uint32_t>(size);
    mOwnsBuffer = shouldOwn;
  }

  // Hands the buffer to the caller (who frees it with delete[]) and leaves this vector empty.
  // Null for a view, which has nothing to hand over.
  T* releaseData() {
    if (!mOwnsBuffer && mSize > 0) {
      mBuffer = nullptr;
      mSize = 0;
      return nullptr;
    }
    T* data = mBuffer;
    mBuffer = nullptr;
    mSize = 0;
    mOwnsBuffer = false;
    return data;
  }

  operator std::vector<T>() const {  // NOLINT: implicit, as on the platform
    return std::vector<T>(begin(), end());
  }

  T* data() { return mBuffer; }
  const T* data() const { return mBuffer; }
  size_t size() const { return mSize; }
  bool empty() const { return mSize == 0; }
  T& operator[](size_t index) { return mBuffer[index]; }
  const T& operator[](size_t index) const { return mBuffer[index]; }

  // Resizes into a fresh owned buffer, keeping the leading elements; new ones are zero.
  void resize(size_t size) {
    if (size > UINT32_MAX) details::logAlwaysFatal("hidl_vec can't hold more than 2^32 elements.");
    T* buffer = size ? new T[size]() : nullptr;
    for (size_t i = 0; i < std::min(size, static_cast<size_t>(mSize)); ++i) {
      buffer[i] = std::move(mBuffer[i]);
    }
    release();
    mBuffer = buffer;
    mSize = static_cast<uint32_t>(size);
    mOwnsBuffer = true;
  }

  iterator begin() { return mBuffer; }
  iterator end() { return mBuffer + mSize; }
  const_iterator begin() const { return mBuffer; }
  const_iterator end() const { return mBuffer + mSize; }

  bool operator==(const hidl_vec& other) const {
    return mSize == other.mSize && std::equal(begin(), end(), other.begin());
  }
  bool operator!=(const hidl_vec& other) const { return !(*this == other); }

 private:
  void copyFrom(const T* data, size_t size) {
    if (size > UINT32_MAX) details::logAlwaysFatal("hidl_vec can't hold more than 2^32 elements.");
    release();
    if (size == 0) return;
    mBuffer = new T[size];
    for (size_t i = 0; i < size; ++i) mBuffer[i] = data[i];
    mSize = static_cast<uint32_t>(size);
    mOwnsBuffer = true;
  }
  void release() {
    if (mOwnsBuffer) delete[] mBuffer;
    mBuffer = nullptr;
    mSize = 0;
    mOwnsBuffer = false;
  }

  T* mBuffer = nullptr;
  uint32_t mSize = 0;
  bool mOwnsBuffer = false;
};

// A string that crosses a HAL boundary.
class hidl_string {
 public:
  hidl_string() = default;
  hidl_string(const char* s) : mString(s ? s : "") {}  // NOLINT: implicit, as on the platform
  hidl_string(const char* s, size_t length) : mString(s, length) {}
  hidl_string(const std::string& s) : mString(s) {}  // NOLINT

  const char* c_str() const { return mString.c_str(); }
  size_t size() const { return mString.size(); }
  bool empty() const { return mString.empty(); }
  void clear() { mString.clear(); }
  void setToExternal(const char* data, size_t size) { mString.assign(data, size); }

  operator std::string() const { return mString; }  // NOLINT: implicit, as on the platform

  bool operator==(const hidl_string& other) const { return mString == other.mString; }
  bool operator!=(const hidl_string& other) const { return mString != other.mString; }
  bool operator==(const char* s) const { return mString == (s ? s : ""); }
  bool operator!=(const char* s) const { return !(*this == s); }

 private:
  std::string mString;
};

inline std::ostream& operator<<(std::ostream& os, const hidl_string& s) { return os << s.c_str(); }

}  // namespace hardware
}  // namespace android

#endif  // TAVIKM_HOST_HIDL_HIDLSUPPORT_H_
