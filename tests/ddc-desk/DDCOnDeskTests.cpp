// SPDX-License-Identifier: GPL-3.0-or-later
// DDC/CI, backends and enumeration over the real Linux interfaces (i2c-dev ioctls, sysfs), served by the virtual
// desk's emulated monitors, which behave as real ones do (its realistic profile and variants): busy after a Set,
// null messages, silent in standby, slow to wake. DDCService's transactions run unchanged above the transport; what
// is checked is what lands on the monitor and what the wire shows.

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
    std::vector<Transaction> out;
    for (const Transaction& t : desk.transactions()) {
        if (t.connector == connector)
            out.push_back(t);
    }
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
    void TearDown() override
    {
        if (desk) {
            EXPECT_TRUE(desk->violations().empty()) << desk->violations().front();
        }
    }
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

class OnMixedDesk : public OnDesk {
protected:
    void SetUp() override { desk.emplace(DeskConfig::fromJson(deskFile)); }
};

}  // namespace

TEST_F(OnMixedDesk, TheI2CEntryPointsAreBoundWhenTheKernelOffersI2CDev)
{
    EXPECT_TRUE(IOAVService::isAvailable());
    EXPECT_EQ(IOAVService::createFn()("/dev/i2c-77"), nullptr) << "a bus that does not exist";
}

TEST_F(OnMixedDesk, GetAndSetTravelAsOneI2CMessageEachToTheDDCAddress)
{
    DDCService ddc(open(*desk, "card0-DP-1"));
    std::optional<VCPReply> reply = ddc.getVCP(VCPCode::brightness);
    ASSERT_TRUE(reply);
    EXPECT_EQ(*reply, (VCPReply{50, 100}));

    ASSERT_TRUE(ddc.setVCP(VCPCode::brightness, 50)) << "a repeat NAKed while the monitor applies it counts as taken";
    EXPECT_EQ(desk->brightness("card0-DP-1"), 50);

    std::vector<Transaction> wire = on(*desk, "card0-DP-1");
    ASSERT_EQ(wire.size(), 4u);
    EXPECT_EQ(wire[0].bytes, (Bytes{0x51, 0x82, 0x01, 0x10, 0xAC}));
    EXPECT_EQ(wire[1].direction, VirtualDesk::Direction::Read);
    EXPECT_EQ(wire[1].bytes.size(), 11u);
    EXPECT_EQ(wire[2].bytes, (Bytes{0x51, 0x84, 0x03, 0x10, 0x00, 0x32, 0x9A}));
    EXPECT_EQ(wire[3].bytes, wire[2].bytes);
    for (const Transaction& t : wire) {
        EXPECT_EQ(t.address, 0x37);
        EXPECT_EQ(t.via, "rdwr");
    }
    // The monitor is realistic: busy applying the Set, it NAKs the repeat that follows 10 ms later (on DisplayPort
    // AUX with EREMOTEIO), unless this machine was too slow to send the repeat within the busy time.
    EXPECT_EQ(wire[0].outcome + " " + wire[1].outcome + " " + wire[2].outcome, "ok ok ok");
    EXPECT_TRUE(wire[3].outcome == "ok" || (wire[3].outcome == "EREMOTEIO" && wire[3].note == "busy"))
        << wire[3].outcome;
    EXPECT_GE(wire[1].startUs - wire[0].endUs, 50'000) << "the reply is read 50 ms after the request";
}

TEST_F(OnMixedDesk, EnumerationListsThePairedMonitorsThePanelLastAndSendsNothing)
{
    // A VGA monitor without a DDC adapter, and then with a `ddc` link to an adapter that does not exist: left out.
    namespace fs = std::filesystem;
    const fs::path vga = fs::canonical(fs::path(desk->rootDir()) / "sys/class/drm/card0-VGA-1");
    for (bool link : {false, true}) {
        if (link)
            fs::create_symlink("../../../i2c-99", vga / "ddc");
        std::vector<std::tuple<std::uint32_t, std::string, bool>> listed;  // id, name, standby
        for (const DisplayInfo& d : DisplayEnumerator::allDisplays())
            listed.emplace_back(d.id, d.name, d.backend->canPowerOff());
        EXPECT_EQ(listed, (decltype(listed){{95, "DELL U2720Q", true}, {96, "Display 96", true},
                                            {103, "LG HDR 4K", true}, {110, "Built-in Display", false}}));
    }
    fs::remove(vga / "ddc");
    EXPECT_TRUE(desk->transactions().empty());
}

TEST_F(OnMixedDesk, AMonitorUnpluggedAfterEnumerationFailsQuietly)
{
    std::vector<DisplayInfo> displays = DisplayEnumerator::allDisplays();
    ASSERT_FALSE(displays.empty());
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
        if (step.held7) {
            ASSERT_EQ(::flock(holder, LOCK_EX), 0);
        }
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

TEST_F(OnDesk, EveryValueLandsOnMonitorsThatNakOrIgnoreWhileBusyWhateverTheAdaptersNak)
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

TEST_F(OnDesk, TheBusyTimeIsTheMonitorsWhicheverDescriptorTalks)
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
        EXPECT_EQ(Bytes(reply.begin(), reply.begin() + 3), (Bytes{0x6E, 0x80, 0xBE}));
        EXPECT_EQ(desk->transactions().back().request, "null");
    }
    // The second null message is one of the five attempts of a read, which goes on to the true value.
    EXPECT_EQ(DDCBackend(open(*desk, "card0-DP-1")).readBrightness(), 0.5);
    EXPECT_EQ(DDCBackend(open(*desk, "card0-DP-2")).readBrightness(), 0.5);
}

TEST_F(OnDesk, AWakeIsFollowedByItsBrightnessOnAMonitorThatIgnoresRequestsWhileWaking)
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

TEST_F(OnDesk, AMonitorSaysWhetherItIsOnUnlessItIsSilentInStandby)
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
