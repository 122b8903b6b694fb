// SPDX-License-Identifier: GPL-3.0-or-later
// Where the panel opens: 6 points below an item in the upper half of its screen, 6 above one in the lower half,
// centred on it and kept inside the screen; at the cursor when the tray gives no geometry.

#include <gtest/gtest.h>

#include <optional>
#include <vector>

#include "Lumora/App/HostPoint.h"
#include "Lumora/App/PanelPlacement.h"

using Lumora::PanelPlacement::origin;

TEST(PanelPlacement, Origins)
{
    const QRect hd(0, 0, 1920, 1080);
    const struct { const char* what; QRect anchor; QSize panel; QRect screen; QPoint at; } cases[] = {
        // The item's window at x 1000 ... 1024, y 1055 ... 1079 counted from the bottom: (862, 869) counted so.
        {"top panel", {1000, 1, 24, 24}, {300, 180}, hd, {862, 1080 - 869 - 180}},
        {"bottom panel", {1000, 1050, 24, 24}, {300, 180}, hd, {862, 1050 - 6 - 180}},
        {"left edge", {2, 1, 22, 22}, {300, 140}, {0, 0, 1280, 800}, {0, 29}},
        {"second screen, top", {3180, 2, 20, 20}, {300, 140}, {1920, 0, 1280, 1024}, {3200 - 300, 28}},
        {"second screen, bottom", {1921, 1000, 20, 20}, {300, 140}, {1920, 0, 1280, 1024}, {1920, 1000 - 6 - 140}},
        {"cursor near the bottom", {600, 1070, 0, 0}, {300, 200}, hd, {450, 1070 - 6 - 200}},
        {"wider than the screen", {100, 0, 20, 20}, {300, 100}, {50, 0, 200, 600}, {50, 26}},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.what);
        EXPECT_EQ(origin(c.anchor, c.panel, c.screen), c.at);
    }
}

// The tallest panel that still ends inside the free part of the screen, a gap short of its edge, on the side of
// the item it opens on: the room below an item on a top panel, above one on a bottom panel.
TEST(PanelPlacement, MaximumHeightKeepsThePanelInsideTheFreePartOfItsScreen)
{
    const QRect small(0, 0, 1280, 800);
    const struct { const char* what; QRect anchor; QRect screen; QRect available; int height; } cases[] = {
        {"top tray, strut of 24", {1257, 1, 22, 22}, small, {0, 24, 1280, 776}, 800 - 6 - (23 + 6)},
        {"bottom panel of 40", {1200, 765, 24, 24}, small, {0, 0, 1280, 760}, 765 - 6 - 6},
        {"cursor near the top, no panels", {600, 12, 0, 0}, small, small, 800 - 6 - 18},
        {"cursor near the bottom, a top bar", {600, 700, 0, 0}, small, {0, 32, 1280, 768}, 700 - 6 - 32 - 6},
        {"second screen below the first", {2000, 1090, 20, 20}, {1920, 1080, 1280, 1024}, {1920, 1080, 1280, 1024},
         2104 - 6 - 1116},
        {"no room at all below", {0, 380, 10, 10}, small, {0, 0, 1280, 392}, 1},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.what);
        EXPECT_EQ(Lumora::PanelPlacement::maximumHeight(c.anchor, c.screen, c.available), c.height);
    }
}

// Where a StatusNotifier host says its item was clicked (device pixels of the desktop's space), in Qt's
// coordinates: each screen keeps its corner, distances inside it shrink by its scale; (0, 0) and points on no
// screen mean the host did not say.
TEST(PanelPlacement, HostClickPointsInQtCoordinates)
{
    using Lumora::HostPoint::Screen;
    const std::vector<Screen> sideBySide = {{{0, 0, 1280, 800}, 1.0}, {{1280, 0, 1920, 1080}, 1.0}};
    const std::vector<Screen> scaled = {{{0, 0, 1280, 800}, 2.0}, {{2560, 0, 1920, 1080}, 1.0}};
    const struct { const char* what; QPoint device; std::vector<Screen> screens; std::optional<QPoint> at; } cases[] = {
        {"bottom panel of the first screen", {1062, 778}, sideBySide, QPoint(1062, 778)},
        {"top bar of the second screen", {3100, 12}, sideBySide, QPoint(3100, 12)},
        {"a screen at twice the scale", {2500, 1580}, scaled, QPoint(1250, 790)},
        {"beside it, at scale 1", {2600, 10}, scaled, QPoint(2600, 10)},
        {"the host does not know", {0, 0}, sideBySide, std::nullopt},
        {"on no screen", {5000, 10}, sideBySide, std::nullopt},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.what);
        EXPECT_EQ(Lumora::HostPoint::toLogical(c.device, c.screens), c.at);
    }
}
