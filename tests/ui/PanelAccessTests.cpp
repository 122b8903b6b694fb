// The panel without a mouse and for assistive technology, and its looks following the desktop: Tab walks every
// control in order, the focused slider steps under the arrow and Page keys (each step a brightness request),
// Escape dismisses; every control has an accessible name and the sliders a value in percent; a switch of palette
// re-derives every colour; with many displays the rows scroll under a height limit and the footer stays in view.

#include <QAccessible>
#include <QAccessibleValueInterface>
#include <QApplication>
#include <QLabel>
#include <QPushButton>
#include <QScrollArea>
#include <QScrollBar>
#include <QSignalSpy>
#include <QSlider>
#include <QTest>
#include <QToolButton>

#include <gtest/gtest.h>

#include <cmath>

#include "Lumora/App/DisplayController.h"
#include "Lumora/App/PopoverPanel.h"
#include "Lumora/UI/Divider.h"
#include "Lumora/UI/DisplayRow.h"
#include "Lumora/UI/PopoverView.h"
#include "Lumora/UI/Style.h"
#include "TestDisplays.h"

using namespace Lumora;
using LumoraTest::desk;

namespace {

// The panel as the application builds it, over a real controller, refreshed once and shown.
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
    DisplayRow* row(int index) const { return LumoraTest::rowsOf(*view()).at(index); }

    const std::vector<DisplayInfo> displays;
    DisplayController controller{[this] { return displays; }};
    PopoverPanel panel{new PopoverView(controller)};
};

QString describe(QWidget* widget)
{
    if (widget == nullptr) {
        return QStringLiteral("none");
    }
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

TEST(PanelKeyboard, EscapeAsksToDismissThePanel)
{
    Shown shown(desk(1, false));
    QSignalSpy dismissed(&shown.panel, &PopoverPanel::dismissRequested);
    QTest::keyClick(shown.row(0)->focusChain().last(), Qt::Key_Escape);
    EXPECT_EQ(dismissed.count(), 1);
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
        if (!control->isVisibleTo(shown.view()) || !(interactive || picture)) {
            continue;
        }
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

namespace {

// The colour of the most opaque pixel of an icon, as drawn.
QColor inkOf(const QIcon& icon)
{
    const QImage image = icon.pixmap(QSize(16, 16)).toImage().convertToFormat(QImage::Format_ARGB32);
    QColor ink(Qt::transparent);
    for (int y = 0; y < image.height(); ++y) {
        for (int x = 0; x < image.width(); ++x) {
            const QColor pixel = image.pixelColor(x, y);
            if (pixel.alpha() > ink.alpha()) {
                ink = pixel;
            }
        }
    }
    return ink;
}

bool near(const QColor& a, const QColor& b)
{
    return std::abs(a.red() - b.red()) <= 8 && std::abs(a.green() - b.green()) <= 8 &&
           std::abs(a.blue() - b.blue()) <= 8;
}

}  // namespace

TEST(PanelLooks, ASwitchOfPaletteReDerivesTheNoteTheDividersAndTheSymbols)
{
    const QPalette original = QApplication::palette();
    Shown shown(desk(1, false));
    auto* note = shown.view()->findChild<QLabel*>(QStringLiteral("emptyNote"));
    auto* refresh = shown.view()->findChild<QToolButton*>(QStringLiteral("refreshButton"));
    auto* power = shown.row(0)->findChild<QToolButton*>(QStringLiteral("powerButton"));
    auto* sun = shown.row(0)->findChild<QLabel*>(QStringLiteral("brighterSymbol"));
    auto* divider = shown.view()->findChild<Divider*>();

    for (const bool dark : {true, false}) {
        SCOPED_TRACE(dark ? "dark" : "light");
        QPalette palette = original;
        const QColor text = dark ? QColor(0xEE, 0xEE, 0xEE) : QColor(0x20, 0x20, 0x20);
        palette.setColor(QPalette::Window, dark ? QColor(0x30, 0x30, 0x30) : QColor(0xF4, 0xF4, 0xF4));
        palette.setColor(QPalette::WindowText, text);
        palette.setColor(QPalette::ButtonText, text);
        QApplication::setPalette(palette);
        QApplication::processEvents();

        EXPECT_EQ(note->palette().color(QPalette::WindowText), Style::secondary(*shown.view()));
        EXPECT_EQ(note->palette().color(QPalette::WindowText).rgb(), text.rgb());
        EXPECT_EQ(divider->color().rgb(), text.rgb());
        EXPECT_TRUE(near(inkOf(refresh->icon()), text)) << inkOf(refresh->icon()).name().toStdString();
        EXPECT_TRUE(near(inkOf(power->icon()), text)) << inkOf(power->icon()).name().toStdString();
        EXPECT_TRUE(near(inkOf(QIcon(sun->pixmap())), text)) << inkOf(QIcon(sun->pixmap())).name().toStdString();
    }
    QApplication::setPalette(original);
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

    // Without a limit, the panel is as tall as its rows.
    shown.view()->setHeightLimit(0);
    shown.panel.fitContent();
    EXPECT_GT(shown.panel.height(), 20 * 40);
}
