// The udev rule that the brightness keys' permission helper installs (data/70-lumora-input.rules), judged by udev's
// own matcher on the virtual desk's keyboards and /dev/uinput (as tests/udev/UdevRuleTests.cpp does for the display
// buses' rule: `udevadm test` in a mount namespace of its own, our rule the only rule, under umockdev's preload).

#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>
#include <map>
#include <sstream>

#include "support/Subprocess.h"
#include "tools/virtual-desk/VirtualDesk.h"

namespace {

namespace fs = std::filesystem;

// What udevadm reported for one device: its path and its tags.
struct Seen {
    std::string devpath;
    std::string tags;
};

std::map<std::string, Seen> udevadmTest(const std::vector<std::string>& devpaths)
{
    std::vector<std::string> argv = {"/usr/bin/unshare", "--mount", "--map-root-user", UDEVADM_TEST_SCRIPT, INPUT_RULE};
    argv.insert(argv.end(), devpaths.begin(), devpaths.end());
    const char* preload = std::getenv("LD_PRELOAD");
    const LumoraTest::ProcessResult run = LumoraTest::runProcess(
        argv, {{"LD_PRELOAD", std::nullopt}, {"LUMORA_UDEV_PRELOAD", preload ? preload : ""}}, std::chrono::seconds(120));
    EXPECT_EQ(run.exitStatus, 0) << run.out << run.err;
    std::map<std::string, Seen> seen;
    std::istringstream out(run.out);
    std::string current;
    for (std::string line; std::getline(out, line);) {
        if (line.rfind("== ", 0) == 0)
            current = line.substr(3);
        else if (line.rfind("DEVPATH=", 0) == 0)
            seen[current].devpath = "/sys" + line.substr(8);
        else if (line.rfind("TAGS=", 0) == 0)
            seen[current].tags = line.substr(5);
    }
    return seen;
}

}  // namespace

TEST(InputRule, TagsEveryKeyDeviceAndUinputForTheSeatAndNothingElse)
{
    const LumoraTest::ProcessResult probe =
        LumoraTest::runProcess({"/usr/bin/unshare", "--mount", "--map-root-user", "/bin/true"}, {}, std::chrono::seconds(30));
    if (probe.exitStatus != 0)
        GTEST_SKIP() << "mount namespaces are not available here: " << probe.err;

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
    const std::map<std::string, Seen> seen = udevadmTest(devpaths);
    for (std::size_t i = 0; i < std::size(devices); ++i) {
        SCOPED_TRACE(devices[i].what);
        const auto it = seen.find(devpaths[i]);
        ASSERT_NE(it, seen.end()) << "udevadm said nothing about " << devpaths[i];
        EXPECT_EQ(it->second.devpath, devpaths[i]) << "udevadm did not read the device from the desk";
        EXPECT_EQ(it->second.tags.find(":uaccess:") != std::string::npos, devices[i].granted)
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
