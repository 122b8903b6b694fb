// The udev rule that grants the user at the seat the display buses (data/60-lumora-i2c.rules), judged by udev's
// own matcher against a table of real adapter names and parents.
//
// The desk below has the layout the kernel makes: cards of several drivers, each under its PCI device, adapters as
// DisplayPort AUX children of their connector, as targets of a connector's `ddc` link, or under the GPU with nothing
// linking them, and an SMBus controller.

#include <gtest/gtest.h>

#include <filesystem>

#include "Udevadm.h"
#include "tools/virtual-desk/VirtualDesk.h"

namespace {

namespace fs = std::filesystem;

const char* desk = R"({"cards": [
  {"index": 0, "pci": "0000:00:02.0", "driver": "i915", "connectors": [
    {"name": "DP-1", "ddc": {"bus": 5, "via": "aux", "name": "AUX B/DDI B/PHY B"}},
    {"name": "HDMI-A-1", "ddc": {"bus": 3, "via": "link", "name": "i915 gmbus dpb"}},
    {"name": "DP-3", "ddc": {"bus": 7, "via": "pci", "name": "DPMST"}}]},
  {"index": 1, "pci": "0000:03:00.0", "driver": "amdgpu", "connectors": [
    {"name": "DP-1", "ddc": {"bus": 20, "via": "aux", "name": "AMDGPU DM aux hw bus 0"}},
    {"name": "HDMI-A-1", "ddc": {"bus": 21, "via": "link", "name": "AMDGPU DM i2c hw bus 1"}}]},
  {"index": 2, "pci": "0000:01:00.0", "driver": "nvidia", "connectors": [
    {"name": "DP-1", "ddc": {"bus": 30, "via": "pci", "name": "NVIDIA i2c adapter 7 at 1:00.0"}}]},
  {"index": 3, "pci": "0000:02:00.0", "driver": "nouveau", "connectors": [
    {"name": "HDMI-A-1", "ddc": {"bus": 40, "via": "link", "name": "nvkm-0000:02:00.0-bus-0005"}},
    {"name": "DP-1", "ddc": {"bus": 41, "via": "pci", "name": "nvkm-0000:02:00.0-aux-0006"}}]},
  {"index": 4, "pci": "0000:04:00.0", "driver": "radeon", "connectors": [
    {"name": "DVI-I-1", "ddc": {"bus": 50, "via": "link", "name": "Radeon i2c bit bus 0x90"}}]}],
 "otherBuses": [
  {"bus": 12, "card": 0, "name": "i915 gmbus dpc"},
  {"bus": 22, "card": 1, "name": "AMDGPU SMU 0"},
  {"bus": 23, "card": 1, "name": "AMDGPU SMU 1"},
  {"bus": 31, "card": 2, "name": "NVIDIA i2c adapter 1 at 1:00.0"},
  {"bus": 32, "card": 2, "name": "NVIDIA GPU I2C adapter"},
  {"bus": 0, "name": "SMBus I801 adapter at efa0"},
  {"bus": 1, "name": "DPMST"},
  {"bus": 2, "name": "i915 gmbus dpb"},
  {"bus": 4, "name": "NVIDIA i2c adapter 1 at 1:00.0"}]})";

const struct {
    int bus;
    const char* what;
    bool granted;
} adapters[] = {
    {5, "i915: a DisplayPort connector's AUX channel", true},
    {3, "i915: the gmbus an HDMI connector links", true},
    {7, "an MST port under the GPU, linked by nothing", true},
    {12, "i915: a gmbus pin no connector links", true},
    {20, "amdgpu: a DisplayPort connector's AUX channel", true},
    {21, "amdgpu: the DDC bus an HDMI connector links", true},
    {22, "amdgpu: the SMU bus with the RAS EEPROM", false},
    {23, "amdgpu: the SMU bus with the FRU EEPROM", false},
    {30, "NVIDIA: a connector's bus, linked by nothing", true},
    {31, "NVIDIA: an unused bus of the driver", true},
    {32, "NVIDIA: the GPU's USB-C controller bus", false},
    {40, "nouveau: the DDC bus an HDMI connector links", true},
    {41, "nouveau: an AUX bus under the GPU", true},
    {50, "radeon: the DDC bus a DVI connector links", true},
    {0, "the SMBus controller", false},
    {1, "a display bus's name under the SMBus controller: MST", false},
    {2, "a display bus's name under the SMBus controller: i915", false},
    {4, "a display bus's name under the SMBus controller: NVIDIA", false},
};

TEST(UdevRule, GrantsDisplayBusesOnlyAsUdevItselfMatchesThem)
{
    if (const std::string why = LumoraTest::udevadmUnavailable(); !why.empty())
        GTEST_SKIP() << why;

    VirtualDesk::Desk deskOnTestBed(VirtualDesk::DeskConfig::fromJson(desk), {"", false});
    std::vector<std::string> devpaths;
    for (const auto& a : adapters)
        devpaths.push_back(fs::canonical("/sys/class/i2c-dev/i2c-" + std::to_string(a.bus)).string());
    const auto seen = LumoraTest::udevadmTest(UDEV_RULE, devpaths);
    for (std::size_t i = 0; i < std::size(adapters); ++i) {
        SCOPED_TRACE(adapters[i].what);
        const auto it = seen.find(devpaths[i]);
        ASSERT_NE(it, seen.end()) << "udevadm said nothing about " << devpaths[i];
        EXPECT_EQ(it->second.devpath, devpaths[i]) << "udevadm did not read the node from the desk";
        EXPECT_EQ(it->second.granted(), adapters[i].granted)
            << "i2c-" << adapters[i].bus << " tags \"" << it->second.tags << "\"";
    }
}

}  // namespace
