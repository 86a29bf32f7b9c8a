// SPDX-License-Identifier: Apache-2.0
// Asking before a command destroys a record or a KEK.
#ifndef TAVIKM_TOOLS_CONFIRM_H_
#define TAVIKM_TOOLS_CONFIRM_H_

#include <string>

#include "place.h"

namespace tavikm_tool {

// True when `place` holds something a write there destroys: an entry, or non-zero bytes where a
// file record goes.
bool Holds(const Place& place);

// --batch / -q: never ask.
void SetBatch(bool batch);

// On a terminal (standard input and error both), says `loss` and asks for "yes"; anything else
// ends the command with nothing changed. Without a terminal, or in batch mode, it returns at once,
// so scripts behave as they always have.
void ConfirmLoss(const std::string& loss);

}  // namespace tavikm_tool

#endif  // TAVIKM_TOOLS_CONFIRM_H_
