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
    std::string message = "There is no display " + std::to_string(id);
    if (displays.empty()) {
        return message + "; no display is listed (yet).";
    }
    message += "; the displays are ";
    for (std::size_t i = 0; i < displays.size(); ++i) {
        if (i > 0) {
            message += ", ";
        }
        message += std::to_string(displays[i].first) + " (" + displays[i].second + ")";
    }
    return message + ".";
}

std::string cannotPowerOff(std::uint32_t id, const std::string& name)
{
    return "Display " + std::to_string(id) + " (" + name +
           ") has no standby: only external monitors driven over DDC/CI do.";
}

}  // namespace Lumora::BrightnessRequest
