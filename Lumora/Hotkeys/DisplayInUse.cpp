#include "Lumora/Hotkeys/DisplayInUse.h"

#include <cstdint>
#include <unordered_set>

#include "Lumora/Platform/Linux/Desktop/Cursor.h"
#include "Lumora/Platform/Linux/Desktop/DisplayFrames.h"
#include "Lumora/Platform/Linux/Desktop/FocusedWindow.h"

namespace Lumora::DisplayInUse {
namespace {

// The active displays in the resolver's terms, in connector order.
std::vector<TargetResolver::Display> onlineDisplays(const std::vector<DisplaySnapshot>& snapshots)
{
    std::unordered_set<std::uint32_t> ddc;
    for (const DisplaySnapshot& snapshot : snapshots) {
        if (snapshot.canPowerOff)
            ddc.insert(snapshot.id);
    }
    std::vector<TargetResolver::Display> displays;
    for (const DisplayFrame& display : DisplayFrames::active())
        displays.push_back({display.id, display.frame, ddc.count(display.id) != 0});
    return displays;
}

}  // namespace

std::optional<TargetResolver::Decision> resolve(const std::vector<DisplaySnapshot>& displays)
{
    const std::vector<TargetResolver::Display> online = onlineDisplays(displays);
    if (online.empty())
        return std::nullopt;
    const std::optional<Rect> window = FocusedWindow::frame();
    // A pointer the window system does not tell about is taken to be at the origin.
    const Point cursor = Cursor::position().value_or(Point{0, 0});
    return TargetResolver::resolve(online, window, cursor);
}

}  // namespace Lumora::DisplayInUse
