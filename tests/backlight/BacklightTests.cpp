// SPDX-License-Identifier: GPL-3.0-or-later
// The built-in panel's backlight on an emulated sysfs tree (the test runs under umockdev-wrapper): which device,
// reads, sysfs writes, the once-per-process DisplayServices binding with InternalBackend, and the logind write path
// against python-dbusmock on a private bus.

#include <umockdev.h>

#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cmath>
#include <filesystem>
#include <fstream>
#include <memory>

#include <gtest/gtest.h>

#include "Lumora/DDC/DisplayServices.h"
#include "Lumora/DDC/InternalBackend.h"
#include "Lumora/Platform/Linux/Backlight.h"
#include "support/Subprocess.h"

using namespace Lumora;
using namespace std::chrono_literals;
using enum Platform::BacklightWrite;
using LumoraTest::Child;

namespace {

const std::string kPci = "/devices/pci0000:00/0000:00:02.0/";
const std::string kPanelConnector = kPci + "drm/card0/card0-eDP-1";
const std::string kNoBus = "unix:path=/nonexistent/lumora-test-bus";

std::string connector(const std::string& path, const std::string& status = "", const std::string& enabled = "")
{
    return "P: " + path + "\nE: SUBSYSTEM=drm\n" + (status.empty() ? "" : "A: status=" + status + "\n") +
           (enabled.empty() ? "" : "A: enabled=" + enabled + "\n") + "\n";
}

// A backlight class device; an empty `type` leaves the attribute out.
std::string backlight(const std::string& path, const std::string& type, const std::string& brightness = "5",
                      const std::string& max = "10")
{
    return "P: " + path + "\nE: SUBSYSTEM=backlight\n" + (type.empty() ? "" : "A: type=" + type + "\n") +
           "A: brightness=" + brightness + "\nA: max_brightness=" + max + "\n\n";
}

const std::string kAcpi = backlight("/devices/LNXSYSTM:00/LNXVIDEO:00/backlight/acpi_video0", "firmware");
const std::string kPanelBacklight = backlight(kPanelConnector + "/intel_backlight", "raw", "300", "1200");
const std::string kPanel = connector(kPanelConnector) + kPanelBacklight;

std::string slurp(const std::string& path)
{
    std::ifstream in(path);
    return in ? std::string(std::istreambuf_iterator<char>(in), {}) : "(missing)";
}

class Backlight : public ::testing::Test {
protected:
    static void SetUpTestSuite() { ::setenv("DBUS_SYSTEM_BUS_ADDRESS", kNoBus.c_str(), 1); }
    ~Backlight() override { g_object_unref(bed_); }

    void add(const std::string& records) { EXPECT_TRUE(umockdev_testbed_add_from_string(bed_, records.c_str(), 0)); }
    // The bed's own file behind /sys/class/backlight/<name>/<attribute>, reached without the preload.
    std::string file(const std::string& name, const std::string& attribute)
    {
        return root_.get() + ("/sys/class/backlight/" + name + "/" + attribute);
    }
    // Writes an attribute, or removes it for null.
    void put(const std::string& name, const std::string& attribute, const char* text)
    {
        if (text)
            std::ofstream(file(name, attribute)) << text;
        else
            std::filesystem::remove(file(name, attribute));
    }
    Platform::BacklightDevice found() { return Platform::findBacklight().value_or(Platform::BacklightDevice{}); }

    UMockdevTestbed* bed_ = umockdev_testbed_new();
    std::unique_ptr<gchar, void (*)(gpointer)> root_{umockdev_testbed_get_root_dir(bed_), g_free};
};

TEST_F(Backlight, TheDeviceIsThePanelInUsesElseAnyBuiltInConnectorsElseTheBestTypeThenTheFirstName)
{
    auto below = [](const std::string& connectorName, const std::string& device) {
        const std::string path = kPci + "drm/card0/card0-" + connectorName;
        return connector(path) + backlight(path + "/" + device, "raw");
    };
    const std::string dell = backlight("/devices/platform/dell-laptop/backlight/dell_backlight", "platform");
    const std::string aRaw = backlight(kPci + "a_raw", "raw"), cFw = backlight("/devices/LNXSYSTM:00/c_fw", "firmware");
    const std::string bPlatform = backlight("/devices/platform/b_platform", "platform");
    const std::string untyped = backlight("/devices/virtual/a_untyped", "") + backlight("/devices/virtual/b", "odd");
    // A hybrid laptop's built-in connectors: card0 on the integrated GPU, card1 on the discrete one.
    auto panel = [](int card, const std::string& status, const std::string& enabled, const std::string& device) {
        const std::string path = (card == 0 ? kPci : std::string("/devices/pci0000:00/0000:01:00.0/")) + "drm/card" +
                                 std::to_string(card) + "/card" + std::to_string(card) + "-eDP-1";
        return connector(path, status, enabled) + backlight(path + "/" + device, "raw");
    };
    const struct { const char* what; std::string records, expected; } cases[] = {
        {"below eDP, over firmware", below("eDP-1", "x_panel") + kAcpi, "x_panel"},
        {"below LVDS", below("LVDS-1", "zz_lvds") + kAcpi, "zz_lvds"},
        {"HDMI does not count", below("HDMI-A-1", "a_hdmi") + connector(kPanelConnector) + dell, "dell_backlight"},
        {"panel connector without one", connector(kPanelConnector) + aRaw + dell, "dell_backlight"},
        {"two panels: first name", below("eDP-2", "b_panel") + below("eDP-1", "c_panel") + kAcpi, "b_panel"},
        {"firmware, platform, raw", aRaw + bPlatform + cFw, "c_fw"},
        {"unknown or no type last", untyped + backlight(kPci + "c_raw", "raw"), "c_raw"},
        {"equal types: first name", backlight("/devices/LNXSYSTM:00/LNXVIDEO:01/backlight/acpi_video1", "firmware") +
                                        kAcpi, "acpi_video0"},
        {"a panel connector alone", connector(kPanelConnector), ""},
        {"hybrid: the panel in use, over an earlier name under a disconnected panel connector",
         panel(0, "disconnected", "disabled", "a_intel") + panel(1, "connected", "enabled", "z_nvidia"), "z_nvidia"},
        {"connected but disabled is not in use",
         panel(0, "connected", "disabled", "a_intel") + panel(1, "connected", "enabled", "z_nvidia"), "z_nvidia"},
        {"no panel in use: any panel connector's, first name",
         panel(0, "disconnected", "disabled", "a_intel") + panel(1, "connected", "disabled", "z_nvidia"), "a_intel"},
        {"the panel in use has none: another panel connector's over firmware",
         connector(kPci + "drm/card0/card0-eDP-2", "connected", "enabled") +
             panel(1, "disconnected", "disabled", "z_nvidia") + kAcpi, "z_nvidia"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.what);
        umockdev_testbed_clear(bed_);
        add(c.records);
        EXPECT_EQ(found().dir, c.expected.empty() ? "" : "/sys/class/backlight/" + c.expected);
    }
}

TEST_F(Backlight, ReadsAreBrightnessOverMaximumAndGarbageIsAbsent)
{
    const struct { const char *brightness, *max; std::optional<double> expected; } cases[] = {
        {"300", "1200", 0.25}, {"15", "10", 1.5}, {"0\n", "10\n", 0.0}, {"4294967295", "4294967295", 1.0},
        {"5", "0\n", {}}, {"5", "", {}}, {"5", "abc", {}}, {"5", "12abc", {}}, {"5", "-10", {}}, {"5", "1 0", {}},
        {"5", "4294967296", {}}, {"", "10", {}}, {"x", "10", {}}, {"-1", "10", {}}, {"0x5", "10", {}},
        {"99999999999999999999", "10", {}}, {nullptr, "10", {}}, {"5", nullptr, {}},
    };
    add(kAcpi);
    for (const auto& c : cases) {
        SCOPED_TRACE(std::string(c.brightness ? c.brightness : "(none)") + " / " + (c.max ? c.max : "(none)"));
        put("acpi_video0", "brightness", c.brightness);
        put("acpi_video0", "max_brightness", c.max);
        EXPECT_EQ(Platform::readBacklightFraction(found()), c.expected);
    }
}

TEST_F(Backlight, WithoutLogindWritesGoToSysfsScaledByTheMaximumOfTheMoment)
{
    const char* old = "12345678";  // longer than any value written: the rest must go
    const struct { const char *max, *before; double fraction; Platform::BacklightWrite result; const char* after; }
        cases[] = {
            {"1200", old, 0.5, sysfs, "600\n"}, {"1200", old, 0.0, sysfs, "0\n"}, {"1200", old, 0.3, sysfs, "360\n"},
            {"7", old, 0.5, sysfs, "4\n"},  // 3.5 rounds away from zero
            {"10", old, 1.5, failed, old}, {"10", old, -0.2, failed, old}, {"10", old, std::nan(""), failed, old},
            {"0", old, 0.5, failed, old}, {"garbage", old, 0.5, failed, old}, {"10", nullptr, 0.5, failed, "(missing)"},
        };
    add(kAcpi);
    for (const auto& c : cases) {
        SCOPED_TRACE(std::string(c.max) + " " + std::to_string(c.fraction));
        put("acpi_video0", "max_brightness", c.max);
        put("acpi_video0", "brightness", c.before);
        EXPECT_EQ(Platform::writeBacklight(found(), c.fraction), c.result);
        EXPECT_EQ(slurp(file("acpi_video0", "brightness")), c.after);
    }
}

TEST_F(Backlight, ThePanelIsBoundOnceAndTheInternalBackendClampsWhatItPasses)
{
    add(kPanel + kAcpi);
    InternalBackend panel(77);
    EXPECT_FALSE(panel.canPowerOff());
    EXPECT_EQ(panel.readBrightness(), 0.25);
    ASSERT_NE(DisplayServices::setFn(), nullptr);
    EXPECT_EQ(DisplayServices::setFn()(77, 1.5f), EINVAL) << "the entry point itself does not clamp";
    const std::pair<double, const char*> writes[] = {{1.5, "1200\n"}, {-0.2, "0\n"}, {0.3, "360\n"}, {NAN, "360\n"}};
    for (const auto& [fraction, raw] : writes) {
        panel.writeBrightness(fraction);
        EXPECT_EQ(slurp(file("intel_backlight", "brightness")), raw) << fraction;
    }
    put("intel_backlight", "max_brightness", "bogus");
    EXPECT_EQ(panel.readBrightness(), std::nullopt);

    // The panel's backlight goes and another comes: the binding stays with the first device.
    umockdev_testbed_clear(bed_);
    add(backlight("/devices/LNXSYSTM:00/LNXVIDEO:01/backlight/acpi_video1", "firmware", "3"));
    EXPECT_EQ(panel.readBrightness(), std::nullopt);
    panel.writeBrightness(0.9);
    EXPECT_EQ(slurp(file("acpi_video1", "brightness")), "3");
}

// Without a backlight at the binding's first use there are no entry points for the rest of the run. The binding
// is made once per process, so this runs in a process of its own: this test binary again, on this test alone.
TEST_F(Backlight, NoBacklightAtFirstUseMeansNoEntryPointsForTheRun)
{
    if (!std::getenv("LUMORA_BACKLIGHT_FRESH_PROCESS")) {
        auto run = LumoraTest::runProcess({program_invocation_name, "--gtest_filter=*NoBacklightAtFirstUse*"},
                                          {{"LUMORA_BACKLIGHT_FRESH_PROCESS", "1"}}, 60s);
        EXPECT_EQ(run.exitStatus, 0) << run.out << run.err;
        return;
    }
    add(connector(kPanelConnector));
    InternalBackend panel(1);
    EXPECT_EQ(panel.readBrightness(), std::nullopt);
    add(kPanelBacklight);
    panel.writeBrightness(0.9);
    EXPECT_EQ(DisplayServices::getFn(), nullptr);
    EXPECT_EQ(DisplayServices::setFn(), nullptr);
    EXPECT_EQ(panel.readBrightness(), std::nullopt);
    EXPECT_EQ(slurp(file("intel_backlight", "brightness")), "300");
}

// Writes ask systemd-logind first. A private dbus-daemon stands in for the system bus; python-dbusmock owns
// org.freedesktop.login1 and the session object, whose SetBrightness notes each call in a file.
TEST_F(Backlight, WritesAskLogindFirstAndFallBackToSysfs)
{
    const std::string dir = std::filesystem::temp_directory_path() / ("lumora-logind-" + std::to_string(::getpid()));
    const char *name = "org.freedesktop.login1", *session = "/org/freedesktop/login1/session/auto";
    std::filesystem::create_directories(dir);
    ::setenv("DBUS_SYSTEM_BUS_ADDRESS", ("unix:path=" + dir + "/bus").c_str(), 1);
    std::unique_ptr<Child> daemon, mock;
    auto start = [&](bool daemonToo) {
        mock.reset();
        if (daemonToo) {  // it prints its address once it listens
            daemon.reset();
            daemon = std::make_unique<Child>(
                std::vector<std::string>{"/usr/bin/dbus-daemon", "--session", "--nofork", "--print-address",
                                         "--address=unix:path=" + dir + "/bus"},
                true);
        }
        mock = std::make_unique<Child>(std::vector<std::string>{"/usr/bin/python3", "-m", "dbusmock", "--system", name,
                                                                session, "org.freedesktop.login1.Session"});
    };
    // Once the mock is on the bus, its SetBrightness notes the call, then runs `code` (one Python line). gdbus reads
    // each argument as GVariant text first: the method body must not parse as one.
    auto setBrightnessDoes = [&](const std::string& code) {
        auto wait = LumoraTest::runProcess({"/usr/bin/gdbus", "wait", "--system", "--timeout", "30", name}, {}, 40s);
        auto add = LumoraTest::runProcess(
            {"/usr/bin/gdbus", "call", "--system", "--dest", name, "--object-path", session, "--method",
             "org.freedesktop.DBus.Mock.AddMethod", "org.freedesktop.login1.Session", "SetBrightness", "ssu", "",
             "open('" + dir + "/calls', 'a').write('%s %s %d' % tuple(args) + chr(10)); " + code},
            {}, 30s);
        EXPECT_EQ(add.exitStatus, 0) << wait.err << add.err;
    };
    auto write = [&](double fraction) { return Platform::writeBacklight(found(), fraction); };
    const std::string panelRaw = file("intel_backlight", "brightness");
    add(kPanel + kAcpi);

    start(true);
    setBrightnessDoes("");
    EXPECT_EQ(write(0.5), logind);
    EXPECT_EQ(slurp(panelRaw), "300") << "logind took it: sysfs is left alone";
    setBrightnessDoes("raise dbus.exceptions.DBusException('no', name='org.freedesktop.DBus.Error.AccessDenied')");
    EXPECT_EQ(write(0.75), sysfs) << "refused";
    EXPECT_EQ(slurp(panelRaw), "900\n");
    mock.reset();
    EXPECT_EQ(write(1.0), sysfs) << "no logind on the bus";
    EXPECT_EQ(slurp(panelRaw), "1200\n");
    start(false);
    setBrightnessDoes("");
    EXPECT_EQ(write(0.25), logind) << "logind's absence is not remembered";
    start(true);
    setBrightnessDoes("");
    EXPECT_EQ(write(0.125), logind) << "the connection left stale by the bus restart is reopened";
    EXPECT_EQ(slurp(dir + "/calls"), "backlight intel_backlight 600\nbacklight intel_backlight 900\n"
                                     "backlight intel_backlight 300\nbacklight intel_backlight 150\n");
    EXPECT_EQ(slurp(panelRaw), "1200\n");

    mock.reset();
    daemon.reset();
    ::setenv("DBUS_SYSTEM_BUS_ADDRESS", kNoBus.c_str(), 1);
    std::filesystem::remove_all(dir);
}

}  // namespace
