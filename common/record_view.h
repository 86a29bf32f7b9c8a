// SPDX-License-Identifier: Apache-2.0
// The one checked view of a km_meta whose bytes came from storage: each length field the library
// acts on, and whether it stays within what the record (and the buffers its readers fill) can
// hold. Code that trusts a stored length or the stored key_name takes it from here and, when a
// field it needs is broken, fails with its own message before using it.
#ifndef TAVIKM_COMMON_RECORD_VIEW_H_
#define TAVIKM_COMMON_RECORD_VIEW_H_

#include <stddef.h>
#include <stdint.h>

#include "tavikm.h"

namespace tavikm {

// keysize: the master key, the password-derived key and the KEK all live in 64-byte buffers.
inline constexpr uint64_t kMaxRecordKeysize = 64;
// The MAC key's plain buffer.
inline constexpr uint64_t kMaxRecordMacKeySize = 64;
// The kek_mac field.
inline constexpr uint32_t kMaxRecordKekMacSize = sizeof(km_meta::kek_mac);
// xtkm_value_size counts bytes from xtkm_value on; they may run on, but not past the record.
inline constexpr uint64_t kMaxRecordXtkmValueSize = KM_META_SIZE - offsetof(km_meta, xtkm_value);

class RecordView {
 public:
  // One bit per checked field.
  enum Field : unsigned {
    kKeysize = 1u << 0,
    kKeyBlob = 1u << 1,    // km_key_blob_size <= 2048
    kKeyName = 1u << 2,    // a NUL within key_name's 256 bytes
    kXtkmValue = 1u << 3,  // xtkm_value_size
    kKekMac = 1u << 4,     // kek_mac_size
    kMacKey = 1u << 5,     // mac_key_size
    kEveryField = (1u << 6) - 1,
  };

  // Checks `meta` as it is now; a later change to the record is not seen.
  explicit RecordView(const km_meta* meta);

  // True when every field named in `fields` is within its bound.
  bool ok(unsigned fields = kEveryField) const { return (broken_ & fields) == 0; }

  // The lengths, to be used only when ok() for their field.
  size_t keysize() const { return static_cast<size_t>(meta_->keysize); }
  size_t key_blob_size() const { return static_cast<size_t>(meta_->km_key_blob_size); }
  size_t xtkm_value_size() const { return static_cast<size_t>(meta_->xtkm_value_size); }
  size_t mac_key_size() const { return static_cast<size_t>(meta_->mac_key_size); }

  // key_name for messages and names, "%.*s" with key_name_length(): up to its NUL, never past
  // the field, so usable even when the name is broken.
  int key_name_length() const { return key_name_length_; }
  const char* key_name() const { return meta_->key_name; }

 private:
  const km_meta* meta_;
  unsigned broken_ = 0;
  int key_name_length_ = 0;
};

}  // namespace tavikm

// The used length of the record's key blob; 0 (no key, which every Keymaster call refuses) when
// the stored size is more than the field holds, so a corrupt size never makes a Keymaster call
// read past the record.
unsigned long km_key_blob_length(const km_meta* meta);

#endif  // TAVIKM_COMMON_RECORD_VIEW_H_
