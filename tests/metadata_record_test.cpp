// The record's stored image: field placement, byte order, and the bounded copy into it.
#include <string.h>

#include <vector>

#include <gtest/gtest.h>

#include "metadata/record.h"
#include "support/device_env.h"
#include "tavikm.h"

namespace tavikm_test {
namespace {

class RecordImageTest : public DeviceTest {};

uint64_t ReadLe(const std::vector<uint8_t>& image, size_t offset, size_t width) {
  uint64_t v = 0;
  for (size_t i = 0; i < width; ++i) v |= static_cast<uint64_t>(image[offset + i]) << (8 * i);
  return v;
}

// Writes a record with every field set to a recognisable value and checks where each lands in
// the stored image: the image is the interface to records written by other releases.
TEST_F(RecordImageTest, EveryFieldLandsAtItsOffsetLittleEndian) {
  km_meta meta;
  memset(&meta, 0, sizeof(meta));
  meta.magic = KM_META_MAGIC;
  meta.major_version = 3;
  meta.minor_version = 0x0102;
  meta.keysize = 0x1122334455667788ull;
  meta.kdf_type = 5;
  meta.N_factor = 15;
  meta.r_factor = 3;
  meta.p_factor = 1;
  meta.master_key[0] = 0xA1;
  meta.master_key[63] = 0xA2;
  meta.object_iv[0] = 0xB1;
  meta.key_iv[15] = 0xB2;
  meta.salt[0] = 0xC1;
  meta.km_key_blob[0] = 0xD1;
  meta.km_key_blob[2047] = 0xD2;
  meta.km_key_blob_size = 2048;
  meta.key_mac[31] = 0xE1;
  strcpy(meta.key_name, "userdata");
  meta.xtkm_value[0] = 0xF1;
  meta.xtkm_value_size = 32;
  meta.kek_mac[0] = 0x71;
  meta.kek_mac_size = 32;
  meta.mac_key_enc[63] = 0x72;
  meta.mac_key_size = 0x0807060504030201ull;

  std::string path = device_.Path("meta");
  ASSERT_EQ(km_put_km_meta(path.c_str(), 0, &meta), 0);
  std::vector<uint8_t> image = ReadFile(path);
  ASSERT_EQ(image.size(), 16384u);

  // magic, major and minor as one 64-bit little-endian word.
  EXPECT_EQ(ReadLe(image, 0, 8), 0x01020003D14AB29Cull);
  EXPECT_EQ(ReadLe(image, 16, 8), 0x1122334455667788ull);
  EXPECT_EQ(ReadLe(image, 24, 4), 0x01030F05u);  // kdf_type, N, r, p
  EXPECT_EQ(image[60], 0xA1);
  EXPECT_EQ(image[123], 0xA2);
  EXPECT_EQ(image[124], 0xB1);
  EXPECT_EQ(image[155], 0xB2);
  EXPECT_EQ(image[156], 0xC1);
  EXPECT_EQ(image[172], 0xD1);
  EXPECT_EQ(image[2219], 0xD2);
  EXPECT_EQ(ReadLe(image, 2224, 8), 2048u);
  EXPECT_EQ(image[2263], 0xE1);
  EXPECT_EQ(std::string(reinterpret_cast<const char*>(&image[2264])), "userdata");
  EXPECT_EQ(image[2520], 0xF1);
  EXPECT_EQ(ReadLe(image, 2584, 8), 32u);
  EXPECT_EQ(image[2592], 0x71);
  EXPECT_EQ(ReadLe(image, 2624, 4), 32u);
  EXPECT_EQ(image[2695], 0x72);
  EXPECT_EQ(ReadLe(image, 2696, 8), 0x0807060504030201ull);
  // Nothing beyond the record's 2704 bytes is written.
  for (size_t i = KM_META_SIZE; i < image.size(); ++i) ASSERT_EQ(image[i], 0) << "byte " << i;
}

using RecordCopyTest = ::testing::Test;

TEST_F(RecordCopyTest, MayRunIntoFollowingFieldsUpToTheRecordsEnd) {
  km_meta meta;
  memset(&meta, 0, sizeof(meta));
  // From key_name to the end of the record there are 440 bytes.
  std::vector<char> name(440, 'n');
  km_copy_into_record(&meta, meta.key_name, name.data(), name.size());
  EXPECT_EQ(meta.xtkm_value[0], 'n');
  EXPECT_EQ(reinterpret_cast<const uint8_t*>(&meta)[KM_META_SIZE - 1], 'n');
}

TEST_F(RecordCopyTest, AbortsBeforeWritingPastTheRecord) {
  // The record sits inside a larger buffer, so an unchecked copy would not fault by itself.
  struct {
    km_meta meta;
    uint8_t after[16];
  } buffer;
  memset(&buffer, 0, sizeof(buffer));
  std::vector<char> name(441, 'n');
  EXPECT_DEATH(km_copy_into_record(&buffer.meta, buffer.meta.key_name, name.data(), name.size()),
               "");
}

}  // namespace
}  // namespace tavikm_test
