// SPDX-License-Identifier: GPL-3.0-or-later
// The udev rule that grants the user at the seat the display buses (data/60-lumora-i2c.rules), judged by systemd's
// own `udevadm test` (in a mount namespace of its own) against a desk with the layout the kernel
// makes: cards of several drivers under their PCI devices, adapters as DisplayPort AUX children of their connector,
// as targets of a connector's `ddc` link or under the GPU with nothing linking them, and an SMBus controller.

#include <gtest/gtest.h>
#include <filesystem>
#include <sstream>
#include "support/Subprocess.h"
#include "tools/virtual-desk/VirtualDesk.h"

namespace {

using namespace std::chrono_literals;

const char* desk = R"({"cards": [
  {"index": 0, "pci": "0000:00:02.0", "driver": "i915", "connectors": [
    {"name": "DP-1", "ddc": {"bus": 5, "via": "aux", "name": "AUX B/DDI B/PHY B"}},
    {"name": "HDMI-A-1", "ddc": {"bus": 3, "via": "link", "name": "i915 gmbus dpb"}},
    {"name": "DP-3", "ddc": {"bus": 7, "via": "pci", "name": "DPMST"}}]},
  {"index": 1, "pci": "0000:03:00.0", "driver": "amdgpu", "connectors": [
    {"name": "HDMI-A-1", "ddc": {"bus": 21, "via": "link", "name": "AMDGPU DM i2c hw bus 1"}}]},
  {"index": 2, "pci": "0000:01:00.0", "driver": "nvidia", "connectors": [
    {"name": "DP-1", "ddc": {"bus": 30, "via": "pci", "name": "NVIDIA i2c adapter 7 at 1:00.0"}}]},
  {"index": 3, "pci": "0000:02:00.0", "driver": "nouveau", "connectors": [
    {"name": "DP-1", "ddc": {"bus": 41, "via": "pci", "name": "nvkm-0000:02:00.0-aux-0006"}}]}],
 "otherBuses": [{"bus": 12, "card": 0, "name": "i915 gmbus dpc"}, {"bus": 22, "card": 1, "name": "AMDGPU SMU 0"},
  {"bus": 32, "card": 2, "name": "NVIDIA GPU I2C adapter"}, {"bus": 0, "name": "SMBus I801 adapter at efa0"},
  {"bus": 1, "name": "DPMST"}, {"bus": 4, "name": "NVIDIA i2c adapter 1 at 1:00.0"}]})";

const struct { int bus; const char* what; bool granted; } adapters[] = {
    {5, "i915: a DisplayPort connector's AUX channel", true},
    {3, "i915: the gmbus an HDMI connector links", true},
    {7, "an MST port under the GPU, linked by nothing", true},
    {12, "i915: a gmbus pin no connector links", true},
    {21, "amdgpu: the DDC bus an HDMI connector links", true},
    {22, "amdgpu: the SMU bus with the RAS EEPROM", false},
    {30, "NVIDIA: a connector's bus, linked by nothing", true},
    {32, "NVIDIA: the GPU's USB-C controller bus", false},
    {41, "nouveau: an AUX bus under the GPU", true},
    {0, "the SMBus controller", false},
    {1, "a display bus's name under the SMBus controller: MST", false},
    {4, "a display bus's name under the SMBus controller: NVIDIA", false},
};

// Runs `udevadm test` on each device given with the rule ($1) as the only rule, on the desk's sysfs (umockdev's
// preload, passed in LUMORA_UDEV_PRELOAD), and prints a line per device: the path given, the path udevadm read, its
// tags. The rule directories, /run/udev and /dev are replaced by scratch space first, which nothing outside the
// namespace sees and nothing outlives; the desk's test bed may live in /dev/shm, kept in sight.
const char* udevadmTest = R"sh(set -eu
mount -t tmpfs lumora-udev-test /run
mkdir /run/rules /run/none /run/shm
cp "$1" /run/rules/
shift
touch /run/null
mount --bind /dev/null /run/null
mount --bind /dev/shm /run/shm
mount --bind /run/none /usr/lib/udev/rules.d
mount --bind /run/rules /etc/udev/rules.d
mount -t tmpfs lumora-udev-test /dev
touch /dev/null
mount --bind /run/null /dev/null
mkdir /dev/shm
mount --bind /run/shm /dev/shm
for devpath in "$@"; do
    LD_PRELOAD=$LUMORA_UDEV_PRELOAD udevadm test --action=add "$devpath" 2>/dev/null >/run/out
    echo "$devpath /sys$(sed -n 's/^DEVPATH=//p' /run/out) $(sed -n 's/^TAGS=//p' /run/out)"
done)sh";

TEST(UdevRule, GrantsDisplayBusesOnlyAsUdevItselfMatchesThem)
{
    std::vector<std::string> argv{"/usr/bin/unshare", "--mount", "--map-root-user", "/bin/true"};
    if (const auto probe = LumoraTest::runProcess(argv, {}, 120s); probe.exitStatus != 0)
        GTEST_SKIP() << "mount namespaces are not available here: " << probe.err;
    argv.back() = "/bin/sh";
    argv.insert(argv.end(), {"-c", udevadmTest, "udevadm-test", UDEV_RULE});
    const std::size_t first = argv.size();
    VirtualDesk::Desk deskOnTestBed(VirtualDesk::DeskConfig::fromJson(desk), {"", false});
    for (const auto& a : adapters)
        argv.push_back(std::filesystem::canonical("/sys/class/i2c-dev/i2c-" + std::to_string(a.bus)).string());
    // The script runs udevadm under the desk's preload itself: the mounts it makes must land where they say.
    const char* preload = std::getenv("LD_PRELOAD");
    ASSERT_NE(preload, nullptr) << "not under umockdev's preload";
    const auto run = LumoraTest::runProcess(argv, {{"LD_PRELOAD", {}}, {"LUMORA_UDEV_PRELOAD", preload}}, 120s);
    ASSERT_EQ(run.exitStatus, 0) << run.out << run.err;

    std::istringstream out(run.out);
    for (std::size_t i = 0; i < std::size(adapters); ++i) {
        SCOPED_TRACE(adapters[i].what);
        std::string line, given, read, tags;
        std::getline(out, line);
        std::istringstream(line) >> given >> read >> tags;
        EXPECT_EQ(given, argv[first + i]) << "udevadm said nothing about it";
        EXPECT_EQ(read, given) << "udevadm did not read the node from the desk";
        EXPECT_EQ(tags.find(":uaccess:") != std::string::npos, adapters[i].granted) << given << " tags " << tags;
    }
}

}  // namespace
