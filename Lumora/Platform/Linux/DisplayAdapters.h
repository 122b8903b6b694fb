// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once
// Display I2C adapters that no connector owns: the DDC channels of monitors whose connector shows no link to
// its channel. DisplayPort MST ports ("DPMST": on kernels such as 6.1 the kernel parents an MST port's adapter
// to the GPU's PCI device and its connector has no `ddc` link) and every monitor on NVIDIA's proprietary driver
// ("NVIDIA i2c adapter N at ...") are reached only this way.
//
// The search reads sysfs only and opens nothing: for each DRM card, the i2c-N adapters that are direct children
// of the card's parent device (the GPU; /sys/class/drm/cardN/device), as the kernel lays them out, whose name is
// on the display-bus allowlist (LumoraCore/DisplayBusName.h) and which no connector owns (its `ddc` link or an
// i2c-N child). SMBus controllers, amdgpu's SMU buses and sensor buses are never on the list.

#include <string>
#include <vector>

#include "Lumora/Platform/Linux/DrmConnectors.h"

namespace Lumora::Platform {

struct DisplayAdapter {
    unsigned card = 0;       // the card whose GPU the adapter sits under
    std::string adapter;     // "i2c-7"
    std::string name;        // "DPMST"
    std::string devicePath;  // "/dev/i2c-7"
};

namespace DisplayAdapters {

// By card, then by adapter number. `connectors` is the connector walk whose adapters count as owned.
std::vector<DisplayAdapter> unowned(const std::vector<DrmConnector>& connectors);

}  // namespace DisplayAdapters
}  // namespace Lumora::Platform
