// SPDX-License-Identifier: Apache-2.0
// The library's own reading of a feature flag.
#ifndef TAVIKM_COMMON_FLAGS_H_
#define TAVIKM_COMMON_FLAGS_H_

// True exactly when the system property named `property` reads "true" (compared whole and
// case-sensitively). Read afresh at every call: nothing is cached.
bool km_flag_is_set(const char* property);

#endif  // TAVIKM_COMMON_FLAGS_H_
