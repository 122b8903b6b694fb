// A desk whose built-in panel has no backlight device at the binding's first use: DisplayServices has neither
// entry point for the rest of the run, the internal backend reads absent and writes nothing, even once a backlight
// shows up later.

#include <cstdlib>

#include <gtest/gtest.h>

#include "BacklightDesk.h"
#include "Lumora/DDC/DisplayServices.h"
#include "Lumora/DDC/InternalBackend.h"

using namespace BacklightDesk;
using Lumora::DisplayServices;
using Lumora::InternalBackend;

namespace {

TEST(DisplayServicesWithoutBacklight, AbsentForTheWholeRun)
{
    ::setenv("DBUS_SYSTEM_BUS_ADDRESS", "unix:path=/nonexistent/lumora-test-bus", 1);
    Testbed bed;
    bed.add(connectorRecord(kPanelConnector));

    EXPECT_EQ(DisplayServices::getFn(), nullptr);
    EXPECT_EQ(DisplayServices::setFn(), nullptr);
    InternalBackend backend(1);
    EXPECT_FALSE(backend.readBrightness());
    backend.writeBrightness(0.5);
    backend.setPower(false);

    // A backlight that appears later is not picked up: the binding is not retried.
    bed.add(backlightRecord(kPanelBacklight, "raw", "300", "1200"));
    EXPECT_EQ(DisplayServices::getFn(), nullptr);
    EXPECT_EQ(DisplayServices::setFn(), nullptr);
    EXPECT_FALSE(backend.readBrightness());
    backend.writeBrightness(0.9);
    EXPECT_EQ(readValue(bed.file(attributePath("intel_backlight", "brightness"))), 300);
}

}  // namespace
