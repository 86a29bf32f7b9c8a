// SPDX-License-Identifier: Apache-2.0
// Fuzz target: a secure-storage record of any length and content read through km_get_km_meta
// with the MDFPP flag set, older generations and their upgrade (with the write-back) included,
// on the software Keymaster.
//
// Input: flags (1 byte: bit 0 the CBC-only flag, bit 1 whether the old "<name>_kek" entry
// exists), the "<name>_kek" entry (1-byte length + bytes, read only when bit 1 is set), then the
// record as stored.
//
// Two bounds keep the inputs to records a caller can meet without harm:
// - a key_name too long for "<name>_kek" to fit the 256-byte entry name (252 bytes or more, or
//   no NUL before the record's end) makes the library abort on purpose, so the name is cut to
//   251 bytes;
// - a key_name that starts with '/' would make the upgrade's write-back a file write at that
//   absolute path (with the MDFPP flag, only such names leave secure storage), so its first
//   byte is changed.
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include <string>
#include <vector>

#include "fuzz_env.h"
#include "tavikm.h"

namespace {

constexpr char kRecordName[] = "fuzz_record";

constexpr size_t kMaxKeyName = 256 - sizeof("_kek");

void BoundKeyName(std::vector<uint8_t>* record) {
  const size_t at = offsetof(km_meta, key_name);
  if (record->size() <= at) return;
  // Bytes past a short record read as zeros, so only a stored byte can extend the name.
  const size_t cut = at + kMaxKeyName;
  if (record->size() > cut && !memchr(record->data() + at, 0, kMaxKeyName)) (*record)[cut] = 0;
  if ((*record)[at] == '/') (*record)[at] = '_';
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  tavikm_fuzz::InitFuzzDevice();
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  tavikm_fuzz::ResetFuzzDevice();
  tavikm_fuzz::Reader in(data, size);
  const uint8_t flags = in.U8();
  std::vector<uint8_t> kek;
  if (flags & 2) kek = in.Bytes(in.U8());
  std::vector<uint8_t> record = in.Rest();
  BoundKeyName(&record);

  tavikm_fuzz::SetFlag(supportMdfpp, true);
  tavikm_fuzz::SetFlag(supportCBConly, flags & 1);
  tavikm_fuzz::PutEntry(kRecordName, record.data(), record.size());
  if (flags & 2) {
    // Named as the library names it: "%s_kek" of the record's key_name, in 256 bytes.
    std::vector<uint8_t> padded(record);
    padded.resize(KM_META_SIZE + 1, 0);
    char name[256];
    snprintf(name, sizeof(name), "%s_kek",
             tavikm_fuzz::KeyNameOf(padded.data(), padded.size()).c_str());
    tavikm_fuzz::PutEntry(name, kek.data(), kek.size());
  }

  km_meta* meta = static_cast<km_meta*>(malloc(sizeof(km_meta)));
  const int rc = km_get_km_meta(kRecordName, 0, meta);
  // A record handed out is of the current generation, whatever was stored.
  if (rc == 0 && meta->major_version <= 2) abort();
  if (rc > 1) abort();
  free(meta);
  return 0;
}
