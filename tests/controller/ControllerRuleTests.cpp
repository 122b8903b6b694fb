// The controller's rules, against scriptable test monitors: what is shown, what reaches each monitor and in which
// order, standby and wake, the refresh and its ordering, thread confinement.

#include <gtest/gtest.h>

#include <QThread>

#include <cmath>
#include <limits>
#include <memory>
#include <set>
#include <thread>
#include <vector>

#include "EventLoop.h"
#include "Lumora/App/DisplayController.h"
#include "TestBackend.h"

using Lumora::DisplayController;
using Lumora::DisplaySnapshot;
using namespace LumoraTest;

namespace {

constexpr std::uint32_t dellID = 5;
constexpr std::uint32_t lgID = 7;
constexpr std::uint32_t panelID = 1;

class ControllerRules : public ::testing::Test {
protected:
    void SetUp() override
    {
        desk.plug({{dellID, "DELL U2720Q", dell, true}, {lgID, "LG HDR 4K", lg, true},
                   {panelID, "Built-in Display", panel, false}});
        controller = std::make_unique<DisplayController>(desk.enumerator());
        QObject::connect(controller.get(), &DisplayController::objectWillChange, [this] {
            ++willChange;
            before.push_back(controller->displays());
        });
        QObject::connect(controller.get(), &DisplayController::displaysChanged, [this] {
            ++changed;
            after.push_back(controller->displays());
        });
    }

    void TearDown() override
    {
        for (const auto& monitor : {dell, lg, panel, spare}) {
            monitor->release();
        }
        controller.reset();
        for (const auto& monitor : {dell, lg, panel, spare}) {
            EXPECT_FALSE(monitor->overlapped()) << "two calls to one monitor overlapped";
        }
    }

    // Calls refresh() and waits until it has published. Every read runs behind what the display's queue already
    // held, so once it has published, every write and power command requested before has reached its monitor.
    void refreshAndWait()
    {
        const std::size_t published = after.size();
        controller->refresh();
        ASSERT_TRUE(pumpUntil([&] { return after.size() > published; })) << "the refresh never published";
    }

    const DisplaySnapshot& shown(std::uint32_t id)
    {
        for (const DisplaySnapshot& snapshot : controller->displays()) {
            if (snapshot.id == id) {
                return snapshot;
            }
        }
        ADD_FAILURE() << "display " << id << " is not listed";
        static const DisplaySnapshot none{};
        return none;
    }

    std::vector<std::uint32_t> listedIDs()
    {
        std::vector<std::uint32_t> ids;
        for (const DisplaySnapshot& snapshot : controller->displays()) {
            ids.push_back(snapshot.id);
        }
        return ids;
    }

    TestDesk desk;
    std::shared_ptr<TestMonitor> dell = std::make_shared<TestMonitor>(0.5);
    std::shared_ptr<TestMonitor> lg = std::make_shared<TestMonitor>(0.25);
    std::shared_ptr<TestMonitor> panel = std::make_shared<TestMonitor>(0.8);
    std::shared_ptr<TestMonitor> spare = std::make_shared<TestMonitor>(0.4);
    std::unique_ptr<DisplayController> controller;
    int willChange = 0;
    int changed = 0;
    std::vector<std::vector<DisplaySnapshot>> before;  // the list as each objectWillChange saw it
    std::vector<std::vector<DisplaySnapshot>> after;   // the list as each displaysChanged saw it
};

// ---- Refresh ---------------------------------------------------------------------------------------------------

TEST_F(ControllerRules, ListsNothingBeforeTheFirstRefreshHasPublished)
{
    EXPECT_TRUE(controller->displays().empty());
    pumpFor(50ms);
    EXPECT_TRUE(controller->displays().empty());
    EXPECT_EQ(desk.enumerations(), 0);
    controller->setBrightness(dellID, 0.3);
    controller->togglePower(dellID);
    controller->step(dellID, 0.1);
    EXPECT_EQ(willChange, 0);
    EXPECT_TRUE(dell->calls().empty());
}

TEST_F(ControllerRules, RefreshListsTheEnumeratedDisplaysInOrderWithTheirReadings)
{
    refreshAndWait();
    const std::vector<DisplaySnapshot> expected{{dellID, "DELL U2720Q", 0.5, true, true},
                                                {lgID, "LG HDR 4K", 0.25, true, true},
                                                {panelID, "Built-in Display", 0.8, true, false}};
    EXPECT_EQ(controller->displays(), expected);
    EXPECT_EQ(willChange, 1) << "one assignment, one notification";
    EXPECT_EQ(changed, 1);
    EXPECT_TRUE(before.front().empty()) << "observers hear of the change before it is made";
}

TEST_F(ControllerRules, AFailedReadIsListedAtFullBrightnessAndAReadingAboveOneIsKept)
{
    dell->setReadFails(true);
    auto bright = std::make_shared<TestMonitor>(1.2);
    desk.plug({{dellID, "DELL U2720Q", dell, true}, {9, "Overdriven", bright, true}});
    refreshAndWait();
    EXPECT_EQ(shown(dellID), (DisplaySnapshot{dellID, "DELL U2720Q", 1.0, true, true}));
    EXPECT_EQ(shown(9).brightness, 1.2);
}

TEST_F(ControllerRules, AReadThatThrowsIsListedAtFullBrightness)
{
    dell->setThrows(true);
    refreshAndWait();
    EXPECT_EQ(shown(dellID).brightness, 1.0);
    dell->setThrows(false);
    controller->setBrightness(dellID, 0.3);
    refreshAndWait();
    EXPECT_EQ(dell->writes(), std::vector<double>{0.3}) << "the display's queue goes on after the failure";
}

TEST_F(ControllerRules, AnEmptyEnumerationListsNothing)
{
    refreshAndWait();
    desk.plug({});
    refreshAndWait();
    EXPECT_TRUE(controller->displays().empty());
    EXPECT_EQ(changed, 2);
}

TEST_F(ControllerRules, AVanishedDisplayInStandbyStaysListedWithItsBackendAndCanBeWoken)
{
    refreshAndWait();
    controller->setBrightness(dellID, 0.0);  // standby
    const DisplaySnapshot asleep = shown(dellID);
    desk.plug({{panelID, "Built-in Display", panel, false}, {lgID, "LG HDR 4K", lg, true}});
    refreshAndWait();

    ASSERT_EQ(listedIDs(), (std::vector<std::uint32_t>{panelID, lgID, dellID}))
        << "enumerated displays first, then the retained one";
    EXPECT_EQ(shown(dellID), asleep);
    EXPECT_FALSE(shown(dellID).isOn);

    controller->setBrightness(dellID, 0.6);
    EXPECT_TRUE(shown(dellID).isOn);
    ASSERT_TRUE(dell->waitCalls(4));
    EXPECT_EQ(dell->ops(), (std::vector<Op>{Op::read, Op::powerOff, Op::powerOn, Op::write}));
    EXPECT_EQ(dell->writes(), std::vector<double>{0.6});
    EXPECT_TRUE(dell->isOn());
}

TEST_F(ControllerRules, AStandbyDisplayStillEnumeratedComesBackOnAndIsRetainedIfItVanishesLater)
{
    refreshAndWait();
    controller->setBrightness(dellID, 0.0);
    refreshAndWait();
    EXPECT_TRUE(shown(dellID).isOn) << "every snapshot built from an enumeration is on";
    EXPECT_EQ(shown(dellID).brightness, 0.5) << "the monitor still reports its brightness in standby";

    // The controller still counts it as put into standby: when it vanishes it stays listed.
    desk.plug({{lgID, "LG HDR 4K", lg, true}});
    refreshAndWait();
    EXPECT_EQ(listedIDs(), (std::vector<std::uint32_t>{lgID, dellID}));

    // Back in the enumeration, it gets a fresh snapshot at its enumeration position.
    desk.plug({{dellID, "DELL U2720Q", dell, true}, {lgID, "LG HDR 4K", lg, true}});
    refreshAndWait();
    EXPECT_EQ(listedIDs(), (std::vector<std::uint32_t>{dellID, lgID}));
}

TEST_F(ControllerRules, AVanishedDisplayNotInStandbyIsDroppedAndServedByItsOldQueueWhenItReturns)
{
    refreshAndWait();
    controller->setBrightness(lgID, 0.3);
    refreshAndWait();
    const std::thread::id lgThread = lg->calls().back().thread;

    desk.plug({{dellID, "DELL U2720Q", dell, true}});
    refreshAndWait();
    EXPECT_EQ(listedIDs(), std::vector<std::uint32_t>{dellID});
    const std::size_t callsWhileAway = lg->calls().size();
    controller->setBrightness(lgID, 0.9);
    controller->step(lgID, 0.1);
    controller->togglePower(lgID);
    EXPECT_EQ(listedIDs(), std::vector<std::uint32_t>{dellID});

    desk.plug({{dellID, "DELL U2720Q", dell, true}, {lgID, "LG HDR 4K", lg, true}});
    refreshAndWait();
    EXPECT_EQ(lg->calls().size(), callsWhileAway + 1) << "nothing but the new refresh's read reached it";
    controller->setBrightness(lgID, 0.7);
    refreshAndWait();
    EXPECT_EQ(lg->writes(), (std::vector<double>{0.3, 0.7}));
    for (const Call& call : lg->calls()) {
        EXPECT_EQ(call.thread, lgThread) << "one queue per display number, kept for good";
    }
}

TEST_F(ControllerRules, TwoEnumerationsOfOneNumberListBothAndKeepTheLaterBackend)
{
    desk.plug({{dellID, "first", dell, true}, {dellID, "second", spare, true}});
    refreshAndWait();
    ASSERT_EQ(controller->displays().size(), 2u);
    EXPECT_EQ(controller->displays()[0].name, "first");
    EXPECT_EQ(controller->displays()[1].name, "second");
    controller->setBrightness(dellID, 0.3);
    refreshAndWait();
    EXPECT_TRUE(dell->writes().empty());
    EXPECT_EQ(spare->writes(), std::vector<double>{0.3});
}

TEST_F(ControllerRules, BackToBackRefreshesPublishInCallOrderAndEachEnumeratesAfresh)
{
    dell->holdReads();
    controller->refresh();  // sees all three; its read of the DELL waits
    ASSERT_TRUE(pumpUntil([&] { return dell->blocked() == 1; }));
    desk.plug({{lgID, "LG HDR 4K", lg, true}});
    controller->refresh();  // would see only the LG
    pumpFor(100ms);
    EXPECT_EQ(changed, 0) << "the second refresh must not overtake the first";
    EXPECT_EQ(desk.enumerations(), 1) << "it enumerates once the first has been read";

    dell->release();
    ASSERT_TRUE(pumpUntil([&] { return after.size() == 2; }));
    EXPECT_EQ(after[0].size(), 3u);
    EXPECT_EQ(after[1].size(), 1u);
    EXPECT_EQ(listedIDs(), std::vector<std::uint32_t>{lgID}) << "the last refresh called is the last published";
    EXPECT_EQ(desk.enumerations(), 2);
}

TEST_F(ControllerRules, ManyRefreshesCalledAtOnceEachPublishOnce)
{
    for (int i = 0; i < 10; ++i) {
        controller->refresh();
    }
    ASSERT_TRUE(pumpUntil([&] { return after.size() == 10; }));
    pumpFor(50ms);
    EXPECT_EQ(after.size(), 10u);
    EXPECT_EQ(desk.enumerations(), 10);
    EXPECT_EQ(dell->count(Op::read), 10u);
}

TEST_F(ControllerRules, RefreshMayBeCalledFromAnyThread)
{
    std::vector<std::thread> callers;
    for (int i = 0; i < 4; ++i) {
        callers.emplace_back([this] { controller->refresh(); });
    }
    for (auto& caller : callers) {
        caller.join();
    }
    ASSERT_TRUE(pumpUntil([&] { return after.size() == 4; }));
    EXPECT_EQ(desk.enumerations(), 4);
    EXPECT_EQ(controller->displays().size(), 3u);
}

TEST_F(ControllerRules, ARequestAfterTheReadButBeforePublicationIsShownThenReplacedAndStillWritten)
{
    refreshAndWait();
    dell->holdReads();
    controller->refresh();
    ASSERT_TRUE(pumpUntil([&] { return dell->blocked() == 1; }));
    controller->setBrightness(dellID, 0.3);
    EXPECT_EQ(shown(dellID).brightness, 0.3) << "shown at once";
    dell->release();
    ASSERT_TRUE(pumpUntil([&] { return after.size() == 3; }));  // publish, request, publish
    EXPECT_EQ(shown(dellID).brightness, 0.5) << "the refresh's earlier reading replaces it";
    ASSERT_TRUE(dell->waitCalls(3));
    EXPECT_EQ(dell->writes(), std::vector<double>{0.3});
}

// ---- Reads on the display's own queue --------------------------------------------------------------------------

TEST_F(ControllerRules, ARefreshReadWaitsForAWriteToTheSameMonitorAndReadsWhatWasWritten)
{
    refreshAndWait();
    dell->holdWrites();
    controller->setBrightness(dellID, 0.3);
    ASSERT_TRUE(dell->waitBlocked());
    controller->refresh();
    ASSERT_TRUE(pumpUntil([&] { return lg->count(Op::read) == 2 && panel->count(Op::read) == 2; }))
        << "the other monitors are read meanwhile";
    EXPECT_EQ(dell->count(Op::read), 1u) << "no read of the DELL while it is being written";
    EXPECT_EQ(changed, 2) << "the refresh waits for its last read";

    dell->release();
    ASSERT_TRUE(pumpUntil([&] { return changed == 3; }));
    EXPECT_EQ(shown(dellID).brightness, 0.3);
    EXPECT_EQ(dell->ops(), (std::vector<Op>{Op::read, Op::write, Op::read}));
}

TEST_F(ControllerRules, ARefreshReadsDifferentMonitorsInParallel)
{
    dell->holdReads();
    lg->holdReads();
    panel->holdReads();
    controller->refresh();
    EXPECT_TRUE(pumpUntil([&] { return dell->blocked() == 1 && lg->blocked() == 1 && panel->blocked() == 1; }))
        << "all three reads are under way at the same time";
    dell->release();
    lg->release();
    panel->release();
    ASSERT_TRUE(pumpUntil([&] { return changed == 1; }));
}

TEST_F(ControllerRules, EachDisplaysHardwareTrafficRunsOnItsOwnThreadAndNeverOnTheMainThread)
{
    refreshAndWait();
    controller->setBrightness(dellID, 0.3);
    controller->setBrightness(lgID, 0.0);
    controller->setBrightness(lgID, 0.6);
    controller->setBrightness(panelID, 0.2);
    refreshAndWait();

    std::set<std::thread::id> threads;
    for (const auto& monitor : {dell, lg, panel}) {
        const std::vector<Call> calls = monitor->calls();
        ASSERT_FALSE(calls.empty());
        for (const Call& call : calls) {
            EXPECT_EQ(call.thread, calls.front().thread) << "reads, writes and power commands share one queue";
            EXPECT_NE(call.thread, std::this_thread::get_id()) << "never on the main thread";
        }
        threads.insert(calls.front().thread);
    }
    EXPECT_EQ(threads.size(), 3u) << "one queue per display";
}

// ---- Writes ----------------------------------------------------------------------------------------------------

TEST_F(ControllerRules, RequestsAreClampedShownAtOnceAndWritten)
{
    refreshAndWait();
    controller->setBrightness(panelID, -0.5);
    EXPECT_EQ(shown(panelID).brightness, 0.0);
    controller->setBrightness(dellID, 7.0);
    EXPECT_EQ(shown(dellID).brightness, 1.0);
    controller->setBrightness(lgID, -0.5);
    EXPECT_EQ(shown(lgID).brightness, 0.0);
    EXPECT_FALSE(shown(lgID).isOn) << "a monitor that can power off goes into standby instead";
    refreshAndWait();
    EXPECT_EQ(panel->writes(), std::vector<double>{0.0}) << "the built-in panel takes 0.0 as a plain write";
    EXPECT_EQ(dell->writes(), std::vector<double>{1.0});
    EXPECT_TRUE(lg->writes().empty());
    EXPECT_EQ(lg->count(Op::powerOff), 1u);
}

TEST_F(ControllerRules, StandbyStartsAtOneHundredthAndNotAbove)
{
    refreshAndWait();
    controller->setBrightness(dellID, 0.01);
    controller->setBrightness(lgID, 0.0101);
    EXPECT_FALSE(shown(dellID).isOn);
    EXPECT_TRUE(shown(lgID).isOn);
    refreshAndWait();
    EXPECT_EQ(dell->ops(), (std::vector<Op>{Op::read, Op::powerOff, Op::read}));
    EXPECT_EQ(lg->writes(), std::vector<double>{0.0101});
}

TEST_F(ControllerRules, ADragDuringOneSlowWriteWritesTheFirstAndTheLastValueOnly)
{
    refreshAndWait();
    dell->holdWrites();
    controller->setBrightness(dellID, 0.1);
    ASSERT_TRUE(dell->waitBlocked());
    for (int tenth = 2; tenth <= 10; ++tenth) {
        controller->setBrightness(dellID, tenth / 10.0);
        EXPECT_EQ(shown(dellID).brightness, tenth / 10.0);
    }
    dell->release();
    refreshAndWait();
    EXPECT_EQ(dell->writes(), (std::vector<double>{0.1, 1.0}));
}

TEST_F(ControllerRules, ARequestEqualToTheValueBeingWrittenIsNotWrittenAgain)
{
    refreshAndWait();
    dell->holdWrites();
    controller->setBrightness(dellID, 0.4);
    ASSERT_TRUE(dell->waitBlocked());
    controller->setBrightness(dellID, 0.4);
    lg->holdWrites();
    controller->setBrightness(lgID, 0.4);
    ASSERT_TRUE(lg->waitBlocked());
    controller->setBrightness(lgID, 0.9);  // replaced, then requested again during the one write
    controller->setBrightness(lgID, 0.4);
    dell->release();
    lg->release();
    refreshAndWait();
    EXPECT_EQ(dell->writes(), std::vector<double>{0.4});
    EXPECT_EQ(lg->writes(), std::vector<double>{0.4});
}

TEST_F(ControllerRules, ARequestAfterTheLoopHasEndedStartsANewOne)
{
    refreshAndWait();
    for (int i = 1; i <= 20; ++i) {
        controller->setBrightness(dellID, i / 20.0);
        if (i % 5 == 0) {
            ASSERT_TRUE(pumpUntil([&] { return !dell->writes().empty() && dell->writes().back() == i / 20.0; }));
        }
    }
    refreshAndWait();
    EXPECT_EQ(dell->writes().back(), 1.0) << "the newest value is always written last";
    EXPECT_EQ(*dell->brightness(), 1.0);
}

TEST_F(ControllerRules, AFailingWriteNeitherReportsNorWedgesTheQueue)
{
    refreshAndWait();
    dell->setThrows(true);
    controller->setBrightness(dellID, 0.3);
    refreshAndWait();
    EXPECT_EQ(shown(dellID).brightness, 1.0) << "the failed read after it";
    dell->setThrows(false);
    controller->setBrightness(dellID, 0.6);
    refreshAndWait();
    controller->togglePower(dellID);
    controller->togglePower(dellID);
    refreshAndWait();
    EXPECT_EQ(dell->writes(), (std::vector<double>{0.3, 0.6, 0.6}));
    EXPECT_EQ(*dell->brightness(), 0.6);
}

TEST_F(ControllerRules, StandbyWaitsForTheRunningLoopToWriteTheLastValueRequestedBeforeIt)
{
    refreshAndWait();
    dell->holdWrites();
    controller->setBrightness(dellID, 0.5);
    ASSERT_TRUE(dell->waitBlocked());
    controller->setBrightness(dellID, 0.6);
    controller->setBrightness(dellID, 0.0);
    dell->release();
    refreshAndWait();
    EXPECT_EQ(dell->ops(), (std::vector<Op>{Op::read, Op::write, Op::write, Op::powerOff, Op::read}));
    EXPECT_EQ(dell->writes(), (std::vector<double>{0.5, 0.6}));
}

TEST_F(ControllerRules, AWakeDuringARunningLoopIsWrittenByThatLoopBeforeThePowerCommands)
{
    refreshAndWait();
    dell->holdWrites();
    controller->setBrightness(dellID, 0.5);
    ASSERT_TRUE(dell->waitBlocked());
    controller->setBrightness(dellID, 0.0);
    controller->setBrightness(dellID, 0.8);
    dell->release();
    refreshAndWait();
    EXPECT_EQ(dell->ops(),
              (std::vector<Op>{Op::read, Op::write, Op::write, Op::powerOff, Op::powerOn, Op::read}));
    EXPECT_EQ(dell->writes(), (std::vector<double>{0.5, 0.8}));
    EXPECT_TRUE(dell->isOn());
}

TEST_F(ControllerRules, AWriteLoopStartedAfterARefreshUsesTheNewBackend)
{
    refreshAndWait();
    controller->setBrightness(dellID, 0.3);
    refreshAndWait();
    controller->setBrightness(dellID, 0.4);
    refreshAndWait();
    const std::vector<Call> calls = dell->calls();
    ASSERT_EQ(calls.size(), 5u);
    EXPECT_EQ(calls[1].backendGeneration, 1);
    EXPECT_EQ(calls[3].backendGeneration, 2);
}

TEST_F(ControllerRules, NotANumberAndUnknownDisplaysChangeNothing)
{
    refreshAndWait();
    const auto listed = controller->displays();
    const int notifications = willChange;
    controller->setBrightness(dellID, std::numeric_limits<double>::quiet_NaN());
    controller->setBrightness(42, 0.3);
    controller->step(42, 0.1);
    controller->togglePower(42);
    controller->step(dellID, std::numeric_limits<double>::quiet_NaN());
    EXPECT_EQ(controller->displays(), listed);
    EXPECT_EQ(willChange, notifications);
    controller->setBrightness(dellID, 0.3);  // the display's write path still works
    refreshAndWait();
    EXPECT_EQ(dell->writes(), std::vector<double>{0.3});
}

TEST_F(ControllerRules, InfinitiesAreClamped)
{
    refreshAndWait();
    controller->setBrightness(panelID, std::numeric_limits<double>::infinity());
    EXPECT_EQ(shown(panelID).brightness, 1.0);
    controller->setBrightness(dellID, -std::numeric_limits<double>::infinity());
    EXPECT_FALSE(shown(dellID).isOn);
}

TEST_F(ControllerRules, ObserversHearOfEveryChangeEvenWhenNothingDiffers)
{
    refreshAndWait();
    const int start = willChange;
    controller->setBrightness(dellID, 0.5);  // same as shown
    EXPECT_EQ(willChange, start + 1);
    EXPECT_EQ(before.back(), after[after.size() - 2]) << "notified before the change";
    controller->setBrightness(dellID, 0.0);  // brightness, then isOn
    EXPECT_EQ(willChange, start + 3);
    EXPECT_EQ(before.back()[0].brightness, 0.0);
    EXPECT_TRUE(before.back()[0].isOn);
    EXPECT_FALSE(after.back()[0].isOn);
    controller->setBrightness(dellID, 0.0);  // already in standby: brightness only
    EXPECT_EQ(willChange, start + 4);
    controller->setBrightness(dellID, 0.5);  // brightness, isOn
    EXPECT_EQ(willChange, start + 6);
    EXPECT_EQ(changed, willChange);
}

// ---- Stepping and power ------------------------------------------------------------------------------------

TEST_F(ControllerRules, SteppingDownToZeroEntersStandbyAndSteppingUpWakes)
{
    refreshAndWait();
    controller->setBrightness(dellID, 0.0625);
    refreshAndWait();  // written
    controller->step(dellID, -0.0625);
    EXPECT_EQ(shown(dellID).brightness, 0.0);
    EXPECT_FALSE(shown(dellID).isOn);
    controller->step(dellID, 0.0625);
    EXPECT_EQ(shown(dellID).brightness, 0.0625);
    EXPECT_TRUE(shown(dellID).isOn);
    refreshAndWait();
    EXPECT_EQ(dell->ops(),
              (std::vector<Op>{Op::read, Op::write, Op::read, Op::powerOff, Op::powerOn, Op::write, Op::read}));
    EXPECT_EQ(dell->writes(), (std::vector<double>{0.0625, 0.0625}));
}

TEST_F(ControllerRules, StepsAccumulateOnTheShownValueHoweverSlowTheMonitor)
{
    refreshAndWait();
    dell->holdWrites();
    controller->step(dellID, 0.0625);
    ASSERT_TRUE(dell->waitBlocked());
    for (int i = 0; i < 3; ++i) {
        controller->step(dellID, 0.0625);
    }
    EXPECT_EQ(shown(dellID).brightness, 0.75);
    controller->step(dellID, 1.0);
    EXPECT_EQ(shown(dellID).brightness, 1.0);
    dell->release();
    refreshAndWait();
    EXPECT_EQ(dell->writes(), (std::vector<double>{0.5625, 1.0}));
}

TEST_F(ControllerRules, ToggleKeepsTheBrightnessAndWakesAtIt)
{
    refreshAndWait();
    controller->setBrightness(dellID, 0.7);
    refreshAndWait();  // written
    controller->togglePower(dellID);
    EXPECT_FALSE(shown(dellID).isOn);
    EXPECT_EQ(shown(dellID).brightness, 0.0);
    controller->togglePower(dellID);
    EXPECT_TRUE(shown(dellID).isOn);
    EXPECT_EQ(shown(dellID).brightness, 0.7);
    refreshAndWait();
    EXPECT_EQ(dell->ops(),
              (std::vector<Op>{Op::read, Op::write, Op::read, Op::powerOff, Op::powerOn, Op::write, Op::read}));
    EXPECT_EQ(dell->writes(), (std::vector<double>{0.7, 0.7}));
}

TEST_F(ControllerRules, ToggleOffFromZeroWakesAtFullBrightness)
{
    auto dark = std::make_shared<TestMonitor>(0.0);
    desk.plug({{dellID, "DELL U2720Q", dark, true}});
    refreshAndWait();
    EXPECT_TRUE(shown(dellID).isOn);
    controller->togglePower(dellID);
    controller->togglePower(dellID);
    EXPECT_EQ(shown(dellID).brightness, 1.0);
    refreshAndWait();
    EXPECT_EQ(dark->writes(), std::vector<double>{1.0});
    dark->release();
}

TEST_F(ControllerRules, OptionKeysNeitherKeepNorForgetTheToggleBrightness)
{
    refreshAndWait();
    controller->setBrightness(dellID, 0.7);
    controller->togglePower(dellID);       // keeps 0.7
    controller->setBrightness(dellID, 1.0);  // Option+F2: wakes at full brightness
    EXPECT_TRUE(shown(dellID).isOn);
    controller->setBrightness(dellID, 0.3);
    controller->setBrightness(dellID, 0.0);  // Option+F1: standby, 0.3 is not kept
    controller->togglePower(dellID);       // wakes at the 0.7 the toggle kept
    EXPECT_EQ(shown(dellID).brightness, 0.7);
    refreshAndWait();
    EXPECT_EQ(dell->writes().back(), 0.7);
    EXPECT_EQ(dell->count(Op::powerOn), 2u);
    EXPECT_EQ(dell->count(Op::powerOff), 2u);

    controller->setBrightness(lgID, 0.0);  // standby without any toggle before: wakes at 1.0
    controller->togglePower(lgID);
    EXPECT_EQ(shown(lgID).brightness, 1.0);
}

TEST_F(ControllerRules, ToggleRefreshesTwoSecondsLaterAndDoesNothingOnTheBuiltInPanel)
{
    refreshAndWait();
    controller->togglePower(panelID);
    EXPECT_EQ(shown(panelID), (DisplaySnapshot{panelID, "Built-in Display", 0.8, true, false}));
    EXPECT_EQ(changed, 1);

    const auto toggled = std::chrono::steady_clock::now();
    controller->togglePower(dellID);
    ASSERT_TRUE(pumpUntil([&] { return desk.enumerations() == 2; }, 5s));
    const auto waited = std::chrono::steady_clock::now() - toggled;
    EXPECT_GE(waited, 1950ms);
    EXPECT_LT(waited, 4000ms);
    pumpFor(300ms);
    EXPECT_EQ(desk.enumerations(), 2) << "one refresh for the DELL's toggle, none for the panel's";
    EXPECT_TRUE(panel->writes().empty());
}

TEST_F(ControllerRules, DestroyingTheControllerRunsWhatItsQueuesHoldAndDropsWhatTheyPostBack)
{
    refreshAndWait();
    dell->setLatency(5ms);
    lg->setLatency(5ms);
    for (int i = 1; i <= 10; ++i) {
        controller->setBrightness(dellID, i / 10.0);
        controller->setBrightness(lgID, 1.0 - i / 20.0);
    }
    controller->togglePower(lgID);
    controller->refresh();
    controller->refresh();
    controller.reset();
    EXPECT_EQ(*dell->brightness(), 1.0) << "the last request still reached the monitor";
    EXPECT_FALSE(lg->isOn());
    pumpFor(50ms);  // whatever the queues had posted back is gone with the controller
}

TEST_F(ControllerRules, RapidRequestsFromTheMainThreadNeverWaitForTheHardware)
{
    refreshAndWait();
    dell->holdWrites();
    controller->setBrightness(dellID, 0.01 + 0.5);
    ASSERT_TRUE(dell->waitBlocked());
    // Were anything to wait for the held write, this would never return and the test would time out.
    for (int i = 0; i < 1000; ++i) {
        controller->setBrightness(dellID, (i % 100) / 100.0 + 0.02);
        controller->step(lgID, i % 2 ? 0.01 : -0.01);
    }
    controller->togglePower(dellID);
    controller->togglePower(dellID);
    EXPECT_EQ(dell->blocked(), 1);
    dell->release();
    refreshAndWait();
    EXPECT_EQ(dell->writes(), (std::vector<double>{0.01 + 0.5, 1.0})) << "the held value, then the newest";
    EXPECT_EQ(dell->ops().back(), Op::read);
    EXPECT_TRUE(dell->isOn());
}

}  // namespace
