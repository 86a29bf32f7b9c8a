// SPDX-License-Identifier: Apache-2.0
// The host platform's own behaviour: device directory, properties, module lookup and the
// secure-storage module.
#include <errno.h>
#include <string.h>
#include <sys/stat.h>

#include <filesystem>
#include <set>
#include <string>
#include <vector>

#include <cutils/properties.h>
#include <gtest/gtest.h>
#include <hardware/hardware.h>

#include "support/device_env.h"
#include "tavikm.h"
#include "tavikm_host/device.h"
#include "tavikm_host/kmstore.h"
#include "tavikm_host/modules.h"

namespace tavikm_test {
namespace {

std::string Get(const char* key, const char* def = nullptr) {
  char value[PROPERTY_VALUE_MAX];
  int n = property_get(key, value, def);
  EXPECT_EQ(static_cast<size_t>(n), strlen(value));
  return value;
}

class DeviceDirTest : public ::testing::Test {
 protected:
  TempDeviceDir outer_;  // restores the environment afterwards
};

TEST_F(DeviceDirTest, CreatedPrivateOnFirstUseFromTheEnvironmentXdgOrHome) {
  std::string dir = outer_.Path("nested/device");
  setenv("TAVIKM_DEVICE_DIR", dir.c_str(), 1);
  EXPECT_EQ(tavikm_host::DeviceDir(), dir);
  struct stat st;
  ASSERT_EQ(stat(dir.c_str(), &st), 0);
  EXPECT_EQ(st.st_mode & 0777, 0700u);

  // Without it: the XDG state folder, then the home folder's.
  unsetenv("TAVIKM_DEVICE_DIR");
  std::string saved_home = getenv("HOME") ? getenv("HOME") : "";
  setenv("XDG_STATE_HOME", outer_.Path("state").c_str(), 1);
  EXPECT_EQ(tavikm_host::DeviceDir(), outer_.Path("state/tavikm/device"));
  unsetenv("XDG_STATE_HOME");
  setenv("HOME", outer_.Path("home").c_str(), 1);
  EXPECT_EQ(tavikm_host::DeviceDir(), outer_.Path("home/.local/state/tavikm/device"));
  setenv("HOME", saved_home.c_str(), 1);
}

class PropertiesTest : public DeviceTest {};

TEST_F(PropertiesTest, BuildPropLinesAreParsedAsTheDeviceWould) {
  device_.WriteBuildProp(
      "# comment=ignored\n"
      "\n"
      "ro.plain=value\n"
      "  ro.indented = spaced value\n"
      "ro.trailing=true \n"
      "ro.crlf=yes\r\n"
      "ro.empty=\n"
      "no equals sign\n"
      "ro.equals=a=b\n"
      "ro.plain=later wins\n" +
      std::string("ro.too.long=") + std::string(PROPERTY_VALUE_MAX, 'x') + "\n");
  EXPECT_EQ(Get("ro.plain"), "later wins");
  EXPECT_EQ(Get("ro.indented"), "spaced value");
  EXPECT_EQ(Get("ro.trailing"), "true ");  // a trailing blank is part of the value
  EXPECT_EQ(Get("ro.crlf"), "yes");
  EXPECT_EQ(Get("ro.empty", "def"), "");  // present but empty is not absent
  EXPECT_EQ(Get("ro.equals"), "a=b");
  EXPECT_EQ(Get("# comment"), "");
  EXPECT_EQ(Get("ro.too.long", "def"), "def");
  EXPECT_EQ(Get("no.such.key"), "");
}

TEST_F(PropertiesTest, LoadedOnceAndOverriddenBySet) {
  device_.WriteBuildProp("ro.a=1\n");
  EXPECT_EQ(Get("ro.a"), "1");
  // Later edits of build.prop are not seen until the properties are reset.
  std::string path = device_.Path("build.prop");
  WriteFile(path, std::vector<uint8_t>{'r', 'o', '.', 'a', '=', '2', '\n'});
  EXPECT_EQ(Get("ro.a"), "1");

  EXPECT_EQ(property_set("ro.a", "3"), 0);
  EXPECT_EQ(Get("ro.a"), "3");
  EXPECT_EQ(ReadFile(path).size(), 7u);  // set does not rewrite build.prop

  EXPECT_EQ(property_set("ro.a", std::string(PROPERTY_VALUE_MAX, 'x').c_str()), -1);
  EXPECT_EQ(property_set(nullptr, "x"), -1);
  EXPECT_EQ(Get("ro.a"), "3");
  std::string longest(PROPERTY_VALUE_MAX - 1, 'y');
  EXPECT_EQ(property_set("ro.a", longest.c_str()), 0);
  EXPECT_EQ(Get("ro.a"), longest);

  tavikm_host::ResetProperties();
  EXPECT_EQ(Get("ro.a"), "2");
}

class ModuleLookupTest : public DeviceTest {};

hw_module_t g_test_module = [] {
  hw_module_t m{};
  m.tag = HARDWARE_MODULE_TAG;
  m.name = "registered";
  return m;
}();

TEST_F(ModuleLookupTest, RegistrationsReplaceAndRestoreTheBuiltins) {
  const hw_module_t* module = nullptr;
  ASSERT_EQ(hw_get_module_by_class("tavikm", nullptr, &module), 0);
  const hw_module_t* builtin = module;
  EXPECT_EQ(hw_get_module_by_class("no-such-class", nullptr, &module), -ENOENT);
  EXPECT_EQ(hw_get_module_by_class("tavikm", "variant", &module), -ENOENT);

  tavikm_host::RegisterModule("tavikm", &g_test_module);
  ASSERT_EQ(hw_get_module_by_class("tavikm", nullptr, &module), 0);
  EXPECT_EQ(module, &g_test_module);

  tavikm_host::FailModuleLookup("tavikm", -EIO);
  EXPECT_EQ(hw_get_module_by_class("tavikm", nullptr, &module), -EIO);

  tavikm_host::FailModuleOpen("tavikm", -EPERM);
  ASSERT_EQ(hw_get_module_by_class("tavikm", nullptr, &module), 0);
  hw_device_t* device = reinterpret_cast<hw_device_t*>(0x1);
  EXPECT_EQ(module->methods->open(module, "kmstore", &device), -EPERM);
  EXPECT_EQ(device, nullptr);
  EXPECT_EQ(tavikm_host::ModuleLookupCount("tavikm"), 4);

  tavikm_host::RestoreBuiltinModules();
  ASSERT_EQ(hw_get_module_by_class("tavikm", nullptr, &module), 0);
  EXPECT_EQ(module, builtin);
  EXPECT_EQ(tavikm_host::ModuleLookupCount("tavikm"), 1);
}

class KmstoreModuleTest : public DeviceTest {
 protected:
  void SetUp() override {
    const hw_module_t* module = nullptr;
    ASSERT_EQ(hw_get_module_by_class("tavikm", nullptr, &module), 0);
    hw_device_t* device = nullptr;
    ASSERT_EQ(module->methods->open(module, "kmstore", &device), 0);
    dev_ = reinterpret_cast<kmstore_device*>(device);
    EXPECT_EQ(module->methods->open(module, "other", &device), -ENODEV);
  }

  int Write(const std::string& name, const std::string& data) {
    return dev_->write(name.c_str(), reinterpret_cast<const uint8_t*>(data.data()), data.size());
  }

  // Reads with `capacity`; returns the result and fills `data` (capacity bytes) and `stored`.
  int Read(const std::string& name, uint64_t capacity, std::string* data, uint64_t* stored) {
    data->assign(capacity, '\0');
    *stored = capacity;
    return dev_->read(name.c_str(), reinterpret_cast<uint8_t*>(data->data()), stored);
  }

  // What is stored under `name`, or the read's answer when it is not 0.
  std::string Content(const std::string& name) {
    std::string data;
    uint64_t stored = 0;
    int rc = Read(name, 64, &data, &stored);
    return rc ? "read " + std::to_string(rc) : data.substr(0, stored);
  }

  std::set<std::string> Files() {
    std::set<std::string> names;
    for (auto& e : std::filesystem::directory_iterator(device_.Path("kmstore")))
      names.insert(e.path().filename().string());
    return names;
  }

  kmstore_device* dev_ = nullptr;
};

TEST_F(KmstoreModuleTest, ReadCopiesAtMostTheCapacityAndReportsTheStoredLength) {
  ASSERT_EQ(Write("entry", "long first image"), 0);
  ASSERT_EQ(Write("entry", "0123456789"), 0);  // replaces
  std::string data;
  uint64_t stored = 0;
  EXPECT_EQ(Read("entry", 4, &data, &stored), 0);
  EXPECT_EQ(data, "0123");
  EXPECT_EQ(stored, 10u);
  EXPECT_EQ(Read("entry", 16, &data, &stored), 0);
  EXPECT_EQ(data, std::string("0123456789") + std::string(6, '\0'));
  EXPECT_EQ(stored, 10u);

  // An absent entry answers 1 and leaves the length as it was; remove says whether there was one.
  EXPECT_EQ(Read("absent", 2704, &data, &stored), 1);
  EXPECT_EQ(stored, 2704u);
  EXPECT_EQ(dev_->remove("entry"), 0);
  EXPECT_EQ(dev_->remove("entry"), 1);
  EXPECT_EQ(Content("entry"), "read 1");
}

TEST_F(KmstoreModuleTest, AnyNameMapsToItsOwnSafeFile) {
  const std::vector<std::string> names = {
      "userdata",
      "with/slash",
      "../escape",
      "..",
      ".",
      "",
      "a b",
      "a%2Fb",
      "a/b",
      "\xc3\xa9t\xc3\xa9",
      std::string(300, 'x'),
      std::string(300, 'x') + "y",
  };
  for (size_t i = 0; i < names.size(); ++i) ASSERT_EQ(Write(names[i], std::to_string(i)), 0) << i;
  for (size_t i = 0; i < names.size(); ++i) EXPECT_EQ(Content(names[i]), std::to_string(i)) << i;
  std::set<std::string> files = Files();
  EXPECT_EQ(files.size(), names.size());  // distinct, and all inside kmstore/
  for (const std::string& f : files) {
    EXPECT_LE(f.size(), 255u);
    EXPECT_EQ(f.find('/'), std::string::npos);
    EXPECT_NE(f[0], '.');
  }
  EXPECT_FALSE(std::filesystem::exists(device_.Path("escape")));
}

TEST_F(KmstoreModuleTest, AWriteInterruptedBeforeTheRenameLeavesTheOldImage) {
  ASSERT_EQ(Write("entry", "old image"), 0);
  std::vector<std::string> hooked;
  tavikm_host::SetKmstoreBeforeRenameHook([&](const std::string& name) {
    hooked.push_back(name);
    return false;
  });
  EXPECT_LT(Write("entry", "new image"), 0);
  EXPECT_LT(Write("fresh", "never stored"), 0);
  tavikm_host::SetKmstoreBeforeRenameHook({});

  EXPECT_EQ(hooked, (std::vector<std::string>{"entry", "fresh"}));
  EXPECT_EQ(Content("entry"), "old image");
  EXPECT_EQ(Content("fresh"), "read 1");
  EXPECT_EQ(Files(), std::set<std::string>{tavikm_host::KmstoreEntryFileName("entry")});
  ASSERT_EQ(Write("entry", "new image"), 0);
  EXPECT_EQ(Content("entry"), "new image");
}

TEST_F(KmstoreModuleTest, OfTwoWritersCreatingOneEntryOnlyOneSucceeds) {
  // The second writer creates the entry while the first is between its temporary file and the
  // link: the first must fail rather than replace an entry it believes it created.
  bool inside = false;
  tavikm_host::SetKmstoreBeforeRenameHook([&](const std::string& name) {
    if (inside) return true;
    inside = true;
    EXPECT_EQ(Write(name, "second"), 0);
    return true;
  });
  EXPECT_EQ(Write("entry", "first"), -EEXIST);
  tavikm_host::SetKmstoreBeforeRenameHook({});
  EXPECT_EQ(Content("entry"), "second");
  EXPECT_EQ(Files(), std::set<std::string>{tavikm_host::KmstoreEntryFileName("entry")});
}

TEST_F(KmstoreModuleTest, OnlyRegularFilesAreReadAsEntriesOrProperties) {
  // A FIFO would block an ordinary open and read for ever.
  ASSERT_EQ(Write("probe", "x"), 0);
  ASSERT_EQ(mkfifo(device_.Path("kmstore/e-fifo").c_str(), 0600), 0);
  ASSERT_EQ(mkdir(device_.Path("kmstore/e-dir").c_str(), 0700), 0);
  EXPECT_EQ(Content("fifo"), "read " + std::to_string(-EINVAL));
  EXPECT_EQ(Content("dir"), "read " + std::to_string(-EINVAL));

  ASSERT_EQ(mkfifo(device_.Path("build.prop").c_str(), 0600), 0);
  tavikm_host::ResetProperties();
  EXPECT_EQ(Get("ro.any", "def"), "def");
}

TEST_F(KmstoreModuleTest, EntriesFollowTheCurrentDeviceDirectory) {
  ASSERT_EQ(Write("entry", "first device"), 0);
  TempDeviceDir other;
  EXPECT_EQ(Content("entry"), "read 1");
  ASSERT_EQ(Write("entry", "second device"), 0);
  EXPECT_TRUE(std::filesystem::exists(other.Path("kmstore/e-entry")));
}

}  // namespace
}  // namespace tavikm_test
