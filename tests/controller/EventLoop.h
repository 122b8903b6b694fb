#pragma once
// Bounded waits on the main thread's event loop for the controller's tests.

#include <QCoreApplication>
#include <QEventLoop>
#include <QTimer>

#include <chrono>
#include <functional>

namespace LumoraTest {

using namespace std::chrono_literals;

// Runs the event loop until `done` holds or `timeout` has passed; true when `done` held. The loop sleeps in the
// event dispatcher between looks, so events posted from other threads are handled as they arrive.
inline bool pumpUntil(const std::function<bool()>& done, std::chrono::milliseconds timeout = 5s)
{
    const auto deadline = std::chrono::steady_clock::now() + timeout;
    for (;;) {
        QCoreApplication::sendPostedEvents();
        QCoreApplication::processEvents(QEventLoop::AllEvents);
        if (done()) {
            return true;
        }
        if (std::chrono::steady_clock::now() >= deadline) {
            return false;
        }
        QEventLoop idle;
        QTimer::singleShot(2ms, &idle, &QEventLoop::quit);
        idle.exec();
    }
}

// Runs the event loop for `duration`: for checks that something does NOT happen within a bounded time.
inline void pumpFor(std::chrono::milliseconds duration)
{
    pumpUntil([] { return false; }, duration);
}

}  // namespace LumoraTest
