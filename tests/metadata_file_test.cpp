// SPDX-License-Identifier: Apache-2.0
// Records in a metadata file: reading with its checks, writing, deleting, the bounded copy into
// a record, and the choice between a file and secure storage. The record's offsets are pinned by
// static_asserts beside the structure.
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include <string>
#include <vector>

#include <cutils/properties.h>
#include <gtest/gtest.h>

#include "metadata/record.h"
#include "support/device_env.h"
#include "tavikm.h"

namespace tavikm_test {
namespace {

using Lines = std::vector<LogLine>;

km_meta MakeRecord(uint8_t fill) {
  km_meta meta;
  memset(&meta, fill, sizeof(meta));
  meta.magic = KM_META_MAGIC;
  meta.major_version = KM_META_MAJOR_VERSION;
  meta.minor_version = KM_META_MINOR_VERSION;
  return meta;
}

class MetadataFileTest : public DeviceTest {
 protected:
  std::string path_ = device_.Path("metadata");

  // Writes `image` at the start of a file of `size` bytes (zeros elsewhere).
  void MakeFile(size_t size, const km_meta& image) {
    std::vector<uint8_t> data(size, 0);
    memcpy(data.data(), &image, sizeof(image));
    WriteFile(path_, data);
  }

  LogLine KeyLocLine(uint64_t offset) {
    return LogLine::Error("key_loc=" + path_ + ", " + std::to_string(offset) + "\n");
  }
  static LogLine MajorLine(int major) {
    return LogLine::Error("Cannot understand major version " + std::to_string(major) +
                          " real block device metadata; expected 3\n");
  }
};

TEST_F(MetadataFileTest, PutThenGetRoundTripsAtOffsetsUpToTheEnd) {
  for (int64_t offset :
       {int64_t{0}, int64_t{4096}, int64_t{KM_METADATA_FILE_SIZE - KM_META_SIZE}}) {
    SCOPED_TRACE(offset);
    km_meta written = MakeRecord(static_cast<uint8_t>(offset));
    ASSERT_EQ(km_put_km_meta(path_.c_str(), offset, &written), 0);
    km_meta read;
    log_.Clear();
    ASSERT_EQ(km_get_km_meta(path_.c_str(), static_cast<uint64_t>(offset), &read), 0);
    EXPECT_EQ(memcmp(&read, &written, sizeof(read)), 0);
    EXPECT_EQ(log_.Lines(), Lines{KeyLocLine(offset)});
  }
  struct stat st;
  ASSERT_EQ(stat(path_.c_str(), &st), 0);
  EXPECT_EQ(st.st_size, KM_METADATA_FILE_SIZE);
  EXPECT_EQ(st.st_mode & 0777, 0600u);
}

TEST_F(MetadataFileTest, PutKeepsTheFileAtItsFixedLengthEvenWhenTheRecordIsCutOff) {
  km_meta meta = MakeRecord(0x5A);
  int64_t offset = KM_METADATA_FILE_SIZE - KM_META_SIZE + 1;
  ASSERT_EQ(km_put_km_meta(path_.c_str(), offset, &meta), 0);
  std::vector<uint8_t> image = ReadFile(path_);
  ASSERT_EQ(image.size(), static_cast<size_t>(KM_METADATA_FILE_SIZE));
  EXPECT_EQ(memcmp(&image[offset], &meta, KM_METADATA_FILE_SIZE - offset), 0);

  // A longer file is cut back too, and what lay beyond the record inside the file survives.
  std::vector<uint8_t> longer(KM_METADATA_FILE_SIZE + 100, 0x33);
  WriteFile(path_, longer);
  ASSERT_EQ(km_put_km_meta(path_.c_str(), 0, &meta), 0);
  image = ReadFile(path_);
  ASSERT_EQ(image.size(), static_cast<size_t>(KM_METADATA_FILE_SIZE));
  EXPECT_EQ(memcmp(image.data(), &meta, KM_META_SIZE), 0);  // the image is the record's bytes
  EXPECT_EQ(image[KM_META_SIZE], 0x33);

  // The record that runs past the end cannot be read back.
  km_meta read;
  log_.Clear();
  EXPECT_EQ(km_get_km_meta(path_.c_str(), static_cast<uint64_t>(offset), &read), -1);
  EXPECT_EQ(log_.Lines(), (Lines{KeyLocLine(static_cast<uint64_t>(offset)),
                                 LogLine::Error("Cannot read real block device metadata\n")}));
}

// A regular file of another length and a bad magic (printed as a signed decimal) refuse the
// record; another major version reads as the current one and another minor version only warns.
// A file record is never upgraded in place.
TEST_F(MetadataFileTest, GetChecksTheLengthThenTheHeader) {
  const LogLine bad_size =
      LogLine::Error("metadata file " + path_ + " is not the expected size!\n");
  struct Case {
    size_t size;
    uint32_t magic;
    uint16_t major, minor;
    int rc;
    LogLine line;
  };
  const Case cases[] = {
      {16383, KM_META_MAGIC, 3, 0, -1, bad_size},
      {16385, KM_META_MAGIC, 3, 0, -1, bad_size},
      {KM_META_SIZE, KM_META_MAGIC, 3, 0, -1, bad_size},
      {16384, 0xDEADBEEF, 3, 0, -1,
       LogLine::Error("magic = -559038737, Bad magic for real block device " + path_ + "\n")},
      {16384, KM_META_MAGIC, 1, 0, 0, MajorLine(1)},
      {16384, KM_META_MAGIC, 2, 0, 0, MajorLine(2)},
      {16384, KM_META_MAGIC, 4, 0, 0, MajorLine(4)},
      {16384, KM_META_MAGIC, 3, 7, 0,
       LogLine::Warning("Warning: metadata minor version 7, expected <= 0, continuing...\n")},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.line.text + " " + std::to_string(c.size));
    km_meta meta = MakeRecord(0x11);
    meta.magic = c.magic;
    meta.major_version = c.major;
    meta.minor_version = c.minor;
    MakeFile(c.size, meta);
    const std::vector<uint8_t> before = ReadFile(path_);
    log_.Clear();
    km_meta read;
    ASSERT_EQ(km_get_km_meta(path_.c_str(), 0, &read), c.rc);
    EXPECT_EQ(log_.Lines(), (Lines{KeyLocLine(0), c.line}));
    EXPECT_EQ(ReadFile(path_), before);
    if (c.rc == 0) {
      EXPECT_EQ(read.major_version, 3);
      EXPECT_EQ(read.minor_version, c.minor);
    }
  }
}

TEST_F(MetadataFileTest, DeleteZeroesTheRecordAndCreatesAMissingFile) {
  km_meta meta = MakeRecord(0x77);
  ASSERT_EQ(km_put_km_meta(path_.c_str(), 8192, &meta), 0);
  ASSERT_EQ(km_put_km_meta(path_.c_str(), 0, &meta), 0);
  ASSERT_EQ(km_delete_meta(path_.c_str(), 8192), 0);
  std::vector<uint8_t> image = ReadFile(path_);
  ASSERT_EQ(image.size(), 16384u);
  EXPECT_EQ(memcmp(image.data(), &meta, sizeof(meta)), 0);  // the other record stays
  for (size_t i = 8192; i < 8192 + KM_META_SIZE; ++i) ASSERT_EQ(image[i], 0) << i;

  std::string missing = device_.Path("never-written");
  ASSERT_EQ(km_delete_meta(missing.c_str(), 0), 0);
  EXPECT_EQ(ReadFile(missing), std::vector<uint8_t>(16384, 0));
  EXPECT_TRUE(log_.Lines().empty());
}

TEST_F(MetadataFileTest, FailuresAreReportedWithTheirMessages) {
  km_meta meta = MakeRecord(0);
  km_meta read;

  EXPECT_EQ(km_get_km_meta(path_.c_str(), 0, &read), -1);
  EXPECT_EQ(
      log_.Lines(),
      (Lines{KeyLocLine(0), LogLine::Error("Cannot open metadata file " + path_ + " for get\n")}));

  // A directory cannot be opened for writing; put and delete share the put wording.
  log_.Clear();
  std::string dir = device_.path();
  EXPECT_EQ(km_put_km_meta(dir.c_str(), 0, &meta), -1);
  EXPECT_EQ(km_delete_meta(dir.c_str(), 0), -1);
  LogLine open_for_put = LogLine::Error("Cannot open metadata file " + dir + " for put\n");
  EXPECT_EQ(log_.Lines(), (Lines{open_for_put, open_for_put}));

  log_.Clear();
  EXPECT_EQ(km_put_km_meta(path_.c_str(), -1, &meta), -1);
  EXPECT_EQ(km_delete_meta(path_.c_str(), -1), -1);
  LogLine seek = LogLine::Error("Cannot seek to real block device meatadata\n");
  EXPECT_EQ(log_.Lines(), (Lines{seek, seek}));

  log_.Clear();
  EXPECT_EQ(km_get_km_meta(nullptr, 0, &meta), -1);
  EXPECT_EQ(km_put_km_meta(nullptr, 0, &meta), -1);
  EXPECT_EQ(km_delete_meta(nullptr, 0), -1);
  EXPECT_EQ(log_.Lines(), (Lines{LogLine::Error("km_get_km_meta::Failed, key_loc is NULL! \n"),
                                 LogLine::Error("km_put_km_meta::Failed, key_loc is NULL! \n"),
                                 LogLine::Error("km_delete_meta::Failed, key_loc is NULL! \n")}));
}

TEST_F(MetadataFileTest, DevicesOtherThanRegularFilesHaveNoLengthCheck) {
  // /dev/zero reads as an all-zero image of any length: it gets past the length check and
  // stops at the magic.
  km_meta read;
  EXPECT_EQ(km_get_km_meta("/dev/zero", 0, &read), -1);
  EXPECT_EQ(log_.Lines(),
            (Lines{LogLine::Error("key_loc=/dev/zero, 0\n"),
                   LogLine::Error("magic = 0, Bad magic for real block device /dev/zero\n")}));
  // Writing to a device neither truncates it nor fails on a sync it does not support.
  km_meta meta = MakeRecord(0);
  EXPECT_EQ(km_put_km_meta("/dev/null", 0, &meta), 0);
}

// From key_name to the end of the record there are 440 bytes: a copy may run on into the fields
// that follow, never past the end; one that would is refused with one line and writes nothing.
// The record sits inside a larger buffer, so an unchecked copy would not fault by itself.
TEST(RecordCopyTest, RunsIntoFollowingFieldsButRefusesToPassTheRecord) {
  LogCapture log;
  struct {
    km_meta meta;
    uint8_t after[16];
  } buffer = {};
  const std::vector<char> name(441, 'n');
  EXPECT_TRUE(km_copy_into_record(&buffer.meta, buffer.meta.key_name, name.data(), 440, "test"));
  EXPECT_EQ(buffer.meta.xtkm_value[0], 'n');
  EXPECT_EQ(reinterpret_cast<const uint8_t*>(&buffer.meta)[KM_META_SIZE - 1], 'n');
  memset(&buffer, 0, sizeof(buffer));
  log.Clear();
  EXPECT_FALSE(km_copy_into_record(&buffer.meta, buffer.meta.key_name, name.data(), 441, "test"));
  EXPECT_EQ(log.Lines(), std::vector<LogLine>{LogLine::Error(
                             "test::Failed, 441 bytes at offset 2264 would pass the end of "
                             "km_meta_t\n")});
  EXPECT_EQ(buffer.meta.key_name[0], 0);
  EXPECT_EQ(buffer.after[0], 0);
}

// Which place a key location names: the MDFPP flag counts only when it reads exactly "true",
// and a leading slash always means a file.
class PlaceChoiceTest : public DeviceTest {
 protected:
  void SetUp() override {
    ASSERT_EQ(getcwd(cwd_, sizeof(cwd_)), cwd_);
    ASSERT_EQ(chdir(device_.path().c_str()), 0);
  }
  void TearDown() override { ASSERT_EQ(chdir(cwd_), 0); }

  bool InSecureStorage(const std::string& name) {
    return access(device_.Path("kmstore/e-" + name).c_str(), F_OK) == 0;
  }
  // Relative names are relative to the working directory, the device directory here.
  bool InFile(const std::string& name) {
    return access((name[0] == '/' ? name : device_.Path(name)).c_str(), F_OK) == 0;
  }

  char cwd_[4096];
};

TEST_F(PlaceChoiceTest, OnlyTheExactValueTrueSelectsSecureStorage) {
  km_meta meta = MakeRecord(0);
  struct Case {
    const char* flag;
    std::string name;
    bool secure;
  } cases[] = {
      {"true", "userdata", true}, {"TRUE", "upper", false}, {"true ", "blank", false},
      {"1", "one", false},        {"", "unset", false},     {"true", device_.Path("abs"), false},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    ASSERT_EQ(property_set("ro.product.tavi.support_mdfpp", c.flag), 0);
    ASSERT_EQ(km_put_km_meta(c.name.c_str(), 0, &meta), 0);
    EXPECT_EQ(InSecureStorage(c.name), c.secure);
    EXPECT_EQ(InFile(c.name), !c.secure);
    EXPECT_EQ(mdfpp_property_get("ro.product.tavi.support_mdfpp"), std::string(c.flag) == "true");
  }
}

TEST_F(PlaceChoiceTest, TheFlagsPropertyNameCanBeRepointed) {
  const char* saved = supportMdfpp;
  supportMdfpp = "test.other_flag";
  ASSERT_EQ(property_set("test.other_flag", "true"), 0);
  km_meta meta = MakeRecord(0);
  EXPECT_EQ(km_put_km_meta("repointed", 0, &meta), 0);
  supportMdfpp = saved;
  EXPECT_TRUE(InSecureStorage("repointed"));
}

}  // namespace
}  // namespace tavikm_test
