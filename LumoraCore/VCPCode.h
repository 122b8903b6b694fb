// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once
// VCP feature codes of the monitor control command set that Lumora uses.

#include <cstdint>
#include <optional>

namespace Lumora {

class VCPCode {
public:
    enum Value : std::uint8_t {
        brightness = 0x10,   // read and written for every external display
        contrast = 0x12,     // declared, never sent
        audioVolume = 0x62,  // declared, never sent
        powerMode = 0xD6,    // written to put a display into standby and back
    };

    // Values written to the powerMode feature. 0x02 and 0x03 have no case.
    enum class PowerMode : std::uint8_t {
        on = 0x01,
        standby = 0x04,
        off = 0x05,  // declared, never written
    };

    constexpr VCPCode(Value value) : value_(value) {}

    // Absent for any raw value not in the table above.
    static std::optional<VCPCode> fromRawValue(std::uint8_t raw);
    static std::optional<PowerMode> powerModeFromRawValue(std::uint8_t raw);

    constexpr std::uint8_t rawValue() const { return value_; }
    constexpr operator Value() const { return value_; }

private:
    Value value_;
};

constexpr std::uint8_t rawValue(VCPCode::PowerMode mode) { return static_cast<std::uint8_t>(mode); }

}  // namespace Lumora
