// SPDX-License-Identifier: Apache-2.0
// The emulated device's state directory and the host-only controls over the platform's caches.
// Nothing in the library includes this header; the tool and the tests do.
#ifndef TAVIKM_HOST_DEVICE_H_
#define TAVIKM_HOST_DEVICE_H_

#include <string>

namespace tavikm_host {

// $TAVIKM_DEVICE_DIR, else $XDG_STATE_HOME/tavikm/device, else ~/.local/state/tavikm/device.
// Created with mode 0700 (parents as needed) on first use. Throws std::runtime_error when it
// cannot be created.
std::string DeviceDir();

// A path inside the device directory, which is created first.
std::string DevicePath(const std::string& relative);

// Forgets the loaded build.prop and every property_set; the next access loads build.prop again
// (from whatever device directory is current then).
void ResetProperties();

}  // namespace tavikm_host

#endif  // TAVIKM_HOST_DEVICE_H_
