// SPDX-License-Identifier: Apache-2.0
/*
 * Host version of the keymaster1 device interface: the legacy Keymaster 1.0 with parameter
 * sets and begin/update/finish/abort operations. Output blobs and parameter sets are malloc'ed
 * by the device and owned by the caller afterwards.
 */
#ifndef TAVIKM_HOST_HARDWARE_KEYMASTER1_H_
#define TAVIKM_HOST_HARDWARE_KEYMASTER1_H_

#include <stddef.h>
#include <stdint.h>

#include <hardware/keymaster_common.h>
#include <hardware/keymaster_defs.h>

#ifdef __cplusplus
extern "C" {
#endif

struct keymaster1_device {
  /* Must come first: callers cast between hw_device_t and keymaster1_device. */
  struct hw_device_t common;

  uint32_t client_version;
  uint32_t flags;
  void* context;

  /* keymaster0 calls, deprecated in 1.0. */
  int (*generate_keypair)(const struct keymaster1_device* dev, const keymaster_keypair_t key_type,
                          const void* key_params, uint8_t** key_blob, size_t* key_blob_length);
  int (*import_keypair)(const struct keymaster1_device* dev, const uint8_t* key,
                        const size_t key_length, uint8_t** key_blob, size_t* key_blob_length);
  int (*get_keypair_public)(const struct keymaster1_device* dev, const uint8_t* key_blob,
                            const size_t key_blob_length, uint8_t** x509_data,
                            size_t* x509_data_length);
  int (*delete_keypair)(const struct keymaster1_device* dev, const uint8_t* key_blob,
                        const size_t key_blob_length);
  int (*delete_all)(const struct keymaster1_device* dev);
  int (*sign_data)(const struct keymaster1_device* dev, const void* signing_params,
                   const uint8_t* key_blob, const size_t key_blob_length, const uint8_t* data,
                   const size_t data_length, uint8_t** signed_data, size_t* signed_data_length);
  int (*verify_data)(const struct keymaster1_device* dev, const void* signing_params,
                     const uint8_t* key_blob, const size_t key_blob_length,
                     const uint8_t* signed_data, const size_t signed_data_length,
                     const uint8_t* signature, const size_t signature_length);

  keymaster_error_t (*get_supported_algorithms)(const struct keymaster1_device* dev,
                                                keymaster_algorithm_t** algorithms,
                                                size_t* algorithms_length);
  keymaster_error_t (*get_supported_block_modes)(const struct keymaster1_device* dev,
                                                 keymaster_algorithm_t algorithm,
                                                 keymaster_purpose_t purpose,
                                                 keymaster_block_mode_t** modes,
                                                 size_t* modes_length);
  keymaster_error_t (*get_supported_padding_modes)(const struct keymaster1_device* dev,
                                                   keymaster_algorithm_t algorithm,
                                                   keymaster_purpose_t purpose,
                                                   keymaster_padding_t** modes,
                                                   size_t* modes_length);
  keymaster_error_t (*get_supported_digests)(const struct keymaster1_device* dev,
                                             keymaster_algorithm_t algorithm,
                                             keymaster_purpose_t purpose,
                                             keymaster_digest_t** digests, size_t* digests_length);
  keymaster_error_t (*get_supported_import_formats)(const struct keymaster1_device* dev,
                                                    keymaster_algorithm_t algorithm,
                                                    keymaster_key_format_t** formats,
                                                    size_t* formats_length);
  keymaster_error_t (*get_supported_export_formats)(const struct keymaster1_device* dev,
                                                    keymaster_algorithm_t algorithm,
                                                    keymaster_key_format_t** formats,
                                                    size_t* formats_length);
  keymaster_error_t (*add_rng_entropy)(const struct keymaster1_device* dev, const uint8_t* data,
                                       size_t data_length);
  keymaster_error_t (*generate_key)(const struct keymaster1_device* dev,
                                    const keymaster_key_param_set_t* params,
                                    keymaster_key_blob_t* key_blob,
                                    keymaster_key_characteristics_t** characteristics);
  keymaster_error_t (*get_key_characteristics)(const struct keymaster1_device* dev,
                                               const keymaster_key_blob_t* key_blob,
                                               const keymaster_blob_t* client_id,
                                               const keymaster_blob_t* app_data,
                                               keymaster_key_characteristics_t** characteristics);
  keymaster_error_t (*import_key)(const struct keymaster1_device* dev,
                                  const keymaster_key_param_set_t* params,
                                  keymaster_key_format_t key_format,
                                  const keymaster_blob_t* key_data, keymaster_key_blob_t* key_blob,
                                  keymaster_key_characteristics_t** characteristics);
  keymaster_error_t (*export_key)(const struct keymaster1_device* dev,
                                  keymaster_key_format_t export_format,
                                  const keymaster_key_blob_t* key_to_export,
                                  const keymaster_blob_t* client_id,
                                  const keymaster_blob_t* app_data, keymaster_blob_t* export_data);
  keymaster_error_t (*delete_key)(const struct keymaster1_device* dev,
                                  const keymaster_key_blob_t* key);
  keymaster_error_t (*delete_all_keys)(const struct keymaster1_device* dev);

  /*
   * Starts an operation. `out_params` receives a malloc'ed set (empty when the device has
   * nothing to report, e.g. {NULL, 0}); the caller frees it with keymaster_free_param_set.
   */
  keymaster_error_t (*begin)(const struct keymaster1_device* dev, keymaster_purpose_t purpose,
                             const keymaster_key_blob_t* key,
                             const keymaster_key_param_set_t* in_params,
                             keymaster_key_param_set_t* out_params,
                             keymaster_operation_handle_t* operation_handle);
  /*
   * Feeds input; `*input_consumed` says how much was taken. `output->data` is malloc'ed (also
   * when empty) and owned by the caller. On an error the operation is over.
   */
  keymaster_error_t (*update)(const struct keymaster1_device* dev,
                              keymaster_operation_handle_t operation_handle,
                              const keymaster_key_param_set_t* in_params,
                              const keymaster_blob_t* input, size_t* input_consumed,
                              keymaster_key_param_set_t* out_params, keymaster_blob_t* output);
  /* Ends the operation whatever the result; `output->data` as for update. */
  keymaster_error_t (*finish)(const struct keymaster1_device* dev,
                              keymaster_operation_handle_t operation_handle,
                              const keymaster_key_param_set_t* in_params,
                              const keymaster_blob_t* signature,
                              keymaster_key_param_set_t* out_params, keymaster_blob_t* output);
  keymaster_error_t (*abort)(const struct keymaster1_device* dev,
                             keymaster_operation_handle_t operation_handle);
};
typedef struct keymaster1_device keymaster1_device_t;

static inline int keymaster1_open(const struct hw_module_t* module, keymaster1_device_t** device) {
  return module->methods->open(module, KEYSTORE_KEYMASTER, (struct hw_device_t**)device);
}

static inline int keymaster1_close(keymaster1_device_t* device) {
  return device->common.close(&device->common);
}

#ifdef __cplusplus
}
#endif

#endif /* TAVIKM_HOST_HARDWARE_KEYMASTER1_H_ */
