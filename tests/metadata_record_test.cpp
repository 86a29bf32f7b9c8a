// The record's stored image: field placement, byte order, and the bounded copy into it.
#include <gtest/gtest.h>
#include <string.h>

#include <vector>

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

// The offsets are pinned beside the structure; what is left is that the stored image is the
// structure's bytes, little-endian, and nothing more: records written by other releases read so.
TEST_F(RecordImageTest, TheImageIsTheRecordsBytesLittleEndian) {
  km_meta meta;
  memset(&meta, 0, sizeof(meta));
  meta.magic = KM_META_MAGIC;
  meta.major_version = 3;
  meta.minor_version = 0x0102;
  meta.mac_key_size = 0x0807060504030201ull;
  for (size_t i = 0; i < sizeof(meta.km_key_blob); ++i) meta.km_key_blob[i] = uint8_t(i * 7 + 1);

  std::string path = device_.Path("meta");
  ASSERT_EQ(km_put_km_meta(path.c_str(), 0, &meta), 0);
  std::vector<uint8_t> image = ReadFile(path);
  ASSERT_EQ(image.size(), 16384u);
  EXPECT_EQ(ReadLe(image, 0, 8), 0x01020003D14AB29Cull);  // magic, major, minor
  EXPECT_EQ(ReadLe(image, 2696, 8), 0x0807060504030201ull);
  EXPECT_EQ(memcmp(image.data(), &meta, KM_META_SIZE), 0);
  // Nothing beyond the record's 2704 bytes is written.
  EXPECT_EQ(std::vector<uint8_t>(image.begin() + KM_META_SIZE, image.end()),
            std::vector<uint8_t>(image.size() - KM_META_SIZE, 0));
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
