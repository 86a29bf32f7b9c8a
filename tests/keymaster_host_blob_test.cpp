// The host Keymaster with blob contents it would not make itself, sealed under the device secret
// as the key-blob fuzz target seals them: regression tests for what fuzzing found.
#include <gtest/gtest.h>

#include "keymaster_host_util.h"
#include "platform/host/keymaster/key_blob.h"
#include "support/device_env.h"
#include "tavikm_host/keymaster.h"

namespace tavikm_test::kmhost {
namespace {

class KeymasterHostBlobTest : public DeviceTest {};

// A blob without OS_VERSION and OS_PATCHLEVEL reads as bound to version 0 and patch level 0, so
// it needs an upgrade. The upgrade used to re-seal it unchanged, and every begin asked for
// another upgrade: a caller that upgrades until begin succeeds never stopped.
TEST_F(KeymasterHostBlobTest, UpgradeBindsAKeyWithoutOsBinding) {
  KeymasterPtr km = FirstDevice();
  ASSERT_TRUE(km);
  KeyResult key = Generate(*km, AesGcmKey());
  ASSERT_EQ(key.error, ErrorCode::OK);
  tavikm_host::km::KeyBlobContents contents;
  ASSERT_TRUE(tavikm_host::km::OpenKeyBlob(key.blob.data(), key.blob.size(), &contents));
  contents.authorizations.Filter([](const hw::KeyParameter& param) {
    return param.tag != hw::Tag::OS_VERSION && param.tag != hw::Tag::OS_PATCHLEVEL;
  });
  Bytes unbound;
  ASSERT_TRUE(tavikm_host::km::SealKeyBlob(contents, &unbound));

  const Bytes nonce(12, 0x07);
  const Bytes plain(16, 0x5A);
  EXPECT_EQ(GcmRun(*km, hw::KeyPurpose::ENCRYPT, unbound, nonce, plain).error,
            ErrorCode::KEY_REQUIRES_UPGRADE);
  BlobResult upgraded = Upgrade(*km, unbound);
  ASSERT_EQ(upgraded.error, ErrorCode::OK);
  ASSERT_FALSE(upgraded.blob.empty());

  ErrorCode error = ErrorCode::UNKNOWN_ERROR;
  hw::AuthorizationSet enforced(Characteristics(*km, upgraded.blob, &error).hardwareEnforced);
  ASSERT_EQ(error, ErrorCode::OK);
  EXPECT_EQ(enforced.GetTagValue(hw::TAG_OS_VERSION).value(), tavikm_host::KeymasterOsVersion());
  EXPECT_EQ(enforced.GetTagValue(hw::TAG_OS_PATCHLEVEL).value(),
            tavikm_host::KeymasterOsPatchlevel());
  EXPECT_EQ(GcmRun(*km, hw::KeyPurpose::ENCRYPT, upgraded.blob, nonce, plain).error, ErrorCode::OK);
}

}  // namespace
}  // namespace tavikm_test::kmhost
