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
