// SPDX-License-Identifier: Apache-2.0
/*
 * Host version of the legacy Keymaster definitions: tags, enums, error codes and the C
 * structures (parameters, parameter sets, blobs, key blobs) that keymaster1 devices take and
 * return, with the platform's names and numbers. Parameter sets and blobs a device returns are
 * malloc'ed; keymaster_free_param_set and friends release them.
 */
#ifndef TAVIKM_HOST_HARDWARE_KEYMASTER_DEFS_H_
#define TAVIKM_HOST_HARDWARE_KEYMASTER_DEFS_H_

#include <stdbool.h>
#include <stddef.h>
#include <stdint.h>
#include <stdlib.h>
#include <string.h>

#ifdef __cplusplus
extern "C" {
#endif

typedef enum {
  KM_INVALID = 0u << 28,
  KM_ENUM = 1u << 28,
  KM_ENUM_REP = 2u << 28,
  KM_UINT = 3u << 28,
  KM_UINT_REP = 4u << 28,
  KM_ULONG = 5u << 28,
  KM_DATE = 6u << 28,
  KM_BOOL = 7u << 28,
  KM_BIGNUM = 8u << 28,
  KM_BYTES = 9u << 28,
  KM_ULONG_REP = 10u << 28,
} keymaster_tag_type_t;

typedef enum {
  KM_TAG_INVALID = KM_INVALID | 0,
  KM_TAG_PURPOSE = KM_ENUM_REP | 1,
  KM_TAG_ALGORITHM = KM_ENUM | 2,
  KM_TAG_KEY_SIZE = KM_UINT | 3,
  KM_TAG_BLOCK_MODE = KM_ENUM_REP | 4,
  KM_TAG_DIGEST = KM_ENUM_REP | 5,
  KM_TAG_PADDING = KM_ENUM_REP | 6,
  KM_TAG_CALLER_NONCE = KM_BOOL | 7,
  KM_TAG_MIN_MAC_LENGTH = KM_UINT | 8,
  KM_TAG_KDF = KM_ENUM_REP | 9,
  KM_TAG_EC_CURVE = KM_ENUM | 10,
  KM_TAG_RSA_PUBLIC_EXPONENT = KM_ULONG | 200,
  KM_TAG_ECIES_SINGLE_HASH_MODE = KM_BOOL | 201,
  KM_TAG_INCLUDE_UNIQUE_ID = KM_BOOL | 202,
  KM_TAG_BLOB_USAGE_REQUIREMENTS = KM_ENUM | 301,
  KM_TAG_BOOTLOADER_ONLY = KM_BOOL | 302,
  KM_TAG_ACTIVE_DATETIME = KM_DATE | 400,
  KM_TAG_ORIGINATION_EXPIRE_DATETIME = KM_DATE | 401,
  KM_TAG_USAGE_EXPIRE_DATETIME = KM_DATE | 402,
  KM_TAG_MIN_SECONDS_BETWEEN_OPS = KM_UINT | 403,
  KM_TAG_MAX_USES_PER_BOOT = KM_UINT | 404,
  KM_TAG_ALL_USERS = KM_BOOL | 500,
  KM_TAG_USER_ID = KM_UINT | 501,
  KM_TAG_USER_SECURE_ID = KM_ULONG_REP | 502,
  KM_TAG_NO_AUTH_REQUIRED = KM_BOOL | 503,
  KM_TAG_USER_AUTH_TYPE = KM_ENUM | 504,
  KM_TAG_AUTH_TIMEOUT = KM_UINT | 505,
  KM_TAG_ALLOW_WHILE_ON_BODY = KM_BOOL | 506,
  KM_TAG_ALL_APPLICATIONS = KM_BOOL | 600,
  KM_TAG_APPLICATION_ID = KM_BYTES | 601,
  KM_TAG_EXPORTABLE = KM_BOOL | 602,
  KM_TAG_APPLICATION_DATA = KM_BYTES | 700,
  KM_TAG_CREATION_DATETIME = KM_DATE | 701,
  KM_TAG_ORIGIN = KM_ENUM | 702,
  KM_TAG_ROLLBACK_RESISTANT = KM_BOOL | 703,
  KM_TAG_ROOT_OF_TRUST = KM_BYTES | 704,
  KM_TAG_OS_VERSION = KM_UINT | 705,
  KM_TAG_OS_PATCHLEVEL = KM_UINT | 706,
  KM_TAG_UNIQUE_ID = KM_BYTES | 707,
  KM_TAG_ATTESTATION_CHALLENGE = KM_BYTES | 708,
  KM_TAG_ASSOCIATED_DATA = KM_BYTES | 1000,
  KM_TAG_NONCE = KM_BYTES | 1001,
  KM_TAG_AUTH_TOKEN = KM_BYTES | 1002,
  KM_TAG_MAC_LENGTH = KM_UINT | 1003,
  KM_TAG_RESET_SINCE_ID_ROTATION = KM_BOOL | 1004,
} keymaster_tag_t;

typedef enum {
  KM_ALGORITHM_RSA = 1,
  KM_ALGORITHM_EC = 3,
  KM_ALGORITHM_AES = 32,
  KM_ALGORITHM_HMAC = 128,
} keymaster_algorithm_t;

typedef enum {
  KM_MODE_ECB = 1,
  KM_MODE_CBC = 2,
  KM_MODE_CTR = 3,
  KM_MODE_GCM = 32,
} keymaster_block_mode_t;

typedef enum {
  KM_PAD_NONE = 1,
  KM_PAD_RSA_OAEP = 2,
  KM_PAD_RSA_PSS = 3,
  KM_PAD_RSA_PKCS1_1_5_ENCRYPT = 4,
  KM_PAD_RSA_PKCS1_1_5_SIGN = 5,
  KM_PAD_PKCS7 = 64,
} keymaster_padding_t;

typedef enum {
  KM_DIGEST_NONE = 0,
  KM_DIGEST_MD5 = 1,
  KM_DIGEST_SHA1 = 2,
  KM_DIGEST_SHA_2_224 = 3,
  KM_DIGEST_SHA_2_256 = 4,
  KM_DIGEST_SHA_2_384 = 5,
  KM_DIGEST_SHA_2_512 = 6,
} keymaster_digest_t;

typedef enum {
  KM_ORIGIN_GENERATED = 0,
  KM_ORIGIN_DERIVED = 1,
  KM_ORIGIN_IMPORTED = 2,
  KM_ORIGIN_UNKNOWN = 3,
} keymaster_key_origin_t;

typedef enum {
  KM_BLOB_STANDALONE = 0,
  KM_BLOB_REQUIRES_FILE_SYSTEM = 1,
} keymaster_key_blob_usage_requirements_t;

typedef enum {
  KM_PURPOSE_ENCRYPT = 0,
  KM_PURPOSE_DECRYPT = 1,
  KM_PURPOSE_SIGN = 2,
  KM_PURPOSE_VERIFY = 3,
  KM_PURPOSE_WRAP = 5,
} keymaster_purpose_t;

#ifdef __cplusplus
// Where the library crosses between these and the 4.0 definitions, the numbers agree; the
// structures keep the platform's 32-bit tag.
static_assert(KM_TAG_NONCE == 0x900003E9u && KM_TAG_BLOCK_MODE == 0x20000004u &&
                  KM_TAG_PADDING == 0x20000006u,
              "legacy tags");
static_assert(KM_MODE_CBC == 2 && KM_PAD_NONE == 1 && KM_ALGORITHM_AES == 32, "legacy enums");
static_assert(sizeof(keymaster_tag_t) == 4, "legacy tag size");
#endif

typedef struct {
  const uint8_t* data;
  size_t data_length;
} keymaster_blob_t;

typedef struct {
  keymaster_tag_t tag;
  union {
    uint32_t enumerated;   /* KM_ENUM and KM_ENUM_REP */
    bool boolean;          /* KM_BOOL */
    uint32_t integer;      /* KM_UINT and KM_UINT_REP */
    uint64_t long_integer; /* KM_ULONG and KM_ULONG_REP */
    uint64_t date_time;    /* KM_DATE */
    keymaster_blob_t blob; /* KM_BIGNUM and KM_BYTES */
  };
} keymaster_key_param_t;

typedef struct {
  keymaster_key_param_t* params; /* may be NULL if length == 0 */
  size_t length;
} keymaster_key_param_set_t;

typedef struct {
  keymaster_key_param_set_t hw_enforced;
  keymaster_key_param_set_t sw_enforced;
} keymaster_key_characteristics_t;

typedef struct {
  const uint8_t* key_material;
  size_t key_material_size;
} keymaster_key_blob_t;

typedef enum {
  KM_KEY_FORMAT_X509 = 0,
  KM_KEY_FORMAT_PKCS8 = 1,
  KM_KEY_FORMAT_RAW = 3,
} keymaster_key_format_t;

typedef uint64_t keymaster_operation_handle_t;

typedef enum {
  KM_ERROR_OK = 0,
  KM_ERROR_ROOT_OF_TRUST_ALREADY_SET = -1,
  KM_ERROR_UNSUPPORTED_PURPOSE = -2,
  KM_ERROR_INCOMPATIBLE_PURPOSE = -3,
  KM_ERROR_UNSUPPORTED_ALGORITHM = -4,
  KM_ERROR_INCOMPATIBLE_ALGORITHM = -5,
  KM_ERROR_UNSUPPORTED_KEY_SIZE = -6,
  KM_ERROR_UNSUPPORTED_BLOCK_MODE = -7,
  KM_ERROR_INCOMPATIBLE_BLOCK_MODE = -8,
  KM_ERROR_UNSUPPORTED_MAC_LENGTH = -9,
  KM_ERROR_UNSUPPORTED_PADDING_MODE = -10,
  KM_ERROR_INCOMPATIBLE_PADDING_MODE = -11,
  KM_ERROR_UNSUPPORTED_DIGEST = -12,
  KM_ERROR_INCOMPATIBLE_DIGEST = -13,
  KM_ERROR_INVALID_EXPIRATION_TIME = -14,
  KM_ERROR_INVALID_USER_ID = -15,
  KM_ERROR_INVALID_AUTHORIZATION_TIMEOUT = -16,
  KM_ERROR_UNSUPPORTED_KEY_FORMAT = -17,
  KM_ERROR_INCOMPATIBLE_KEY_FORMAT = -18,
  KM_ERROR_UNSUPPORTED_KEY_ENCRYPTION_ALGORITHM = -19,
  KM_ERROR_UNSUPPORTED_KEY_VERIFICATION_ALGORITHM = -20,
  KM_ERROR_INVALID_INPUT_LENGTH = -21,
  KM_ERROR_KEY_EXPORT_OPTIONS_INVALID = -22,
  KM_ERROR_DELEGATION_NOT_ALLOWED = -23,
  KM_ERROR_KEY_NOT_YET_VALID = -24,
  KM_ERROR_KEY_EXPIRED = -25,
  KM_ERROR_KEY_USER_NOT_AUTHENTICATED = -26,
  KM_ERROR_OUTPUT_PARAMETER_NULL = -27,
  KM_ERROR_INVALID_OPERATION_HANDLE = -28,
  KM_ERROR_INSUFFICIENT_BUFFER_SPACE = -29,
  KM_ERROR_VERIFICATION_FAILED = -30,
  KM_ERROR_TOO_MANY_OPERATIONS = -31,
  KM_ERROR_UNEXPECTED_NULL_POINTER = -32,
  KM_ERROR_INVALID_KEY_BLOB = -33,
  KM_ERROR_IMPORTED_KEY_NOT_ENCRYPTED = -34,
  KM_ERROR_IMPORTED_KEY_DECRYPTION_FAILED = -35,
  KM_ERROR_IMPORTED_KEY_NOT_SIGNED = -36,
  KM_ERROR_IMPORTED_KEY_VERIFICATION_FAILED = -37,
  KM_ERROR_INVALID_ARGUMENT = -38,
  KM_ERROR_UNSUPPORTED_TAG = -39,
  KM_ERROR_INVALID_TAG = -40,
  KM_ERROR_MEMORY_ALLOCATION_FAILED = -41,
  KM_ERROR_IMPORT_PARAMETER_MISMATCH = -44,
  KM_ERROR_SECURE_HW_ACCESS_DENIED = -45,
  KM_ERROR_OPERATION_CANCELLED = -46,
  KM_ERROR_CONCURRENT_ACCESS_CONFLICT = -47,
  KM_ERROR_SECURE_HW_BUSY = -48,
  KM_ERROR_SECURE_HW_COMMUNICATION_FAILED = -49,
  KM_ERROR_UNSUPPORTED_EC_FIELD = -50,
  KM_ERROR_MISSING_NONCE = -51,
  KM_ERROR_INVALID_NONCE = -52,
  KM_ERROR_MISSING_MAC_LENGTH = -53,
  KM_ERROR_KEY_RATE_LIMIT_EXCEEDED = -54,
  KM_ERROR_CALLER_NONCE_PROHIBITED = -55,
  KM_ERROR_KEY_MAX_OPS_EXCEEDED = -56,
  KM_ERROR_INVALID_MAC_LENGTH = -57,
  KM_ERROR_MISSING_MIN_MAC_LENGTH = -58,
  KM_ERROR_UNSUPPORTED_MIN_MAC_LENGTH = -59,
  KM_ERROR_UNSUPPORTED_KDF = -60,
  KM_ERROR_UNSUPPORTED_EC_CURVE = -61,
  KM_ERROR_KEY_REQUIRES_UPGRADE = -62,
  KM_ERROR_ATTESTATION_CHALLENGE_MISSING = -63,
  KM_ERROR_KEYMASTER_NOT_CONFIGURED = -64,
  KM_ERROR_UNIMPLEMENTED = -100,
  KM_ERROR_VERSION_MISMATCH = -101,
  KM_ERROR_UNKNOWN_ERROR = -1000,
} keymaster_error_t;

static inline keymaster_tag_type_t keymaster_tag_get_type(keymaster_tag_t tag) {
  return (keymaster_tag_type_t)(tag & (0xFu << 28));
}

static inline uint32_t keymaster_tag_mask_type(keymaster_tag_t tag) { return tag & 0x0FFFFFFF; }

static inline keymaster_key_param_t keymaster_param_enum(keymaster_tag_t tag, uint32_t value) {
  keymaster_key_param_t param;
  memset(&param, 0, sizeof(param));
  param.tag = tag;
  param.enumerated = value;
  return param;
}

static inline keymaster_key_param_t keymaster_param_int(keymaster_tag_t tag, uint32_t value) {
  keymaster_key_param_t param;
  memset(&param, 0, sizeof(param));
  param.tag = tag;
  param.integer = value;
  return param;
}

static inline keymaster_key_param_t keymaster_param_long(keymaster_tag_t tag, uint64_t value) {
  keymaster_key_param_t param;
  memset(&param, 0, sizeof(param));
  param.tag = tag;
  param.long_integer = value;
  return param;
}

static inline keymaster_key_param_t keymaster_param_blob(keymaster_tag_t tag, const uint8_t* bytes,
                                                         size_t bytes_len) {
  keymaster_key_param_t param;
  memset(&param, 0, sizeof(param));
  param.tag = tag;
  param.blob.data = bytes;
  param.blob.data_length = bytes_len;
  return param;
}

static inline keymaster_key_param_t keymaster_param_bool(keymaster_tag_t tag) {
  keymaster_key_param_t param;
  memset(&param, 0, sizeof(param));
  param.tag = tag;
  param.boolean = true;
  return param;
}

static inline keymaster_key_param_t keymaster_param_date(keymaster_tag_t tag, uint64_t value) {
  keymaster_key_param_t param;
  memset(&param, 0, sizeof(param));
  param.tag = tag;
  param.date_time = value;
  return param;
}

/* Frees the byte values of `param` (the device malloc'ed them); the parameter stays. */
static inline void keymaster_free_param_values(keymaster_key_param_t* param, size_t param_count) {
  while (param_count > 0) {
    param_count--;
    switch (keymaster_tag_get_type(param->tag)) {
      case KM_BIGNUM:
      case KM_BYTES:
        free((void*)param->blob.data);
        param->blob.data = NULL;
        break;
      default:
        break;
    }
    ++param;
  }
}

/* Frees a parameter set a device returned, values included, and empties it. */
static inline void keymaster_free_param_set(keymaster_key_param_set_t* set) {
  if (set) {
    keymaster_free_param_values(set->params, set->length);
    free(set->params);
    set->params = NULL;
    set->length = 0;
  }
}

static inline void keymaster_free_characteristics(
    keymaster_key_characteristics_t* characteristics) {
  if (characteristics) {
    keymaster_free_param_set(&characteristics->hw_enforced);
    keymaster_free_param_set(&characteristics->sw_enforced);
  }
}

#ifdef __cplusplus
}
#endif

#endif /* TAVIKM_HOST_HARDWARE_KEYMASTER_DEFS_H_ */
