// The panel's brightness-key section, as the user sees and uses it: the switch, the warning and the button that
// asks for the keys, over a real service and lumora-keys on the virtual desk, whose authorization the tests
// control through the stand-in for polkit (refused at first).

#include <QAccessible>
#include <QApplication>
#include <QLabel>
#include <QPushButton>
#include <QTest>

#include <gtest/gtest.h>

#include <algorithm>

#include "HotkeysTestEnvironment.h"
#include "Lumora/App/DisplayController.h"
#include "Lumora/Hotkeys/HotkeyService.h"
#include "Lumora/UI/Divider.h"
#include "Lumora/UI/PopoverView.h"
#include "Lumora/UI/SwitchButton.h"
#include "tools/virtual-desk/VirtualDesk.h"

using namespace LumoraTest;
using Lumora::HotkeyService;
using Lumora::SwitchButton;

namespace {

const QString switchText = QStringLiteral("Use F1/F2 for external brightness");
const QString switchTip = QStringLiteral(
    "Remap the F1/F2 brightness keys to the external display you're working on. \u2325F1 blacks it out, \u2325F2 "
    "wakes it to full.");
const QString warningText = QStringLiteral("Needs Accessibility permission");
const QString buttonText = QStringLiteral("Open Accessibility Settings\u2026");
const QString buttonTip = QStringLiteral("Grant Accessibility so Lumora can see the F1/F2 keys");

bool orangeish(QRgb pixel)
{
    return qRed(pixel) > 200 && qGreen(pixel) > 100 && qGreen(pixel) < 190 && qBlue(pixel) < 80;
}

int orangePixels(const QImage& image)
{
    int count = 0;
    for (int y = 0; y < image.height(); ++y) {
        for (int x = 0; x < image.width(); ++x)
            count += orangeish(image.pixel(x, y)) ? 1 : 0;
    }
    return count;
}

// The whole panel with its section, over a controller without displays.
class SettingsSection : public ::testing::Test {
protected:
    void SetUp() override
    {
        removeSetting();
        keyBus->useDesk();
        keyBus->allow(false);
        keyBus->forgetAuthorizationChecks();
    }
    void TearDown() override
    {
        view.reset();
        service.reset();
        EXPECT_TRUE(pumpUntil([] { return !keyBus->serviceRunning(); }, 10s));
    }
    // The checks polkit was asked for that could ask the user for a password.
    static std::size_t asked()
    {
        const std::vector<bool> checks = keyBus->authorizationChecks();
        return std::size_t(std::count(checks.begin(), checks.end(), true));
    }

    void open()
    {
        service = std::make_unique<HotkeyService>(controller);
        view = std::make_unique<Lumora::PopoverView>(controller, *service);
        view->show();
        view->adjustSize();
        ASSERT_TRUE(QTest::qWaitForWindowExposed(view.get()));
        toggle = view->findChild<SwitchButton*>(QStringLiteral("hotkeySwitch"));
        permission = view->findChild<QWidget*>(QStringLiteral("hotkeyPermission"));
        button = view->findChild<QPushButton*>(QStringLiteral("hotkeyOpenSettings"));
        ASSERT_NE(toggle, nullptr);
        ASSERT_NE(permission, nullptr);
        ASSERT_NE(button, nullptr);
    }

    bool warningShown() const { return permission->isVisibleTo(view.get()); }
    // The height the panel asks for, once its layout has followed the last change.
    int height() const
    {
        QApplication::processEvents();
        return view->sizeHint().height();
    }
    QImage picture() const
    {
        view->adjustSize();
        QApplication::processEvents();
        return view->grab().toImage();
    }
    // The colour in the middle of the switch's track.
    QColor track() const
    {
        const QImage image = toggle->grab().toImage();
        const QRect t = toggle->trackRect();
        const qreal ratio = image.devicePixelRatio();
        return image.pixelColor(int((t.left() + 3) * ratio), int(t.center().y() * ratio));
    }
    void click(QWidget* widget) { QTest::mouseClick(widget, Qt::LeftButton, {}, widget->rect().center()); }

    VirtualDesk::Desk desk{VirtualDesk::DeskConfig::defaultDesk()};
    Lumora::DisplayController controller{[] { return std::vector<Lumora::DisplayInfo>{}; }};
    std::unique_ptr<HotkeyService> service;
    std::unique_ptr<Lumora::PopoverView> view;
    SwitchButton* toggle = nullptr;
    QWidget* permission = nullptr;
    QPushButton* button = nullptr;
};

}  // namespace

TEST_F(SettingsSection, OffShowsTheSwitchAloneBetweenTheDividers)
{
    open();
    EXPECT_EQ(toggle->text(), switchText);
    EXPECT_EQ(toggle->toolTip(), switchTip);
    EXPECT_FALSE(toggle->isChecked());
    EXPECT_FALSE(warningShown());
    EXPECT_EQ(orangePixels(picture()), 0);

    std::vector<int> dividers;
    for (const Lumora::Divider* line : view->findChildren<Lumora::Divider*>())
        dividers.push_back(line->mapTo(view.get(), QPoint(0, 0)).y());
    ASSERT_EQ(dividers.size(), 2u);
    std::sort(dividers.begin(), dividers.end());
    const int top = toggle->mapTo(view.get(), QPoint(0, 0)).y();
    EXPECT_GT(top, dividers[0]);
    EXPECT_LT(top + toggle->height(), dividers[1]);

    // Screen readers: a check box named after its label, unchecked.
    QAccessibleInterface* accessible = QAccessible::queryAccessibleInterface(toggle);
    ASSERT_NE(accessible, nullptr);
    EXPECT_EQ(accessible->role(), QAccessible::CheckBox);
    EXPECT_EQ(accessible->text(QAccessible::Name), switchText);
    EXPECT_FALSE(accessible->state().checked);
}

TEST_F(SettingsSection, SwitchingOnWithoutAccessWarnsAtOnceAndSwitchingOffHidesIt)
{
    open();
    const QColor offTrack = track();
    const int closedHeight = height();

    click(toggle);
    EXPECT_TRUE(toggle->isChecked());
    EXPECT_EQ(storedSetting(), QStringLiteral("true"));
    ASSERT_TRUE(pumpUntil([&] { return warningShown(); }, 5s));
    EXPECT_NE(track(), offTrack);
    EXPECT_GT(height(), closedHeight) << "the warning takes room in the panel";
    EXPECT_GT(orangePixels(picture()), 20) << "the warning is drawn in orange";
    EXPECT_EQ(view->findChild<QLabel*>(QStringLiteral("hotkeyWarning"))->text(), warningText);
    EXPECT_EQ(button->text(), buttonText);
    EXPECT_EQ(button->toolTip(), buttonTip);
    EXPECT_EQ(QAccessible::queryAccessibleInterface(button)->text(QAccessible::Name), buttonText);
    EXPECT_TRUE(QAccessible::queryAccessibleInterface(toggle)->state().checked);
    ASSERT_TRUE(pumpUntil([] { return asked() == 1; }, 5s));

    // The button asks again and leaves the section as it is.
    click(button);
    ASSERT_TRUE(pumpUntil([] { return asked() == 2; }, 5s));
    EXPECT_TRUE(warningShown());

    click(toggle);
    EXPECT_FALSE(toggle->isChecked());
    EXPECT_EQ(storedSetting(), QStringLiteral("false"));
    EXPECT_FALSE(warningShown());
    EXPECT_TRUE(pumpUntil([&] { return height() == closedHeight; }, 2s)) << height() << " against " << closedHeight;
    EXPECT_EQ(orangePixels(picture()), 0);
    EXPECT_EQ(track(), offTrack);
}

TEST_F(SettingsSection, TheWarningGoesByItselfOnceAccessIsGranted)
{
    storeSetting(true);
    open();
    EXPECT_TRUE(toggle->isChecked()) << "the switch shows the stored setting from the start";
    ASSERT_TRUE(warningShown());
    pumpUntil([] { return false; }, 300ms);
    EXPECT_EQ(asked(), 0u) << "a launch never lets polkit ask";

    keyBus->allow(true);
    keyBus->authorizationsChanged();
    EXPECT_TRUE(pumpUntil([&] { return !warningShown(); }, 5s));
    EXPECT_TRUE(toggle->isChecked());
    EXPECT_EQ(orangePixels(picture()), 0);
}

TEST_F(SettingsSection, OnWithAccessShowsTheSwitchOnAlone)
{
    keyBus->allow(true);
    open();
    click(toggle);
    EXPECT_TRUE(toggle->isChecked());
    EXPECT_TRUE(pumpUntil([&] { return service->isTrusted() && !warningShown(); }, 5s));
    // The space bar flips it too, once it has the focus.
    toggle->setFocus();
    QTest::keyClick(toggle, Qt::Key_Space);
    EXPECT_FALSE(toggle->isChecked());
    EXPECT_EQ(storedSetting(), QStringLiteral("false"));
}
