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

// Reads little-endian values front to back; past the end, everything reads as zero.
class Reader {
 public:
  Reader(const uint8_t* data, size_t size) : data_(data), size_(size) {}
  uint8_t U8();
  uint16_t U16();
  uint32_t U32();
  uint64_t U64();
  std::vector<uint8_t> Bytes(size_t n);
  std::vector<uint8_t> Rest();
  size_t remaining() const { return size_ - pos_; }

 private:
  uint64_t U64Bytes(int n);

  const uint8_t* data_;
  size_t size_;
  size_t pos_ = 0;
};

// The matching writer, for the seed generator.
class Writer {
 public:
  Writer& U8(uint8_t v) { return Le(v, 1); }
  Writer& U16(uint16_t v) { return Le(v, 2); }
  Writer& U32(uint32_t v) { return Le(v, 4); }
  Writer& U64(uint64_t v) { return Le(v, 8); }
  Writer& Bytes(const void* p, size_t n);
  Writer& Bytes(const std::vector<uint8_t>& v) { return Bytes(v.data(), v.size()); }
  const std::vector<uint8_t>& data() const { return data_; }

 private:
  Writer& Le(uint64_t v, int n);
  std::vector<uint8_t> data_;
};

}  // namespace tavikm_fuzz

#endif  // TAVIKM_FUZZ_FUZZ_ENV_H_
