// Stress: random slider drags, steps, Option keys, power toggles and refreshes on four emulated monitors, first
// while they are unplugged and plugged back, then (all plugged back) without hot-plugging, since requests to an
// unplugged monitor are lost on the bus by nature. Every monitor must end up holding the last value requested for
// it in the second run, and the desk must see no overlapping transactions in either.
//
// LUMORA_STRESS_SECONDS (default 8) bounds both runs together; LUMORA_STRESS_SEED repeats a run.

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

#include "EventLoop.h"
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
};

const std::array<Monitor, 4> monitors{{{101, "card0-DP-1", 100},
                                        {102, "card0-DP-2", 255},
                                        {103, "card0-HDMI-A-1", 100},
                                        {104, "card0-HDMI-A-2", 1000}}};

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

    VirtualDesk::Desk desk(VirtualDesk::DeskConfig::fromJson(fourMonitors));
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
    const auto run = [&](bool hotPlug) {
        for (const auto end = Clock::now() + runTime; Clock::now() < end; pumpFor(pick(0, 4))) {
            const Monitor& m = monitors[pick(0, 3)];
            const int dice = pick(0, 99);
            if (dice < 40) {  // a slider drag: one request per mouse event, from the shown value toward another
                const DisplaySnapshot* shown = find(*controller, m.id);
                const double from = shown ? shown->brightness : 0.5;
                const double to = pick(0, 100) / 100.0;
                for (int i = 1, events = pick(3, 30); i <= events; ++i, pumpFor(pick(0, 2))) {
                    request(m.id, [&] { controller->setBrightness(m.id, from + (to - from) * i / events); });
                }
            } else if (dice < 60) {
                request(m.id, [&] { controller->step(m.id, pick(0, 1) ? 0.0625 : -0.0625); });
            } else if (dice < 68) {
                request(m.id, [&] { controller->setBrightness(m.id, pick(0, 1)); });
            } else if (dice < 78) {
                refreshes += find(*controller, m.id) ? 1 : 0;  // the one the toggle schedules
                request(m.id, [&] { controller->togglePower(m.id); });
            } else {
                if (dice >= 90 && hotPlug) {
                    if (unplugged.erase(m.connector)) {
                        desk.plug(m.connector);
                    } else {
                        desk.unplug(m.connector);
                        unplugged.insert(m.connector);
                    }
                    ++hotPlugs;
                }
                ++refreshes;
                controller->refresh();
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

    run(true);
    for (const std::string& connector : unplugged) {
        desk.plug(connector);
    }
    ++refreshes;
    controller->refresh();
    ASSERT_TRUE(pumpUntil([&] { return published == refreshes; }, 20s)) << "the refreshes never all published";
    ASSERT_EQ(controller->displays().size(), monitors.size());
    expected.clear();
    for (const Monitor& m : monitors) {
        request(m.id, [&] { controller->setBrightness(m.id, pick(2, 100) / 100.0); });
    }
    run(false);

    EXPECT_TRUE(pumpUntil([&] { return mismatches().empty(); }, 20s)) << mismatches();
    controller.reset();  // runs whatever is still queued: nothing may land after the last request
    EXPECT_EQ(mismatches(), "");
    EXPECT_THAT(desk.violations(), ::testing::IsEmpty());
    EXPECT_GT(hotPlugs, 0);
}

}  // namespace
