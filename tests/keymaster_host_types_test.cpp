// The host's HIDL support and Keymaster 4.0 support-library types: hidl_vec ownership and its
// size limit, the fatal checks of Return, and AuthorizationSet.
#include <android/hardware/keymaster/4.0/types.h>
#include <gtest/gtest.h>
#include <hardware/keymaster_defs.h>
#include <hidl/HidlSupport.h>
#include <hidl/Status.h>
#include <keymasterV4_0/authorization_set.h>
#include <stdint.h>

#include <sstream>
#include <string>
#include <vector>

#include "keymaster_host_util.h"

namespace tavikm_test::kmhost {
namespace {

using ::android::hardware::Return;
using ::android::hardware::Status;

TEST(HidlVecTest, ViewsShareCopiesOwnAndMovesKeepWhatTheyWere) {
  Bytes storage = {1, 2, 3, 4};
  hidl_vec<uint8_t> view;
  view.setToExternal(storage.data(), storage.size());
  EXPECT_EQ(view.data(), storage.data());

  hidl_vec<uint8_t> copy = view;
  EXPECT_NE(copy.data(), storage.data());
  EXPECT_EQ(copy, view);

  hidl_vec<uint8_t> moved = std::move(view);
  EXPECT_EQ(moved.data(), storage.data());
  storage[0] = 9;
  EXPECT_EQ(moved[0], 9);
  EXPECT_EQ(copy[0], 1);

  // A view hands over nothing; an owner hands over its buffer.
  EXPECT_EQ(moved.releaseData(), nullptr);
  uint8_t* owned = copy.releaseData();
  ASSERT_NE(owned, nullptr);
  EXPECT_EQ(owned[3], 4);
  EXPECT_EQ(copy.size(), 0u);
  delete[] owned;

  hidl_vec<uint8_t> grown = {7, 8};
  grown.resize(3);
  EXPECT_EQ(ToBytes(grown), (Bytes{7, 8, 0}));
}

TEST(HidlVecDeathTest, AnExternalVectorOver32BitsIsFatal) {
  uint8_t byte = 0;
  hidl_vec<uint8_t> view;
  view.setToExternal(&byte, UINT32_MAX);  // the largest allowed; never read
  EXPECT_EQ(view.size(), UINT32_MAX);
  EXPECT_DEATH(view.setToExternal(&byte, size_t{UINT32_MAX} + 1),
               "external vector size exceeds 2\\^32 elements\\.\n");
}

// Failed statuses' descriptions are the library's log text, asserted in keymaster_client_test.cpp
// and the services' tests.
TEST(HidlStatusDeathTest, AFailedReturnMustBeLookedAt) {
  EXPECT_DEATH(
      { Return<void> r = Status::fromExceptionCode(Status::EX_TRANSACTION_FAILED, "lost"); },
      "Failed HIDL return status not checked: Status\\(EX_TRANSACTION_FAILED\\): 'lost'");
  EXPECT_DEATH(
      {
        Return<ErrorCode> r = Status::fromExceptionCode(Status::EX_TRANSACTION_FAILED, "gone");
        ErrorCode code = r;
        (void)code;
      },
      "Attempted to retrieve value from failed HIDL call: .*'gone'");
  // A successful Return needs no looking at.
  { Return<ErrorCode> r = ErrorCode::OK; }
}

std::vector<hw::Tag> Tags(const hw::AuthorizationSet& set) {
  std::vector<hw::Tag> tags;
  for (const auto& p : set) tags.push_back(p.tag);
  return tags;
}

// What the builder's helpers append is checked where it matters, in the parameters the services
// send (mdfpp_*_test.cpp).
TEST(AuthorizationSetTest, ByteValuesAreReferencedByTheBuilderAndOwnedByCopies) {
  Bytes nonce(12, 0x11);
  hw::AuthorizationSetBuilder params;
  params.Authorization(hw::TAG_NONCE, static_cast<const uint8_t*>(nonce.data()), nonce.size());
  hw::AuthorizationSet copy = params;
  nonce[0] = 0x22;
  EXPECT_EQ(params[0].blob.data(), nonce.data());
  EXPECT_EQ(params[0].blob[0], 0x22);
  EXPECT_EQ(copy[0].blob[0], 0x11);

  // hidl_data() is a view of the entries, for a HAL call.
  hidl_vec<hw::KeyParameter> view = copy.hidl_data();
  EXPECT_EQ(view.data(), copy.data());
  EXPECT_EQ(view.size(), 1u);

  // Assigning a HAL list makes deep copies; an empty list leaves the set alone.
  hw::AuthorizationSet out;
  out.push_back(hw::TAG_KEY_SIZE, 128u);
  out = hidl_vec<hw::KeyParameter>();
  EXPECT_EQ(Tags(out), (std::vector<hw::Tag>{hw::Tag::KEY_SIZE}));
  out = params.hidl_data();
  EXPECT_EQ(Tags(out), (std::vector<hw::Tag>{hw::Tag::NONCE}));
  EXPECT_NE(out[0].blob.data(), nonce.data());
  EXPECT_EQ(out[0].blob[0], 0x22);
}

TEST(AuthorizationSetTest, SortUnionSubtractAndSerializationKeepEntriesIntact) {
  hw::AuthorizationSetBuilder a, b;
  a.Authorization(hw::TAG_PURPOSE, hw::KeyPurpose::SIGN)
      .Authorization(hw::TAG_ALGORITHM, hw::Algorithm::RSA)
      .Authorization(hw::TAG_APPLICATION_ID, "id", size_t{2});
  b.Authorization(hw::TAG_PURPOSE, hw::KeyPurpose::SIGN)
      .Authorization(hw::TAG_PURPOSE, hw::KeyPurpose::VERIFY);
  hw::AuthorizationSet u = a;
  u.Union(b);
  EXPECT_EQ(Tags(u), (std::vector<hw::Tag>{hw::Tag::ALGORITHM, hw::Tag::PURPOSE, hw::Tag::PURPOSE,
                                           hw::Tag::APPLICATION_ID}));
  u.Subtract(b);
  EXPECT_EQ(Tags(u), (std::vector<hw::Tag>{hw::Tag::ALGORITHM, hw::Tag::APPLICATION_ID}));
  EXPECT_TRUE(u.erase(0));
  EXPECT_FALSE(u.erase(5));

  std::stringstream stream;
  a.Serialize(&stream);
  hw::AuthorizationSet back;
  back.Deserialize(&stream);
  ASSERT_TRUE(stream);
  ASSERT_EQ(back.size(), a.size());
  for (size_t i = 0; i < a.size(); ++i) EXPECT_EQ(back[i], a[i]);

  // Truncated bytes are no set at all.
  std::string bytes;
  {
    std::stringstream whole;
    a.Serialize(&whole);
    bytes = whole.str();
  }
  std::stringstream cut(bytes.substr(0, bytes.size() - 1));
  back.Deserialize(&cut);
  EXPECT_FALSE(cut);
  EXPECT_TRUE(back.empty());
}

}  // namespace
}  // namespace tavikm_test::kmhost
