// SPDX-License-Identifier: Apache-2.0
/*
 * Host version of the keymaster0 device interface: the pre-1.0 legacy Keymaster, whose calls
 * return 0 or a negative error. The host's "keystore" module opens one of these for any
 * module_api_version other than 1.0; its calls all fail.
 */
#ifndef TAVIKM_HOST_HARDWARE_KEYMASTER0_H_
#define TAVIKM_HOST_HARDWARE_KEYMASTER0_H_

#include <stddef.h>
#include <stdint.h>

#include <hardware/keymaster_common.h>

#ifdef __cplusplus
extern "C" {
#endif

struct keymaster0_device {
  /* Must come first: callers cast between hw_device_t and keymaster0_device. */
  struct hw_device_t common;

  uint32_t client_version;
  uint32_t flags;
  void* context;

  int (*generate_keypair)(const struct keymaster0_device* dev, const keymaster_keypair_t key_type,
                          const void* key_params, uint8_t** key_blob, size_t* key_blob_length);
  int (*import_keypair)(const struct keymaster0_device* dev, const uint8_t* key,
                        const size_t key_length, uint8_t** key_blob, size_t* key_blob_length);
  int (*get_keypair_public)(const struct keymaster0_device* dev, const uint8_t* key_blob,
                            const size_t key_blob_length, uint8_t** x509_data,
                            size_t* x509_data_length);
  int (*delete_keypair)(const struct keymaster0_device* dev, const uint8_t* key_blob,
                        const size_t key_blob_length);
  int (*delete_all)(const struct keymaster0_device* dev);
  int (*sign_data)(const struct keymaster0_device* dev, const void* signing_params,
                   const uint8_t* key_blob, const size_t key_blob_length, const uint8_t* data,
                   const size_t data_length, uint8_t** signed_data, size_t* signed_data_length);
  int (*verify_data)(const struct keymaster0_device* dev, const void* signing_params,
                     const uint8_t* key_blob, const size_t key_blob_length,
                     const uint8_t* signed_data, const size_t signed_data_length,
                     const uint8_t* signature, const size_t signature_length);
};
typedef struct keymaster0_device keymaster0_device_t;

static inline int keymaster0_open(const struct hw_module_t* module, keymaster0_device_t** device) {
  return module->methods->open(module, KEYSTORE_KEYMASTER, (struct hw_device_t**)device);
}

static inline int keymaster0_close(keymaster0_device_t* device) {
  return device->common.close(&device->common);
}

#ifdef __cplusplus
}
#endif

#endif /* TAVIKM_HOST_HARDWARE_KEYMASTER0_H_ */
