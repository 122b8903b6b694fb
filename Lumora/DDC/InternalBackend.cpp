// SPDX-License-Identifier: GPL-3.0-or-later
#include "Lumora/DDC/InternalBackend.h"

#include "Lumora/DDC/DisplayServices.h"

namespace Lumora {

std::optional<double> InternalBackend::readBrightness()
{
    DisplayServices::GetFn get = DisplayServices::getFn();
    if (get == nullptr)
        return std::nullopt;
    float value = 0.0f;
    if (get(displayID_, &value) != 0)
        return std::nullopt;
    // Widened, not clamped: a driver reporting more than its maximum reads above 1.0.
    return static_cast<double>(value);
}

void InternalBackend::writeBrightness(double fraction)
{
    DisplayServices::SetFn set = DisplayServices::setFn();
    if (set == nullptr)
        return;
    double clamped = fraction;
    if (fraction > 1.0)
        clamped = 1.0;
    if (fraction <= 0.0)
        clamped = 0.0;
    // A failed write goes unreported.
    set(displayID_, static_cast<float>(clamped));
}

}  // namespace Lumora
