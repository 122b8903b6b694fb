// A compositor's answers in one global space: each output's logical frame from the terms its compositor gives it
// in, and the active output standing for a pointer the compositor does not tell. The outputs below are those the
// real compositors gave (sway 1.7 and GNOME Shell 43 headless here; Hyprland's from its documented answers).

#include <gtest/gtest.h>

#include "LumoraCore/DesktopLayout.h"

using namespace Lumora;

TEST(DesktopLayout, LogicalFramesInEachCompositorsTerms)
{
    const struct {
        const char* what;
        CompositorOutput output;
        Rect frame;
    } cases[] = {
        {"sway: logical already, scale 2 at a negative position", {"HEADLESS-2", "", "", {-640, -400, 640, 400}},
         {-640, -400, 640, 400}},
        {"Hyprland: 3840 x 2160 pixels at scale 1.5", {"DP-1", "", "", {1920, 0, 3840, 2160}, true, 1.5},
         {1920, 0, 2560, 1440}},
        {"Hyprland: turned a quarter, scale 2", {"DP-2", "", "", {-1080, -200, 2160, 3840}, true, 2.0, true},
         {-1080, -200, 1920, 1080}},
        {"GNOME: Meta-0's 1280 x 800 mode at scale 1", {"Meta-0", "", "", {0, 0, 1280, 800}, true, 1.0},
         {0, 0, 1280, 800}},
        {"a scale of 0 is taken as 1", {"DP-3", "", "", {0, 0, 1280, 800}, true, 0.0}, {0, 0, 1280, 800}},
    };
    for (const auto& c : cases)
        EXPECT_EQ(DesktopLayout::logicalFrame(c.output), c.frame) << c.what;
}

TEST(DesktopLayout, TheActiveOutputStandsForAPointerNotTold)
{
    // sway 1.7, HEADLESS-2 at scale 2 left of and above HEADLESS-1 and focused; a floating window mostly on it.
    CompositorAnswers sway{{{"HEADLESS-1", "headless", "", {0, 0, 1280, 800}},
                            {"HEADLESS-2", "headless", "", {-640, -400, 640, 400}, false, 2.0, false, true}},
                           Rect{-691, -413, 742, 427},
                           std::nullopt};
    const struct {
        const char* what;
        std::optional<Point> pointer;
        bool active;
        std::optional<Point> seen;
    } cases[] = {
        {"no pointer told: the focused output's centre", std::nullopt, true, Point{-320, -200}},
        {"a pointer told stays as told", Point{5, 7}, true, Point{5, 7}},
        {"neither: none", std::nullopt, false, std::nullopt},
    };
    for (const auto& c : cases) {
        sway.pointer = c.pointer;
        sway.outputs[1].active = c.active;
        const DesktopView view = DesktopLayout::view(sway);
        EXPECT_EQ(view.pointer, c.seen) << c.what;
        EXPECT_EQ(view.focusedWindow, sway.focusedWindow) << c.what;
        ASSERT_EQ(view.screens.size(), 2u) << c.what;
        EXPECT_EQ(view.screens[1].name, "HEADLESS-2") << c.what;
        EXPECT_EQ(view.screens[1].frame, (Rect{-640, -400, 640, 400})) << c.what;
    }
}
