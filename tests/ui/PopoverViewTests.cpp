// The panel's content over a real controller whose displays are played by simple backends: what it shows for the
// published snapshots, and which controller operations its controls reach.

#include <QApplication>
#include <QLabel>
#include <QPushButton>
#include <QSlider>
#include <QTest>
#include <QTimer>
#include <QToolButton>

#include <gtest/gtest.h>

#include <cmath>

#include "Lumora/App/DisplayController.h"
#include "Lumora/UI/DisplayRow.h"
#include "Lumora/UI/PopoverView.h"
#include "TestDisplays.h"

using namespace Lumora;
using LumoraTest::builtIn;
using LumoraTest::monitor;

namespace {

template <typename T>
T* find(const QObject* parent, const char* name)
{
    return parent->findChild<T*>(QLatin1String(name));
}

// Displays behind a real controller, shown in the view and refreshed once. Counts the enumerations.
struct Panel {
    explicit Panel(std::vector<DisplayInfo> list) : displays(std::move(list))
    {
        view.show();
        EXPECT_TRUE(refreshAndWait());
    }
    bool refreshAndWait()
    {
        bool published = false;
        auto connection = QObject::connect(&controller, &DisplayController::displaysChanged, [&] { published = true; });
        controller.refresh();
        const bool done = QTest::qWaitFor([&] { return published; }, 5000);
        QObject::disconnect(connection);
        view.adjustSize();
        QApplication::processEvents();
        return done;
    }
    std::vector<DisplayRow*> rows() const { return LumoraTest::rowsOf(view); }

    const std::vector<DisplayInfo> displays;
    std::atomic<int> enumerations{0};
    DisplayController controller{[this] { ++enumerations; return displays; }};
    PopoverView view{controller};
};

}  // namespace

TEST(PopoverView, EmptyListShowsTheNoteAndNoRows)
{
    Panel panel({});
    auto* note = find<QLabel>(&panel.view, "emptyNote");
    ASSERT_NE(note, nullptr);
    EXPECT_TRUE(note->isVisible());
    EXPECT_EQ(note->text(), "No external DDC displays found.");
    EXPECT_TRUE(panel.rows().empty());
}

TEST(PopoverView, PowerButtonOnlyWhereItCanPowerOffAndTheSecondRowsTogglesTheSecondDisplay)
{
    Panel panel({{11, "Left", monitor()}, {12, "Right", monitor()}, {13, "Built-in Display", builtIn()}});
    EXPECT_FALSE(find<QLabel>(&panel.view, "emptyNote")->isVisible());
    ASSERT_EQ(panel.rows().size(), 3U);
    QTest::mouseClick(find<QToolButton>(panel.rows()[1], "powerButton"), Qt::LeftButton);

    struct Expected {
        bool on;
        const char* symbol;  // none: no power button
        const char* tooltip;
    };
    const Expected expected[] = {
        {true, "power", "Turn display off (DDC standby)"}, {false, "powersleep", "Turn display on"}, {true, nullptr, ""}};
    for (std::size_t i = 0; i < 3; ++i) {
        SCOPED_TRACE(i);
        DisplayRow* row = panel.rows()[i];
        EXPECT_EQ(row->display().id, 11 + i);
        EXPECT_EQ(panel.controller.displays()[i].isOn, expected[i].on);
        auto* power = find<QToolButton>(row, "powerButton");
        ASSERT_NE(power, nullptr);
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
    Panel panel({{5, "Left", monitor(0.9)}, {6, "Right", monitor(0.9)}});
    auto* slider = find<QSlider>(panel.rows().at(1), "brightnessSlider");
    ASSERT_NE(slider, nullptr);
    EXPECT_EQ(slider->value(), slider->minimum() + (slider->maximum() - slider->minimum()) * 9 / 10);

    slider->setValue(slider->minimum() + (slider->maximum() - slider->minimum()) / 4);
    EXPECT_EQ(panel.controller.displays()[1].brightness, 0.25);
    EXPECT_EQ(panel.controller.displays()[0].brightness, 0.9);
}

TEST(PopoverView, ARefreshDuringADragLeavesTheRowAndTheHandleAlone)
{
    auto hardware = monitor(0.5);
    Panel panel({{5, "Monitor", hardware}});
    DisplayRow* row = panel.rows().at(0);
    auto* slider = find<QSlider>(row, "brightnessSlider");
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
    EXPECT_EQ(panel.controller.displays()[0].brightness, static_cast<double>(held) / DisplayRow::sliderSteps);

    hardware->reading = 0.95;
    ASSERT_TRUE(panel.refreshAndWait());
    EXPECT_EQ(panel.rows().at(0), row);
    EXPECT_TRUE(slider->isSliderDown());
    EXPECT_EQ(slider->value(), held);

    // Let go: the row shows what the controller published.
    QTest::mouseRelease(slider, Qt::LeftButton, Qt::NoModifier, QPoint(0, y));
    EXPECT_EQ(slider->value(), std::lround(panel.controller.displays()[0].brightness * DisplayRow::sliderSteps));
}

TEST(PopoverView, RefreshButtonTriggersExactlyOneRefresh)
{
    Panel panel({{1, "Monitor", monitor()}});
    const int before = panel.enumerations;
    int published = 0;
    QObject::connect(&panel.controller, &DisplayController::displaysChanged, &panel.view, [&] { ++published; });
    QTest::mouseClick(find<QToolButton>(&panel.view, "refreshButton"), Qt::LeftButton);
    ASSERT_TRUE(QTest::qWaitFor([&] { return published >= 1; }, 5000));
    QTest::qWait(300);  // room for a second one, which must not come
    EXPECT_EQ(panel.enumerations, before + 1);
    EXPECT_EQ(published, 1);
}

TEST(PopoverView, IsThreeHundredPointsWideWithALongNameOnOneElidedLine)
{
    Panel panel({{1, std::string(200, 'W'), monitor()}});
    EXPECT_EQ(panel.view.width(), 300);
    EXPECT_EQ(panel.view.sizeHint().width(), 300);
    DisplayRow* row = panel.rows().at(0);
    auto* name = find<QLabel>(row, "displayName");
    auto* power = find<QToolButton>(row, "powerButton");
    EXPECT_TRUE(name->text().endsWith(QChar(0x2026)));
    EXPECT_TRUE(power->isVisible());  // still there, at the trailing edge
    EXPECT_LE(power->x() + power->width(), row->width());
    EXPECT_GE(power->x(), name->x() + name->width());
}

TEST(PopoverView, QuitButtonEndsTheApplication)
{
    Panel panel({});
    QTimer::singleShot(0, [&] { QTest::mouseClick(find<QPushButton>(&panel.view, "quitButton"), Qt::LeftButton); });
    QTimer::singleShot(5000, &panel.view, [] { QCoreApplication::exit(3); });  // the click did not quit
    EXPECT_EQ(QCoreApplication::exec(), 0);
}
