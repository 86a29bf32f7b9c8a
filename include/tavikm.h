// SPDX-License-Identifier: Apache-2.0
/*
 * libtavikm: key management for storage encryption.
 *
 * The exported record and crypto layer: the km_meta record, its storage in TEE secure storage
 * or a metadata file, setup and upgrade of records, the REK/KEK store, the cipher primitives,
 * the KDFs and the wrapping of the disk master key under a password.
 *
 * Conventions, unless a function says otherwise: 0 is success, -1 failure, another negative
 * value is a failing callee's result passed through. Every failure is logged with tag "TAVIKM".
 * A missing (null) pointer is a failure with one line, never a crash: only a buffer that is to
 * hold no bytes may be null. No argument and no stored byte makes the library end the process;
 * the one exception is a random generator that reports failure, which does, after its line.
 * Buffers are owned by the caller; nothing here keeps a pointer past the call. No function
 * takes a lock: callers serialise their use of one record or key name.
 */
#ifndef TAVIKM_H_
#define TAVIKM_H_

#include <stdbool.h>
#include <stddef.h>
#include <stdint.h>

#include <hardware/hardware.h>

#include "tavikm_kmstore.h"

#ifdef __cplusplus
extern "C" {
#endif

#define TAVIKM_EXPORT __attribute__((visibility("default")))

/* ---- The record ---------------------------------------------------------------------------- */

#define KM_META_MAGIC 0xD14AB29Cu
#define KM_META_MAJOR_VERSION 3
#define KM_META_MINOR_VERSION 0
#define KM_META_SIZE 2704
/* A metadata file that is a regular file is always exactly this long. */
#define KM_METADATA_FILE_SIZE 16384
#define KM_KEY_BLOB_CAPACITY 2048

/* kdf_type values. KM_KDF_DEFAULT asks km_init_km_meta to choose. */
#define KM_KDF_PBKDF2 1
#define KM_KDF_SCRYPT 2
#define KM_KDF_SCRYPT_KEYMASTER_OLD 3
#define KM_KDF_PBKDF2_REK 4
#define KM_KDF_SCRYPT_KEYMASTER 5
#define KM_KDF_DEFAULT 10

/*
 * The persisted 2704-byte record: a flat little-endian image, every byte (padding included) part
 * of the stored format. A fresh record is all zeros before its fields are set.
 */
typedef struct km_meta {
  uint32_t magic;         /* KM_META_MAGIC */
  uint16_t major_version; /* 3; 2 or less still needs the KEK upgrade */
  uint16_t minor_version; /* 0 */
  uint8_t reserved0[8];
  uint64_t keysize; /* master key, derived key and KEK length */
  uint8_t kdf_type; /* 1..5 */
  uint8_t N_factor; /* scrypt: log2 N */
  uint8_t r_factor; /* scrypt: log2 r */
  uint8_t p_factor; /* scrypt: log2 p */
  uint8_t reserved1[32];
  uint8_t master_key[64];                    /* wrapped master key, keysize bytes used */
  uint8_t object_iv[16];                     /* Keymaster object nonce / REK CBC IV */
  uint8_t key_iv[16];                        /* IV of the master-key wrapping */
  uint8_t salt[16];                          /* KDF salt */
  uint8_t km_key_blob[KM_KEY_BLOB_CAPACITY]; /* Keymaster key blob */
  uint8_t pad0[4];
  uint64_t km_key_blob_size; /* used length of km_key_blob; 0: no key */
  uint8_t key_mac[32];       /* GCM tag, or the password MAC (CBC-only) */
  char key_name[256];        /* key location given at creation */
  uint8_t xtkm_value[64];    /* the KEK encrypted by Keymaster */
  uint64_t xtkm_value_size;
  uint8_t kek_mac[32]; /* HMAC-SHA256 over xtkm_value */
  uint32_t kek_mac_size;
  uint8_t pad1[4];
  uint8_t mac_key_enc[64]; /* the kek mac's key, encrypted by Keymaster */
  uint64_t mac_key_size;
} km_meta;
typedef km_meta km_meta_t;

/* The layout is the stored format: pin every offset. */
#ifdef __cplusplus
#define KM_META_ASSERT(cond) static_assert(cond, #cond)
#else
#define KM_META_ASSERT(cond) _Static_assert(cond, #cond)
#endif
KM_META_ASSERT(offsetof(km_meta, magic) == 0);
KM_META_ASSERT(offsetof(km_meta, major_version) == 4);
KM_META_ASSERT(offsetof(km_meta, minor_version) == 6);
KM_META_ASSERT(offsetof(km_meta, reserved0) == 8);
KM_META_ASSERT(offsetof(km_meta, keysize) == 16);
KM_META_ASSERT(offsetof(km_meta, kdf_type) == 24);
KM_META_ASSERT(offsetof(km_meta, N_factor) == 25);
KM_META_ASSERT(offsetof(km_meta, r_factor) == 26);
KM_META_ASSERT(offsetof(km_meta, p_factor) == 27);
KM_META_ASSERT(offsetof(km_meta, reserved1) == 28);
KM_META_ASSERT(offsetof(km_meta, master_key) == 60);
KM_META_ASSERT(offsetof(km_meta, object_iv) == 124);
KM_META_ASSERT(offsetof(km_meta, key_iv) == 140);
KM_META_ASSERT(offsetof(km_meta, salt) == 156);
KM_META_ASSERT(offsetof(km_meta, km_key_blob) == 172);
KM_META_ASSERT(offsetof(km_meta, pad0) == 2220);
KM_META_ASSERT(offsetof(km_meta, km_key_blob_size) == 2224);
KM_META_ASSERT(offsetof(km_meta, key_mac) == 2232);
KM_META_ASSERT(offsetof(km_meta, key_name) == 2264);
KM_META_ASSERT(offsetof(km_meta, xtkm_value) == 2520);
KM_META_ASSERT(offsetof(km_meta, xtkm_value_size) == 2584);
KM_META_ASSERT(offsetof(km_meta, kek_mac) == 2592);
KM_META_ASSERT(offsetof(km_meta, kek_mac_size) == 2624);
KM_META_ASSERT(offsetof(km_meta, pad1) == 2628);
KM_META_ASSERT(offsetof(km_meta, mac_key_enc) == 2632);
KM_META_ASSERT(offsetof(km_meta, mac_key_size) == 2696);
KM_META_ASSERT(sizeof(km_meta) == KM_META_SIZE);
#undef KM_META_ASSERT

/* ---- Feature flags and the secure-storage device ------------------------------------------- */

/*
 * Names of the system properties that switch the library's behaviour. A flag is set only when
 * its property reads exactly "true"; it is read afresh at every use. A host program may point
 * these at other property names.
 */
TAVIKM_EXPORT extern const char* supportMdfpp;   /* "ro.product.tavi.support_mdfpp" */
TAVIKM_EXPORT extern const char* supportCBConly; /* "ro.product.tavi.support_cbc_only" */
TAVIKM_EXPORT extern const char* supportRekKek;  /* "ro.product.tavi.support_rek_kek" */

/* True exactly when the system property `key` reads "true". */
TAVIKM_EXPORT bool mdfpp_property_get(const char* key);

/*
 * Opens the secure-storage device, or hands out the one opened earlier in this process (it is
 * never closed). Returns 0 with `*out` set, or the failing lookup's or open's result with `*out`
 * null; a failure is not remembered, so the next call tries again.
 */
TAVIKM_EXPORT int kmstore_device_init(kmstore_device** out);

/* ---- Reading, writing and deleting records ------------------------------------------------- */

/*
 * The place of a record: an entry named `key_loc` in secure storage when the MDFPP flag is set
 * and `key_loc` does not begin with '/', otherwise the metadata file `key_loc` at `offset`.
 */

/*
 * Reads the record at `key_loc` into `meta` (2704 bytes). Returns 0, 1 when secure storage
 * holds no entry of that name, or -1 (and other negative results). Records of older
 * generations in secure storage are upgraded and written back on the way, to the entry
 * `key_loc` only. On failure `meta` may hold a partial or rejected image.
 */
TAVIKM_EXPORT int km_get_km_meta(const char* key_loc, uint64_t offset, km_meta* meta);

/* Stores the 2704 bytes of `meta`; a regular metadata file is left 16384 bytes long. */
TAVIKM_EXPORT int km_put_km_meta(const char* key_loc, int64_t offset, const km_meta* meta);

/*
 * Removes the record: deletes the secure-storage entry, or overwrites the record's bytes in the
 * metadata file with zeros (creating a zero-filled file when it is missing).
 */
TAVIKM_EXPORT int km_delete_meta(const char* key_loc, int64_t offset);

/* ---- Setup --------------------------------------------------------------------------------- */

/*
 * Creates a new record for `key_loc`: a random master key of `keysize` bytes into
 * `master_key`, the KDF of `kdf_type` (KM_KDF_DEFAULT chooses), the Keymaster key, the master
 * key wrapped under `password`, stored at offset 0. `meta` receives the record. On failure the
 * random master key stays in `master_key` and nothing already done is undone.
 */
TAVIKM_EXPORT int km_initial_setup(const char* key_loc, const char* password, size_t password_len,
                                   uint8_t* master_key, uint64_t keysize, uint32_t kdf_type,
                                   km_meta* meta);

/* Builds the key-independent part of a new record (zeroed first). Only the low 8 bits of
 * `kdf_type` count. */
TAVIKM_EXPORT int km_init_km_meta(km_meta* meta, const char* key_loc, uint64_t keysize,
                                  uint32_t kdf_type);

/* ---- The REK/KEK store --------------------------------------------------------------------- */

/* Sets keysize, magic, versions and key_name of `meta`, without clearing it. */
TAVIKM_EXPORT int km_init_km_meta_enc_by_rek(km_meta* meta, const char* key_loc, uint64_t keysize);

/*
 * The longest KEK the store keeps whole: with Keymaster 4.0 object encryption the 64-byte XTKM
 * value holds the KEK and its 16-byte GCM tag; in CBC-only mode the legacy path encrypts exactly
 * 32 bytes.
 */
#define KM_KEK_MAX_SIZE_GCM 48
#define KM_KEK_MAX_SIZE_CBC 32

/*
 * Stores `kek` (`kek_len` bytes) under `key_name` in secure storage, encrypted by Keymaster.
 * A `kek_len` of 0, or above KM_KEK_MAX_SIZE_GCM (KM_KEK_MAX_SIZE_CBC in CBC-only mode), and a
 * `key_name` of 256 bytes or more (the get could not read it back) are refused with -1 before
 * any key is made or anything written. Returns 0, -1, or a failing
 * step's negative result. When the Keymaster key needs an upgrade on the way, the upgraded
 * record goes back to the same secure-storage entry.
 */
TAVIKM_EXPORT int km_put_kek_enc_by_rek(const char* key_name, const uint8_t* kek, uint64_t kek_len);

/*
 * Reads the KEK stored under `key_name` into `kek_out` (room for 64 bytes). Returns 0 with the
 * length in `*kek_len_out` (0 after the Keymaster key was upgraded on the way and the upgraded
 * record stored back under `key_name`: ask again), 1 when there is no such entry (outputs
 * untouched), or -1.
 */
TAVIKM_EXPORT int km_get_kek_enc_by_rek(const char* key_name, uint8_t* kek_out,
                                        uint64_t* kek_len_out);

/* Removes the KEK stored under `key_name`; 0 also when there was none. */
TAVIKM_EXPORT int km_delete_kek_enc_by_rek(const char* key_name);

/* ---- Cipher primitives --------------------------------------------------------------------- */

/*
 * Converts hexadecimal text (either case, no prefix or separators) to newly allocated key bytes
 * that the caller releases with free(). `*out_size` counts the bytes converted, also when an
 * invalid pair stops the conversion; null on odd length, invalid text or allocation failure.
 */
TAVIKM_EXPORT uint8_t* km_convert_hex_ascii_to_key(const char* hex, size_t* out_size);

/* Writes 2 * count upper-case hexadecimal characters and a NUL to `out`. */
TAVIKM_EXPORT void km_convert_key_to_hex_ascii(const uint8_t* key, size_t count, char* out);

/*
 * AES-GCM with a 16-byte IV and a 16- or 32-byte key. The tag (16 bytes) travels separately;
 * the ciphertext is as long as the plaintext. A null `aad` means no AAD, whatever `aad_len`
 * says. Return the number of bytes written, or -1. On a tag mismatch decryption returns -1
 * and `plaintext` holds unauthenticated bytes that must be ignored.
 */
TAVIKM_EXPORT int km_aes_gcm_encrypt(const uint8_t* plaintext, int plaintext_len,
                                     const uint8_t* aad, int aad_len, const uint8_t* key,
                                     size_t key_len, const uint8_t* iv, uint8_t* ciphertext,
                                     uint8_t* tag);
TAVIKM_EXPORT int km_aes_gcm_decrypt(const uint8_t* ciphertext, int ciphertext_len,
                                     const uint8_t* aad, int aad_len, const uint8_t* tag,
                                     const uint8_t* key, size_t key_len, const uint8_t* iv,
                                     uint8_t* plaintext);

/*
 * AES-CBC with a 16-byte IV and a 16- or 32-byte key; `padding` 1 is PKCS#7, anything else no
 * padding. Return the number of bytes written, or -1.
 */
TAVIKM_EXPORT int km_aes_encrypt(const uint8_t* in, int in_len, const uint8_t* key, size_t key_len,
                                 const uint8_t* iv, uint8_t* out, int padding);
TAVIKM_EXPORT int km_aes_decrypt(const uint8_t* in, int in_len, const uint8_t* key, size_t key_len,
                                 const uint8_t* iv, uint8_t* out, int padding);

/* SHA-256 of `len` bytes into `digest` (32 bytes). 0 or -1. */
TAVIKM_EXPORT int km_sha256(const uint8_t* data, size_t len, uint8_t* digest);

/* Fills `out` with `count` random bytes and returns 0 (-1 for a null `out`). A generator that
 * reports failure ends the process after its line: nothing may go on with bytes that are not
 * random. */
TAVIKM_EXPORT int km_generate_drbg_bytes(void* unused, uint8_t* out, size_t count);

/* ---- Key derivation ------------------------------------------------------------------------ */

/*
 * The signature every KDF shares: password and length, 16-byte salt, output of the record's
 * keysize bytes, and the record (`params`, a km_meta*). 0 on success.
 */
typedef int (*km_kdf_fn)(const char* password, unsigned long password_len,
                         const unsigned char* salt, unsigned char* out, void* params);

/*
 * scrypt (RFC 7914). Returns 0, or -1 with errno set: EFBIG for an output or r * p too large,
 * EINVAL for N not a power of two, ENOMEM for r or N too large (or zero r or p) or a failed
 * allocation.
 */
TAVIKM_EXPORT int crypto_scrypt(const uint8_t* password, size_t password_len, const uint8_t* salt,
                                size_t salt_len, uint64_t N, uint32_t r, uint32_t p, uint8_t* out,
                                size_t out_len);

/*
 * The name of the Salsa20/8 back end crypto_scrypt runs in this process ("x86asm", "avx512vl",
 * "sse2", "neon", "scalar" or "portable"): a static string. The first call (or crypto_scrypt's)
 * makes the choice: each back end the CPU can run is checked against a known answer and timed,
 * and the fastest is kept.
 */
TAVIKM_EXPORT const char* km_scrypt_backend_name(void);

/*
 * The KDF of kdf_type 4: PBKDF2 combined with the record's KEK. `ikey` holds 64 bytes. When the
 * record's Keymaster key needs an upgrade, the upgraded `params` record is written back where
 * this process last read or stored it with km_get_km_meta / km_put_km_meta (never to a place
 * its key_name gives), as long as that place still holds it (same salt and wrapped master key)
 * and, in a metadata file, only at offset 0. Otherwise nothing is written: the caller stores the
 * changed record where it read it.
 */
TAVIKM_EXPORT int km_pbkdf2_rek(const char* password, unsigned long password_len,
                                const unsigned char* salt, unsigned char* ikey, void* params);

/* ---- Master-key wrapping ------------------------------------------------------------------- */

/*
 * Wraps `master_key` (keysize bytes) under a key derived from the password with the record's
 * KDF, into `wrapped` (keysize bytes): AES-GCM with the tag in `meta->key_mac`, or AES-CBC when
 * the CBC-only flag is set. 0 or -1.
 */
TAVIKM_EXPORT int km_encrypt_key(const char* password, size_t password_len, const uint8_t* salt,
                                 uint8_t* wrapped, const uint8_t* master_key, km_meta* meta);

/*
 * Unwraps `wrapped` into `master_key`. Returns 0; 9 when the key opened only under the all-zero
 * key; the KDF's own non-zero code; or -1. In CBC-only mode a wrong password is not detected
 * here: check the password MAC first.
 */
TAVIKM_EXPORT int km_decrypt_key(const char* password, size_t password_len, const uint8_t* salt,
                                 const uint8_t* wrapped, uint8_t* master_key, km_meta* meta);

/* The password MAC of CBC-only mode: HMAC-SHA256 of the wrapped key under the derived key. */
TAVIKM_EXPORT int km_get_key_mac_by_password(const uint8_t* wrapped, const uint8_t* salt,
                                             const char* password, size_t password_len,
                                             uint8_t* mac, km_meta* meta);

/* Compares two 32-byte MACs: 0 when equal, -1 otherwise. */
TAVIKM_EXPORT int km_verify_key_mac(const uint8_t* stored, const uint8_t* computed);

#ifdef __cplusplus
}
#endif

#endif /* TAVIKM_H_ */
