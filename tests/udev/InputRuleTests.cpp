// The udev rule that the brightness keys' permission helper installs (data/70-lumora-input.rules), judged by udev's
// own matcher on the virtual desk's keyboards and /dev/uinput (as tests/udev/UdevRuleTests.cpp does for the display
// buses' rule: `udevadm test` in a mount namespace of its own, our rule the only rule, under umockdev's preload).

#include <gtest/gtest.h>

#include <filesystem>

#include "Udevadm.h"
#include "tools/virtual-desk/VirtualDesk.h"

namespace fs = std::filesystem;

TEST(InputRule, TagsEveryKeyDeviceAndUinputForTheSeatAndNothingElse)
{
    if (const std::string why = LumoraTest::udevadmUnavailable(); !why.empty())
        GTEST_SKIP() << why;

    VirtualDesk::Desk desk(VirtualDesk::DeskConfig::defaultDesk(), {"", false});
    const struct {
        std::string device;  // under /sys/class
        const char* what;
        bool granted;
    } devices[] = {
        {"input/event0", "the laptop keyboard", true},
        {"input/event1", "the ACPI Video Bus", true},
        {"input/event2", "an external keyboard", true},
        {"input/event3", "its consumer-control interface", true},
        {"misc/uinput", "/dev/uinput", true},
        {"input/input3", "an input device itself, which has no node", false},
        {"drm/card0-DP-1", "a display connector", false},
    };
    std::vector<std::string> devpaths;
    for (const auto& d : devices)
        devpaths.push_back(fs::canonical("/sys/class/" + d.device).string());
    const auto seen = LumoraTest::udevadmTest(INPUT_RULE, devpaths);
    for (std::size_t i = 0; i < std::size(devices); ++i) {
        SCOPED_TRACE(devices[i].what);
        const auto it = seen.find(devpaths[i]);
        ASSERT_NE(it, seen.end()) << "udevadm said nothing about " << devpaths[i];
        EXPECT_EQ(it->second.devpath, devpaths[i]) << "udevadm did not read the device from the desk";
        EXPECT_EQ(it->second.granted(), devices[i].granted)
            << devices[i].device << " tags \"" << it->second.tags << "\"";
    }
}

TEST(InputRule, ComesBeforeTheSeatRulesThatTurnTagsIntoAccess)
{
    // udev runs rules files in the order of their names across all directories; logind's uaccess tag takes effect
    // in 73-seat-late.rules.
    const std::string name = fs::path(INPUT_RULE).filename().string();
    EXPECT_LT(name, std::string("73-seat-late.rules"));
}
