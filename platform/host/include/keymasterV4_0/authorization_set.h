// SPDX-License-Identifier: Apache-2.0
// Host version of the Keymaster 4.0 support library's AuthorizationSet (an ordered list of
// KeyParameters that owns deep copies of its byte values) and AuthorizationSetBuilder (chained
// helpers that append the parameters of common key shapes).
#ifndef TAVIKM_HOST_KEYMASTERV4_0_AUTHORIZATION_SET_H_
#define TAVIKM_HOST_KEYMASTERV4_0_AUTHORIZATION_SET_H_

#include <stddef.h>
#include <stdint.h>

#include <functional>
#include <initializer_list>
#include <istream>
#include <ostream>
#include <utility>
#include <vector>

#include <keymasterV4_0/keymaster_tags.h>

namespace android {
namespace hardware {
namespace keymaster {
namespace V4_0 {

class AuthorizationSet {
 public:
  typedef KeyParameter value_type;

  AuthorizationSet() = default;
  AuthorizationSet(const AuthorizationSet&) = default;
  AuthorizationSet(AuthorizationSet&&) noexcept = default;
  AuthorizationSet& operator=(const AuthorizationSet&) = default;
  AuthorizationSet& operator=(AuthorizationSet&&) noexcept = default;
  AuthorizationSet(const hidl_vec<KeyParameter>& other) { *this = other; }  // NOLINT
  ~AuthorizationSet() = default;

  // Replaces the entries with deep copies of `other`'s, blobs included; an empty `other`
  // leaves the set as it was, as on the platform.
  AuthorizationSet& operator=(const hidl_vec<KeyParameter>& other);

  void Clear() { data_.clear(); }
  size_t size() const { return data_.size(); }
  bool empty() const { return data_.empty(); }
  const KeyParameter* data() const { return data_.data(); }

  // Sorts by tag, then value.
  void Sort();
  // Sorts and drops repeated entries.
  void Deduplicate();
  // Adds the entries of `set` that this set lacks; leaves the set sorted and deduplicated.
  void Union(const AuthorizationSet& set);
  // Removes every entry equal to one of `set`'s.
  void Subtract(const AuthorizationSet& set);
  // Keeps only the entries for which `doKeep` is true.
  void Filter(std::function<bool(const KeyParameter&)> doKeep);

  // Index of the first entry with `tag` after index `begin`, or -1.
  int find(Tag tag, int begin = -1) const;
  // Removes the entry at `index`; false when out of range.
  bool erase(int index);

  std::vector<KeyParameter>::const_iterator begin() const { return data_.begin(); }
  std::vector<KeyParameter>::const_iterator end() const { return data_.end(); }
  KeyParameter& operator[](int n) { return data_[static_cast<size_t>(n)]; }
  const KeyParameter& operator[](int n) const { return data_[static_cast<size_t>(n)]; }

  bool Contains(Tag tag) const { return find(tag) != -1; }
  template <TagType tag_type, Tag tag, typename ValueT>
  bool Contains(TypedTag<tag_type, tag> ttag, const ValueT& value) const {
    for (const KeyParameter& param : data_) {
      auto entry = authorizationValue(ttag, param);
      if (entry.isOk() && entry.value() == value) return true;
    }
    return false;
  }
  size_t GetTagCount(Tag tag) const;

  // The value of the first entry with `ttag`, or an absent NullOr.
  template <typename T>
  NullOr<const typename TypedTag2ValueType<T>::type&> GetTagValue(T ttag) const {
    int index = find(ttag);
    if (index < 0) return {};
    return authorizationValue(ttag, data_[static_cast<size_t>(index)]);
  }

  void push_back(const KeyParameter& param) { data_.push_back(param); }
  void push_back(KeyParameter&& param) { data_.push_back(std::move(param)); }
  void push_back(const AuthorizationSet& set) {
    for (const KeyParameter& param : set) push_back(param);
  }
  void push_back(AuthorizationSet&& set) {
    for (KeyParameter& param : set.data_) push_back(std::move(param));
    set.data_.clear();
  }
  // push_back(TAG_KEY_SIZE, 256), push_back(TAG_NO_AUTH_REQUIRED), ...
  template <typename TypedTagT, typename... Value>
  void push_back(TypedTagT ttag, Value&&... value) {
    push_back(Authorization(ttag, std::forward<Value>(value)...));
  }
  template <typename Iterator>
  void append(Iterator first, Iterator last) {
    for (; first != last; ++first) push_back(*first);
  }

  // A view of the entries for a HAL call: no copy, valid while the set is unchanged.
  const hidl_vec<KeyParameter> hidl_data() const {
    hidl_vec<KeyParameter> result;
    result.setToExternal(const_cast<KeyParameter*>(data()), size());
    return result;
  }

  // Binary form of the entries; Deserialize replaces the entries, or leaves the set empty and
  // sets the stream's failbit when the bytes are not such a form.
  void Serialize(std::ostream* out) const;
  void Deserialize(std::istream* in);

 private:
  std::vector<KeyParameter> data_;
};

class AuthorizationSetBuilder : public AuthorizationSet {
 public:
  template <typename TagType, typename... ValueType>
  AuthorizationSetBuilder& Authorization(TagType ttag, ValueType&&... value) {
    push_back(ttag, std::forward<ValueType>(value)...);
    return *this;
  }

  // A byte value that the parameter references without copying: `data` must outlive the
  // builder's use (copies of the builder own their own bytes).
  template <Tag tag>
  AuthorizationSetBuilder& Authorization(TypedTag<TagType::BYTES, tag> ttag, const uint8_t* data,
                                         size_t data_length) {
    hidl_vec<uint8_t> blob;
    blob.setToExternal(const_cast<uint8_t*>(data), data_length);
    push_back(ttag, std::move(blob));
    return *this;
  }
  template <Tag tag>
  AuthorizationSetBuilder& Authorization(TypedTag<TagType::BYTES, tag> ttag, const char* data,
                                         size_t data_length) {
    return Authorization(ttag, reinterpret_cast<const uint8_t*>(data), data_length);
  }

  AuthorizationSetBuilder& Authorizations(const AuthorizationSet& set) {
    push_back(set);
    return *this;
  }

  AuthorizationSetBuilder& RsaKey(uint32_t key_size, uint64_t public_exponent);
  AuthorizationSetBuilder& EcdsaKey(uint32_t key_size);
  AuthorizationSetBuilder& EcdsaKey(EcCurve curve);
  AuthorizationSetBuilder& AesKey(uint32_t key_size);
  AuthorizationSetBuilder& TripleDesKey(uint32_t key_size);
  AuthorizationSetBuilder& HmacKey(uint32_t key_size);

  AuthorizationSetBuilder& RsaSigningKey(uint32_t key_size, uint64_t public_exponent);
  AuthorizationSetBuilder& RsaEncryptionKey(uint32_t key_size, uint64_t public_exponent);
  AuthorizationSetBuilder& EcdsaSigningKey(uint32_t key_size);
  AuthorizationSetBuilder& EcdsaSigningKey(EcCurve curve);
  AuthorizationSetBuilder& AesEncryptionKey(uint32_t key_size);
  AuthorizationSetBuilder& TripleDesEncryptionKey(uint32_t key_size);

  AuthorizationSetBuilder& SigningKey();
  AuthorizationSetBuilder& EncryptionKey();

  AuthorizationSetBuilder& NoDigestOrPadding();

  AuthorizationSetBuilder& EcbMode();
  AuthorizationSetBuilder& GcmModeMinMacLen(uint32_t minMacLength);
  AuthorizationSetBuilder& GcmModeMacLen(uint32_t macLength);

  AuthorizationSetBuilder& BlockMode(std::initializer_list<V4_0::BlockMode> blockModes);
  AuthorizationSetBuilder& Digest(std::vector<V4_0::Digest> digests);
  AuthorizationSetBuilder& Padding(std::initializer_list<PaddingMode> paddings);

  template <typename... T>
  AuthorizationSetBuilder& BlockMode(T&&... a) {
    return BlockMode({std::forward<T>(a)...});
  }
  template <typename... T>
  AuthorizationSetBuilder& Digest(T&&... a) {
    return Digest({std::forward<T>(a)...});
  }
  template <typename... T>
  AuthorizationSetBuilder& Padding(T&&... a) {
    return Padding({std::forward<T>(a)...});
  }
};

}  // namespace V4_0
}  // namespace keymaster
}  // namespace hardware
}  // namespace android

#endif  // TAVIKM_HOST_KEYMASTERV4_0_AUTHORIZATION_SET_H_
