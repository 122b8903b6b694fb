// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once
// What a keyboard of each kind looks like to the system: its identity, capabilities and scan codes, and where it
// sits in sysfs (the i8042 port, a USB interface, the ACPI video device).
#include "tools/virtual-desk/EmulatedKeyboard.h"
#include "tools/virtual-desk/VirtualDesk.h"

#include <string>
#include <string_view>
#include <vector>

namespace VirtualDesk {

enum class ScanCodes { None, AtKeyboard, UsbKeyboard, UsbConsumer };

struct ParentDevice {
    std::string devpath;  // without /sys: "/devices/platform/i8042/serio0"
    std::string record;   // its umockdev record, "P: ...\nE: SUBSYSTEM=serio\n..."
};

struct KeyboardModel {
    InputIdentity identity;
    InputCapabilities caps;
    ScanCodes scan = ScanCodes::None;
    std::vector<ParentDevice> parents;       // outermost first; the input device hangs under the last one
    std::vector<std::string> udevProperties; // "ID_INPUT=1", ... as udev's input_id sets them
};

bool isKeyboardKind(std::string_view kind); // "laptop", "plain", "consumer", "videoBus"
// The model of a keyboard. `unit` tells keyboards of one bus apart (the i8042 port, the USB port, the ACPI
// device); a "plain" keyboard and a "consumer" one of the same unit are two interfaces of one USB keyboard.
// Throws std::invalid_argument for an unknown kind.
KeyboardModel keyboardModel(const KeyboardConfig& keyboard, int unit);
int scanCode(ScanCodes scan, int key); // the MSC_SCAN value sent with the key

} // namespace VirtualDesk
