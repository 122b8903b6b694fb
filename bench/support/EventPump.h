// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once
// Runs the Qt event loop of a benchmark until a condition holds, looking every millisecond.

#include <QCoreApplication>
#include <QEventLoop>
#include <QTimer>

#include <chrono>
#include <functional>

namespace BenchSupport {

// True once `done` holds; false when `timeout` passed first.
inline bool pumpUntil(const std::function<bool()>& done, std::chrono::milliseconds timeout)
{
    const auto deadline = std::chrono::steady_clock::now() + timeout;
    for (;;) {
        QCoreApplication::processEvents(QEventLoop::AllEvents);
        if (done()) {
            return true;
        }
        if (std::chrono::steady_clock::now() >= deadline) {
            return false;
        }
        QEventLoop idle;
        QTimer::singleShot(std::chrono::milliseconds(1), Qt::PreciseTimer, &idle, &QEventLoop::quit);
        idle.exec();
    }
}

}  // namespace BenchSupport
