// SPDX-License-Identifier: GPL-3.0-or-later
#include "Lumora/Platform/Linux/EdidCache.h"

#include <map>
#include <mutex>
#include <string>
#include <tuple>

#include "Lumora/Platform/Linux/EdidEeprom.h"

namespace Lumora::Platform::EdidCache {
namespace {

// What of a connector tells that a monitor came, went or was swapped.
auto stateOf(const DrmConnector& c)
{
    return std::tie(c.name, c.connected, c.enabled, c.edid, c.ownedAdapters);
}

bool sameConnectors(const std::vector<DrmConnector>& a, const std::vector<DrmConnector>& b)
{
    return std::equal(a.begin(), a.end(), b.begin(), b.end(),
                      [](const DrmConnector& x, const DrmConnector& y) { return stateOf(x) == stateOf(y); });
}

std::mutex mutex;
std::vector<DrmConnector> keptFor;  // the connectors as they read when the kept EDIDs were read
std::map<std::string, std::array<std::uint8_t, 128>> kept;  // by device node

}  // namespace

std::optional<std::array<std::uint8_t, 128>> baseBlock(const std::vector<DrmConnector>& connectors,
                                                       const DisplayAdapter& adapter,
                                                       std::chrono::steady_clock::time_point deadline)
{
    {
        std::lock_guard<std::mutex> hold(mutex);
        if (!sameConnectors(connectors, keptFor)) {
            kept.clear();
            keptFor = connectors;
        }
        if (auto found = kept.find(adapter.devicePath); found != kept.end())
            return found->second;
    }
    // Read without the lock: a read takes tens of milliseconds, and the probe may read while a refresh does.
    std::optional<std::array<std::uint8_t, 128>> block = EdidEeprom::readBaseBlock(adapter.devicePath, deadline);
    if (block) {
        std::lock_guard<std::mutex> hold(mutex);
        if (sameConnectors(connectors, keptFor))
            kept[adapter.devicePath] = *block;
    }
    return block;
}

}  // namespace Lumora::Platform::EdidCache
