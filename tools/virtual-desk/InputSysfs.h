// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once
// The sysfs records (umockdev's text form) of an input device and its evdev node.
#include "tools/virtual-desk/EmulatedKeyboard.h"

#include <string>
#include <vector>

namespace VirtualDesk {

// "input:b0011v0001p0001eAB83-e0,1,4,11,14,k71,...,ram4,l0,1,2,sfw", as the kernel's MODALIAS.
std::string modalias(const InputIdentity& id, const InputCapabilities& caps);
// inputK at `inputDevpath` (without /sys) and its child eventN (dev 13:64+N, DEVNAME=/dev/input/eventN). The node
// itself is the desk's (DevNode); umockdev makes no node for these records. `hasParent`: inputK gets a `device`
// link to the device above it (a uinput device has none).
std::string inputRecords(const std::string& inputDevpath, int event, const InputIdentity& id,
                         const InputCapabilities& caps, const std::vector<std::string>& udevProperties, bool hasParent);

} // namespace VirtualDesk
