// SPDX-License-Identifier: Apache-2.0
// The built-in secure-storage module (class "tavikm", device "kmstore") over the device
// directory's kmstore/ folder, and its host-only fault hook.
#ifndef TAVIKM_HOST_KMSTORE_H_
#define TAVIKM_HOST_KMSTORE_H_

#include <functional>
#include <string>

namespace tavikm_host {

// The file that holds the entry `name`: any string maps to a safe, distinct file name.
std::string KmstoreEntryFileName(const std::string& name);

// Called by a write after the temporary file is complete and before it is renamed into place;
// returning false makes the write fail there, as a crash or power cut at that point would.
// An empty function removes the hook.
void SetKmstoreBeforeRenameHook(std::function<bool(const std::string& name)> hook);

}  // namespace tavikm_host

#endif  // TAVIKM_HOST_KMSTORE_H_
