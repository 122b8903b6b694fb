// SPDX-License-Identifier: GPL-3.0-or-later
// DDC/CI, backends and enumeration over i2c-dev and sysfs, served by the virtual desk's monitors, which behave as
// real ones do: busy after a Set, null messages, silent in standby, slow to wake. What is checked is what lands on
// the monitor and what the wire shows.

#include <gtest/gtest.h>

#include <fcntl.h>
#include <sys/file.h>
#include <unistd.h>

#include <chrono>
#include <filesystem>
#include <optional>
#include <thread>
#include <tuple>

#include "Lumora/DDC/DDCBackend.h"
#include "Lumora/DDC/DisplayEnumerator.h"
#include "Lumora/DDC/IOAVService.h"
#include "LumoraCore/DDCPacket.h"
#include "tools/virtual-desk/VirtualDesk.h"

using namespace Lumora;
using VirtualDesk::DeskConfig;
using VirtualDesk::Transaction;
using Bytes = std::vector<std::uint8_t>;

namespace {

IOAVServiceRef open(const VirtualDesk::Desk& desk, const std::string& connector)
{
    const IOAVService::CreateFn create = IOAVService::createFn();
    return create ? create(("/dev/i2c-" + std::to_string(desk.busNumber(connector))).c_str()) : nullptr;
}

// The transactions on the connector's bus, in order.
std::vector<Transaction> on(const VirtualDesk::Desk& desk, const std::string& connector)
{
    std::vector<Transaction> out = desk.transactions();
    std::erase_if(out, [&](const Transaction& t) { return t.connector != connector; });
    return out;
}

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

class OnDesk : public ::testing::Test {
protected:
    void TearDown() override { EXPECT_TRUE(!desk || desk->violations().empty()) << desk->violations().front(); }
    std::optional<VirtualDesk::Desk> desk;
};

// A DELL on DisplayPort, a monitor that never answers, an LG on a 0...255 scale, a VGA monitor without a DDC
// adapter, and the panel.
const char* deskFile = R"({
  "cards": [{"connectors": [
    {"name": "DP-1", "connectorId": 95, "edid": {"vendor": "DEL", "model": 41156, "serial": 7, "name": "DELL U2720Q"},
     "ddc": {"bus": 5, "via": "aux"}, "monitor": {"max": 100, "current": 50}},
    {"name": "DP-2", "connectorId": 96, "edid": {"vendor": "ACR", "model": 9}, "ddc": {"bus": 6, "via": "aux"},
     "monitor": {"faults": {"neverAnswer": true}}},
    {"name": "HDMI-A-1", "connectorId": 103, "edid": {"vendor": "GSM", "model": 23305, "name": "LG HDR 4K"},
     "ddc": {"bus": 3, "via": "link"}, "monitor": {"max": 255, "current": 51}},
    {"name": "VGA-1", "connectorId": 120, "edid": {"vendor": "SAM", "model": 1}},
    {"name": "eDP-1", "connectorId": 110, "edid": {"vendor": "BOE", "model": 2330}, "ddc": {"bus": 4, "via": "aux"}}
  ]}],
  "backlights": [{"name": "intel_backlight", "type": "raw", "max": 1000, "brightness": 730, "connector": "card0-eDP-1"}]
})";

struct OnMixedDesk : OnDesk {
    void SetUp() override { desk.emplace(DeskConfig::fromJson(deskFile)); }
};

}  // namespace

TEST_F(OnMixedDesk, GetAndSetTravelAsOneI2CMessageEachToTheDDCAddress)
{
    DDCService ddc(open(*desk, "card0-DP-1"));
    EXPECT_EQ(ddc.getVCP(VCPCode::brightness), (VCPReply{50, 100}));
    ASSERT_TRUE(ddc.setVCP(VCPCode::brightness, 50)) << "a repeat NAKed while the monitor applies it counts as taken";
    EXPECT_EQ(desk->brightness("card0-DP-1"), 50);

    const std::vector<Transaction> wire = on(*desk, "card0-DP-1");
    ASSERT_EQ(wire.size(), 4u);
    EXPECT_EQ(wire[0].bytes, (Bytes{0x51, 0x82, 0x01, 0x10, 0xAC}));
    EXPECT_EQ(wire[1].direction, VirtualDesk::Direction::Read);
    EXPECT_EQ(wire[1].bytes.size(), 11u);
    EXPECT_EQ(wire[2].bytes, (Bytes{0x51, 0x84, 0x03, 0x10, 0x00, 0x32, 0x9A}));
    EXPECT_EQ(wire[3].bytes, wire[2].bytes);
    for (const Transaction& t : wire)
        EXPECT_EQ(std::to_string(t.address) + " " + t.via, "55 rdwr");  // 0x37, one I2C_RDWR message each
    // Busy applying the Set, the monitor NAKs the repeat 10 ms later (on DisplayPort AUX with EREMOTEIO), unless
    // this machine was too slow to send it within the busy time.
    EXPECT_EQ(wire[0].outcome + " " + wire[1].outcome + " " + wire[2].outcome, "ok ok ok");
    EXPECT_TRUE(wire[3].outcome == "ok" || (wire[3].outcome == "EREMOTEIO" && wire[3].note == "busy"))
        << wire[3].outcome;
    EXPECT_GE(wire[1].startUs - wire[0].endUs, 50'000) << "the reply is read 50 ms after the request";
}

TEST_F(OnMixedDesk, EnumerationListsThePairedMonitorsThePanelLastSendsNothingAndSurvivesAnUnplug)
{
    ASSERT_TRUE(IOAVService::isAvailable());
    EXPECT_EQ(IOAVService::createFn()("/dev/i2c-77"), nullptr) << "a bus that does not exist";
    // A VGA monitor without a DDC adapter, and then with a `ddc` link to an adapter that does not exist: left out.
    namespace fs = std::filesystem;
    const fs::path vga = fs::canonical(fs::path(desk->rootDir()) / "sys/class/drm/card0-VGA-1");
    std::vector<DisplayInfo> displays;
    for (bool link : {false, true}) {
        if (link)
            fs::create_symlink("../../../i2c-99", vga / "ddc");
        std::vector<std::tuple<std::uint32_t, std::string, bool>> listed;  // id, name, standby
        displays = DisplayEnumerator::allDisplays();
        for (const DisplayInfo& d : displays)
            listed.emplace_back(d.id, d.name, d.backend->canPowerOff());
        EXPECT_EQ(listed, (decltype(listed){{95, "DELL U2720Q", true}, {96, "Display 96", true},
                                            {103, "LG HDR 4K", true}, {110, "Built-in Display", false}}));
    }
    EXPECT_TRUE(desk->transactions().empty());

    // Unplugged after the enumeration: reads fail, nothing lands, and the next enumeration leaves it out.
    desk->unplug("card0-DP-1");
    EXPECT_FALSE(displays[0].backend->readBrightness());
    displays[0].backend->writeBrightness(0.9);
    displays[0].backend->setPower(false);
    EXPECT_EQ(desk->brightness("card0-DP-1"), 50);
    EXPECT_EQ(desk->powerMode("card0-DP-1"), 1);
    EXPECT_EQ(DisplayEnumerator::allDisplays().front().id, 96u);
    desk->plug("card0-DP-1");
    EXPECT_EQ(DisplayEnumerator::allDisplays().size(), 4u);
}

TEST_F(OnMixedDesk, TheEDIDsOfChannelsNoConnectorOwnsAreReadAgainOnlyWhenAConnectorChangesAndOnlyOnAFreeBus)
{
    // Two monitors behind an MST hub: their connectors link no channel, so each DPMST adapter's EDID is read. A bus
    // another program holds (an flock on its node, as DDC/CI programs take it) is not read while it holds it.
    for (const char* port :
         {R"({"name": "DP-3", "edid": {"vendor": "DEL", "model": 1}, "ddc": {"bus": 7, "via": "pci"}, "monitor": {}})",
          R"({"name": "DP-4", "edid": {"vendor": "ACR", "model": 2}, "ddc": {"bus": 8, "via": "pci"}, "monitor": {}})"}) {
        ASSERT_EQ(desk->control(std::string("add 0 ") + port), "ok");
    }
    const struct {
        const char* what;
        std::string control;     // what happens on the desk before the enumeration
        std::size_t listed;      // displays found
        int reads7, reads8;      // EDID reads on each MST bus
        bool held7 = false;      // another program holds bus 7 throughout
    } steps[] = {
        {"first enumeration", "", 6, 2, 2},
        {"again: nothing read", "", 6, 0, 0},
        {"a connector unplugged", "unplug card0-DP-3", 5, 1, 2},  // DP-3's EEPROM no longer answers
        {"again: what was read is kept, what was not is asked again", "", 5, 1, 0},
        {"plugged again while another program holds bus 7: not read, DP-3 left out", "plug card0-DP-3", 5, 0, 2, true},
        {"bus 7 let go: read now", "", 6, 2, 0},
        {"a monitor with its own channel unplugged", "unplug card0-HDMI-A-1", 5, 2, 2},
        {"plugged again", "plug card0-HDMI-A-1", 6, 2, 2},
        {"and again: nothing read", "", 6, 0, 0},
    };
    for (const auto& step : steps) {
        SCOPED_TRACE(step.what);
        if (!step.control.empty()) {
            ASSERT_EQ(desk->control(step.control), "ok");
        }
        desk->clearTransactions();
        const int holder = step.held7 ? ::open("/dev/i2c-7", O_RDONLY | O_CLOEXEC) : -1;
        ASSERT_TRUE(!step.held7 || ::flock(holder, LOCK_EX) == 0);
        EXPECT_EQ(DisplayEnumerator::allDisplays().size(), step.listed);
        if (holder >= 0)
            ::close(holder);
        int reads[2] = {0, 0};
        for (const Transaction& t : desk->transactions()) {
            EXPECT_EQ(t.direction, VirtualDesk::Direction::Read);
            if (t.address == 0x50 && (t.bus == 7 || t.bus == 8))
                ++reads[t.bus - 7];
        }
        EXPECT_EQ(reads[0], step.reads7);
        EXPECT_EQ(reads[1], step.reads8);
    }
}

// NAKing monitors stay busy longer than hosts are told to wait: a request NAKed after the wait is tried again. The
// busy time is the monitor's: a Get on a descriptor opened anew (as a refresh opens it) waits for it too.
TEST_F(OnDesk, EveryValueLandsOnMonitorsThatNakOrIgnoreWhileBusyWhateverTheAdaptersNak)
{
    desk.emplace(DeskConfig::fromJson(R"({"cards": [
      {"driver": "i915", "connectors": [
        {"name": "DP-1", "ddc": {"bus": 5}, "monitor": {"busyMs": 90}},
        {"name": "HDMI-A-1", "ddc": {"bus": 3}, "monitor": {"busyMs": 90}},
        {"name": "HDMI-A-2", "ddc": {"bus": 4}, "monitor": {"faults": {"nakWhileBusy": false, "dropWhileBusy": true}}},
        {"name": "DP-2", "ddc": {"bus": 6}, "monitor": {}}]},
      {"driver": "amdgpu", "connectors": [
        {"name": "HDMI-A-1", "ddc": {"bus": 7}, "monitor": {"busyMs": 90}},
        {"name": "DP-1", "ddc": {"bus": 8}, "monitor": {"faults": {"nakWhileBusy": false, "dropWhileBusy": true}}}]}
    ]})"));
    for (const char* connector :
         {"card0-DP-1", "card0-HDMI-A-1", "card0-HDMI-A-2", "card0-DP-2", "card1-HDMI-A-1", "card1-DP-1"}) {
        SCOPED_TRACE(connector);
        DDCService ddc(open(*desk, connector));
        for (std::uint16_t value : {30, 40, 41})
            EXPECT_TRUE(ddc.setVCP(VCPCode::brightness, value));
        EXPECT_EQ(DDCService(open(*desk, connector)).getVCP(VCPCode::brightness), (VCPReply{41, 100}));
        EXPECT_EQ(desk->brightness(connector), 41);
        EXPECT_EQ(requestInsideBusyTime(on(*desk, connector)), "");
        for (const Transaction& t : on(*desk, connector))
            EXPECT_TRUE(t.outcome == "ok" || t.note == "busy") << VirtualDesk::toJsonLine(t);
    }
}

// A Set's copy held up past the busy time (a loaded machine) is a new Set, busy again from there; a request just after
// the host's wait may still find a slow monitor busy. The sleeps can only run long, and then the value lands anyway.
TEST_F(OnDesk, AValueLandsWhenTheMonitorTookALateCopyOrIsSlowerThanTheWait)
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

TEST_F(OnDesk, ANullMessageIsAFailedReadNeverAReading)
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
    }
    // The second null message is one of the five attempts of a read, which goes on to the true value.
    EXPECT_EQ(DDCBackend(open(*desk, "card0-DP-1")).readBrightness(), 0.5);
    EXPECT_EQ(DDCBackend(open(*desk, "card0-DP-2")).readBrightness(), 0.5);
}

// A monitor says whether it is on unless it is silent in standby; woken, it is sent its brightness only once it
// answers again, even when it ignores requests while waking.
TEST_F(OnDesk, PowerIsReadAndAWakeIsFollowedByItsBrightness)
{
    desk.emplace(DeskConfig::fromJson(R"({"cards": [{"connectors": [
        {"name": "DP-1", "ddc": {"bus": 5}, "monitor": {"power": 4, "wakeMs": 700}},
        {"name": "DP-2", "ddc": {"bus": 6}, "monitor": {"power": 4, "wakeMs": 700,
                                                       "faults": {"nakWhileBusy": false, "dropWhileBusy": true}}},
        {"name": "DP-3", "ddc": {"bus": 7}, "monitor": {}},
        {"name": "DP-4", "ddc": {"bus": 8}, "monitor": {"profile": "lenient", "power": 4}}]}]})"));
    const std::pair<const char*, std::optional<bool>> powers[] = {
        {"card0-DP-1", std::nullopt}, {"card0-DP-3", true}, {"card0-DP-4", false}};
    for (const auto& [connector, on] : powers)
        EXPECT_EQ(DDCBackend(open(*desk, connector)).readPower(), on) << connector;
    for (const char* connector : {"card0-DP-1", "card0-DP-2"}) {
        SCOPED_TRACE(connector);
        DDCBackend backend(open(*desk, connector));
        backend.setPower(true);
        backend.writeBrightness(0.3);
        EXPECT_EQ(desk->powerMode(connector), 1);
        EXPECT_EQ(desk->brightness(connector), 30);
        std::int64_t answeredUs = -1;  // when the monitor first answered the power poll
        for (const Transaction& t : on(*desk, connector)) {
            if (t.request == "reply" && t.code == 0xD6 && t.outcome == "ok" && answeredUs < 0)
                answeredUs = t.endUs;
            if (t.request == "set" && t.code == 0x10) {
                EXPECT_GT(t.startUs, answeredUs) << VirtualDesk::toJsonLine(t);
            }
        }
        EXPECT_GT(answeredUs, 0);
    }
}
