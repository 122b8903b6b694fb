// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once
// The built-in panel, through its backlight (DisplayServices).

#include <cstdint>

#include "Lumora/DDC/DisplayBackend.h"

namespace Lumora {

class InternalBackend final : public DisplayBackend {
public:
    explicit InternalBackend(std::uint32_t displayID) : displayID_(displayID) {}

    bool canPowerOff() const override { return false; }
    std::optional<double> readBrightness() override;
    void writeBrightness(double fraction) override;
    void setPower(bool) override {}

    std::uint32_t displayID() const { return displayID_; }

private:
    std::uint32_t displayID_;
};

}  // namespace Lumora
