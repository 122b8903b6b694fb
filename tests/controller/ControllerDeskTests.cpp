// The controller end to end on the virtual desk, with the real enumerator and DDC/CI backends: what reaches the
// monitors on the wire for a drag, stepping, the power toggle, a monitor unplugged in standby, failing hardware.
//
// The default desk: card0-DP-1 is the DELL U2720Q (display 103, brightness 50 of 100), card0-HDMI-A-1 the LG HDR
// 4K (display 110, 70 of 100), card0-eDP-1 the built-in panel (display 95, no DDC/CI).

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <memory>

#include "DeskSupport.h"

using Lumora::DisplayController;
using namespace LumoraTest;

namespace {

constexpr std::uint32_t dellID = 103;
constexpr std::uint32_t lgID = 110;
constexpr std::uint32_t panelID = 95;
const std::string dell = "card0-DP-1";
const std::string lg = "card0-HDMI-A-1";

class ControllerOnDesk : public ::testing::Test {
protected:
    void SetUp() override { ASSERT_TRUE(publications.refreshAndWait()); }

    void TearDown() override
    {
        desk.release(dell);
        desk.release(lg);
        controller.reset();
        EXPECT_THAT(desk.violations(), ::testing::IsEmpty());
    }

    const Lumora::DisplaySnapshot& shown(std::uint32_t id)
    {
        const Lumora::DisplaySnapshot* snapshot = find(*controller, id);
        EXPECT_NE(snapshot, nullptr) << "display " << id << " is not listed";
        static const Lumora::DisplaySnapshot none{};
        return snapshot ? *snapshot : none;
    }

    VirtualDesk::Desk desk{VirtualDesk::DeskConfig::defaultDesk()};
    std::unique_ptr<DisplayController> controller = std::make_unique<DisplayController>();
    Publications publications{*controller};
};

TEST_F(ControllerOnDesk, ListsTheDeskAsTheMonitorsReportIt)
{
    EXPECT_EQ(listedIDs(*controller), (std::vector<std::uint32_t>{dellID, lgID, panelID}));
    EXPECT_EQ(shown(dellID), (Lumora::DisplaySnapshot{dellID, "DELL U2720Q", 0.5, true, true}));
    EXPECT_EQ(shown(lgID), (Lumora::DisplaySnapshot{lgID, "LG HDR 4K", 0.7, true, true}));
    EXPECT_FALSE(shown(panelID).canPowerOff);
}

TEST_F(ControllerOnDesk, ADragDuringOneSlowWritePutsTwoWritesOnTheWire)
{
    desk.clearTransactions();
    desk.hold(dell);
    controller->setBrightness(dellID, 0.1);
    ASSERT_TRUE(pumpUntil([&] { return desk.heldCount(dell) >= 1; }));
    for (int tenth = 2; tenth <= 10; ++tenth) {
        controller->setBrightness(dellID, tenth / 10.0);
    }
    EXPECT_EQ(shown(dellID).brightness, 1.0);
    desk.release(dell);
    ASSERT_TRUE(publications.refreshAndWait());
    EXPECT_EQ(setsOnWire(desk, dell), twice({{brightnessCode, 10}, {brightnessCode, 100}}));
    EXPECT_EQ(desk.brightness(dell), 100);
}

TEST_F(ControllerOnDesk, SteppingDownEntersStandbyAndSteppingUpWakesAndWrites)
{
    controller->setBrightness(dellID, 0.0625);
    ASSERT_TRUE(publications.refreshAndWait());  // written and read back: 6 of 100
    EXPECT_EQ(desk.brightness(dell), 6);
    desk.clearTransactions();

    controller->setBrightness(dellID, 0.0625);  // shown exactly again, as a key would leave it
    ASSERT_TRUE(pumpUntil([&] { return setsOnWire(desk, dell).size() == 2; }));
    controller->step(dellID, -0.0625);
    EXPECT_FALSE(shown(dellID).isOn);
    ASSERT_TRUE(pumpUntil([&] { return desk.powerMode(dell) == 4; }));
    controller->step(dellID, 0.0625);
    EXPECT_TRUE(shown(dellID).isOn);
    EXPECT_EQ(shown(dellID).brightness, 0.0625);
    ASSERT_TRUE(pumpUntil([&] { return setsOnWire(desk, dell).size() == 8; }));
    EXPECT_EQ(setsOnWire(desk, dell),
              twice({{brightnessCode, 6}, {powerModeCode, 4}, {powerModeCode, 1}, {brightnessCode, 6}}));
    EXPECT_EQ(desk.powerMode(dell), 1);
}

TEST_F(ControllerOnDesk, ToggleOffAtSevenTenthsAndOnAgainWritesSevenTenths)
{
    controller->setBrightness(dellID, 0.7);
    ASSERT_TRUE(publications.refreshAndWait());
    desk.clearTransactions();

    controller->togglePower(dellID);
    ASSERT_TRUE(pumpUntil([&] { return desk.powerMode(dell) == 4; }));
    const int changesBeforeWake = publications.changes();
    controller->togglePower(dellID);
    ASSERT_TRUE(pumpUntil([&] { return setsOnWire(desk, dell).size() == 6; }));
    EXPECT_EQ(setsOnWire(desk, dell), twice({{powerModeCode, 4}, {powerModeCode, 1}, {brightnessCode, 70}}));
    EXPECT_EQ(desk.powerMode(dell), 1);

    // Two seconds after each toggle the controller reads the desk back: two in-place changes for the wake, then
    // the two refreshes.
    ASSERT_TRUE(pumpUntil([&] { return publications.changes() >= changesBeforeWake + 4; }, std::chrono::seconds(8)));
    EXPECT_EQ(shown(dellID), (Lumora::DisplaySnapshot{dellID, "DELL U2720Q", 0.7, true, true}));
}

TEST_F(ControllerOnDesk, AMonitorUnpluggedInStandbyStaysListedAndCanStillBeWoken)
{
    controller->setBrightness(lgID, 0.0);
    ASSERT_TRUE(pumpUntil([&] { return desk.powerMode(lg) == 4; }));
    desk.unplug(lg);
    ASSERT_TRUE(publications.refreshAndWait());
    EXPECT_EQ(listedIDs(*controller), (std::vector<std::uint32_t>{dellID, panelID, lgID}));
    EXPECT_FALSE(shown(lgID).isOn);

    desk.plug(lg);  // back on the desk; its row is still the retained one until the next refresh
    desk.clearTransactions();
    controller->togglePower(lgID);
    EXPECT_TRUE(shown(lgID).isOn);
    ASSERT_TRUE(pumpUntil([&] { return setsOnWire(desk, lg).size() == 4; }));
    EXPECT_EQ(setsOnWire(desk, lg), twice({{powerModeCode, 1}, {brightnessCode, 100}}))
        << "nothing kept by a toggle: woken at full brightness";
    ASSERT_TRUE(publications.refreshAndWait());
    EXPECT_EQ(listedIDs(*controller), (std::vector<std::uint32_t>{dellID, lgID, panelID}));
}

TEST_F(ControllerOnDesk, AWakeThatCannotReachAnUnpluggedMonitorWedgesNothing)
{
    controller->setBrightness(lgID, 0.0);
    ASSERT_TRUE(pumpUntil([&] { return desk.powerMode(lg) == 4; }));
    desk.unplug(lg);
    ASSERT_TRUE(publications.refreshAndWait());
    desk.clearTransactions();
    controller->setBrightness(lgID, 0.4);  // the retained row: wake and write, both fail on the bus
    const auto failedOnLG = [&] {
        int failed = 0;
        for (const auto& t : desk.transactions()) {
            failed += t.connector == lg && t.outcome != "ok" ? 1 : 0;
        }
        return failed;
    };
    ASSERT_TRUE(pumpUntil([&] { return failedOnLG() == 4; })) << "both packets of the wake and of the write";
    controller->setBrightness(dellID, 0.2);
    ASSERT_TRUE(pumpUntil([&] { return desk.brightness(dell) == 20; }));
    desk.plug(lg);
    ASSERT_TRUE(publications.refreshAndWait());
    controller->setBrightness(lgID, 0.3);
    ASSERT_TRUE(pumpUntil([&] { return desk.brightness(lg) == 30; }));
    EXPECT_EQ(desk.powerMode(lg), 4) << "the monitor never heard the wake, and the controller shows it on";
    EXPECT_TRUE(shown(lgID).isOn);
}

TEST_F(ControllerOnDesk, AMonitorThatNeverAnswersIsListedAtFullBrightnessAndStillWritten)
{
    VirtualDesk::Faults mute;
    mute.neverAnswer = true;
    desk.setFaults(lg, mute);
    ASSERT_TRUE(publications.refreshAndWait());
    EXPECT_EQ(shown(lgID).brightness, 1.0);
    EXPECT_EQ(shown(dellID).brightness, 0.5);
    controller->setBrightness(lgID, 0.25);
    ASSERT_TRUE(pumpUntil([&] { return desk.brightness(lg) == 25; }));
}

TEST_F(ControllerOnDesk, ARefreshReadsAMonitorOnlyAfterTheWriteInProgressHasCompleted)
{
    desk.clearTransactions();
    desk.hold(dell);
    controller->setBrightness(dellID, 0.3);
    ASSERT_TRUE(pumpUntil([&] { return desk.heldCount(dell) >= 1; }));
    const int before = publications.changes();
    controller->refresh();
    // The LG is read meanwhile; the DELL's read waits behind its held write, and with it the publication.
    ASSERT_TRUE(pumpUntil([&] {
        for (const auto& t : desk.transactions()) {
            if (t.connector == lg && t.request == "reply" && t.outcome == "ok") {
                return true;
            }
        }
        return false;
    }));
    EXPECT_EQ(publications.changes(), before);
    desk.release(dell);
    ASSERT_TRUE(pumpUntil([&] { return publications.changes() > before; }, std::chrono::seconds(10)));
    EXPECT_EQ(shown(dellID).brightness, 0.3) << "read after the write";

    std::int64_t lastSetEnd = 0;
    std::int64_t firstGetStart = -1;
    for (const auto& t : desk.transactions()) {
        if (t.connector != dell) {
            continue;
        }
        if (t.request == "set") {
            lastSetEnd = std::max(lastSetEnd, t.endUs);
        }
        if (t.request == "get" && firstGetStart < 0) {
            firstGetStart = t.startUs;
        }
    }
    EXPECT_GT(firstGetStart, lastSetEnd);
}

}  // namespace
