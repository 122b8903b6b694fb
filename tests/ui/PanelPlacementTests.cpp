// Where the panel opens relative to the tray item, on top and bottom panels, near screen edges, and at the cursor.

#include <gtest/gtest.h>

#include "Lumora/App/PanelPlacement.h"

using Lumora::PanelPlacement::origin;

TEST(PanelPlacement, CentredSixPointsBelowAnItemOnATopPanel)
{
    // An item 24 points wide at x 1000 ... 1024 at the very top of a 1920 × 1080 screen, content 300 × 180.
    const QRect screen(0, 0, 1920, 1080);
    const QRect item(1000, 1, 24, 24);
    EXPECT_EQ(origin(item, QSize(300, 180), screen), QPoint(862, 1 + 24 + 6));
}

TEST(PanelPlacement, SixPointsAboveAnItemOnABottomPanel)
{
    const QRect screen(0, 0, 1920, 1080);
    const QRect item(1000, 1050, 24, 24);
    EXPECT_EQ(origin(item, QSize(300, 180), screen), QPoint(862, 1050 - 6 - 180));
}

TEST(PanelPlacement, StaysInsideTheScreenHorizontally)
{
    const QRect screen(0, 0, 1280, 800);
    EXPECT_EQ(origin(QRect(1257, 1, 22, 22), QSize(300, 140), screen).x(), 1280 - 300);
    EXPECT_EQ(origin(QRect(2, 1, 22, 22), QSize(300, 140), screen).x(), 0);
}

TEST(PanelPlacement, OnASecondScreenUsesThatScreensEdges)
{
    const QRect right(1920, 0, 1280, 1024);
    EXPECT_EQ(origin(QRect(3180, 2, 20, 20), QSize(300, 140), right), QPoint(3200 - 300, 28));
    EXPECT_EQ(origin(QRect(1921, 1000, 20, 20), QSize(300, 140), right), QPoint(1920, 1000 - 6 - 140));
}

TEST(PanelPlacement, AtTheCursorWhenTheTrayGivesNoGeometry)
{
    const QRect screen(0, 0, 1920, 1080);
    // A cursor near the top: under it; near the bottom: above it.
    EXPECT_EQ(origin(QRect(QPoint(600, 12), QSize(0, 0)), QSize(300, 200), screen), QPoint(450, 18));
    EXPECT_EQ(origin(QRect(QPoint(600, 1070), QSize(0, 0)), QSize(300, 200), screen), QPoint(450, 1070 - 6 - 200));
}

TEST(PanelPlacement, PanelWiderThanTheScreenStartsAtItsLeftEdge)
{
    EXPECT_EQ(origin(QRect(100, 0, 20, 20), QSize(300, 100), QRect(50, 0, 200, 600)).x(), 50);
}
