// SPDX-License-Identifier: Apache-2.0
// A one-line status on the terminal while slow work runs: a key derivation that takes longer
// than half a second, and the waits the Keymaster's rate limit imposes. Nothing is shown when
// stderr is not a terminal, nor with -v (the library's lines go there).
#ifndef TAVIKM_TOOLS_PROGRESS_H_
#define TAVIKM_TOOLS_PROGRESS_H_

#include <string>

#include "tavikm.h"

namespace tavikm_tool {

// Called once by main: whether the status may be shown at all.
void EnableProgress(bool enabled);

// Shows "<what> ... 1.7 s" while it lives, once half a second has passed; the line is erased
// when it ends. It never takes more than the terminal's width: a wrapped line could not be
// redrawn in place. Scopes do not nest: an inner one is silent.
class Progress {
 public:
  explicit Progress(const std::string& what);
  ~Progress();
  // Replaces the text from the next redraw on (a share done, a new step).
  void Update(const std::string& what);
  Progress(const Progress&) = delete;
  Progress& operator=(const Progress&) = delete;

 private:
  bool owner_;
};

// "deriving the key: scrypt N=2^15 r=8 p=2" for a record's KDF and cost.
std::string Deriving(unsigned kdf_type, unsigned n_factor, unsigned r_factor, unsigned p_factor);
std::string Deriving(const km_meta& meta);
// The same for a record about to be set up with `kdf_type` (KM_KDF_DEFAULT: the library's
// choice) and the cost from ro.crypto.scrypt_params, read as the library reads it.
std::string SetupDeriving(uint32_t kdf_type);

}  // namespace tavikm_tool

#endif  // TAVIKM_TOOLS_PROGRESS_H_
