// The DisplayServices binding and InternalBackend on a desk with a built-in panel whose backlight sits below its
// eDP connector, plus a firmware backlight elsewhere. No logind: writes take the sysfs path.
//
// The binding is made once per process, at first use; every test builds the same desk before it touches the
// binding, so whichever test runs first binds the panel's backlight.

#include <cerrno>
#include <cmath>
#include <cstdlib>
#include <limits>

#include <gtest/gtest.h>

#include "BacklightDesk.h"
#include "Lumora/DDC/DisplayServices.h"
#include "Lumora/DDC/InternalBackend.h"

using namespace BacklightDesk;
using Lumora::DisplayServices;
using Lumora::InternalBackend;

namespace {

constexpr std::uint32_t kPanelID = 77;

class DisplayServicesOnPanel : public ::testing::Test {
protected:
    static void SetUpTestSuite() { ::setenv("DBUS_SYSTEM_BUS_ADDRESS", "unix:path=/nonexistent/lumora-test-bus", 1); }

    void SetUp() override
    {
        bed.add(connectorRecord(kPanelConnector));
        bed.add(backlightRecord(kPanelBacklight, "raw", "300", "1200"));
        bed.add(backlightRecord(kAcpiBacklight, "firmware", "5", "10"));
    }

    long panelRaw() { return readValue(bed.file(attributePath("intel_backlight", "brightness"))); }
    long firmwareRaw() { return readValue(bed.file(attributePath("acpi_video0", "brightness"))); }

    Testbed bed;
    InternalBackend backend{kPanelID};
};

TEST_F(DisplayServicesOnPanel, BothEntryPointsPresent)
{
    EXPECT_NE(DisplayServices::getFn(), nullptr);
    EXPECT_NE(DisplayServices::setFn(), nullptr);
    EXPECT_EQ(DisplayServices::getFn(), DisplayServices::getFn()) << "the same binding every time";
}

TEST_F(DisplayServicesOnPanel, GetFillsTheFractionOfThePanelBacklight)
{
    auto get = DisplayServices::getFn();
    ASSERT_NE(get, nullptr);
    float value = -1.0f;
    EXPECT_EQ(get(kPanelID, &value), 0);
    EXPECT_FLOAT_EQ(value, 0.25f);
    EXPECT_NE(get(kPanelID, nullptr), 0);
}

TEST_F(DisplayServicesOnPanel, GetFailsOnGarbage)
{
    auto get = DisplayServices::getFn();
    ASSERT_NE(get, nullptr);
    writeFile(bed.file(attributePath("intel_backlight", "max_brightness")), "bogus\n");
    float value = 0.0f;
    EXPECT_NE(get(kPanelID, &value), 0);
    EXPECT_FALSE(backend.readBrightness());
}

TEST_F(DisplayServicesOnPanel, SetWritesTheValueAsGivenAndRefusesOutOfRange)
{
    auto set = DisplayServices::setFn();
    ASSERT_NE(set, nullptr);
    EXPECT_EQ(set(kPanelID, 0.75f), 0);
    EXPECT_EQ(panelRaw(), 900);
    EXPECT_EQ(firmwareRaw(), 5) << "only the panel's backlight";
    EXPECT_EQ(set(kPanelID, 1.5f), EINVAL) << "no clamping at this level";
    EXPECT_EQ(set(kPanelID, -0.5f), EINVAL);
    EXPECT_EQ(set(kPanelID, std::numeric_limits<float>::quiet_NaN()), EINVAL);
    EXPECT_EQ(panelRaw(), 900);
}

TEST_F(DisplayServicesOnPanel, SetReportsAFailedWrite)
{
    auto set = DisplayServices::setFn();
    ASSERT_NE(set, nullptr);
    removeFile(bed.file(attributePath("intel_backlight", "brightness")));
    EXPECT_NE(set(kPanelID, 0.5f), 0);
}

TEST_F(DisplayServicesOnPanel, InternalBackendReadsTheFractionUnclamped)
{
    EXPECT_FALSE(backend.canPowerOff());
    EXPECT_DOUBLE_EQ(backend.readBrightness().value_or(-1), 0.25);
    writeFile(bed.file(attributePath("intel_backlight", "brightness")), "1500\n");
    EXPECT_DOUBLE_EQ(backend.readBrightness().value_or(-1), static_cast<double>(1.25f));
    writeFile(bed.file(attributePath("intel_backlight", "brightness")), "0\n");
    EXPECT_DOUBLE_EQ(backend.readBrightness().value_or(-1), 0.0);
}

TEST_F(DisplayServicesOnPanel, InternalBackendClampsWrites)
{
    backend.writeBrightness(0.5);
    EXPECT_EQ(panelRaw(), 600);
    backend.writeBrightness(1.5);
    EXPECT_EQ(panelRaw(), 1200);
    backend.writeBrightness(-0.2);
    EXPECT_EQ(panelRaw(), 0);
    backend.writeBrightness(0.3);  // passed on as the 32-bit float 0.3
    EXPECT_EQ(panelRaw(), 360);
    backend.writeBrightness(1.0);
    EXPECT_EQ(panelRaw(), 1200);
    backend.writeBrightness(0.0);
    EXPECT_EQ(panelRaw(), 0);
    EXPECT_DOUBLE_EQ(backend.readBrightness().value_or(-1), 0.0);
}

TEST_F(DisplayServicesOnPanel, InternalBackendWritesNothingForNaN)
{
    backend.writeBrightness(std::numeric_limits<double>::quiet_NaN());
    EXPECT_EQ(panelRaw(), 300);
}

TEST_F(DisplayServicesOnPanel, InternalBackendSetPowerDoesNothing)
{
    backend.setPower(false);
    EXPECT_EQ(panelRaw(), 300);
    backend.setPower(true);
    EXPECT_EQ(panelRaw(), 300);
    EXPECT_EQ(firmwareRaw(), 5);
}

TEST_F(DisplayServicesOnPanel, TheDeviceIsResolvedOnce)
{
    ASSERT_NE(DisplayServices::getFn(), nullptr);
    // The panel's backlight goes away and another one appears: the binding stays with the first device, whose
    // reads now fail, and writes do not wander to the newcomer.
    bed.clear();
    bed.add(backlightRecord("/devices/LNXSYSTM:00/LNXVIDEO:01/backlight/acpi_video1", "firmware", "3", "10"));
    EXPECT_NE(DisplayServices::getFn(), nullptr);
    EXPECT_FALSE(backend.readBrightness());
    backend.writeBrightness(0.9);
    EXPECT_EQ(readValue(bed.file(attributePath("acpi_video1", "brightness"))), 3);
}

}  // namespace
