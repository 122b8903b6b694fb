#pragma once
// The lines the probe prints (each without its trailing line feed) and the brightness it is asked to set.

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>

namespace Lumora::ProbeReport {

// "Displays: 2  (IOAVService: true, DisplayServices: false)"
std::string header(std::size_t count, bool ioavAvailable, bool displayServicesAvailable);

// "• [2] Display 2 (external/DDC) brightness=73%"; the reading is a fraction shown as "%.0f%%" of its
// hundredfold, "n/a" when absent.
std::string displayLine(std::uint32_t id, const std::string& name, bool external, std::optional<double> reading);

// "    set 40%"
std::string setLine(int percent);

// The value of LUMORA_PROBE_SET as a percent clamped to 0...100. Absent for a null or empty value and for
// anything but an optional sign and decimal digits whose value fits a signed 64-bit integer.
std::optional<int> parseSetValue(const char* value);

}  // namespace Lumora::ProbeReport
