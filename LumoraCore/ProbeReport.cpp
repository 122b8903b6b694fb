// SPDX-License-Identifier: GPL-3.0-or-later
#include "LumoraCore/ProbeReport.h"

#include <algorithm>
#include <cstdio>
#include <limits>

namespace Lumora::ProbeReport {

namespace {

std::string percentText(double fraction)
{
    const double percent = fraction * 100;
    const int length = std::snprintf(nullptr, 0, "%.0f%%", percent);
    if (length <= 0)
        return {};
    std::string text(static_cast<std::size_t>(length) + 1, '\0');
    std::snprintf(text.data(), text.size(), "%.0f%%", percent);
    text.resize(static_cast<std::size_t>(length));
    return text;
}

}  // namespace

std::string header(std::size_t count, bool ioavAvailable, bool displayServicesAvailable)
{
    return "Displays: " + std::to_string(count) + "  (IOAVService: " + (ioavAvailable ? "true" : "false") +
           ", DisplayServices: " + (displayServicesAvailable ? "true" : "false") + ")";
}

std::string displayLine(std::uint32_t id, const std::string& name, bool external, std::optional<double> reading)
{
    return "\u2022 [" + std::to_string(id) + "] " + name + " (" + (external ? "external/DDC" : "internal") +
           ") brightness=" + (reading ? percentText(*reading) : std::string("n/a"));
}

std::string setLine(int percent)
{
    return "    set " + std::to_string(percent) + "%";
}

std::vector<std::string> notes(bool i2cDevLoaded, const std::vector<MissingMonitor>& missing)
{
    if (missing.empty())
        return {};
    if (!i2cDevLoaded)
        return {"Note: i2c-dev is not loaded, so no external monitor can be reached; load it with "
                "\"sudo modprobe i2c-dev\" (see \"Device access\" in Lumora's README)."};
    std::vector<std::string> lines;
    std::vector<std::string> deniedSeen;
    for (const MissingMonitor& monitor : missing) {
        if (monitor.deniedNodes.empty()) {
            lines.push_back("Note: no DDC channel found for " + monitor.connector +
                            " (connected); see \"Monitors that are not listed\" in Lumora's README.");
            continue;
        }
        for (const std::string& node : monitor.deniedNodes) {
            if (std::find(deniedSeen.begin(), deniedSeen.end(), node) != deniedSeen.end())
                continue;
            deniedSeen.push_back(node);
            lines.push_back("Note: no permission to open " + node + "; see \"Device access\" in Lumora's README.");
        }
    }
    return lines;
}

std::optional<int> parseSetValue(const char* value)
{
    if (value == nullptr || *value == '\0')
        return std::nullopt;
    const char* p = value;
    const bool negative = *p == '-';
    if (*p == '+' || *p == '-')
        ++p;
    if (*p == '\0')
        return std::nullopt;
    // The magnitude is gathered as unsigned so that the most negative 64-bit value still fits.
    const std::uint64_t limit = negative ? std::uint64_t{1} << 63 : std::uint64_t{std::numeric_limits<std::int64_t>::max()};
    std::uint64_t magnitude = 0;
    for (; *p != '\0'; ++p) {
        if (*p < '0' || *p > '9')
            return std::nullopt;
        const auto digit = static_cast<std::uint64_t>(*p - '0');
        if (magnitude > (limit - digit) / 10)
            return std::nullopt;
        magnitude = magnitude * 10 + digit;
    }
    if (negative)
        return 0;  // every negative value clamps to 0
    return magnitude > 100 ? 100 : static_cast<int>(magnitude);
}

}  // namespace Lumora::ProbeReport
