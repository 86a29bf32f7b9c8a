// SPDX-License-Identifier: Apache-2.0
// The AES side of the Keymaster services on the software Keymaster and on injected faults: the
// security probes, AES key creation into the caller's buffer, object encryption and decryption
// with the rate-limit wait and the upgrade answer. Upgrading the AES key's blob is tested with
// the RSA key's, in mdfpp_rsa_test.cpp.
#include <cutils/properties.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <stdint.h>
#include <stdlib.h>
#include <string.h>

#include <functional>
#include <string>
#include <vector>

#include "keymaster_test_devices.h"
#include "mdfpp_test_util.h"
#include "support/expected_leak.h"
#include "tavikm_host/keymaster.h"
#include "tavikm_host/keymaster_faults.h"
#include "tavikm_keymaster.h"

namespace tavikm_test::mdfpp {
namespace {

using hw::ErrorCode;
using tavikm_host::KeymasterCall;

const Bytes kNonce(12, 0x4e);

class MdfppAesTest : public MdfppTest {
 protected:
  // The services' call as the record code makes it; the three upgrade arguments are watched.
  int Encrypt(const Bytes& key, const Bytes& in, Bytes* out, bool encrypt = true,
              unsigned int ratelimit = 1, const Bytes& nonce = kNonce) {
    unsigned char sentinel = 0, upgrade_buffer[32];
    memset(upgrade_buffer, 0xa5, sizeof(upgrade_buffer));
    unsigned char* buffer = &sentinel;
    unsigned int size = 0xdead;
    unsigned long upgrade_size = 0x5a5a;
    int rc = (encrypt ? keymaster_encrypt_object_for_mdfpp : keymaster_decrypt_object_for_mdfpp)(
        key.data(), key.size(), nonce.empty() ? nullptr : nonce.data(), nonce.size(), ratelimit,
        in.data(), in.size(), &buffer, &size, upgrade_buffer, sizeof(upgrade_buffer),
        &upgrade_size);
    EXPECT_EQ(Bytes(upgrade_buffer, upgrade_buffer + 32), Bytes(32, 0xa5));
    EXPECT_EQ(upgrade_size, 0x5a5au);
    if (rc != 0) {
      // Nothing handed out.
      EXPECT_EQ(buffer, &sentinel);
      EXPECT_EQ(size, 0xdeadu);
      return rc;
    }
    out->assign(buffer, buffer + size);
    free(buffer);
    return rc;
  }
  int Decrypt(const Bytes& key, const Bytes& in, Bytes* out) {
    return Encrypt(key, in, out, false);
  }
};

// ---- The probes and key creation -----------------------------------------------------------

TEST_F(MdfppAesTest, CompatibilityTellsSecureFromSoftwareFromNone) {
  for (auto* probe :
       {keymaster_compatibility_cryptfs_mdfpp, keymaster_compatibility_cryptfs_scrypt_mdfpp}) {
    tavikm_host::SetKeymasterDeviceLevels({1});
    EXPECT_EQ(probe(), 1);
    tavikm_host::SetKeymasterDeviceLevels({2, 0});
    EXPECT_EQ(probe(), 0);
    tavikm_host::SetKeymasterDeviceLevels({2});
    log_.Clear();
    EXPECT_EQ(probe(), -1);
    EXPECT_EQ(log_.Lines(),
              (std::vector<LogLine>{KmError("Failed to initiate keymaster session")}));
  }
}

TEST_F(MdfppAesTest, KeyBufferMustHoldTheWholeBlob) {
  const size_t length = CreateAesKey().size();
  // Exactly the blob's length: copied, and the bytes beyond are the caller's.
  Bytes buffer(length + 8, 0xee);
  unsigned int size = 0;
  ASSERT_EQ(keymaster_create_aes_key_for_mdfpp(buffer.data(), length, &size), 0);
  EXPECT_EQ(size, length);
  EXPECT_EQ(Bytes(buffer.begin() + length, buffer.end()), Bytes(8, 0xee));
  EXPECT_NE(Bytes(buffer.begin(), buffer.begin() + length), Bytes(length, 0xee));

  // One byte less: the needed size is reported, the buffer is untouched, nothing is said.
  Bytes small(length - 1, 0xee);
  log_.Clear();
  EXPECT_EQ(keymaster_create_aes_key_for_mdfpp(small.data(), small.size(), &size), -1);
  EXPECT_EQ(size, length);
  EXPECT_EQ(small, Bytes(length - 1, 0xee));
  EXPECT_EQ(log_.Lines(), (std::vector<LogLine>{DeviceLine()}));
}

// ---- Objects --------------------------------------------------------------------------------

TEST_F(MdfppAesTest, ObjectsGrowByTheTagAndComeBack) {
  auto received = kmdev::UseOnly<kmdev::RecordingKeymaster>();
  Bytes key = CreateAesKey();
  for (size_t n : {1u, 16u, 32u, 33u, 300u}) {
    SCOPED_TRACE(n);
    received->calls.clear();
    Bytes plain = Pattern(n), sealed, opened;
    ASSERT_EQ(Encrypt(key, plain, &sealed), 0);
    ASSERT_EQ(sealed.size(), n + 16);
    // Encrypted at all; a 1-byte ciphertext equals its plaintext once in 256 keys.
    if (n >= 16) {
      EXPECT_NE(Bytes(sealed.begin(), sealed.begin() + n), plain);
    }
    ASSERT_EQ(Decrypt(key, sealed, &opened), 0);
    EXPECT_EQ(opened, plain);

    auto begun = received->Of(KeymasterCall::kBegin);
    ASSERT_EQ(begun.size(), 2u);
    EXPECT_EQ(begun[0].purpose, hw::KeyPurpose::ENCRYPT);
    EXPECT_EQ(begun[0].key, key);
    EXPECT_EQ(begun[1].purpose, hw::KeyPurpose::DECRYPT);
  }
  EXPECT_TRUE(Sleeps().empty());
  EXPECT_EQ(tavikm_host::KeymasterOpenOperations(), 0u);
  // Only the session lines: success is quiet.
  for (const LogLine& line : log_.Lines()) EXPECT_EQ(line, DeviceLine());
}

TEST_F(MdfppAesTest, AChangedTagFailsAtFinish) {
  Bytes key = CreateAesKey();
  Bytes sealed, opened;
  ASSERT_EQ(Encrypt(key, Pattern(40), &sealed), 0);
  sealed.back() ^= 0x01;
  log_.Clear();
  // A failing finish leaves the update's output buffer allocated, by design of the service.
  EXPECT_EQ(WithExpectedLeak([&] { return Decrypt(key, sealed, &opened); }), -1);
  EXPECT_EQ(log_.Lines(), (std::vector<LogLine>{
                              DeviceLine(), KmError("finish failed, code -30"),
                              KmError("Error finalizing keymaster decryption transaction: 0")}));
}

TEST_F(MdfppAesTest, RateLimitIsWaitedOutOtherCodesAreNot) {
  Bytes key = CreateAesKey();
  tavikm_host::FailKeymasterCall(KeymasterCall::kBegin, 1, ErrorCode::KEY_RATE_LIMIT_EXCEEDED);
  tavikm_host::FailKeymasterCall(KeymasterCall::kBegin, 2, ErrorCode::KEY_RATE_LIMIT_EXCEEDED);
  Bytes sealed, opened;
  ASSERT_EQ(Encrypt(key, Pattern(20), &sealed, true, 3), 0);
  EXPECT_EQ(Sleeps(), (std::vector<unsigned int>{3, 3}));
  EXPECT_EQ(tavikm_host::KeymasterCallCount(KeymasterCall::kBegin), 3);
  ASSERT_EQ(Decrypt(key, sealed, &opened), 0);
  EXPECT_EQ(opened, Pattern(20));

  // A concurrent-access conflict is a failure like any other: no retry.
  tavikm_host::ResetKeymaster();
  tavikm_host::FailKeymasterCall(KeymasterCall::kBegin, 1, ErrorCode::CONCURRENT_ACCESS_CONFLICT);
  log_.Clear();
  EXPECT_EQ(Encrypt(key, Pattern(20), &sealed, true, 3), -1);
  EXPECT_EQ(Sleeps().size(), 2u);
  EXPECT_EQ(tavikm_host::KeymasterCallCount(KeymasterCall::kBegin), 1);
  EXPECT_EQ(log_.Lines(), (std::vector<LogLine>{
                              DeviceLine(), KmError("begin failed, code -47"),
                              KmError("Error starting keymaster encryption transaction: -47")}));
}

// Each failed step is named in the direction's own words, with nothing handed out. A device that
// takes none of the input fails the sending step: the operation is aborted, not fed for ever.
TEST_F(MdfppAesTest, FailedStepsAreNamedPerDirection) {
  Bytes key = CreateAesKey();
  struct Case {
    const char* what;
    std::function<void()> arrange;
    Bytes nonce;
    std::string step, code;  // the service's line: step, direction, " transaction: ", code
    std::string client_line;
  };
  const Case cases[] = {
      {"begin transport",
       [] { tavikm_host::FailKeymasterTransport(KeymasterCall::kBegin, 1, "binder died"); }, kNonce,
       "Error starting keymaster ", "-1000",
       "begin failed: Status(EX_TRANSACTION_FAILED): 'binder died'"},
      // A missing nonce passes the argument check; the device refuses the empty one.
      {"no nonce", [] {}, Bytes(), "Error starting keymaster ", "-52", "begin failed, code -52"},
      {"update refused",
       [] {
         tavikm_host::FailKeymasterCall(KeymasterCall::kUpdate, 1, ErrorCode::INVALID_INPUT_LENGTH);
       },
       kNonce, "Error sending data to keymaster ", "0", "update failed, code -21"},
      {"update takes nothing", [] { tavikm_host::SetKeymasterUpdateLimit(0); }, kNonce,
       "Error sending data to keymaster ", "0", ""},
  };
  for (const Case& c : cases) {
    for (bool encrypt : {true, false}) {
      SCOPED_TRACE(std::string(c.what) + (encrypt ? ", encryption" : ", decryption"));
      c.arrange();
      const size_t aborted = tavikm_host::KeymasterAbortedHandles().size();
      log_.Clear();
      Bytes out;
      EXPECT_EQ(Encrypt(key, Pattern(40), &out, encrypt, 1, c.nonce), -1);
      std::vector<LogLine> expected{DeviceLine()};
      if (!c.client_line.empty()) expected.push_back(KmError(c.client_line));
      expected.push_back(
          KmError(c.step + (encrypt ? "encryption" : "decryption") + " transaction: " + c.code));
      EXPECT_EQ(log_.Lines(), expected);
      EXPECT_EQ(tavikm_host::KeymasterAbortedHandles().size(),
                aborted + (c.client_line.empty() ? 1 : 0));
      EXPECT_EQ(tavikm_host::KeymasterOpenOperations(), 0u);
      tavikm_host::SetKeymasterUpdateLimit(tavikm_host::kWholeUpdates);
    }
  }
}

}  // namespace
}  // namespace tavikm_test::mdfpp
