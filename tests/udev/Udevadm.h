#pragma once
// Runs tests/udev/udevadm-test.sh: systemd's `udevadm test` on devices of the virtual desk (this test runs under
// umockdev-wrapper), in a mount namespace of its own where the given rule is the only rule and udevadm's database
// and links go to scratch space.

#include <gtest/gtest.h>

#include <cstdlib>
#include <map>
#include <sstream>
#include <string>
#include <vector>

#include "support/Subprocess.h"

namespace LumoraTest {

// What udevadm reported for one device: the path it read, and its tags.
struct Seen {
    std::string devpath;
    std::string tags;
    bool granted() const { return tags.find(":uaccess:") != std::string::npos; }
};

// Why `udevadm test` cannot run here (no mount namespaces), or "".
inline std::string udevadmUnavailable()
{
    const ProcessResult probe =
        runProcess({"/usr/bin/unshare", "--mount", "--map-root-user", "/bin/true"}, {}, std::chrono::seconds(30));
    return probe.exitStatus == 0 ? "" : "mount namespaces are not available here: " + probe.err;
}

// Per device path given, what udevadm reported with `rule` as the only rule.
inline std::map<std::string, Seen> udevadmTest(const std::string& rule, const std::vector<std::string>& devpaths)
{
    std::vector<std::string> argv = {"/usr/bin/unshare", "--mount", "--map-root-user", UDEVADM_TEST_SCRIPT, rule};
    argv.insert(argv.end(), devpaths.begin(), devpaths.end());
    const char* preload = std::getenv("LD_PRELOAD");
    EXPECT_NE(preload, nullptr) << "not under umockdev's preload";
    const ProcessResult run = runProcess(
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

}  // namespace LumoraTest
