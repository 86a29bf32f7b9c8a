// SPDX-License-Identifier: Apache-2.0
// The checks behind RecordView: one bound per length field of a stored record.
#include "common/record_view.h"

#include <string.h>

namespace tavikm {

RecordView::RecordView(const km_meta* meta) : meta_(meta) {
  if (meta->keysize > kMaxRecordKeysize) broken_ |= kKeysize;
  if (meta->km_key_blob_size > KM_KEY_BLOB_CAPACITY) broken_ |= kKeyBlob;
  const size_t name = strnlen(meta->key_name, sizeof(meta->key_name));
  if (name == sizeof(meta->key_name)) broken_ |= kKeyName;
  key_name_length_ = static_cast<int>(name);
  if (meta->xtkm_value_size > kMaxRecordXtkmValueSize) broken_ |= kXtkmValue;
  if (meta->kek_mac_size > kMaxRecordKekMacSize) broken_ |= kKekMac;
  if (meta->mac_key_size > kMaxRecordMacKeySize) broken_ |= kMacKey;
}

}  // namespace tavikm

unsigned long km_key_blob_length(const km_meta* meta) {
  const tavikm::RecordView view(meta);
  return view.ok(tavikm::RecordView::kKeyBlob) ? view.key_blob_size() : 0;
}
