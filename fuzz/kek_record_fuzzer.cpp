// SPDX-License-Identifier: Apache-2.0
// Fuzz target: km_get_kek_enc_by_rek over a stored KEK record of any length and content, with
// the CBC-only flag set (legacy Keymaster path and kek mac) or not (Keymaster 4.0 object
// decryption, key upgrade and write-back included).
//
// Input: flags (1 byte: bit 0 the CBC-only flag), then the record as stored.
//
// The MDFPP flag is set and a key_name starting with '/' is changed: the upgrade writes the
// record back under its own key_name through km_put_km_meta, which would otherwise make that
// name a file path.
#include <stdint.h>
#include <stdlib.h>
#include <string.h>

#include <vector>

#include "fuzz_env.h"
#include "tavikm.h"

namespace {

constexpr char kKekName[] = "fuzz_kek";
constexpr size_t kKekCapacity = 64;

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  tavikm_fuzz::InitFuzzDevice();
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  tavikm_fuzz::ResetFuzzDevice();
  tavikm_fuzz::Reader in(data, size);
  const uint8_t flags = in.U8();
  std::vector<uint8_t> record = in.Rest();
  const size_t name_at = offsetof(km_meta, key_name);
  if (record.size() > name_at && record[name_at] == '/') record[name_at] = '_';

  tavikm_fuzz::SetFlag(supportMdfpp, true);
  tavikm_fuzz::SetFlag(supportCBConly, flags & 1);
  tavikm_fuzz::PutEntry(kKekName, record.data(), record.size());

  // Exactly the documented 64 bytes, on the heap, so that a longer copy is caught.
  uint8_t* kek = static_cast<uint8_t*>(malloc(kKekCapacity));
  uint64_t kek_len = 0;
  const int rc = km_get_kek_enc_by_rek(kKekName, kek, &kek_len);
  if (rc == 0 && kek_len > kKekCapacity) abort();
  if (rc > 1) abort();
  free(kek);
  return 0;
}
