// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once
// Which I2C adapters are a graphics card's display buses, told by the names the kernel's graphics drivers give
// them. An allowlist: an adapter whose name is not on it is never taken for a display bus, wherever it sits, so
// SMBus controllers, amdgpu's "AMDGPU SMU" buses (which hold the card's RAS and FRU EEPROMs) and sensor buses are
// never opened.
//
// The names, and the udev rule data/60-lumora-i2c.rules, which grants the same adapters:
//   "DPMST"                                    a DisplayPort MST port (any driver)
//   "NVIDIA i2c adapter 7 at 1:00.0"           NVIDIA's proprietary driver
//   "i915 gmbus dpb", "i915 gmbus vga", ...    Intel
//   "AMDGPU DM i2c hw bus 1", "AMDGPU DM aux hw bus 0"             AMD with display core
//   "AMDGPU i2c hw bus 0x90", "AMDGPU i2c bit bus 0x90"            AMD without display core
//   "nvkm-0000:01:00.0-bus-0005", "nvkm-0000:01:00.0-aux-0006"     nouveau
//   "Radeon i2c hw bus 0x90", "Radeon i2c bit bus 0x90"            radeon

#include <string_view>

namespace Lumora::DisplayBusName {

bool isDisplayBus(std::string_view adapterName);

}  // namespace Lumora::DisplayBusName
