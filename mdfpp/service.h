// SPDX-License-Identifier: Apache-2.0
// What the Keymaster services share: their two common messages, and the begin that waits out
// the key's rate limit.
#ifndef TAVIKM_MDFPP_SERVICE_H_
#define TAVIKM_MDFPP_SERVICE_H_

#include <string>

#include "keymaster/Keymaster.h"
#include "keymaster/stream_log.h"

// The caller's file and line, then ":Invalid argument", as one line.
#define KM_LOG_INVALID_ARGUMENT() \
  KM_STREAM_LOG(ERROR) << __FILE__ << ":" << __LINE__ << ":Invalid argument"

namespace tavikm {

inline void LogNoKeymasterSession() {
  KM_STREAM_LOG(ERROR) << "Failed to initiate keymaster session";
}

// A service's one line when its own containers could not allocate.
inline void LogServiceOutOfMemory() { KM_STREAM_LOG(ERROR) << "Out of memory for keymaster key"; }

// Begins the operation, sleeping `ratelimit` seconds before each new attempt for as long as the
// device answers KEY_RATE_LIMIT_EXCEEDED. Any other answer ends the loop.
android::mdfpp::KeymasterOperation BeginWaitingOutRateLimit(
    android::mdfpp::Keymaster& keymaster, android::mdfpp::km::KeyPurpose purpose,
    const std::string& key, const android::mdfpp::km::AuthorizationSet& params,
    unsigned int ratelimit);

}  // namespace tavikm

#endif  // TAVIKM_MDFPP_SERVICE_H_
