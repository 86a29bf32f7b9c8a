// SPDX-License-Identifier: Apache-2.0
/*
 * Host version of the platform's system-property calls. Properties come from build.prop in the
 * device directory, loaded at the first access; property_set changes this process's view only.
 */
#ifndef TAVIKM_HOST_CUTILS_PROPERTIES_H_
#define TAVIKM_HOST_CUTILS_PROPERTIES_H_

#ifdef __cplusplus
extern "C" {
#endif

#define PROPERTY_KEY_MAX 32
#define PROPERTY_VALUE_MAX 92

/*
 * Copies the value of `key` into `value` (room for PROPERTY_VALUE_MAX bytes) and returns its
 * length. An absent property yields `default_value` (or "" when that is null).
 */
int property_get(const char* key, char* value, const char* default_value);

/* Sets `key` to `value` in this process. 0, or -1 for a null key or a value that is too long. */
int property_set(const char* key, const char* value);

#ifdef __cplusplus
}
#endif

#endif /* TAVIKM_HOST_CUTILS_PROPERTIES_H_ */
