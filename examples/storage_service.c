// SPDX-License-Identifier: Apache-2.0
/*
 * What a storage-encryption service does with libtavikm, on the host platform: create the
 * record of a metadata file, unlock it, refuse a wrong password, change the password, and keep
 * a key-encryption key in secure storage.
 *
 *   cc storage_service.c $(pkg-config --cflags --libs libtavikm libtavikm-host)
 *   TAVIKM_DEVICE_DIR=$(mktemp -d) ./a.out [METADATA_FILE]
 *
 * The metadata file defaults to "metadata" in the device directory. Exit status 0 when every
 * step did what it should.
 */
#include <cutils/properties.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <tavikm.h>

#define KEYSIZE 32

static int fail(const char* step, int rc) {
  fprintf(stderr, "storage_service: %s failed (%d); the library's log says why\n", step, rc);
  return 1;
}

/*
 * Unwraps the master key of the record at offset 0 of `path`. In CBC-only mode a wrong password
 * is found only by the password MAC, so that comes first. The KDF may upgrade the record's
 * Keymaster key on the way; the service then stores the record back where it read it.
 */
static int unlock(const char* path, const char* password, km_meta* meta,
                  uint8_t master_key[KEYSIZE]) {
  int rc = km_get_km_meta(path, 0, meta);
  if (rc != 0) return rc;
  km_meta before = *meta;
  if (mdfpp_property_get(supportCBConly)) {
    uint8_t mac[32];
    rc = km_get_key_mac_by_password(meta->master_key, meta->salt, password, strlen(password), mac,
                                    meta);
    if (rc == 0) rc = km_verify_key_mac(meta->key_mac, mac);
  }
  /* 9: the key opened under the all-zero key, whatever the password: not an unlock. */
  if (rc == 0) {
    rc = km_decrypt_key(password, strlen(password), meta->salt, meta->master_key, master_key, meta);
  }
  if (rc == 0 && memcmp(&before, meta, sizeof(before)) != 0) rc = km_put_km_meta(path, 0, meta);
  explicit_bzero(&before, sizeof(before));
  return rc;
}

/* A new salt and the same master key wrapped under the new password; stored only when every
 * step succeeded, so a failure leaves the old record. */
static int change_password(const char* path, const char* new_password, km_meta* meta,
                           const uint8_t master_key[KEYSIZE]) {
  km_meta changed = *meta;
  km_generate_drbg_bytes(NULL, changed.salt, sizeof(changed.salt));
  int rc = km_encrypt_key(new_password, strlen(new_password), changed.salt, changed.master_key,
                          master_key, &changed);
  if (rc == 0 && mdfpp_property_get(supportCBConly)) {
    rc = km_get_key_mac_by_password(changed.master_key, changed.salt, new_password,
                                    strlen(new_password), changed.key_mac, &changed);
  }
  if (rc == 0) rc = km_put_km_meta(path, 0, &changed);
  if (rc == 0) *meta = changed;
  explicit_bzero(&changed, sizeof(changed));
  return rc;
}

int main(int argc, char** argv) {
  char path[4096];
  const char* device_dir = getenv("TAVIKM_DEVICE_DIR");
  if (argc > 1) {
    snprintf(path, sizeof(path), "%s", argv[1]);
  } else if (device_dir != NULL && device_dir[0] != '\0') {
    snprintf(path, sizeof(path), "%s/metadata", device_dir);
  } else {
    fprintf(stderr, "usage: storage_service METADATA_FILE (or set TAVIKM_DEVICE_DIR)\n");
    return 2;
  }
  /* A low scrypt cost keeps the example quick; a device sets its own in build.prop. */
  property_set("ro.crypto.scrypt_params", "10:3:0");

  uint8_t master_key[KEYSIZE], unlocked[KEYSIZE];
  km_meta meta;
  int rc = km_initial_setup(path, "old password", strlen("old password"), master_key, KEYSIZE,
                            KM_KDF_DEFAULT, &meta);
  if (rc != 0) return fail("setup", rc);
  printf("set up the record of %s (kdf type %u, %u-byte master key)\n", path, meta.kdf_type,
         KEYSIZE);

  rc = unlock(path, "old password", &meta, unlocked);
  if (rc != 0) return fail("unlock", rc);
  if (memcmp(unlocked, master_key, KEYSIZE) != 0) return fail("unlock: same master key", -1);
  printf("unlocked it: the master key is the one set up\n");

  if (unlock(path, "wrong password", &meta, unlocked) == 0) {
    return fail("refusing a wrong password", 0);
  }
  printf("refused a wrong password\n");

  rc = unlock(path, "old password", &meta, unlocked);
  if (rc == 0) rc = change_password(path, "new password", &meta, unlocked);
  if (rc != 0) return fail("password change", rc);
  if (unlock(path, "old password", &meta, unlocked) == 0) {
    return fail("refusing the old password", 0);
  }
  rc = unlock(path, "new password", &meta, unlocked);
  if (rc != 0 || memcmp(unlocked, master_key, KEYSIZE) != 0) return fail("unlock after change", rc);
  printf("changed the password: the new one unlocks the same master key, the old one no longer\n");

  /* KEKs live in secure storage, which the library uses in MDFPP mode. */
  property_set(supportMdfpp, "true");
  uint8_t kek[KEYSIZE], kek_back[64];
  uint64_t kek_len = 0;
  km_generate_drbg_bytes(NULL, kek, sizeof(kek));
  rc = km_put_kek_enc_by_rek("disk_kek", kek, sizeof(kek));
  if (rc != 0) return fail("storing a KEK", rc);
  /* A length of 0: the Keymaster key was upgraded and stored on the way; ask again. */
  for (int attempt = 0; attempt < 2 && rc == 0 && kek_len == 0; ++attempt) {
    rc = km_get_kek_enc_by_rek("disk_kek", kek_back, &kek_len);
  }
  if (rc != 0 || kek_len != sizeof(kek) || memcmp(kek, kek_back, sizeof(kek)) != 0) {
    return fail("fetching the KEK", rc);
  }
  rc = km_delete_kek_enc_by_rek("disk_kek");
  if (rc != 0) return fail("deleting the KEK", rc);
  printf("stored a %zu-byte KEK in secure storage, fetched it back, deleted it\n", sizeof(kek));

  explicit_bzero(master_key, sizeof(master_key));
  explicit_bzero(unlocked, sizeof(unlocked));
  explicit_bzero(kek, sizeof(kek));
  explicit_bzero(kek_back, sizeof(kek_back));
  explicit_bzero(&meta, sizeof(meta));
  return 0;
}
