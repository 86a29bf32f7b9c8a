// SPDX-License-Identifier: Apache-2.0
// Keeping secrets out of core dumps: the process-wide settings made at start, and the pages the
// tool's password and key buffers live in.
#ifndef TAVIKM_TOOLS_SECURE_MEMORY_H_
#define TAVIKM_TOOLS_SECURE_MEMORY_H_

#include <stddef.h>

namespace tavikm_tool {

// Sets RLIMIT_CORE to 0 and makes the process non-dumpable (no core file, no ptrace attach by
// other users, /proc/PID/mem closed to them). Called first thing in main.
void HardenProcess();

// Zeroed memory of `size` bytes on pages of its own, marked MADV_DONTDUMP and locked in memory
// where the limit allows. Throws std::bad_alloc when no page can be mapped.
void* AllocateSecretMemory(size_t size);

// Wipes and unmaps memory from AllocateSecretMemory(`size`).
void FreeSecretMemory(void* memory, size_t size);

}  // namespace tavikm_tool

#endif  // TAVIKM_TOOLS_SECURE_MEMORY_H_
