// Where the panel opens: 6 points below an item in the upper half of its screen, 6 above one in the lower half,
// centred on it and kept inside the screen; at the cursor when the tray gives no geometry.

#include <gtest/gtest.h>

#include "Lumora/App/PanelPlacement.h"

TEST(PanelPlacement, Origins)
{
    struct Case {
        const char* what;
        QRect anchor;
        QSize panel;
        QRect screen;
        QPoint origin;
    };
    const QRect hd(0, 0, 1920, 1080);
    const Case cases[] = {
        // The item's window at x 1000 ... 1024, y 1055 ... 1079 counted from the bottom: (862, 869) counted so.
        {"top panel", {1000, 1, 24, 24}, {300, 180}, hd, {862, 1080 - 869 - 180}},
        {"bottom panel", {1000, 1050, 24, 24}, {300, 180}, hd, {862, 1050 - 6 - 180}},
        {"right edge", {1257, 1, 22, 22}, {300, 140}, {0, 0, 1280, 800}, {1280 - 300, 29}},
        {"left edge", {2, 1, 22, 22}, {300, 140}, {0, 0, 1280, 800}, {0, 29}},
        {"second screen, top", {3180, 2, 20, 20}, {300, 140}, {1920, 0, 1280, 1024}, {3200 - 300, 28}},
        {"second screen, bottom", {1921, 1000, 20, 20}, {300, 140}, {1920, 0, 1280, 1024}, {1920, 1000 - 6 - 140}},
        {"cursor near the top", {600, 12, 0, 0}, {300, 200}, hd, {450, 18}},
        {"cursor near the bottom", {600, 1070, 0, 0}, {300, 200}, hd, {450, 1070 - 6 - 200}},
        {"wider than the screen", {100, 0, 20, 20}, {300, 100}, {50, 0, 200, 600}, {50, 26}},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.what);
        EXPECT_EQ(Lumora::PanelPlacement::origin(c.anchor, c.panel, c.screen), c.origin);
    }
}
