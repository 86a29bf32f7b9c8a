// SPDX-License-Identifier: Apache-2.0
// Host-only fault injection into the emulated Keymaster hardware, for tests: scripted answers
// for the nth call of any Keymaster 4.0 or legacy keymaster1 operation, devices that take
// update input in small pieces or not at all or claim to take more than they got, any list of
// devices, and counters of what the library called. Nothing in the library includes this
// header.
//
// Every device that support::Keymaster::enumerateAvailableDevices() returns passes its calls
// through this layer (devices from MakeSoftKeymaster() do not). Calls are counted per kind over
// all devices and all enumerations, since the library enumerates afresh for every call it
// serves. A scripted answer replaces the call: the device never sees it. When a scripted
// update or finish fails, the device's operation ends as a failed one would (it is aborted
// quietly, without counting or recording an abort).
//
// Everything here is process-wide and stays in force until ResetKeymaster() (tavikm_host/
// keymaster.h), which TempDeviceDir in tests/support calls before and after every test.
// The legacy module's lookup and open failures are tavikm_host/modules.h's FailModuleLookup /
// FailModuleOpen for class "keystore".
#ifndef TAVIKM_HOST_KEYMASTER_FAULTS_H_
#define TAVIKM_HOST_KEYMASTER_FAULTS_H_

#include <stddef.h>
#include <stdint.h>

#include <functional>
#include <string>
#include <vector>

#include <hardware/keymaster_defs.h>
#include <keymasterV4_0/Keymaster.h>

namespace tavikm_host {

// The calls of a Keymaster 4.0 device (IKeymasterDevice).
enum class KeymasterCall {
  kGetHardwareInfo,
  kImportKey,
  kGetKeyCharacteristics,
  kExportKey,
  kGenerateKey,
  kUpgradeKey,
  kDeleteKey,
  kBegin,
  kUpdate,
  kFinish,
  kAbort,
};

// The calls of the legacy "keystore" module and its keymaster1 device.
enum class LegacyKeymasterCall {
  kOpen,   // the module's methods->open
  kClose,  // the device's common.close
  kBegin,
  kUpdate,
  kFinish,
  kAbort,
};

// `nth` counts the calls of that kind made after the script is set: 1 is the next call, 2 the
// one after. kEveryCall makes every such call answer so.
inline constexpr int kEveryCall = 0;

// The nth `call` delivers `error` through its callback (deleteKey and abort: as its return
// value) with empty results and handle 0. For getHardwareInfo, which has no error code, use a
// transport failure. ErrorCode::OK scripts a success without results: for upgradeKey that is
// the HAL's answer for a key that needs no upgrade (OK and no new blob).
void FailKeymasterCall(KeymasterCall call, int nth,
                       android::hardware::keymaster::V4_0::ErrorCode error);

// The nth `call` fails in transport: its Return is not ok, its callback does not run, and its
// description() is android::hardware::Status::fromExceptionCode(
// Status::EX_TRANSACTION_FAILED, message).description(), i.e.
// "Status(EX_TRANSACTION_FAILED): '<message>'".
void FailKeymasterTransport(KeymasterCall call, int nth, const std::string& message);

// Every update, on the Keymaster 4.0 devices and on the legacy keymaster1 device alike, passes
// at most `bytes` of its input to the device, so the device takes and reports at most that much
// consumed. 0 makes every update take nothing, as a stalled device would; kWholeUpdates
// restores whole updates.
inline constexpr size_t kWholeUpdates = SIZE_MAX;
void SetKeymasterUpdateLimit(size_t bytes);

// SetKeymasterUpdateLimit(bytes), except that 0 restores whole updates.
void SetKeymasterUpdateChunk(size_t bytes);

// Every successful update reports `extra` bytes more consumed than it was given; 0 stops it.
void SetKeymasterUpdateOverReport(uint32_t extra);

// Replaces host.keymaster.devices: the devices listed, in this order, by security level (any
// number: 3 makes a device of an unknown level). An empty list means no device at all.
void SetKeymasterDeviceLevels(const std::vector<uint32_t>& levels);

// Replaces enumeration outright: the factory's devices are listed (still through this layer,
// so scripts and counters apply to them too). An empty function restores enumeration.
void SetKeymasterDeviceFactory(
    std::function<android::hardware::keymaster::V4_0::support::Keymaster::KeymasterSet()> factory);

// How many `call`s were made since the last reset, scripted ones included.
int KeymasterCallCount(KeymasterCall call);

// The handles passed to abort since the last reset, in call order.
std::vector<uint64_t> KeymasterAbortedHandles();

// The nth legacy `call` answers `error` (a keymaster_error_t; for kOpen a negative errno, and
// the open leaves no device behind). kClose cannot be scripted. A scripted update or finish
// also ends the operation, as the device does on any failure there.
void FailLegacyKeymasterCall(LegacyKeymasterCall call, int nth, int error);

// How many legacy `call`s were made since the last reset, scripted ones included.
int LegacyKeymasterCallCount(LegacyKeymasterCall call);

}  // namespace tavikm_host

#endif  // TAVIKM_HOST_KEYMASTER_FAULTS_H_
