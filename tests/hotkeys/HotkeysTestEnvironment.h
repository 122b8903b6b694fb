#pragma once
// Shared by the brightness keys' tests: the desk's input nodes, the system bus with the key service, and the
// settings file.

#include <QFile>
#include <QSettings>
#include <QString>

#include <string>

#include "support/EventLoop.h"
#include "support/KeyServiceBus.h"

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

// The run's system bus (HotkeysTestMain.cpp).
extern KeyServiceBus* keyBus;

// The setting as stored ("" when absent).
inline QString storedSetting()
{
    QSettings settings(QStringLiteral("Lumora"), QStringLiteral("Lumora"));
    return settings.contains(QStringLiteral("useF1F2ForExternalBrightness"))
               ? settings.value(QStringLiteral("useF1F2ForExternalBrightness")).toString()
               : QString();
}

inline void storeSetting(bool on)
{
    QSettings settings(QStringLiteral("Lumora"), QStringLiteral("Lumora"));
    settings.setValue(QStringLiteral("useF1F2ForExternalBrightness"), on);
}

inline void removeSetting()
{
    QSettings settings(QStringLiteral("Lumora"), QStringLiteral("Lumora"));
    settings.remove(QStringLiteral("useF1F2ForExternalBrightness"));
}

}  // namespace LumoraTest
