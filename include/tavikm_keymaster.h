// SPDX-License-Identifier: Apache-2.0
/*
 * libtavikm: the Keymaster services.
 *
 * Each call opens its own Keymaster 4.0 session, does its work and releases it; nothing is kept
 * between calls. Results: 0 success, -1 failure, -2 the key blob needs an upgrade (upgrade it
 * with the matching keymaster_upgrade_* call, store it, call again). Result buffers handed out
 * through `out` / `signature_buffer` are malloc()ed and released by the caller with free();
 * key blobs go out through caller buffers whose needed length is reported even when too small.
 */
#ifndef TAVIKM_KEYMASTER_H_
#define TAVIKM_KEYMASTER_H_

#include <stddef.h>

#include "tavikm.h"

#ifdef __cplusplus
extern "C" {
#endif

/* 1: a secure (TEE or StrongBox) Keymaster, 0: a software Keymaster, -1: no Keymaster. */
TAVIKM_EXPORT int keymaster_compatibility_cryptfs_mdfpp(void);
TAVIKM_EXPORT int keymaster_compatibility_cryptfs_scrypt_mdfpp(void);

/* Creates an AES-256-GCM key (caller nonce, 128-bit tags); its blob goes to `key_buffer`. */
TAVIKM_EXPORT int keymaster_create_aes_key_for_mdfpp(unsigned char* key_buffer,
                                                     unsigned int key_buffer_size,
                                                     unsigned int* key_out_size);

/*
 * Encrypts (decrypts) `object` with the AES key blob and the caller's nonce; `*out` receives the
 * ciphertext followed by the 16-byte tag (the plaintext). Retries every `ratelimit` seconds while
 * the key's rate limit is exceeded. The three upgraded_key arguments are not used.
 */
TAVIKM_EXPORT int keymaster_encrypt_object_for_mdfpp(
    const unsigned char* key_blob, unsigned long key_blob_size, const unsigned char* nonce,
    unsigned long nonce_size, unsigned int ratelimit, const unsigned char* object,
    unsigned long object_size, unsigned char** out, unsigned int* out_size,
    unsigned char* upgraded_key_buffer, unsigned int upgraded_key_buffer_size,
    unsigned long* upgraded_key_size);
TAVIKM_EXPORT int keymaster_decrypt_object_for_mdfpp(
    const unsigned char* key_blob, unsigned long key_blob_size, const unsigned char* nonce,
    unsigned long nonce_size, unsigned int ratelimit, const unsigned char* object,
    unsigned long object_size, unsigned char** out, unsigned int* out_size,
    unsigned char* upgraded_key_buffer, unsigned int upgraded_key_buffer_size,
    unsigned long* upgraded_key_size);

/* Creates the RSA signing key that binds scrypt to the device. */
TAVIKM_EXPORT int keymaster_create_key_for_cryptfs_scrypt_mdfpp(
    unsigned int rsa_key_size, unsigned long rsa_exponent, unsigned int ratelimit,
    unsigned char* key_buffer, unsigned int key_buffer_size, unsigned long* key_out_size);

/* Upgrades the RSA binding key's blob; source and destination may be the same buffer. A device
 * that answers with no new blob (the key needed nothing) gives -1 and leaves the buffer and
 * *key_out_size as they were at the call. */
TAVIKM_EXPORT int keymaster_upgrade_key_for_cryptfs_scrypt_mdfpp(
    unsigned int rsa_key_size, unsigned long rsa_exponent, unsigned int ratelimit,
    const unsigned char* key_blob, unsigned long key_blob_size, unsigned char* key_buffer,
    unsigned int key_buffer_size, unsigned long* key_out_size);

/* Upgrades the AES key's blob; source and destination may be the same buffer. An answer with no
 * new blob gives -1 and leaves the buffer and *key_out_size untouched. */
TAVIKM_EXPORT int keymaster_upgrade_key_for_cryptfs_pbkdf2_mdfpp(const unsigned char* key_blob,
                                                                 unsigned long key_blob_size,
                                                                 unsigned char* key_buffer,
                                                                 unsigned int key_buffer_size,
                                                                 unsigned long* key_out_size);

/* Signs `object` as it is (digest and padding NONE) with the RSA key blob. */
TAVIKM_EXPORT int keymaster_sign_object_for_cryptfs_scrypt_mdfpp(
    const unsigned char* key_blob, unsigned long key_blob_size, unsigned int ratelimit,
    const unsigned char* object, unsigned long object_size, unsigned char** signature_buffer,
    unsigned long* signature_buffer_size);

#ifdef __cplusplus
}
#endif

#endif /* TAVIKM_KEYMASTER_H_ */
