// SPDX-License-Identifier: GPL-3.0-or-later
// The panel's brightness-key section as the user sees and uses it, polkit refusing at first. (The warning at a
// launch, in orange, and its going once polkit allows: display-in-use.sh.)

#include <QAccessible>
#include <QApplication>
#include <QLabel>
#include <QPushButton>
#include <QTest>
#include <algorithm>
#include "HotkeysTestEnvironment.h"
#include "Lumora/UI/Divider.h"
#include "Lumora/UI/PopoverView.h"
#include "Lumora/UI/SwitchButton.h"

using namespace LumoraTest;
using SettingsSection = KeysTest;

TEST_F(SettingsSection, SwitchedOnWithoutAccessItWarnsAndAsksUntilAccessComes)
{
    keyBus->allow(false);
    start();
    auto view = std::make_unique<Lumora::PopoverView>(*controller, *service);
    view->show();
    view->adjustSize();
    ASSERT_TRUE(QTest::qWaitForWindowExposed(view.get()));
    auto* toggle = view->findChild<Lumora::SwitchButton*>(QStringLiteral("hotkeySwitch"));
    auto* permission = view->findChild<QWidget*>(QStringLiteral("hotkeyPermission"));
    auto* button = view->findChild<QPushButton*>(QStringLiteral("hotkeyOpenSettings"));
    ASSERT_TRUE(toggle && permission && button);
    const auto warningShown = [&] { return permission->isVisibleTo(view.get()); };
    // The checks polkit was asked for that could ask the user for a password.
    const auto asked = [] { return std::ranges::count(keyBus->authorizationChecks(), true); };
    // The height the panel asks for, once its layout has followed the last change.
    const auto height = [&] { QApplication::processEvents(); return view->sizeHint().height(); };
    const auto track = [&] {  // the colour in the middle of the switch's track
        const QImage image = toggle->grab().toImage();
        const QPointF middle(toggle->trackRect().left() + 3, toggle->trackRect().center().y());
        return image.pixelColor((middle * image.devicePixelRatio()).toPoint());
    };
    const auto click = [](QWidget* widget) { QTest::mouseClick(widget, Qt::LeftButton, {}, widget->rect().center()); };
    // Off: the switch alone between the dividers; for screen readers a check box named after its label.
    EXPECT_EQ(toggle->text(), QStringLiteral("Use F1/F2 for external brightness"));
    EXPECT_EQ(toggle->toolTip(), QStringLiteral("Remap the F1/F2 brightness keys to the external display you're "
                                                "working on. \u2325F1 blacks it out, \u2325F2 wakes it to full."));
    EXPECT_FALSE(toggle->isChecked());
    EXPECT_FALSE(warningShown());
    const QList<Lumora::Divider*> dividers = view->findChildren<Lumora::Divider*>();
    ASSERT_EQ(dividers.size(), 2);
    const auto [above, below] = std::minmax({dividers[0]->mapTo(view.get(), QPoint()).y(), dividers[1]->mapTo(view.get(), QPoint()).y()});
    const int top = toggle->mapTo(view.get(), QPoint()).y();
    EXPECT_TRUE(above < top && top + toggle->height() < below) << above << " < " << top << " < " << below;
    QAccessibleInterface* accessible = QAccessible::queryAccessibleInterface(toggle);
    EXPECT_EQ(accessible->role(), QAccessible::CheckBox);
    EXPECT_EQ(accessible->text(QAccessible::Name), toggle->text());
    EXPECT_FALSE(accessible->state().checked);
    const QColor offTrack = track();
    const int closedHeight = height();
    // Switched on without access: stored, the warning at once, and polkit may ask.
    click(toggle);
    EXPECT_TRUE(toggle->isChecked());
    EXPECT_EQ(storedSetting(), QStringLiteral("true"));
    ASSERT_TRUE(pumpUntil(warningShown, 5s));
    EXPECT_NE(track(), offTrack);
    EXPECT_GT(height(), closedHeight) << "the warning takes room in the panel";
    EXPECT_EQ(view->findChild<QLabel*>(QStringLiteral("hotkeyWarning"))->text(), QStringLiteral("Needs Accessibility permission"));
    EXPECT_EQ(button->text(), QStringLiteral("Open Accessibility Settings\u2026"));
    EXPECT_EQ(button->toolTip(), QStringLiteral("Grant Accessibility so Lumora can see the F1/F2 keys"));
    EXPECT_EQ(QAccessible::queryAccessibleInterface(button)->text(QAccessible::Name), button->text());
    EXPECT_TRUE(accessible->state().checked);
    ASSERT_TRUE(pumpUntil([&] { return asked() == 1; }, 5s));
    // The button asks again and leaves the section as it is.
    click(button);
    ASSERT_TRUE(pumpUntil([&] { return asked() == 2; }, 5s));
    EXPECT_TRUE(warningShown());
    // Switched off: the warning goes, the panel shrinks back.
    click(toggle);
    EXPECT_FALSE(toggle->isChecked());
    EXPECT_EQ(storedSetting(), QStringLiteral("false"));
    EXPECT_FALSE(warningShown());
    EXPECT_TRUE(pumpUntil([&] { return height() == closedHeight; }, 2s)) << height() << " against " << closedHeight;
    EXPECT_EQ(track(), offTrack);
    // With access, on by the space bar once it has the focus: no warning.
    ASSERT_TRUE(pumpUntil([] { return !keyBus->serviceRunning(); }, 10s));
    keyBus->allow(true);
    toggle->setFocus();
    QTest::keyClick(toggle, Qt::Key_Space);
    EXPECT_TRUE(toggle->isChecked());
    EXPECT_TRUE(pumpUntil([&] { return service->isTrusted(); }, 10s));
    EXPECT_FALSE(warningShown());
    view.reset();
}
