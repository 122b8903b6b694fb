// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once
// Shared by the brightness keys' tests: the desk's input nodes, the system bus with the key service, and the
// settings file.

#include <QSettings>
#include <QString>

#include <fstream>
#include <optional>
#include <string>

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

// The screens of the tests' offscreen desktop: the default desk's connectors side by side, in pixels.
constexpr const char* deskScreensJson = R"({"screens": [
    {"name": "eDP-1", "x": 0, "y": 0, "width": 1920, "height": 1200, "logicalDpi": 96, "logicalBpi": 96, "dpr": 1},
    {"name": "DP-1", "x": 1920, "y": 0, "width": 2560, "height": 1440, "logicalDpi": 96, "logicalBpi": 96, "dpr": 1},
    {"name": "HDMI-A-1", "x": 4480, "y": 0, "width": 1920, "height": 1080, "logicalDpi": 96, "logicalBpi": 96, "dpr": 1}
]})";

// Every keyboard with brightness keys taken; or none, and no twin left.
inline bool tapped(const VirtualDesk::Desk& desk)
{
    return desk.grabbed(laptop) && desk.grabbed(videoBus) && desk.grabbed(consumer);
}
inline bool released(const VirtualDesk::Desk& desk)
{
    return !desk.grabbed(laptop) && !desk.grabbed(videoBus) && !desk.grabbed(consumer) && desk.clones().empty();
}

// The run's system bus (HotkeysTestMain.cpp).
extern KeyServiceBus* keyBus;

inline const QString settingKey = QStringLiteral("useF1F2ForExternalBrightness");

// The setting as stored ("" when absent); stored, or removed when `on` is empty.
inline QString storedSetting()
{
    return QSettings(QStringLiteral("Lumora"), QStringLiteral("Lumora")).value(settingKey).toString();
}
inline void storeSetting(std::optional<bool> on)
{
    QSettings settings(QStringLiteral("Lumora"), QStringLiteral("Lumora"));
    on ? settings.setValue(settingKey, *on) : settings.remove(settingKey);
}

// "/dev/input/event4" → its device's name in sysfs.
inline std::string nameOf(const std::string& node)
{
    std::ifstream in("/sys/class/input/" + node.substr(node.rfind('/') + 1) + "/device/name");
    std::string name;
    std::getline(in, name);
    return name;
}

}  // namespace LumoraTest
