// SPDX-License-Identifier: Apache-2.0
// Fault-injection state of the emulated Keymaster hardware.
#include "faults.h"

#include <map>
#include <mutex>
#include <utility>

namespace tavikm_host::km {
namespace {

using KeymasterSet = android::hardware::keymaster::V4_0::support::Keymaster::KeymasterSet;

// Scripts for one kind of call: by the call number they answer, or for every call.
template <typename Answer>
struct Scripts {
  int count = 0;
  std::multimap<int, Answer> by_number;
  std::optional<Answer> every;

  void Add(int nth, Answer answer) {
    if (nth == kEveryCall) {
      every = std::move(answer);
    } else {
      by_number.emplace(count + nth, std::move(answer));
    }
  }
  std::optional<Answer> Next() {
    ++count;
    auto it = by_number.find(count);
    if (it != by_number.end()) {
      Answer answer = std::move(it->second);
      by_number.erase(it);
      return answer;
    }
    return every;
  }
};

struct State {
  std::mutex mutex;
  std::map<KeymasterCall, Scripts<ScriptedAnswer>> calls;
  std::map<LegacyKeymasterCall, Scripts<int>> legacy_calls;
  size_t update_limit = kWholeUpdates;
  uint32_t update_over_report = 0;
  std::vector<uint64_t> aborted;
  std::optional<std::vector<uint32_t>> levels;
  std::function<KeymasterSet()> factory;
};

State& TheState() {
  static State* state = new State;
  return *state;
}

}  // namespace

std::optional<ScriptedAnswer> OnKeymasterCall(KeymasterCall call) {
  State& state = TheState();
  std::lock_guard<std::mutex> lock(state.mutex);
  return state.calls[call].Next();
}

std::optional<int> OnLegacyCall(LegacyKeymasterCall call) {
  State& state = TheState();
  std::lock_guard<std::mutex> lock(state.mutex);
  return state.legacy_calls[call].Next();
}

size_t UpdateLimit() {
  State& state = TheState();
  std::lock_guard<std::mutex> lock(state.mutex);
  return state.update_limit;
}

uint32_t UpdateOverReport() {
  State& state = TheState();
  std::lock_guard<std::mutex> lock(state.mutex);
  return state.update_over_report;
}

void RecordAbort(uint64_t handle) {
  State& state = TheState();
  std::lock_guard<std::mutex> lock(state.mutex);
  state.aborted.push_back(handle);
}

std::optional<std::vector<uint32_t>> DeviceLevelsOverride() {
  State& state = TheState();
  std::lock_guard<std::mutex> lock(state.mutex);
  return state.levels;
}

std::function<KeymasterSet()> DeviceFactory() {
  State& state = TheState();
  std::lock_guard<std::mutex> lock(state.mutex);
  return state.factory;
}

void ResetFaults() {
  State& state = TheState();
  std::lock_guard<std::mutex> lock(state.mutex);
  state.calls.clear();
  state.legacy_calls.clear();
  state.update_limit = kWholeUpdates;
  state.update_over_report = 0;
  state.aborted.clear();
  state.levels.reset();
  state.factory = nullptr;
}

}  // namespace tavikm_host::km

namespace tavikm_host {

using km::TheState;

void FailKeymasterCall(KeymasterCall call, int nth,
                       android::hardware::keymaster::V4_0::ErrorCode error) {
  km::ScriptedAnswer answer;
  answer.error = static_cast<int32_t>(error);
  std::lock_guard<std::mutex> lock(TheState().mutex);
  TheState().calls[call].Add(nth, answer);
}

void FailKeymasterTransport(KeymasterCall call, int nth, const std::string& message) {
  km::ScriptedAnswer answer;
  answer.transport_failure = true;
  answer.message = message;
  std::lock_guard<std::mutex> lock(TheState().mutex);
  TheState().calls[call].Add(nth, answer);
}

void SetKeymasterUpdateLimit(size_t bytes) {
  std::lock_guard<std::mutex> lock(TheState().mutex);
  TheState().update_limit = bytes;
}

void SetKeymasterUpdateChunk(size_t bytes) {
  SetKeymasterUpdateLimit(bytes ? bytes : kWholeUpdates);
}

void SetKeymasterUpdateOverReport(uint32_t extra) {
  std::lock_guard<std::mutex> lock(TheState().mutex);
  TheState().update_over_report = extra;
}

void SetKeymasterDeviceLevels(const std::vector<uint32_t>& levels) {
  std::lock_guard<std::mutex> lock(TheState().mutex);
  TheState().levels = levels;
}

void SetKeymasterDeviceFactory(
    std::function<android::hardware::keymaster::V4_0::support::Keymaster::KeymasterSet()> factory) {
  std::lock_guard<std::mutex> lock(TheState().mutex);
  TheState().factory = std::move(factory);
}

int KeymasterCallCount(KeymasterCall call) {
  std::lock_guard<std::mutex> lock(TheState().mutex);
  auto it = TheState().calls.find(call);
  return it == TheState().calls.end() ? 0 : it->second.count;
}

std::vector<uint64_t> KeymasterAbortedHandles() {
  std::lock_guard<std::mutex> lock(TheState().mutex);
  return TheState().aborted;
}

void FailLegacyKeymasterCall(LegacyKeymasterCall call, int nth, int error) {
  std::lock_guard<std::mutex> lock(TheState().mutex);
  TheState().legacy_calls[call].Add(nth, error);
}

int LegacyKeymasterCallCount(LegacyKeymasterCall call) {
  std::lock_guard<std::mutex> lock(TheState().mutex);
  auto it = TheState().legacy_calls.find(call);
  return it == TheState().legacy_calls.end() ? 0 : it->second.count;
}

}  // namespace tavikm_host
