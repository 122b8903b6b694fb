// SPDX-License-Identifier: GPL-3.0-or-later
#include "LumoraCore/TargetResolver.h"

#include <algorithm>

namespace Lumora {

bool Rect::contains(Point p) const
{
    return x <= p.x && p.x < x + width && y <= p.y && p.y < y + height;
}

double Rect::overlapArea(const Rect& other) const
{
    const double overlapWidth = std::min(x + width, other.x + other.width) - std::max(x, other.x);
    const double overlapHeight = std::min(y + height, other.y + other.height) - std::max(y, other.y);
    return std::max(0.0, overlapWidth) * std::max(0.0, overlapHeight);
}

namespace {

// The display that holds the largest positive part of the window; the earliest one among equals.
const TargetResolver::Display* displayWithMaxOverlap(const std::vector<TargetResolver::Display>& displays,
                                                     const Rect& window)
{
    const TargetResolver::Display* best = nullptr;
    double bestArea = 0;
    for (const auto& display : displays) {
        const double area = display.frame.overlapArea(window);
        if (!(area > 0))
            continue;
        if (best == nullptr || area > bestArea) {
            best = &display;
            bestArea = area;
        }
    }
    return best;
}

TargetResolver::Decision decideFor(const TargetResolver::Display& display)
{
    return {display.id,
            display.isExternalDDC ? TargetResolver::Action::adjust : TargetResolver::Action::passThrough};
}

}  // namespace

std::optional<TargetResolver::Decision> TargetResolver::resolve(const std::vector<Display>& displays,
                                                                const std::optional<Rect>& focusedWindow,
                                                                Point cursor)
{
    if (displays.empty())
        return std::nullopt;
    if (focusedWindow) {
        if (const Display* display = displayWithMaxOverlap(displays, *focusedWindow))
            return decideFor(*display);
    }
    for (const auto& display : displays) {
        if (display.frame.contains(cursor))
            return decideFor(display);
    }
    return decideFor(displays.front());
}

}  // namespace Lumora
