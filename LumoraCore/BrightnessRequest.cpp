// SPDX-License-Identifier: GPL-3.0-or-later
#include "LumoraCore/BrightnessRequest.h"

#include <charconv>
#include <cmath>

namespace Lumora::BrightnessRequest {
namespace {

// The shortest text that reads back as the same double ("0.30000000000000004", "nan", "-inf").
std::string number(double value)
{
    char text[64];
    const auto written = std::to_chars(text, text + sizeof text, value);
    return std::string(text, written.ptr);
}

std::optional<Rejection> check(double value, double low, double high, const char* rule)
{
    if (!std::isfinite(value)) {
        return Rejection{Fault::notFinite, std::string(rule) + ", not " + number(value) + "."};
    }
    if (value < low || value > high) {
        return Rejection{Fault::outOfRange, std::string(rule) + ", not " + number(value) + "."};
    }
    return std::nullopt;
}

// "; the displays are 103 (DELL U2720Q), 95 (Built-in Display)."
std::string listing(const Listed& displays)
{
    if (displays.empty()) {
        return "; no display is listed (yet).";
    }
    std::string text = "; the displays are ";
    for (std::size_t i = 0; i < displays.size(); ++i) {
        if (i > 0) {
            text += ", ";
        }
        text += std::to_string(displays[i].first) + " (" + displays[i].second + ")";
    }
    return text + ".";
}

}  // namespace

std::optional<Rejection> checkFraction(double fraction)
{
    return check(fraction, minFraction, maxFraction, "The brightness must be a fraction from 0 to 1 (0.5 is 50 %)");
}

std::optional<Rejection> checkDelta(double delta)
{
    return check(delta, minDelta, maxDelta,
                 "A step must be a fraction from -1 to 1 (0.0625 is a sixteenth, as a brightness key steps)");
}

std::string unknownDisplay(std::uint32_t id, const Listed& displays)
{
    return "There is no display " + std::to_string(id) + listing(displays);
}

std::string cannotPowerOff(std::uint32_t id, const std::string& name)
{
    return "Display " + std::to_string(id) + " (" + name +
           ") has no standby: only external monitors driven over DDC/CI do.";
}

std::string noDisplayInUse()
{
    return "There is no display in use: no connected display is shown on the desktop.";
}

std::string notAdjustable(std::uint32_t id, const Listed& displays)
{
    return "Display " + std::to_string(id) + ", the display in use, is not one Lumora can adjust" + listing(displays);
}

}  // namespace Lumora::BrightnessRequest
