// SPDX-License-Identifier: GPL-3.0-or-later
// The brightness keys through the key service on the virtual desk, for what the desktop end-to-end test
// (display-in-use.sh) does not show: Alt held on another keyboard, keys typed while a brightness key is being
// decided, a keyboard with a key held when it is to be taken, lost events, keyboards plugged in later, switching
// off, a client that never answers, and either end dying in the middle of a press. lumora-keys (started by the test's system bus) over the desk's emulated keyboards and
// uinput, the real HotkeyService and controller over its emulated monitors, on an offscreen desktop whose screens
// stand where the desk's connectors do (eDP-1 0-1920, the DELL on DP-1 1920-4480, the LG on HDMI-A-1
// 4480-6400); no window is focused there, so the cursor picks the display.

#include <QCursor>
#include <QDBusConnection>
#include <QDBusConnectionInterface>
#include <QDBusMessage>
#include <QDBusUnixFileDescriptor>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <linux/input.h>

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/socket.h>
#include <unistd.h>


#include "HotkeysTestEnvironment.h"
#include "Lumora/App/DisplayController.h"
#include "Lumora/Hotkeys/HotkeyService.h"
#include "LumoraCore/KeyProtocol.h"

using namespace LumoraTest;
using Lumora::HotkeyService;
using ::testing::ElementsAre;
using ::testing::IsEmpty;

namespace {

const std::string dell = "card0-DP-1";
const QPoint onDell(3000, 700);
const QPoint onPanel(900, 600);

// An event as the clone got it, without its time.
struct Key {
    std::uint16_t type, code;
    std::int32_t value;
    bool operator==(const Key&) const = default;
    friend void PrintTo(const Key& k, std::ostream* out) { *out << "{" << k.type << "," << k.code << "," << k.value << "}"; }
};

// The frame the desk sends for a key on a device with scan codes, as its clone must pass it on: MSC_SCAN (any
// value), the key, SYN_REPORT.
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

// A client of the key service that is not Lumora: it attaches as Lumora does, then reads and answers only when the
// test says so.
struct RawClient {
    int socket = -1;

    RawClient()
    {
        int pair[2];
        EXPECT_EQ(::socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, pair), 0);
        socket = pair[0];
        QDBusMessage call = QDBusMessage::createMethodCall(QStringLiteral("org.lumora.Keys"), QStringLiteral("/org/lumora/Keys"),
                                                           QStringLiteral("org.lumora.Keys1"), QStringLiteral("Attach"));
        call << QVariant::fromValue(QDBusUnixFileDescriptor(pair[1])) << false;
        ::close(pair[1]);
        const QDBusMessage reply = QDBusConnection::systemBus().call(call, QDBus::Block, 30'000);
        EXPECT_EQ(reply.type(), QDBusMessage::ReplyMessage) << reply.errorMessage().toStdString();
    }
    ~RawClient() { hangUp(); }

    std::optional<Lumora::KeyProtocol::Press> nextPress(std::chrono::milliseconds within = 5s) const
    {
        pollfd p{socket, POLLIN, 0};
        if (::poll(&p, 1, int(within.count())) != 1)
            return std::nullopt;
        std::uint8_t buffer[Lumora::KeyProtocol::messageSize];
        const ssize_t n = ::recv(socket, buffer, sizeof buffer, 0);
        if (n != ssize_t(sizeof buffer))
            return std::nullopt;
        return Lumora::KeyProtocol::decodePress(buffer);
    }

    void hangUp()
    {
        if (socket >= 0)
            ::close(socket);
        socket = -1;
    }
};

pid_t servicePid()
{
    return pid_t(QDBusConnection::systemBus().interface()->servicePid(QStringLiteral("org.lumora.Keys")).value());
}

class KeysOnDesk : public ::testing::Test {
protected:
    void SetUp() override
    {
        keyBus->useDesk();
        storeSetting(true);
        controller = std::make_unique<Lumora::DisplayController>();
        watch.emplace(*controller);
        ASSERT_TRUE(watch->refreshAndWait());
        start();
    }

    void TearDown() override
    {
        service.reset();
        controller.reset();
        EXPECT_TRUE(desk.waitFor([&] { return released(); }, 5s)) << "twins outlived the test";
        // The service leaves once idle, so that the next test's desk gets a service of its own.
        EXPECT_TRUE(pumpUntil([] { return !keyBus->serviceRunning(); }, 10s));
        desk.releaseAll();
        EXPECT_THAT(desk.violations(), IsEmpty());
    }

    void start()
    {
        service = std::make_unique<HotkeyService>(*controller);
        ASSERT_TRUE(pumpUntil([&] { return desk.clones().size() == 3 && service->isTrusted(); }, 10s));
    }

    bool released() const { return LumoraTest::released(desk); }

    // The clone that stands for a keyboard: the virtual device with its name.
    std::string cloneOf(const std::string& keyboard) const
    {
        for (const std::string& clone : desk.clones())
            if (nameOf(clone) == nameOf(keyboard))
                return clone;
        return {};
    }

    std::vector<Key> passedOn(const std::string& keyboard) const
    {
        std::vector<Key> keys;
        for (const VirtualDesk::InputEvent& e : desk.forwarded(cloneOf(keyboard)))
            keys.push_back({e.type, e.code, e.value});
        return keys;
    }

    // Runs the event loop (where the service decides) until the clone of `keyboard` has been given `count`
    // events; false when it got fewer, or more.
    bool passedOnCount(const std::string& keyboard, std::size_t count)
    {
        const std::string clone = cloneOf(keyboard);
        return pumpUntil([&] { return desk.forwarded(clone).size() >= count; }, 5s) &&
               desk.forwarded(clone).size() == count;
    }

    // Runs the event loop (the service decides there) until the monitor shows that raw brightness on the wire.
    bool dellAt(int raw) { return pumpUntil([&] { return desk.brightness(dell) == raw; }, 5s); }

    void press(const std::string& keyboard, int code)
    {
        desk.pressKey(keyboard, code, 1);
        desk.pressKey(keyboard, code, 0);
    }

    VirtualDesk::Desk desk{VirtualDesk::DeskConfig::defaultDesk()};
    std::unique_ptr<Lumora::DisplayController> controller;
    std::optional<Watch> watch;
    std::unique_ptr<HotkeyService> service;
};

}  // namespace

TEST_F(KeysOnDesk, AltHeldOnTheSameKeyboardsOtherInterfaceIsOption)
{
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
    ASSERT_TRUE(passedOnCount(consumer, 6));
    EXPECT_THAT(passedOn(consumer), framesOf({{KEY_MUTE, 1}, {KEY_MUTE, 0}}))
        << "a consumed press's key-up stays back with it";
}

TEST_F(KeysOnDesk, KeysTypedRightAfterABrightnessKeyWaitBehindIt)
{
    // Typed in one go: the letters after a brightness key must not overtake it while it is being decided.
    QCursor::setPos(onPanel);
    press(laptop, KEY_BRIGHTNESSDOWN);
    press(laptop, KEY_X);
    ASSERT_TRUE(passedOnCount(laptop, 3 * 4));
    QCursor::setPos(onDell);
    press(laptop, KEY_BRIGHTNESSUP);
    press(laptop, KEY_Y);
    ASSERT_TRUE(passedOnCount(laptop, 3 * 6));
    EXPECT_THAT(passedOn(laptop), framesOf({{KEY_BRIGHTNESSDOWN, 1}, {KEY_BRIGHTNESSDOWN, 0}, {KEY_X, 1}, {KEY_X, 0},
                                            {KEY_Y, 1}, {KEY_Y, 0}}));
}

TEST_F(KeysOnDesk, AKeyboardIsTakenOnlyOnceNoKeyIsHeldOnIt)
{
    service.reset();
    ASSERT_TRUE(desk.waitFor([&] { return desk.clones().empty(); }, 5s));
    desk.pressKey(laptop, KEY_LEFTCTRL, 1);  // held while Lumora starts
    service = std::make_unique<HotkeyService>(*controller);
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
    ASSERT_TRUE(dellAt(56));
    const std::string clone = cloneOf(second);
    desk.removeKeyboard(second);
    ASSERT_TRUE(desk.waitFor([&] { return desk.clones().size() == 3; }, 5s));
    EXPECT_THAT(desk.clones(), ::testing::Not(::testing::Contains(clone)));
}

TEST_F(KeysOnDesk, AClientThatNeverAnswersCostsOneKeyTheBoundNotTheKeyboard)
{
    service.reset();
    ASSERT_TRUE(desk.waitFor([&] { return released(); }, 5s));
    RawClient silent;
    ASSERT_TRUE(desk.waitFor([&] { return desk.grabbed(laptop); }, 5s));
    const std::int64_t pressed = desk.nowUs();
    desk.pressKey(laptop, KEY_BRIGHTNESSUP, 1);
    desk.pressKey(laptop, KEY_K, 1);
    const auto press = silent.nextPress();
    ASSERT_TRUE(press.has_value());
    EXPECT_EQ(press->event.code, KEY_BRIGHTNESSUP);
    ASSERT_TRUE(desk.waitFor([&] { return desk.forwarded().size() >= 6; }, 5s));
    const auto events = desk.forwarded();
    EXPECT_GE(events.front().us - pressed, 240'000) << "passed on before the bound";
    EXPECT_EQ(events[1].code, KEY_BRIGHTNESSUP) << "the key goes on, and the letter typed behind it after it";
    EXPECT_EQ(events[4].code, KEY_K);
    // A late answer for it changes nothing; the keys that are not brightness keys go on at once.
    const auto late = Lumora::KeyProtocol::encode(Lumora::KeyProtocol::Decision{press->id, true});
    EXPECT_EQ(::send(silent.socket, late.data(), late.size(), MSG_NOSIGNAL), ssize_t(late.size()));
    desk.pressKey(laptop, KEY_K, 0);
    desk.pressKey(laptop, KEY_BRIGHTNESSUP, 0);
    ASSERT_TRUE(desk.waitFor([&] { return desk.forwarded().size() >= 12; }, 5s));
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
    const pid_t keys = servicePid();
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
