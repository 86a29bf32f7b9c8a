// SPDX-License-Identifier: Apache-2.0
// What the emulated Keymaster hardware keeps outside its key blobs: the device secret in the
// device directory, the OS version and patch level it binds keys to, its clock, the list of
// deleted keys and the rate-limit timers.
#ifndef TAVIKM_HOST_KEYMASTER_DEVICE_STATE_H_
#define TAVIKM_HOST_KEYMASTER_DEVICE_STATE_H_

#include <stdint.h>

#include <string>

#include "secret_bytes.h"

namespace tavikm_host::km {

constexpr size_t kDeviceSecretSize = 32;

// The device directory's keymaster/device_secret (32 bytes, mode 0600), created on first use.
// False when it cannot be read or made, or holds anything but 32 bytes.
bool LoadDeviceSecret(SecretBytes* secret);

// ro.build.version.release as MMmmss, as the HAL reads it: "14" is 140000, "13.1.2" is 130102,
// "14.0.0-rc1" is 140000 (what follows the third number is dropped); 0 when it does not start
// with a number or a number has more than two digits.
uint32_t CurrentOsVersion();
// ro.build.version.security_patch as YYYYMM ("2026-11-05" is 202611), 0 when unparsable.
uint32_t CurrentOsPatchlevel();

// Milliseconds on the Keymaster's clock (since boot unless a test set its own).
uint64_t NowMs();

// Identifies a key by its material, so an upgraded blob is the same key.
std::string KeyId(const SecretBytes& material);

// Deleted keys are listed in the device directory's keymaster/deleted_keys.
bool IsKeyDeleted(const std::string& key_id);
bool MarkKeyDeleted(const std::string& key_id);

// MIN_SECONDS_BETWEEN_OPS timers, in the device directory's keymaster/rate_limits, so that every
// process on the emulated device sees them, as every caller of one TEE does. A timer started
// later than `now_ms` (under another clock, or before a reboot) is not running.
bool RateLimitRunning(const std::string& key_id, uint64_t now_ms);
// Starts the key's timer of `seconds` at `now_ms`; false when it cannot be kept.
bool StartRateLimit(const std::string& key_id, uint32_t seconds, uint64_t now_ms);
// Drops every timer, as a reboot does.
void ForgetRateLimits();

}  // namespace tavikm_host::km

#endif  // TAVIKM_HOST_KEYMASTER_DEVICE_STATE_H_
