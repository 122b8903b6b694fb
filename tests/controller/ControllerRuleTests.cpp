// SPDX-License-Identifier: GPL-3.0-or-later
// The controller's rules, against test monitors whose calls can be held at a gate: what is shown at once, what
// reaches a monitor, which backend a write loop uses, the power toggle's restore, the order of refreshes, and the
// serial queue under all of it. What reaches real monitors on the wire is tested on the virtual desk.

#include <gtest/gtest.h>
#include <atomic>
#include <condition_variable>
#include <limits>
#include <mutex>
#include <thread>
#include <QString>
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

// One monitor as a test backend: whether it has standby, the brightness it reads, what it says of its power mode
// (on, standby, nothing), every call made to it as it arrives ("read", "write 0.3", "off", "on", "power"), and a
// gate that holds the calls while it is closed.
struct Monitor final : Lumora::DisplayBackend {
    Monitor(std::optional<double> reading, bool standby) : reading(reading), standby(standby) {}
    void hold(bool closed) { std::lock_guard<std::mutex> lock(mutex); held = closed; opened.notify_all(); }
    Calls calls() { std::lock_guard<std::mutex> lock(mutex); return made; }
    std::optional<double> call(std::string what)
    {
        std::unique_lock<std::mutex> lock(mutex);
        made.push_back(std::move(what));
        opened.wait(lock, [&] { return !held; });
        return reading;
    }
    bool canPowerOff() const override { return standby; }
    std::optional<double> readBrightness() override { return call("read"); }
    void writeBrightness(double fraction) override { call("write " + QString::number(fraction).toStdString()); }
    void setPower(bool on) override { call(on ? "on" : "off"); }
    std::optional<bool> readPower() override { return call("power"), power; }

    const std::optional<double> reading;
    const bool standby;
    std::optional<bool> power;
    std::mutex mutex;
    std::condition_variable opened;  // the gate
    bool held = false;
    Calls made;
};

// A controller over a DELL monitor (standby capable) and the built-in panel; the displays plugged in are those
// enumerated, by display number.
struct Rig {
    using Plugged = std::vector<std::pair<std::uint32_t, std::shared_ptr<Monitor>>>;
    explicit Rig(std::optional<double> dellReading = 0.5) : dell(std::make_shared<Monitor>(dellReading, true)) {}
    ~Rig() { dell->hold(false), panel->hold(false), controller.reset(); }
    void request(std::uint32_t id, double value)
    {
        value == toggle ? controller->togglePower(id) : controller->setBrightness(id, value);
    }
    void plug(Plugged displays) { std::lock_guard<std::mutex> lock(mutex); plugged = std::move(displays); }

    std::shared_ptr<Monitor> dell;
    std::shared_ptr<Monitor> panel = std::make_shared<Monitor>(0.8, false);
    std::mutex mutex;
    Plugged plugged{{dellID, dell}, {panelID, panel}};
    std::atomic<int> enumerations{0};
    std::unique_ptr<DisplayController> controller = std::make_unique<DisplayController>([this] {
        std::lock_guard<std::mutex> lock(mutex);
        ++enumerations;
        std::vector<Lumora::DisplayInfo> infos;
        for (const auto& [id, monitor] : plugged)
            infos.push_back({id, "display " + std::to_string(id), monitor});
        return infos;
    });
    Watch watch{*controller};
};

TEST(ControllerRules, ShowsEachRequestAtOnceAndSendsWhatItMeansToTheMonitor)
{
    // The first request is held at the monitor while the others are made; the Rig's DELL reads `reading` and says
    // `power` of its power mode; with `refreshed`, what each of two refreshes then shows (brightness, on).
    struct Case { const char* what; std::uint32_t id; std::vector<double> requests; double shown; bool on; Calls calls;
                  double reading = 0.5; std::optional<bool> power = {};
                  std::optional<std::pair<double, bool>> refreshed = {}; };
    const Case cases[] = {
        {"below 0 on a monitor: standby", dellID, {-0.5}, 0.0, false, {"read", "off"}},
        {"at the threshold: standby", dellID, {0.01}, 0.01, false, {"read", "off"}},
        {"just above it: written", dellID, {0.0101}, 0.0101, true, {"read", "write 0.0101"}},
        {"above 1: full brightness", dellID, {7.0}, 1.0, true, {"read", "write 1"}},
        {"below 0 on the panel: written as 0", panelID, {-0.5}, 0.0, true, {"read", "write 0"}},
        {"the panel at the threshold: written", panelID, {0.01}, 0.01, true, {"read", "write 0.01"}},
        {"not a number: ignored", dellID, {std::numeric_limits<double>::quiet_NaN()}, 0.5, true, {"read"}},
        {"the toggle on the panel: nothing, it has no standby", panelID, {toggle}, 0.8, true, {"read"}},
        {"the toggle wakes at the brightness it kept", dellID, {0.7, toggle, toggle}, 0.7, true,
         {"read", "write 0.7", "off", "on"}},
        {"shown at 0 when toggled off: wakes at full", dellID, {toggle, toggle}, 1.0, true,
         {"read", "off", "on", "write 1"}, 0.0},
        {"nothing kept: wakes at full", dellID, {0.0, toggle}, 1.0, true, {"read", "off", "on", "write 1"}},
        {"standby and wake by keys keep the toggle's value", dellID, {0.7, toggle, 1.0, 0.3, 0.0, toggle}, 0.7, true,
         {"read", "write 0.7", "off", "on", "off", "on"}},
        {"held in standby and silent: asked its power mode only, and shown so", dellID, {0.7, toggle}, 0.0, false,
         {"read", "write 0.7", "off", "power", "power"}, 0.5, std::nullopt, std::pair(0.0, false)},
        {"held in standby and says so: the same", dellID, {0.7, toggle}, 0.0, false,
         {"read", "write 0.7", "off", "power", "power"}, 0.5, false, std::pair(0.0, false)},
        {"held in standby, woken by its own button: read, and no longer held", dellID, {0.7, toggle}, 0.0, false,
         {"read", "write 0.7", "off", "power", "read", "read"}, 0.5, true, std::pair(0.5, true)},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.what);
        Rig rig(c.reading);
        rig.dell->power = c.power;
        ASSERT_TRUE(rig.watch.refreshAndWait());
        const auto monitor = c.id == dellID ? rig.dell : rig.panel;
        monitor->hold(true);  // shown while the hardware has not been touched
        rig.request(c.id, c.requests.front());
        ASSERT_TRUE(c.requests.size() == 1 || pumpUntil([&] { return monitor->calls().size() == 2; }));
        for (std::size_t i = 1; i < c.requests.size(); ++i)
            rig.request(c.id, c.requests[i]);
        EXPECT_EQ(rig.watch.shown(c.id).brightness, c.shown);
        EXPECT_EQ(rig.watch.shown(c.id).isOn, c.on);
        monitor->hold(false);
        for (int i = 0; c.refreshed && i < 2; ++i) {
            ASSERT_TRUE(rig.watch.refreshAndWait());
            EXPECT_EQ(std::pair(rig.watch.shown(c.id).brightness, rig.watch.shown(c.id).isOn), *c.refreshed);
        }
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
    rig.plug({{panelID, rig.panel}});  // the DELL leaves the enumeration: nothing waits behind its write
    ASSERT_TRUE(rig.watch.refreshAndWait());
    EXPECT_EQ(find(*rig.controller, dellID), nullptr) << "dropped: it was not in standby";
    const int changes = rig.watch.changes;
    rig.controller->setBrightness(dellID, 0.9);  // no longer listed: nothing happens
    rig.controller->step(dellID, 0.1);
    rig.controller->togglePower(dellID);
    EXPECT_EQ(rig.watch.changes, changes);

    const auto successor = std::make_shared<Monitor>(0.6, true);  // the same display number behind a new backend
    rig.plug({{dellID, successor}, {panelID, rig.panel}});
    rig.dell->hold(false);
    ASSERT_TRUE(rig.watch.refreshAndWait());
    rig.controller->setBrightness(dellID, 0.2);
    rig.controller.reset();
    EXPECT_EQ(rig.dell->calls(), (Calls{"read", "write 0.3", "write 0.6"}));
    EXPECT_EQ(successor->calls(), (Calls{"read", "write 0.2"}));
}

// The refresh found the monitor held in standby and asks only its power mode; the user wakes it meanwhile. The
// refresh read no brightness, so what it publishes keeps the wake's.
TEST(ControllerRules, AMonitorWokenWhileARefreshAsksItsPowerModeShowsTheBrightnessItWokeAt)
{
    Rig rig;  // its DELL is silent in standby
    ASSERT_TRUE(rig.watch.refreshAndWait());
    rig.controller->setBrightness(dellID, 0.7);
    rig.controller->togglePower(dellID);
    const auto lastCall = [&] { return rig.dell->calls().back(); };  // the first refresh's read comes first
    ASSERT_TRUE(pumpUntil([&] { return lastCall() == "off"; }));
    rig.dell->hold(true);
    rig.controller->refresh();
    ASSERT_TRUE(pumpUntil([&] { return lastCall() == "power"; }));
    rig.controller->togglePower(dellID);
    rig.dell->hold(false);
    // The wake's write runs after the power read, whose publication the main thread then runs before a call posted now.
    ASSERT_TRUE(pumpUntil([&] { return lastCall() == "write 0.7"; }));
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
    rig.plug({{panelID, rig.panel}});
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
    Monitor gate(std::nullopt, false);
    int ran = 0;  // touched by the worker only, until the join
    {
        Lumora::SerialQueue queue("test");
        gate.hold(true);
        queue.async([&] { gate.call("held"); });
        for (int i = 0; i < 10; ++i)
            queue.async([&ran] { ++ran; });
        gate.hold(false);
    }
    EXPECT_EQ(ran, 10);
}

}  // namespace
