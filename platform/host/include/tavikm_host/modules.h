// SPDX-License-Identifier: Apache-2.0
// Host-only control over hw_get_module_by_class: tests register their own module for a class,
// make a lookup or an open fail, and restore the built-in modules afterwards.
#ifndef TAVIKM_HOST_MODULES_H_
#define TAVIKM_HOST_MODULES_H_

#include <functional>
#include <string>

#include <hardware/hardware.h>

namespace tavikm_host {

// Lookups of `class_id` return `module` (not owned; it must outlive its registration).
void RegisterModule(const std::string& class_id, const hw_module_t* module);

// Lookups of `class_id` fail with `error` (a negative errno).
void FailModuleLookup(const std::string& class_id, int error);

// Lookups of `class_id` find a module whose open fails with `error`.
void FailModuleOpen(const std::string& class_id, int error);

// Drops every registration: each class is served by its built-in module again.
void RestoreBuiltinModules();

// How many lookups of `class_id` have been made since the last restore; tests use it to see
// whether a caller cached its device.
int ModuleLookupCount(const std::string& class_id);

}  // namespace tavikm_host

#endif  // TAVIKM_HOST_MODULES_H_
