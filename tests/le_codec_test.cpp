// SPDX-License-Identifier: Apache-2.0
// The checked little-endian reader and writer that every stored binary format goes through.
#include "common/le_codec.h"

#include <gtest/gtest.h>

#include <stdint.h>

#include <vector>

namespace {

using tavikm::LeReader;
using tavikm::LeWriter;

TEST(LeCodecTest, WritesLittleEndianAndReadsBackEveryWidth) {
  std::vector<uint8_t> bytes;
  LeWriter(&bytes)
      .U8(0x01)
      .U16(0x0302)
      .U32(0x07060504)
      .U64(0x0f0e0d0c0b0a0908)
      .Bytes("\x10\x11", 2)
      .Bytes(nullptr, 0);
  std::vector<uint8_t> expected;
  for (uint8_t i = 1; i <= 0x11; ++i) expected.push_back(i);
  ASSERT_EQ(bytes, expected);

  LeReader in(bytes.data(), bytes.size());
  uint8_t u8 = 0;
  uint16_t u16 = 0;
  uint32_t u32 = 0;
  uint64_t u64 = 0;
  uint8_t tail[2] = {};
  ASSERT_TRUE(in.U8(&u8) && in.U16(&u16) && in.U32(&u32) && in.U64(&u64) && in.Bytes(tail, 2));
  EXPECT_EQ(u8, 0x01);
  EXPECT_EQ(u16, 0x0302);
  EXPECT_EQ(u32, 0x07060504u);
  EXPECT_EQ(u64, 0x0f0e0d0c0b0a0908u);
  EXPECT_EQ(tail[1], 0x11);
  EXPECT_TRUE(in.done());
  // The top bit of each width survives (no sign extension on the way).
  bytes.clear();
  LeWriter(&bytes).U16(0x8000).U32(0x80000000u).U64(0x8000000000000000u);
  LeReader high(bytes.data(), bytes.size());
  ASSERT_TRUE(high.U16(&u16) && high.U32(&u32) && high.U64(&u64));
  EXPECT_EQ(u16, 0x8000);
  EXPECT_EQ(u32, 0x80000000u);
  EXPECT_EQ(u64, 0x8000000000000000u);
}

TEST(LeCodecTest, AReadPastTheEndFailsReadsNothingAndStaysFailed) {
  const uint8_t bytes[6] = {1, 2, 3, 4, 5, 6};
  struct Case {
    const char* what;
    bool (*read)(LeReader*);
  };
  const Case cases[] = {{"u64 from 6 bytes",
                         [](LeReader* in) {
                           uint64_t v = 7;
                           return in->U64(&v) || v != 7;
                         }},
                        {"u32 after 3 bytes",
                         [](LeReader* in) {
                           uint8_t skip[3];
                           uint32_t v = 7;
                           return !in->Bytes(skip, 3) || in->U32(&v) || v != 7;
                         }},
                        {"bytes one past", [](LeReader* in) { return in->Take(7) != nullptr; }},
                        {"a length that wraps", [](LeReader* in) {
                           in->Take(2);
                           return in->Take(SIZE_MAX - 1) != nullptr;
                         }}};
  for (const Case& c : cases) {
    LeReader in(bytes, sizeof(bytes));
    EXPECT_FALSE(c.read(&in)) << c.what;
    EXPECT_FALSE(in.ok()) << c.what;
    // Failed for good: even a read that would fit now fails, so a parser tests once at its end.
    uint8_t one = 9;
    EXPECT_FALSE(in.U8(&one)) << c.what;
    EXPECT_EQ(one, 9) << c.what;
    EXPECT_FALSE(in.done()) << c.what;
    EXPECT_EQ(in.remaining(), 0u) << c.what;
  }
  LeReader empty(nullptr, 100);  // no data is no bytes, whatever the size says
  EXPECT_EQ(empty.Take(1), nullptr);
}

TEST(LeCodecTest, DoneOnlyWhenEveryByteWasRead) {
  const uint8_t bytes[4] = {};
  LeReader in(bytes, sizeof(bytes));
  uint16_t v;
  ASSERT_TRUE(in.U16(&v));
  EXPECT_FALSE(in.done());
  EXPECT_EQ(in.position(), 2u);
  ASSERT_TRUE(in.U16(&v));
  EXPECT_TRUE(in.done());
}

TEST(LeCodecTest, LenientReadsTakeWhatIsLeftAndZeroTheRest) {
  const uint8_t bytes[3] = {0x01, 0x02, 0x03};
  LeReader in(bytes, sizeof(bytes));
  EXPECT_EQ(in.PartialLe(2), 0x0201u);
  EXPECT_EQ(in.PartialLe(4), 0x03u);  // one byte left: the high bytes read as zero
  EXPECT_EQ(in.PartialLe(8), 0u);
  LeReader again(bytes, sizeof(bytes));
  const uint8_t* p = nullptr;
  EXPECT_EQ(again.TakeUpTo(2, &p), 2u);
  EXPECT_EQ(p[1], 0x02);
  EXPECT_EQ(again.TakeUpTo(100, &p), 1u);
  EXPECT_EQ(p[0], 0x03);
  EXPECT_EQ(again.TakeUpTo(100, &p), 0u);
}

}  // namespace
