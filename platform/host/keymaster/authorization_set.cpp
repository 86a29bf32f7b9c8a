// SPDX-License-Identifier: Apache-2.0
// AuthorizationSet and AuthorizationSetBuilder of the host's Keymaster 4.0 support library, and
// the comparison of KeyParameters they rely on.
#include <keymasterV4_0/authorization_set.h>

#include <string.h>

#include <algorithm>
#include <tuple>

namespace android {
namespace hardware {
namespace keymaster {
namespace V4_0 {

namespace {

// The value of a parameter as its tag type defines it; bytes compare separately.
uint64_t ScalarValue(const KeyParameter& param) {
  switch (typeFromTag(param.tag)) {
    case TagType::ENUM:
    case TagType::ENUM_REP:
    case TagType::UINT:
    case TagType::UINT_REP:
      return param.f.integer;
    case TagType::ULONG:
    case TagType::ULONG_REP:
      return param.f.longInteger;
    case TagType::DATE:
      return param.f.dateTime;
    case TagType::BOOL:
      return param.f.boolValue ? 1 : 0;
    default:
      return 0;
  }
}

bool HasBytes(Tag tag) {
  TagType type = typeFromTag(tag);
  return type == TagType::BYTES || type == TagType::BIGNUM;
}

int CompareBytes(const hidl_vec<uint8_t>& a, const hidl_vec<uint8_t>& b) {
  size_t common = std::min(a.size(), b.size());
  int c = common ? memcmp(a.data(), b.data(), common) : 0;
  if (c != 0) return c;
  return a.size() < b.size() ? -1 : (a.size() > b.size() ? 1 : 0);
}

void PutU32(std::ostream* out, uint32_t v) {
  unsigned char b[4] = {static_cast<unsigned char>(v), static_cast<unsigned char>(v >> 8),
                        static_cast<unsigned char>(v >> 16), static_cast<unsigned char>(v >> 24)};
  out->write(reinterpret_cast<const char*>(b), 4);
}

void PutU64(std::ostream* out, uint64_t v) {
  PutU32(out, static_cast<uint32_t>(v));
  PutU32(out, static_cast<uint32_t>(v >> 32));
}

bool GetU32(std::istream* in, uint32_t* v) {
  unsigned char b[4];
  if (!in->read(reinterpret_cast<char*>(b), 4)) return false;
  *v = b[0] | (b[1] << 8) | (b[2] << 16) | (static_cast<uint32_t>(b[3]) << 24);
  return true;
}

bool GetU64(std::istream* in, uint64_t* v) {
  uint32_t lo, hi;
  if (!GetU32(in, &lo) || !GetU32(in, &hi)) return false;
  *v = lo | (static_cast<uint64_t>(hi) << 32);
  return true;
}

// Bounds what a corrupt count or length can make Deserialize allocate.
constexpr uint32_t kMaxSerializedEntries = 1u << 16;
constexpr uint32_t kMaxSerializedBytes = 1u << 20;

}  // namespace

bool operator==(const KeyParameter& a, const KeyParameter& b) {
  if (a.tag != b.tag) return false;
  if (HasBytes(a.tag)) return CompareBytes(a.blob, b.blob) == 0;
  return ScalarValue(a) == ScalarValue(b);
}

bool operator<(const KeyParameter& a, const KeyParameter& b) {
  if (a.tag != b.tag) return static_cast<uint32_t>(a.tag) < static_cast<uint32_t>(b.tag);
  if (HasBytes(a.tag)) return CompareBytes(a.blob, b.blob) < 0;
  return ScalarValue(a) < ScalarValue(b);
}

AuthorizationSet& AuthorizationSet::operator=(const hidl_vec<KeyParameter>& other) {
  if (other.size() > 0) {
    // KeyParameter copies are deep: the blobs come along.
    data_.assign(other.begin(), other.end());
  }
  return *this;
}

void AuthorizationSet::Sort() { std::stable_sort(data_.begin(), data_.end()); }

void AuthorizationSet::Deduplicate() {
  Sort();
  data_.erase(std::unique(data_.begin(), data_.end()), data_.end());
}

void AuthorizationSet::Union(const AuthorizationSet& set) {
  push_back(set);
  Deduplicate();
}

void AuthorizationSet::Subtract(const AuthorizationSet& set) {
  Filter([&set](const KeyParameter& param) {
    return std::find(set.begin(), set.end(), param) == set.end();
  });
}

void AuthorizationSet::Filter(std::function<bool(const KeyParameter&)> doKeep) {
  std::vector<KeyParameter> kept;
  for (KeyParameter& param : data_) {
    if (doKeep(param)) kept.push_back(std::move(param));
  }
  data_ = std::move(kept);
}

int AuthorizationSet::find(Tag tag, int begin) const {
  for (size_t i = begin < 0 ? 0 : static_cast<size_t>(begin) + 1; i < data_.size(); ++i) {
    if (data_[i].tag == tag) return static_cast<int>(i);
  }
  return -1;
}

bool AuthorizationSet::erase(int index) {
  if (index < 0 || static_cast<size_t>(index) >= data_.size()) return false;
  data_.erase(data_.begin() + index);
  return true;
}

size_t AuthorizationSet::GetTagCount(Tag tag) const {
  return static_cast<size_t>(std::count_if(data_.begin(), data_.end(),
                                           [tag](const KeyParameter& p) { return p.tag == tag; }));
}

// Little-endian: entry count, then per entry the tag and its value (4 bytes for enums and
// 32-bit numbers, 8 for 64-bit numbers and dates, 1 for booleans, a 4-byte length and the bytes
// for byte values).
void AuthorizationSet::Serialize(std::ostream* out) const {
  PutU32(out, static_cast<uint32_t>(data_.size()));
  for (const KeyParameter& param : data_) {
    PutU32(out, static_cast<uint32_t>(param.tag));
    switch (typeFromTag(param.tag)) {
      case TagType::ENUM:
      case TagType::ENUM_REP:
      case TagType::UINT:
      case TagType::UINT_REP:
        PutU32(out, param.f.integer);
        break;
      case TagType::ULONG:
      case TagType::ULONG_REP:
        PutU64(out, param.f.longInteger);
        break;
      case TagType::DATE:
        PutU64(out, param.f.dateTime);
        break;
      case TagType::BOOL:
        out->put(param.f.boolValue ? 1 : 0);
        break;
      case TagType::BYTES:
      case TagType::BIGNUM:
        PutU32(out, static_cast<uint32_t>(param.blob.size()));
        out->write(reinterpret_cast<const char*>(param.blob.data()),
                   static_cast<std::streamsize>(param.blob.size()));
        break;
      default:
        break;
    }
  }
}

void AuthorizationSet::Deserialize(std::istream* in) {
  data_.clear();
  auto fail = [&] {
    data_.clear();
    in->setstate(std::ios::failbit);
  };
  uint32_t count;
  if (!GetU32(in, &count) || count > kMaxSerializedEntries) return fail();
  for (uint32_t i = 0; i < count; ++i) {
    uint32_t tag;
    if (!GetU32(in, &tag)) return fail();
    KeyParameter param;
    param.tag = static_cast<Tag>(tag);
    bool ok = true;
    switch (typeFromTag(param.tag)) {
      case TagType::ENUM:
      case TagType::ENUM_REP:
      case TagType::UINT:
      case TagType::UINT_REP:
        ok = GetU32(in, &param.f.integer);
        break;
      case TagType::ULONG:
      case TagType::ULONG_REP:
        ok = GetU64(in, &param.f.longInteger);
        break;
      case TagType::DATE:
        ok = GetU64(in, &param.f.dateTime);
        break;
      case TagType::BOOL: {
        int b = in->get();
        ok = b == 0 || b == 1;
        param.f.boolValue = b == 1;
        break;
      }
      case TagType::BYTES:
      case TagType::BIGNUM: {
        uint32_t length;
        ok = GetU32(in, &length) && length <= kMaxSerializedBytes;
        if (ok) {
          std::vector<uint8_t> bytes(length);
          ok = !length || in->read(reinterpret_cast<char*>(bytes.data()), length);
          param.blob = bytes;
        }
        break;
      }
      case TagType::INVALID:
        break;
      default:
        ok = false;
        break;
    }
    if (!ok) return fail();
    data_.push_back(std::move(param));
  }
}

AuthorizationSetBuilder& AuthorizationSetBuilder::RsaKey(uint32_t key_size,
                                                         uint64_t public_exponent) {
  Authorization(TAG_ALGORITHM, Algorithm::RSA);
  Authorization(TAG_KEY_SIZE, key_size);
  Authorization(TAG_RSA_PUBLIC_EXPONENT, public_exponent);
  return *this;
}

AuthorizationSetBuilder& AuthorizationSetBuilder::EcdsaKey(uint32_t key_size) {
  Authorization(TAG_ALGORITHM, Algorithm::EC);
  Authorization(TAG_KEY_SIZE, key_size);
  return *this;
}

AuthorizationSetBuilder& AuthorizationSetBuilder::EcdsaKey(EcCurve curve) {
  Authorization(TAG_ALGORITHM, Algorithm::EC);
  Authorization(TAG_EC_CURVE, curve);
  return *this;
}

AuthorizationSetBuilder& AuthorizationSetBuilder::AesKey(uint32_t key_size) {
  Authorization(TAG_ALGORITHM, Algorithm::AES);
  return Authorization(TAG_KEY_SIZE, key_size);
}

AuthorizationSetBuilder& AuthorizationSetBuilder::TripleDesKey(uint32_t key_size) {
  Authorization(TAG_ALGORITHM, Algorithm::TRIPLE_DES);
  return Authorization(TAG_KEY_SIZE, key_size);
}

AuthorizationSetBuilder& AuthorizationSetBuilder::HmacKey(uint32_t key_size) {
  Authorization(TAG_ALGORITHM, Algorithm::HMAC);
  Authorization(TAG_KEY_SIZE, key_size);
  return SigningKey();
}

AuthorizationSetBuilder& AuthorizationSetBuilder::RsaSigningKey(uint32_t key_size,
                                                                uint64_t public_exponent) {
  RsaKey(key_size, public_exponent);
  return SigningKey();
}

AuthorizationSetBuilder& AuthorizationSetBuilder::RsaEncryptionKey(uint32_t key_size,
                                                                   uint64_t public_exponent) {
  RsaKey(key_size, public_exponent);
  return EncryptionKey();
}

AuthorizationSetBuilder& AuthorizationSetBuilder::EcdsaSigningKey(uint32_t key_size) {
  EcdsaKey(key_size);
  return SigningKey();
}

AuthorizationSetBuilder& AuthorizationSetBuilder::EcdsaSigningKey(EcCurve curve) {
  EcdsaKey(curve);
  return SigningKey();
}

AuthorizationSetBuilder& AuthorizationSetBuilder::AesEncryptionKey(uint32_t key_size) {
  AesKey(key_size);
  return EncryptionKey();
}

AuthorizationSetBuilder& AuthorizationSetBuilder::TripleDesEncryptionKey(uint32_t key_size) {
  TripleDesKey(key_size);
  return EncryptionKey();
}

AuthorizationSetBuilder& AuthorizationSetBuilder::SigningKey() {
  Authorization(TAG_PURPOSE, KeyPurpose::SIGN);
  return Authorization(TAG_PURPOSE, KeyPurpose::VERIFY);
}

AuthorizationSetBuilder& AuthorizationSetBuilder::EncryptionKey() {
  Authorization(TAG_PURPOSE, KeyPurpose::ENCRYPT);
  return Authorization(TAG_PURPOSE, KeyPurpose::DECRYPT);
}

AuthorizationSetBuilder& AuthorizationSetBuilder::NoDigestOrPadding() {
  Authorization(TAG_DIGEST, V4_0::Digest::NONE);
  return Authorization(TAG_PADDING, PaddingMode::NONE);
}

AuthorizationSetBuilder& AuthorizationSetBuilder::EcbMode() {
  return Authorization(TAG_BLOCK_MODE, V4_0::BlockMode::ECB);
}

AuthorizationSetBuilder& AuthorizationSetBuilder::GcmModeMinMacLen(uint32_t minMacLength) {
  Authorization(TAG_BLOCK_MODE, V4_0::BlockMode::GCM);
  return Authorization(TAG_MIN_MAC_LENGTH, minMacLength);
}

AuthorizationSetBuilder& AuthorizationSetBuilder::GcmModeMacLen(uint32_t macLength) {
  Authorization(TAG_BLOCK_MODE, V4_0::BlockMode::GCM);
  return Authorization(TAG_MAC_LENGTH, macLength);
}

AuthorizationSetBuilder& AuthorizationSetBuilder::BlockMode(
    std::initializer_list<V4_0::BlockMode> blockModes) {
  for (V4_0::BlockMode mode : blockModes) Authorization(TAG_BLOCK_MODE, mode);
  return *this;
}

AuthorizationSetBuilder& AuthorizationSetBuilder::Digest(std::vector<V4_0::Digest> digests) {
  for (V4_0::Digest digest : digests) Authorization(TAG_DIGEST, digest);
  return *this;
}

AuthorizationSetBuilder& AuthorizationSetBuilder::Padding(
    std::initializer_list<PaddingMode> paddings) {
  for (PaddingMode padding : paddings) Authorization(TAG_PADDING, padding);
  return *this;
}

}  // namespace V4_0
}  // namespace keymaster
}  // namespace hardware
}  // namespace android
