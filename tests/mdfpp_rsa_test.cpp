// SPDX-License-Identifier: Apache-2.0
// The scrypt-binding side of the Keymaster services on the software Keymaster and on injected
// faults: the RSA key made and upgraded into the caller's buffer, and objects signed with it
// (checked with the key's public half), with the key's own rate limit waited out; and both
// upgrade services, the AES key's too.
#include <cutils/properties.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <openssl/evp.h>
#include <openssl/rsa.h>
#include <openssl/x509.h>
#include <stdint.h>
#include <stdlib.h>
#include <string.h>

#include <algorithm>
#include <functional>
#include <string>
#include <vector>

#include "keymaster_host_util.h"
#include "keymaster_test_devices.h"
#include "mdfpp_test_util.h"
#include "tavikm_host/keymaster.h"
#include "tavikm_host/keymaster_faults.h"
#include "tavikm_keymaster.h"

namespace tavikm_test::mdfpp {
namespace {

using hw::ErrorCode;
using tavikm_host::KeymasterCall;
using ::testing::ElementsAre;

constexpr unsigned int kRsaBits = 2048;
constexpr unsigned long kExponent = 65537;

// What the scrypt KDF signs: a zero byte, then data, 256 bytes in all.
Bytes BindingObject() {
  Bytes object = Pattern(256, 7);
  object[0] = 0;
  return object;
}

// The upgrade services as the records call them: in place, with the blob's length in `size`.
int UpgradeRsa(Bytes* record, unsigned long* size) {
  return keymaster_upgrade_key_for_cryptfs_scrypt_mdfpp(
      kRsaBits, kExponent, 1, record->data(), *size, record->data(), record->size(), size);
}
int UpgradeAes(Bytes* record, unsigned long* size) {
  return keymaster_upgrade_key_for_cryptfs_pbkdf2_mdfpp(record->data(), *size, record->data(),
                                                        record->size(), size);
}

class MdfppRsaTest : public MdfppTest {
 protected:
  Bytes CreateKey(unsigned int ratelimit = 1) {
    Bytes key(2048, 0xee);
    unsigned long size = 0;
    EXPECT_EQ(keymaster_create_key_for_cryptfs_scrypt_mdfpp(kRsaBits, kExponent, ratelimit,
                                                            key.data(), key.size(), &size),
              0);
    // The tail of the caller's buffer is zeroed.
    EXPECT_EQ(Bytes(key.begin() + size, key.end()), Bytes(key.size() - size, 0));
    key.resize(size);
    return key;
  }

  int Sign(const Bytes& key, const Bytes& object, Bytes* signature, unsigned int ratelimit = 1) {
    unsigned char sentinel = 0;
    unsigned char* buffer = &sentinel;
    unsigned long size = 0xdead;
    int rc = keymaster_sign_object_for_cryptfs_scrypt_mdfpp(
        key.data(), key.size(), ratelimit, object.data(), object.size(), &buffer, &size);
    if (rc != 0) {
      EXPECT_EQ(buffer, &sentinel);  // nothing handed out
      EXPECT_EQ(size, 0xdeadu);
      return rc;
    }
    signature->assign(buffer, buffer + size);
    free(buffer);
    return rc;
  }

  // s^e mod n with the key's public half: for a raw signature, the object itself.
  Bytes Recover(const Bytes& key, const Bytes& signature) {
    kmhost::KeymasterPtr km = kmhost::FirstDevice();
    kmhost::BlobResult spki;
    kmhost::ExpectOk(
        km->exportKey(hw::KeyFormat::X509, kmhost::View(key), {}, {}, spki.Callback()));
    EXPECT_EQ(spki.error, ErrorCode::OK);
    const uint8_t* p = spki.blob.data();
    EVP_PKEY* pub = d2i_PUBKEY(nullptr, &p, static_cast<long>(spki.blob.size()));
    if (!pub) {
      ADD_FAILURE() << "no public key";
      return {};
    }
    EVP_PKEY_CTX* ctx = EVP_PKEY_CTX_new(pub, nullptr);
    Bytes recovered(256);
    size_t recovered_size = recovered.size();
    EXPECT_GT(EVP_PKEY_encrypt_init(ctx), 0);
    EXPECT_GT(EVP_PKEY_CTX_set_rsa_padding(ctx, RSA_NO_PADDING), 0);
    EXPECT_GT(EVP_PKEY_encrypt(ctx, recovered.data(), &recovered_size, signature.data(),
                               signature.size()),
              0);
    EVP_PKEY_CTX_free(ctx);
    EVP_PKEY_free(pub);
    recovered.resize(recovered_size);
    return recovered;
  }
};

// ---- Key creation ---------------------------------------------------------------------------

// The key carries MIN_SECONDS_BETWEEN_OPS: a second signature right away meets the device's
// rate limit, and the service waits it out.
TEST_F(MdfppRsaTest, SignsWithTheKeyItMadeAndWaitsOutItsRateLimit) {
  auto received = kmdev::UseOnly<kmdev::RecordingKeymaster>();
  Bytes key = CreateKey(4);
  Bytes signature, again;
  ASSERT_EQ(Sign(key, BindingObject(), &signature, 4), 0);
  EXPECT_EQ(signature.size(), 256u);
  EXPECT_EQ(Recover(key, signature), BindingObject());
  auto begun = received->Of(KeymasterCall::kBegin);
  ASSERT_EQ(begun.size(), 1u);
  EXPECT_EQ(begun[0].purpose, hw::KeyPurpose::SIGN);
  EXPECT_EQ(begun[0].key, key);
  EXPECT_TRUE(Sleeps().empty());
  EXPECT_EQ(log_.Lines(), (std::vector<LogLine>{DeviceLine(), DeviceLine()}));

  ASSERT_EQ(Sign(key, BindingObject(), &again, 4), 0);
  EXPECT_EQ(Sleeps(), (std::vector<unsigned int>{4}));
  EXPECT_EQ(tavikm_host::KeymasterCallCount(KeymasterCall::kBegin), 3);
  EXPECT_EQ(again, signature);  // raw RSA is deterministic
}

// Without a key there is no size: no device clears the RSA size (the AES service leaves its size
// alone then, see ArgumentsAreCheckedOnceTheSessionIsOpen), a refused generation leaves 0 in
// both. The caller's buffer is never touched.
TEST_F(MdfppRsaTest, NoKeyNoSize) {
  Bytes buffer(2048, 0xee);
  unsigned long size = 77;
  unsigned int aes_size = 77;
  tavikm_host::SetKeymasterDeviceLevels({});
  EXPECT_EQ(keymaster_create_key_for_cryptfs_scrypt_mdfpp(kRsaBits, kExponent, 1, buffer.data(),
                                                          buffer.size(), &size),
            -1);
  EXPECT_EQ(size, 0u);
  tavikm_host::SetKeymasterDeviceLevels({1});
  tavikm_host::FailKeymasterCall(KeymasterCall::kGenerateKey, 1, ErrorCode::UNSUPPORTED_KEY_SIZE);
  tavikm_host::FailKeymasterCall(KeymasterCall::kGenerateKey, 2, ErrorCode::UNSUPPORTED_KEY_SIZE);
  size = 77;
  log_.Clear();
  EXPECT_EQ(keymaster_create_key_for_cryptfs_scrypt_mdfpp(kRsaBits, kExponent, 1, buffer.data(),
                                                          buffer.size(), &size),
            -1);
  EXPECT_EQ(keymaster_create_aes_key_for_mdfpp(buffer.data(), buffer.size(), &aes_size), -1);
  EXPECT_EQ(size, 0u);
  EXPECT_EQ(aes_size, 0u);
  EXPECT_EQ(log_.Lines(),
            (std::vector<LogLine>{DeviceLine(), KmError("generate_key failed, code -6"),
                                  DeviceLine(), KmError("generate_key failed, code -6")}));
  EXPECT_EQ(buffer, Bytes(2048, 0xee));
}

// ---- Upgrade --------------------------------------------------------------------------------

// Both keys as the records hold them (a 2048-byte buffer and its length field): refused with
// -2 after a patch raise, upgraded in place, and usable again.
TEST_F(MdfppRsaTest, KeysThatNeedAnUpgradeAreUpgradedInPlaceAndWorkAgain) {
  auto received = kmdev::UseOnly<kmdev::RecordingKeymaster>();
  const Bytes nonce(12, 0x4e);
  Bytes sealed, opened, signature;
  const auto crypt = [&](auto service, const Bytes& key, const Bytes& in, Bytes* out) {
    unsigned char* buffer = nullptr;
    unsigned int size = 0xdead;
    // No upgrade buffer: a service that wrote one on -2 would fault.
    int rc = service(key.data(), key.size(), nonce.data(), nonce.size(), 1, in.data(), in.size(),
                     &buffer, &size, nullptr, 0, nullptr);
    if (rc == 0) out->assign(buffer, buffer + size);
    EXPECT_TRUE(rc == 0 || (buffer == nullptr && size == 0xdeadu));  // nothing handed out
    free(buffer);
    return rc;
  };
  const Bytes rsa_key = CreateKey(), aes_key = CreateAesKey();
  ASSERT_EQ(crypt(keymaster_encrypt_object_for_mdfpp, aes_key, Pattern(32), &sealed), 0);
  const auto check = [&](const Bytes& old_key, auto upgrade, auto use, bool old_blob_as_nonce) {
    log_.Clear();
    EXPECT_EQ(use(old_key), -2);
    EXPECT_EQ(log_.Lines(), (std::vector<LogLine>{DeviceLine(), KmError("begin failed, code -62"),
                                                  KmError("Keymaster key requires upgrade")}));
    Bytes record(2048, 0);
    std::copy(old_key.begin(), old_key.end(), record.begin());
    unsigned long size = old_key.size();
    received->calls.clear();
    ASSERT_EQ(upgrade(&record, &size), 0);
    auto upgrades = received->Of(KeymasterCall::kUpgradeKey);
    ASSERT_EQ(upgrades.size(), 1u);
    EXPECT_EQ(upgrades[0].key, old_key);
    // The AES key's old blob stands in the NONCE parameter.
    const auto& params = upgrades[0].params;
    EXPECT_EQ(std::any_of(params.begin(), params.end(),
                          [&](const hw::KeyParameter& p) {
                            return p.tag == hw::Tag::NONCE &&
                                   Bytes(p.blob.begin(), p.blob.end()) == old_key;
                          }),
              old_blob_as_nonce);
    Bytes new_key(record.begin(), record.begin() + size);
    EXPECT_NE(new_key, old_key);
    EXPECT_EQ(Bytes(record.begin() + size, record.end()), Bytes(record.size() - size, 0));
    EXPECT_EQ(use(new_key), 0);
  };
  property_set("ro.build.version.security_patch", "2027-04-01");
  check(
      rsa_key, UpgradeRsa, [&](const Bytes& key) { return Sign(key, BindingObject(), &signature); },
      false);
  check(
      aes_key, UpgradeAes,
      [&](const Bytes& key) {
        return crypt(keymaster_decrypt_object_for_mdfpp, key, sealed, &opened);
      },
      true);
  EXPECT_EQ(opened, Pattern(32));
}

// ---- The caller's buffer: one rule for each service that fills one --------------------------

enum class Filler { kRsaCreate, kRsaUpgrade, kAesUpgrade };

class DestinationTest : public MdfppRsaTest, public ::testing::WithParamInterface<Filler> {
 protected:
  void SetUp() override {
    MdfppRsaTest::SetUp();
    if (GetParam() == Filler::kRsaUpgrade) key_ = CreateKey();
    if (GetParam() == Filler::kAesUpgrade) key_ = CreateAesKey();
    property_set("ro.build.version.security_patch", "2027-04-01");
    log_.Clear();
  }
  int Fill(unsigned char* buffer, unsigned int buffer_size, unsigned long* size) {
    switch (GetParam()) {
      case Filler::kRsaCreate:
        return keymaster_create_key_for_cryptfs_scrypt_mdfpp(kRsaBits, kExponent, 1, buffer,
                                                             buffer_size, size);
      case Filler::kRsaUpgrade:
        return keymaster_upgrade_key_for_cryptfs_scrypt_mdfpp(
            kRsaBits, kExponent, 1, key_.data(), key_.size(), buffer, buffer_size, size);
      case Filler::kAesUpgrade:
        return keymaster_upgrade_key_for_cryptfs_pbkdf2_mdfpp(key_.data(), key_.size(), buffer,
                                                              buffer_size, size);
    }
    return 0;
  }
  Bytes key_;
};

TEST_P(DestinationTest, TheBlobMustFitAndBothPointersMustBeGiven) {
  // The blob, then zeros to the end of the buffer.
  Bytes buffer(2048, 0xee);
  unsigned long size = 0;
  ASSERT_EQ(Fill(buffer.data(), buffer.size(), &size), 0);
  const unsigned long length = size;
  ASSERT_GT(length, 0u);
  EXPECT_NE(Bytes(buffer.begin(), buffer.begin() + length), Bytes(length, 0xee));
  EXPECT_EQ(Bytes(buffer.begin() + length, buffer.end()), Bytes(buffer.size() - length, 0));
  // An upgrade's blob has the same length each time: exactly that fits.
  if (GetParam() != Filler::kRsaCreate) {
    Bytes exact(length + 8, 0xee);
    ASSERT_EQ(Fill(exact.data(), length, &size), 0);
    EXPECT_EQ(size, length);
    EXPECT_EQ(Bytes(exact.begin() + length, exact.end()), Bytes(8, 0xee));
  }

  // Too small: the needed size is reported, the buffer is untouched.
  Bytes small(100, 0xee);
  log_.Clear();
  EXPECT_EQ(Fill(small.data(), small.size(), &size), -1);
  EXPECT_GT(size, 100u);
  if (GetParam() != Filler::kRsaCreate) {
    EXPECT_EQ(size, length);
  }
  EXPECT_EQ(small, Bytes(100, 0xee));
  EXPECT_EQ(log_.Lines(), (std::vector<LogLine>{DeviceLine(), KmError("Buffer too small 100 < " +
                                                                      std::to_string(size))}));

  // Missing destinations are found only after the device answered; the RSA services have
  // cleared the size by then.
  const auto call =
      GetParam() == Filler::kRsaCreate ? KeymasterCall::kGenerateKey : KeymasterCall::kUpgradeKey;
  const int calls = tavikm_host::KeymasterCallCount(call);
  Bytes untouched(2048, 0xee);
  log_.Clear();
  EXPECT_EQ(Fill(untouched.data(), untouched.size(), nullptr), -1);
  size = 77;
  EXPECT_EQ(Fill(nullptr, 2048, &size), -1);
  EXPECT_EQ(size, GetParam() == Filler::kAesUpgrade ? 77u : 0u);
  EXPECT_EQ(untouched, Bytes(2048, 0xee));
  EXPECT_EQ(tavikm_host::KeymasterCallCount(call), calls + 2);
  EXPECT_EQ(log_.Lines(), (std::vector<LogLine>{DeviceLine(), KmError("Missing target pointers"),
                                                DeviceLine(), KmError("Missing target pointers")}));
}

INSTANTIATE_TEST_SUITE_P(EachService, DestinationTest,
                         ::testing::Values(Filler::kRsaCreate, Filler::kRsaUpgrade,
                                           Filler::kAesUpgrade));

// Both upgrade services, in place as the records call them, when no new blob comes back: the
// record's blob and its length must stay as they were.
TEST_F(MdfppRsaTest, AnUpgradeWithoutANewBlobLeavesTheRecordsBlobAlone) {
  struct Service {
    const char* name;
    Bytes key;
    int (*upgrade)(Bytes* record, unsigned long* size);
    bool clears_size_first;
  };
  const Service services[] = {
      {"scrypt", CreateKey(), UpgradeRsa, true},
      {"pbkdf2", CreateAesKey(), UpgradeAes, false},
  };
  struct Device {
    const char* what;
    const char* patch;
    std::function<void()> arrange;
    bool empty_answer;
    const char* line;  // after the session's line, if there is a session
  };
  const auto as_is = [] {};
  const auto script = [](ErrorCode e) {
    return [e] { tavikm_host::FailKeymasterCall(KeymasterCall::kUpgradeKey, 1, e); };
  };
  const char* const kEmpty = "Upgraded key blob is empty";
  const char* const kNoSession = "Failed to initiate keymaster session";
  const Device devices[] = {
      {"a current key", "2026-11-05", as_is, true, kEmpty},
      // OK with no blob although the key needs an upgrade.
      {"nothing to do", "2027-04-01", script(ErrorCode::OK), true, kEmpty},
      {"a key from a newer system", "2026-01-05", as_is, false, "upgrade_key failed, code -38"},
      {"refused", "2027-04-01", script(ErrorCode::INVALID_KEY_BLOB), false,
       "upgrade_key failed, code -33"},
      // Last: no device from here on.
      {"no device", "2027-04-01", [] { tavikm_host::SetKeymasterDeviceLevels({}); }, false,
       kNoSession},
  };
  for (const Device& device : devices) {
    for (const Service& service : services) {
      SCOPED_TRACE(std::string(service.name) + ", " + device.what);
      Bytes record(2048, 0);
      std::copy(service.key.begin(), service.key.end(), record.begin());
      unsigned long size = service.key.size();
      const Bytes before = record;
      property_set("ro.build.version.security_patch", device.patch);
      device.arrange();
      log_.Clear();
      EXPECT_EQ(service.upgrade(&record, &size), -1);
      EXPECT_EQ(record, before);
      std::vector<LogLine> lines{KmError(device.line)};
      if (device.line != kNoSession) lines.insert(lines.begin(), DeviceLine());
      EXPECT_EQ(log_.Lines(), lines);
      // The scrypt upgrade clears the size first, and puts it back for an empty answer only.
      EXPECT_EQ(size, service.clears_size_first && !device.empty_answer ? 0u : service.key.size());
    }
  }
}

// ---- Signing failures -----------------------------------------------------------------------

TEST_F(MdfppRsaTest, SigningFailuresNameTheirStep) {
  Bytes key = CreateKey(0);
  Bytes signature;
  tavikm_host::FailKeymasterCall(KeymasterCall::kBegin, 1, ErrorCode::CONCURRENT_ACCESS_CONFLICT);
  tavikm_host::FailKeymasterTransport(KeymasterCall::kBegin, 2, "binder died");
  tavikm_host::FailKeymasterCall(KeymasterCall::kBegin, 3, ErrorCode::KEY_REQUIRES_UPGRADE);
  log_.Clear();
  EXPECT_EQ(Sign(key, BindingObject(), &signature), -1);
  EXPECT_EQ(Sign(key, BindingObject(), &signature), -1);
  EXPECT_EQ(Sign(key, BindingObject(), &signature), -2);
  // Input the device refuses as a raw RSA input: too long for the modulus (at update), or
  // not below it (at finish).
  EXPECT_EQ(Sign(key, Pattern(257), &signature), -1);
  EXPECT_EQ(Sign(key, Bytes(256, 0xff), &signature), -1);
  EXPECT_TRUE(Sleeps().empty());  // nothing here is a rate limit
  EXPECT_EQ(log_.Lines(),
            (std::vector<LogLine>{
                DeviceLine(), KmError("begin failed, code -47"),
                KmError("Error starting keymaster signature transaction: -47"), DeviceLine(),
                KmError("begin failed: Status(EX_TRANSACTION_FAILED): 'binder died'"),
                KmError("Error starting keymaster signature transaction: -1000"), DeviceLine(),
                KmError("begin failed, code -62"), KmError("Keymaster key requires upgrade"),
                DeviceLine(), KmError("update failed, code -21"),
                KmError("Error sending data to keymaster signature transaction: 0"), DeviceLine(),
                KmError("finish failed, code -38"),
                KmError("Error finalizing keymaster signature transaction: 0")}));
  EXPECT_EQ(tavikm_host::KeymasterOpenOperations(), 0u);
}

// Every service opens its session before it looks at its pointers: a missing one costs the
// device line and an "Invalid argument" naming the service's source, and no Keymaster call.
// Without a device only the session failure is said. Nothing is handed out either way.
TEST_F(MdfppRsaTest, ArgumentsAreCheckedOnceTheSessionIsOpen) {
  const Bytes key(64, 1), object = BindingObject(), nonce(12, 1);
  unsigned char buffer[16];
  unsigned char* out = nullptr;
  unsigned int size = 77;
  unsigned long signature_size = 77;
  struct Case {
    const char* source;
    std::function<int()> call;
  };
  std::vector<Case> cases = {
      {"mdfpp/aes_key.cpp",
       [&] { return keymaster_create_aes_key_for_mdfpp(nullptr, sizeof(buffer), &size); }},
      {"mdfpp/aes_key.cpp",
       [&] { return keymaster_create_aes_key_for_mdfpp(buffer, sizeof(buffer), nullptr); }},
  };
  // The key, the object, the output and its size, each missing in turn.
  for (int missing = 0; missing < 4; ++missing) {
    const unsigned char* k = missing == 0 ? nullptr : key.data();
    const unsigned char* o = missing == 1 ? nullptr : object.data();
    unsigned char** b = missing == 2 ? nullptr : &out;
    for (auto* service : {keymaster_encrypt_object_for_mdfpp, keymaster_decrypt_object_for_mdfpp}) {
      cases.push_back({"mdfpp/object_crypto.cpp", [&, k, o, b, missing, service] {
                         return service(k, key.size(), nonce.data(), nonce.size(), 1, o,
                                        object.size(), b, missing == 3 ? nullptr : &size, nullptr,
                                        0, nullptr);
                       }});
    }
    cases.push_back({"mdfpp/sign.cpp", [&, k, o, b, missing] {
                       return keymaster_sign_object_for_cryptfs_scrypt_mdfpp(
                           k, key.size(), 1, o, object.size(), b,
                           missing == 3 ? nullptr : &signature_size);
                     }});
  }
  for (const Case& c : cases) {
    SCOPED_TRACE(c.source);
    log_.Clear();
    EXPECT_EQ(c.call(), -1);
    EXPECT_THAT(log_.Lines(), ElementsAre(DeviceLine(), InvalidArgumentFrom(c.source)));
  }
  EXPECT_EQ(tavikm_host::KeymasterCallCount(KeymasterCall::kGenerateKey), 0);
  EXPECT_EQ(tavikm_host::KeymasterCallCount(KeymasterCall::kBegin), 0);

  tavikm_host::SetKeymasterDeviceLevels({});
  for (const Case& c : cases) {
    SCOPED_TRACE(c.source);
    log_.Clear();
    EXPECT_EQ(c.call(), -1);
    EXPECT_EQ(log_.Lines(),
              (std::vector<LogLine>{KmError("Failed to initiate keymaster session")}));
  }
  EXPECT_EQ(out, nullptr);
  EXPECT_EQ(size, 77u);
  EXPECT_EQ(signature_size, 77u);
}

}  // namespace
}  // namespace tavikm_test::mdfpp
