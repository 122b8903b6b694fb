// SPDX-License-Identifier: GPL-3.0-or-later
// The real `lumora` probe on emulated desks: what it prints, byte for byte, and what reaches each monitor. The desk
// runs in this process, so that the test also sees how often each bus was opened; lumora runs as a child.

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>
#include <filesystem>
#include <map>
#include "support/Subprocess.h"
#include "tools/virtual-desk/VirtualDesk.h"

namespace {

// Per row: the desk; the probe's report, byte for byte; per connector, the brightness values set on its monitor;
// buses that are no display bus; backlight values after the run; LUMORA_PROBE_SET; per connector, the reads sent
// to its monitor; run by a user the desk's buses refuse (which takes root).
struct Case { const char* what; std::string desk, out; std::map<std::string, std::vector<int>> sets;
              std::vector<int> neverOpened; std::map<std::string, int> backlights;
              std::optional<std::string> set = "40"; std::map<std::string, int> gets = {}; bool asNobody = false; };

const std::string noChannel = " (connected); see \"Monitors that are not listed\" in Lumora's README.\n";
const std::string noAccess = "; see \"Device access\" in Lumora's README.\n";

// A DisplayPort monitor with a 0...255 scale, an HDMI monitor without a name, the laptop panel.
const std::string threeDisplays = R"({"cards": [{"connectors": [
    {"name": "DP-1", "connectorId": 95, "edid": {"vendor": "DEL", "model": 41156, "serial": 7, "name": "DELL U2720Q"},
     "ddc": {"bus": 5, "via": "aux"}, "monitor": {"max": 255, "current": 51}},
    {"name": "HDMI-A-1", "connectorId": 103, "edid": {"vendor": "GSM", "model": 23305},
     "ddc": {"bus": 3, "via": "link"}, "monitor": {"max": 100, "current": 50}},
    {"name": "eDP-1", "connectorId": 110, "edid": {"vendor": "BOE", "model": 2330}, "ddc": {"bus": 4, "via": "aux"}}]}],
  "backlights": [{"name": "intel_backlight", "type": "raw", "max": 1000, "brightness": 730, "connector": "card0-eDP-1"}]})";

const Case cases[] = {
    {"every display set, each monitor scaled by its own maximum (127.5 rounds up)", threeDisplays,
     "Displays: 3  (IOAVService: true, DisplayServices: true)\n"
     "\u2022 [95] DELL U2720Q (external/DDC) brightness=20%\n    set 50%\n"
     "\u2022 [103] Display 103 (external/DDC) brightness=50%\n    set 50%\n"
     "\u2022 [110] Built-in Display (internal) brightness=73%\n    set 50%\n",
     {{"card0-DP-1", {128, 128}}, {"card0-HDMI-A-1", {50, 50}}}, {}, {{"intel_backlight", 500}}, "50"},
    {"a monitor that never answers reads n/a after five attempts and is still written",
     R"({"cards": [{"connectors": [
        {"name": "HDMI-A-1", "connectorId": 77, "edid": {"vendor": "ACR", "model": 1234, "name": "Silent"},
         "ddc": {"bus": 3}, "monitor": {"faults": {"neverAnswer": true}}}]}]})",
     "Displays: 1  (IOAVService: true, DisplayServices: false)\n"
     "\u2022 [77] Silent (external/DDC) brightness=n/a\n    set 70%\n",
     {{"card0-HDMI-A-1", {70, 70}}}, {}, {}, "+70", {{"card0-HDMI-A-1", 5}}},
    {"online order [external, built-in, external on card1]: externals first; card1's ids carry its index",
     R"({"cards": [ {"connectors": [
          {"name": "HDMI-A-1", "connectorId": 5, "edid": {"vendor": "GSM", "model": 1}, "ddc": {"bus": 3}, "monitor": {}},
          {"name": "eDP-1", "connectorId": 6, "edid": {"vendor": "BOE", "model": 2}}]}, {"index": 1, "connectors": [
          {"name": "DP-1", "connectorId": 7, "edid": {"vendor": "DEL", "model": 3}, "ddc": {"bus": 9}, "monitor": {}}]}],
       "backlights": [{"name": "acpi_video0", "type": "firmware", "max": 10, "brightness": 5}]})",
     "Displays: 3  (IOAVService: true, DisplayServices: true)\n"
     "\u2022 [5] Display 5 (external/DDC) brightness=50%\n"
     "\u2022 [65543] Display 65543 (external/DDC) brightness=50%\n"
     "\u2022 [6] Built-in Display (internal) brightness=50%\n", {}, {}, {{"acpi_video0", 5}}, std::nullopt},
    {"without the kernel's i2c-dev only the panel is listed, and a note says why",
     R"({"i2cDev": false,)" + threeDisplays.substr(1),
     "Displays: 1  (IOAVService: false, DisplayServices: true)\n"
     "\u2022 [110] Built-in Display (internal) brightness=73%\n    set 10%\n"
     "Note: i2c-dev is not loaded, so no external monitor can be reached; load it with \"sudo modprobe i2c-dev\" "
     "(see \"Device access\" in Lumora's README).\n", {}, {}, {{"intel_backlight", 100}}, "10"},
    {"a panel without backlight is listed and written, but reads n/a",
     R"({"cards": [{"connectors": [
        {"name": "eDP-1", "connectorId": 40, "edid": {"vendor": "BOE", "model": 2}, "ddc": {"bus": 4}}]}]})",
     "Displays: 1  (IOAVService: true, DisplayServices: false)\n"
     "\u2022 [40] Built-in Display (internal) brightness=n/a\n    set 30%\n", {}, {}, {}, "30"},
    {"an EDID of seven bytes of junk: nothing to compare, but one display and one channel pair, named by number",
     R"({"cards": [{"connectors": [
        {"name": "DVI-D-1", "edid": {"raw": "00FFFFFF0102"}, "ddc": {"bus": 2}, "monitor": {"current": 25}},
        {"name": "VGA-1", "status": "disconnected", "edid": {"raw": ""}, "ddc": {"bus": 7}}]}]})",
     "Displays: 1  (IOAVService: true, DisplayServices: false)\n"
     "\u2022 [95] Display 95 (external/DDC) brightness=25%\n", {}, {}, {}, std::nullopt},
    {"two identical monitors, the first behind a dock that blocks DDC: the second keeps its own channel",
     R"({"cards": [{"connectors": [
        {"name": "DP-1", "connectorId": 80, "edid": {"vendor": "DEL", "model": 41156, "name": "DELL P2419H"}},
        {"name": "DP-2", "connectorId": 81, "edid": {"vendor": "DEL", "model": 41156, "name": "DELL P2419H"},
         "ddc": {"bus": 6}, "monitor": {"current": 70}}]}]})",
     "Displays: 1  (IOAVService: true, DisplayServices: false)\n"
     "\u2022 [81] DELL P2419H (external/DDC) brightness=70%\n    set 40%\n"
     "Note: no DDC channel found for card0-DP-1" + noChannel, {{"card0-DP-2", {40, 40}}}, {}, {}},
    {"two identical monitors, the first with DDC/CI switched off: each is written on its own channel only",
     R"({"cards": [{"connectors": [
        {"name": "DP-1", "connectorId": 80, "edid": {"vendor": "DEL", "model": 41156, "name": "DELL P2419H"},
         "ddc": {"bus": 5}},
        {"name": "DP-2", "connectorId": 81, "edid": {"vendor": "DEL", "model": 41156, "name": "DELL P2419H"},
         "ddc": {"bus": 6}, "monitor": {"current": 70}}]}]})",
     "Displays: 2  (IOAVService: true, DisplayServices: false)\n"
     "\u2022 [80] DELL P2419H (external/DDC) brightness=n/a\n    set 40%\n"
     "\u2022 [81] DELL P2419H (external/DDC) brightness=70%\n    set 40%\n", {{"card0-DP-2", {40, 40}}}, {}, {}},
    {"an active monitor without a channel beside a connected but disabled one with a channel: nothing is shared",
     R"({"cards": [{"connectors": [
        {"name": "DP-1", "connectorId": 80, "edid": {"vendor": "DEL", "model": 41156}},
        {"name": "HDMI-A-1", "connectorId": 90, "enabled": false, "edid": {"vendor": "GSM", "model": 23305},
         "ddc": {"bus": 3, "name": "i915 gmbus dpb"}, "monitor": {"current": 30}}]}]})",
     "Displays: 0  (IOAVService: true, DisplayServices: false)\n"
     "Note: no DDC channel found for card0-DP-1" + noChannel, {}, {3}, {}},
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
     "\u2022 [120] DELL P2419H (external/DDC) brightness=30%\n    set 40%\n"
     "\u2022 [121] DELL P2419H (external/DDC) brightness=60%\n    set 40%\n"
     "\u2022 [122] LG HDR 4K (external/DDC) brightness=45%\n    set 40%\n"
     "\u2022 [123] Acer XF270H (external/DDC) brightness=55%\n    set 40%\n"
     "\u2022 [95] Built-in Display (internal) brightness=50%\n    set 40%\n",
     {{"card0-DP-3", {40, 40}}, {"card0-DP-4", {40, 40}}, {"card0-DP-5", {40, 40}}, {"card0-DP-6", {40, 40}}}, {0}, {{"intel_backlight", 400}}},
    {"MST twins (equal binary serials, their own serial strings) on reversed buses: each on its own monitor",
     R"({"cards": [{"connectors": [
        {"name": "DP-3", "connectorId": 120, "edid": {"vendor": "DEL", "model": 41156, "serial": 16843009,
         "serialText": "CFV9N9C", "name": "DELL P2419H"}, "ddc": {"bus": 8, "via": "pci"}, "monitor": {"current": 30}},
        {"name": "DP-4", "connectorId": 121, "edid": {"vendor": "DEL", "model": 41156, "serial": 16843009,
         "serialText": "7FV9N9C", "name": "DELL P2419H"}, "ddc": {"bus": 7, "via": "pci"}, "monitor": {"current": 60}}]}]})",
     "Displays: 2  (IOAVService: true, DisplayServices: false)\n"
     "\u2022 [120] DELL P2419H (external/DDC) brightness=30%\n"
     "\u2022 [121] DELL P2419H (external/DDC) brightness=60%\n", {}, {}, {}, std::nullopt},
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
                      {"bus": 2, "name": "AMDGPU SMU 0", "card": 0}, {"bus": 0, "name": "SMBus I801 adapter"}]})",
     "Displays: 2  (IOAVService: true, DisplayServices: false)\n"
     "\u2022 [100] DELL U2720Q (external/DDC) brightness=20%\n    set 40%\n"
     "\u2022 [102] LG HDR 4K (external/DDC) brightness=20%\n    set 40%\n",
     {{"card0-DP-1", {40, 40}}, {"card0-HDMI-A-1", {102, 102}}}, {9, 2, 0}, {}},
    {"a hybrid laptop: the panel's backlight is the one under the built-in connector in use; 150 is clamped to 100",
     R"({"cards": [ {"connectors": [{"name": "eDP-1", "connectorId": 95, "status": "disconnected", "ddc": {"bus": 4}}]},
        {"index": 1, "pci": "0000:01:00.0", "driver": "nvidia", "connectors": [
          {"name": "eDP-1", "connectorId": 60, "edid": {"vendor": "BOE", "model": 2330}, "ddc": {"bus": 8}},
          {"name": "DP-1", "connectorId": 61, "edid": {"vendor": "DEL", "model": 41156, "name": "DELL U2720Q"},
           "ddc": {"bus": 9}, "monitor": {"current": 50}}]}],
       "backlights": [{"name": "intel_backlight", "max": 1000, "brightness": 300, "connector": "card0-eDP-1"},
                      {"name": "nvidia_0", "max": 100, "brightness": 64, "connector": "card1-eDP-1"}]})",
     "Displays: 2  (IOAVService: true, DisplayServices: true)\n"
     "\u2022 [65597] DELL U2720Q (external/DDC) brightness=50%\n    set 100%\n"
     "\u2022 [65596] Built-in Display (internal) brightness=64%\n    set 100%\n", {{"card1-DP-1", {100, 100}}}, {},
     {{"nvidia_0", 100}, {"intel_backlight", 300}}, "150"},
    {"as a user the buses refuse: a note per channel it may not open; DP-3 and DP-4 sit behind MST, so either "
     "DPMST adapter could be theirs; the disabled monitor is not missing, and SMBus is no display bus",
     R"({"cards": [{"connectors": [
        {"name": "DP-1", "edid": {"vendor": "DEL", "model": 1}, "ddc": {"bus": 5}, "monitor": {}},
        {"name": "DP-3", "edid": {"vendor": "DEL", "model": 2}, "ddc": {"bus": 7, "via": "pci"}, "monitor": {}},
        {"name": "DP-4", "edid": {"vendor": "DEL", "model": 3}, "ddc": {"bus": 8, "via": "pci"}, "monitor": {}},
        {"name": "HDMI-A-1", "enabled": false, "ddc": {"bus": 3}, "monitor": {}}]}],
      "otherBuses": [{"bus": 0, "name": "SMBus I801 adapter"}]})",
     "Displays: 0  (IOAVService: true, DisplayServices: false)\nNote: no permission to open /dev/i2c-5" + noAccess +
     "Note: no permission to open /dev/i2c-7" + noAccess + "Note: no permission to open /dev/i2c-8" + noAccess,
     {}, {}, {}, std::nullopt, {}, true},
};

TEST(Probe, ListsEachMonitorOnItsOwnChannelAndWritesNothingButDDCCI)
{
    for (const Case& c : cases) {
        SCOPED_TRACE(c.what);
        if (c.asNobody && ::geteuid() != 0)
            continue;  // running the probe as another user takes root
        VirtualDesk::Desk desk(VirtualDesk::DeskConfig::fromJson(c.desk), {"", false});
        std::vector<std::string> argv{LUMORA_BINARY};
        if (c.asNobody) {
            // The desk's nodes are pseudo-terminals only root may open, refused to nobody as a real /dev/i2c-N
            // without the udev rule's grant would be; nobody may still read the desk's sysfs and sockets.
            namespace fs = std::filesystem;
            fs::permissions(desk.rootDir(), fs::perms::others_read | fs::perms::others_exec, fs::perm_options::add);
            for (const auto& entry : fs::recursive_directory_iterator(fs::path(desk.rootDir()) / "ioctl"))
                fs::permissions(entry.path(), fs::perms::all, fs::perm_options::add);
            argv.insert(argv.begin(), {"/usr/bin/setpriv", "--reuid=65534", "--regid=65534", "--clear-groups"});
        }
        // No display server: the probe must not need one; the panel is written through sysfs, never a real logind.
        const LumoraTest::ProcessResult run = LumoraTest::runProcess(
            argv, {{"LUMORA_PROBE", "1"}, {"LUMORA_PROBE_SET", c.set}, {"QT_QPA_PLATFORM", "xcb"}, {"DISPLAY", {}},
                   {"WAYLAND_DISPLAY", {}}, {"DBUS_SYSTEM_BUS_ADDRESS", "unix:path=/nonexistent/lumora-test-bus"}},
            std::chrono::seconds(60));
        ASSERT_EQ(run.exitStatus, 0) << run.err;
        EXPECT_EQ(run.out, c.out);

        std::map<std::string, int> gets;  // per connector, the reads sent to its monitor so far
        std::map<std::string, std::vector<int>> sets;
        for (const VirtualDesk::Transaction& t : desk.transactions()) {
            EXPECT_TRUE(t.direction != VirtualDesk::Direction::Write || t.address == 0x37)
                << "bus " << t.bus << ": a write to " << t.address << ", not DDC/CI";
            if (t.request == "get")
                ++gets[t.connector];
            if (t.request == "set") {
                EXPECT_TRUE(gets.count(t.connector)) << t.connector << " written before it was read";
                if (t.code == 0x10)
                    sets[t.connector].push_back(t.value);
            }
        }
        EXPECT_EQ(sets, c.sets) << "brightness set on each connector's monitor";
        for (const auto& [connector, count] : c.gets)
            EXPECT_EQ(gets[connector], count) << connector;
        for (int bus : c.neverOpened)
            EXPECT_EQ(desk.opens(bus), 0) << "bus " << bus << " is no display bus";
        for (const auto& [name, value] : c.backlights)
            EXPECT_EQ(desk.backlightBrightness(name), value) << name;
        EXPECT_THAT(desk.violations(), ::testing::IsEmpty());
    }
}

}  // namespace
