// SPDX-License-Identifier: GPL-3.0-or-later
// The panel's content over a real controller whose displays are played by simple backends: what it shows for the
// published snapshots, and which controller operations its controls reach, where the end-to-end tests on the
// virtual desk (tests/e2e-desktop) cannot tell exactly.

#include <QLabel>
#include <QSlider>
#include <QToolButton>

#include <cmath>

#include "TestDisplays.h"

using namespace Lumora;
using LumoraTest::builtIn;
using LumoraTest::monitor;
using LumoraTest::Shown;

TEST(PopoverView, EmptyListShowsTheNoteAndNoRows)
{
    Shown shown({});
    EXPECT_TRUE(shown.find<QLabel>("emptyNote")->isVisible());
    EXPECT_EQ(shown.find<QLabel>("emptyNote")->text(), "No external DDC displays found.");
    EXPECT_TRUE(shown.rows().empty());
}

TEST(PopoverView, PowerButtonOnlyWhereItCanPowerOffAndTheSecondRowsTogglesTheSecondDisplay)
{
    Shown shown({{11, "Left", monitor()}, {12, "Right", monitor()}, {13, "Built-in Display", builtIn()}});
    EXPECT_FALSE(shown.find<QLabel>("emptyNote")->isVisible());
    ASSERT_EQ(shown.rows().size(), 3U);
    QTest::mouseClick(shown.find<QToolButton>("powerButton", shown.row(1)), Qt::LeftButton);
    const struct {
        bool on;
        const char* symbol;  // none: no power button
        const char* tooltip;
    } expected[] = {
        {true, "power", "Turn display off (DDC standby)"}, {false, "powersleep", "Turn display on"}, {true, nullptr, ""}};
    for (int i = 0; i < 3; ++i) {
        SCOPED_TRACE(i);
        EXPECT_EQ(shown.row(i)->display().id, 11u + i);
        EXPECT_EQ(shown.controller.displays()[i].isOn, expected[i].on);
        auto* power = shown.find<QToolButton>("powerButton", shown.row(i));
        EXPECT_EQ(power->isVisible(), expected[i].symbol != nullptr);
        if (expected[i].symbol != nullptr) {
            EXPECT_EQ(power->property("symbol").toString(), expected[i].symbol);
            EXPECT_EQ(power->toolTip(), expected[i].tooltip);
            EXPECT_FALSE(power->icon().isNull());
        }
    }
}

TEST(PopoverView, SliderShowsTheBrightnessAndAQuarterSetsItsOwnDisplayToAQuarter)
{
    Shown shown({{5, "Left", monitor(0.9)}, {6, "Right", monitor(0.9)}});
    auto* slider = shown.find<QSlider>("brightnessSlider", shown.row(1));
    EXPECT_EQ(slider->value(), slider->minimum() + (slider->maximum() - slider->minimum()) * 9 / 10);
    slider->setValue(slider->minimum() + (slider->maximum() - slider->minimum()) / 4);
    EXPECT_EQ(shown.controller.displays()[1].brightness, 0.25);
    EXPECT_EQ(shown.controller.displays()[0].brightness, 0.9);
}

TEST(PopoverView, ARefreshDuringADragLeavesTheRowAndTheHandleAlone)
{
    auto hardware = monitor(0.5);
    Shown shown({{5, "Monitor", hardware}});
    DisplayRow* row = shown.row(0);
    auto* slider = shown.find<QSlider>("brightnessSlider", row);
    // A real drag: press on the handle, move in steps to the far left, hold there.
    const int y = slider->height() / 2;
    QTest::mousePress(slider, Qt::LeftButton, Qt::NoModifier, QPoint(slider->width() / 2, y));
    for (int x = slider->width() / 2; x >= 0; x -= 10) {
        QMouseEvent move(QEvent::MouseMove, QPointF(x, y), slider->mapToGlobal(QPointF(x, y)), Qt::NoButton,
                         Qt::LeftButton, Qt::NoModifier);
        QApplication::sendEvent(slider, &move);
    }
    ASSERT_TRUE(slider->isSliderDown());
    const int held = slider->value();
    EXPECT_LT(held, DisplayRow::sliderSteps / 2);
    EXPECT_EQ(shown.controller.displays()[0].brightness, static_cast<double>(held) / DisplayRow::sliderSteps);

    hardware->reading = 0.95;
    ASSERT_TRUE(shown.refreshAndWait());
    EXPECT_EQ(shown.row(0), row);
    EXPECT_TRUE(slider->isSliderDown());
    EXPECT_EQ(slider->value(), held);
    // Let go: the row shows what the controller published.
    QTest::mouseRelease(slider, Qt::LeftButton, Qt::NoModifier, QPoint(0, y));
    EXPECT_EQ(slider->value(), std::lround(shown.controller.displays()[0].brightness * DisplayRow::sliderSteps));
}

TEST(PopoverView, RefreshButtonTriggersExactlyOneRefresh)
{
    Shown shown({{1, "Monitor", monitor()}});
    const int before = shown.enumerations;
    QSignalSpy published(&shown.controller, &DisplayController::displaysChanged);
    QTest::mouseClick(shown.find<QToolButton>("refreshButton"), Qt::LeftButton);
    ASSERT_TRUE(QTest::qWaitFor([&] { return published.count() >= 1; }, 5000));
    QTest::qWait(300);  // room for a second one, which must not come
    EXPECT_EQ(shown.enumerations, before + 1);
    EXPECT_EQ(published.count(), 1);
}

TEST(PopoverView, ALongNameEndsElidedBeforeThePowerButton)
{
    Shown shown({{1, std::string(200, 'W'), monitor()}});
    EXPECT_EQ(shown.view()->width(), 300);
    auto* name = shown.find<QLabel>("displayName", shown.row(0));
    auto* power = shown.find<QToolButton>("powerButton", shown.row(0));
    EXPECT_TRUE(name->text().endsWith(QChar(0x2026)));
    EXPECT_TRUE(power->isVisible());  // still there, at the trailing edge
    EXPECT_LE(power->x() + power->width(), shown.row(0)->width());
    EXPECT_GE(power->x(), name->x() + name->width());
}
