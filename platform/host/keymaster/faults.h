// SPDX-License-Identifier: Apache-2.0
// The fault-injection state behind tavikm_host/keymaster_faults.h, as the device layers see it.
#ifndef TAVIKM_HOST_KEYMASTER_FAULTS_INTERNAL_H_
#define TAVIKM_HOST_KEYMASTER_FAULTS_INTERNAL_H_

#include <stddef.h>
#include <stdint.h>

#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "tavikm_host/keymaster_faults.h"

namespace tavikm_host::km {

struct ScriptedAnswer {
  bool transport_failure = false;
  int32_t error = 0;
  std::string message;
};

// Counts a call and returns the answer scripted for it, if any.
std::optional<ScriptedAnswer> OnKeymasterCall(KeymasterCall call);
std::optional<int> OnLegacyCall(LegacyKeymasterCall call);

// How much of its input an update may pass to a device (SIZE_MAX: all of it).
size_t UpdateLimit();
uint32_t UpdateOverReport();
void RecordAbort(uint64_t handle);

std::optional<std::vector<uint32_t>> DeviceLevelsOverride();
std::function<android::hardware::keymaster::V4_0::support::Keymaster::KeymasterSet()>
DeviceFactory();

void ResetFaults();

}  // namespace tavikm_host::km

#endif  // TAVIKM_HOST_KEYMASTER_FAULTS_INTERNAL_H_
