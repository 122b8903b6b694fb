// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once
// The brightness keys' tests' run: Qt's offscreen screens where the default desk's connectors stand, private settings
// and one private system bus (Qt connects to it once per process); and the frame every test starts from.

#include <QApplication>
#include <QFile>
#include <QSettings>
#include <QTemporaryDir>
#include <sys/stat.h>
#include <fstream>
#include <memory>
#include <optional>
#include <string>
#include "Lumora/App/DisplayController.h"
#include "Lumora/Hotkeys/HotkeyService.h"
#include "support/EventLoop.h"
#include "support/KeyServiceBus.h"
#include "tools/virtual-desk/VirtualDesk.h"

namespace LumoraTest {

// The default desk's keyboards: the laptop's (letters, Alt, brightness keys), the ACPI Video Bus, and an external
// keyboard's main interface (letters, Alt) and consumer-control interface (brightness keys).
inline const std::string laptop = "/dev/input/event0";
inline const std::string videoBus = "/dev/input/event1";
inline const std::string external = "/dev/input/event2";
inline const std::string consumer = "/dev/input/event3";

inline KeyServiceBus* keyBus = nullptr;

struct KeysRun : ::testing::Environment {
    void SetUp() override
    {
        QFile screens(home.filePath("screens.json"));
        screens.open(QIODevice::WriteOnly);
        screens.write(R"({"screens": [
            {"name": "eDP-1", "x": 0, "y": 0, "width": 1920, "height": 1200, "logicalDpi": 96, "logicalBpi": 96, "dpr": 1},
            {"name": "DP-1", "x": 1920, "y": 0, "width": 2560, "height": 1440, "logicalDpi": 96, "logicalBpi": 96, "dpr": 1},
            {"name": "HDMI-A-1", "x": 4480, "y": 0, "width": 1920, "height": 1080, "logicalDpi": 96, "logicalBpi": 96, "dpr": 1}]})");
        screens.close();
        qputenv("QT_QPA_PLATFORM", "offscreen:configfile=" + QFile::encodeName(screens.fileName()));
        qputenv("XDG_CONFIG_HOME", QFile::encodeName(home.filePath("config")));
        qputenv("XDG_RUNTIME_DIR", QFile::encodeName(home.filePath("runtime")));
        ::mkdir(QFile::encodeName(home.filePath("runtime")).constData(), 0700);
        bus = std::make_unique<KeyServiceBus>();
        keyBus = bus.get();
        app = std::make_unique<QApplication>(argc, argv);
    }
    void TearDown() override { app.reset(), bus.reset(); }
    QTemporaryDir home;
    int argc = 1;
    char name[8] = "hotkeys";
    char* argv[2] = {name, nullptr};
    std::unique_ptr<KeyServiceBus> bus;
    std::unique_ptr<QApplication> app;
};
inline ::testing::Environment* const keysRun = ::testing::AddGlobalTestEnvironment(new KeysRun);

// The setting as stored ("" when absent); stored, or removed when `on` is empty.
inline QString storedSetting() { return QSettings("Lumora", "Lumora").value("useF1F2ForExternalBrightness").toString(); }
inline void storeSetting(std::optional<bool> on)
{
    QSettings settings("Lumora", "Lumora");
    on ? settings.setValue("useF1F2ForExternalBrightness", *on) : settings.remove("useF1F2ForExternalBrightness");
}

struct Key {  // an event as a twin was given it, without its time
    std::uint16_t type, code;
    std::int32_t value;
    bool operator==(const Key&) const = default;
    friend void PrintTo(const Key& k, std::ostream* out) { *out << "{" << k.type << "," << k.code << "," << k.value << "}"; }
};

// A desk of its own, the setting absent, the attach allowed; afterwards every keyboard given back, no twin left, the
// service gone (the next test's desk gets one of its own), this process in the active session c1, no violation.
class KeysTest : public ::testing::Test {
protected:
    void SetUp() override
    {
        keyBus->useDesk();
        keyBus->allow(true);
        keyBus->forgetAuthorizationChecks();
        storeSetting(std::nullopt);
    }
    void TearDown() override
    {
        service.reset();
        EXPECT_TRUE(desk.waitFor([&] { return released(); }, 5s)) << "the keyboards outlived the test";
        EXPECT_TRUE(pumpUntil([] { return !keyBus->serviceRunning(); }, 10s));
        keyBus->place(::getpid(), "c1");
        keyBus->switchTo("c1");
        EXPECT_TRUE(desk.violations().empty());
    }

    // Every keyboard with brightness keys taken; or none, and no twin left.
    bool tapped() const { return desk.grabbed(laptop) && desk.grabbed(videoBus) && desk.grabbed(consumer); }
    bool released() const
    {
        return !desk.grabbed(laptop) && !desk.grabbed(videoBus) && !desk.grabbed(consumer) && desk.clones().empty();
    }
    void start() { service = std::make_unique<Lumora::HotkeyService>(*controller); }
    // The twin that stands for a keyboard (the virtual device with its name in sysfs), and what it was given.
    std::string cloneOf(const std::string& keyboard) const
    {
        const auto nameOf = [](const std::string& node) {
            std::string name;
            std::getline(std::ifstream("/sys/class/input/" + node.substr(node.rfind('/') + 1) + "/device/name"), name);
            return name;
        };
        for (const std::string& clone : desk.clones())
            if (clone != keyboard && nameOf(clone) == nameOf(keyboard))
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

    VirtualDesk::Desk desk{VirtualDesk::DeskConfig::defaultDesk()};
    // No displays unless the test reads the desk's.
    std::unique_ptr<Lumora::DisplayController> controller = std::make_unique<Lumora::DisplayController>(
        [] { return std::vector<Lumora::DisplayInfo>{}; });
    std::unique_ptr<Lumora::HotkeyService> service;
};

}  // namespace LumoraTest
