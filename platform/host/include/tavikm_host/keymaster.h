// SPDX-License-Identifier: Apache-2.0
// Host-only controls and facts of the emulated Keymaster hardware (the Keymaster 4.0 devices and
// the legacy "keystore" module). Nothing in the library includes this header; the tool and the
// tests do. Fault injection lives in tavikm_host/keymaster_faults.h.
//
// The emulated hardware, in short:
// - host.keymaster.devices lists the Keymaster 4.0 devices by security level, in enumeration
//   order ("SOFTWARE", "TRUSTED_ENVIRONMENT", "STRONGBOX", comma-separated; default
//   "TRUSTED_ENVIRONMENT"; empty: none), read at every enumerateAvailableDevices().
// - host.keystore.api_version is the legacy module's module_api_version (default 0x0100, which
//   opens a keymaster1 device; any other value opens a keymaster0 device; empty: no module).
// - Key blobs are sealed with AES-256-GCM under the device directory's keymaster/device_secret
//   and bound to the security level of the device that made them (the legacy device accepts
//   any level). They carry the OS version and patch level of their making.
// - Key characteristics: a SOFTWARE device reports everything as software-enforced; other
//   levels report the key's use restrictions and OS binding as hardware-enforced and only its
//   dates and user id as software-enforced.
// - OS binding follows the HAL: the OS version is ro.build.version.release read as MMmmss
//   ("14.0.0-rc1" is 140000; not a number: 0), the patch level ro.build.version.security_patch
//   as YYYYMM. A key bound to any other version or level than the current ones, older or
//   newer, gets KEY_REQUIRES_UPGRADE at begin. upgradeKey rebinds it to the current ones,
//   gives OK with an empty blob when it is already current, and INVALID_ARGUMENT when it would
//   go down, except that an OS version may always go down to 0.
// - Operations of all devices share one table of kKeymasterMaxOperations entries. A key's
//   MIN_SECONDS_BETWEEN_OPS timer starts when an operation with it ends (finish, abort, or a
//   failed update or finish) and is kept in the device directory's keymaster/rate_limits, so
//   every process using that directory sees it, as every caller of one TEE does; begin while
//   it runs gets KEY_RATE_LIMIT_EXCEEDED. ResetKeymaster() drops the timers, as a reboot does.
// - The legacy keymaster1 device runs AES-CBC with any AES key blob, also one made for GCM
//   only, and does not check the key's block modes: the record's one AES key serves both the
//   Keymaster 4.0 object encryption (GCM) and the legacy messages (CBC), as the library's
//   design requires and the legacy path of the TEE it stands for allows. A compliant
//   standalone keymaster1 would refuse such a key with KM_ERROR_INCOMPATIBLE_BLOCK_MODE.
#ifndef TAVIKM_HOST_KEYMASTER_H_
#define TAVIKM_HOST_KEYMASTER_H_

#include <stddef.h>
#include <stdint.h>

#include <functional>
#include <memory>
#include <string>

#include <keymasterV4_0/Keymaster.h>

namespace tavikm_host {

// What getHardwareInfo() reports, and the HAL descriptor every device gives.
inline constexpr char kKeymasterName[] = "HostKeymasterDevice";
inline constexpr char kKeymasterAuthorName[] = "TAVIKM host platform";
inline constexpr char kKeymasterDescriptor[] = "android.hardware.keymaster@4.0::IKeymasterDevice";
// The legacy "keystore" module's name (hw_module_t::name).
inline constexpr char kKeystoreModuleName[] = "TAVIKM host keystore";

// How many operations may be open at once, over all devices together.
inline constexpr size_t kKeymasterMaxOperations = 16;

// The instance name of the device at `position` (0-based) of a list of levels: "software",
// "default" (TRUSTED_ENVIRONMENT), "strongbox", or "level<N>" for other levels; a level that
// appears again later in the list gets "_<position>" appended there.
std::string KeymasterInstanceName(uint32_t level, size_t position, bool repeated);

// A software Keymaster 4.0 device of any security level, outside enumeration: no fault
// injection and no call counting. Tests wrap it in their own devices.
std::unique_ptr<android::hardware::keymaster::V4_0::support::Keymaster> MakeSoftKeymaster(
    uint32_t level, const std::string& instance_name);

// Replaces the Keymaster clock (milliseconds, used for MIN_SECONDS_BETWEEN_OPS) with `now_ms`
// in this process; an empty function restores the clock since boot.
void SetKeymasterClock(std::function<uint64_t()> now_ms);

// OS version (MMmmpp) and patch level (YYYYMM) that new and upgraded keys are bound to, from
// ro.build.version.release and ro.build.version.security_patch as they read now.
uint32_t KeymasterOsVersion();
uint32_t KeymasterOsPatchlevel();

// Operations currently open, over all devices.
size_t KeymasterOpenOperations();

// Back to a fresh emulated hardware: closes every open operation, drops the rate-limit timers
// of the current device directory, restores the real clock and drops every fault, counter and
// device-list override.
// tests/support TempDeviceDir calls it before and after each test.
void ResetKeymaster();

}  // namespace tavikm_host

#endif  // TAVIKM_HOST_KEYMASTER_H_
