// SPDX-License-Identifier: Apache-2.0
// Where the tool's passwords come from: a prompt without echo on a terminal, or the first line of
// a file (standard input for "-").
#ifndef TAVIKM_TOOLS_PASSWORD_H_
#define TAVIKM_TOOLS_PASSWORD_H_

#include <optional>
#include <string>

#include "secret.h"

namespace tavikm_tool {

// Reads a password from `file` when given, else prompts with `prompt` on the terminal. Several
// reads from "-" take successive lines of standard input. Throws a usage error when there is
// neither a file nor a terminal, and an input error (exit status 1) when the file cannot be
// opened or is empty.
Password ReadPassword(const std::optional<std::string>& file, const std::string& prompt);

// As ReadPassword, for a password being chosen: a prompt asks twice and the answers must match.
Password ReadNewPassword(const std::optional<std::string>& file, const std::string& prompt);

}  // namespace tavikm_tool

#endif  // TAVIKM_TOOLS_PASSWORD_H_
