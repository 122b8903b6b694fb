// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once
// The kernel's input devices, read from sysfs without opening any of them: each event node with the device's name,
// its place in sysfs and the keys it reports. The key service takes the brightness keys of the real devices that
// report them (keyboards, consumer-control interfaces, the ACPI "Video Bus", vendor hotkey devices) and looks at
// Alt on every device that has it.

#include <string>
#include <vector>

#include "LumoraCore/KeyCapabilities.h"

namespace Lumora::Keys {

struct KeyDevice {
    std::string node;     // "/dev/input/event3"
    std::string syspath;  // the input device, "/sys/devices/platform/i8042/serio0/input/input3"
    std::string name;     // "AT Translated Set 2 keyboard"
    KeyCapabilities keys;
    bool isVirtual = false;  // made by a program through uinput (under /sys/devices/virtual): a twin, or another's
    std::string seat = "seat0";  // the seat udev assigned it to (ID_SEAT, of the device or the nearest parent)
};

namespace KeyDevices {

// Every event node under /sys/class/input whose device reports at least one key, in event-number order.
std::vector<KeyDevice> list();

}  // namespace KeyDevices
}  // namespace Lumora::Keys
