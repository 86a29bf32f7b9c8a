// SPDX-License-Identifier: Apache-2.0
// hw_get_module_by_class over the built-in modules, with the host-only overrides tests use.
#include <errno.h>

#include <map>
#include <memory>
#include <mutex>
#include <string>

#include <hardware/hardware.h>

#include "builtin_modules.h"
#include "tavikm_host/modules.h"

namespace {

// A module whose open always fails with a chosen error.
struct FailingModule {
  hw_module_t module{};
  hw_module_methods_t methods{};
  int error = 0;
};

int FailingOpen(const hw_module_t* module, const char*, hw_device_t** device) {
  *device = nullptr;
  // `module` is the first member of its FailingModule.
  return reinterpret_cast<const FailingModule*>(module)->error;
}

struct Override {
  const hw_module_t* module = nullptr;  // used when lookup_error is 0
  int lookup_error = 0;
  std::unique_ptr<FailingModule> failing;
};

std::mutex g_mutex;
std::map<std::string, Override> g_overrides;
std::map<std::string, int> g_lookups;

const hw_module_t* Builtin(const std::string& class_id) {
  if (class_id == "tavikm") return tavikm_host::internal::KmstoreModule();
  if (class_id == "keystore") return tavikm_host::internal::KeystoreModule();
  return nullptr;
}

}  // namespace

extern "C" int hw_get_module_by_class(const char* class_id, const char* inst,
                                      const hw_module_t** module) {
  if (!class_id || !module) return -EINVAL;
  // Only the class's default module exists on the host; no instance variants.
  if (inst && *inst) return -ENOENT;
  std::lock_guard<std::mutex> lock(g_mutex);
  ++g_lookups[class_id];
  auto it = g_overrides.find(class_id);
  if (it != g_overrides.end()) {
    if (it->second.lookup_error) return it->second.lookup_error;
    *module = it->second.module;
    return 0;
  }
  const hw_module_t* found = Builtin(class_id);
  if (!found) return -ENOENT;
  *module = found;
  return 0;
}

extern "C" int hw_get_module(const char* id, const hw_module_t** module) {
  return hw_get_module_by_class(id, nullptr, module);
}

namespace tavikm_host {

void RegisterModule(const std::string& class_id, const hw_module_t* module) {
  std::lock_guard<std::mutex> lock(g_mutex);
  Override& o = g_overrides[class_id];
  o = Override{};
  o.module = module;
}

void FailModuleLookup(const std::string& class_id, int error) {
  std::lock_guard<std::mutex> lock(g_mutex);
  Override& o = g_overrides[class_id];
  o = Override{};
  o.lookup_error = error;
}

void FailModuleOpen(const std::string& class_id, int error) {
  std::lock_guard<std::mutex> lock(g_mutex);
  Override& o = g_overrides[class_id];
  o = Override{};
  o.failing = std::make_unique<FailingModule>();
  o.failing->error = error;
  o.failing->methods.open = FailingOpen;
  o.failing->module.tag = HARDWARE_MODULE_TAG;
  o.failing->module.id = "failing";
  o.failing->module.name = "failing module";
  o.failing->module.author = "tavikm host";
  o.failing->module.methods = &o.failing->methods;
  o.module = &o.failing->module;
}

void RestoreBuiltinModules() {
  std::lock_guard<std::mutex> lock(g_mutex);
  g_overrides.clear();
  g_lookups.clear();
}

int ModuleLookupCount(const std::string& class_id) {
  std::lock_guard<std::mutex> lock(g_mutex);
  auto it = g_lookups.find(class_id);
  return it == g_lookups.end() ? 0 : it->second;
}

}  // namespace tavikm_host
