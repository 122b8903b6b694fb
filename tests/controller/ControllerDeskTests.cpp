// SPDX-License-Identifier: GPL-3.0-or-later
// The controller end to end on the virtual desk, with the real enumerator and backends: what reaches the monitors
// on the wire for requests during a held write, the power toggle, a monitor unplugged in standby, a refresh behind
// a write. (What is shown at once, and the toggle's restore, are decided above the wire: ControllerRuleTests.)
//
// The default desk: card0-DP-1 is the DELL U2720Q (display 103, brightness 50 of 100), card0-HDMI-A-1 the LG HDR
// 4K (display 110, 70 of 100), card0-eDP-1 the built-in panel (display 95, backlight at half).

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <memory>
#include <utility>

#include "support/EventLoop.h"
#include "tools/virtual-desk/VirtualDesk.h"

using Lumora::DisplayController;
using Lumora::DisplaySnapshot;
using namespace LumoraTest;

namespace {

constexpr std::uint32_t dellID = 103;
constexpr std::uint32_t lgID = 110;
constexpr std::uint32_t panelID = 95;
const std::string dell = "card0-DP-1";
const std::string lg = "card0-HDMI-A-1";
constexpr int brightness = 0x10;
constexpr int power = 0xD6;

// One Set VCP request as the monitor applied it: VCP code, value.
using Set = std::pair<int, int>;

class ControllerOnDesk : public ::testing::Test {
protected:
    void SetUp() override { ASSERT_TRUE(watch.refreshAndWait()); }
    void TearDown() override
    {
        desk.releaseAll();
        controller.reset();
        EXPECT_THAT(desk.violations(), ::testing::IsEmpty());
    }

    // The Sets the monitor took and applied, in order (its realistic monitors NAK the repeat of each Set, sent
    // 10 ms after it, while busy with it); with `all`, every Set sent to it, whatever it made of it.
    std::vector<Set> sets(const std::string& connector, bool all = false) const
    {
        std::vector<Set> result;
        for (const VirtualDesk::Transaction& t : desk.transactions()) {
            if (t.connector == connector && t.request == "set" &&
                (all || (t.outcome == "ok" && t.note.find("ignored") == std::string::npos))) {
                result.emplace_back(t.code, t.value);
            }
        }
        return result;
    }

    VirtualDesk::Desk desk{VirtualDesk::DeskConfig::defaultDesk()};
    std::unique_ptr<DisplayController> controller = std::make_unique<DisplayController>();
    Watch watch{*controller};
    const DisplaySnapshot panel{panelID, "Built-in Display", 0.5, true, false};
};

TEST_F(ControllerOnDesk, RequestsDuringOneHeldWriteReachTheWireCoalesced)
{
    struct Case {
        const char* what;
        std::vector<double> requests;  // the first is held on the wire while the others are made
        std::vector<Set> wire;
        DisplayController::PowerCommands commands = DisplayController::PowerCommands::inOrder;
    };
    const Case cases[] = {
        {"a drag: the first value and the last", {0.1, 0.2, 0.3, 0.4, 0.5, 0.6, 0.7, 0.8, 0.9, 1.0},
         {{brightness, 10}, {brightness, 100}}},
        {"the value being written: once", {0.4, 0.4}, {{brightness, 40}}},
        {"replaced, then requested again: once", {0.4, 0.9, 0.4}, {{brightness, 40}}},
        {"standby, then wake: the running loop writes the newest value before the power commands", {0.5, 0.0, 0.8},
         {{brightness, 50}, {brightness, 80}, {power, 4}, {power, 1}}},
        {"standby and wake, twice, in order: every power command", {0.5, 0.0, 0.8, 0.0, 0.8},
         {{brightness, 50}, {brightness, 80}, {power, 4}, {power, 1}, {power, 4}, {power, 1}}},
        {"the same folded, as the bus asks: the newest state once", {0.5, 0.0, 0.8, 0.0, 0.8},
         {{brightness, 50}, {brightness, 80}, {power, 1}}, DisplayController::PowerCommands::newestOnly},
        {"standby, twice: the running loop writes the last value before it, one power command", {0.5, 0.6, 0.0, 0.0},
         {{brightness, 50}, {brightness, 60}, {power, 4}}},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.what);
        desk.clearTransactions();
        desk.hold(dell);
        controller->setBrightness(dellID, c.requests.front());
        ASSERT_TRUE(pumpUntil([&] { return desk.heldCount(dell) == 1; }));
        for (std::size_t i = 1; i < c.requests.size(); ++i)
            controller->setBrightness(dellID, c.requests[i], c.commands);
        desk.release(dell);
        ASSERT_TRUE(watch.refreshAndWait());
        EXPECT_EQ(sets(dell), c.wire);
    }
}

TEST_F(ControllerOnDesk, AMonitorUnpluggedInStandbyStaysListedAndCanStillBeWoken)
{
    controller->setBrightness(lgID, 0.0);
    // Both copies of the standby command are on the wire before the cable goes: a late second copy would
    // otherwise fail on the unplugged bus, or land after the log is cleared below.
    ASSERT_TRUE(pumpUntil([&] { return sets(lg, true) == std::vector<Set>{{power, 4}, {power, 4}}; }));
    desk.unplug(lg);
    desk.unplug(dell);  // on: simply dropped
    ASSERT_TRUE(watch.refreshAndWait());
    EXPECT_EQ(controller->displays(), (std::vector<DisplaySnapshot>{panel, {lgID, "LG HDR 4K", 0.0, false, true}}))
        << "the enumerated display first, then the one retained as it was";

    desk.plug(lg);  // back, and still shown by its retained row until the next refresh
    desk.plug(dell);
    desk.clearTransactions();
    controller->togglePower(lgID);
    ASSERT_TRUE(pumpUntil([&] { return sets(lg).size() == 2; }));
    EXPECT_EQ(sets(lg), (std::vector<Set>{{power, 1}, {brightness, 100}})) << "no brightness kept by a toggle: full";
    ASSERT_TRUE(watch.refreshAndWait());
    EXPECT_EQ(controller->displays(), (std::vector<DisplaySnapshot>{{dellID, "DELL U2720Q", 0.5, true, true},
                                                                   {lgID, "LG HDR 4K", 1.0, true, true}, panel}));
}

TEST_F(ControllerOnDesk, AMonitorWokenAfterARefreshInStandbyIsWrittenOnItsOwnScale)
{
    desk.setMaxBrightness(dell, 255);
    desk.setBrightness(dell, 51);
    ASSERT_TRUE(watch.refreshAndWait());  // learns the maximum
    controller->togglePower(dellID);
    ASSERT_TRUE(pumpUntil([&] { return desk.powerMode(dell) == 4; }));
    ASSERT_TRUE(watch.refreshAndWait());  // the monitor answers nothing now
    controller->togglePower(dellID);
    ASSERT_TRUE(pumpUntil([&] { return sets(dell).size() == 3; }));
    EXPECT_EQ(sets(dell), (std::vector<Set>{{power, 4}, {power, 1}, {brightness, 51}}));
}

TEST_F(ControllerOnDesk, ARefreshReadsAMonitorOnlyOnceItsWriteHasCompleted)
{
    desk.clearTransactions();
    desk.hold(dell);
    controller->setBrightness(dellID, 0.3);
    ASSERT_TRUE(pumpUntil([&] { return desk.heldCount(dell) == 1; }));
    const int before = watch.changes;
    controller->refresh();
    ASSERT_TRUE(pumpUntil([&] {
        for (const VirtualDesk::Transaction& t : desk.transactions()) {
            if (t.connector == lg && t.request == "reply" && t.outcome == "ok") {
                return true;  // the LG has been read meanwhile
            }
        }
        return false;
    }));
    EXPECT_EQ(watch.changes, before) << "the refresh waits for its read of the DELL";
    desk.release(dell);
    ASSERT_TRUE(pumpUntil([&] { return watch.changes > before; }));
    EXPECT_EQ(watch.shown(dellID).brightness, 0.3);
}

}  // namespace
