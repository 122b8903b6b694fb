// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once
// One row of the panel: a display as the controller shows it.

#include <cstdint>
#include <string>

namespace Lumora {

struct DisplaySnapshot {
    std::uint32_t id = 0;      // the display number; the snapshot's identity
    std::string name;          // as enumeration gave it
    double brightness = 1.0;   // shown fraction: from the last hardware read, or the last request
    bool isOn = true;          // false while the controller holds the monitor in standby
    bool canPowerOff = false;  // true for an external monitor driven over DDC/CI

    bool operator==(const DisplaySnapshot&) const = default;
};

}  // namespace Lumora
