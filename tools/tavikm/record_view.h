// SPDX-License-Identifier: Apache-2.0
// `tavikm inspect`: every field of a stored record decoded, as text or as JSON, from the raw
// bytes, so a bad or older record shows as it is.
#ifndef TAVIKM_TOOLS_RECORD_VIEW_H_
#define TAVIKM_TOOLS_RECORD_VIEW_H_

#include <string>

#include "place.h"

namespace tavikm_tool {

std::string RecordText(const Place& place, const RawRecord& raw);
std::string RecordJson(const Place& place, const RawRecord& raw);

}  // namespace tavikm_tool

#endif  // TAVIKM_TOOLS_RECORD_VIEW_H_
