// SPDX-License-Identifier: Apache-2.0
// Opening the secure-storage device on behalf of one record call.
#ifndef TAVIKM_METADATA_KMSTORE_H_
#define TAVIKM_METADATA_KMSTORE_H_

#include "tavikm.h"

// What a call logs when the device cannot be opened.
inline constexpr char kKmstoreInitFailed[] = "TAVIKM kmstore could not be initialized;";
inline constexpr char kKmstoreInitFailedForDelete[] = "Failed to init kmstore device";

// Opens the device into `*device`. A failed open logs `init_failed` and returns the open's
// negative result; a null device logs "kmstore device is null.\nFailed to <what>" and returns
// -1. Otherwise returns the open's own (non-negative) result.
int km_open_kmstore(const char* init_failed, const char* what, kmstore_device** device);

#endif  // TAVIKM_METADATA_KMSTORE_H_
