// SPDX-License-Identifier: Apache-2.0
// The host's HIDL support and Keymaster 4.0 support-library types as the library and the host
// Keymaster use them: the fatal checks of Return, and the byte values and binary form of
// AuthorizationSet.
#include <android/hardware/keymaster/4.0/types.h>
#include <gtest/gtest.h>
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

// Failed statuses' descriptions are the library's log text, asserted in keymaster_client_test.cpp
// and the services' tests. These checks make any unchecked call of the library fatal in tests.
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
  ASSERT_EQ(out.size(), 1u);
  EXPECT_EQ(out[0].tag, hw::Tag::KEY_SIZE);
  out = params.hidl_data();
  ASSERT_EQ(out.size(), 1u);
  EXPECT_EQ(out[0].tag, hw::Tag::NONCE);
  EXPECT_NE(out[0].blob.data(), nonce.data());
  EXPECT_EQ(out[0].blob[0], 0x22);
}

// The host Keymaster's key blobs carry their authorizations in this form.
TEST(AuthorizationSetTest, SerializationKeepsEntriesIntactAndRefusesTruncatedBytes) {
  hw::AuthorizationSetBuilder a;
  a.Authorization(hw::TAG_PURPOSE, hw::KeyPurpose::SIGN)
      .Authorization(hw::TAG_ALGORITHM, hw::Algorithm::RSA)
      .Authorization(hw::TAG_APPLICATION_ID, "id", size_t{2});
  std::stringstream stream;
  a.Serialize(&stream);
  const std::string bytes = stream.str();
  hw::AuthorizationSet back;
  back.Deserialize(&stream);
  ASSERT_TRUE(stream);
  ASSERT_EQ(back.size(), a.size());
  for (size_t i = 0; i < a.size(); ++i) EXPECT_EQ(back[i], a[i]);

  std::stringstream cut(bytes.substr(0, bytes.size() - 1));
  back.Deserialize(&cut);
  EXPECT_FALSE(cut);
  EXPECT_TRUE(back.empty());
}

}  // namespace
}  // namespace tavikm_test::kmhost
