// SPDX-License-Identifier: Apache-2.0
// The one way the library answers a Keymaster key bound to an older system: upgrade the key,
// store the record so the upgrade lasts, and call the Keymaster again.
#ifndef TAVIKM_COMMON_KEY_UPGRADE_H_
#define TAVIKM_COMMON_KEY_UPGRADE_H_

namespace tavikm {

// What the Keymaster services return for a key that must be upgraded before use.
inline constexpr int kKeyRequiresUpgrade = -2;
// Retry as often as the Keymaster asks for an upgrade.
inline constexpr int kAsOftenAsAsked = -1;

// Calls `attempt(false)`; each time it answers kKeyRequiresUpgrade, calls `upgrade()` (upgrade
// the key and store the record) and then `attempt(true)`, at most `retries` times. The first
// nonzero result of `upgrade` ends it and is returned; otherwise the last attempt's result.
template <typename Attempt, typename Upgrade>
int RetryAfterKeyUpgrade(int retries, Attempt&& attempt, Upgrade&& upgrade) {
  int rc = attempt(false);
  for (int done = 0; rc == kKeyRequiresUpgrade && done != retries; ++done) {
    if (int failed = upgrade(); failed != 0) return failed;
    rc = attempt(true);
  }
  return rc;
}

}  // namespace tavikm

#endif  // TAVIKM_COMMON_KEY_UPGRADE_H_
