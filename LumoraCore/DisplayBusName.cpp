// SPDX-License-Identifier: GPL-3.0-or-later
#include "LumoraCore/DisplayBusName.h"

namespace Lumora::DisplayBusName {

bool isDisplayBus(std::string_view name)
{
    if (name == "DPMST")
        return true;
    for (std::string_view prefix : {"i915 gmbus ", "AMDGPU DM i2c hw bus ", "AMDGPU DM aux hw bus ",
                                    "AMDGPU i2c hw bus ", "AMDGPU i2c bit bus ", "Radeon i2c hw bus ",
                                    "Radeon i2c bit bus "}) {
        if (name.starts_with(prefix) && name.size() > prefix.size())
            return true;
    }
    // "NVIDIA i2c adapter 7 at 1:00.0"; the GPU's USB-C controller bus, "NVIDIA GPU I2C adapter", is not one.
    constexpr std::string_view nvidia = "NVIDIA i2c adapter ";
    if (name.starts_with(nvidia) && name.find(" at ", nvidia.size()) != std::string_view::npos)
        return true;
    // nouveau: "nvkm-<device>-bus-<id>" and "nvkm-<device>-aux-<id>".
    if (name.starts_with("nvkm-")) {
        for (std::string_view kind : {"-bus-", "-aux-"}) {
            const std::size_t at = name.rfind(kind);
            if (at != std::string_view::npos && at > 5 && at + kind.size() < name.size())
                return true;
        }
    }
    return false;
}

}  // namespace Lumora::DisplayBusName
