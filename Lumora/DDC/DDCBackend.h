// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once
// An external monitor over DDC/CI: brightness as VCP 0x10 scaled by the monitor's own maximum, standby and wake
// as VCP 0xD6.

#include <cstdint>

#include "Lumora/DDC/DDCService.h"
#include "Lumora/DDC/DisplayBackend.h"

namespace Lumora {

class DDCBackend final : public DisplayBackend {
public:
    explicit DDCBackend(IOAVServiceRef service);
    explicit DDCBackend(DDCService ddc);

    bool canPowerOff() const override { return true; }
    std::optional<double> readBrightness() override;
    void writeBrightness(double fraction) override;
    void setPower(bool on) override;
    // Get VCP Feature of the power mode (0xD6): on when it reads 1.
    std::optional<bool> readPower() override;

    // The maximum the monitor last reported (never 0); 100 until the first successful read.
    std::uint16_t maxValue() const { return maxValue_; }

private:
    DDCService ddc_;
    std::uint16_t maxValue_ = 100;
};

}  // namespace Lumora
