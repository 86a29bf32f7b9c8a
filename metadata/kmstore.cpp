// SPDX-License-Identifier: Apache-2.0
// The secure-storage device: opened once per process on first use and kept.
#include <string.h>

#include <hardware/hardware.h>

#include "common/log.h"
#include "metadata/kmstore.h"
#include "tavikm.h"

namespace {

// No lock: callers serialise their use of the library. A failed open is not remembered.
kmstore_device* g_kmstore_device = nullptr;

}  // namespace

int kmstore_device_init(kmstore_device** out) {
  if (!out) {
    KM_LOGE("%s::Failed, out is NULL! \n", "kmstore_device_init");
    return -1;
  }
  if (g_kmstore_device) {
    *out = g_kmstore_device;
    return 0;
  }
  const hw_module_t* module = nullptr;
  int rc = hw_get_module_by_class("tavikm", nullptr, &module);
  if (rc != 0) {
    KM_LOGE("could not find any kmstore module");
    *out = nullptr;
    return rc;
  }
  hw_device_t* device = nullptr;
  rc = module->methods->open(module, "kmstore", &device);
  if (rc != 0) {
    KM_LOGE("could not open keymaster device in %s (%s)", "tavikm", strerror(-rc));
    *out = nullptr;
    return rc;
  }
  *out = reinterpret_cast<kmstore_device*>(device);
  g_kmstore_device = *out;
  return 0;
}

int km_open_kmstore(const char* init_failed, const char* what, kmstore_device** device) {
  int rc = kmstore_device_init(device);
  if (rc < 0) {
    KM_LOGE("%s", init_failed);
    return rc;
  }
  if (!*device) {
    KM_LOGE("kmstore device is null.\nFailed to %s", what);
    return -1;
  }
  return rc;
}
