#include <gtest/gtest.h>

#include <vector>

#include "LumoraCore/TargetResolver.h"

using namespace Lumora;
using Action = TargetResolver::Action;
using Decision = TargetResolver::Decision;
using Display = TargetResolver::Display;

namespace {

// A laptop panel on the left, an external monitor to its right, top edges aligned.
const Display panelA{1, Rect{0, 0, 1920, 1080}, false};
const Display monitorB{2, Rect{1920, 0, 2560, 1440}, true};
const std::vector<Display> desk{panelA, monitorB};

Decision adjust(std::uint32_t id) { return {id, Action::adjust}; }
Decision passThrough(std::uint32_t id) { return {id, Action::passThrough}; }

}  // namespace

// ---- rect geometry -------------------------------------------------------------------------------------------

TEST(RectGeometry, ContainsIsHalfOpen)
{
    const Rect r{0, 0, 10, 10};
    EXPECT_TRUE(r.contains({0, 0}));
    EXPECT_TRUE(r.contains({9.999, 9.999}));
    EXPECT_FALSE(r.contains({10, 5}));
    EXPECT_FALSE(r.contains({5, 10}));
    EXPECT_FALSE(r.contains({-0.001, 5}));
    EXPECT_FALSE(r.contains({5, -0.001}));
}

TEST(RectGeometry, ContainsWithNegativeOrigin)
{
    const Rect left{-1280, -200, 1280, 1024};
    EXPECT_TRUE(left.contains({-1280, -200}));
    EXPECT_TRUE(left.contains({-1, 823}));
    EXPECT_FALSE(left.contains({0, 0}));
    EXPECT_FALSE(left.contains({-640, 824}));
}

TEST(RectGeometry, EmptyRectContainsNothing)
{
    EXPECT_FALSE((Rect{5, 5, 0, 10}).contains({5, 6}));
    EXPECT_FALSE((Rect{5, 5, 10, 0}).contains({6, 5}));
}

TEST(RectGeometry, OverlapArea)
{
    EXPECT_EQ((Rect{0, 0, 10, 10}).overlapArea({5, 5, 10, 10}), 25);
    EXPECT_EQ((Rect{5, 5, 10, 10}).overlapArea({0, 0, 10, 10}), 25);
    EXPECT_EQ((Rect{0, 0, 10, 10}).overlapArea({2, 3, 4, 5}), 20);  // inside
    EXPECT_EQ((Rect{2, 3, 4, 5}).overlapArea({0, 0, 10, 10}), 20);
    EXPECT_EQ((Rect{0, 0, 10, 10}).overlapArea({0, 0, 10, 10}), 100);
}

TEST(RectGeometry, TouchingOrApartRectsDoNotOverlap)
{
    EXPECT_EQ((Rect{0, 0, 10, 10}).overlapArea({10, 0, 5, 5}), 0);   // shares the right edge
    EXPECT_EQ((Rect{0, 0, 10, 10}).overlapArea({0, 10, 5, 5}), 0);   // shares the bottom edge
    EXPECT_EQ((Rect{0, 0, 10, 10}).overlapArea({10, 10, 5, 5}), 0);  // shares a corner
    // Apart on both axes: two negative extents must not multiply into a positive area.
    EXPECT_EQ((Rect{0, 0, 10, 10}).overlapArea({20, 20, 5, 5}), 0);
    EXPECT_EQ((Rect{0, 0, 10, 10}).overlapArea({20, 2, 5, 5}), 0);
}

TEST(RectGeometry, ZeroSizedRectOverlapsNothing)
{
    EXPECT_EQ((Rect{0, 0, 10, 10}).overlapArea({5, 5, 0, 3}), 0);
    EXPECT_EQ((Rect{0, 0, 10, 10}).overlapArea({5, 5, 3, 0}), 0);
}

// ---- resolver rules ------------------------------------------------------------------------------------------

TEST(ResolverRules, NoDisplaysNoDecision)
{
    EXPECT_FALSE(TargetResolver::resolve({}, std::nullopt, {0, 0}));
    EXPECT_FALSE(TargetResolver::resolve({}, Rect{0, 0, 100, 100}, {10, 10}));
}

TEST(ResolverRules, WindowGoesToTheDisplayHoldingMostOfIt)
{
    // 120 x 300 on A, 280 x 300 on B.
    EXPECT_EQ(TargetResolver::resolve(desk, Rect{1800, 100, 400, 300}, {10, 10}), adjust(2));
    // 300 x 300 on A, 100 x 300 on B.
    EXPECT_EQ(TargetResolver::resolve(desk, Rect{1620, 100, 400, 300}, {3000, 10}), passThrough(1));
}

TEST(ResolverRules, WindowOutranksTheCursor)
{
    // Window mostly on the panel, cursor on the external monitor: the panel decides, and the key passes through.
    EXPECT_EQ(TargetResolver::resolve(desk, Rect{100, 100, 800, 600}, {2500, 500}), passThrough(1));
    // And the other way round.
    EXPECT_EQ(TargetResolver::resolve(desk, Rect{2000, 100, 800, 600}, {500, 500}), adjust(2));
}

TEST(ResolverRules, WindowOutsideEveryDisplayLeavesItToTheCursor)
{
    EXPECT_EQ(TargetResolver::resolve(desk, Rect{10000, 10000, 300, 300}, {2000, 10}), adjust(2));
}

TEST(ResolverRules, WindowTouchingOnlyAnEdgeDoesNotCount)
{
    // Lies right of B, touching its right edge; the cursor on A decides.
    EXPECT_EQ(TargetResolver::resolve(desk, Rect{4480, 0, 200, 200}, {100, 100}), passThrough(1));
    // Lies below A, touching its bottom edge, cursor on B.
    EXPECT_EQ(TargetResolver::resolve(desk, Rect{100, 1080, 200, 200}, {2000, 1200}), adjust(2));
}

TEST(ResolverRules, ZeroSizedWindowLeavesItToTheCursor)
{
    EXPECT_EQ(TargetResolver::resolve(desk, Rect{100, 100, 0, 300}, {2000, 10}), adjust(2));
    EXPECT_EQ(TargetResolver::resolve(desk, Rect{100, 100, 300, 0}, {2000, 10}), adjust(2));
}

TEST(ResolverRules, CursorOnTheSharedEdgeBelongsToTheRightDisplay)
{
    EXPECT_EQ(TargetResolver::resolve(desk, std::nullopt, {1920, 500}), adjust(2));
    EXPECT_EQ(TargetResolver::resolve(desk, std::nullopt, {1919.5, 500}), passThrough(1));
}

TEST(ResolverRules, CursorBelowTheShorterDisplayIsOnTheTallerOne)
{
    // y = 1080 is outside A (bottom edge excluded) and x = 1000 is outside B: no display contains it.
    EXPECT_EQ(TargetResolver::resolve({monitorB, panelA}, std::nullopt, {1000, 1080}), adjust(2));
    EXPECT_EQ(TargetResolver::resolve(desk, std::nullopt, {2000, 1080}), adjust(2));
}

TEST(ResolverRules, CursorOutsideEveryDisplayPicksTheFirst)
{
    EXPECT_EQ(TargetResolver::resolve(desk, std::nullopt, {-5, -5}), passThrough(1));
    EXPECT_EQ(TargetResolver::resolve({monitorB, panelA}, std::nullopt, {99999, 0}), adjust(2));
}

TEST(ResolverRules, ActionFollowsTheChosenDisplayOnly)
{
    const Display externalWithoutDDC{3, Rect{0, 0, 1000, 1000}, false};
    EXPECT_EQ(TargetResolver::resolve({externalWithoutDDC}, std::nullopt, {5, 5}), passThrough(3));
    const Display external{4, Rect{0, 0, 1000, 1000}, true};
    EXPECT_EQ(TargetResolver::resolve({external}, Rect{-500, -500, 10, 10}, {-1, -1}), adjust(4));
}

// ---- tie-breaks ----------------------------------------------------------------------------------------------

TEST(ResolverTieBreaks, WindowSplitInHalfGoesToTheEarlierDisplay)
{
    const Rect half{1820, 100, 200, 300};  // 100 x 300 on each side
    EXPECT_EQ(TargetResolver::resolve(desk, half, {3000, 100}), passThrough(1));
    EXPECT_EQ(TargetResolver::resolve({monitorB, panelA}, half, {100, 100}), adjust(2));
}

TEST(ResolverTieBreaks, LaterDisplayWithStrictlyMoreOverlapWins)
{
    // Three side-by-side displays; the window's widths on them are 50 / 100 / 50.
    const std::vector<Display> row{{10, Rect{0, 0, 100, 100}, false},
                                   {11, Rect{100, 0, 100, 100}, true},
                                   {12, Rect{200, 0, 100, 100}, false}};
    EXPECT_EQ(TargetResolver::resolve(row, Rect{50, 0, 200, 10}, {0, 0}), adjust(11));
    // 50 / 100 / 100: equal best areas, the earlier of the two wins.
    EXPECT_EQ(TargetResolver::resolve(row, Rect{50, 0, 250, 10}, {0, 0}), adjust(11));
    // Reordered to 10, 12, 11 with widths 10 / 100 / 100: the tie goes to 12, now the earlier one.
    const std::vector<Display> reversed{row[0], row[2], row[1]};
    EXPECT_EQ(TargetResolver::resolve(reversed, Rect{90, 0, 210, 10}, {0, 0}), passThrough(12));
}

TEST(ResolverTieBreaks, OverlappingDisplaysCursorPicksTheFirstContaining)
{
    // Mirrored displays share a frame: the first in the array wins, for the cursor and for a window.
    const std::vector<Display> mirrored{{7, Rect{0, 0, 1920, 1080}, true}, {8, Rect{0, 0, 1920, 1080}, false}};
    EXPECT_EQ(TargetResolver::resolve(mirrored, std::nullopt, {10, 10}), adjust(7));
    EXPECT_EQ(TargetResolver::resolve(mirrored, Rect{10, 10, 100, 100}, {10, 10}), adjust(7));
    const std::vector<Display> swapped{mirrored[1], mirrored[0]};
    EXPECT_EQ(TargetResolver::resolve(swapped, std::nullopt, {10, 10}), passThrough(8));
}
