// SPDX-License-Identifier: Apache-2.0
// Host version of the Keymaster 4.0 support library's typed tags: TAG_ALGORITHM and friends bind
// a Tag to the C++ type of its value, so Authorization(TAG_KEY_SIZE, 256) builds a KeyParameter
// with the right union member and a wrong value type does not compile.
#ifndef TAVIKM_HOST_KEYMASTERV4_0_KEYMASTER_TAGS_H_
#define TAVIKM_HOST_KEYMASTERV4_0_KEYMASTER_TAGS_H_

#include <stdint.h>

#include <type_traits>
#include <utility>

#include <android/hardware/keymaster/4.0/IKeymasterDevice.h>

namespace android {
namespace hardware {
namespace keymaster {
namespace V4_0 {

constexpr TagType typeFromTag(Tag tag) {
  return static_cast<TagType>(static_cast<uint32_t>(tag) & 0xf0000000u);
}

template <TagType tag_type, Tag tag>
struct TypedTag {
  static_assert(typeFromTag(tag) == tag_type, "tag and tag type disagree");
  constexpr TypedTag() = default;
  constexpr operator Tag() const { return tag; }  // NOLINT: usable wherever a Tag is
  static constexpr uint32_t maskedTag() { return static_cast<uint32_t>(tag) & 0x0fffffffu; }
};

template <Tag tag>
struct Tag2TypedTag {
  typedef TypedTag<typeFromTag(tag), tag> type;
};

#define DECLARE_TYPED_TAG(name)                                  \
  typedef typename Tag2TypedTag<Tag::name>::type TAG_##name##_t; \
  inline constexpr TAG_##name##_t TAG_##name{};

DECLARE_TYPED_TAG(INVALID)
DECLARE_TYPED_TAG(PURPOSE)
DECLARE_TYPED_TAG(ALGORITHM)
DECLARE_TYPED_TAG(KEY_SIZE)
DECLARE_TYPED_TAG(BLOCK_MODE)
DECLARE_TYPED_TAG(DIGEST)
DECLARE_TYPED_TAG(PADDING)
DECLARE_TYPED_TAG(CALLER_NONCE)
DECLARE_TYPED_TAG(MIN_MAC_LENGTH)
DECLARE_TYPED_TAG(EC_CURVE)
DECLARE_TYPED_TAG(RSA_PUBLIC_EXPONENT)
DECLARE_TYPED_TAG(INCLUDE_UNIQUE_ID)
DECLARE_TYPED_TAG(BLOB_USAGE_REQUIREMENTS)
DECLARE_TYPED_TAG(BOOTLOADER_ONLY)
DECLARE_TYPED_TAG(ROLLBACK_RESISTANCE)
DECLARE_TYPED_TAG(HARDWARE_TYPE)
DECLARE_TYPED_TAG(ACTIVE_DATETIME)
DECLARE_TYPED_TAG(ORIGINATION_EXPIRE_DATETIME)
DECLARE_TYPED_TAG(USAGE_EXPIRE_DATETIME)
DECLARE_TYPED_TAG(MIN_SECONDS_BETWEEN_OPS)
DECLARE_TYPED_TAG(MAX_USES_PER_BOOT)
DECLARE_TYPED_TAG(USER_ID)
DECLARE_TYPED_TAG(USER_SECURE_ID)
DECLARE_TYPED_TAG(NO_AUTH_REQUIRED)
DECLARE_TYPED_TAG(USER_AUTH_TYPE)
DECLARE_TYPED_TAG(AUTH_TIMEOUT)
DECLARE_TYPED_TAG(ALLOW_WHILE_ON_BODY)
DECLARE_TYPED_TAG(TRUSTED_USER_PRESENCE_REQUIRED)
DECLARE_TYPED_TAG(TRUSTED_CONFIRMATION_REQUIRED)
DECLARE_TYPED_TAG(UNLOCKED_DEVICE_REQUIRED)
DECLARE_TYPED_TAG(APPLICATION_ID)
DECLARE_TYPED_TAG(APPLICATION_DATA)
DECLARE_TYPED_TAG(CREATION_DATETIME)
DECLARE_TYPED_TAG(ORIGIN)
DECLARE_TYPED_TAG(ROOT_OF_TRUST)
DECLARE_TYPED_TAG(OS_VERSION)
DECLARE_TYPED_TAG(OS_PATCHLEVEL)
DECLARE_TYPED_TAG(UNIQUE_ID)
DECLARE_TYPED_TAG(ATTESTATION_CHALLENGE)
DECLARE_TYPED_TAG(ATTESTATION_APPLICATION_ID)
DECLARE_TYPED_TAG(VENDOR_PATCHLEVEL)
DECLARE_TYPED_TAG(BOOT_PATCHLEVEL)
DECLARE_TYPED_TAG(ASSOCIATED_DATA)
DECLARE_TYPED_TAG(NONCE)
DECLARE_TYPED_TAG(MAC_LENGTH)
DECLARE_TYPED_TAG(RESET_SINCE_ID_ROTATION)
DECLARE_TYPED_TAG(CONFIRMATION_TOKEN)

// TypedTag2ValueType<TAG_x_t>::type is the C++ type of TAG_x's value; accessTagValue(TAG_x, p)
// is the member of `p` that holds it.
template <typename TypedTagType>
struct TypedTag2ValueType;

#define TAVIKM_TAG_TYPE_ACCESSOR(tag_type, member)                                        \
  template <Tag tag>                                                                      \
  struct TypedTag2ValueType<TypedTag<tag_type, tag>> {                                    \
    typedef decltype(std::declval<KeyParameter&>().member) type;                          \
  };                                                                                      \
  template <Tag tag>                                                                      \
  inline const auto& accessTagValue(TypedTag<tag_type, tag>, const KeyParameter& param) { \
    return param.member;                                                                  \
  }                                                                                       \
  template <Tag tag>                                                                      \
  inline auto& accessTagValue(TypedTag<tag_type, tag>, KeyParameter& param) {             \
    return param.member;                                                                  \
  }

TAVIKM_TAG_TYPE_ACCESSOR(TagType::UINT, f.integer)
TAVIKM_TAG_TYPE_ACCESSOR(TagType::UINT_REP, f.integer)
TAVIKM_TAG_TYPE_ACCESSOR(TagType::ULONG, f.longInteger)
TAVIKM_TAG_TYPE_ACCESSOR(TagType::ULONG_REP, f.longInteger)
TAVIKM_TAG_TYPE_ACCESSOR(TagType::DATE, f.dateTime)
TAVIKM_TAG_TYPE_ACCESSOR(TagType::BOOL, f.boolValue)
TAVIKM_TAG_TYPE_ACCESSOR(TagType::BYTES, blob)
TAVIKM_TAG_TYPE_ACCESSOR(TagType::BIGNUM, blob)
#undef TAVIKM_TAG_TYPE_ACCESSOR

#define TAVIKM_ENUM_TAG_ACCESSOR(typed_tag, member)                                         \
  template <>                                                                               \
  struct TypedTag2ValueType<std::remove_cv_t<decltype(typed_tag)>> {                        \
    typedef decltype(std::declval<KeyParameter&>().member) type;                            \
  };                                                                                        \
  inline const auto& accessTagValue(std::remove_cv_t<decltype(typed_tag)>,                  \
                                    const KeyParameter& param) {                            \
    return param.member;                                                                    \
  }                                                                                         \
  inline auto& accessTagValue(std::remove_cv_t<decltype(typed_tag)>, KeyParameter& param) { \
    return param.member;                                                                    \
  }

TAVIKM_ENUM_TAG_ACCESSOR(TAG_ALGORITHM, f.algorithm)
TAVIKM_ENUM_TAG_ACCESSOR(TAG_BLOB_USAGE_REQUIREMENTS, f.keyBlobUsageRequirements)
TAVIKM_ENUM_TAG_ACCESSOR(TAG_BLOCK_MODE, f.blockMode)
TAVIKM_ENUM_TAG_ACCESSOR(TAG_DIGEST, f.digest)
TAVIKM_ENUM_TAG_ACCESSOR(TAG_EC_CURVE, f.ecCurve)
TAVIKM_ENUM_TAG_ACCESSOR(TAG_ORIGIN, f.origin)
TAVIKM_ENUM_TAG_ACCESSOR(TAG_PADDING, f.paddingMode)
TAVIKM_ENUM_TAG_ACCESSOR(TAG_PURPOSE, f.purpose)
TAVIKM_ENUM_TAG_ACCESSOR(TAG_USER_AUTH_TYPE, f.hardwareAuthenticatorType)
TAVIKM_ENUM_TAG_ACCESSOR(TAG_HARDWARE_TYPE, f.hardwareType)
#undef TAVIKM_ENUM_TAG_ACCESSOR

template <TagType tag_type, Tag tag, typename ValueT>
inline KeyParameter makeKeyParameter(TypedTag<tag_type, tag> ttag, ValueT&& value) {
  KeyParameter param;
  param.tag = tag;
  param.f.longInteger = 0;
  accessTagValue(ttag, param) = std::forward<ValueT>(value);
  return param;
}

// A boolean tag is true by being present.
template <Tag tag>
inline KeyParameter makeKeyParameter(TypedTag<TagType::BOOL, tag>) {
  KeyParameter param;
  param.tag = tag;
  param.f.longInteger = 0;
  param.f.boolValue = true;
  return param;
}

template <TagType tag_type, Tag tag, typename... Args>
inline KeyParameter Authorization(TypedTag<tag_type, tag> ttag, Args&&... args) {
  static_assert(tag_type != TagType::BOOL || sizeof...(args) == 0,
                "a boolean tag takes no value: its presence is the value");
  static_assert(tag_type == TagType::BOOL || sizeof...(args) == 1,
                "a non-boolean tag takes exactly one value");
  if constexpr (tag_type != TagType::BOOL) {
    static_assert(
        (std::is_convertible_v<std::decay_t<Args>,
                               typename TypedTag2ValueType<TypedTag<tag_type, tag>>::type> &&
         ...),
        "wrong value type for this tag");
  }
  return makeKeyParameter(ttag, std::forward<Args>(args)...);
}

// A value that may be absent. For a reference type, value() must only be read when isOk().
template <typename ValueT>
class NullOr {
 public:
  NullOr() = default;
  NullOr(const std::remove_reference_t<ValueT>& value) : value_(&value) {}  // NOLINT

  bool isOk() const { return value_ != nullptr; }
  const std::remove_reference_t<ValueT>& value() const { return *value_; }

 private:
  const std::remove_reference_t<ValueT>* value_ = nullptr;
};

// The value of `param` when it carries `ttag`, else an absent NullOr.
template <TagType tag_type, Tag tag>
inline NullOr<const typename TypedTag2ValueType<TypedTag<tag_type, tag>>::type&> authorizationValue(
    TypedTag<tag_type, tag> ttag, const KeyParameter& param) {
  if (param.tag != tag) return {};
  return accessTagValue(ttag, param);
}

// Same tag and same value (for byte tags, the same bytes).
bool operator==(const KeyParameter& a, const KeyParameter& b);
inline bool operator!=(const KeyParameter& a, const KeyParameter& b) { return !(a == b); }
// Orders by tag, then by value; the order AuthorizationSet::Sort uses.
bool operator<(const KeyParameter& a, const KeyParameter& b);

}  // namespace V4_0
}  // namespace keymaster
}  // namespace hardware
}  // namespace android

#endif  // TAVIKM_HOST_KEYMASTERV4_0_KEYMASTER_TAGS_H_
