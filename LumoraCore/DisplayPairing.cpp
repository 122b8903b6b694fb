// SPDX-License-Identifier: GPL-3.0-or-later
#include "LumoraCore/DisplayPairing.h"

#include <algorithm>
#include <cstdio>

namespace Lumora::DisplayPairing {

namespace {

std::string upperASCII(std::string text)
{
    for (char& c : text) {
        if (c >= 'a' && c <= 'z')
            c = static_cast<char>(c - 'a' + 'A');
    }
    return text;
}

std::string hex(const char* format, unsigned a, unsigned b = 0)
{
    char buffer[32];
    std::snprintf(buffer, sizeof buffer, format, a, b);
    return buffer;
}

}  // namespace

int score(const ExternalDisplayIdentity& display, const ServiceIdentity& service)
{
    const std::string uuid = upperASCII(service.edidUUID);
    if (uuid.empty())
        return 0;
    int points = 0;
    if (uuid.starts_with(hex("%04X", display.vendor)))
        points += 2;
    // The UUID carries the product code as it sits in the EDID: low byte first.
    if (uuid.size() >= 8 && uuid.compare(4, 4, hex("%02X%02X", display.model & 0xFF, (display.model >> 8) & 0xFF)) == 0)
        points += 2;
    if (display.serial != 0 && service.serialNumber == static_cast<std::int64_t>(display.serial))
        points += 1;
    return points;
}

bool sameBaseBlock(const ExternalDisplayIdentity& display, const ServiceIdentity& service)
{
    constexpr std::size_t size = 128;
    return display.baseBlock.size() >= size && service.baseBlock.size() >= size &&
           std::equal(display.baseBlock.begin(), display.baseBlock.begin() + size, service.baseBlock.begin());
}

std::vector<Pair> pair(const std::vector<ExternalDisplayIdentity>& displays,
                       const std::vector<ServiceIdentity>& services)
{
    // One display and one service can only belong together, whatever their identities say.
    if (displays.size() == 1 && services.size() == 1)
        return {Pair{0, 0}};

    std::vector<Pair> result;
    std::vector<bool> used(services.size(), false);
    for (std::size_t d = 0; d < displays.size(); ++d) {
        std::size_t bestService = 0;
        int bestScore = 0;
        bool bestIsTwin = false;
        for (std::size_t s = 0; s < services.size(); ++s) {
            if (used[s])
                continue;
            const int points = score(displays[d], services[s]);
            if (points < bestScore || points == 0)
                continue;
            const bool twin = sameBaseBlock(displays[d], services[s]);
            if (points > bestScore || (twin && !bestIsTwin)) {
                bestService = s;
                bestScore = points;
                bestIsTwin = twin;
            }
        }
        if (bestScore > 0) {
            used[bestService] = true;
            result.push_back({d, bestService});
        }
    }
    return result;
}

std::vector<ChannelChoice> assignChannels(const std::vector<ExternalDisplay>& displays,
                                          const std::vector<ServiceIdentity>& unownedChannels)
{
    std::vector<std::size_t> withoutChannel;
    std::vector<ExternalDisplayIdentity> remainder;
    for (std::size_t d = 0; d < displays.size(); ++d) {
        if (!displays[d].ownChannel) {
            withoutChannel.push_back(d);
            remainder.push_back(displays[d].identity);
        }
    }
    std::vector<std::optional<std::size_t>> unowned(displays.size());
    for (const Pair& p : pair(remainder, unownedChannels))
        unowned[withoutChannel[p.display]] = p.service;

    std::vector<ChannelChoice> result;
    for (std::size_t d = 0; d < displays.size(); ++d) {
        if (displays[d].ownChannel)
            result.push_back({d, std::nullopt});
        else if (unowned[d])
            result.push_back({d, unowned[d]});
    }
    return result;
}

std::string displayName(std::uint32_t id, const std::string& productName)
{
    return productName.empty() ? "Display " + std::to_string(id) : productName;
}

}  // namespace Lumora::DisplayPairing
