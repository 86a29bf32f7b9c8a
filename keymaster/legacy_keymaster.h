// SPDX-License-Identifier: Apache-2.0
// The legacy Keymaster path (keymaster1 devices through libhardware) and the kek mac it protects:
// 32-byte secrets encrypted with a record's AES key blob in CBC mode, and the HMAC-SHA256 over a
// record's XTKM value whose key is kept in the record, encrypted the same way.
#ifndef TAVIKM_KEYMASTER_LEGACY_KEYMASTER_H_
#define TAVIKM_KEYMASTER_LEGACY_KEYMASTER_H_

#include <hardware/keymaster0.h>
#include <hardware/keymaster1.h>
#include <hardware/keymaster_defs.h>

#include "tavikm.h"

// Opens the legacy Keymaster device: 0 with exactly one of `*km0` (any module version but 1.0)
// and `*km1` (version 1.0) open; otherwise the lookup's or open's error with both null.
int km_keymaster_init(keymaster0_device_t** km0, keymaster1_device_t** km1);

// Encrypts (decrypts) exactly 32 bytes at `in` into `out` with the AES key blob `key`, in CBC
// mode without padding, the record's object_iv as IV. Only keymaster1 devices can: on a
// keymaster0 device these fail without a message. 0 or -1.
int km_keymaster_encrypt_message(km_meta* meta, keymaster_key_blob_t* key, const unsigned char* in,
                                 unsigned char* out);
int km_keymaster_decrypt_message(km_meta* meta, keymaster_key_blob_t* key, const unsigned char* in,
                                 unsigned char* out);

// Draws a new MAC key, stores it encrypted in mac_key_enc, and MACs the XTKM value into
// kek_mac. Nothing is stored: the caller writes the record. 0 or -1.
int km_generate_HMAC(km_meta* meta);

// Recovers the MAC key and checks kek_mac against the XTKM value. 0 when it matches, -1 otherwise.
int km_verify_HMAC(km_meta* meta);

#endif  // TAVIKM_KEYMASTER_LEGACY_KEYMASTER_H_
