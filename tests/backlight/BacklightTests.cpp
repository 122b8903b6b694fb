// SPDX-License-Identifier: GPL-3.0-or-later
// The built-in panel's backlight on an emulated sysfs tree (under umockdev-wrapper): which device, reads, sysfs
// writes, the once-per-process binding with InternalBackend, and writes through logind (python-dbusmock).

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
    void put(const std::string& name, const std::string& attribute, const char* text)  // null removes it
    {
        const std::string path = file(name, attribute);
        text ? void(std::ofstream(path) << text) : void(std::filesystem::remove(path));
    }
    Platform::BacklightDevice found() { return Platform::findBacklight().value_or(Platform::BacklightDevice{}); }

    UMockdevTestbed* bed_ = umockdev_testbed_new();
    std::unique_ptr<gchar, void (*)(gpointer)> root_{umockdev_testbed_get_root_dir(bed_), g_free};
};

TEST_F(Backlight, TheDeviceIsThePanelInUsesElseAnyBuiltInConnectorsElseTheBestTypeThenTheFirstName)
{
    // A raw backlight below a connector; card1 is a hybrid laptop's discrete GPU.
    auto below = [](const std::string& name, const std::string& device, int card = 0, const char* status = "",
                    const char* enabled = "") {
        const std::string path = (card ? "/devices/pci0000:00/0000:01:00.0/" : kPci) + "drm/card" +
                                 std::to_string(card) + "/card" + std::to_string(card) + "-" + name;
        return connector(path, status, enabled) + backlight(path + "/" + device, "raw");
    };
    const std::string dell = backlight("/devices/platform/dell-laptop/backlight/dell_backlight", "platform");
    const std::string aRaw = backlight(kPci + "a_raw", "raw"), cFw = backlight("/devices/LNXSYSTM:00/c_fw", "firmware");
    const std::string bPlatform = backlight("/devices/platform/b_platform", "platform");
    const std::string untyped = backlight("/devices/virtual/a_untyped", "") + backlight("/devices/virtual/b", "odd");
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
        {"connected but disabled is not in use: the panel in use's, over an earlier name",
         below("eDP-1", "a_intel", 0, "connected", "disabled") + below("eDP-1", "z_nvidia", 1, "connected", "enabled"),
         "z_nvidia"},
        {"no panel in use: any panel connector's, first name",
         below("eDP-1", "a_intel", 0, "disconnected", "disabled") + below("eDP-1", "z_nvidia", 1, "connected", "disabled"),
         "a_intel"},
        {"the panel in use has none: another panel connector's over firmware",
         connector(kPci + "drm/card0/card0-eDP-2", "connected", "enabled") +
             below("eDP-1", "z_nvidia", 1, "disconnected", "disabled") + kAcpi, "z_nvidia"},
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
    EXPECT_EQ(panel.readBrightness(), std::nullopt) << "not bound later either";
    EXPECT_EQ(slurp(file("intel_backlight", "brightness")), "300");
}

// Writes ask systemd-logind first. A private dbus-daemon stands in for the system bus; python-dbusmock owns
// org.freedesktop.login1 and the session object, whose SetBrightness notes each call in a file.
TEST_F(Backlight, WritesAskLogindFirstAndFallBackToSysfs)
{
    const std::string dir = std::filesystem::temp_directory_path() / ("lumora-logind-" + std::to_string(::getpid()));
    const char *name = "org.freedesktop.login1", *session = "/org/freedesktop/login1/session/auto";
    const std::string bus = "unix:path=" + dir + "/bus";
    std::filesystem::create_directories(dir);
    ::setenv("DBUS_SYSTEM_BUS_ADDRESS", bus.c_str(), 1);
    const std::string panelRaw = file("intel_backlight", "brightness");
    add(kPanel + kAcpi);
    // Each step: a new bus first (its daemon prints its address once it listens), then a logind whose SetBrightness
    // notes the call and runs `does` (one Python line; gdbus reads each argument as GVariant text first, so the
    // body must not parse as one), or none for null.
    const char* refuse = "raise dbus.exceptions.DBusException('no', name='org.freedesktop.DBus.Error.AccessDenied')";
    const struct { const char* what; bool newBus; const char* does; double fraction; Platform::BacklightWrite result;
                   const char* raw; } steps[] = {
        {"logind took it: sysfs is left alone", true, "", 0.5, logind, "300"},
        {"refused", false, refuse, 0.75, sysfs, "900\n"},
        {"no logind on the bus", false, nullptr, 1.0, sysfs, "1200\n"},
        {"logind's absence is not remembered", false, "", 0.25, logind, "1200\n"},
        {"the connection left stale by the bus restart is reopened", true, "", 0.125, logind, "1200\n"},
    };
    std::unique_ptr<Child> daemon, mock;
    for (const auto& step : steps) {
        SCOPED_TRACE(step.what);
        mock.reset();
        if (step.newBus)  // the old one goes first: the new one listens at the same path
            daemon.reset(), daemon.reset(new Child({"/usr/bin/dbus-daemon", "--session", "--nofork",
                                                    "--print-address", "--address=" + bus}, true));
        if (step.does) {
            mock.reset(new Child({"/usr/bin/python3", "-m", "dbusmock", "--system", name, session,
                                  "org.freedesktop.login1.Session"}));
            auto up = LumoraTest::runProcess({"/usr/bin/gdbus", "wait", "--system", "--timeout", "30", name}, {}, 40s);
            auto add = LumoraTest::runProcess(
                {"/usr/bin/gdbus", "call", "--system", "--dest", name, "--object-path", session, "--method",
                 "org.freedesktop.DBus.Mock.AddMethod", "org.freedesktop.login1.Session", "SetBrightness", "ssu", "",
                 "open('" + dir + "/calls', 'a').write('%s %s %d' % tuple(args) + chr(10)); " + step.does},
                {}, 30s);
            EXPECT_EQ(add.exitStatus, 0) << up.err << add.err;
        }
        EXPECT_EQ(Platform::writeBacklight(found(), step.fraction), step.result);
        EXPECT_EQ(slurp(panelRaw), step.raw);
    }
    EXPECT_EQ(slurp(dir + "/calls"), "backlight intel_backlight 600\nbacklight intel_backlight 900\n"
                                     "backlight intel_backlight 300\nbacklight intel_backlight 150\n");
    ::setenv("DBUS_SYSTEM_BUS_ADDRESS", kNoBus.c_str(), 1);
    std::filesystem::remove_all(dir);  // the children go with the test's end
}

}  // namespace
