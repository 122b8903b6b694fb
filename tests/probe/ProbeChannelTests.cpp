// The real `lumora` probe on desks where finding each monitor's channel matters: monitors without a channel of
// their own, MST ports and NVIDIA's buses that no connector links, a hybrid laptop with two built-in connectors.
// The desk runs in this process, so that besides what the probe prints and what reached each monitor on the wire,
// the test sees how often each bus was opened: a bus that is not a display bus must never be.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <unistd.h>

#include <filesystem>
#include <map>

#include "support/Subprocess.h"
#include "tools/virtual-desk/VirtualDesk.h"

namespace {

using LumoraTest::Environment;
using VirtualDesk::Transaction;

struct Case {
    const char* what;
    std::string desk;
    std::string out;                                   // the probe's report, byte for byte, with LUMORA_PROBE_SET=40
    std::map<std::string, std::vector<int>> sets;      // per connector, the brightness values set on its monitor
    std::vector<int> neverOpened;                      // buses that are no display bus
    std::map<std::string, int> backlights;             // backlight values after the run
};

const std::string noChannel = " (connected); see \"Monitors that are not listed\" in Lumora's README.\n";

const Case cases[] = {
    {"two identical monitors, the first behind a dock that blocks DDC: the second keeps its own channel",
     R"({"cards": [{"connectors": [
        {"name": "DP-1", "connectorId": 80, "edid": {"vendor": "DEL", "model": 41156, "name": "DELL P2419H"}},
        {"name": "DP-2", "connectorId": 81, "edid": {"vendor": "DEL", "model": 41156, "name": "DELL P2419H"},
         "ddc": {"bus": 6}, "monitor": {"current": 70}}]}]})",
     "Displays: 1  (IOAVService: true, DisplayServices: false)\n"
     "\u2022 [81] DELL P2419H (external/DDC) brightness=70%\n"
     "    set 40%\n"
     "Note: no DDC channel found for card0-DP-1" + noChannel,
     {{"card0-DP-2", {40, 40}}},
     {},
     {}},
    {"two identical monitors, the first with DDC/CI switched off: each is written on its own channel only",
     R"({"cards": [{"connectors": [
        {"name": "DP-1", "connectorId": 80, "edid": {"vendor": "DEL", "model": 41156, "name": "DELL P2419H"},
         "ddc": {"bus": 5}},
        {"name": "DP-2", "connectorId": 81, "edid": {"vendor": "DEL", "model": 41156, "name": "DELL P2419H"},
         "ddc": {"bus": 6}, "monitor": {"current": 70}}]}]})",
     "Displays: 2  (IOAVService: true, DisplayServices: false)\n"
     "\u2022 [80] DELL P2419H (external/DDC) brightness=n/a\n"
     "    set 40%\n"
     "\u2022 [81] DELL P2419H (external/DDC) brightness=70%\n"
     "    set 40%\n",
     {{"card0-DP-2", {40, 40}}},
     {},
     {}},
    {"an active monitor without a channel beside a connected but disabled one with a channel: nothing is shared",
     R"({"cards": [{"connectors": [
        {"name": "DP-1", "connectorId": 80, "edid": {"vendor": "DEL", "model": 41156}},
        {"name": "HDMI-A-1", "connectorId": 90, "enabled": false, "edid": {"vendor": "GSM", "model": 23305},
         "ddc": {"bus": 3, "name": "i915 gmbus dpb"}, "monitor": {"current": 30}}]}]})",
     "Displays: 0  (IOAVService: true, DisplayServices: false)\n"
     "Note: no DDC channel found for card0-DP-1" + noChannel,
     {},
     {3},
     {}},
    {"MST: identical monitors pair in bus order, others by identity; an unused gmbus pin and SMBus stay unwritten",
     R"({"cards": [{"connectors": [
        {"name": "DP-1", "status": "disconnected", "ddc": {"bus": 5}},
        {"name": "DP-3", "connectorId": 120, "edid": {"vendor": "DEL", "model": 41156, "name": "DELL P2419H"},
         "ddc": {"bus": 7, "via": "pci", "eepromAddress": 128}, "monitor": {"current": 30}},
        {"name": "DP-4", "connectorId": 121, "edid": {"vendor": "DEL", "model": 41156, "name": "DELL P2419H"},
         "ddc": {"bus": 8, "via": "pci", "eepromAddress": 77}, "monitor": {"current": 60}},
        {"name": "DP-5", "connectorId": 122, "edid": {"vendor": "GSM", "model": 23305, "name": "LG HDR 4K"},
         "ddc": {"bus": 11, "via": "pci", "eepromAddress": 3}, "monitor": {"current": 45}},
        {"name": "DP-6", "connectorId": 123, "edid": {"vendor": "ACR", "model": 1234, "name": "Acer XF270H"},
         "ddc": {"bus": 10, "via": "pci", "eepromAddress": 255}, "monitor": {"current": 55}},
        {"name": "eDP-1", "connectorId": 95, "edid": {"vendor": "BOE", "model": 2330}, "ddc": {"bus": 4}}]}],
       "backlights": [{"name": "intel_backlight", "max": 1000, "brightness": 500, "connector": "card0-eDP-1"}],
       "otherBuses": [{"bus": 12, "name": "i915 gmbus dpc", "card": 0}, {"bus": 0, "name": "SMBus I801 adapter"}]})",
     "Displays: 5  (IOAVService: true, DisplayServices: true)\n"
     "\u2022 [120] DELL P2419H (external/DDC) brightness=30%\n"
     "    set 40%\n"
     "\u2022 [121] DELL P2419H (external/DDC) brightness=60%\n"
     "    set 40%\n"
     "\u2022 [122] LG HDR 4K (external/DDC) brightness=45%\n"
     "    set 40%\n"
     "\u2022 [123] Acer XF270H (external/DDC) brightness=55%\n"
     "    set 40%\n"
     "\u2022 [95] Built-in Display (internal) brightness=50%\n"
     "    set 40%\n",
     {{"card0-DP-3", {40, 40}}, {"card0-DP-4", {40, 40}}, {"card0-DP-5", {40, 40}}, {"card0-DP-6", {40, 40}}},
     {0},
     {{"intel_backlight", 400}}},
    {"NVIDIA: monitors on the driver's buses by identity; its empty buses answer nothing; the USB-C and SMU buses "
     "and SMBus are never opened",
     R"({"cards": [{"pci": "0000:01:00.0", "driver": "nvidia", "connectors": [
        {"name": "DP-1", "connectorId": 100, "edid": {"vendor": "DEL", "model": 41156, "serial": 7, "name": "DELL U2720Q"},
         "ddc": {"bus": 7, "via": "pci", "name": "NVIDIA i2c adapter 7 at 1:00.0"}, "monitor": {"current": 20}},
        {"name": "DP-2", "connectorId": 101, "status": "disconnected"},
        {"name": "HDMI-A-1", "connectorId": 102, "edid": {"vendor": "GSM", "model": 23305, "name": "LG HDR 4K"},
         "ddc": {"bus": 5, "via": "pci", "name": "NVIDIA i2c adapter 5 at 1:00.0"},
         "monitor": {"max": 255, "current": 51}}]}],
       "otherBuses": [{"bus": 1, "name": "NVIDIA i2c adapter 1 at 1:00.0", "card": 0},
                      {"bus": 3, "name": "NVIDIA i2c adapter 3 at 1:00.0", "card": 0},
                      {"bus": 9, "name": "NVIDIA GPU I2C adapter", "card": 0},
                      {"bus": 2, "name": "AMDGPU SMU 0", "card": 0},
                      {"bus": 0, "name": "SMBus I801 adapter"}]})",
     "Displays: 2  (IOAVService: true, DisplayServices: false)\n"
     "\u2022 [100] DELL U2720Q (external/DDC) brightness=20%\n"
     "    set 40%\n"
     "\u2022 [102] LG HDR 4K (external/DDC) brightness=20%\n"
     "    set 40%\n",
     {{"card0-DP-1", {40, 40}}, {"card0-HDMI-A-1", {102, 102}}},
     {9, 2, 0},
     {}},
    {"a hybrid laptop: the panel's backlight is the one under the built-in connector in use",
     R"({"cards": [
        {"connectors": [{"name": "eDP-1", "connectorId": 95, "status": "disconnected", "ddc": {"bus": 4}}]},
        {"index": 1, "pci": "0000:01:00.0", "driver": "nvidia", "connectors": [
          {"name": "eDP-1", "connectorId": 60, "edid": {"vendor": "BOE", "model": 2330}, "ddc": {"bus": 8}},
          {"name": "DP-1", "connectorId": 61, "edid": {"vendor": "DEL", "model": 41156, "name": "DELL U2720Q"},
           "ddc": {"bus": 9}, "monitor": {"current": 50}}]}],
       "backlights": [{"name": "intel_backlight", "max": 1000, "brightness": 300, "connector": "card0-eDP-1"},
                      {"name": "nvidia_0", "max": 100, "brightness": 64, "connector": "card1-eDP-1"}]})",
     "Displays: 2  (IOAVService: true, DisplayServices: true)\n"
     "\u2022 [65597] DELL U2720Q (external/DDC) brightness=50%\n"
     "    set 40%\n"
     "\u2022 [65596] Built-in Display (internal) brightness=64%\n"
     "    set 40%\n",
     {{"card1-DP-1", {40, 40}}},
     {},
     {{"nvidia_0", 40}, {"intel_backlight", 300}}},
};

TEST(ProbeChannels, EachMonitorOnItsOwnChannelAndNothingButDDCCIWritten)
{
    for (const Case& c : cases) {
        SCOPED_TRACE(c.what);
        VirtualDesk::Desk desk(VirtualDesk::DeskConfig::fromJson(c.desk), {"", false});
        Environment env{{"LUMORA_PROBE", "1"},
                        {"LUMORA_PROBE_SET", "40"},
                        // The panel is written through sysfs here, never through a real logind.
                        {"DBUS_SYSTEM_BUS_ADDRESS", "unix:path=/nonexistent/lumora-test-bus"},
                        {"DISPLAY", std::nullopt},
                        {"WAYLAND_DISPLAY", std::nullopt}};
        LumoraTest::ProcessResult run = LumoraTest::runProcess({LUMORA_BINARY}, env, std::chrono::seconds(60));
        ASSERT_EQ(run.exitStatus, 0) << run.err;
        EXPECT_EQ(run.out, c.out);

        std::map<std::string, std::vector<int>> sets;
        for (const Transaction& t : desk.transactions()) {
            if (t.direction == VirtualDesk::Direction::Write) {
                EXPECT_EQ(t.address, 0x37) << "bus " << t.bus << ": a write that was not DDC/CI";
            }
            if (t.request == "set" && t.code == 0x10)
                sets[t.connector].push_back(t.value);
        }
        EXPECT_EQ(sets, c.sets) << "brightness set on each connector's monitor";
        for (int bus : c.neverOpened)
            EXPECT_EQ(desk.opens(bus), 0) << "bus " << bus << " is no display bus";
        for (const auto& [name, value] : c.backlights)
            EXPECT_EQ(desk.backlightBrightness(name), value) << name;
        EXPECT_THAT(desk.violations(), ::testing::IsEmpty());
    }
}

TEST(ProbeChannels, PermissionNotesNameTheChannelsThisUserMayNotOpen)
{
    if (::geteuid() != 0)
        GTEST_SKIP() << "runs the probe as another user, which takes root";
    // DP-1 has its own channel; DP-3 and DP-4 sit behind MST, so either DPMST adapter could be theirs; the
    // disabled HDMI monitor is not missing, and the SMBus adapter is no display bus.
    VirtualDesk::Desk desk(VirtualDesk::DeskConfig::fromJson(R"({"cards": [{"connectors": [
        {"name": "DP-1", "edid": {"vendor": "DEL", "model": 1}, "ddc": {"bus": 5}, "monitor": {}},
        {"name": "DP-3", "edid": {"vendor": "DEL", "model": 2}, "ddc": {"bus": 7, "via": "pci"}, "monitor": {}},
        {"name": "DP-4", "edid": {"vendor": "DEL", "model": 3}, "ddc": {"bus": 8, "via": "pci"}, "monitor": {}},
        {"name": "HDMI-A-1", "enabled": false, "ddc": {"bus": 3}, "monitor": {}}]}],
      "otherBuses": [{"bus": 0, "name": "SMBus I801 adapter"}]})"),
                           {"", false});
    // The desk's nodes stand for pseudo-terminals that only root may open: as nobody, every open is refused as a
    // real /dev/i2c-N without the udev rule's grant would be. Nobody may still read the desk's sysfs and reach the
    // emulation's sockets.
    namespace fs = std::filesystem;
    fs::permissions(desk.rootDir(), fs::perms::others_read | fs::perms::others_exec, fs::perm_options::add);
    for (const auto& entry : fs::recursive_directory_iterator(fs::path(desk.rootDir()) / "ioctl"))
        fs::permissions(entry.path(), fs::perms::all, fs::perm_options::add);
    Environment env{{"LUMORA_PROBE", "1"},
                    {"DBUS_SYSTEM_BUS_ADDRESS", "unix:path=/nonexistent/lumora-test-bus"},
                    {"DISPLAY", std::nullopt},
                    {"WAYLAND_DISPLAY", std::nullopt}};
    LumoraTest::ProcessResult run = LumoraTest::runProcess(
        {"/usr/bin/setpriv", "--reuid=65534", "--regid=65534", "--clear-groups", LUMORA_BINARY}, env,
        std::chrono::seconds(60));
    ASSERT_EQ(run.exitStatus, 0) << run.err;
    const std::string readme = "; see \"Device access\" in Lumora's README.\n";
    EXPECT_EQ(run.out, "Displays: 0  (IOAVService: true, DisplayServices: false)\n"
                       "Note: no permission to open /dev/i2c-5" + readme +
                       "Note: no permission to open /dev/i2c-7" + readme +
                       "Note: no permission to open /dev/i2c-8" + readme);
    EXPECT_TRUE(desk.transactions().empty());
}

}  // namespace
