#pragma once
// Shared by the brightness keys' tests: the stand-in pkexec's record, bounded waits on the event loop, and the
// settings file.

#include <QEventLoop>
#include <QDeadlineTimer>
#include <QFile>
#include <QSettings>
#include <QString>
#include <QTimer>

#include <chrono>
#include <functional>

namespace LumoraTest {

using namespace std::chrono_literals;

// The screens of the tests' offscreen desktop: the default desk's connectors side by side, in pixels.
constexpr const char* deskScreensJson = R"({"screens": [
    {"name": "eDP-1", "x": 0, "y": 0, "width": 1920, "height": 1200, "logicalDpi": 96, "logicalBpi": 96, "dpr": 1},
    {"name": "DP-1", "x": 1920, "y": 0, "width": 2560, "height": 1440, "logicalDpi": 96, "logicalBpi": 96, "dpr": 1},
    {"name": "HDMI-A-1", "x": 4480, "y": 0, "width": 1920, "height": 1080, "logicalDpi": 96, "logicalBpi": 96, "dpr": 1}
]})";

// One line per run of the stand-in pkexec: its arguments.
extern QString pkexecLog;

inline QStringList pkexecRuns()
{
    QFile file(pkexecLog);
    if (!file.open(QIODevice::ReadOnly))
        return {};
    return QString::fromUtf8(file.readAll()).split(QLatin1Char('\n'), Qt::SkipEmptyParts);
}

inline void clearPkexecRuns()
{
    QFile::remove(pkexecLog);
}

// Runs the event loop until `done` holds (true) or `timeout` passed (false).
inline bool pumpUntil(const std::function<bool()>& done, std::chrono::milliseconds timeout = 10s)
{
    const QDeadlineTimer deadline(timeout);
    while (!done()) {
        if (deadline.hasExpired())
            return false;
        QEventLoop idle;
        QTimer::singleShot(2ms, &idle, &QEventLoop::quit);
        idle.exec();
    }
    return true;
}

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
