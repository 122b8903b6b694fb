// The Linux transport on monitors that behave as real ones do (the virtual desk's realistic profile and its
// variants): busy after a Set, null messages, silent in standby, slow to wake. DDCService's transactions run
// unchanged above it; what is checked is what lands on the monitor and what the wire shows.

#include <gtest/gtest.h>

#include <chrono>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "Lumora/DDC/DDCBackend.h"
#include "Lumora/DDC/DDCService.h"
#include "LumoraCore/DDCPacket.h"
#include "Channel.h"
#include "tools/virtual-desk/VirtualDesk.h"

using namespace Lumora;
using VirtualDesk::Desk;
using VirtualDesk::DeskConfig;
using VirtualDesk::Transaction;
using LumoraTest::on;
using LumoraTest::open;

namespace {

using Bytes = std::vector<std::uint8_t>;

constexpr std::int64_t busyUs = 50'000;

// Every transfer to the monitor but the repeat of a Set starts at least the busy time after the last Set the monitor
// acknowledged (its first copy: the busy time runs from there). Returns the first one that does not, as text;
// empty when all keep to it.
std::string requestInsideBusyTime(const std::vector<Transaction>& wire)
{
    const Transaction* lastSet = nullptr;
    for (const Transaction& t : wire) {
        const bool repeat = lastSet && t.direction == VirtualDesk::Direction::Write && t.bytes == lastSet->bytes;
        if (lastSet && !repeat && t.startUs < lastSet->endUs + busyUs)
            return VirtualDesk::toJsonLine(t) + " came " + std::to_string(t.startUs - lastSet->endUs) +
                   " us after the Set " + VirtualDesk::toJsonLine(*lastSet);
        if (t.request == "set" && t.outcome == "ok" && !repeat)
            lastSet = &t;
    }
    return "";
}

class Transport : public ::testing::Test {
protected:
    void TearDown() override { EXPECT_TRUE(desk->violations().empty()) << desk->violations().front(); }
    std::optional<Desk> desk;
};

TEST_F(Transport, EveryValueLandsOnMonitorsThatNakOrIgnoreWhileBusyWhateverTheAdaptersNak)
{
    desk.emplace(DeskConfig::fromJson(R"({"cards": [
      {"driver": "i915", "connectors": [
        {"name": "DP-1", "ddc": {"bus": 5}, "monitor": {"busyMs": 90}},
        {"name": "HDMI-A-1", "ddc": {"bus": 3}, "monitor": {"busyMs": 90}},
        {"name": "HDMI-A-2", "ddc": {"bus": 4}, "monitor": {"faults": {"nakWhileBusy": false, "dropWhileBusy": true}}}]},
      {"driver": "amdgpu", "connectors": [
        {"name": "HDMI-A-1", "ddc": {"bus": 7}, "monitor": {"busyMs": 90}},
        {"name": "DP-1", "ddc": {"bus": 8}, "monitor": {"faults": {"nakWhileBusy": false, "dropWhileBusy": true}}}]}
    ]})"));
    // NAKing monitors stay busy longer than hosts are told to wait: a request NAKed after the wait is tried again.
    const char* monitors[] = {"card0-DP-1", "card0-HDMI-A-1", "card0-HDMI-A-2", "card1-HDMI-A-1", "card1-DP-1"};
    for (const char* connector : monitors) {
        SCOPED_TRACE(connector);
        DDCService ddc(open(*desk, connector));
        for (std::uint16_t value : {30, 40, 41})
            EXPECT_TRUE(ddc.setVCP(VCPCode::brightness, value));
        EXPECT_EQ(ddc.getVCP(VCPCode::brightness), (VCPReply{41, 100}));
        EXPECT_EQ(desk->brightness(connector), 41);
        EXPECT_EQ(requestInsideBusyTime(on(*desk, connector)), "");
    }
}

TEST_F(Transport, TheBusyTimeIsTheMonitorsWhicheverDescriptorTalks)
{
    desk.emplace(DeskConfig::defaultDesk());
    DDCBackend writer(open(*desk, "card0-DP-1"));
    DDCBackend reader(open(*desk, "card0-DP-1"));  // a refresh opens the monitor anew
    writer.writeBrightness(0.3);
    EXPECT_EQ(reader.readBrightness(), 0.3);
    writer.writeBrightness(0.6);
    EXPECT_EQ(reader.readBrightness(), 0.6);
    const std::vector<Transaction> wire = on(*desk, "card0-DP-1");
    EXPECT_EQ(requestInsideBusyTime(wire), "");
    for (const Transaction& t : wire)
        EXPECT_TRUE(t.outcome == "ok" || t.note == "busy") << VirtualDesk::toJsonLine(t);
}

// A Set's second copy held up past the monitor's busy time (a loaded machine) is a new Set to the monitor, busy
// again from there; and a request coming unwaited just after the host's wait may still find a slow monitor busy.
// Timed with sleeps that can only run long: run long, the monitor is idle by then and the value lands anyway.
TEST_F(Transport, AValueLandsWhenTheMonitorTookALateCopyOrIsSlowerThanTheWait)
{
    desk.emplace(DeskConfig::fromJson(R"({"cards": [{"driver": "i915", "connectors": [
        {"name": "DP-1", "ddc": {"bus": 5}, "monitor": {"busyMs": 30}},
        {"name": "DP-2", "ddc": {"bus": 6}, "monitor": {"busyMs": 90}}]}]})"));
    // One copy of Set VCP brightness, as the transactions send it.
    const auto write = [](const IOAVServiceRef& service, std::uint16_t value) {
        const Bytes request = DDC::setVCPRequest(VCPCode::brightness, value);
        return IOAVService::writeFn()(service, 0x37, 0x51, request.data(), static_cast<std::uint32_t>(request.size()));
    };
    using std::chrono::milliseconds;

    const IOAVServiceRef dp1 = open(*desk, "card0-DP-1");
    ASSERT_EQ(write(dp1, 20), 0);
    std::this_thread::sleep_for(milliseconds(35));
    ASSERT_EQ(write(dp1, 20), 0);  // the copy, after the monitor's 30 ms: taken as a new Set
    std::this_thread::sleep_for(milliseconds(20));
    EXPECT_EQ(write(dp1, 40), 0);
    EXPECT_EQ(desk->brightness("card0-DP-1"), 40);

    const IOAVServiceRef dp2 = open(*desk, "card0-DP-2");
    ASSERT_EQ(write(dp2, 20), 0);
    std::this_thread::sleep_for(milliseconds(60));  // past the host's wait, inside the monitor's 90 ms
    EXPECT_EQ(write(dp2, 40), 0);
    EXPECT_EQ(desk->brightness("card0-DP-2"), 40);
}

TEST_F(Transport, ANullMessageIsAFailedReadNeverAReading)
{
    desk.emplace(DeskConfig::fromJson(R"({"cards": [{"connectors": [
        {"name": "DP-1", "ddc": {"bus": 5}, "monitor": {"replyDelayMs": 0, "faults": {"nullReplies": 2}}},
        {"name": "DP-2", "ddc": {"bus": 6},
         "monitor": {"replyDelayMs": 0, "faults": {"nullReplies": 2, "nullFiller": "0xFF"}}},
        {"name": "DP-3", "ddc": {"bus": 7}, "monitor": {"replyDelayMs": 60000}}]}]})"));
    const Bytes get{0x82, 0x01, 0x10, 0xAC};
    for (const char* connector : {"card0-DP-1", "card0-DP-2", "card0-DP-3"}) {
        SCOPED_TRACE(connector);
        IOAVServiceRef service = open(*desk, connector);
        Bytes reply(11);
        ASSERT_EQ(IOAVService::writeFn()(service, 0x37, 0x51, get.data(), 4), 0);
        EXPECT_NE(IOAVService::readFn()(service, 0x37, 0, reply.data(), 11), 0);
        EXPECT_EQ(Bytes(reply.begin(), reply.begin() + 3), (Bytes{0x6E, 0x80, 0xBE}));
        EXPECT_EQ(desk->transactions().back().request, "null");
    }
    // The second null message is one of the five attempts of a read, which goes on to the true value.
    EXPECT_EQ(DDCBackend(open(*desk, "card0-DP-1")).readBrightness(), 0.5);
    EXPECT_EQ(DDCBackend(open(*desk, "card0-DP-2")).readBrightness(), 0.5);
}

TEST_F(Transport, AWakeIsFollowedByItsBrightnessOnAMonitorThatIgnoresRequestsWhileWaking)
{
    desk.emplace(DeskConfig::fromJson(R"({"cards": [{"connectors": [
        {"name": "DP-1", "ddc": {"bus": 5}, "monitor": {"power": 4, "wakeMs": 700}},
        {"name": "DP-2", "ddc": {"bus": 6}, "monitor": {"power": 4, "wakeMs": 700,
                                                       "faults": {"nakWhileBusy": false, "dropWhileBusy": true}}}
    ]}]})"));
    for (const char* connector : {"card0-DP-1", "card0-DP-2"}) {
        SCOPED_TRACE(connector);
        DDCBackend backend(open(*desk, connector));
        backend.setPower(true);
        backend.writeBrightness(0.3);
        EXPECT_EQ(desk->powerMode(connector), 1);
        EXPECT_EQ(desk->brightness(connector), 30);
        // The brightness went out once the monitor answered again.
        const std::vector<Transaction> wire = on(*desk, connector);
        std::int64_t answeredUs = -1;
        for (const Transaction& t : wire) {
            if (t.request == "reply" && t.code == 0xD6 && t.outcome == "ok" && answeredUs < 0)
                answeredUs = t.endUs;
            if (t.request == "set" && t.code == 0x10) {
                EXPECT_GT(t.startUs, answeredUs) << VirtualDesk::toJsonLine(t);
            }
        }
        EXPECT_GT(answeredUs, 0);
    }
}

TEST_F(Transport, AMonitorSaysWhetherItIsOnUnlessItIsSilentInStandby)
{
    desk.emplace(DeskConfig::fromJson(R"({"cards": [{"connectors": [
        {"name": "DP-1", "ddc": {"bus": 5}, "monitor": {}},
        {"name": "DP-2", "ddc": {"bus": 6}, "monitor": {"profile": "lenient", "power": 4}},
        {"name": "DP-3", "ddc": {"bus": 7}, "monitor": {"power": 4}}]}]})"));
    const std::pair<const char*, std::optional<bool>> cases[] = {
        {"card0-DP-1", true}, {"card0-DP-2", false}, {"card0-DP-3", std::nullopt}};
    for (const auto& [connector, on] : cases) {
        SCOPED_TRACE(connector);
        EXPECT_EQ(DDCBackend(open(*desk, connector)).readPower(), on);
    }
}

}  // namespace
