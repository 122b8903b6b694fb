// The brightness keys' service as a state machine over the stored setting and the key service's answer (polkit's
// authorization, logind's active session): off, waiting for permission, active (the keyboards taken by
// lumora-keys); when polkit may ask for a password, what is stored, the half-second look after each change of
// authorization, and the keys following the active session. Also which devices the service takes, and the state
// their twins start in.

#include <QElapsedTimer>

#include <gtest/gtest.h>

#include <fcntl.h>
#include <linux/input.h>
#include <linux/uinput.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <cstring>
#include <fstream>
#include <tuple>

#include "HotkeysTestEnvironment.h"
#include "Lumora/App/DisplayController.h"
#include "Lumora/Hotkeys/HotkeyService.h"
#include "tools/virtual-desk/VirtualDesk.h"

using namespace LumoraTest;
using Lumora::HotkeyService;

namespace {

// "/dev/input/event4" → its device's name in sysfs.
std::string sysfsName(const std::string& node)
{
    std::ifstream in("/sys/class/input/" + node.substr(node.rfind('/') + 1) + "/device/name");
    std::string name;
    std::getline(in, name);
    return name;
}

class HotkeyServiceStates : public ::testing::Test {
protected:
    void SetUp() override
    {
        removeSetting();
        keyBus->useDesk();
        keyBus->allow(true);
        keyBus->forgetAuthorizationChecks();
    }
    void TearDown() override
    {
        EXPECT_TRUE(desk.waitFor([&] { return untapped(); }, 5s)) << "the keyboards outlived the test";
        // The service leaves once idle, so that the next test's desk gets a service of its own.
        EXPECT_TRUE(pumpUntil([] { return !keyBus->serviceRunning(); }, 10s));
        keyBus->place(::getpid(), "c1");
        keyBus->switchTo("c1");
        EXPECT_TRUE(desk.violations().empty());
    }

    // The keyboards with brightness keys are taken.
    bool tapped() const { return desk.grabbed(laptop) && desk.grabbed(videoBus) && desk.grabbed(consumer); }
    bool untapped() const
    {
        return !desk.grabbed(laptop) && !desk.grabbed(videoBus) && !desk.grabbed(consumer) && desk.clones().empty();
    }

    // Every assignment of a published field, in order: "will" before it, then the field and its value.
    struct Record {
        explicit Record(HotkeyService& service)
        {
            QObject::connect(&service, &HotkeyService::objectWillChange, [this] { log.push_back("will"); });
            QObject::connect(&service, &HotkeyService::isEnabledChanged,
                             [this](bool on) { log.push_back(on ? "enabled" : "disabled"); });
            QObject::connect(&service, &HotkeyService::isTrustedChanged, [this](bool on) {
                log.push_back(on ? "trusted" : "untrusted");
                trustLooks.push_back(clock.elapsed());
                if (on && trustedAt < 0)
                    trustedAt = clock.elapsed();
            });
            clock.start();
        }
        std::vector<std::string> log;
        std::vector<qint64> trustLooks;  // ms since the record started, one per assignment of isTrusted
        qint64 trustedAt = -1;           // ms since the record started when isTrusted first became true
        QElapsedTimer clock;
    };

    VirtualDesk::Desk desk{VirtualDesk::DeskConfig::defaultDesk()};
    Lumora::DisplayController controller{[] { return std::vector<Lumora::DisplayInfo>{}; }};
};

}  // namespace

TEST_F(HotkeyServiceStates, LaunchReadsTheSettingAndNeverLetsPolkitAsk)
{
    const struct {
        const char* what;
        std::optional<bool> stored;
        bool allowed, trusted;
    } cases[] = {
        {"nothing stored", std::nullopt, true, false},
        {"stored off", false, true, false},
        {"stored on, allowed: active", true, true, true},
        {"stored on, refused: waiting for permission", true, false, false},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.what);
        removeSetting();
        if (c.stored)
            storeSetting(*c.stored);
        keyBus->allow(c.allowed);
        {
            HotkeyService service(controller);
            EXPECT_EQ(service.isEnabled(), c.stored.value_or(false));
            pumpUntil([&] { return service.isTrusted() && tapped(); }, c.trusted ? 10s : 1s);
            EXPECT_EQ(service.isTrusted(), c.trusted);
            EXPECT_EQ(tapped(), c.trusted);
            EXPECT_FALSE(desk.grabbed(external));
        }
        EXPECT_TRUE(desk.waitFor([&] { return untapped(); }, 5s)) << "the keys go with the service";
    }
    for (bool interactive : keyBus->authorizationChecks())
        EXPECT_FALSE(interactive) << "a launch let polkit ask for a password";
}

TEST_F(HotkeyServiceStates, SwitchingOnWithoutAuthorizationLetsPolkitAskAndWaits)
{
    keyBus->allow(false);
    HotkeyService service(controller);
    Record record(service);
    service.setEnabled(true);

    EXPECT_EQ(storedSetting(), QStringLiteral("true"));
    EXPECT_TRUE(service.isEnabled());
    EXPECT_FALSE(service.isTrusted());
    EXPECT_EQ(record.log, (std::vector<std::string>{"will", "enabled", "will", "untrusted"}));
    ASSERT_TRUE(pumpUntil([] { return !keyBus->authorizationChecks().empty(); }, 10s));
    pumpUntil([] { return false; }, 300ms);
    EXPECT_EQ(keyBus->authorizationChecks(), std::vector<bool>{true}) << "one check, and polkit may ask";
    EXPECT_FALSE(service.isTrusted());
    EXPECT_TRUE(untapped());

    // The button asks again, and changes nothing by itself.
    record.log.clear();
    service.openAccessibilitySettings();
    ASSERT_TRUE(pumpUntil([] { return keyBus->authorizationChecks().size() == 2; }, 10s));
    EXPECT_EQ(keyBus->authorizationChecks().back(), true);
    pumpUntil([] { return false; }, 300ms);
    EXPECT_FALSE(service.isTrusted());

    // An administrator allows it: polkit says its authorizations changed, and half a second later the keys come.
    // (First the refusals settle: the service, idle, leaves.)
    ASSERT_TRUE(pumpUntil([] { return !keyBus->serviceRunning(); }, 10s));
    keyBus->allow(true);
    Record granted(service);
    keyBus->authorizationsChanged();
    ASSERT_TRUE(pumpUntil([&] { return service.isTrusted() && tapped(); }, 10s));
    EXPECT_GE(granted.trustedAt, 450) << "looked before polkit could settle";
}

TEST_F(HotkeyServiceStates, SwitchingOnAndOff)
{
    HotkeyService service(controller);
    service.setEnabled(true);
    ASSERT_TRUE(pumpUntil([&] { return service.isTrusted() && tapped(); }, 10s));
    const std::vector<std::string> clones = desk.clones();
    Record record(service);
    service.setEnabled(true);
    pumpUntil([] { return false; }, 300ms);
    EXPECT_EQ(desk.clones(), clones) << "a second switch on keeps the one attachment";
    EXPECT_EQ(storedSetting(), QStringLiteral("true"));
    EXPECT_TRUE(service.isTrusted());

    service.setEnabled(false);
    EXPECT_EQ(storedSetting(), QStringLiteral("false"));
    EXPECT_FALSE(service.isEnabled());
    EXPECT_FALSE(service.isTrusted()) << "off: the keys are given back";
    EXPECT_TRUE(desk.waitFor([&] { return untapped(); }, 5s));
    // Every switch assigns both fields again, equal values included.
    EXPECT_EQ(record.log, (std::vector<std::string>{"will", "enabled", "will", "trusted", "will", "disabled", "will",
                                                    "untrusted"}));
    // The stored setting is what the next launch starts from.
    HotkeyService next(controller);
    EXPECT_FALSE(next.isEnabled());
}

TEST_F(HotkeyServiceStates, TheKeysFollowTheActiveSession)
{
    storeSetting(true);
    keyBus->addSession("c2");
    keyBus->place(::getpid(), "c2");  // this Lumora runs in c2, while c1 is the active session
    HotkeyService service(controller);
    pumpUntil([] { return false; }, 1s);
    EXPECT_FALSE(service.isTrusted()) << "a Lumora of an inactive session got the keys";
    EXPECT_TRUE(untapped());

    keyBus->switchTo("c2");  // fast user switching to this Lumora's session: the keys come to it
    ASSERT_TRUE(pumpUntil([&] { return service.isTrusted() && tapped(); }, 10s));

    keyBus->switchTo("c1");  // and back: the session that left loses them at once
    ASSERT_TRUE(pumpUntil([&] { return !service.isTrusted(); }, 10s));
    EXPECT_TRUE(desk.waitFor([&] { return untapped(); }, 5s)) << "nobody of the active session wants them";
    pumpUntil([] { return false; }, 1s);
    EXPECT_FALSE(service.isTrusted()) << "the look after the switch attached again";
}

TEST_F(HotkeyServiceStates, TwinsStartInTheDevicesStateAndOtherProgramsVirtualKeyboardsAreLeftAlone)
{
    // Caps Lock is lit on the laptop keyboard (the desktop set it through the keyboard's node), and a hotkey device
    // that also reports docking says docked: a twin that started open would hide the next undocking from logind.
    const int keyboard = ::open(laptop.c_str(), O_WRONLY | O_CLOEXEC);
    ASSERT_GE(keyboard, 0);
    const input_event light[] = {{{}, EV_LED, LED_CAPSL, 1}, {{}, EV_SYN, SYN_REPORT, 0}};
    ASSERT_EQ(::write(keyboard, light, sizeof light), ssize_t(sizeof light));
    ::close(keyboard);
    const std::string dock = desk.addKeyboard({"Dock Hotkeys", "videoBus", -1, "0660", std::nullopt, {SW_DOCK}});
    desk.setSwitch(dock, SW_DOCK, true);
    // Another program's virtual keyboard with brightness keys (a remote-desktop tool, a key remapper).
    const int other = ::open("/dev/uinput", O_WRONLY | O_NONBLOCK | O_CLOEXEC);
    ASSERT_GE(other, 0);
    ASSERT_EQ(::ioctl(other, UI_SET_EVBIT, EV_KEY), 0);
    for (int key : {KEY_BRIGHTNESSDOWN, KEY_BRIGHTNESSUP, KEY_A})
        ASSERT_EQ(::ioctl(other, UI_SET_KEYBIT, key), 0);
    uinput_setup setup{};
    setup.id.bustype = BUS_VIRTUAL;
    std::strcpy(setup.name, "Remote Keyboard");
    ASSERT_EQ(::ioctl(other, UI_DEV_SETUP, &setup), 0);
    ASSERT_EQ(::ioctl(other, UI_DEV_CREATE), 0);
    ASSERT_TRUE(desk.waitFor([&] { return desk.clones().size() == 1; }, 5s));
    const std::string remote = desk.clones().front();

    storeSetting(true);
    HotkeyService service(controller);
    ASSERT_TRUE(pumpUntil([&] { return service.isTrusted() && tapped() && desk.grabbed(dock); }, 10s));
    ASSERT_TRUE(desk.waitFor([&] { return desk.clones().size() == 1 + 4; }, 5s));
    EXPECT_FALSE(desk.grabbed(remote)) << "another program's virtual keyboard was taken";
    // Each twin's first events: the device's state.
    const auto startOf = [&](const std::string& device) {
        std::vector<std::tuple<int, int, int>> events;
        for (const std::string& twin : desk.clones()) {
            if (twin != remote && sysfsName(twin) == sysfsName(device)) {
                for (const VirtualDesk::InputEvent& e : desk.forwarded(twin))
                    events.emplace_back(e.type, e.code, e.value);
            }
        }
        return events;
    };
    using Events = std::vector<std::tuple<int, int, int>>;
    EXPECT_EQ(startOf(laptop), (Events{{EV_LED, LED_CAPSL, 1}, {EV_SYN, SYN_REPORT, 0}})) << "Caps Lock off";
    EXPECT_EQ(startOf(dock), (Events{{EV_SW, SW_DOCK, 1}, {EV_SYN, SYN_REPORT, 0}})) << "undocked";
    ::ioctl(other, UI_DEV_DESTROY);
    ::close(other);
}
