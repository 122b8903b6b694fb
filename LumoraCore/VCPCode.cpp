// SPDX-License-Identifier: GPL-3.0-or-later
#include "LumoraCore/VCPCode.h"

namespace Lumora {

std::optional<VCPCode> VCPCode::fromRawValue(std::uint8_t raw)
{
    switch (raw) {
    case brightness:
        return VCPCode(brightness);
    case contrast:
        return VCPCode(contrast);
    case audioVolume:
        return VCPCode(audioVolume);
    case powerMode:
        return VCPCode(powerMode);
    default:
        return std::nullopt;
    }
}

std::optional<VCPCode::PowerMode> VCPCode::powerModeFromRawValue(std::uint8_t raw)
{
    switch (raw) {
    case static_cast<std::uint8_t>(PowerMode::on):
        return PowerMode::on;
    case static_cast<std::uint8_t>(PowerMode::standby):
        return PowerMode::standby;
    case static_cast<std::uint8_t>(PowerMode::off):
        return PowerMode::off;
    default:
        return std::nullopt;  // 0x02 and 0x03 included: no case of ours
    }
}

}  // namespace Lumora
