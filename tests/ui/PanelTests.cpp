// SPDX-License-Identifier: GPL-3.0-or-later
// The panel as the application builds it, over a real controller whose displays are simple backends (the test sets
// what they read; what the controller writes is dropped): what it shows, which controller operations its controls
// reach, the keyboard and assistive technology. How it looks on a desktop: e2e_desktop.

#include <QAccessible>
#include <QAccessibleValueInterface>
#include <QApplication>
#include <QLabel>
#include <QScrollArea>
#include <QScrollBar>
#include <QSignalSpy>
#include <QSlider>
#include <QTest>
#include <QToolButton>

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <cmath>
#include <memory>
#include <string>
#include <vector>

#include "Lumora/App/DisplayController.h"
#include "Lumora/App/PopoverPanel.h"
#include "Lumora/UI/DisplayRow.h"
#include "Lumora/UI/PopoverView.h"

using namespace Lumora;

namespace {

struct Backend final : DisplayBackend {
    Backend(bool ddc, double reading) : ddc(ddc), reading(reading) {}
    bool canPowerOff() const override { return ddc; }
    std::optional<double> readBrightness() override { return reading.load(); }
    void writeBrightness(double) override {}
    void setPower(bool) override {}
    const bool ddc;
    std::atomic<double> reading;
};

// `monitors` DDC monitors at 0.5 (11 "Monitor 1", 12 "Monitor 2", ...), then the built-in display (99, at 0.8).
std::vector<DisplayInfo> desk(int monitors, bool withBuiltIn)
{
    std::vector<DisplayInfo> list;
    for (int i = 0; i < monitors; ++i)
        list.push_back({11u + i, "Monitor " + std::to_string(i + 1), std::make_shared<Backend>(true, 0.5)});
    if (withBuiltIn)
        list.push_back({99, "Built-in Display", std::make_shared<Backend>(false, 0.8)});
    return list;
}

// The panel over a controller of `list` (its enumerations counted), refreshed once and shown with the focus.
struct Shown {
    explicit Shown(std::vector<DisplayInfo> list) : displays(std::move(list))
    {
        QSignalSpy published(&controller, &DisplayController::displaysChanged);
        controller.refresh();
        EXPECT_TRUE(published.wait(5000));
        panel.fitContent();
        panel.show();
        panel.activateWindow();
        EXPECT_TRUE(QTest::qWaitForWindowActive(&panel, 5000));
    }
    PopoverView* view() const { return static_cast<PopoverView*>(panel.contentView()); }
    std::vector<DisplayRow*> rows() const  // top to bottom
    {
        std::vector<DisplayRow*> rows;
        for (DisplayRow* row : view()->findChildren<DisplayRow*>())
            if (row->isVisibleTo(view()))
                rows.push_back(row);
        std::sort(rows.begin(), rows.end(), [](auto* a, auto* b) { return a->y() < b->y(); });
        return rows;
    }
    DisplayRow* row(int index) const { return rows().at(index); }
    template <typename T>
    T* find(const char* name, const QWidget* in = nullptr) const { return (in ? in : view())->findChild<T*>(name); }
    QSlider* slider(int row) const { return find<QSlider>("brightnessSlider", this->row(row)); }

    std::vector<DisplayInfo> displays;  // changed by a test only between refreshes
    std::atomic<int> enumerations{0};
    DisplayController controller{[this] { ++enumerations; return displays; }};
    PopoverPanel panel{new PopoverView(controller)};
};

// What a screen reader calls the control.
QString nameOf(QWidget* control)
{
    QAccessibleInterface* accessible = control ? QAccessible::queryAccessibleInterface(control) : nullptr;
    return accessible ? accessible->text(QAccessible::Name) : QString();
}

}  // namespace

int main(int argc, char** argv)
{
    if (qEnvironmentVariableIsEmpty("DISPLAY") && qEnvironmentVariableIsEmpty("WAYLAND_DISPLAY"))
        qputenv("QT_QPA_PLATFORM", "offscreen");
    QApplication app(argc, argv);
    ::testing::InitGoogleTest(&argc, argv);
    return RUN_ALL_TESTS();
}

TEST(PopoverView, PowerButtonOnlyWhereItCanPowerOffAndTheSecondRowsTogglesTheSecondDisplay)
{
    Shown shown(desk(2, true));
    ASSERT_EQ(shown.rows().size(), 3U);
    QTest::mouseClick(shown.find<QToolButton>("powerButton", shown.row(1)), Qt::LeftButton);
    // symbol: none where there is no power button.
    const struct { bool on; const char* symbol; const char* tooltip; } expected[] = {
        {true, "power", "Turn display off (DDC standby)"}, {false, "powersleep", "Turn display on"}, {true, {}, {}}};
    for (int i = 0; i < 3; ++i) {
        SCOPED_TRACE(i);
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

TEST(PopoverView, ARefreshDuringADragLeavesTheRowAndTheHandleAlone)
{
    auto hardware = std::make_shared<Backend>(true, 0.5);
    Shown shown({{5, "Monitor", hardware}});
    DisplayRow* row = shown.row(0);
    QSlider* slider = shown.slider(0);
    // A real drag: press on the handle, move in steps to a quarter, hold there. (Not to the left end: that puts the
    // monitor in standby, where a refresh keeps what it showed.)
    const int y = slider->height() / 2, to = slider->width() / 4;
    QTest::mousePress(slider, Qt::LeftButton, Qt::NoModifier, QPoint(slider->width() / 2, y));
    for (int x = slider->width() / 2; x >= to; x -= 10) {
        QMouseEvent move(QEvent::MouseMove, QPointF(x, y), slider->mapToGlobal(QPointF(x, y)), Qt::NoButton,
                         Qt::LeftButton, Qt::NoModifier);
        QApplication::sendEvent(slider, &move);
    }
    ASSERT_TRUE(slider->isSliderDown());
    const int held = slider->value();
    EXPECT_LT(held, DisplayRow::sliderSteps / 2);
    EXPECT_EQ(shown.controller.displays()[0].brightness, static_cast<double>(held) / DisplayRow::sliderSteps);

    // A refresh publishes what the monitor reads meanwhile (published the moment it is seen).
    hardware->reading = 0.95;
    shown.controller.refresh();
    ASSERT_TRUE(QTest::qWaitFor([&] { return shown.controller.displays()[0].brightness == 0.95; }, 5000));
    EXPECT_EQ(shown.row(0), row);
    EXPECT_TRUE(slider->isSliderDown());
    EXPECT_EQ(slider->value(), held);
    // Let go: the row shows what the controller published.
    QTest::mouseRelease(slider, Qt::LeftButton, Qt::NoModifier, QPoint(to, y));
    EXPECT_EQ(slider->value(), std::lround(shown.controller.displays()[0].brightness * DisplayRow::sliderSteps));
}

// Empty, the panel says so; the Refresh button enumerates once and what it finds shows.
TEST(PopoverView, EmptyListShowsTheNoteAndTheRefreshButtonTriggersExactlyOneRefresh)
{
    Shown shown({});
    EXPECT_TRUE(shown.find<QLabel>("emptyNote")->isVisible());
    EXPECT_EQ(shown.find<QLabel>("emptyNote")->text(), "No external DDC displays found.");
    EXPECT_TRUE(shown.rows().empty());
    shown.displays = desk(1, false);
    const int before = shown.enumerations;
    QSignalSpy published(&shown.controller, &DisplayController::displaysChanged);
    QTest::mouseClick(shown.find<QToolButton>("refreshButton"), Qt::LeftButton);
    ASSERT_TRUE(QTest::qWaitFor([&] { return published.count() >= 1; }, 5000));
    QTest::qWait(300);  // room for a second one, which must not come
    EXPECT_EQ(shown.enumerations, before + 1);
    EXPECT_EQ(published.count(), 1);
    EXPECT_EQ(shown.rows().size(), 1U);
    EXPECT_FALSE(shown.find<QLabel>("emptyNote")->isVisible());
}

TEST(PopoverView, ALongNameEndsElidedBeforeThePowerButton)
{
    Shown shown({{1, std::string(200, 'W'), std::make_shared<Backend>(true, 0.5)}});
    EXPECT_EQ(shown.view()->width(), 300);
    auto* name = shown.find<QLabel>("displayName", shown.row(0));
    auto* power = shown.find<QToolButton>("powerButton", shown.row(0));
    EXPECT_TRUE(name->text().endsWith(QChar(0x2026)));
    EXPECT_TRUE(power->isVisible());  // still there, at the trailing edge
    EXPECT_LE(power->x() + power->width(), shown.row(0)->width());
    EXPECT_GE(power->x(), name->x() + name->width());
}

// Each control named as a screen reader calls it. (The focused slider stepping under the arrow and Page keys, each
// step written to its own monitor alone: e2e_desktop.)
TEST(PanelKeyboard, TabWalksEveryControlFromTheFirstRowToQuitAndAround)
{
    Shown shown(desk(2, true));
    shown.row(0)->focusChain().first()->setFocus(Qt::TabFocusReason);
    const QStringList expected = {"Turn Monitor 1 off", "Brightness of Monitor 1", "Turn Monitor 2 off",
                                  "Brightness of Monitor 2", "Brightness of Built-in Display", "Refresh displays",
                                  "Quit", "Turn Monitor 1 off"};
    QStringList walked = {nameOf(QApplication::focusWidget())};
    for (int i = 1; i < expected.size(); ++i) {
        QTest::keyClick(QApplication::focusWidget(), Qt::Key_Tab);
        walked.append(nameOf(QApplication::focusWidget()));
    }
    EXPECT_EQ(walked, expected);
}

TEST(PanelAccessibility, EveryControlHasANameAndTheSlidersAValueInPercent)
{
    Shown shown(desk(2, true));
    int named = 0;
    for (QWidget* control : shown.view()->findChildren<QWidget*>()) {
        auto* label = qobject_cast<QLabel*>(control);
        const bool picture = label != nullptr && !label->pixmap().isNull();
        if (!control->isVisibleTo(shown.view()) || !((control->focusPolicy() & Qt::TabFocus) != 0 || picture))
            continue;
        EXPECT_FALSE(nameOf(control).isEmpty()) << control->objectName().toStdString();
        ++named;
    }
    EXPECT_EQ(named, 2 * 2 + 1 + 2 + 3 * 2);  // power and slider of each monitor, a slider, Refresh, Quit, suns
    // (The names of the controls Tab reaches: TabWalksEveryControlFromTheFirstRowToQuitAndAround.)
    QAccessibleInterface* accessible = QAccessible::queryAccessibleInterface(shown.slider(2));
    EXPECT_EQ(accessible->role(), QAccessible::Slider);
    EXPECT_EQ(accessible->text(QAccessible::Value), QLocale().toString(80) + " %");
    QAccessibleValueInterface* value = accessible->valueInterface();
    ASSERT_NE(value, nullptr);
    EXPECT_EQ(value->currentValue().toInt(), 80);
    EXPECT_EQ(QVariantList({value->minimumValue(), value->maximumValue()}), QVariantList({0, 100}));
    // A screen reader sets it too: one request to the controller.
    QSignalSpy requests(&shown.controller, &DisplayController::displaysChanged);
    value->setCurrentValue(25);
    EXPECT_EQ(requests.count(), 1);
    EXPECT_EQ(shown.controller.displays()[2].brightness, 0.25);
}

TEST(PanelLooks, ManyDisplaysScrollUnderTheHeightLimitWithTheFooterInView)
{
    Shown shown(desk(20, false));
    shown.view()->setHeightLimit(500);
    shown.panel.fitContent();
    QApplication::processEvents();
    EXPECT_LE(shown.panel.height(), 500);
    EXPECT_GT(shown.panel.height(), 300);
    // Tab to the last row scrolls it into view. (The footer's Quit stays in view: e2e_desktop clicks it.)
    QScrollBar* scroll = shown.find<QScrollArea>("rowsArea")->verticalScrollBar();
    EXPECT_GT(scroll->maximum(), 0);
    EXPECT_EQ(scroll->value(), 0);
    shown.row(19)->focusChain().last()->setFocus(Qt::TabFocusReason);
    QApplication::processEvents();
    EXPECT_EQ(scroll->value(), scroll->maximum());
}
