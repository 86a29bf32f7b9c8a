// SPDX-License-Identifier: Apache-2.0
// What every fuzz target shares: a throwaway emulated device (never the user's home) with a fixed
// Keymaster device secret, so the key blobs in the seed corpora open; quiet logs; a reset of the
// device between inputs; and a reader/writer for the targets' little binary input layouts.
#ifndef TAVIKM_FUZZ_FUZZ_ENV_H_
#define TAVIKM_FUZZ_FUZZ_ENV_H_

#include <stddef.h>
#include <stdint.h>

#include <string>
#include <vector>

#include "common/le_codec.h"

namespace tavikm_fuzz {

// Points TAVIKM_DEVICE_DIR at a new temporary folder (removed at exit), installs the fixed device
// secret and silences liblog/libbase (unless TAVIKM_FUZZ_LOG=1). Call once, from
// LLVMFuzzerInitialize or a seed generator's main.
void InitFuzzDevice();

// The device directory chosen by InitFuzzDevice.
const std::string& FuzzDeviceDir();

// Between inputs: empties secure storage, forgets properties and every Keymaster operation,
// rate-limit history and deleted key, and gives the Keymaster a clock that moves an hour per
// reading so that no input waits for a key's rate limit.
void ResetFuzzDevice();

// Sets a feature flag property ("true" or "false").
void SetFlag(const char* property, bool on);

// Stores `data` as the secure-storage entry `name` through the library's kmstore device.
void PutEntry(const std::string& name, const uint8_t* data, size_t size);

// A NUL-terminated view of a record's key_name as the library formats it: the bytes from
// key_name up to the first NUL inside `image` (a whole record image of `size` bytes).
std::string KeyNameOf(const uint8_t* image, size_t size);

// Reads little-endian values front to back; past the end, everything reads as zero (a fuzz
// input's short tail is an input like any other, not an error).
class Reader {
 public:
  Reader(const uint8_t* data, size_t size) : in_(data, size) {}
  uint8_t U8() { return static_cast<uint8_t>(in_.PartialLe(1)); }
  uint16_t U16() { return static_cast<uint16_t>(in_.PartialLe(2)); }
  uint32_t U32() { return static_cast<uint32_t>(in_.PartialLe(4)); }
  uint64_t U64() { return in_.PartialLe(8); }
  std::vector<uint8_t> Bytes(size_t n);
  std::vector<uint8_t> Rest() { return Bytes(remaining()); }
  size_t remaining() const { return in_.remaining(); }

 private:
  tavikm::LeReader in_;
};

// The matching writer, for the seed generator.
class Writer {
 public:
  Writer& U8(uint8_t v) { return Did(Out().U8(v)); }
  Writer& U16(uint16_t v) { return Did(Out().U16(v)); }
  Writer& U32(uint32_t v) { return Did(Out().U32(v)); }
  Writer& U64(uint64_t v) { return Did(Out().U64(v)); }
  Writer& Bytes(const void* p, size_t n) { return Did(Out().Bytes(p, n)); }
  Writer& Bytes(const std::vector<uint8_t>& v) { return Bytes(v.data(), v.size()); }
  const std::vector<uint8_t>& data() const { return data_; }

 private:
  tavikm::LeWriter Out() { return tavikm::LeWriter(&data_); }
  Writer& Did(const tavikm::LeWriter&) { return *this; }
  std::vector<uint8_t> data_;
};

}  // namespace tavikm_fuzz

#endif  // TAVIKM_FUZZ_FUZZ_ENV_H_
