// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once
// The one interface through which a display's brightness is read and set and a monitor put into standby.
// Above the backends brightness is a fraction: 0.0 darkest, 1.0 brightest. `canPowerOff` marks an external
// monitor driven over DDC/CI. Backends are shared by every holder and are not safe for two threads at once.

#include <memory>
#include <optional>

namespace Lumora {

class DisplayBackend {
public:
    virtual ~DisplayBackend() = default;

    virtual bool canPowerOff() const = 0;
    // Blocks for the hardware; absent when the brightness cannot be read.
    virtual std::optional<double> readBrightness() = 0;
    // Blocks for the hardware; a failure goes unreported.
    virtual void writeBrightness(double fraction) = 0;
    // Standby (false) or on (true); nothing on a display that cannot power off.
    virtual void setPower(bool on) = 0;
    // Whether the display says it is on (true) or in standby or off (false); blocks for the hardware. Absent when
    // it cannot tell, which is always the case for a display that cannot power off. On Linux a monitor in standby
    // usually stays listed, so a refresh asks this of the monitors it holds in standby: one that says it is on
    // was woken by its own button.
    virtual std::optional<bool> readPower() { return std::nullopt; }
};

using DisplayBackendRef = std::shared_ptr<DisplayBackend>;

}  // namespace Lumora
