// SPDX-License-Identifier: Apache-2.0
/*
 * Host version of the platform's hardware-module interface: module and device headers with the
 * platform's layout, and the lookup by class. The host's modules are built in (see
 * tavikm_host/modules.h for how tests replace them).
 */
#ifndef TAVIKM_HOST_HARDWARE_HARDWARE_H_
#define TAVIKM_HOST_HARDWARE_HARDWARE_H_

#include <stdint.h>
#include <sys/cdefs.h>

#ifdef __cplusplus
extern "C" {
#endif

#define MAKE_TAG_CONSTANT(A, B, C, D) (((A) << 24) | ((B) << 16) | ((C) << 8) | (D))
#define HARDWARE_MODULE_TAG MAKE_TAG_CONSTANT('H', 'W', 'M', 'T')
#define HARDWARE_DEVICE_TAG MAKE_TAG_CONSTANT('H', 'W', 'D', 'T')

#define HARDWARE_MAKE_API_VERSION(maj, min) ((((maj)&0xff) << 8) | ((min)&0xff))
#define HARDWARE_MODULE_API_VERSION(maj, min) HARDWARE_MAKE_API_VERSION(maj, min)
#define HARDWARE_DEVICE_API_VERSION(maj, min) HARDWARE_MAKE_API_VERSION(maj, min)

struct hw_module_t;
struct hw_module_methods_t;
struct hw_device_t;

typedef struct hw_module_t {
  uint32_t tag;
  uint16_t module_api_version;
  uint16_t hal_api_version;
  const char* id;
  const char* name;
  const char* author;
  struct hw_module_methods_t* methods;
  void* dso;
#ifdef __LP64__
  uint64_t reserved[32 - 7];
#else
  uint32_t reserved[32 - 7];
#endif
} hw_module_t;

typedef struct hw_module_methods_t {
  int (*open)(const struct hw_module_t* module, const char* id, struct hw_device_t** device);
} hw_module_methods_t;

typedef struct hw_device_t {
  uint32_t tag;
  uint32_t version;
  struct hw_module_t* module;
#ifdef __LP64__
  uint64_t reserved[12];
#else
  uint32_t reserved[12];
#endif
  int (*close)(struct hw_device_t* device);
} hw_device_t;

/* Finds the module of `class_id` (instance `inst`, or none when null). 0 or a negative errno. */
int hw_get_module_by_class(const char* class_id, const char* inst,
                           const struct hw_module_t** module);

/* Same as hw_get_module_by_class(id, NULL, module). */
int hw_get_module(const char* id, const struct hw_module_t** module);

#ifdef __cplusplus
}
#endif

#endif /* TAVIKM_HOST_HARDWARE_HARDWARE_H_ */
