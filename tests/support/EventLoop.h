// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once
// Bounded waits on the main thread's event loop, and watching a controller's list.

#include <QDeadlineTimer>
#include <QEventLoop>
#include <QObject>
#include <QTimer>
#include <chrono>
#include <cstdint>
#include <functional>
#include <ostream>
#include <gtest/gtest.h>
#include "Lumora/App/DisplayController.h"

namespace Lumora {

inline void PrintTo(const DisplaySnapshot& s, std::ostream* out)
{
    *out << "{" << s.id << " \"" << s.name << "\" " << s.brightness << (s.isOn ? " on" : " standby")
         << (s.canPowerOff ? "" : " without standby") << "}";
}

}  // namespace Lumora

namespace LumoraTest {

using namespace std::chrono_literals;

// Runs the event loop until `done` holds (true) or `timeout` has passed (false). Between looks the loop sleeps in
// the event dispatcher, so work that the controller's queues hand back to the main thread runs as it arrives.
inline bool pumpUntil(const std::function<bool()>& done, std::chrono::milliseconds timeout = 10s)
{
    for (const QDeadlineTimer deadline(timeout); !done();) {
        if (deadline.hasExpired())
            return false;
        QEventLoop idle;
        QTimer::singleShot(2ms, &idle, &QEventLoop::quit);
        idle.exec();
    }
    return true;
}

inline const Lumora::DisplaySnapshot* find(const Lumora::DisplayController& controller, std::uint32_t id)
{
    for (const Lumora::DisplaySnapshot& snapshot : controller.displays())
        if (snapshot.id == id)
            return &snapshot;
    return nullptr;
}

// Counts a controller's change notifications; refreshes and waits for the publication; looks a display up.
class Watch {
public:
    explicit Watch(Lumora::DisplayController& controller) : controller_(controller)
    {
        QObject::connect(&controller, &Lumora::DisplayController::displaysChanged, [this] { ++changes; });
    }
    // Each display is read behind what its queue already holds: once this has published, every request made
    // before has reached its monitor.
    bool refreshAndWait()
    {
        const int before = changes;
        controller_.refresh();
        return pumpUntil([&] { return changes > before; });
    }
    Lumora::DisplaySnapshot shown(std::uint32_t id) const
    {
        const Lumora::DisplaySnapshot* snapshot = find(controller_, id);
        EXPECT_NE(snapshot, nullptr) << "display " << id << " is not listed";
        return snapshot ? *snapshot : Lumora::DisplaySnapshot{};
    }

    int changes = 0;

private:
    Lumora::DisplayController& controller_;
};

}  // namespace LumoraTest
