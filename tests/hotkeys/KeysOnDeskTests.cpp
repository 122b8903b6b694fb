// SPDX-License-Identifier: GPL-3.0-or-later
// The brightness keys through lumora-keys on the virtual desk, for what display-in-use.sh does not show. No window
// is focused: the cursor picks the display.

#include <QCursor>
#include <QDBusConnection>
#include <QDBusConnectionInterface>
#include <gmock/gmock.h>
#include <linux/input.h>
#include <signal.h>
#include <unistd.h>
#include "HotkeysTestEnvironment.h"

using namespace LumoraTest;
using ::testing::ElementsAre;
using ::testing::IsEmpty;

namespace {

const std::string dell = "card0-DP-1";
const QPoint onDell(3000, 700);
const QPoint onPanel(900, 600);

// The desk's frames for `keys` as a twin must pass them on: MSC_SCAN (any value), the key, SYN_REPORT.
::testing::Matcher<const std::vector<Key>&> framesOf(const std::vector<std::pair<int, int>>& keys)
{
    std::vector<::testing::Matcher<const Key&>> events;
    for (const auto& [code, value] : keys) {
        events.push_back(::testing::Field(&Key::type, EV_MSC));
        events.push_back(Key{EV_KEY, std::uint16_t(code), value});
        events.push_back(Key{EV_SYN, SYN_REPORT, 0});
    }
    return ::testing::ElementsAreArray(events);
}

class KeysOnDesk : public KeysTest {
protected:
    void SetUp() override
    {
        KeysTest::SetUp();
        storeSetting(true);
        controller = std::make_unique<Lumora::DisplayController>();
        ASSERT_TRUE(watch.emplace(*controller).refreshAndWait());
        start();
        ASSERT_TRUE(pumpUntil([&] { return desk.clones().size() == 3 && service->isTrusted(); }, 10s));
    }
    // Runs the event loop (the service decides there) until the clone of `keyboard` has `count` events; false when
    // it got fewer, or more.
    bool passedOnCount(const std::string& keyboard, std::size_t count)
    {
        const std::string clone = cloneOf(keyboard);
        return pumpUntil([&] { return desk.forwarded(clone).size() >= count; }, 5s) && desk.forwarded(clone).size() == count;
    }
    bool dellAt(int raw) { return pumpUntil([&] { return desk.brightness(dell) == raw; }, 10s); }
    void press(const std::string& keyboard, int code) { desk.pressKey(keyboard, code, 1), desk.pressKey(keyboard, code, 0); }

    std::optional<Watch> watch;
};

}  // namespace

TEST_F(KeysOnDesk, AltHeldOnTheSameKeyboardsOtherInterfaceIsOption)
{
    QCursor::setPos(onPanel);  // the laptop's own panel: the key goes on to the desktop
    press(consumer, KEY_BRIGHTNESSDOWN);
    ASSERT_TRUE(passedOnCount(consumer, 6));
    QCursor::setPos(onDell);
    // Alt on the external keyboard's main interface (not taken), the key on its consumer-control interface.
    desk.pressKey(external, KEY_LEFTALT, 1);
    press(consumer, KEY_BRIGHTNESSDOWN);
    ASSERT_TRUE(pumpUntil([&] { return desk.powerMode(dell) == 4; }, 5s)) << "standby, not a step down";
    desk.pressKey(external, KEY_LEFTALT, 0);
    EXPECT_EQ(desk.brightness(dell), 50) << "standby writes no brightness";
    press(consumer, KEY_BRIGHTNESSUP);
    ASSERT_TRUE(pumpUntil([&] { return desk.powerMode(dell) == 1 && desk.brightness(dell) == 6; }, 10s))
        << "without Alt: awake at one sixteenth up from the 0 shown in standby";
    press(consumer, KEY_MUTE);  // goes on, behind anything still held back
    ASSERT_TRUE(passedOnCount(consumer, 12));
    EXPECT_THAT(passedOn(consumer), framesOf({{KEY_BRIGHTNESSDOWN, 1}, {KEY_BRIGHTNESSDOWN, 0}, {KEY_MUTE, 1}, {KEY_MUTE, 0}}))
        << "a consumed press's key-up stays back with it";
}

TEST_F(KeysOnDesk, AKeyboardIsTakenOnlyOnceNoKeyIsHeldOnIt)
{
    service.reset();
    ASSERT_TRUE(desk.waitFor([&] { return desk.clones().empty(); }, 5s));
    desk.pressKey(laptop, KEY_LEFTCTRL, 1);  // held while Lumora starts
    start();
    ASSERT_TRUE(desk.waitFor([&] { return desk.clones().size() == 3 && desk.grabbed(consumer); }, 5s));
    EXPECT_FALSE(desk.grabbed(laptop)) << "taking it now would leave Ctrl down on the desktop for good";
    desk.pressKey(laptop, KEY_LEFTCTRL, 0);  // the desktop gets this from the keyboard itself
    ASSERT_TRUE(desk.waitFor([&] { return desk.grabbed(laptop); }, 5s));
    press(laptop, KEY_Z);
    ASSERT_TRUE(passedOnCount(laptop, 6));
    EXPECT_THAT(passedOn(laptop), framesOf({{KEY_Z, 1}, {KEY_Z, 0}}));
}

TEST_F(KeysOnDesk, LostEventsAreRecoveredFromTheKeyboardsState)
{
    desk.pressKey(laptop, KEY_Q, 1);
    ASSERT_TRUE(passedOnCount(laptop, 3));
    desk.overflow(laptop);
    desk.pressKey(laptop, KEY_Q, 0);  // lost with the overflow: the clone learns it from the keyboard's state
    ASSERT_TRUE(pumpUntil([&] { return desk.heldKeys(cloneOf(laptop)).empty(); }, 5s)) << "Q stays down";
    press(laptop, KEY_W);
    ASSERT_TRUE(pumpUntil([&] { return passedOn(laptop).size() >= 3 + 2 + 6; }, 5s));
    // Q comes up as the state says (no scan code: it was never read), then W as typed.
    const std::vector<Key> keys = passedOn(laptop);
    EXPECT_THAT(std::vector<Key>(keys.begin() + 3, keys.end()),
                ElementsAre(Key{EV_KEY, KEY_Q, 0}, Key{EV_SYN, SYN_REPORT, 0}, ::testing::Field(&Key::type, EV_MSC),
                            Key{EV_KEY, KEY_W, 1}, Key{EV_SYN, SYN_REPORT, 0}, ::testing::Field(&Key::type, EV_MSC),
                            Key{EV_KEY, KEY_W, 0}, Key{EV_SYN, SYN_REPORT, 0}));
}

TEST_F(KeysOnDesk, KeyboardsPluggedInLaterAreTakenAndTheirClonesGoWithThem)
{
    // A second seat's keyboard comes first: its user types into another session, which a twin would not reach.
    const std::string otherSeat =
        desk.addKeyboard({"Seat Two Keyboard Consumer Control", "consumer", -1, "0660", std::nullopt, {}, "seat1"});
    const std::string second =
        desk.addKeyboard({"Keychron K2 Consumer Control", "consumer", -1, "0660", std::nullopt, {}});
    desk.setAccess(second, "0660");  // as udev does once the node is there: its group, mode and access list
    ASSERT_TRUE(desk.waitFor([&] { return desk.grabbed(second) && desk.clones().size() == 4; }, 5s));
    EXPECT_FALSE(desk.grabbed(otherSeat));
    EXPECT_EQ(desk.openCount(otherSeat), 0) << "another seat's keyboard is not even looked at";
    QCursor::setPos(onDell);
    press(second, KEY_BRIGHTNESSUP);
    ASSERT_TRUE(dellAt(56)) << desk.forwarded(cloneOf(second)).size() << " events of it passed on to the desktop";
    const std::string clone = cloneOf(second);
    desk.removeKeyboard(second);
    ASSERT_TRUE(desk.waitFor([&] { return desk.clones().size() == 3; }, 5s));
    EXPECT_THAT(desk.clones(), ::testing::Not(::testing::Contains(clone)));
}

TEST_F(KeysOnDesk, AClientThatNeverAnswersCostsOneKeyTheBoundNotTheKeyboard)
{
    // The event loop does not run while the desk is watched: Lumora reads the press only later, too late.
    const std::int64_t pressed = desk.nowUs();
    desk.pressKey(laptop, KEY_BRIGHTNESSUP, 1);
    desk.pressKey(laptop, KEY_K, 1);
    ASSERT_TRUE(desk.waitFor([&] { return desk.forwarded().size() >= 6; }, 5s));
    const auto events = desk.forwarded();
    EXPECT_GE(events.front().us - pressed, 240'000) << "passed on before the bound";
    EXPECT_EQ(events[1].code, KEY_BRIGHTNESSUP) << "the key goes on, and the letter typed behind it after it";
    EXPECT_EQ(events[4].code, KEY_K);
    // Its late answer changes nothing; the keys that are not brightness keys go on at once.
    desk.pressKey(laptop, KEY_K, 0);
    desk.pressKey(laptop, KEY_BRIGHTNESSUP, 0);
    ASSERT_TRUE(passedOnCount(laptop, 12));
    EXPECT_THAT(desk.heldKeys(cloneOf(laptop)), IsEmpty());
}

// (Lumora's end dying: display-in-use.sh.)
TEST_F(KeysOnDesk, TheServiceDyingInTheMiddleOfAPressLeavesNothingHeldOrTaken)
{
    QCursor::setPos(onDell);
    // Killed: the kernel releases its grabs and destroys its twins with the keys held on them.
    const std::vector<std::string> twins = desk.clones();
    desk.pressKey(laptop, KEY_BRIGHTNESSUP, 1);
    ASSERT_TRUE(dellAt(56));
    const auto keys = pid_t(QDBusConnection::systemBus().interface()->servicePid(QStringLiteral("org.lumora.Keys")).value());
    ASSERT_GT(keys, 0);
    desk.releaseAll();  // the service may wait in an emulated call, where only SIGKILL reaches it
    ::kill(keys, SIGKILL);
    ASSERT_TRUE(pumpUntil([&] { return released() && !service->isTrusted(); }, 10s));
    for (const std::string& twin : twins)
        EXPECT_THAT(desk.heldKeys(twin), IsEmpty()) << twin;
    desk.pressKey(laptop, KEY_BRIGHTNESSUP, 0);
    // Lumora asks again and the bus starts a new service.
    ASSERT_TRUE(pumpUntil([&] { return desk.clones().size() == 3 && service->isTrusted(); }, 10s));
}
