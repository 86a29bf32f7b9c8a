// SPDX-License-Identifier: Apache-2.0
// Records of older generations in secure storage, brought to the current one when read.
#include <errno.h>
#include <string.h>
#include <unistd.h>

#include <string>
#include <vector>

#include <cutils/properties.h>
#include <gtest/gtest.h>

#include "keymaster/legacy_keymaster.h"
#include "metadata/keys.h"
#include "support/device_env.h"
#include "support/scripted_kmstore.h"
#include "support/virtual_time.h"
#include "tavikm.h"
#include "tavikm_host/keymaster_faults.h"
#include "tavikm_host/kmstore.h"
#include "tavikm_keymaster.h"

namespace tavikm_test {
namespace {

using Lines = std::vector<LogLine>;

constexpr char kName[] = "userdata";

class UpgradeTest : public DeviceTest {
 protected:
  void SetUp() override {
    property_set("ro.product.tavi.support_mdfpp", "true");
    old_.magic = KM_META_MAGIC;
    old_.major_version = 3;
    old_.keysize = 32;
    old_.kdf_type = KM_KDF_SCRYPT;
    strcpy(old_.key_name, kName);
    for (int i = 0; i < 32; ++i) kek_[i] = static_cast<uint8_t>(0xC0 + i);
  }

  // Stores the first `length` bytes of `meta` as the record's entry.
  void StoreEntry(const std::string& name, const void* data, size_t length) {
    ASSERT_EQ(BuiltinKmstoreWrite(name.c_str(), static_cast<const uint8_t*>(data), length), 0);
  }

  std::string EntryPath(const std::string& name) {
    return device_.Path("kmstore/" + tavikm_host::KmstoreEntryFileName(name));
  }
  std::vector<uint8_t> Entry(const std::string& name) { return ReadFile(EntryPath(name)); }
  bool HasEntry(const std::string& name) { return access(EntryPath(name).c_str(), F_OK) == 0; }

  std::vector<LogLine> Liblog() {
    std::vector<LogLine> lines;
    for (const LogLine& line : log_.Lines())
      if (line.source == LogLine::Source::kLiblog) lines.push_back(line);
    return lines;
  }

  // The KEK held in a record's XTKM value, recovered as the store's readers do.
  std::vector<uint8_t> KekOf(km_meta* meta, bool cbc_only) {
    if (cbc_only) {
      EXPECT_EQ(km_verify_HMAC(meta), 0);
      uint8_t kek[64] = {};
      keymaster_key_blob_t key = km_legacy_key_blob(meta);
      EXPECT_EQ(km_keymaster_decrypt_message(meta, &key, meta->xtkm_value, kek), 0);
      return std::vector<uint8_t>(kek, kek + meta->xtkm_value_size);
    }
    unsigned char* out = nullptr;
    unsigned int out_len = 0;
    unsigned long ignored = 0;
    EXPECT_EQ(keymaster_decrypt_object_for_mdfpp(
                  meta->km_key_blob, meta->km_key_blob_size, meta->object_iv, 12, 1,
                  meta->xtkm_value, meta->keysize + 16, &out, &out_len, nullptr, 0, &ignored),
              0);
    std::vector<uint8_t> kek(out, out + out_len);
    free(out);
    return kek;
  }

  km_meta old_ = {};
  uint8_t kek_[32];
  ScopedKmstoreScript script_;
  VirtualKeymasterTime time_;
};

TEST_F(UpgradeTest, ShortGenerationsAreReportedAndReadWithAZeroTail) {
  struct Case {
    size_t length;
    const char* message;
  } cases[] = {
      {2520, "This meta data should be upgrade by adding XTKM value + kek mac into km_meta_t"},
      {2584, "This meta data should be upgrade by adding XTKM value for moro device"},
      {2632, "This meta data should be upgrade by adding XTKM value into km_meta_t"},
      {2640, "This meta data should be upgrade"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.length);
    StoreEntry(kName, &old_, c.length);
    km_meta read;
    memset(&read, 0xFF, sizeof(read));
    log_.Clear();
    ASSERT_EQ(km_get_km_meta(kName, 0, &read), 0);
    EXPECT_EQ(memcmp(&read, &old_, c.length), 0);
    for (size_t i = c.length; i < sizeof(read); ++i)
      ASSERT_EQ(reinterpret_cast<uint8_t*>(&read)[i], 0) << i;
    EXPECT_EQ(Liblog(), (Lines{LogLine::Error("key_loc=userdata, 0\n"),
                               LogLine::Info("Different size of meta"), LogLine::Info(c.message)}));
    EXPECT_EQ(Entry(kName).size(), c.length);  // only reported, not rewritten
  }
}

TEST_F(UpgradeTest, The2592GenerationIsRewrittenOnceAtFullLength) {
  for (bool cbc_only : {false, true}) {
    SCOPED_TRACE(cbc_only);
    property_set("ro.product.tavi.support_cbc_only", cbc_only ? "true" : "");
    km_meta record = old_;
    // Made current by the size upgrade: no KEK upgrade follows, so no "_kek" entry is needed.
    record.major_version = 2;
    if (cbc_only) {
      ASSERT_EQ(km_ensure_aes_key(&record), 0);  // the kek mac needs a key
    }
    record.xtkm_value_size = 32;
    StoreEntry(kName, &record, 2592);
    km_meta read;
    log_.Clear();
    ASSERT_EQ(km_get_km_meta(kName, 0, &read), 0);
    EXPECT_EQ(read.major_version, 3);
    EXPECT_EQ(read.kek_mac_size, cbc_only ? 32u : 0u);
    std::vector<uint8_t> entry = Entry(kName);
    ASSERT_EQ(entry.size(), size_t{KM_META_SIZE});
    EXPECT_EQ(memcmp(entry.data(), &read, sizeof(read)), 0);
    if (cbc_only) {
      EXPECT_EQ(km_verify_HMAC(&read), 0);
    }

    log_.Clear();
    ASSERT_EQ(km_get_km_meta(kName, 0, &read), 0);
    EXPECT_EQ(Liblog(), Lines{LogLine::Error("key_loc=userdata, 0\n")});
  }
}

TEST_F(UpgradeTest, OtherLengthsAreRefused) {
  for (size_t length : {size_t{2703}, size_t{2705}, size_t{100}}) {
    std::vector<uint8_t> image(length, 0);
    memcpy(image.data(), &old_, std::min(length, sizeof(old_)));
    StoreEntry(kName, image.data(), image.size());
    // A read that answers "no entry" but reports another length is taken as data of that length.
    for (bool no_entry : {false, true}) {
      SCOPED_TRACE(std::to_string(length) + (no_entry ? " no entry" : ""));
      if (no_entry) {
        script_->read = [=](const char*, uint8_t*, uint64_t* size) {
          *size = length;
          return 1;
        };
      }
      km_meta read;
      log_.Clear();
      EXPECT_EQ(km_get_km_meta(kName, 0, &read), -1);
      EXPECT_EQ(
          Liblog(),
          (Lines{LogLine::Error("key_loc=userdata, 0\n"), LogLine::Info("Different size of meta"),
                 LogLine::Error("Stored meta data size is strange try again later")}));
    }
    script_->read = nullptr;
  }
}

TEST_F(UpgradeTest, TheKekMovesFromItsOwnEntryIntoTheRecord) {
  for (bool cbc_only : {false, true}) {
    SCOPED_TRACE(cbc_only);
    property_set("ro.product.tavi.support_cbc_only", cbc_only ? "true" : "");
    km_meta record = old_;
    record.major_version = 2;
    memset(record.kek_mac, 0x99, sizeof(record.kek_mac));  // left as read unless CBC-only
    StoreEntry(kName, &record, sizeof(record));
    StoreEntry("userdata_kek", kek_, sizeof(kek_));

    km_meta read;
    ASSERT_EQ(km_get_km_meta(kName, 0, &read), 0);
    EXPECT_EQ(read.major_version, 3);
    EXPECT_EQ(read.xtkm_value_size, 32u);
    EXPECT_EQ(KekOf(&read, cbc_only), std::vector<uint8_t>(kek_, kek_ + 32));
    if (!cbc_only) {
      EXPECT_EQ(read.kek_mac[0], 0x99);
    }
    EXPECT_FALSE(HasEntry("userdata_kek"));
    std::vector<uint8_t> entry = Entry(kName);
    ASSERT_EQ(entry.size(), size_t{KM_META_SIZE});
    EXPECT_EQ(memcmp(entry.data(), &read, sizeof(read)), 0);
  }
}

TEST_F(UpgradeTest, AMissingKekEntryFailsAndRewritesNothing) {
  old_.major_version = 2;
  StoreEntry(kName, &old_, sizeof(old_));
  std::vector<uint8_t> before = Entry(kName);
  km_meta read;
  log_.Clear();
  EXPECT_EQ(km_get_km_meta(kName, 0, &read), -1);
  EXPECT_EQ(Liblog(), (Lines{LogLine::Error("key_loc=userdata, 0\n"),
                             LogLine::Error("Failed to read kek_rek from Secure Storage\n")}));
  EXPECT_EQ(Entry(kName), before);
  EXPECT_EQ(tavikm_host::KeymasterCallCount(tavikm_host::KeymasterCall::kGenerateKey), 0);
}

TEST_F(UpgradeTest, AFailedFinalDeleteLeavesACurrentRecordBesideTheStaleEntry) {
  old_.major_version = 2;
  StoreEntry(kName, &old_, sizeof(old_));
  StoreEntry("userdata_kek", kek_, sizeof(kek_));
  script_->remove = [](const char*) {
    errno = EBUSY;
    return -1;
  };
  km_meta read;
  log_.Clear();
  EXPECT_EQ(km_get_km_meta(kName, 0, &read), -1);
  std::vector<LogLine> lines = Liblog();
  ASSERT_GE(lines.size(), 2u);
  EXPECT_EQ(std::vector<LogLine>(lines.end() - 2, lines.end()),
            (Lines{LogLine::Error("Failed to Remove Key file : userdata_kek"),
                   LogLine::Error("Error::Device or resource busy")}));
  EXPECT_TRUE(HasEntry("userdata_kek"));

  // The next read finds a current record and leaves the stale entry alone.
  ASSERT_EQ(km_get_km_meta(kName, 0, &read), 0);
  EXPECT_EQ(read.major_version, 3);
  EXPECT_TRUE(HasEntry("userdata_kek"));
}

// The record's AES key was made before a system update: encrypting the KEK asks for a key
// upgrade, which is stored under the record's name before the KEK is encrypted again.
TEST_F(UpgradeTest, AKeyNeedingAnUpgradeIsUpgradedDuringTheKekUpgrade) {
  km_meta record = old_;
  record.major_version = 2;
  ASSERT_EQ(km_ensure_aes_key(&record), 0);
  StoreEntry(kName, &record, sizeof(record));
  StoreEntry("userdata_kek", kek_, sizeof(kek_));
  property_set("ro.build.version.security_patch", "2027-02-05");

  km_meta read;
  ASSERT_EQ(km_get_km_meta(kName, 0, &read), 0);
  EXPECT_EQ(tavikm_host::KeymasterCallCount(tavikm_host::KeymasterCall::kUpgradeKey), 1);
  EXPECT_NE(memcmp(read.km_key_blob, record.km_key_blob, record.km_key_blob_size), 0);
  EXPECT_EQ(KekOf(&read, false), std::vector<uint8_t>(kek_, kek_ + 32));
  std::vector<std::string> texts = log_.Texts();
  EXPECT_NE(std::find(texts.begin(), texts.end(),
                      "km_get_km_meta : Failed to encrypt KEK by keymaster, rc=-2"),
            texts.end());
}

// A record restored under another entry carries the name of the record it was copied from,
// maybe a path: the key upgrade during its KEK upgrade is stored where it was read, no entry or
// file its name gives is made, and the "_kek" entry, which the original still needs, stays.
TEST_F(UpgradeTest, AKeyUpgradeGoesToTheEntryTheRecordWasReadFrom) {
  const std::string path = device_.Path("victim");
  for (const std::string& name : {std::string(kName), path}) {
    SCOPED_TRACE(name);
    property_set("ro.build.version.security_patch", "");
    km_meta record = old_;
    record.major_version = 2;
    memset(record.key_name, 0, sizeof(record.key_name));
    strcpy(record.key_name, name.c_str());
    ASSERT_EQ(km_ensure_aes_key(&record), 0);
    StoreEntry("userdata2", &record, sizeof(record));
    StoreEntry(name + "_kek", kek_, sizeof(kek_));
    property_set("ro.build.version.security_patch", "2027-02-05");

    km_meta read;
    ASSERT_EQ(km_get_km_meta("userdata2", 0, &read), 0);
    EXPECT_EQ(read.major_version, 3);
    EXPECT_EQ(KekOf(&read, false), std::vector<uint8_t>(kek_, kek_ + 32));
    std::vector<uint8_t> entry = Entry("userdata2");
    ASSERT_EQ(entry.size(), size_t{KM_META_SIZE});
    EXPECT_EQ(memcmp(entry.data(), &read, sizeof(read)), 0);
    EXPECT_FALSE(HasEntry(name));
    EXPECT_NE(access(path.c_str(), F_OK), 0) << "a file made from the record's name";
    EXPECT_TRUE(HasEntry(name + "_kek"));
    BuiltinKmstoreRemove("userdata2");
    BuiltinKmstoreRemove((name + "_kek").c_str());
  }
}

// A stored name too long for its "_kek" entry fails the read with one line; the process goes on.
TEST_F(UpgradeTest, ANameTooLongForItsKekEntryFailsTheRead) {
  for (size_t length : {size_t{252}, size_t{256}}) {
    SCOPED_TRACE(length);
    km_meta record = old_;
    record.major_version = 2;
    memset(record.key_name, 'n', sizeof(record.key_name));
    if (length < sizeof(record.key_name)) record.key_name[length] = '\0';
    StoreEntry(kName, &record, sizeof(record));
    const std::vector<uint8_t> before = Entry(kName);
    km_meta read;
    log_.Clear();
    EXPECT_EQ(km_get_km_meta(kName, 0, &read), -1);
    EXPECT_EQ(Liblog(), (Lines{LogLine::Error("key_loc=userdata, 0\n"),
                               LogLine::Error("key name of " + std::to_string(length) +
                                              " bytes is too long for its kek entry")}));
    EXPECT_EQ(Entry(kName), before);
  }
}

}  // namespace
}  // namespace tavikm_test
