// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once
// Shared by the brightness keys' tests: one QApplication on Qt's offscreen platform whose screens stand where the
// default desk's connectors do (eDP-1 0-1920, the DELL on DP-1 1920-4480, the LG on HDMI-A-1 4480-6400), settings in
// a private directory, one private system bus for the whole run (Qt connects to the system bus once per process)
// where lumora-keys is started on demand; and the frame every test starts from.

#include <QApplication>
#include <QDir>
#include <QFile>
#include <QSettings>
#include <QTemporaryDir>
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

// The default desk's keyboards: the laptop keyboard (letters, Alt, the brightness keys), the ACPI Video Bus, an
// external keyboard's main interface (letters, Alt; no brightness keys) and its consumer-control interface.
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
        QDir(home.path()).mkpath("runtime");
        QFile::setPermissions(home.filePath("runtime"), QFile::ReadOwner | QFile::WriteOwner | QFile::ExeOwner);
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

// "/dev/input/event4" → its device's name in sysfs.
inline std::string nameOf(const std::string& node)
{
    std::string name;
    std::getline(std::ifstream("/sys/class/input/" + node.substr(node.rfind('/') + 1) + "/device/name"), name);
    return name;
}

// A desk of its own, the setting absent, the attach allowed. Afterwards every keyboard is given back with no twin
// left, the service has left (so that the next test's desk gets a service of its own), this process is back in the
// active session c1 and the desk saw no violation.
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
        desk.releaseAll();
        EXPECT_TRUE(desk.violations().empty());
    }

    // Every keyboard with brightness keys taken; or none, and no twin left.
    bool tapped() const { return desk.grabbed(laptop) && desk.grabbed(videoBus) && desk.grabbed(consumer); }
    bool released() const
    {
        return !desk.grabbed(laptop) && !desk.grabbed(videoBus) && !desk.grabbed(consumer) && desk.clones().empty();
    }
    void start() { service = std::make_unique<Lumora::HotkeyService>(*controller); }

    VirtualDesk::Desk desk{VirtualDesk::DeskConfig::defaultDesk()};
    // No displays unless the test reads the desk's.
    std::unique_ptr<Lumora::DisplayController> controller = std::make_unique<Lumora::DisplayController>(
        [] { return std::vector<Lumora::DisplayInfo>{}; });
    std::unique_ptr<Lumora::HotkeyService> service;
};

}  // namespace LumoraTest
