// SPDX-License-Identifier: GPL-3.0-or-later
#include "Lumora/DDC/DDCBackend.h"

#include <cmath>

namespace Lumora {

DDCBackend::DDCBackend(IOAVServiceRef service) : ddc_(std::move(service)) {}

DDCBackend::DDCBackend(DDCService ddc) : ddc_(std::move(ddc)) {}

std::optional<double> DDCBackend::readBrightness()
{
    std::optional<VCPReply> reply = ddc_.getVCP(VCPCode::brightness);
    if (!reply)
        return std::nullopt;
    // A monitor that reports a maximum of 0 is taken as maximum 1, so writes stay meaningful.
    std::uint16_t maximum = reply->max == 0 ? 1 : reply->max;
    maxValue_ = maximum;
    // Not clamped: a monitor reporting more than its maximum reads above 1.0.
    return static_cast<double>(reply->current) / maximum;
}

void DDCBackend::writeBrightness(double fraction)
{
    // Callers pass 0...1; anything else (or NaN) is held to that range rather than wrapped into 16 bits.
    if (!(fraction >= 0.0))
        fraction = 0.0;
    if (fraction > 1.0)
        fraction = 1.0;
    // std::round takes halves away from zero: 62.5 becomes 63.
    double raw = std::round(static_cast<double>(maxValue_) * fraction);
    ddc_.setVCP(VCPCode::brightness, static_cast<std::uint16_t>(raw));
}

void DDCBackend::setPower(bool on)
{
    ddc_.setVCP(VCPCode::powerMode, rawValue(on ? VCPCode::PowerMode::on : VCPCode::PowerMode::standby));
}

std::optional<bool> DDCBackend::readPower()
{
    std::optional<VCPReply> reply = ddc_.getVCP(VCPCode::powerMode);
    if (!reply)
        return std::nullopt;
    return reply->current == rawValue(VCPCode::PowerMode::on);
}

}  // namespace Lumora
