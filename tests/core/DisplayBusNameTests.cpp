// SPDX-License-Identifier: GPL-3.0-or-later
// Which adapters are display buses: names as real drivers give them.

#include <gtest/gtest.h>

#include "LumoraCore/DisplayBusName.h"

using namespace Lumora;

TEST(DisplayBusName, DisplayBusesByTheNamesRealDriversGive)
{
    const std::pair<const char*, bool> cases[] = {
        {"DPMST", true},
        {"NVIDIA i2c adapter 7 at 1:00.0", true},
        {"i915 gmbus dpb", true},
        {"AMDGPU DM i2c hw bus 1", true},
        {"AMDGPU DM aux hw bus 0", true},
        {"AMDGPU i2c bit bus 0x90", true},
        {"nvkm-0000:01:00.0-bus-0005", true},
        {"nvkm-0000:01:00.0-aux-0006", true},
        {"Radeon i2c bit bus 0x90", true},
        // Never display buses: the card's own EEPROMs and sensors, SMBus, other devices.
        {"AMDGPU SMU 0", false},
        {"NVIDIA GPU I2C adapter", false},
        {"SMBus I801 adapter at efa0", false},
        {"Synopsys DesignWare I2C adapter", false},
        {"AUX B/DDI B/PHY B", false},  // a connector's own AUX adapter: found through its connector, not by name
        {"DPMST2", false},
        {"dpmst", false},
        {"i915 gmbus ", false},
        {"NVIDIA i2c adapter", false},
        {"nvkm-0000:01:00.0-bus-", false},
        {"nvkm-bus-1", false},
        {"", false},
    };
    for (const auto& [name, display] : cases)
        EXPECT_EQ(DisplayBusName::isDisplayBus(name), display) << '"' << name << '"';
}
