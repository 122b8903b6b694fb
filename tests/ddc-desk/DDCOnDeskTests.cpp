// DDC/CI, backends and enumeration over the real Linux interfaces (i2c-dev ioctls, sysfs), served by the
// virtual desk's emulated monitors.

#include <gtest/gtest.h>

#include <fcntl.h>
#include <sys/file.h>
#include <unistd.h>

#include <filesystem>
#include <memory>
#include <tuple>

#include "Lumora/DDC/DDCService.h"
#include "Lumora/DDC/DisplayEnumerator.h"
#include "Lumora/DDC/IOAVService.h"
#include "Channel.h"
#include "tools/virtual-desk/VirtualDesk.h"

using namespace Lumora;
using VirtualDesk::Transaction;

namespace {

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

VirtualDesk::Desk* desk = nullptr;

class DeskEnvironment : public ::testing::Environment {
public:
    void SetUp() override { desk = new VirtualDesk::Desk(VirtualDesk::DeskConfig::fromJson(deskFile)); }
    void TearDown() override
    {
        delete desk;
        desk = nullptr;
    }
};
const auto* registered = ::testing::AddGlobalTestEnvironment(new DeskEnvironment);

class OnDesk : public ::testing::Test {
protected:
    void SetUp() override { desk->clearTransactions(); }
    void TearDown() override { EXPECT_TRUE(desk->violations().empty()) << desk->violations().front(); }

    static std::vector<Transaction> on(const std::string& connector) { return LumoraTest::on(*desk, connector); }
    static IOAVServiceRef open(const std::string& connector) { return LumoraTest::open(*desk, connector); }
};

using Bytes = std::vector<std::uint8_t>;

}  // namespace

TEST_F(OnDesk, TheI2CEntryPointsAreBoundWhenTheKernelOffersI2CDev)
{
    EXPECT_TRUE(IOAVService::isAvailable());
    EXPECT_EQ(IOAVService::createFn()("/dev/i2c-77"), nullptr) << "a bus that does not exist";
}

TEST_F(OnDesk, GetAndSetTravelAsOneI2CMessageEachToTheDDCAddress)
{
    DDCService ddc(open("card0-DP-1"));
    std::optional<VCPReply> reply = ddc.getVCP(VCPCode::brightness);
    ASSERT_TRUE(reply);
    EXPECT_EQ(*reply, (VCPReply{50, 100}));

    ASSERT_TRUE(ddc.setVCP(VCPCode::brightness, 50)) << "a repeat NAKed while the monitor applies it counts as taken";
    EXPECT_EQ(desk->brightness("card0-DP-1"), 50);

    std::vector<Transaction> wire = on("card0-DP-1");
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

TEST_F(OnDesk, EnumerationPairsEveryConnectedMonitorAndListsThePanelLast)
{
    std::vector<DisplayInfo> displays = DisplayEnumerator::allDisplays();
    std::vector<std::tuple<std::uint32_t, std::string, bool>> listed;  // id, name, standby
    for (const DisplayInfo& d : displays)
        listed.emplace_back(d.id, d.name, d.backend->canPowerOff());
    EXPECT_EQ(listed, (decltype(listed){{95, "DELL U2720Q", true}, {96, "Display 96", true}, {103, "LG HDR 4K", true},
                                        {110, "Built-in Display", false}}));
    // A VGA monitor without a DDC adapter has no channel: it is left out.
    EXPECT_TRUE(on("card0-VGA-1").empty());
    // Enumeration itself sends nothing to any monitor.
    EXPECT_TRUE(desk->transactions().empty());
}

TEST_F(OnDesk, AMonitorUnpluggedAfterEnumerationFailsQuietly)
{
    std::vector<DisplayInfo> displays = DisplayEnumerator::allDisplays();
    ASSERT_FALSE(displays.empty());
    desk->unplug("card0-DP-1");
    EXPECT_FALSE(displays[0].backend->readBrightness());
    displays[0].backend->writeBrightness(0.9);
    displays[0].backend->setPower(false);
    EXPECT_EQ(desk->brightness("card0-DP-1"), 50);
    EXPECT_EQ(desk->powerMode("card0-DP-1"), 1);

    std::vector<DisplayInfo> after = DisplayEnumerator::allDisplays();
    EXPECT_EQ(after.size(), 3u);
    EXPECT_EQ(after[0].id, 96u);
    desk->plug("card0-DP-1");
    EXPECT_EQ(DisplayEnumerator::allDisplays().size(), 4u);
}

TEST_F(OnDesk, ADDCLinkToNowhereLeavesTheConnectorOut)
{
    namespace fs = std::filesystem;
    fs::path connector = fs::canonical(fs::path(desk->rootDir()) / "sys/class/drm/card0-VGA-1");
    fs::create_symlink("../../../i2c-99", connector / "ddc");
    std::vector<DisplayInfo> displays = DisplayEnumerator::allDisplays();
    fs::remove(connector / "ddc");
    EXPECT_EQ(displays.size(), 4u);
    for (const DisplayInfo& display : displays)
        EXPECT_NE(display.id, 120u);
}


TEST_F(OnDesk, TheEDIDsOfChannelsNoConnectorOwnsAreReadAgainOnlyWhenAConnectorChangesAndOnlyOnAFreeBus)
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
        if (holder >= 0) {
            ::close(holder);
        }
        int reads[2] = {0, 0};
        for (const Transaction& t : desk->transactions()) {
            EXPECT_EQ(t.direction, VirtualDesk::Direction::Read);
            if (t.address == 0x50 && (t.bus == 7 || t.bus == 8)) {
                ++reads[t.bus - 7];
            }
        }
        EXPECT_EQ(reads[0], step.reads7);
        EXPECT_EQ(reads[1], step.reads8);
    }
    for (const char* port : {"card0-DP-3", "card0-DP-4"}) {
        ASSERT_EQ(desk->control(std::string("remove ") + port), "ok");
    }
}
