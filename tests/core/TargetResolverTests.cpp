// SPDX-License-Identifier: GPL-3.0-or-later
// Which display a brightness key is about: half-open frames, the largest window share, the earliest on a tie.

#include <gtest/gtest.h>

#include <vector>

#include "LumoraCore/TargetResolver.h"

using namespace Lumora;
using Decision = TargetResolver::Decision;
using Display = TargetResolver::Display;

namespace {

// A laptop panel on the left, an external monitor to its right, top edges aligned.
const Display panelA{1, Rect{0, 0, 1920, 1080}, false};
const Display monitorB{2, Rect{1920, 0, 2560, 1440}, true};
constexpr auto adjust = TargetResolver::Action::adjust;
const Decision toA{1, TargetResolver::Action::passThrough};
const Decision toB{2, adjust};

}  // namespace

TEST(RectGeometry, ContainsIsHalfOpenAndOverlapNeedsPositiveArea)
{
    const Rect r{0, 0, 10, 10};
    const std::pair<Point, bool> points[] = {{{0, 0}, true},      {{9.999, 9.999}, true}, {{10, 5}, false},
                                             {{5, 10}, false},    {{-0.001, 5}, false},   {{5, -0.001}, false}};
    for (const auto& [p, inside] : points)
        EXPECT_EQ(r.contains(p), inside) << p.x << "," << p.y;
    EXPECT_TRUE((Rect{-1280, -200, 1280, 1024}).contains({-1280, -200}));
    EXPECT_FALSE((Rect{-1280, -200, 1280, 1024}).contains({0, 0}));
    EXPECT_FALSE((Rect{5, 5, 0, 10}).contains({5, 6}));

    const std::pair<Rect, double> others[] = {
        {{5, 5, 10, 10}, 25},  {{2, 3, 4, 5}, 20},  // partly, inside
        {{10, 0, 5, 5}, 0},    {{10, 10, 5, 5}, 0},  // touching an edge, a corner
        {{20, 20, 5, 5}, 0},   {{20, 2, 5, 5}, 0},   // apart: two negative extents must not make a positive area
        {{5, 5, 0, 3}, 0},                          // zero-sized
    };
    for (const auto& [other, area] : others) {
        EXPECT_EQ(r.overlapArea(other), area) << other.x << "," << other.y;
        EXPECT_EQ(other.overlapArea(r), area) << other.x << "," << other.y;
    }
}

TEST(TargetResolver, WindowThenCursorThenFirstDisplay)
{
    const std::vector<Display> none, desk{panelA, monitorB}, reversed{monitorB, panelA};
    const std::vector<Display> row{{10, Rect{0, 0, 100, 100}, false},
                                   {11, Rect{100, 0, 100, 100}, true},
                                   {12, Rect{200, 0, 100, 100}, false}};
    const std::vector<Display> mirrored{{7, Rect{0, 0, 1920, 1080}, true}, {8, Rect{0, 0, 1920, 1080}, false}};
    const struct {
        const char* what;
        const std::vector<Display>& displays;
        std::optional<Rect> window;
        Point cursor;
        std::optional<Decision> expected;
    } cases[] = {
        {"no displays", none, Rect{0, 0, 100, 100}, {10, 10}, std::nullopt},
        {"120 x 300 on A, 280 x 300 on B", desk, Rect{1800, 100, 400, 300}, {10, 10}, toB},
        {"window on A outranks cursor on B", desk, Rect{1620, 100, 400, 300}, {3000, 10}, toA},
        {"window off every display", desk, Rect{10000, 10000, 300, 300}, {2000, 10}, toB},
        {"window touching B's right edge only", desk, Rect{4480, 0, 200, 200}, {100, 100}, toA},
        {"zero-width window", desk, Rect{100, 100, 0, 300}, {2000, 10}, toB},
        {"split in half: earlier display", desk, Rect{1820, 100, 200, 300}, {3000, 100}, toA},
        {"split in half, reversed", reversed, Rect{1820, 100, 200, 300}, {100, 100}, toB},
        {"later display strictly larger", row, Rect{50, 0, 200, 10}, {0, 0}, Decision{11, adjust}},
        {"50/100/100: earlier of the equals", row, Rect{50, 0, 250, 10}, {0, 0}, Decision{11, adjust}},
        {"mirrored window: first", mirrored, Rect{10, 10, 100, 100}, {10, 10}, Decision{7, adjust}},
        {"cursor on the shared edge", desk, std::nullopt, {1920, 500}, toB},
        {"cursor just left of it", desk, std::nullopt, {1919.5, 500}, toA},
        {"cursor below A's bottom edge", reversed, std::nullopt, {1000, 1080}, toB},
        {"mirrored cursor: first containing", mirrored, std::nullopt, {10, 10}, Decision{7, adjust}},
        {"cursor nowhere: first display", desk, std::nullopt, {-5, -5}, toA},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.what);
        EXPECT_EQ(TargetResolver::resolve(c.displays, c.window, c.cursor), c.expected);
    }
}
