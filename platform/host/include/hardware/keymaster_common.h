// SPDX-License-Identifier: Apache-2.0
/*
 * Host version of the legacy Keymaster module definitions shared by keymaster0 and keymaster1
 * devices: the module id "keystore", the device name "keymaster", module API versions and the
 * keymaster0-era key types.
 */
#ifndef TAVIKM_HOST_HARDWARE_KEYMASTER_COMMON_H_
#define TAVIKM_HOST_HARDWARE_KEYMASTER_COMMON_H_

#include <stdint.h>
#include <sys/types.h>

#include <hardware/hardware.h>

#ifdef __cplusplus
extern "C" {
#endif

#define KEYSTORE_HARDWARE_MODULE_ID "keystore"

#define KEYSTORE_KEYMASTER "keymaster"

#define KEYMASTER_MODULE_API_VERSION_0_2 HARDWARE_MODULE_API_VERSION(0, 2)
#define KEYMASTER_DEVICE_API_VERSION_0_2 HARDWARE_DEVICE_API_VERSION(0, 2)

#define KEYMASTER_MODULE_API_VERSION_0_3 HARDWARE_MODULE_API_VERSION(0, 3)
#define KEYMASTER_DEVICE_API_VERSION_0_3 HARDWARE_DEVICE_API_VERSION(0, 3)

#define KEYMASTER_MODULE_API_VERSION_1_0 HARDWARE_MODULE_API_VERSION(1, 0)
#define KEYMASTER_DEVICE_API_VERSION_1_0 HARDWARE_DEVICE_API_VERSION(1, 0)

#define KEYMASTER_MODULE_API_VERSION_2_0 HARDWARE_MODULE_API_VERSION(2, 0)
#define KEYMASTER_DEVICE_API_VERSION_2_0 HARDWARE_DEVICE_API_VERSION(2, 0)

struct keystore_module {
  /* Must come first: callers cast between hw_module_t and keystore_module. */
  hw_module_t common;
};

/* keymaster0_device::flags */
enum {
  KEYMASTER_SOFTWARE_ONLY = 1 << 0,
  KEYMASTER_BLOBS_ARE_STANDALONE = 1 << 1,
  KEYMASTER_SUPPORTS_DSA = 1 << 2,
  KEYMASTER_SUPPORTS_EC = 1 << 3,
};

typedef enum {
  TYPE_RSA = 1,
  TYPE_DSA = 2,
  TYPE_EC = 3,
} keymaster_keypair_t;

typedef struct {
  uint32_t modulus_size;
  uint64_t public_exponent;
} keymaster_rsa_keygen_params_t;

typedef enum {
  DIGEST_NONE,
} keymaster_digest_algorithm_t;

typedef enum {
  PADDING_NONE,
} keymaster_rsa_padding_t;

typedef struct {
  keymaster_digest_algorithm_t digest_type;
  keymaster_rsa_padding_t padding_type;
} keymaster_rsa_sign_params_t;

#ifdef __cplusplus
}
#endif

#endif /* TAVIKM_HOST_HARDWARE_KEYMASTER_COMMON_H_ */
