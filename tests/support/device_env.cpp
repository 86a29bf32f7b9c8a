// SPDX-License-Identifier: Apache-2.0
// Throwaway device directories for tests.
#include "support/device_env.h"

#include <stdlib.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <iterator>

#include "tavikm_host/device.h"
#include "tavikm_host/keymaster.h"
#include "tavikm_host/kmstore.h"
#include "tavikm_host/modules.h"

namespace tavikm_test {

TempDeviceDir::TempDeviceDir() {
  std::string base = std::filesystem::temp_directory_path().string() + "/tavikm-test-XXXXXX";
  if (!mkdtemp(base.data())) ADD_FAILURE() << "mkdtemp failed";
  path_ = base;
  if (const char* old = getenv("TAVIKM_DEVICE_DIR")) {
    had_previous_ = true;
    previous_ = old;
  }
  setenv("TAVIKM_DEVICE_DIR", path_.c_str(), 1);
  tavikm_host::ResetProperties();
  tavikm_host::RestoreBuiltinModules();
  tavikm_host::SetKmstoreBeforeRenameHook({});
  tavikm_host::ResetKeymaster();
}

TempDeviceDir::~TempDeviceDir() {
  tavikm_host::SetKmstoreBeforeRenameHook({});
  tavikm_host::ResetKeymaster();
  tavikm_host::RestoreBuiltinModules();
  tavikm_host::ResetProperties();
  if (had_previous_)
    setenv("TAVIKM_DEVICE_DIR", previous_.c_str(), 1);
  else
    unsetenv("TAVIKM_DEVICE_DIR");
  // Tests lock folders against writing; their owner must still be able to empty them.
  std::error_code ec;
  namespace fs = std::filesystem;
  for (fs::recursive_directory_iterator it(path_, ec), end; !ec && it != end; it.increment(ec)) {
    if (it->is_directory(ec) && !it->is_symlink(ec))
      fs::permissions(it->path(), fs::perms::owner_all, fs::perm_options::add, ec);
  }
  fs::permissions(path_, fs::perms::owner_all, fs::perm_options::add, ec);
  std::filesystem::remove_all(path_, ec);
}

void TempDeviceDir::WriteBuildProp(const std::string& contents) const {
  std::ofstream(Path("build.prop"), std::ios::binary) << contents;
  tavikm_host::ResetProperties();
}

std::vector<uint8_t> ReadFile(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  if (!in) ADD_FAILURE() << "cannot read " << path;
  return std::vector<uint8_t>(std::istreambuf_iterator<char>(in), {});
}

void WriteFile(const std::string& path, const std::vector<uint8_t>& data) {
  std::ofstream out(path, std::ios::binary | std::ios::trunc);
  out.write(reinterpret_cast<const char*>(data.data()), static_cast<std::streamsize>(data.size()));
  if (!out) ADD_FAILURE() << "cannot write " << path;
}

}  // namespace tavikm_test
