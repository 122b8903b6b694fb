// Backlight discovery, reads and sysfs writes on an emulated sysfs tree. There is no logind here: the system bus
// address points at a socket that does not exist, so every write takes the sysfs path.

#include <cmath>
#include <cstdlib>
#include <limits>

#include <gtest/gtest.h>

#include "BacklightDesk.h"
#include "Lumora/Platform/Linux/Backlight.h"

using namespace BacklightDesk;
using Lumora::Platform::BacklightWrite;
using Lumora::Platform::backlightRawValue;
using Lumora::Platform::findBacklight;
using Lumora::Platform::readBacklight;
using Lumora::Platform::readBacklightFraction;
using Lumora::Platform::writeBacklight;

namespace {

const std::string kDellBacklight = "/devices/platform/dell-laptop/backlight/dell_backlight";
const std::string kHdmiConnector = "/devices/pci0000:00/0000:00:02.0/drm/card0/card0-HDMI-A-1";

class BacklightSysfs : public ::testing::Test {
protected:
    static void SetUpTestSuite() { ::setenv("DBUS_SYSTEM_BUS_ADDRESS", "unix:path=/nonexistent/lumora-test-bus", 1); }

    std::string foundName()
    {
        auto device = findBacklight();
        return device ? device->name : "(none)";
    }

    Testbed bed;
};

// --- Which device ---

TEST_F(BacklightSysfs, BacklightBelowThePanelConnectorWinsOverFirmware)
{
    bed.add(connectorRecord(kPanelConnector));
    bed.add(backlightRecord(kPanelBacklight, "raw", "300", "1200"));
    bed.add(backlightRecord(kAcpiBacklight, "firmware", "5", "10"));
    auto device = findBacklight();
    ASSERT_TRUE(device);
    EXPECT_EQ(device->name, "intel_backlight");
    EXPECT_EQ(device->dir, "/sys/class/backlight/intel_backlight");
}

TEST_F(BacklightSysfs, LvdsAndDsiConnectorsAreBuiltInToo)
{
    const std::string lvds = "/devices/pci0000:00/0000:00:02.0/drm/card1/card1-LVDS-1";
    bed.add(connectorRecord(lvds));
    bed.add(backlightRecord(lvds + "/zz_lvds_backlight", "raw", "1", "10"));
    bed.add(backlightRecord(kAcpiBacklight, "firmware", "5", "10"));
    EXPECT_EQ(foundName(), "zz_lvds_backlight");

    bed.clear();
    const std::string dsi = "/devices/platform/soc/ae00000.display/drm/card0/card0-DSI-1";
    bed.add(connectorRecord(dsi));
    bed.add(backlightRecord(dsi + "/zz_dsi_backlight", "raw", "1", "10"));
    bed.add(backlightRecord(kAcpiBacklight, "firmware", "5", "10"));
    EXPECT_EQ(foundName(), "zz_dsi_backlight");
}

TEST_F(BacklightSysfs, BacklightBelowAnExternalConnectorDoesNotCount)
{
    bed.add(connectorRecord(kHdmiConnector));
    bed.add(backlightRecord(kHdmiConnector + "/a_backlight", "raw", "1", "10"));
    bed.add(backlightRecord(kDellBacklight, "platform", "5", "10"));
    EXPECT_EQ(foundName(), "dell_backlight");
}

TEST_F(BacklightSysfs, PanelConnectorWithoutBacklightLeavesTheChoiceToType)
{
    bed.add(connectorRecord(kPanelConnector));
    bed.add(backlightRecord("/devices/pci0000:00/0000:00:02.0/aa_raw", "raw", "1", "10"));
    bed.add(backlightRecord(kDellBacklight, "platform", "5", "10"));
    EXPECT_EQ(foundName(), "dell_backlight");
}

TEST_F(BacklightSysfs, ByTypeFirmwareThenPlatformThenRaw)
{
    // Names chosen so that name order alone would pick the wrong one each time.
    bed.add(backlightRecord("/devices/pci0000:00/0000:00:02.0/a_raw", "raw", "1", "10"));
    bed.add(backlightRecord("/devices/platform/b_platform", "platform", "1", "10"));
    bed.add(backlightRecord("/devices/LNXSYSTM:00/c_firmware", "firmware", "1", "10"));
    EXPECT_EQ(foundName(), "c_firmware");

    bed.clear();
    bed.add(backlightRecord("/devices/pci0000:00/0000:00:02.0/a_raw", "raw", "1", "10"));
    bed.add(backlightRecord("/devices/platform/b_platform", "platform", "1", "10"));
    EXPECT_EQ(foundName(), "b_platform");
}

TEST_F(BacklightSysfs, UnknownOrMissingTypeComesLast)
{
    bed.add(backlightRecord("/devices/virtual/a_untyped", "", "1", "10"));
    bed.add(backlightRecord("/devices/virtual/b_odd", "something", "1", "10"));
    bed.add(backlightRecord("/devices/pci0000:00/0000:00:02.0/c_raw", "raw", "1", "10"));
    EXPECT_EQ(foundName(), "c_raw");

    bed.clear();
    bed.add(backlightRecord("/devices/virtual/b_odd", "something", "1", "10"));
    bed.add(backlightRecord("/devices/virtual/a_untyped", "", "1", "10"));
    EXPECT_EQ(foundName(), "a_untyped") << "a lone unknown type still counts, first by name";
}

TEST_F(BacklightSysfs, TiesGoByNameOrder)
{
    bed.add(backlightRecord("/devices/LNXSYSTM:00/LNXVIDEO:01/backlight/acpi_video1", "firmware", "1", "10"));
    bed.add(backlightRecord(kAcpiBacklight, "firmware", "5", "10"));
    EXPECT_EQ(foundName(), "acpi_video0");

    bed.clear();
    const std::string second = "/devices/pci0000:00/0000:00:02.0/drm/card0/card0-eDP-2";
    bed.add(connectorRecord(second));
    bed.add(backlightRecord(second + "/b_panel", "raw", "1", "10"));
    bed.add(connectorRecord(kPanelConnector));
    bed.add(backlightRecord(kPanelConnector + "/c_panel", "raw", "1", "10"));
    bed.add(backlightRecord(kAcpiBacklight, "firmware", "5", "10"));
    EXPECT_EQ(foundName(), "b_panel");
}

TEST_F(BacklightSysfs, NoBacklightIsAbsent)
{
    EXPECT_FALSE(findBacklight()) << "empty tree";
    bed.add(connectorRecord(kPanelConnector));
    EXPECT_FALSE(findBacklight()) << "a panel connector alone";
}

TEST_F(BacklightSysfs, DiscoveryLooksAgainEachTime)
{
    EXPECT_FALSE(findBacklight());
    bed.add(backlightRecord(kDellBacklight, "platform", "5", "10"));
    EXPECT_EQ(foundName(), "dell_backlight");
    bed.add(backlightRecord(kAcpiBacklight, "firmware", "5", "10"));
    EXPECT_EQ(foundName(), "acpi_video0");
}

// --- Reads ---

TEST_F(BacklightSysfs, ReadsBrightnessOverMaximum)
{
    bed.add(backlightRecord(kAcpiBacklight, "firmware", "300", "1200"));
    auto device = findBacklight();
    ASSERT_TRUE(device);
    auto level = readBacklight(*device);
    ASSERT_TRUE(level);
    EXPECT_EQ(level->brightness, 300u);
    EXPECT_EQ(level->max, 1200u);
    EXPECT_DOUBLE_EQ(readBacklightFraction(*device).value_or(-1), 0.25);

    writeFile(bed.file(attributePath("acpi_video0", "brightness")), "1200\n");
    EXPECT_DOUBLE_EQ(readBacklightFraction(*device).value_or(-1), 1.0);
    writeFile(bed.file(attributePath("acpi_video0", "brightness")), "0");
    EXPECT_DOUBLE_EQ(readBacklightFraction(*device).value_or(-1), 0.0);
}

TEST_F(BacklightSysfs, ReadAboveMaximumIsNotClamped)
{
    bed.add(backlightRecord(kAcpiBacklight, "firmware", "15", "10"));
    auto device = findBacklight();
    ASSERT_TRUE(device);
    EXPECT_DOUBLE_EQ(readBacklightFraction(*device).value_or(-1), 1.5);
}

class BacklightGarbage : public BacklightSysfs, public ::testing::WithParamInterface<std::pair<const char*, const char*>> {};

TEST_P(BacklightGarbage, ReadFails)
{
    auto [brightness, max] = GetParam();
    bed.add(backlightRecord(kAcpiBacklight, "firmware", "5", "10"));
    auto device = findBacklight();
    ASSERT_TRUE(device);
    writeFile(bed.file(attributePath("acpi_video0", "brightness")), brightness);
    writeFile(bed.file(attributePath("acpi_video0", "max_brightness")), max);
    EXPECT_FALSE(readBacklight(*device));
    EXPECT_FALSE(readBacklightFraction(*device));
}

INSTANTIATE_TEST_SUITE_P(Attributes, BacklightGarbage,
                         ::testing::Values(std::pair{"5", "0\n"}, std::pair{"5", ""}, std::pair{"5", "abc"},
                                           std::pair{"5", "12abc"}, std::pair{"5", "-10"}, std::pair{"5", "1 0"},
                                           std::pair{"5", "4294967296"}, std::pair{"", "10"},
                                           std::pair{"x", "10"}, std::pair{"-1", "10"}, std::pair{"0x5", "10"},
                                           std::pair{"99999999999999999999", "10"}));

TEST_F(BacklightSysfs, MissingAttributesFailTheRead)
{
    bed.add(backlightRecord(kAcpiBacklight, "firmware", "5", "10"));
    auto device = findBacklight();
    ASSERT_TRUE(device);
    ASSERT_TRUE(readBacklight(*device));
    removeFile(bed.file(attributePath("acpi_video0", "max_brightness")));
    EXPECT_FALSE(readBacklight(*device));

    bed.clear();
    bed.add(backlightRecord(kAcpiBacklight, "firmware", "5", "10"));
    removeFile(bed.file(attributePath("acpi_video0", "brightness")));
    EXPECT_FALSE(readBacklight(*device));

    bed.clear();
    EXPECT_FALSE(readBacklight(*device)) << "the device went away";
}

// --- Scaling ---

TEST(BacklightRawValue, RoundsHalvesAwayFromZero)
{
    EXPECT_EQ(backlightRawValue(0.25, 1200), 300u);
    EXPECT_EQ(backlightRawValue(0.5, 5), 3u);       // 2.5
    EXPECT_EQ(backlightRawValue(0.0625, 100), 6u);  // 6.25
    EXPECT_EQ(backlightRawValue(0.625, 100), 63u);  // 62.5
    EXPECT_EQ(backlightRawValue(0.0, 1200), 0u);
    EXPECT_EQ(backlightRawValue(1.0, 1200), 1200u);
    EXPECT_EQ(backlightRawValue(1.0, UINT32_MAX), UINT32_MAX);
    EXPECT_EQ(backlightRawValue(static_cast<double>(0.3f), 1000), 300u);
}

// --- Writes without logind ---

TEST_F(BacklightSysfs, WriteLandsInSysfsScaledByTheMaximum)
{
    bed.add(connectorRecord(kPanelConnector));
    bed.add(backlightRecord(kPanelBacklight, "raw", "300", "1200"));
    auto device = findBacklight();
    ASSERT_TRUE(device);
    const std::string brightness = bed.file(attributePath("intel_backlight", "brightness"));

    EXPECT_EQ(writeBacklight(*device, 0.5), BacklightWrite::sysfs);
    EXPECT_EQ(readValue(brightness), 600);
    EXPECT_DOUBLE_EQ(readBacklightFraction(*device).value_or(-1), 0.5) << "read back through the product";

    EXPECT_EQ(writeBacklight(*device, 1.0), BacklightWrite::sysfs);
    EXPECT_EQ(readValue(brightness), 1200);
    EXPECT_EQ(writeBacklight(*device, 0.0), BacklightWrite::sysfs);
    EXPECT_EQ(readValue(brightness), 0);
    EXPECT_EQ(writeBacklight(*device, 0.3), BacklightWrite::sysfs);
    EXPECT_EQ(readValue(brightness), 360);
    EXPECT_EQ(readFile(brightness).value_or(""), "360\n") << "the old, longer content is truncated";
}

TEST_F(BacklightSysfs, WriteScalesByTheMaximumReadAtWriteTime)
{
    bed.add(backlightRecord(kAcpiBacklight, "firmware", "5", "10"));
    auto device = findBacklight();
    ASSERT_TRUE(device);
    writeFile(bed.file(attributePath("acpi_video0", "max_brightness")), "7\n");
    EXPECT_EQ(writeBacklight(*device, 0.5), BacklightWrite::sysfs);
    EXPECT_EQ(readValue(bed.file(attributePath("acpi_video0", "brightness"))), 4);  // 3.5
}

TEST_F(BacklightSysfs, FractionOutsideTheRangeIsRefusedAndNothingIsWritten)
{
    bed.add(backlightRecord(kAcpiBacklight, "firmware", "5", "10"));
    auto device = findBacklight();
    ASSERT_TRUE(device);
    const std::string brightness = bed.file(attributePath("acpi_video0", "brightness"));
    for (double f : {1.5, -0.2, std::numeric_limits<double>::quiet_NaN(), std::numeric_limits<double>::infinity()}) {
        EXPECT_EQ(writeBacklight(*device, f), BacklightWrite::failed) << f;
        EXPECT_EQ(readValue(brightness), 5) << f;
    }
}

TEST_F(BacklightSysfs, WriteFailsWithoutAUsableMaximumOrAttribute)
{
    bed.add(backlightRecord(kAcpiBacklight, "firmware", "5", "10"));
    auto device = findBacklight();
    ASSERT_TRUE(device);
    const std::string brightness = bed.file(attributePath("acpi_video0", "brightness"));
    const std::string max = bed.file(attributePath("acpi_video0", "max_brightness"));

    writeFile(max, "0\n");
    EXPECT_EQ(writeBacklight(*device, 0.5), BacklightWrite::failed);
    writeFile(max, "garbage");
    EXPECT_EQ(writeBacklight(*device, 0.5), BacklightWrite::failed);
    EXPECT_EQ(readValue(brightness), 5);

    writeFile(max, "10\n");
    removeFile(brightness);
    EXPECT_EQ(writeBacklight(*device, 0.5), BacklightWrite::failed);
    EXPECT_FALSE(readFile(brightness)) << "the attribute is not created";
}

}  // namespace
