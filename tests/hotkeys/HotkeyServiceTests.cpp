// SPDX-License-Identifier: GPL-3.0-or-later
// The brightness keys' service over the stored setting, polkit and logind's active session: what a launch and a
// switch store and publish, which devices are taken and how their twins start. (A later grant: display-in-use.sh.)

#include <fcntl.h>
#include <linux/uinput.h>
#include <sys/ioctl.h>
#include <unistd.h>
#include <cstring>
#include "HotkeysTestEnvironment.h"

using namespace LumoraTest;
using Lumora::HotkeyService;
using Log = std::vector<std::string>;
using HotkeyServiceStates = KeysTest;

TEST_F(HotkeyServiceStates, LaunchReadsTheSettingAndNeverLetsPolkitAsk)
{
    const struct { const char* what; std::optional<bool> stored; bool allowed, trusted; } cases[] = {
        {"nothing stored", std::nullopt, true, false},
        {"stored off", false, true, false},
        {"stored on, allowed: active", true, true, true},
        {"stored on, refused: waiting for permission", true, false, false},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.what);
        storeSetting(c.stored);
        keyBus->allow(c.allowed);
        start();
        EXPECT_EQ(service->isEnabled(), c.stored.value_or(false));
        pumpUntil([&] { return service->isTrusted() && tapped(); }, c.trusted ? 10s : 1s);
        EXPECT_EQ(service->isTrusted(), c.trusted);
        EXPECT_EQ(tapped(), c.trusted);
        EXPECT_EQ(desk.openCount(external), 0) << "a keyboard without brightness keys is only looked at for Alt";
        service.reset();
        EXPECT_TRUE(desk.waitFor([&] { return released(); }, 5s)) << "the keys go with the service";
    }
    for (bool interactive : keyBus->authorizationChecks())
        EXPECT_FALSE(interactive) << "a launch let polkit ask for a password";
}

TEST_F(HotkeyServiceStates, SwitchingOnAndOff)
{
    start();
    service->setEnabled(true);
    ASSERT_TRUE(pumpUntil([&] { return service->isTrusted() && tapped(); }, 10s));
    const std::vector<std::string> clones = desk.clones();
    // Every assignment of a published field, in order: "will" before it, then the field and its value.
    Log log;
    QObject::connect(service.get(), &HotkeyService::objectWillChange, [&] { log.push_back("will"); });
    QObject::connect(service.get(), &HotkeyService::isEnabledChanged, [&](bool on) { log.push_back(on ? "enabled" : "disabled"); });
    QObject::connect(service.get(), &HotkeyService::isTrustedChanged, [&](bool on) { log.push_back(on ? "trusted" : "untrusted"); });
    service->setEnabled(true);
    pumpUntil([] { return false; }, 300ms);
    EXPECT_EQ(desk.clones(), clones) << "a second switch on keeps the one attachment";
    service->setEnabled(false);
    EXPECT_FALSE(service->isTrusted()) << "off: the keys are given back";
    EXPECT_TRUE(desk.waitFor([&] { return released(); }, 5s));
    // Every switch assigns both fields again, equal values included.
    EXPECT_EQ(log, (Log{"will", "enabled", "will", "trusted", "will", "disabled", "will", "untrusted"}));
    EXPECT_FALSE(HotkeyService(*controller).isEnabled()) << "the next launch starts from what was stored";
}

TEST_F(HotkeyServiceStates, TheKeysFollowTheActiveSession)
{
    storeSetting(true);
    keyBus->addSession("c2");
    keyBus->place(::getpid(), "c2");  // this Lumora runs in c2, while c1 is the active session
    start();
    pumpUntil([] { return false; }, 1s);
    EXPECT_FALSE(service->isTrusted()) << "a Lumora of an inactive session got the keys";
    EXPECT_TRUE(released());
    keyBus->switchTo("c2");  // fast user switching to this Lumora's session: the keys come to it
    ASSERT_TRUE(pumpUntil([&] { return service->isTrusted() && tapped(); }, 10s));
    keyBus->switchTo("c1");  // and back: the session that left loses them at once
    ASSERT_TRUE(pumpUntil([&] { return !service->isTrusted(); }, 10s));
    EXPECT_TRUE(desk.waitFor([&] { return released(); }, 5s)) << "nobody of the active session wants them";
    pumpUntil([] { return false; }, 1s);
    EXPECT_FALSE(service->isTrusted()) << "the look after the switch attached again";
}

TEST_F(HotkeyServiceStates, TwinsStartInTheDevicesStateAndOtherProgramsVirtualKeyboardsAreLeftAlone)
{
    // Caps Lock lit on the laptop keyboard (by the desktop, through its node), and a hotkey device that says docked: a
    // twin that started open would hide the next undocking from logind.
    const int keyboard = ::open(laptop.c_str(), O_WRONLY | O_CLOEXEC);
    const input_event light[] = {{{}, EV_LED, LED_CAPSL, 1}, {{}, EV_SYN, SYN_REPORT, 0}};
    ASSERT_EQ(::write(keyboard, light, sizeof light), ssize_t(sizeof light));
    ::close(keyboard);
    const std::string dock = desk.addKeyboard({"Dock Hotkeys", "videoBus", -1, "0660", std::nullopt, {SW_DOCK}});
    desk.setSwitch(dock, SW_DOCK, true);
    // Another program's virtual keyboard with brightness keys (a remote-desktop tool, a key remapper).
    const int other = ::open("/dev/uinput", O_WRONLY | O_NONBLOCK | O_CLOEXEC);
    ASSERT_EQ(::ioctl(other, UI_SET_EVBIT, EV_KEY), 0);
    for (int key : {KEY_BRIGHTNESSDOWN, KEY_BRIGHTNESSUP, KEY_A})
        ASSERT_EQ(::ioctl(other, UI_SET_KEYBIT, key), 0);
    uinput_setup setup{};
    setup.id.bustype = BUS_VIRTUAL;
    std::strcpy(setup.name, "Remote Keyboard");
    ASSERT_EQ(::ioctl(other, UI_DEV_SETUP, &setup) + ::ioctl(other, UI_DEV_CREATE), 0);
    ASSERT_TRUE(desk.waitFor([&] { return desk.clones().size() == 1; }, 5s));
    const std::string remote = desk.clones().front();
    storeSetting(true);
    start();
    ASSERT_TRUE(pumpUntil([&] { return service->isTrusted() && tapped() && desk.grabbed(dock); }, 10s));
    ASSERT_TRUE(desk.waitFor([&] { return desk.clones().size() == 1 + 4; }, 5s));
    EXPECT_FALSE(desk.grabbed(remote)) << "another program's virtual keyboard was taken";
    // Each twin's first events: the device's state.
    EXPECT_EQ(passedOn(laptop), (std::vector<Key>{{EV_LED, LED_CAPSL, 1}, {EV_SYN, SYN_REPORT, 0}})) << "Caps Lock off";
    EXPECT_EQ(passedOn(dock), (std::vector<Key>{{EV_SW, SW_DOCK, 1}, {EV_SYN, SYN_REPORT, 0}})) << "undocked";
    service.reset();
    ::ioctl(other, UI_DEV_DESTROY);
    ::close(other);
}
