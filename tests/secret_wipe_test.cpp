// SPDX-License-Identifier: Apache-2.0
// No secret outlives its use in the heap: the Keymaster services wipe every copy of a plaintext
// or a signature before its block goes, the blocks some failures deliberately leave allocated
// hold nothing, and a random generator that fails ends the process instead of handing out keys
// that are not random. The heap is watched through the allocator hooks of alloc_watch.
#include <cutils/properties.h>
#include <gtest/gtest.h>
#include <stdlib.h>
#include <string.h>

#include <algorithm>
#include <vector>

#include "keymaster/legacy_keymaster.h"
#include "support/alloc_watch.h"
#include "support/device_env.h"
#include "support/scripted_kmstore.h"
#include "support/virtual_time.h"
#include "tavikm.h"
#include "tavikm_keymaster.h"

namespace tavikm_test {
namespace {

using Bytes = std::vector<uint8_t>;

Bytes Pattern(size_t size, uint8_t start) {
  Bytes b(size);
  for (size_t i = 0; i < size; ++i) b[i] = static_cast<uint8_t>(start + 29 * i);
  return b;
}

Bytes Head(const Bytes& bytes, size_t n = 32) { return Bytes(bytes.begin(), bytes.begin() + n); }

class SecretWipeTest : public DeviceTest {
 protected:
  Bytes AesKey() {
    Bytes key(2048);
    unsigned int size = 0;
    EXPECT_EQ(keymaster_create_aes_key_for_mdfpp(key.data(), key.size(), &size), 0);
    key.resize(size);
    return key;
  }

  // 0, -1 or -2 from the object service of `direction`, the result in `*result`.
  int Object(bool encrypt, const Bytes& key, const Bytes& in, Bytes* result) {
    unsigned char* out = nullptr;
    unsigned int out_size = 0;
    auto* service =
        encrypt ? keymaster_encrypt_object_for_mdfpp : keymaster_decrypt_object_for_mdfpp;
    const int rc = service(key.data(), key.size(), nonce_.data(), nonce_.size(), 1, in.data(),
                           in.size(), &out, &out_size, nullptr, 0, nullptr);
    if (rc == 0) result->assign(out, out + out_size);
    free(out);
    return rc;
  }

  const Bytes nonce_ = Pattern(12, 0x40);
  VirtualKeymasterTime time_;
};

// A decryption hands out the plaintext and keeps no copy of it in a block it frees.
TEST_F(SecretWipeTest, ObjectServicesFreeNoCopyOfThePlaintext) {
  const Bytes key = AesKey(), plain = Pattern(48, 0x11);
  Bytes sealed, opened;
  const std::vector<Bytes> needles = {Head(plain)};
  {
    AllocationWatch watch(needles);
    ASSERT_EQ(Object(true, key, plain, &sealed), 0);
    watch.Stop();
    EXPECT_EQ(watch.FreedHoldingSecrets(), 0);
  }
  AllocationWatch watch(needles);
  unsigned char* out = nullptr;
  unsigned int out_size = 0;
  ASSERT_EQ(keymaster_decrypt_object_for_mdfpp(key.data(), key.size(), nonce_.data(), nonce_.size(),
                                               1, sealed.data(), sealed.size(), &out, &out_size,
                                               nullptr, 0, nullptr),
            0);
  watch.Stop();
  ASSERT_EQ(Bytes(out, out + out_size), plain);
  free(out);
  EXPECT_EQ(watch.FreedHoldingSecrets(), 0);
}

// A changed tag fails the decryption at finish. The copy of the unauthenticated plaintext the
// service deliberately leaves allocated then is still there, and holds nothing.
TEST_F(SecretWipeTest, TheBlockLeftAfterAFailedFinishIsWiped) {
  const Bytes key = AesKey(), plain = Pattern(48, 0x23);
  Bytes sealed, opened;
  ASSERT_EQ(Object(true, key, plain, &sealed), 0);
  sealed.back() ^= 0x01;
  const std::vector<Bytes> needles = {Head(plain)};
  AllocationWatch watch(needles);
  EXPECT_EQ(Object(false, key, sealed, &opened), -1);
  watch.Stop();
  EXPECT_EQ(watch.FreedHoldingSecrets(), 0);
  const std::vector<HeapBlock> left = watch.Outstanding();
  const auto kept = std::find_if(left.begin(), left.end(),
                                 [&](const HeapBlock& b) { return b.size == plain.size(); });
  ASSERT_NE(kept, left.end()) << "the documented block is no longer left allocated";
  EXPECT_TRUE(BlockIsZero(*kept));
  for (const HeapBlock& block : left) EXPECT_FALSE(BlockHolds(block, Head(plain))) << block.size;
  free(kept->address);  // the test's to free, so no leak checker reports it
}

// The signature (the next scrypt's password) and the object (the intermediate key) leave no
// copy in a block the signing service frees.
TEST_F(SecretWipeTest, SigningFreesNoCopyOfTheObjectOrTheSignature) {
  Bytes key(2048);
  unsigned long key_size = 0;
  ASSERT_EQ(
      keymaster_create_key_for_cryptfs_scrypt_mdfpp(2048, 65537, 1, key.data(), 2048, &key_size),
      0);
  key.resize(key_size);
  Bytes object = Pattern(256, 0x35);
  object[0] = 0;
  auto sign = [&](Bytes* signature, AllocationWatch* watch) {
    unsigned char* out = nullptr;
    unsigned long size = 0;
    const int rc = keymaster_sign_object_for_cryptfs_scrypt_mdfpp(
        key.data(), key.size(), 1, object.data(), object.size(), &out, &size);
    if (watch) watch->Stop();  // what the caller does with its copy is not the service's
    if (rc == 0) signature->assign(out, out + size);
    free(out);
    return rc;
  };
  Bytes first, second;
  ASSERT_EQ(sign(&first, nullptr), 0);
  ASSERT_EQ(first.size(), 256u);
  // Raw RSA is deterministic: the second signature is the first, so it can be watched for.
  const std::vector<Bytes> needles = {Head(first), Bytes(object.begin() + 1, object.begin() + 33)};
  AllocationWatch watch(needles);
  ASSERT_EQ(sign(&second, &watch), 0);
  EXPECT_EQ(second, first);
  EXPECT_EQ(watch.FreedHoldingSecrets(), 0);
}

// A get whose key upgrade cannot be written back leaves its record allocated by design: wiped.
TEST_F(SecretWipeTest, TheRecordLeftByAFailedKekUpgradeWriteIsWiped) {
  ScopedKmstoreScript script;
  const Bytes kek = Pattern(32, 0x47);
  ASSERT_EQ(km_put_kek_enc_by_rek("k", kek.data(), kek.size()), 0);
  property_set("ro.build.version.security_patch", "2027-02-05");
  script->write = [](const char*, const uint8_t*, uint64_t) { return -1; };
  uint8_t out[64];
  uint64_t out_len = 0;
  const std::vector<Bytes> needles = {Head(kek, 16)};
  AllocationWatch watch(needles);
  EXPECT_EQ(km_get_kek_enc_by_rek("k", out, &out_len), -1);
  watch.Stop();
  const std::vector<HeapBlock> left = watch.Outstanding();
  // The record is read into one byte more than its size, which ends any string in it.
  const auto record = std::find_if(
      left.begin(), left.end(), [](const HeapBlock& b) { return b.size == sizeof(km_meta) + 1; });
  ASSERT_NE(record, left.end()) << "the documented record is no longer left allocated";
  EXPECT_TRUE(BlockIsZero(*record));
  free(record->address);
}

// A generator that reports failure would leave a master key, salt, KEK or MAC key that is not
// random: the process ends instead.
TEST_F(SecretWipeTest, AFailingRandomGeneratorEndsTheProcess) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  uint8_t bytes[32] = {};
  EXPECT_DEATH(
      {
        FailingRandom failing;
        km_generate_drbg_bytes(nullptr, bytes, sizeof(bytes));
      },
      "");
  km_meta meta = {};
  EXPECT_DEATH(
      {
        FailingRandom failing;
        km_generate_HMAC(&meta);
      },
      "");
  // Without the failure both go on.
  EXPECT_EQ(km_generate_drbg_bytes(nullptr, bytes, sizeof(bytes)), 0);
}

}  // namespace
}  // namespace tavikm_test
