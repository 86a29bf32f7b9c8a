// SPDX-License-Identifier: Apache-2.0
// Records in secure storage, through a scripted kmstore device that forwards to the built-in
// one unless a test scripts an answer.
#include <errno.h>
#include <string.h>

#include <algorithm>
#include <functional>
#include <string>
#include <vector>

#include <cutils/properties.h>
#include <gtest/gtest.h>

#include "support/device_env.h"
#include "support/scripted_kmstore.h"
#include "tavikm.h"

namespace tavikm_test {
namespace {

using Lines = std::vector<LogLine>;

km_meta MakeRecord(uint8_t fill, uint16_t major = KM_META_MAJOR_VERSION) {
  km_meta meta;
  memset(&meta, fill, sizeof(meta));
  meta.magic = KM_META_MAGIC;
  meta.major_version = major;
  meta.minor_version = 0;
  return meta;
}

class SecureStorageTest : public DeviceTest {
 protected:
  void SetUp() override { ASSERT_EQ(property_set("ro.product.tavi.support_mdfpp", "true"), 0); }

  // A read that answers `result`, reports `length` and copies `image` (at most the capacity,
  // which it keeps in capacity_).
  void ScriptRead(int result, uint64_t length, const km_meta* image = nullptr) {
    script_->read = [=](const char*, uint8_t* buffer, uint64_t* size) {
      capacity_ = *size;
      if (image) memcpy(buffer, image, std::min<uint64_t>(*size, sizeof(*image)));
      *size = length;
      return result;
    };
  }

  ScopedKmstoreScript script_;
  uint64_t capacity_ = 0;

  static LogLine KeyLoc(const std::string& name) {
    return LogLine::Error("key_loc=" + name + ", 0\n");
  }
};

TEST_F(SecureStorageTest, PutGetDeleteRoundTripThroughTheDevice) {
  km_meta written = MakeRecord(0x42);
  ASSERT_EQ(km_put_km_meta("userdata", 12345, &written), 0);  // the offset does not matter
  EXPECT_EQ(ReadFile(device_.Path("kmstore/e-userdata")).size(), size_t{KM_META_SIZE});

  km_meta read;
  ASSERT_EQ(km_get_km_meta("userdata", 0, &read), 0);
  EXPECT_EQ(memcmp(&read, &written, sizeof(read)), 0);

  EXPECT_EQ(km_delete_meta("userdata", 0), 0);
  EXPECT_EQ(km_get_km_meta("userdata", 0, &read), 1);
  EXPECT_EQ(km_delete_meta("userdata", 0), 0);  // nothing left to remove is not an error
  EXPECT_EQ(log_.Lines(), (Lines{KeyLoc("userdata"), KeyLoc("userdata")}));
}

TEST_F(SecureStorageTest, ReadResultsAndStoredLengths) {
  km_meta current = MakeRecord(0x10);
  km_meta read;

  ScriptRead(1, KM_META_SIZE);
  EXPECT_EQ(km_get_km_meta("a", 0, &read), 1);

  ScriptRead(0, KM_META_SIZE, &current);
  EXPECT_EQ(km_get_km_meta("a", 0, &read), 0);
  EXPECT_EQ(memcmp(&read, &current, sizeof(read)), 0);
  EXPECT_EQ(capacity_, uint64_t{KM_META_SIZE});  // the read asks for exactly one record

  log_.Clear();
  ScriptRead(-5, KM_META_SIZE);
  EXPECT_EQ(km_get_km_meta("a", 0, &read), -1);
  EXPECT_EQ(log_.Lines(),
            (Lines{KeyLoc("a"), LogLine::Error("Failed to read metadata from Secure Storage\n")}));
}

TEST_F(SecureStorageTest, WriteFailure) {
  km_meta meta = MakeRecord(0);
  script_->write = [](const char*, const uint8_t*, uint64_t) { return -1; };
  EXPECT_EQ(km_put_km_meta("a", 0, &meta), -1);
  script_->write = [](const char*, const uint8_t*, uint64_t) { return 1; };
  EXPECT_EQ(km_put_km_meta("a", 0, &meta), 0);  // only a negative result fails
  EXPECT_EQ(log_.Lines(),
            (Lines{LogLine::Error("Filed to store metadata to TZ Secure Storage\n")}));
}

TEST_F(SecureStorageTest, DeleteLooksOnlyAtANegativeResult) {
  for (int result : {0, 1, 2, 7}) {
    script_->remove = [=](const char*) { return result; };
    EXPECT_EQ(km_delete_meta("a", 0), 0) << result;
  }
  EXPECT_TRUE(log_.Lines().empty());

  script_->remove = [](const char*) {
    errno = EACCES;
    return -1;
  };
  EXPECT_EQ(km_delete_meta("gone", 0), -1);
  EXPECT_EQ(log_.Lines(), (Lines{LogLine::Error("Failed to Remove Key file : gone"),
                                 LogLine::Error("Error::Permission denied")}));
}

}  // namespace
}  // namespace tavikm_test
