// SPDX-License-Identifier: GPL-3.0-or-later
#include "LumoraCore/ScreenMatching.h"

#include <algorithm>
#include <string_view>

namespace Lumora::ScreenMatching {
namespace {

std::string withoutDashes(std::string name)
{
    name.erase(std::remove(name.begin(), name.end(), '-'), name.end());
    return name;
}

bool edidFits(const EDIDIdentity& edid, const ScreenIdentity& screen)
{
    if (edid.productName.empty() || screen.model != edid.productName)
        return false;
    if (screen.serialNumber.empty() || (edid.serialText.empty() && edid.serial == 0))
        return true;
    return screen.serialNumber == edid.serialText || (edid.serial != 0 && screen.serialNumber == std::to_string(edid.serial));
}

}  // namespace

bool outputNameMatches(const std::string& connectorName, const std::string& outputName)
{
    if (connectorName.empty() || outputName.empty())
        return false;
    std::vector<std::string> spellings{connectorName};
    constexpr std::string_view hdmiA = "HDMI-A-";
    if (connectorName.rfind(hdmiA, 0) == 0)
        spellings.push_back("HDMI-" + connectorName.substr(hdmiA.size()));
    const std::size_t named = spellings.size();
    for (std::size_t i = 0; i < named; ++i)
        spellings.push_back(withoutDashes(spellings[i]));
    return std::find(spellings.begin(), spellings.end(), outputName) != spellings.end();
}

std::vector<std::optional<Rect>> framesFor(const std::vector<ConnectorIdentity>& connectors,
                                           const std::vector<ScreenIdentity>& screens)
{
    std::vector<std::optional<Rect>> frames(connectors.size());
    std::vector<bool> taken(screens.size(), false);

    for (std::size_t c = 0; c < connectors.size(); ++c) {
        for (std::size_t s = 0; s < screens.size(); ++s) {
            if (!taken[s] && outputNameMatches(connectors[c].connectorName, screens[s].name)) {
                frames[c] = screens[s].frame;
                taken[s] = true;
                break;
            }
        }
    }

    // By identity, for what the names left: only unambiguous pairs.
    const auto fits = [&](std::size_t c, std::size_t s) {
        return !frames[c] && !taken[s] && edidFits(connectors[c].edid, screens[s]);
    };
    std::vector<std::pair<std::size_t, std::size_t>> pairs;
    for (std::size_t c = 0; c < connectors.size(); ++c) {
        std::size_t candidates = 0, only = 0;
        for (std::size_t s = 0; s < screens.size(); ++s) {
            if (fits(c, s)) {
                ++candidates;
                only = s;
            }
        }
        if (candidates != 1)
            continue;
        std::size_t claimants = 0;
        for (std::size_t other = 0; other < connectors.size(); ++other)
            claimants += fits(other, only) ? 1 : 0;
        if (claimants == 1)
            pairs.emplace_back(c, only);
    }
    for (const auto& [c, s] : pairs) {
        frames[c] = screens[s].frame;
        taken[s] = true;
    }
    return frames;
}

}  // namespace Lumora::ScreenMatching
