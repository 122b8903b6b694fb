// SPDX-License-Identifier: GPL-3.0-or-later
// Stress: random slider drags, steps, Option keys, power toggles and refreshes on four emulated monitors that
// behave as real ones do (busy after a Set, null messages, silent in standby, slow to wake), first while they are
// unplugged and plugged back and misbehave at random (null messages, bad checksums, silence, ignoring requests
// while busy), then (all plugged back and behaving) without either, since requests to an unplugged monitor are
// lost on the bus by nature. After the first run one refresh shows every monitor as it is; after the second every
// monitor must hold the last value requested for it; the desk must see no overlapping transactions in either.
//
// LUMORA_STRESS_SECONDS (default 8) bounds both runs together; LUMORA_STRESS_SEED repeats a run;
// LUMORA_STRESS_LOG names a file for the desk's transactions.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <array>
#include <cmath>
#include <cstdlib>
#include <map>
#include <memory>
#include <random>
#include <set>
#include <sstream>

#include "support/EventLoop.h"
#include "tools/virtual-desk/VirtualDesk.h"

using Lumora::DisplayController;
using Lumora::DisplaySnapshot;
using namespace LumoraTest;
using Clock = std::chrono::steady_clock;

namespace {

struct Monitor {
    std::uint32_t id;
    std::string connector;
    int max;
    bool busyLongerThanHostsWait;  // a monitor that ignored requests then would lose some: it only NAKs
};

const std::array<Monitor, 4> monitors{{{101, "card0-DP-1", 100, false},
                                        {102, "card0-DP-2", 255, true},
                                        {103, "card0-HDMI-A-1", 100, false},
                                        {104, "card0-HDMI-A-2", 1000, false}}};

constexpr const char* fourMonitors = R"({ "cards": [ { "connectors": [
    { "name": "DP-1", "connectorId": 101, "edid": { "serial": 1001 }, "ddc": { "bus": 5 },
      "monitor": { "max": 100, "current": 50 } },
    { "name": "DP-2", "connectorId": 102, "edid": { "serial": 1002 }, "ddc": { "bus": 6 },
      "monitor": { "max": 255, "current": 128, "replyDelayMs": 45, "busyMs": 70 } },
    { "name": "HDMI-A-1", "connectorId": 103, "edid": { "serial": 1003 }, "ddc": { "bus": 3 },
      "monitor": { "max": 100, "current": 70, "replyDelayMs": 20, "busyMs": 30 } },
    { "name": "HDMI-A-2", "connectorId": 104, "edid": { "serial": 1004 }, "ddc": { "bus": 7 },
      "monitor": { "max": 1000, "current": 300 } } ] } ] })";

// What a monitor must hold after the last request made for it, as the controller showed that request.
struct Expected {
    double written = 0.0;  // the newest request that left it on, and so was written
    bool standby = false;  // the newest request left it in standby
};

TEST(ControllerStress, EveryMonitorEndsAtItsLastRequestWithNoOverlappingTransactions)
{
    const char* seedText = std::getenv("LUMORA_STRESS_SEED");
    const auto seed = seedText ? static_cast<std::uint32_t>(std::stoul(seedText)) : std::random_device{}();
    const char* secondsText = std::getenv("LUMORA_STRESS_SECONDS");
    const auto runTime = std::chrono::milliseconds(static_cast<int>(500 * (secondsText ? std::atof(secondsText) : 8)));
    SCOPED_TRACE("LUMORA_STRESS_SEED=" + std::to_string(seed));
    std::mt19937 random(seed);
    const auto pick = [&](int low, int high) { return std::uniform_int_distribution<int>(low, high)(random); };
    const auto pumpFor = [](int ms) { pumpUntil([] { return false; }, std::chrono::milliseconds(ms)); };

    const char* logPath = std::getenv("LUMORA_STRESS_LOG");  // the desk's transactions, for a failed run
    VirtualDesk::Desk desk(VirtualDesk::DeskConfig::fromJson(fourMonitors), {logPath ? logPath : ""});
    const VirtualDesk::Faults realistic = desk.faults(monitors[0].connector);
    ASSERT_TRUE(realistic.nakWhileBusy && realistic.nullWhenNotReady && realistic.silentInStandby);
    auto controller = std::make_unique<DisplayController>();
    // Changes outside a request are the publications of refreshes, which publish once each, in call order.
    bool inRequest = false;
    int published = 0;
    int refreshes = 0;
    QObject::connect(controller.get(), &DisplayController::displaysChanged, [&] { published += inRequest ? 0 : 1; });
    std::map<std::uint32_t, Expected> expected;
    const auto request = [&](std::uint32_t id, const std::function<void()>& make) {
        inRequest = true;
        make();
        inRequest = false;
        if (const DisplaySnapshot* shown = find(*controller, id)) {
            Expected& e = expected[id];
            e.standby = !shown->isOn;
            e.written = shown->isOn ? shown->brightness : e.written;
        }
    };

    std::set<std::string> unplugged;
    int hotPlugs = 0;
    // Toggles (each refreshes 2 s later) and refreshes come no faster than the list is published, a few at most
    // outstanding, as from a person: each refresh waits for its slowest read, 400 ms on a monitor silent in standby.
    const auto run = [&](bool hotPlug) {
        for (const auto end = Clock::now() + runTime; Clock::now() < end; pumpFor(pick(0, 4))) {
            const Monitor& m = monitors[pick(0, 3)];
            const int dice = pick(0, 99);
            if (dice < 40) {  // a slider drag: one request per mouse event, from the shown value toward another
                const DisplaySnapshot* shown = find(*controller, m.id);
                const double from = shown ? shown->brightness : 0.5;
                const double to = pick(0, 100) / 100.0;
                for (int i = 1, events = pick(3, 30); i <= events; ++i, pumpFor(pick(0, 2)))
                    request(m.id, [&] { controller->setBrightness(m.id, from + (to - from) * i / events); });
            } else if (dice < 60) {
                request(m.id, [&] { controller->step(m.id, pick(0, 1) ? 0.0625 : -0.0625); });
            } else if (dice < 68) {
                request(m.id, [&] { controller->setBrightness(m.id, pick(0, 1)); });
            } else if (dice < 78 && refreshes - published < 3) {
                refreshes += find(*controller, m.id) ? 1 : 0;  // the one the toggle schedules
                request(m.id, [&] { controller->togglePower(m.id); });
            } else if (dice >= 78) {
                if (dice >= 84 && dice < 90 && hotPlug) {
                    VirtualDesk::Faults f = realistic;
                    switch (pick(0, 4)) {
                    case 0: f.nullReplies = pick(1, 3), f.nullFiller = pick(0, 1) ? 0xFF : 0x00; break;
                    case 1: f.badChecksumReplies = pick(1, 3); break;
                    case 2: f.neverAnswer = true; break;
                    case 3: f.nakWhileBusy = m.busyLongerThanHostsWait, f.dropWhileBusy = !f.nakWhileBusy; break;
                    default: break;  // behaving again
                    }
                    desk.setFaults(m.connector, f);
                }
                if (dice >= 90 && hotPlug) {
                    if (unplugged.erase(m.connector)) {
                        desk.plug(m.connector);
                    } else {
                        desk.unplug(m.connector);
                        unplugged.insert(m.connector);
                    }
                    ++hotPlugs;
                }
                if (refreshes - published < 3) {
                    ++refreshes;
                    controller->refresh();
                }
            }
        }
    };
    // The monitors that do not hold the last request made for them: none, when all is well.
    const auto mismatches = [&] {
        std::ostringstream out;
        for (const Monitor& m : monitors) {
            const Expected& e = expected.at(m.id);
            const int value = static_cast<int>(std::round(e.written * m.max));
            if (desk.brightness(m.connector) != value || (e.standby && desk.powerMode(m.connector) != 4)) {
                out << m.connector << ": expected " << value << (e.standby ? " in standby" : "") << ", holds "
                    << desk.brightness(m.connector) << " in power mode " << int(desk.powerMode(m.connector)) << "\n";
            }
        }
        return out.str();
    };

    // What a refresh shows of the monitors that are on: what they hold. Empty when all is well. (A monitor asleep
    // answers nothing: a power-on sent while it was unplugged is lost with it, and it is shown as a failed read.)
    const auto shownWrong = [&] {
        std::ostringstream out;
        for (const Monitor& m : monitors) {
            const DisplaySnapshot* shown = find(*controller, m.id);
            if (shown && shown->isOn && desk.powerMode(m.connector) == 1 &&
                std::lround(shown->brightness * m.max) != desk.brightness(m.connector)) {
                out << m.connector << ": shown " << shown->brightness << ", holds " << desk.brightness(m.connector)
                    << "\n";
            }
        }
        return out.str();
    };

    run(true);
    for (const std::string& connector : unplugged)
        desk.plug(connector);
    for (const Monitor& m : monitors)
        desk.setFaults(m.connector, realistic);
    ++refreshes;
    controller->refresh();
    // Refreshes run one after another, each waiting for its slowest read (400 ms on a monitor silent in standby).
    const auto allPublished = [&] {
        return pumpUntil([&] { return published == refreshes; }, 20s + 2s * (refreshes - published));
    };
    ASSERT_TRUE(allPublished()) << "the refreshes never all published";
    ASSERT_EQ(controller->displays().size(), monitors.size());
    EXPECT_EQ(shownWrong(), "") << "a refresh after the faults shows the monitors as they are";
    // Every monitor is put into standby and woken (a power-on lost while it was unplugged is sent again) and read
    // before the calm run's requests count.
    for (const Monitor& m : monitors) {
        request(m.id, [&] { controller->setBrightness(m.id, 0.0); });
        request(m.id, [&] { controller->setBrightness(m.id, 0.5); });
    }
    ++refreshes;
    controller->refresh();
    ASSERT_TRUE(allPublished()) << "the refreshes never all published";
    expected.clear();
    for (const Monitor& m : monitors)
        request(m.id, [&] { controller->setBrightness(m.id, pick(2, 100) / 100.0); });
    run(false);

    EXPECT_TRUE(pumpUntil([&] { return mismatches().empty(); }, 20s)) << mismatches();
    ++refreshes;
    controller->refresh();
    ASSERT_TRUE(allPublished()) << "the refreshes never all published";
    EXPECT_EQ(shownWrong(), "");
    controller.reset();  // runs whatever is still queued: nothing may land after the last request
    EXPECT_EQ(mismatches(), "");
    EXPECT_THAT(desk.violations(), ::testing::IsEmpty());
    EXPECT_GT(hotPlugs, 0);
}

}  // namespace
