// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once
// Which display a brightness key is about, and whether Lumora acts on it or leaves it to the desktop.
// Pure geometry: every coordinate is in one global space chosen by the caller; nothing is converted here.

#include <cstdint>
#include <optional>
#include <vector>

namespace Lumora {

struct Point {
    double x = 0, y = 0;
    bool operator==(const Point&) const = default;
};

struct Rect {
    double x = 0, y = 0, width = 0, height = 0;

    // Half-open: the minimum edges belong to the rectangle, the maximum edges (x + width, y + height) do not.
    bool contains(Point p) const;
    // Area of the intersection; rectangles that only touch, or do not meet, give 0.
    double overlapArea(const Rect& other) const;

    bool operator==(const Rect&) const = default;
};

struct TargetResolver {
    TargetResolver() = delete;

    struct Display {
        std::uint32_t id;
        Rect frame;
        bool isExternalDDC;  // an external monitor driven over DDC/CI: Lumora can change its brightness itself
        bool operator==(const Display&) const = default;
    };

    enum class Action {
        adjust,       // Lumora consumes the key and changes the display's brightness
        passThrough,  // the key goes on to the desktop's own handling
    };

    struct Decision {
        std::uint32_t displayID;
        Action action;
        bool operator==(const Decision&) const = default;
    };

    // The display that holds most of the focused window (the earliest on a tie); else the first display that
    // contains the cursor; else the first display. Absent only when there are no displays. The action follows
    // from the chosen display alone: adjust for an external DDC monitor, passThrough otherwise.
    static std::optional<Decision> resolve(const std::vector<Display>& displays,
                                           const std::optional<Rect>& focusedWindow, Point cursor);
};

}  // namespace Lumora
