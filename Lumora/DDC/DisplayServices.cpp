// SPDX-License-Identifier: GPL-3.0-or-later
#include "Lumora/DDC/DisplayServices.h"

#include <cerrno>
#include <optional>

#include "Lumora/Platform/Linux/Backlight.h"

namespace Lumora {
namespace {

// The backlight found at first use, kept for the run; absent for good when there was none then.
// A function-local static: its one-time initialisation is safe when first uses race on several threads.
const std::optional<Platform::BacklightDevice>& boundDevice()
{
    static const std::optional<Platform::BacklightDevice> device = Platform::findBacklight();
    return device;
}

// `displayID` is not examined: there is one built-in panel and one backlight bound to it, and the enumerator
// hands only that panel's number to the internal backend.
std::int32_t getBrightness(std::uint32_t /*displayID*/, float* out)
{
    const auto& device = boundDevice();
    if (!device || out == nullptr)
        return ENODEV;
    std::optional<double> fraction = Platform::readBacklightFraction(*device);
    if (!fraction)
        return EIO;
    *out = static_cast<float>(*fraction);
    return 0;
}

// Takes the value as given; a value outside 0...1 (or not a number) is refused with EINVAL and nothing is
// written. Callers clamp first.
std::int32_t setBrightness(std::uint32_t /*displayID*/, float value)
{
    const auto& device = boundDevice();
    if (!device)
        return ENODEV;
    if (!(value >= 0.0f && value <= 1.0f))
        return EINVAL;
    return Platform::writeBacklight(*device, static_cast<double>(value)) == Platform::BacklightWrite::failed ? EIO : 0;
}

}  // namespace

DisplayServices::GetFn DisplayServices::getFn()
{
    return boundDevice() ? &getBrightness : nullptr;
}

DisplayServices::SetFn DisplayServices::setFn()
{
    return boundDevice() ? &setBrightness : nullptr;
}

}  // namespace Lumora
