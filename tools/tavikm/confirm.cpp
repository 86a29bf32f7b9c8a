// SPDX-License-Identifier: Apache-2.0
// Asking before a command destroys a record or a KEK.
#include "confirm.h"

#include <stdio.h>
#include <unistd.h>

#include "cli.h"
#include "text.h"

namespace tavikm_tool {
namespace {

bool g_batch = false;

}  // namespace

bool Holds(const Place& place) {
  RawRecord raw = ReadRaw(place);
  return place.secure_storage ? raw.found : !raw.Empty();
}

void SetBatch(bool batch) { g_batch = batch; }

void ConfirmLoss(const std::string& loss) {
  if (g_batch || !isatty(STDIN_FILENO) || !isatty(STDERR_FILENO)) return;
  fprintf(stderr, "%s\nType yes to go on: ", TerminalText(loss).c_str());
  fflush(stderr);
  std::string answer;
  for (int c; (c = getchar()) != EOF && c != '\n';) {
    if (answer.size() < 16) answer += static_cast<char>(c);
  }
  if (answer != "yes") throw ToolError(kExitFailure, "not confirmed; nothing was changed");
}

}  // namespace tavikm_tool
