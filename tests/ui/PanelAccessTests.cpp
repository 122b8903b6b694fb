// SPDX-License-Identifier: GPL-3.0-or-later
// The panel without a mouse and for assistive technology: Tab walks every control in order, the focused slider
// steps under the arrow and Page keys (each step a brightness request); every control has an accessible name and
// the sliders a value in percent; with many displays the rows scroll under a height limit, the footer stays in view
// and Tab scrolls the focused row into view. (The looks following the desktop's palette: e2e_desktop.)

#include <QAccessible>
#include <QAccessibleValueInterface>
#include <QLabel>
#include <QPushButton>
#include <QScrollArea>
#include <QScrollBar>
#include <QSlider>
#include <QToolButton>

#include "TestDisplays.h"

using namespace Lumora;
using LumoraTest::desk;
using LumoraTest::Shown;

namespace {

QString describe(QWidget* widget)
{
    if (widget == nullptr)
        return QStringLiteral("none");
    auto* row = qobject_cast<DisplayRow*>(widget->parentWidget());
    return row != nullptr ? QString::number(row->display().id) + QLatin1Char('.') + widget->objectName()
                          : widget->objectName();
}

}  // namespace

TEST(PanelKeyboard, TabWalksEveryControlFromTheFirstRowToQuitAndAround)
{
    Shown shown(desk(2, true));
    shown.row(0)->focusChain().first()->setFocus(Qt::TabFocusReason);
    const QStringList expected = {"11.powerButton", "11.brightnessSlider", "12.powerButton", "12.brightnessSlider",
                                  "99.brightnessSlider", "refreshButton", "quitButton", "11.powerButton"};
    QStringList walked = {describe(QApplication::focusWidget())};
    for (int i = 1; i < expected.size(); ++i) {
        QTest::keyClick(QApplication::focusWidget(), Qt::Key_Tab);
        walked.append(describe(QApplication::focusWidget()));
    }
    EXPECT_EQ(walked, expected);
}

TEST(PanelKeyboard, TheFocusedSliderStepsUnderArrowAndPageKeysEachStepABrightnessRequest)
{
    Shown shown(desk(2, false));
    auto* slider = shown.row(1)->findChild<QSlider*>(QStringLiteral("brightnessSlider"));
    slider->setFocus(Qt::TabFocusReason);
    struct Step {
        const char* name;
        Qt::Key key;
        double brightness;  // of the second display afterwards
    };
    const Step steps[] = {{"Right", Qt::Key_Right, 0.51},         {"Right", Qt::Key_Right, 0.52},
                          {"Left", Qt::Key_Left, 0.51},           {"Up", Qt::Key_Up, 0.52},
                          {"Page Down", Qt::Key_PageDown, 0.4575}, {"Page Up", Qt::Key_PageUp, 0.52},
                          {"End", Qt::Key_End, 1.0}};
    for (const Step& step : steps) {
        SCOPED_TRACE(step.name);
        QSignalSpy requests(&shown.controller, &DisplayController::displaysChanged);
        QTest::keyClick(slider, step.key);
        EXPECT_EQ(requests.count(), 1);
        EXPECT_NEAR(shown.controller.displays()[1].brightness, step.brightness, 1e-9);
        EXPECT_EQ(shown.controller.displays()[0].brightness, 0.5);
    }
}

TEST(PanelAccessibility, EveryControlHasANameAndTheSlidersAValueInPercent)
{
    Shown shown(desk(2, true));
    const QList<QWidget*> controls = shown.view()->findChildren<QWidget*>();
    int named = 0;
    for (QWidget* control : controls) {
        const bool interactive = (control->focusPolicy() & Qt::TabFocus) != 0;
        auto* label = qobject_cast<QLabel*>(control);
        const bool picture = label != nullptr && !label->pixmap().isNull();
        if (!control->isVisibleTo(shown.view()) || !(interactive || picture))
            continue;
        SCOPED_TRACE(describe(control).toStdString());
        QAccessibleInterface* accessible = QAccessible::queryAccessibleInterface(control);
        ASSERT_NE(accessible, nullptr);
        EXPECT_FALSE(accessible->text(QAccessible::Name).isEmpty());
        ++named;
    }
    EXPECT_EQ(named, 2 * 2 + 1 + 2 + 3 * 2);  // power and slider of each monitor, a slider, Refresh, Quit, suns

    QAccessibleInterface* power = QAccessible::queryAccessibleInterface(shown.row(1)->focusChain().first());
    EXPECT_EQ(power->text(QAccessible::Name), "Turn Monitor 2 off");
    EXPECT_EQ(power->role(), QAccessible::Button);

    auto* slider = shown.row(2)->findChild<QSlider*>(QStringLiteral("brightnessSlider"));
    QAccessibleInterface* accessible = QAccessible::queryAccessibleInterface(slider);
    EXPECT_EQ(accessible->role(), QAccessible::Slider);
    EXPECT_EQ(accessible->text(QAccessible::Name), "Brightness of Built-in Display");
    EXPECT_EQ(accessible->text(QAccessible::Value), QLocale().toString(80) + " %");
    QAccessibleValueInterface* value = accessible->valueInterface();
    ASSERT_NE(value, nullptr);
    EXPECT_EQ(value->currentValue().toInt(), 80);
    EXPECT_EQ(value->minimumValue().toInt(), 0);
    EXPECT_EQ(value->maximumValue().toInt(), 100);
    // A screen reader sets it too: through the controller.
    value->setCurrentValue(25);
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

    auto* quit = shown.view()->findChild<QPushButton*>(QStringLiteral("quitButton"));
    const QRect quitArea(quit->mapTo(&shown.panel, QPoint(0, 0)), quit->size());
    EXPECT_TRUE(shown.panel.rect().contains(quitArea));

    auto* area = shown.view()->findChild<QScrollArea*>(QStringLiteral("rowsArea"));
    ASSERT_NE(area, nullptr);
    EXPECT_GT(area->verticalScrollBar()->maximum(), 0);
    // Tab to the last row scrolls it into view.
    EXPECT_EQ(area->verticalScrollBar()->value(), 0);
    shown.row(19)->focusChain().last()->setFocus(Qt::TabFocusReason);
    QApplication::processEvents();
    EXPECT_EQ(area->verticalScrollBar()->value(), area->verticalScrollBar()->maximum());

}
