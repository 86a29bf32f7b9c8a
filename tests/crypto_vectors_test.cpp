// SPDX-License-Identifier: Apache-2.0
// Wycheproof known answers through the library's AES entry points: AES-GCM with a 16-byte IV
// and AES-CBC with PKCS#7 padding, for the 128- and 256-bit keys the library offers.
#include <gtest/gtest.h>
#include <stdint.h>

#include <string>
#include <vector>

#include "json_reader.h"
#include "support/log_capture.h"
#include "tavikm.h"

namespace {

using tavikm_test::Json;
using tavikm_test::LogCapture;
using Bytes = std::vector<uint8_t>;

Bytes FromHex(const std::string& hex) {
  Bytes out;
  for (size_t i = 0; i + 1 < hex.size(); i += 2) {
    out.push_back(static_cast<uint8_t>(std::stoul(hex.substr(i, 2), nullptr, 16)));
  }
  return out;
}

Json LoadVectors(const std::string& name) {
  return tavikm_test::ReadJsonFile(std::string(TAVIKM_TEST_VECTORS_DIR) + "/wycheproof/" + name);
}

// Room for at least one byte, so empty inputs still hand libcrypto a real pointer.
uint8_t* Data(Bytes& b) {
  b.reserve(1);
  return b.data();
}

class CryptoVectorsTest : public ::testing::Test {
 protected:
  LogCapture log_;  // keeps the expected failures out of the test output
};

TEST_F(CryptoVectorsTest, AesGcmWith16ByteIv) {
  const Json file = LoadVectors("aes_gcm_test.json");
  int valid = 0, invalid = 0;
  for (const Json& group : file["testGroups"].array) {
    const int key_bits = group["keySize"].Int();
    if (group["ivSize"].Int() != 128 || (key_bits != 128 && key_bits != 256)) continue;
    ASSERT_EQ(group["tagSize"].Int(), 128);
    for (const Json& t : group["tests"].array) {
      SCOPED_TRACE("tcId " + std::to_string(t["tcId"].Int()));
      Bytes key = FromHex(t["key"].string), iv = FromHex(t["iv"].string);
      Bytes aad = FromHex(t["aad"].string), msg = FromHex(t["msg"].string);
      Bytes ct = FromHex(t["ct"].string), tag = FromHex(t["tag"].string);
      ASSERT_EQ(iv.size(), 16u);
      const uint8_t* aad_ptr = aad.empty() ? nullptr : aad.data();
      const int aad_len = static_cast<int>(aad.size());
      Bytes out(msg.size() + 16), out_tag(16);
      Bytes plain(ct.size() + 16);

      if (t["result"].string == "valid") {
        ++valid;
        ASSERT_EQ(km_aes_gcm_encrypt(Data(msg), static_cast<int>(msg.size()), aad_ptr, aad_len,
                                     key.data(), key.size(), iv.data(), out.data(), out_tag.data()),
                  static_cast<int>(msg.size()));
        EXPECT_EQ(Bytes(out.begin(), out.begin() + msg.size()), ct);
        EXPECT_EQ(out_tag, tag);
        ASSERT_EQ(km_aes_gcm_decrypt(Data(ct), static_cast<int>(ct.size()), aad_ptr, aad_len,
                                     tag.data(), key.data(), key.size(), iv.data(), plain.data()),
                  static_cast<int>(ct.size()));
        EXPECT_EQ(Bytes(plain.begin(), plain.begin() + ct.size()), msg);
        // The same case with its last tag bit flipped must not open.
        tag[15] ^= 0x01;
      } else {
        ++invalid;
      }
      EXPECT_EQ(km_aes_gcm_decrypt(Data(ct), static_cast<int>(ct.size()), aad_ptr, aad_len,
                                   tag.data(), key.data(), key.size(), iv.data(), plain.data()),
                -1);
    }
  }
  // Guards against a filter that silently selects nothing.
  EXPECT_EQ(valid, 39);
  EXPECT_EQ(invalid, 0);
}

TEST_F(CryptoVectorsTest, AesCbcWithPkcs7Padding) {
  const Json file = LoadVectors("aes_cbc_pkcs5_test.json");
  int valid = 0, invalid = 0;
  for (const Json& group : file["testGroups"].array) {
    const int key_bits = group["keySize"].Int();
    if (key_bits != 128 && key_bits != 256) continue;
    for (const Json& t : group["tests"].array) {
      SCOPED_TRACE("tcId " + std::to_string(t["tcId"].Int()));
      Bytes key = FromHex(t["key"].string), iv = FromHex(t["iv"].string);
      Bytes msg = FromHex(t["msg"].string), ct = FromHex(t["ct"].string);
      Bytes out(msg.size() + 16), plain(ct.size() + 16);
      if (t["result"].string == "valid") {
        ++valid;
        ASSERT_EQ(km_aes_encrypt(Data(msg), static_cast<int>(msg.size()), key.data(), key.size(),
                                 iv.data(), out.data(), 1),
                  static_cast<int>(ct.size()));
        EXPECT_EQ(Bytes(out.begin(), out.begin() + ct.size()), ct);
        ASSERT_EQ(km_aes_decrypt(Data(ct), static_cast<int>(ct.size()), key.data(), key.size(),
                                 iv.data(), plain.data(), 1),
                  static_cast<int>(msg.size()));
        EXPECT_EQ(Bytes(plain.begin(), plain.begin() + msg.size()), msg);
      } else {
        ++invalid;
        EXPECT_EQ(km_aes_decrypt(Data(ct), static_cast<int>(ct.size()), key.data(), key.size(),
                                 iv.data(), plain.data(), 1),
                  -1);
      }
    }
  }
  EXPECT_GT(valid, 0);
  EXPECT_GT(invalid, 0);
  EXPECT_EQ(valid + invalid, 144);
}

}  // namespace
