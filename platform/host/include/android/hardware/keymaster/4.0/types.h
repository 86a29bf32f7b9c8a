// SPDX-License-Identifier: Apache-2.0
// Host version of the Keymaster 4.0 HAL's types (android.hardware.keymaster@4.0): tags, enums,
// error codes and the structures that cross the HAL, with the HAL's names and numbers.
#ifndef TAVIKM_HOST_ANDROID_HARDWARE_KEYMASTER_V4_0_TYPES_H_
#define TAVIKM_HOST_ANDROID_HARDWARE_KEYMASTER_V4_0_TYPES_H_

#include <stdint.h>

#include <hidl/HidlSupport.h>

namespace android {
namespace hardware {
namespace keymaster {
namespace V4_0 {

enum class Constants : uint32_t {
  AUTH_TOKEN_MAC_LENGTH = 32u,
};

// The top four bits of a Tag say what kind of value it carries.
enum class TagType : uint32_t {
  INVALID = 0u << 28,
  ENUM = 1u << 28,
  ENUM_REP = 2u << 28,
  UINT = 3u << 28,
  UINT_REP = 4u << 28,
  ULONG = 5u << 28,
  DATE = 6u << 28,
  BOOL = 7u << 28,
  BIGNUM = 8u << 28,
  BYTES = 9u << 28,
  ULONG_REP = 10u << 28,
};

#define TAVIKM_KM_TAG(type, number) (static_cast<uint32_t>(TagType::type) | (number##u))

enum class Tag : uint32_t {
  INVALID = TAVIKM_KM_TAG(INVALID, 0),
  PURPOSE = TAVIKM_KM_TAG(ENUM_REP, 1),
  ALGORITHM = TAVIKM_KM_TAG(ENUM, 2),
  KEY_SIZE = TAVIKM_KM_TAG(UINT, 3),
  BLOCK_MODE = TAVIKM_KM_TAG(ENUM_REP, 4),
  DIGEST = TAVIKM_KM_TAG(ENUM_REP, 5),
  PADDING = TAVIKM_KM_TAG(ENUM_REP, 6),
  CALLER_NONCE = TAVIKM_KM_TAG(BOOL, 7),
  MIN_MAC_LENGTH = TAVIKM_KM_TAG(UINT, 8),
  EC_CURVE = TAVIKM_KM_TAG(ENUM, 10),
  RSA_PUBLIC_EXPONENT = TAVIKM_KM_TAG(ULONG, 200),
  INCLUDE_UNIQUE_ID = TAVIKM_KM_TAG(BOOL, 202),
  BLOB_USAGE_REQUIREMENTS = TAVIKM_KM_TAG(ENUM, 301),
  BOOTLOADER_ONLY = TAVIKM_KM_TAG(BOOL, 302),
  ROLLBACK_RESISTANCE = TAVIKM_KM_TAG(BOOL, 303),
  HARDWARE_TYPE = TAVIKM_KM_TAG(ENUM, 304),
  ACTIVE_DATETIME = TAVIKM_KM_TAG(DATE, 400),
  ORIGINATION_EXPIRE_DATETIME = TAVIKM_KM_TAG(DATE, 401),
  USAGE_EXPIRE_DATETIME = TAVIKM_KM_TAG(DATE, 402),
  MIN_SECONDS_BETWEEN_OPS = TAVIKM_KM_TAG(UINT, 403),
  MAX_USES_PER_BOOT = TAVIKM_KM_TAG(UINT, 404),
  USER_ID = TAVIKM_KM_TAG(UINT, 501),
  USER_SECURE_ID = TAVIKM_KM_TAG(ULONG_REP, 502),
  NO_AUTH_REQUIRED = TAVIKM_KM_TAG(BOOL, 503),
  USER_AUTH_TYPE = TAVIKM_KM_TAG(ENUM, 504),
  AUTH_TIMEOUT = TAVIKM_KM_TAG(UINT, 505),
  ALLOW_WHILE_ON_BODY = TAVIKM_KM_TAG(BOOL, 506),
  TRUSTED_USER_PRESENCE_REQUIRED = TAVIKM_KM_TAG(BOOL, 507),
  TRUSTED_CONFIRMATION_REQUIRED = TAVIKM_KM_TAG(BOOL, 508),
  UNLOCKED_DEVICE_REQUIRED = TAVIKM_KM_TAG(BOOL, 509),
  APPLICATION_ID = TAVIKM_KM_TAG(BYTES, 601),
  APPLICATION_DATA = TAVIKM_KM_TAG(BYTES, 700),
  CREATION_DATETIME = TAVIKM_KM_TAG(DATE, 701),
  ORIGIN = TAVIKM_KM_TAG(ENUM, 702),
  ROOT_OF_TRUST = TAVIKM_KM_TAG(BYTES, 704),
  OS_VERSION = TAVIKM_KM_TAG(UINT, 705),
  OS_PATCHLEVEL = TAVIKM_KM_TAG(UINT, 706),
  UNIQUE_ID = TAVIKM_KM_TAG(BYTES, 707),
  ATTESTATION_CHALLENGE = TAVIKM_KM_TAG(BYTES, 708),
  ATTESTATION_APPLICATION_ID = TAVIKM_KM_TAG(BYTES, 709),
  ATTESTATION_ID_BRAND = TAVIKM_KM_TAG(BYTES, 710),
  ATTESTATION_ID_DEVICE = TAVIKM_KM_TAG(BYTES, 711),
  ATTESTATION_ID_PRODUCT = TAVIKM_KM_TAG(BYTES, 712),
  ATTESTATION_ID_SERIAL = TAVIKM_KM_TAG(BYTES, 713),
  ATTESTATION_ID_IMEI = TAVIKM_KM_TAG(BYTES, 714),
  ATTESTATION_ID_MEID = TAVIKM_KM_TAG(BYTES, 715),
  ATTESTATION_ID_MANUFACTURER = TAVIKM_KM_TAG(BYTES, 716),
  ATTESTATION_ID_MODEL = TAVIKM_KM_TAG(BYTES, 717),
  VENDOR_PATCHLEVEL = TAVIKM_KM_TAG(UINT, 718),
  BOOT_PATCHLEVEL = TAVIKM_KM_TAG(UINT, 719),
  ASSOCIATED_DATA = TAVIKM_KM_TAG(BYTES, 1000),
  NONCE = TAVIKM_KM_TAG(BYTES, 1001),
  MAC_LENGTH = TAVIKM_KM_TAG(UINT, 1003),
  RESET_SINCE_ID_ROTATION = TAVIKM_KM_TAG(BOOL, 1004),
  CONFIRMATION_TOKEN = TAVIKM_KM_TAG(BYTES, 1005),
};

// The numbers the library logs and stores: a slip in a type or a number breaks old records.
static_assert(static_cast<uint32_t>(Tag::PURPOSE) == 0x20000001u);
static_assert(static_cast<uint32_t>(Tag::ALGORITHM) == 0x10000002u);
static_assert(static_cast<uint32_t>(Tag::KEY_SIZE) == 0x30000003u);
static_assert(static_cast<uint32_t>(Tag::BLOCK_MODE) == 0x20000004u);
static_assert(static_cast<uint32_t>(Tag::DIGEST) == 0x20000005u);
static_assert(static_cast<uint32_t>(Tag::PADDING) == 0x20000006u);
static_assert(static_cast<uint32_t>(Tag::CALLER_NONCE) == 0x70000007u);
static_assert(static_cast<uint32_t>(Tag::MIN_MAC_LENGTH) == 0x30000008u);
static_assert(static_cast<uint32_t>(Tag::RSA_PUBLIC_EXPONENT) == 0x500000C8u);
static_assert(static_cast<uint32_t>(Tag::BLOB_USAGE_REQUIREMENTS) == 0x1000012Du);
static_assert(static_cast<uint32_t>(Tag::MIN_SECONDS_BETWEEN_OPS) == 0x30000193u);
static_assert(static_cast<uint32_t>(Tag::NO_AUTH_REQUIRED) == 0x700001F7u);
static_assert(static_cast<uint32_t>(Tag::OS_VERSION) == 0x300002C1u);
static_assert(static_cast<uint32_t>(Tag::OS_PATCHLEVEL) == 0x300002C2u);
static_assert(static_cast<uint32_t>(Tag::NONCE) == 0x900003E9u);
static_assert(static_cast<uint32_t>(Tag::MAC_LENGTH) == 0x300003EBu);

#undef TAVIKM_KM_TAG

enum class Algorithm : uint32_t {
  RSA = 1u,
  EC = 3u,
  AES = 32u,
  TRIPLE_DES = 33u,
  HMAC = 128u,
};

enum class BlockMode : uint32_t {
  ECB = 1u,
  CBC = 2u,
  CTR = 3u,
  GCM = 32u,
};

enum class PaddingMode : uint32_t {
  NONE = 1u,
  RSA_OAEP = 2u,
  RSA_PSS = 3u,
  RSA_PKCS1_1_5_ENCRYPT = 4u,
  RSA_PKCS1_1_5_SIGN = 5u,
  PKCS7 = 64u,
};

enum class Digest : uint32_t {
  NONE = 0u,
  MD5 = 1u,
  SHA1 = 2u,
  SHA_2_224 = 3u,
  SHA_2_256 = 4u,
  SHA_2_384 = 5u,
  SHA_2_512 = 6u,
};

enum class EcCurve : uint32_t {
  P_224 = 0u,
  P_256 = 1u,
  P_384 = 2u,
  P_521 = 3u,
};

enum class KeyOrigin : uint32_t {
  GENERATED = 0u,
  DERIVED = 1u,
  IMPORTED = 2u,
  UNKNOWN = 3u,
  SECURELY_IMPORTED = 4u,
};

enum class KeyBlobUsageRequirements : uint32_t {
  STANDALONE = 0u,
  REQUIRES_FILE_SYSTEM = 1u,
};

enum class KeyPurpose : uint32_t {
  ENCRYPT = 0u,
  DECRYPT = 1u,
  SIGN = 2u,
  VERIFY = 3u,
  WRAP_KEY = 5u,
};

enum class KeyDerivationFunction : uint32_t {
  NONE = 0u,
  RFC5869_SHA256 = 1u,
  ISO18033_2_KDF1_SHA1 = 2u,
  ISO18033_2_KDF1_SHA256 = 3u,
  ISO18033_2_KDF2_SHA1 = 4u,
  ISO18033_2_KDF2_SHA256 = 5u,
};

enum class HardwareAuthenticatorType : uint32_t {
  NONE = 0u,
  PASSWORD = 1u,
  FINGERPRINT = 2u,
  ANY = 0xFFFFFFFFu,
};

enum class SecurityLevel : uint32_t {
  SOFTWARE = 0u,
  TRUSTED_ENVIRONMENT = 1u,
  STRONGBOX = 2u,
};

enum class KeyFormat : uint32_t {
  X509 = 0u,
  PKCS8 = 1u,
  RAW = 3u,
};

enum class ErrorCode : int32_t {
  OK = 0,
  ROOT_OF_TRUST_ALREADY_SET = -1,
  UNSUPPORTED_PURPOSE = -2,
  INCOMPATIBLE_PURPOSE = -3,
  UNSUPPORTED_ALGORITHM = -4,
  INCOMPATIBLE_ALGORITHM = -5,
  UNSUPPORTED_KEY_SIZE = -6,
  UNSUPPORTED_BLOCK_MODE = -7,
  INCOMPATIBLE_BLOCK_MODE = -8,
  UNSUPPORTED_MAC_LENGTH = -9,
  UNSUPPORTED_PADDING_MODE = -10,
  INCOMPATIBLE_PADDING_MODE = -11,
  UNSUPPORTED_DIGEST = -12,
  INCOMPATIBLE_DIGEST = -13,
  INVALID_EXPIRATION_TIME = -14,
  INVALID_USER_ID = -15,
  INVALID_AUTHORIZATION_TIMEOUT = -16,
  UNSUPPORTED_KEY_FORMAT = -17,
  INCOMPATIBLE_KEY_FORMAT = -18,
  UNSUPPORTED_KEY_ENCRYPTION_ALGORITHM = -19,
  UNSUPPORTED_KEY_VERIFICATION_ALGORITHM = -20,
  INVALID_INPUT_LENGTH = -21,
  KEY_EXPORT_OPTIONS_INVALID = -22,
  DELEGATION_NOT_ALLOWED = -23,
  KEY_NOT_YET_VALID = -24,
  KEY_EXPIRED = -25,
  KEY_USER_NOT_AUTHENTICATED = -26,
  OUTPUT_PARAMETER_NULL = -27,
  INVALID_OPERATION_HANDLE = -28,
  INSUFFICIENT_BUFFER_SPACE = -29,
  VERIFICATION_FAILED = -30,
  TOO_MANY_OPERATIONS = -31,
  UNEXPECTED_NULL_POINTER = -32,
  INVALID_KEY_BLOB = -33,
  IMPORTED_KEY_NOT_ENCRYPTED = -34,
  IMPORTED_KEY_DECRYPTION_FAILED = -35,
  IMPORTED_KEY_NOT_SIGNED = -36,
  IMPORTED_KEY_VERIFICATION_FAILED = -37,
  INVALID_ARGUMENT = -38,
  UNSUPPORTED_TAG = -39,
  INVALID_TAG = -40,
  MEMORY_ALLOCATION_FAILED = -41,
  IMPORT_PARAMETER_MISMATCH = -44,
  SECURE_HW_ACCESS_DENIED = -45,
  OPERATION_CANCELLED = -46,
  CONCURRENT_ACCESS_CONFLICT = -47,
  SECURE_HW_BUSY = -48,
  SECURE_HW_COMMUNICATION_FAILED = -49,
  UNSUPPORTED_EC_FIELD = -50,
  MISSING_NONCE = -51,
  INVALID_NONCE = -52,
  MISSING_MAC_LENGTH = -53,
  KEY_RATE_LIMIT_EXCEEDED = -54,
  CALLER_NONCE_PROHIBITED = -55,
  KEY_MAX_OPS_EXCEEDED = -56,
  INVALID_MAC_LENGTH = -57,
  MISSING_MIN_MAC_LENGTH = -58,
  UNSUPPORTED_MIN_MAC_LENGTH = -59,
  UNSUPPORTED_KDF = -60,
  UNSUPPORTED_EC_CURVE = -61,
  KEY_REQUIRES_UPGRADE = -62,
  ATTESTATION_CHALLENGE_MISSING = -63,
  KEYMASTER_NOT_CONFIGURED = -64,
  ATTESTATION_APPLICATION_ID_MISSING = -65,
  CANNOT_ATTEST_IDS = -66,
  ROLLBACK_RESISTANCE_UNAVAILABLE = -67,
  HARDWARE_TYPE_UNAVAILABLE = -68,
  PROOF_OF_PRESENCE_REQUIRED = -69,
  CONCURRENT_PROOF_OF_PRESENCE_REQUESTED = -70,
  NO_USER_CONFIRMATION = -71,
  DEVICE_LOCKED = -72,
  UNIMPLEMENTED = -100,
  VERSION_MISMATCH = -101,
  UNKNOWN_ERROR = -1000,
};

// The codes the library's callers act on (-54 alone is retried) and log.
static_assert(static_cast<int32_t>(ErrorCode::INVALID_OPERATION_HANDLE) == -28);
static_assert(static_cast<int32_t>(ErrorCode::TOO_MANY_OPERATIONS) == -31);
static_assert(static_cast<int32_t>(ErrorCode::INVALID_KEY_BLOB) == -33);
static_assert(static_cast<int32_t>(ErrorCode::CONCURRENT_ACCESS_CONFLICT) == -47);
static_assert(static_cast<int32_t>(ErrorCode::KEY_RATE_LIMIT_EXCEEDED) == -54);
static_assert(static_cast<int32_t>(ErrorCode::KEY_REQUIRES_UPGRADE) == -62);
static_assert(static_cast<int32_t>(ErrorCode::UNKNOWN_ERROR) == -1000);

typedef uint64_t OperationHandle;
typedef uint64_t Timestamp;

struct KeyParameter {
  union IntegerParams {
    Algorithm algorithm;
    BlockMode blockMode;
    PaddingMode paddingMode;
    Digest digest;
    EcCurve ecCurve;
    KeyOrigin origin;
    KeyBlobUsageRequirements keyBlobUsageRequirements;
    KeyPurpose purpose;
    KeyDerivationFunction keyDerivationFunction;
    HardwareAuthenticatorType hardwareAuthenticatorType;
    SecurityLevel hardwareType;
    bool boolValue;
    uint32_t integer;
    uint64_t longInteger;
    uint64_t dateTime;
  };

  Tag tag = Tag::INVALID;
  IntegerParams f{};
  hidl_vec<uint8_t> blob;
};

struct KeyCharacteristics {
  hidl_vec<KeyParameter> softwareEnforced;
  hidl_vec<KeyParameter> hardwareEnforced;
};

struct HardwareAuthToken {
  uint64_t challenge = 0;
  uint64_t userId = 0;
  uint64_t authenticatorId = 0;
  HardwareAuthenticatorType authenticatorType = HardwareAuthenticatorType::NONE;
  Timestamp timestamp = 0;
  hidl_vec<uint8_t> mac;
};

struct VerificationToken {
  uint64_t challenge = 0;
  Timestamp timestamp = 0;
  hidl_vec<KeyParameter> parametersVerified;
  SecurityLevel securityLevel = SecurityLevel::SOFTWARE;
  hidl_vec<uint8_t> mac;
};

}  // namespace V4_0
}  // namespace keymaster
}  // namespace hardware
}  // namespace android

#endif  // TAVIKM_HOST_ANDROID_HARDWARE_KEYMASTER_V4_0_TYPES_H_
