// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once
// The lines the probe prints (each without its trailing line feed) and the brightness it is asked to set.

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace Lumora::ProbeReport {

// "Displays: 2  (IOAVService: true, DisplayServices: false)"
std::string header(std::size_t count, bool ioavAvailable, bool displayServicesAvailable);

// "• [2] Display 2 (external/DDC) brightness=73%"; the reading is a fraction shown as "%.0f%%" of its
// hundredfold, "n/a" when absent.
std::string displayLine(std::uint32_t id, const std::string& name, bool external, std::optional<double> reading);

// "    set 40%"
std::string setLine(int percent);

// A connected, enabled monitor that the report leaves out, with the device nodes of the channels it could have
// been reached through that this user may not open (its own, or, without one, those no connector owns).
struct MissingMonitor {
    std::string connector;                 // "card0-DP-3"
    std::vector<std::string> deniedNodes;  // "/dev/i2c-7", ...
};

// The notes printed after the report, one line per reason a monitor is missing, nothing when none is:
// without i2c-dev that alone ("Note: i2c-dev is not loaded; ..."); otherwise, in the monitors' order, one
// "Note: no permission to open /dev/i2c-N; ..." per denied node (each node once), and "Note: no DDC channel found
// for card0-DP-3 (connected); ..." for a monitor with no denied node.
std::vector<std::string> notes(bool i2cDevLoaded, const std::vector<MissingMonitor>& missing);

// The value of LUMORA_PROBE_SET as a percent clamped to 0...100. Absent for a null or empty value and for
// anything but an optional sign and decimal digits whose value fits a signed 64-bit integer.
std::optional<int> parseSetValue(const char* value);

}  // namespace Lumora::ProbeReport
