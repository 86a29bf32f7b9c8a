// SPDX-License-Identifier: Apache-2.0
// The exported cipher primitives at their edges: hex key text, the AES-GCM and AES-CBC
// wrappers' refusals, padding switch and null AAD, SHA-256 and random bytes, with the exact log
// lines each failure leaves. Known-answer runs over published vectors live in
// crypto_vectors_test.cpp.
#include <gtest/gtest.h>
#include <stdlib.h>

#include <algorithm>
#include <cctype>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "support/log_capture.h"
#include "tavikm.h"

namespace {

using tavikm_test::LogCapture;
using tavikm_test::LogLine;
using Lines = std::vector<LogLine>;
using Bytes = std::vector<uint8_t>;

using KeyBytes = std::unique_ptr<uint8_t, decltype(&free)>;

Bytes Pattern(size_t n, uint8_t seed) {
  Bytes b(n);
  for (size_t i = 0; i < n; ++i) b[i] = static_cast<uint8_t>(seed + 7 * i);
  return b;
}

class CryptoPrimitivesTest : public ::testing::Test {
 protected:
  LogCapture log_;
};

// ---- Hexadecimal key text ----

TEST_F(CryptoPrimitivesTest, HexTextRefusalsKeepTheBytesConvertedSoFar) {
  struct Case {
    const char* text;
    size_t size_after;
    const char* message;
  };
  const Case cases[] = {
      {"abc", 0, "Trying to convert ascii string of odd length"},
      {"0g12", 0, "Invalid hex string"},
      {"12zz", 1, "Invalid hex string"},
      {"1234 6", 2, "Invalid hex string"},
      {"0x12", 0, "Invalid hex string"},
      // A byte above 0x7f must not reach tolower() as a negative value.
      {"12\xc1\xa1", 1, "Invalid hex string"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.text);
    log_.Clear();
    size_t size = 99;
    EXPECT_EQ(km_convert_hex_ascii_to_key(c.text, &size), nullptr);
    EXPECT_EQ(size, c.size_after);
    EXPECT_EQ(log_.Lines(), (Lines{LogLine::Error(c.message)}));
  }
}

// Upper-case digits and exactly one NUL after them; either case reads back, and an empty text
// is an empty key.
TEST_F(CryptoPrimitivesTest, EveryByteSurvivesHexRoundTripInEitherCase) {
  Bytes all(256);
  for (size_t i = 0; i < all.size(); ++i) all[i] = static_cast<uint8_t>(i);
  std::string text(2 * all.size() + 2, '#');
  km_convert_key_to_hex_ascii(all.data(), all.size(), text.data());
  EXPECT_EQ(text.substr(0, 6), "000102");
  EXPECT_EQ(text.substr(2 * 256 - 4), std::string("FEFF\0#", 6));
  text.resize(2 * all.size());
  std::string lower = text;
  for (char& c : lower) c = static_cast<char>(tolower(c));
  for (const std::string& t : {text, lower, std::string()}) {
    size_t size = 99;
    KeyBytes back(km_convert_hex_ascii_to_key(t.c_str(), &size), free);
    ASSERT_NE(back, nullptr);  // glibc hands out a pointer for zero bytes too
    EXPECT_EQ(Bytes(back.get(), back.get() + size), t.empty() ? Bytes() : all);
  }
  EXPECT_TRUE(log_.Lines().empty());
}

// ---- AES-GCM and AES-CBC ----

TEST_F(CryptoPrimitivesTest, AesRefusesKeysOtherThan16Or32Bytes) {
  const Bytes key = Pattern(64, 1), iv = Pattern(16, 2), in = Pattern(32, 3);
  Bytes out(64), tag(16);
  for (size_t key_len : {size_t{0}, size_t{24}, size_t{64}}) {
    SCOPED_TRACE(key_len);
    log_.Clear();
    const std::string size = std::to_string(key_len);
    EXPECT_EQ(km_aes_gcm_encrypt(in.data(), 32, nullptr, 0, key.data(), key_len, iv.data(),
                                 out.data(), tag.data()),
              -1);
    EXPECT_EQ(km_aes_gcm_decrypt(in.data(), 32, nullptr, 0, tag.data(), key.data(), key_len,
                                 iv.data(), out.data()),
              -1);
    EXPECT_EQ(km_aes_encrypt(in.data(), 32, key.data(), key_len, iv.data(), out.data(), 0), -1);
    EXPECT_EQ(km_aes_decrypt(in.data(), 32, key.data(), key_len, iv.data(), out.data(), 0), -1);
    EXPECT_EQ(log_.Lines(), (Lines{LogLine::Error("(km_aes_gcm_encrypt)Invalid keysize " + size),
                                   LogLine::Error("(km_aes_gcm_decrypt)Invalid keysize " + size),
                                   LogLine::Error("(km_aes_encrypt)Invalid keysize " + size),
                                   LogLine::Error("(km_aes_decrypt)Invalid keysize " + size)}));
  }
}

// Tags, flipped bits and AAD against published results are in crypto_vectors_test.cpp; what is
// this wrapper's own is that a null AAD pointer means no AAD whatever its length says.
TEST_F(CryptoPrimitivesTest, GcmNullAadIgnoresItsLength) {
  const Bytes key = Pattern(16, 1), iv = Pattern(16, 2), plain = Pattern(20, 3);
  Bytes plain_ct(20), plain_tag(16), null_ct(20), null_tag(16), back(20);
  ASSERT_EQ(km_aes_gcm_encrypt(plain.data(), 20, nullptr, 0, key.data(), 16, iv.data(),
                               plain_ct.data(), plain_tag.data()),
            20);
  ASSERT_EQ(km_aes_gcm_encrypt(plain.data(), 20, nullptr, 5, key.data(), 16, iv.data(),
                               null_ct.data(), null_tag.data()),
            20);
  EXPECT_EQ(null_ct, plain_ct);
  EXPECT_EQ(null_tag, plain_tag);
  EXPECT_EQ(km_aes_gcm_decrypt(plain_ct.data(), 20, nullptr, 16, plain_tag.data(), key.data(), 16,
                               iv.data(), back.data()),
            20);
  EXPECT_EQ(back, plain);
  EXPECT_TRUE(log_.Lines().empty());
}

// Only a switch of exactly 1 pads; without padding a partial block fails at the final step.
// Whole blocks keeping their length unpadded is what the wrap vectors pin.
TEST_F(CryptoPrimitivesTest, CbcPadsOnlyWhenTheSwitchIsOne) {
  const Bytes key = Pattern(16, 6), iv = Pattern(16, 7), plain = Pattern(20, 8);
  Bytes out(64), back(64);
  ASSERT_EQ(km_aes_encrypt(plain.data(), 20, key.data(), 16, iv.data(), out.data(), 1), 32);
  EXPECT_EQ(km_aes_decrypt(out.data(), 32, key.data(), 16, iv.data(), back.data(), 1), 20);
  EXPECT_TRUE(std::equal(plain.begin(), plain.end(), back.begin()));
  EXPECT_TRUE(log_.Lines().empty());
  for (int padding : {0, 2}) {
    SCOPED_TRACE(padding);
    log_.Clear();
    EXPECT_EQ(km_aes_encrypt(plain.data(), 20, key.data(), 16, iv.data(), out.data(), padding), -1);
    EXPECT_EQ(km_aes_decrypt(plain.data(), 20, key.data(), 16, iv.data(), out.data(), padding), -1);
    EXPECT_EQ(log_.Lines(),
              (Lines{LogLine::Error("(km_aes_encrypt)Failed to EVP_EncryptFinal_ex\n"),
                     LogLine::Error("(km_aes_decrypt)Failed to EVP_DecryptFinal_ex\n")}));
  }
}

// ---- SHA-256 and random bytes ----

TEST_F(CryptoPrimitivesTest, Sha256KnownAnswers) {
  // FIPS 180-2 examples.
  struct Case {
    std::string data;
    const char* hex;
  };
  const Case cases[] = {
      {"", "E3B0C44298FC1C149AFBF4C8996FB92427AE41E4649B934CA495991B7852B855"},
      {"abc", "BA7816BF8F01CFEA414140DE5DAE2223B00361A396177A9CB410FF61F20015AD"},
      {"abcdbcdecdefdefgefghfghighijhijkijkljklmklmnlmnomnopnopq",
       "248D6A61D20638B8E5C026930C3E6039A33CE45964FF2167F6ECEDD419DB06C1"},
  };
  for (const Case& c : cases) {
    uint8_t digest[32];
    ASSERT_EQ(km_sha256(reinterpret_cast<const uint8_t*>(c.data.data()), c.data.size(), digest), 0);
    char hex[65];
    km_convert_key_to_hex_ascii(digest, sizeof(digest), hex);
    EXPECT_STREQ(hex, c.hex) << c.data;
  }
  EXPECT_TRUE(log_.Lines().empty());
}

TEST_F(CryptoPrimitivesTest, RandomBytesFillTheWholeBufferAndOnlyIt) {
  Bytes a(48, 0), b(48, 0);
  a[32] = b[32] = 0x5A;  // guard bytes past the requested count
  EXPECT_EQ(km_generate_drbg_bytes(nullptr, a.data(), 32), 0);
  EXPECT_EQ(km_generate_drbg_bytes(&b, b.data(), 32), 0);
  EXPECT_NE(a, b);
  // 16 zero bytes in a row from a working generator is a 2^-128 event.
  EXPECT_NE(Bytes(a.begin() + 16, a.begin() + 32), Bytes(16, 0));
  EXPECT_EQ(a[32], 0x5A);
  EXPECT_EQ(b[32], 0x5A);
  EXPECT_EQ(km_generate_drbg_bytes(nullptr, a.data(), 0), 0);
  EXPECT_TRUE(log_.Lines().empty());
}

}  // namespace
