// SPDX-License-Identifier: GPL-3.0-or-later
#include "Lumora/Hotkeys/DisplayInUse.h"

#include <cstdint>
#include <unordered_set>

#include "Lumora/Platform/Linux/Desktop/DesktopInputs.h"
#include "Lumora/Platform/Linux/Desktop/DisplayFrames.h"

namespace Lumora::DisplayInUse {
namespace {

// The active displays in the resolver's terms, in connector order.
std::vector<TargetResolver::Display> onlineDisplays(const std::vector<DisplaySnapshot>& snapshots,
                                                    const std::vector<ScreenIdentity>& screens)
{
    std::unordered_set<std::uint32_t> ddc;
    for (const DisplaySnapshot& snapshot : snapshots) {
        if (snapshot.canPowerOff)
            ddc.insert(snapshot.id);
    }
    std::vector<TargetResolver::Display> displays;
    for (const DisplayFrame& display : DisplayFrames::active(screens))
        displays.push_back({display.id, display.frame, ddc.count(display.id) != 0});
    return displays;
}

}  // namespace

std::optional<TargetResolver::Decision> resolve(const std::vector<DisplaySnapshot>& displays)
{
    const DesktopView desktop = DesktopInputs::session().read();
    const std::vector<TargetResolver::Display> online = onlineDisplays(displays, desktop.screens);
    if (online.empty())
        return std::nullopt;
    // A pointer the desktop does not tell about (nor an active output stands for) is taken to be at the origin.
    return TargetResolver::resolve(online, desktop.focusedWindow, desktop.pointer.value_or(Point{0, 0}));
}

}  // namespace Lumora::DisplayInUse
