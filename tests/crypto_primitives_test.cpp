// The exported cipher primitives at their edges: hex key text, the AES-GCM and AES-CBC
// wrappers' refusals, padding switch and tag check, SHA-256 and random bytes, with the exact log
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
using Bytes = std::vector<uint8_t>;

struct FreeDeleter {
  void operator()(uint8_t* p) const { free(p); }
};
using KeyBytes = std::unique_ptr<uint8_t, FreeDeleter>;

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
    EXPECT_EQ(log_.Lines(), (std::vector<LogLine>{LogLine::Error(c.message)}));
  }
}

TEST_F(CryptoPrimitivesTest, KeyToHexWritesUpperCaseAndOneNul) {
  const uint8_t key[] = {0x0A, 0xFF};
  char out[8];
  memset(out, '#', sizeof(out));
  km_convert_key_to_hex_ascii(key, 2, out);
  EXPECT_STREQ(out, "0AFF");
  EXPECT_EQ(out[5], '#');

  memset(out, '#', sizeof(out));
  km_convert_key_to_hex_ascii(key, 0, out);
  EXPECT_EQ(out[0], '\0');
  EXPECT_EQ(out[1], '#');
}

TEST_F(CryptoPrimitivesTest, EveryByteSurvivesHexRoundTripInEitherCase) {
  Bytes all(256);
  for (size_t i = 0; i < all.size(); ++i) all[i] = static_cast<uint8_t>(i);
  std::string text(2 * all.size() + 1, '\0');
  km_convert_key_to_hex_ascii(all.data(), all.size(), text.data());
  // Either case reads back; an empty text is an empty key.
  std::string lower = text;
  for (char& c : lower) c = static_cast<char>(tolower(c));
  for (const std::string& t : {text, lower}) {
    size_t size = 0;
    KeyBytes back(km_convert_hex_ascii_to_key(t.c_str(), &size));
    ASSERT_NE(back, nullptr);
    ASSERT_EQ(size, all.size());
    EXPECT_EQ(Bytes(back.get(), back.get() + size), all);
  }
  size_t size = 99;
  KeyBytes empty(km_convert_hex_ascii_to_key("", &size));
  EXPECT_NE(empty, nullptr);  // glibc hands out a pointer for zero bytes
  EXPECT_EQ(size, 0u);
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
    EXPECT_EQ(log_.Lines(), (std::vector<LogLine>{
                                LogLine::Error("(km_aes_gcm_encrypt)Invalid keysize " + size),
                                LogLine::Error("(km_aes_gcm_decrypt)Invalid keysize " + size),
                                LogLine::Error("(km_aes_encrypt)Invalid keysize " + size),
                                LogLine::Error("(km_aes_decrypt)Invalid keysize " + size),
                            }));
  }
}

TEST_F(CryptoPrimitivesTest, GcmTagTravelsApartAndAnyFlippedBitFails) {
  const Bytes key = Pattern(32, 9), iv = Pattern(16, 4), plain = Pattern(32, 5);
  Bytes cipher(32), tag(16, 0);
  ASSERT_EQ(km_aes_gcm_encrypt(plain.data(), 32, nullptr, 0, key.data(), 32, iv.data(),
                               cipher.data(), tag.data()),
            32);
  EXPECT_NE(tag, Bytes(16, 0));
  Bytes back(32);
  ASSERT_EQ(km_aes_gcm_decrypt(cipher.data(), 32, nullptr, 0, tag.data(), key.data(), 32, iv.data(),
                               back.data()),
            32);
  EXPECT_EQ(back, plain);
  EXPECT_TRUE(log_.Lines().empty());

  for (size_t bit : {size_t{0}, size_t{127}}) {
    SCOPED_TRACE(bit);
    log_.Clear();
    Bytes bad = tag;
    bad[bit / 8] ^= static_cast<uint8_t>(1u << (bit % 8));
    EXPECT_EQ(km_aes_gcm_decrypt(cipher.data(), 32, nullptr, 0, bad.data(), key.data(), 32,
                                 iv.data(), back.data()),
              -1);
    EXPECT_EQ(log_.Lines(),
              (std::vector<LogLine>{LogLine::Error(
                  "(km_aes_gcm_decrypt)verify failed for AES GCM Decryption ret = 0")}));
  }
  // A flipped ciphertext bit fails the same way.
  log_.Clear();
  cipher[31] ^= 0x80;
  EXPECT_EQ(km_aes_gcm_decrypt(cipher.data(), 32, nullptr, 0, tag.data(), key.data(), 32, iv.data(),
                               back.data()),
            -1);
  EXPECT_EQ(log_.Lines().size(), 1u);
}

TEST_F(CryptoPrimitivesTest, GcmNullAadIgnoresItsLength) {
  const Bytes key = Pattern(16, 1), iv = Pattern(16, 2), plain = Pattern(20, 3);
  const Bytes aad = Pattern(5, 4);
  Bytes plain_ct(20), plain_tag(16), null_ct(20), null_tag(16), aad_ct(20), aad_tag(16);
  ASSERT_EQ(km_aes_gcm_encrypt(plain.data(), 20, nullptr, 0, key.data(), 16, iv.data(),
                               plain_ct.data(), plain_tag.data()),
            20);
  ASSERT_EQ(km_aes_gcm_encrypt(plain.data(), 20, nullptr, 5, key.data(), 16, iv.data(),
                               null_ct.data(), null_tag.data()),
            20);
  ASSERT_EQ(km_aes_gcm_encrypt(plain.data(), 20, aad.data(), 5, key.data(), 16, iv.data(),
                               aad_ct.data(), aad_tag.data()),
            20);
  EXPECT_EQ(null_ct, plain_ct);
  EXPECT_EQ(null_tag, plain_tag);
  EXPECT_NE(aad_tag, plain_tag);

  Bytes back(20);
  EXPECT_EQ(km_aes_gcm_decrypt(plain_ct.data(), 20, nullptr, 16, plain_tag.data(), key.data(), 16,
                               iv.data(), back.data()),
            20);
  EXPECT_EQ(back, plain);
  EXPECT_EQ(km_aes_gcm_decrypt(aad_ct.data(), 20, aad.data(), 5, aad_tag.data(), key.data(), 16,
                               iv.data(), back.data()),
            20);
  EXPECT_TRUE(log_.Lines().empty());
  // The AAD is authenticated: dropping it fails the tag.
  EXPECT_EQ(km_aes_gcm_decrypt(aad_ct.data(), 20, nullptr, 5, aad_tag.data(), key.data(), 16,
                               iv.data(), back.data()),
            -1);
}

TEST_F(CryptoPrimitivesTest, CbcPaddingSwitchOnlyOneMeansPadding) {
  const Bytes key = Pattern(32, 6), iv = Pattern(16, 7), plain = Pattern(32, 8);
  Bytes no_pad(64), other(64), padded(64);
  EXPECT_EQ(km_aes_encrypt(plain.data(), 32, key.data(), 32, iv.data(), no_pad.data(), 0), 32);
  EXPECT_EQ(km_aes_encrypt(plain.data(), 32, key.data(), 32, iv.data(), other.data(), 2), 32);
  EXPECT_EQ(km_aes_encrypt(plain.data(), 32, key.data(), 32, iv.data(), padded.data(), 1), 48);
  EXPECT_EQ(other, no_pad);
  // Without padding the first 32 bytes are the same blocks; padding only appends one.
  EXPECT_TRUE(std::equal(no_pad.begin(), no_pad.begin() + 32, padded.begin()));

  Bytes back(64);
  EXPECT_EQ(km_aes_decrypt(padded.data(), 48, key.data(), 32, iv.data(), back.data(), 1), 32);
  EXPECT_TRUE(std::equal(plain.begin(), plain.end(), back.begin()));
  EXPECT_EQ(km_aes_decrypt(no_pad.data(), 32, key.data(), 32, iv.data(), back.data(), 2), 32);
  EXPECT_TRUE(std::equal(plain.begin(), plain.end(), back.begin()));
  EXPECT_TRUE(log_.Lines().empty());
}

TEST_F(CryptoPrimitivesTest, CbcWithoutPaddingFailsOnPartialBlockAtFinal) {
  const Bytes key = Pattern(16, 6), iv = Pattern(16, 7), plain = Pattern(20, 8);
  Bytes out(64);
  EXPECT_EQ(km_aes_encrypt(plain.data(), 20, key.data(), 16, iv.data(), out.data(), 0), -1);
  EXPECT_EQ(km_aes_decrypt(plain.data(), 20, key.data(), 16, iv.data(), out.data(), 0), -1);
  EXPECT_EQ(log_.Lines(), (std::vector<LogLine>{
                              LogLine::Error("(km_aes_encrypt)Failed to EVP_EncryptFinal_ex\n"),
                              LogLine::Error("(km_aes_decrypt)Failed to EVP_DecryptFinal_ex\n"),
                          }));
}

TEST_F(CryptoPrimitivesTest, CbcWrongKeyDecryptsToGarbageWithoutComplaint) {
  const Bytes key = Pattern(32, 1), wrong = Pattern(32, 2), iv = Pattern(16, 3);
  const Bytes plain = Pattern(32, 4);
  Bytes cipher(32), back(32);
  ASSERT_EQ(km_aes_encrypt(plain.data(), 32, key.data(), 32, iv.data(), cipher.data(), 0), 32);
  EXPECT_EQ(km_aes_decrypt(cipher.data(), 32, wrong.data(), 32, iv.data(), back.data(), 0), 32);
  EXPECT_NE(back, plain);
  EXPECT_TRUE(log_.Lines().empty());
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
