// Records in a metadata file: reading with its checks, writing, deleting, and the choice
// between a file and secure storage.
#include <fcntl.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include <string>
#include <vector>

#include <cutils/properties.h>
#include <gtest/gtest.h>

#include "support/device_env.h"
#include "tavikm.h"

namespace tavikm_test {
namespace {

km_meta MakeRecord(uint8_t fill) {
  km_meta meta;
  memset(&meta, fill, sizeof(meta));
  meta.magic = KM_META_MAGIC;
  meta.major_version = KM_META_MAJOR_VERSION;
  meta.minor_version = KM_META_MINOR_VERSION;
  return meta;
}

std::string Hex(uint64_t v) { return std::to_string(v); }

class MetadataFileTest : public DeviceTest {
 protected:
  std::string path_ = device_.Path("metadata");

  // Writes `image` at `offset` into a file of `size` bytes (zeros elsewhere).
  void MakeFile(size_t size, const km_meta& image, size_t offset = 0) {
    std::vector<uint8_t> data(size, 0);
    if (offset + sizeof(image) <= size) memcpy(&data[offset], &image, sizeof(image));
    WriteFile(path_, data);
  }

  LogLine KeyLocLine(uint64_t offset) {
    return LogLine::Error("key_loc=" + path_ + ", " + Hex(offset) + "\n");
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
    EXPECT_EQ(log_.Lines(), std::vector<LogLine>{KeyLocLine(offset)});
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
  EXPECT_EQ(image[KM_META_SIZE], 0x33);

  // The record that runs past the end cannot be read back.
  km_meta read;
  log_.Clear();
  EXPECT_EQ(km_get_km_meta(path_.c_str(), static_cast<uint64_t>(offset), &read), -1);
  EXPECT_EQ(log_.Lines(), (std::vector<LogLine>{
                              KeyLocLine(static_cast<uint64_t>(offset)),
                              LogLine::Error("Cannot read real block device metadata\n"),
                          }));
}

TEST_F(MetadataFileTest, GetRefusesARegularFileOfAnyOtherLength) {
  km_meta meta = MakeRecord(0);
  for (size_t size : {size_t{16383}, size_t{16385}, size_t{KM_META_SIZE}}) {
    SCOPED_TRACE(size);
    MakeFile(size, meta);
    log_.Clear();
    km_meta read;
    EXPECT_EQ(km_get_km_meta(path_.c_str(), 0, &read), -1);
    EXPECT_EQ(log_.Lines(),
              (std::vector<LogLine>{
                  KeyLocLine(0),
                  LogLine::Error("metadata file " + path_ + " is not the expected size!\n"),
              }));
  }
  MakeFile(16384, meta);
  km_meta read;
  EXPECT_EQ(km_get_km_meta(path_.c_str(), 0, &read), 0);
}

TEST_F(MetadataFileTest, GetRefusesBadMagicAsASignedDecimal) {
  km_meta meta = MakeRecord(0);
  meta.magic = 0xDEADBEEF;
  MakeFile(16384, meta);
  km_meta read;
  EXPECT_EQ(km_get_km_meta(path_.c_str(), 0, &read), -1);
  EXPECT_EQ(
      log_.Lines(),
      (std::vector<LogLine>{
          KeyLocLine(0),
          LogLine::Error("magic = -559038737, Bad magic for real block device " + path_ + "\n"),
      }));
}

TEST_F(MetadataFileTest, OldMajorVersionsReadAsCurrentWithoutWritingBack) {
  for (uint16_t major : {uint16_t{1}, uint16_t{2}, uint16_t{4}}) {
    SCOPED_TRACE(major);
    km_meta meta = MakeRecord(0x11);
    meta.major_version = major;
    MakeFile(16384, meta);
    std::vector<uint8_t> before = ReadFile(path_);
    log_.Clear();
    km_meta read;
    ASSERT_EQ(km_get_km_meta(path_.c_str(), 0, &read), 0);
    EXPECT_EQ(read.major_version, 3);
    EXPECT_EQ(log_.Lines(),
              (std::vector<LogLine>{
                  KeyLocLine(0),
                  LogLine::Error("Cannot understand major version " + std::to_string(major) +
                                 " real block device metadata; expected 3\n"),
              }));
    EXPECT_EQ(ReadFile(path_), before);  // a file record is never upgraded in place
  }
}

TEST_F(MetadataFileTest, UnknownMinorVersionIsAWarningOnly) {
  km_meta meta = MakeRecord(0);
  meta.minor_version = 7;
  MakeFile(16384, meta);
  km_meta read;
  ASSERT_EQ(km_get_km_meta(path_.c_str(), 0, &read), 0);
  EXPECT_EQ(read.minor_version, 7);
  EXPECT_EQ(
      log_.Lines(),
      (std::vector<LogLine>{
          KeyLocLine(0),
          LogLine::Warning("Warning: metadata minor version 7, expected <= 0, continuing...\n"),
      }));
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
  EXPECT_EQ(log_.Lines(), (std::vector<LogLine>{
                              KeyLocLine(0),
                              LogLine::Error("Cannot open metadata file " + path_ + " for get\n"),
                          }));

  // A directory cannot be opened for writing; put and delete share the put wording.
  log_.Clear();
  std::string dir = device_.path();
  EXPECT_EQ(km_put_km_meta(dir.c_str(), 0, &meta), -1);
  EXPECT_EQ(km_delete_meta(dir.c_str(), 0), -1);
  LogLine open_for_put = LogLine::Error("Cannot open metadata file " + dir + " for put\n");
  EXPECT_EQ(log_.Lines(), (std::vector<LogLine>{open_for_put, open_for_put}));

  log_.Clear();
  EXPECT_EQ(km_put_km_meta(path_.c_str(), -1, &meta), -1);
  EXPECT_EQ(km_delete_meta(path_.c_str(), -1), -1);
  LogLine seek = LogLine::Error("Cannot seek to real block device meatadata\n");
  EXPECT_EQ(log_.Lines(), (std::vector<LogLine>{seek, seek}));
}

TEST_F(MetadataFileTest, NullKeyLocationIsRefusedByEveryCall) {
  km_meta meta = MakeRecord(0);
  EXPECT_EQ(km_get_km_meta(nullptr, 0, &meta), -1);
  EXPECT_EQ(km_put_km_meta(nullptr, 0, &meta), -1);
  EXPECT_EQ(km_delete_meta(nullptr, 0), -1);
  EXPECT_EQ(log_.Lines(), (std::vector<LogLine>{
                              LogLine::Error("km_get_km_meta::Failed, key_loc is NULL! \n"),
                              LogLine::Error("km_put_km_meta::Failed, key_loc is NULL! \n"),
                              LogLine::Error("km_delete_meta::Failed, key_loc is NULL! \n"),
                          }));
}

TEST_F(MetadataFileTest, DevicesOtherThanRegularFilesHaveNoLengthCheck) {
  // /dev/zero reads as an all-zero image of any length: it gets past the length check and
  // stops at the magic.
  km_meta read;
  EXPECT_EQ(km_get_km_meta("/dev/zero", 0, &read), -1);
  EXPECT_EQ(log_.Lines(),
            (std::vector<LogLine>{
                LogLine::Error("key_loc=/dev/zero, 0\n"),
                LogLine::Error("magic = 0, Bad magic for real block device /dev/zero\n"),
            }));
  // Writing to a device neither truncates it nor fails on a sync it does not support.
  km_meta meta = MakeRecord(0);
  EXPECT_EQ(km_put_km_meta("/dev/null", 0, &meta), 0);
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

  bool InSecureStorage(const char* name) {
    return access(device_.Path("kmstore/e-" + std::string(name)).c_str(), F_OK) == 0;
  }
  bool InFile(const char* name) { return access(device_.Path(name).c_str(), F_OK) == 0; }

  char cwd_[4096];
};

TEST_F(PlaceChoiceTest, OnlyTheExactValueTrueSelectsSecureStorage) {
  km_meta meta = MakeRecord(0);
  struct Case {
    const char* flag;
    const char* name;
    bool secure;
  } cases[] = {
      {"true", "userdata", true}, {"TRUE", "upper", false}, {"true ", "blank", false},
      {"1", "one", false},        {"", "unset", false},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.flag);
    ASSERT_EQ(property_set("ro.product.tavi.support_mdfpp", c.flag), 0);
    ASSERT_EQ(km_put_km_meta(c.name, 0, &meta), 0);
    EXPECT_EQ(InSecureStorage(c.name), c.secure);
    EXPECT_EQ(InFile(c.name), !c.secure);  // relative to the working directory
    EXPECT_EQ(mdfpp_property_get("ro.product.tavi.support_mdfpp"), c.secure);
  }
}

TEST_F(PlaceChoiceTest, ALeadingSlashAlwaysMeansAFile) {
  ASSERT_EQ(property_set("ro.product.tavi.support_mdfpp", "true"), 0);
  km_meta meta = MakeRecord(0);
  std::string path = device_.Path("absolute");
  ASSERT_EQ(km_put_km_meta(path.c_str(), 0, &meta), 0);
  EXPECT_EQ(ReadFile(path).size(), 16384u);
  km_meta read;
  EXPECT_EQ(km_get_km_meta(path.c_str(), 0, &read), 0);
  EXPECT_EQ(km_delete_meta(path.c_str(), 0), 0);
  EXPECT_EQ(ReadFile(path), std::vector<uint8_t>(16384, 0));
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
