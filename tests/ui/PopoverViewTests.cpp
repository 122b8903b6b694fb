// The panel's content views over a real controller: what they show for the published snapshots, and which
// controller operations their controls reach.

#include <QAbstractButton>
#include <QApplication>
#include <QLabel>
#include <QPushButton>
#include <QSlider>
#include <QTimer>
#include <QToolButton>

#include <gtest/gtest.h>

#include "Lumora/UI/DisplayRow.h"
#include "Lumora/UI/PopoverView.h"
#include "ui/Desk.h"

using namespace LumoraTest;
using Lumora::DisplayRow;
using Lumora::PopoverView;

namespace {

std::vector<DisplayRow*> rowsOf(const PopoverView& view)
{
    std::vector<DisplayRow*> rows;
    for (DisplayRow* row : view.findChildren<DisplayRow*>()) {
        if (row->isVisibleTo(&view)) {
            rows.push_back(row);
        }
    }
    std::sort(rows.begin(), rows.end(), [](DisplayRow* a, DisplayRow* b) { return a->y() < b->y(); });
    return rows;
}

template <typename T>
T* child(QWidget& parent, const char* name)
{
    return parent.findChild<T*>(QString::fromLatin1(name));
}

// The view laid out and shown as the panel shows it.
struct ShownView {
    explicit ShownView(Lumora::DisplayController& controller) : view(controller)
    {
        view.show();
        view.adjustSize();
        QApplication::processEvents();
    }
    void settle()
    {
        view.adjustSize();
        QApplication::processEvents();
    }
    PopoverView view;
};

}  // namespace

TEST(PopoverView, EmptyListShowsTheNoteAndNoRows)
{
    Desk desk({});
    ShownView shown(desk.controller());
    ASSERT_TRUE(desk.refreshAndWait());
    shown.settle();

    auto* title = child<QLabel>(shown.view, "title");
    ASSERT_NE(title, nullptr);
    EXPECT_EQ(title->text(), "Lumora");
    auto* note = child<QLabel>(shown.view, "emptyNote");
    ASSERT_NE(note, nullptr);
    EXPECT_TRUE(note->isVisible());
    EXPECT_EQ(note->text(), "No external DDC displays found.");
    EXPECT_TRUE(rowsOf(shown.view).empty());
    EXPECT_EQ(shown.view.findChildren<QFrame*>(QStringLiteral("divider")).size(), 2);

    auto* refresh = child<QToolButton>(shown.view, "refreshButton");
    ASSERT_NE(refresh, nullptr);
    EXPECT_TRUE(refresh->isVisible());
    EXPECT_EQ(refresh->toolTip(), "Refresh displays");
    EXPECT_EQ(refresh->property("symbol").toString(), "arrow.clockwise");
    EXPECT_FALSE(refresh->icon().isNull());
    auto* quit = child<QPushButton>(shown.view, "quitButton");
    ASSERT_NE(quit, nullptr);
    EXPECT_EQ(quit->text(), "Quit");
    EXPECT_EQ(quit->toolTip(), "Quit Lumora");
    EXPECT_GT(quit->x(), refresh->x() + refresh->width());  // pushed to the trailing edge
}

TEST(PopoverView, OneRowPerDisplayInPublishedOrderWithNameAndSlider)
{
    Desk desk({{7, "DELL U2723QE", ddcMonitor(0.4)}, {3, "Built-in Display", builtInPanel(0.8)}});
    ShownView shown(desk.controller());
    ASSERT_TRUE(desk.refreshAndWait());
    shown.settle();

    const auto rows = rowsOf(shown.view);
    ASSERT_EQ(rows.size(), 2U);
    EXPECT_FALSE(child<QLabel>(shown.view, "emptyNote")->isVisible());
    EXPECT_EQ(rows[0]->display().id, 7U);
    EXPECT_EQ(rows[1]->display().id, 3U);
    EXPECT_EQ(child<QLabel>(*rows[0], "displayName")->text(), "DELL U2723QE");

    auto* slider = child<QSlider>(*rows[0], "brightnessSlider");
    ASSERT_NE(slider, nullptr);
    EXPECT_EQ(slider->toolTip(), "Brightness");
    EXPECT_DOUBLE_EQ(static_cast<double>(slider->value()) / slider->maximum(), 0.4);
    EXPECT_EQ(slider->minimum(), 0);
    auto* dimmer = child<QLabel>(*rows[0], "dimmerSymbol");
    auto* brighter = child<QLabel>(*rows[0], "brighterSymbol");
    ASSERT_NE(dimmer, nullptr);
    ASSERT_NE(brighter, nullptr);
    EXPECT_EQ(dimmer->toolTip(), "Dimmer");
    EXPECT_EQ(brighter->toolTip(), "Brighter");
    EXPECT_EQ(dimmer->property("symbol").toString(), "sun.min");
    EXPECT_EQ(brighter->property("symbol").toString(), "sun.max");
    EXPECT_LT(dimmer->x(), slider->x());
    EXPECT_GT(brighter->x(), slider->x());
}

TEST(PopoverView, PowerButtonOnlyForMonitorsThatCanPowerOff)
{
    auto monitor = ddcMonitor(0.6);
    Desk desk({{1, "Monitor", monitor}, {2, "Built-in Display", builtInPanel()}});
    ShownView shown(desk.controller());
    ASSERT_TRUE(desk.refreshAndWait());
    shown.settle();

    const auto rows = rowsOf(shown.view);
    ASSERT_EQ(rows.size(), 2U);
    auto* power = child<QToolButton>(*rows[0], "powerButton");
    ASSERT_NE(power, nullptr);
    EXPECT_TRUE(power->isVisible());
    EXPECT_EQ(power->property("symbol").toString(), "power");
    EXPECT_EQ(power->toolTip(), "Turn display off (DDC standby)");
    EXPECT_FALSE(power->icon().isNull());
    EXPECT_FALSE(child<QToolButton>(*rows[1], "powerButton")->isVisible());

    // In standby the same button shows "powersleep" and offers to turn the display on.
    QTest::mouseClick(power, Qt::LeftButton);
    ASSERT_FALSE(desk.controller().displays()[0].isOn);
    EXPECT_EQ(power->property("symbol").toString(), "powersleep");
    EXPECT_EQ(power->toolTip(), "Turn display on");
    EXPECT_TRUE(QTest::qWaitFor([&] { return monitor->powers() == std::vector<bool>{false}; }, 5000));
}

TEST(PopoverView, SecondRowsPowerButtonTogglesTheSecondDisplay)
{
    auto first = ddcMonitor(0.5);
    auto second = ddcMonitor(0.7);
    Desk desk({{11, "Left", first}, {12, "Right", second}});
    ShownView shown(desk.controller());
    ASSERT_TRUE(desk.refreshAndWait());
    shown.settle();

    const auto rows = rowsOf(shown.view);
    ASSERT_EQ(rows.size(), 2U);
    QTest::mouseClick(child<QToolButton>(*rows[1], "powerButton"), Qt::LeftButton);

    EXPECT_TRUE(desk.controller().displays()[0].isOn);
    EXPECT_FALSE(desk.controller().displays()[1].isOn);
    EXPECT_TRUE(QTest::qWaitFor([&] { return second->powers() == std::vector<bool>{false}; }, 5000));
    EXPECT_TRUE(first->powers().empty());

    // Again: the second display wakes at the brightness it had.
    QTest::mouseClick(child<QToolButton>(*rows[1], "powerButton"), Qt::LeftButton);
    EXPECT_TRUE(desk.controller().displays()[1].isOn);
    EXPECT_TRUE(QTest::qWaitFor([&] { return second->powers() == std::vector<bool>{false, true}; }, 5000));
    EXPECT_TRUE(QTest::qWaitFor([&] { return !second->writes().empty() && second->writes().back() == 0.7; }, 5000));
    EXPECT_TRUE(first->powers().empty());
}

TEST(PopoverView, QuarterSliderSetsExactlyAQuarter)
{
    auto monitor = ddcMonitor(0.9);
    Desk desk({{5, "Monitor", monitor}});
    ShownView shown(desk.controller());
    ASSERT_TRUE(desk.refreshAndWait());
    shown.settle();

    auto* slider = child<QSlider>(*rowsOf(shown.view).at(0), "brightnessSlider");
    slider->setValue(slider->minimum() + (slider->maximum() - slider->minimum()) / 4);

    EXPECT_EQ(desk.controller().displays()[0].brightness, 0.25);  // shown at once, exactly
    EXPECT_TRUE(QTest::qWaitFor([&] { return monitor->writes() == std::vector<double>{0.25}; }, 5000));
}

TEST(PopoverView, DraggingTheSliderRequestsEveryValueAndIsNotInterrupted)
{
    auto monitor = ddcMonitor(0.5);
    Desk desk({{5, "Monitor", monitor}});
    ShownView shown(desk.controller());
    ASSERT_TRUE(desk.refreshAndWait());
    shown.settle();

    DisplayRow* row = rowsOf(shown.view).at(0);
    auto* slider = child<QSlider>(*row, "brightnessSlider");
    // A real drag: press on the handle, move in steps to the far left, hold there.
    const QPoint start(slider->width() / 2, slider->height() / 2);
    QTest::mousePress(slider, Qt::LeftButton, Qt::NoModifier, start);
    ASSERT_TRUE(slider->isSliderDown());
    for (int x = start.x(); x >= 0; x -= 10) {
        QMouseEvent move(QEvent::MouseMove, QPointF(x, start.y()), slider->mapToGlobal(QPointF(x, start.y())),
                         Qt::NoButton, Qt::LeftButton, Qt::NoModifier);
        QApplication::sendEvent(slider, &move);
    }
    const int held = slider->value();
    EXPECT_LT(held, DisplayRow::sliderSteps / 2);
    EXPECT_EQ(desk.controller().displays()[0].brightness, static_cast<double>(held) / DisplayRow::sliderSteps);

    // A refresh publishes the hardware's reading meanwhile: the row stays the same row and the drag holds.
    monitor->setReading(0.95);
    ASSERT_TRUE(desk.refreshAndWait());
    EXPECT_EQ(rowsOf(shown.view).at(0), row);
    EXPECT_TRUE(slider->isSliderDown());
    EXPECT_EQ(slider->value(), held);

    // Let go: the row shows what the controller publishes.
    QTest::mouseRelease(slider, Qt::LeftButton, Qt::NoModifier, QPoint(0, start.y()));
    EXPECT_FALSE(slider->isSliderDown());
    EXPECT_EQ(slider->value(), static_cast<int>(desk.controller().displays()[0].brightness * DisplayRow::sliderSteps));
    EXPECT_TRUE(QTest::qWaitFor([&] { return !monitor->writes().empty(); }, 5000));
}

TEST(PopoverView, RowKeepsItsIdentityWhileValuesChangeAndLeavesWithItsDisplay)
{
    auto left = ddcMonitor(0.3);
    auto right = ddcMonitor(0.6);
    Desk desk({{1, "Left", left}, {2, "Right", right}});
    ShownView shown(desk.controller());
    ASSERT_TRUE(desk.refreshAndWait());
    shown.settle();
    const auto before = rowsOf(shown.view);
    ASSERT_EQ(before.size(), 2U);

    right->setReading(0.1);
    ASSERT_TRUE(desk.refreshAndWait());
    shown.settle();
    auto after = rowsOf(shown.view);
    ASSERT_EQ(after.size(), 2U);
    EXPECT_EQ(after[1], before[1]);
    EXPECT_EQ(child<QSlider>(*after[1], "brightnessSlider")->value(), DisplayRow::sliderSteps / 10);

    // The left monitor is unplugged (not in standby): its row goes; the right one stays the same row.
    desk.setDisplays({{2, "Right", right}});
    ASSERT_TRUE(desk.refreshAndWait());
    shown.settle();
    after = rowsOf(shown.view);
    ASSERT_EQ(after.size(), 1U);
    EXPECT_EQ(after[0], before[1]);

    // It comes back: a row appears for it, in enumeration order.
    desk.setDisplays({{1, "Left", left}, {2, "Right", right}});
    ASSERT_TRUE(desk.refreshAndWait());
    shown.settle();
    after = rowsOf(shown.view);
    ASSERT_EQ(after.size(), 2U);
    EXPECT_EQ(after[0]->display().id, 1U);
    EXPECT_EQ(after[1], before[1]);
}

TEST(PopoverView, RefreshButtonTriggersExactlyOneRefresh)
{
    Desk desk({{1, "Monitor", ddcMonitor()}});
    ShownView shown(desk.controller());
    ASSERT_TRUE(desk.refreshAndWait());
    const int before = desk.enumerations();

    int published = 0;
    QObject::connect(&desk.controller(), &Lumora::DisplayController::displaysChanged, [&] { ++published; });
    QTest::mouseClick(child<QToolButton>(shown.view, "refreshButton"), Qt::LeftButton);
    ASSERT_TRUE(QTest::qWaitFor([&] { return published >= 1; }, 5000));
    // Nothing more follows: no second enumeration, no second publication.
    QTest::qWait(300);
    EXPECT_EQ(desk.enumerations(), before + 1);
    EXPECT_EQ(published, 1);
}

TEST(PopoverView, IsThreeHundredPointsWideWhateverTheNames)
{
    const std::string longName(200, 'W');
    Desk desk({{1, longName, ddcMonitor()}, {2, "Short", builtInPanel()}});
    ShownView shown(desk.controller());
    ASSERT_TRUE(desk.refreshAndWait());
    shown.settle();

    EXPECT_EQ(shown.view.width(), PopoverView::panelWidth);
    EXPECT_EQ(shown.view.width(), 300);
    EXPECT_EQ(shown.view.sizeHint().width(), 300);
    DisplayRow* row = rowsOf(shown.view).at(0);
    auto* name = child<QLabel>(*row, "displayName");
    auto* power = child<QToolButton>(*row, "powerButton");
    EXPECT_NE(name->text().toStdString(), longName);       // shortened to one line
    EXPECT_TRUE(name->text().endsWith(QChar(0x2026)));     // with an ellipsis
    EXPECT_TRUE(power->isVisible());                        // the button stays at the trailing edge
    EXPECT_LE(power->x() + power->width(), row->width());
    EXPECT_GE(power->x(), name->x() + name->width());
}

TEST(PopoverView, LayoutSpacings)
{
    Desk desk({{1, "Monitor", ddcMonitor()}});
    ShownView shown(desk.controller());
    ASSERT_TRUE(desk.refreshAndWait());
    shown.settle();

    auto* title = child<QLabel>(shown.view, "title");
    EXPECT_EQ(title->x(), 16);
    EXPECT_EQ(title->y(), 16);
    DisplayRow* row = rowsOf(shown.view).at(0);
    EXPECT_EQ(row->mapTo(&shown.view, QPoint(0, 0)).y(), title->y() + title->height() + 14);
    auto* quit = child<QPushButton>(shown.view, "quitButton");
    EXPECT_EQ(quit->x() + quit->width(), 300 - 16);
    EXPECT_EQ(shown.view.height() - 16, std::max(quit->y() + quit->height(),
                                                 child<QToolButton>(shown.view, "refreshButton")->geometry().bottom() + 1));
}

TEST(PopoverView, QuitButtonEndsTheApplication)
{
    Desk desk({});
    ShownView shown(desk.controller());
    QTimer::singleShot(0, [&] { QTest::mouseClick(child<QPushButton>(shown.view, "quitButton"), Qt::LeftButton); });
    // Should the click not quit, the loop is ended with another status.
    QTimer::singleShot(5000, [] { QCoreApplication::exit(3); });
    EXPECT_EQ(QCoreApplication::exec(), 0);
}
