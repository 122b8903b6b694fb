// SPDX-License-Identifier: GPL-3.0-or-later
// The controller's rules, against test monitors whose calls can be held at a gate: what is shown at once, what
// reaches a monitor, which backend a write loop uses, the power toggle's restore, the order of refreshes, and the
// serial queue under all of it. What reaches real monitors on the wire is tested on the virtual desk.

#include <gtest/gtest.h>

#include <atomic>
#include <condition_variable>
#include <future>
#include <limits>
#include <mutex>
#include <sstream>
#include <thread>

#include "Lumora/App/SerialQueue.h"
#include "Lumora/DDC/DisplayBackend.h"
#include "support/EventLoop.h"

using Lumora::DisplayController;
using Lumora::DisplaySnapshot;
using namespace LumoraTest;
using Calls = std::vector<std::string>;

namespace {

constexpr std::uint32_t dellID = 5, panelID = 1;
constexpr double toggle = -1.0;  // in a table of requests: togglePower instead of setBrightness

std::string writeOf(double fraction)
{
    std::ostringstream text;
    text << "write " << fraction;
    return text.str();
}

// One monitor behind the test backends: the brightness it reads, what it says of its power mode (on, standby,
// nothing), every call made to it as it arrives ("read", "write 0.3", "off", "on", "power"), and a gate that holds
// the calls while it is closed.
struct Monitor {
    explicit Monitor(std::optional<double> reading) : reading(reading) {}
    void hold(bool closed)
    {
        std::lock_guard<std::mutex> lock(mutex);
        held = closed;
        opened.notify_all();
    }
    Calls calls()
    {
        std::lock_guard<std::mutex> lock(mutex);
        return made;
    }
    std::optional<double> call(std::string what)
    {
        std::unique_lock<std::mutex> lock(mutex);
        made.push_back(std::move(what));
        opened.wait(lock, [&] { return !held; });
        return reading;
    }

    const std::optional<double> reading;
    std::optional<bool> power;
    std::mutex mutex;
    std::condition_variable opened;
    bool held = false;
    Calls made;
};

struct Backend final : Lumora::DisplayBackend {
    Backend(std::shared_ptr<Monitor> monitor, bool standby) : monitor(std::move(monitor)), standby(standby) {}
    bool canPowerOff() const override { return standby; }
    std::optional<double> readBrightness() override { return monitor->call("read"); }
    void writeBrightness(double fraction) override { monitor->call(writeOf(fraction)); }
    void setPower(bool on) override { monitor->call(on ? "on" : "off"); }
    std::optional<bool> readPower() override { return monitor->call("power"), monitor->power; }
    const std::shared_ptr<Monitor> monitor;
    const bool standby;
};

// A controller over a DELL monitor (standby capable) and the built-in panel. Every enumeration makes new backends
// for the displays plugged in at that moment, as the real enumerator does.
struct Rig {
    struct Display {
        std::uint32_t id;
        std::shared_ptr<Monitor> monitor;
        bool canPowerOff;
    };

    explicit Rig(std::optional<double> dellReading = 0.5) : dell(std::make_shared<Monitor>(dellReading)) {}
    ~Rig()
    {
        dell->hold(false);
        controller.reset();
    }
    void request(std::uint32_t id, double value)
    {
        value == toggle ? controller->togglePower(id) : controller->setBrightness(id, value);
    }
    void plug(std::vector<Display> displays)
    {
        std::lock_guard<std::mutex> lock(mutex);
        plugged = std::move(displays);
    }

    std::shared_ptr<Monitor> dell;
    std::shared_ptr<Monitor> panel = std::make_shared<Monitor>(0.8);
    std::mutex mutex;
    std::vector<Display> plugged{{dellID, dell, true}, {panelID, panel, false}};
    std::atomic<int> enumerations{0};
    std::unique_ptr<DisplayController> controller = std::make_unique<DisplayController>([this] {
        std::lock_guard<std::mutex> lock(mutex);
        ++enumerations;
        std::vector<Lumora::DisplayInfo> infos;
        for (const Display& d : plugged)
            infos.push_back({d.id, "display " + std::to_string(d.id), std::make_shared<Backend>(d.monitor, d.canPowerOff)});
        return infos;
    });
    Watch watch{*controller};
};

TEST(ControllerRules, ShowsEachRequestAtOnceClampedAndTakesStandbyOnlyWhereTheMonitorCanPowerOff)
{
    struct Case {
        const char* what;
        std::uint32_t id;
        double request;
        double shown;
        bool on;
        Calls calls;
    };
    const Case cases[] = {
        {"below 0 on a monitor: standby", dellID, -0.5, 0.0, false, {"read", "off"}},
        {"at the threshold: standby", dellID, 0.01, 0.01, false, {"read", "off"}},
        {"just above it: written", dellID, 0.0101, 0.0101, true, {"read", "write 0.0101"}},
        {"above 1: full brightness", dellID, 7.0, 1.0, true, {"read", "write 1"}},
        {"below 0 on the panel: written as 0", panelID, -0.5, 0.0, true, {"read", "write 0"}},
        {"the panel at the threshold: written", panelID, 0.01, 0.01, true, {"read", "write 0.01"}},
        {"not a number: ignored", dellID, std::numeric_limits<double>::quiet_NaN(), 0.5, true, {"read"}},
        {"the toggle on the panel: nothing, it has no standby", panelID, toggle, 0.8, true, {"read"}},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.what);
        Rig rig;
        ASSERT_TRUE(rig.watch.refreshAndWait());
        const auto monitor = c.id == dellID ? rig.dell : rig.panel;
        monitor->hold(true);  // shown while the hardware has not been touched
        rig.request(c.id, c.request);
        EXPECT_EQ(rig.watch.shown(c.id).brightness, c.shown);
        EXPECT_EQ(rig.watch.shown(c.id).isOn, c.on);
        monitor->hold(false);
        rig.controller.reset();  // runs what the display's queue still holds
        EXPECT_EQ(monitor->calls(), c.calls);
    }
}

TEST(ControllerRules, AWriteLoopKeepsItsBackendAndTheNextLoopTakesTheNewOne)
{
    Rig rig;
    ASSERT_TRUE(rig.watch.refreshAndWait());
    rig.dell->hold(true);
    rig.controller->setBrightness(dellID, 0.3);
    ASSERT_TRUE(pumpUntil([&] { return rig.dell->calls().size() == 2; }));  // the write waits at the gate
    rig.controller->setBrightness(dellID, 0.6);
    rig.plug({{panelID, rig.panel, false}});  // the DELL leaves the enumeration: nothing waits behind its write
    ASSERT_TRUE(rig.watch.refreshAndWait());
    EXPECT_EQ(find(*rig.controller, dellID), nullptr) << "dropped: it was not in standby";
    const int changes = rig.watch.changes;
    rig.controller->setBrightness(dellID, 0.9);  // no longer listed: nothing happens
    rig.controller->step(dellID, 0.1);
    rig.controller->togglePower(dellID);
    EXPECT_EQ(rig.watch.changes, changes);

    const auto successor = std::make_shared<Monitor>(0.6);  // the same display number behind a new backend
    rig.plug({{dellID, successor, true}, {panelID, rig.panel, false}});
    rig.dell->hold(false);
    ASSERT_TRUE(rig.watch.refreshAndWait());
    rig.controller->setBrightness(dellID, 0.2);
    rig.controller.reset();
    EXPECT_EQ(rig.dell->calls(), (Calls{"read", "write 0.3", "write 0.6"}));
    EXPECT_EQ(successor->calls(), (Calls{"read", "write 0.2"}));
}

TEST(ControllerRules, TheToggleWakesAtTheBrightnessItKeptOrAtFullBrightness)
{
    struct Case {
        const char* what;
        double reading;
        std::vector<double> requests;
        double woken;
    };
    const Case cases[] = {
        {"kept when toggled off", 0.5, {0.7, toggle, toggle}, 0.7},
        {"shown at 0 when toggled off", 0.0, {toggle, toggle}, 1.0},
        {"nothing kept", 0.5, {0.0, toggle}, 1.0},
        {"standby and wake by keys keep the toggle's value", 0.5, {0.7, toggle, 1.0, 0.3, 0.0, toggle}, 0.7},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.what);
        Rig rig(c.reading);
        ASSERT_TRUE(rig.watch.refreshAndWait());
        rig.dell->hold(true);
        for (const double request : c.requests)
            rig.request(dellID, request);
        EXPECT_EQ(rig.watch.shown(dellID), (DisplaySnapshot{dellID, "display 5", c.woken, true, true}));
        rig.dell->hold(false);
        rig.controller.reset();  // runs the power commands and writes still queued behind the held call
        std::string lastWrite;
        for (const std::string& call : rig.dell->calls())
            lastWrite = call.starts_with("write") ? call : lastWrite;
        EXPECT_EQ(lastWrite, writeOf(c.woken));
    }
}

TEST(ControllerRules, AMonitorHeldInStandbyStaysShownSoUntilItSaysItIsOn)
{
    struct Case {
        const char* what;
        std::optional<bool> power;
        DisplaySnapshot shown;  // after each of two refreshes
        Calls calls;            // made by the two refreshes
    };
    const Case cases[] = {
        {"silent in standby", std::nullopt, {dellID, "display 5", 0.0, false, true}, {"power", "power"}},
        {"says standby", false, {dellID, "display 5", 0.0, false, true}, {"power", "power"}},
        {"woken by its own button: read, and no longer held", true, {dellID, "display 5", 0.5, true, true},
         {"power", "read", "read"}},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.what);
        Rig rig;
        rig.dell->power = c.power;
        ASSERT_TRUE(rig.watch.refreshAndWait());
        rig.controller->setBrightness(dellID, 0.7);
        rig.controller->togglePower(dellID);
        ASSERT_TRUE(rig.watch.refreshAndWait());
        EXPECT_EQ(rig.watch.shown(dellID), c.shown);
        ASSERT_TRUE(rig.watch.refreshAndWait());
        EXPECT_EQ(rig.watch.shown(dellID), c.shown);
        rig.controller.reset();
        const Calls calls = rig.dell->calls();
        EXPECT_EQ(Calls(calls.begin() + 3, calls.end()), c.calls) << "after read, write 0.7, off";
    }
}

// The refresh found the monitor held in standby and asks only its power mode; the user wakes it meanwhile. The
// refresh read no brightness, so what it publishes keeps the wake's.
TEST(ControllerRules, AMonitorWokenWhileARefreshAsksItsPowerModeShowsTheBrightnessItWokeAt)
{
    Rig rig;
    rig.dell->power = std::nullopt;  // silent in standby
    ASSERT_TRUE(rig.watch.refreshAndWait());
    rig.controller->setBrightness(dellID, 0.7);
    rig.controller->togglePower(dellID);
    const auto lastCall = [&] {
        const Calls calls = rig.dell->calls();
        return calls.empty() ? std::string() : calls.back();
    };
    ASSERT_TRUE(pumpUntil([&] { return lastCall() == "off"; }));
    rig.dell->hold(true);
    rig.controller->refresh();
    ASSERT_TRUE(pumpUntil([&] { return lastCall() == "power"; }));
    rig.controller->togglePower(dellID);
    rig.dell->hold(false);
    // The wake's write runs behind the power read, which the refresh published after; then the main thread has been
    // handed the publication, and runs it before a call posted now.
    ASSERT_TRUE(pumpUntil([&] { return lastCall() == writeOf(0.7); }));
    bool published = false;
    QTimer::singleShot(0, [&] { published = true; });
    ASSERT_TRUE(pumpUntil([&] { return published; }));
    EXPECT_EQ(rig.watch.shown(dellID), (DisplaySnapshot{dellID, "display 5", 0.7, true, true}));
}

TEST(ControllerRules, RefreshesPublishInCallOrderEachEnumeratingOnceThePreviousHasBeenRead)
{
    Rig rig;
    std::vector<std::size_t> published;  // the length of each list published
    QObject::connect(rig.controller.get(), &DisplayController::displaysChanged,
                     [&] { published.push_back(rig.controller->displays().size()); });
    rig.dell->hold(true);
    rig.controller->refresh();  // finds both displays; its read of the DELL waits at the gate
    ASSERT_TRUE(pumpUntil([&] { return rig.dell->calls().size() == 1; }));
    rig.plug({{panelID, rig.panel, false}});
    std::thread([&] { rig.controller->refresh(); }).join();  // any thread may call it
    pumpUntil([] { return false; }, 100ms);
    EXPECT_EQ(rig.enumerations, 1);
    EXPECT_TRUE(published.empty());
    rig.dell->hold(false);
    ASSERT_TRUE(pumpUntil([&] { return published.size() == 2; }));
    EXPECT_EQ(published, (std::vector<std::size_t>{2, 1}));
    EXPECT_EQ(rig.enumerations, 2);
}

TEST(SerialQueue, DestructionRunsWhatIsStillPendingThenJoins)
{
    std::promise<void> release;
    int ran = 0;  // touched by the worker only, until the join
    {
        Lumora::SerialQueue queue("test");
        queue.async([opened = release.get_future().share()] { opened.wait(); });
        for (int i = 0; i < 10; ++i)
            queue.async([&ran] { ++ran; });
        release.set_value();
    }
    EXPECT_EQ(ran, 10);
}

}  // namespace
