// SPDX-License-Identifier: Apache-2.0
// The stream logger of the Keymaster client and the Keymaster services: libbase lines under the
// source name "Keymaster", whichever file writes them.
#ifndef TAVIKM_KEYMASTER_STREAM_LOG_H_
#define TAVIKM_KEYMASTER_STREAM_LOG_H_

#include <android-base/logging.h>

// KM_STREAM_LOG(ERROR) << "begin failed, code " << code;
#define KM_STREAM_LOG(severity)                                                              \
  ::android::base::LogMessage("Keymaster", __LINE__, ::android::base::severity, nullptr, -1) \
      .stream()

#endif  // TAVIKM_KEYMASTER_STREAM_LOG_H_
