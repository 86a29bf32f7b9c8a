// SPDX-License-Identifier: Apache-2.0
// The host platform's built-in hardware modules, one per class.
#ifndef TAVIKM_HOST_BUILTIN_MODULES_H_
#define TAVIKM_HOST_BUILTIN_MODULES_H_

#include <hardware/hardware.h>

namespace tavikm_host::internal {

// Class "tavikm": the secure-storage module with its device "kmstore".
const hw_module_t* KmstoreModule();

// Class "keystore": the legacy Keymaster module, or null when host.keystore.api_version says
// there is none.
const hw_module_t* KeystoreModule();

}  // namespace tavikm_host::internal

#endif  // TAVIKM_HOST_BUILTIN_MODULES_H_
