// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once
// The EDIDs of display buses that no connector owns, kept between enumerations. Reading one costs 256 bytes on the
// bus (about 30 ms at 100 kHz: on the virtual desk a refresh with two MST monitors takes 56 ms, with sixteen 460 ms;
// with the EDIDs kept, under 5 ms), and every opening of the panel refreshes. What answers on such a bus changes only when a monitor is plugged, unplugged or swapped,
// and the kernel shows that in the connectors (with a hot-plug uevent): the kept EDIDs are all dropped as soon as
// the connectors read differently (status, enabled, EDID, adapters) than when they were kept. Only EDIDs that were
// read are kept: a bus that gave none (nothing answers there, or another program kept it) is asked again next time.

#include <array>
#include <chrono>
#include <cstdint>
#include <optional>
#include <vector>

#include "Lumora/Platform/Linux/DisplayAdapters.h"
#include "Lumora/Platform/Linux/DrmConnectors.h"

namespace Lumora::Platform::EdidCache {

// The base block on `adapter`'s bus for this walk of `connectors`: the one kept, else read now (EdidEeprom,
// waiting for other programs until `deadline` at most). Safe to call from several threads.
std::optional<std::array<std::uint8_t, 128>> baseBlock(const std::vector<DrmConnector>& connectors,
                                                       const DisplayAdapter& adapter,
                                                       std::chrono::steady_clock::time_point deadline);

}  // namespace Lumora::Platform::EdidCache
