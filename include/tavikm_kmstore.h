// SPDX-License-Identifier: Apache-2.0
/*
 * The secure-storage device that the platform's hardware module of class "tavikm" opens: the one
 * type the library and the module that implements it share, so the module needs nothing else of
 * the library's interface.
 */
#ifndef TAVIKM_KMSTORE_H_
#define TAVIKM_KMSTORE_H_

#include <stdint.h>

#include <hardware/hardware.h>

#ifdef __cplusplus
extern "C" {
#endif

/*
 * The secure-storage device of the module of class "tavikm". Entry names are NUL-terminated
 * strings. read: `*size` holds the capacity on entry and the stored length on return (at most
 * the capacity is copied); 0 success, 1 no such entry, negative failure. write: stores `length`
 * bytes, replacing any earlier entry; negative on failure. remove: 0 removed, 1 nothing to
 * remove, negative failure, 2 or more unexpected (cause in errno).
 */
typedef struct kmstore_device {
  struct hw_device_t common;
  int (*reserved_op1)(void);
  int (*reserved_op2)(void);
  int (*read)(const char* name, uint8_t* buffer, uint64_t* size);
  int (*write)(const char* name, const uint8_t* buffer, uint64_t length);
  int (*remove)(const char* name);
} kmstore_device;

#ifdef __cplusplus
}
#endif

#endif /* TAVIKM_KMSTORE_H_ */
