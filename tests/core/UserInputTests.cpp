// SPDX-License-Identifier: GPL-3.0-or-later
// What users hand to Lumora, a brightness request over the bus or the probe's set value, up to the last double or
// 64-bit value on either side of each range, and what they are told back.

#include <gtest/gtest.h>

#include <cmath>
#include <limits>
#include <string>
#include <tuple>

#include "LumoraCore/BrightnessRequest.h"
#include "LumoraCore/ProbeReport.h"

using namespace Lumora;
using BrightnessRequest::Fault;

TEST(BrightnessRequest, FractionsFromZeroToOneStepsFromMinusOneToOneAndWhatARefusalSays)
{
    constexpr double inf = std::numeric_limits<double>::infinity(), tiny = std::numeric_limits<double>::denorm_min();
    const std::string fraction = "The brightness must be a fraction from 0 to 1 (0.5 is 50 %), not ";
    const std::string step = "A step must be a fraction from -1 to 1 (0.0625 is a sixteenth, as a brightness key steps), not ";
    const struct {
        bool isStep;
        double value;
        std::optional<Fault> fault;
        const char* shown;  // how the value is written in the message
    } cases[] = {
        {false, 0.0, {}, ""}, {false, -0.0, {}, ""}, {false, 1.0, {}, ""}, {false, tiny, {}, ""},
        {false, -tiny, Fault::outOfRange, "-5e-324"}, {false, -0.1, Fault::outOfRange, "-0.1"},
        {false, 50.0, Fault::outOfRange, "50"},
        {false, std::nextafter(1.0, 2.0), Fault::outOfRange, "1.0000000000000002"},
        {false, std::nan(""), Fault::notFinite, "nan"}, {false, -inf, Fault::notFinite, "-inf"},
        {true, -1.0, {}, ""}, {true, 1.0, {}, ""}, {true, -0.0625, {}, ""},
        {true, std::nextafter(-1.0, -2.0), Fault::outOfRange, "-1.0000000000000002"},
        {true, 2.0, Fault::outOfRange, "2"}, {true, inf, Fault::notFinite, "inf"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.value);
        const auto rejection =
            c.isStep ? BrightnessRequest::checkDelta(c.value) : BrightnessRequest::checkFraction(c.value);
        ASSERT_EQ(rejection.has_value(), c.fault.has_value());
        if (rejection) {
            EXPECT_EQ(rejection->fault, *c.fault);
            EXPECT_EQ(rejection->message, (c.isStep ? step : fraction) + c.shown + ".");
        }
    }
    // (Refusals naming the displays listed are checked over the bus.)
    EXPECT_EQ(BrightnessRequest::unknownDisplay(42, {}), "There is no display 42; no display is listed (yet).");
    EXPECT_EQ(BrightnessRequest::notAdjustable(120, {}),
              "Display 120, the display in use, is not one Lumora can adjust; no display is listed (yet).");
}

TEST(ProbeReport, ReadingsRoundToWholePercents)
{
    const std::pair<double, std::string> cases[] = {{0.0, "0%"},    {0.004, "0%"},   {0.734, "73%"},
                                                    {0.736, "74%"}, {0.999, "100%"}, {1.2, "120%"}};
    for (const auto& [fraction, text] : cases)
        EXPECT_EQ(ProbeReport::displayLine(9, "X", true, fraction), "\u2022 [9] X (external/DDC) brightness=" + text);
}

TEST(ProbeReport, SetValueIsASignedDecimalWithinSixtyFourBits)
{
    const std::pair<const char*, std::optional<int>> cases[] = {
        {"-0", 0}, {"+007", 7}, {"0000000000000000000000000000042", 42}, {"101", 100},
        {"9223372036854775807", 100}, {"-9223372036854775808", 0},
        {"9223372036854775808", std::nullopt}, {"+9223372036854775808", std::nullopt},
        {"-9223372036854775809", std::nullopt},
        {"18446744073709551616", std::nullopt},  // 2^64: wraps to 0 if unchecked
        {"18446744073709551656", std::nullopt},  // 2^64 + 40
        {"+", std::nullopt}, {"-", std::nullopt}, {"--5", std::nullopt}, {"40\n", std::nullopt}, {"0x10", std::nullopt},
    };
    for (const auto& [text, percent] : cases)
        EXPECT_EQ(ProbeReport::parseSetValue(text), percent) << '"' << text << '"';
    EXPECT_EQ(ProbeReport::parseSetValue(nullptr), std::nullopt);
}

TEST(ProbeReport, NotesSayWhyEachMissingMonitorIsMissing)
{
    const std::string noChannel = "; see \"Monitors that are not listed\" in Lumora's README.";
    const std::string readme = "; see \"Device access\" in Lumora's README.";
    const std::string noModule = "Note: i2c-dev is not loaded, so no external monitor can be reached; load it with "
                                 "\"sudo modprobe i2c-dev\" (see \"Device access\" in Lumora's README).";
    using Missing = std::vector<ProbeReport::MissingMonitor>;
    const std::tuple<const char*, bool, Missing, std::vector<std::string>> cases[] = {
        {"nothing missing", true, {}, {}},
        {"nothing missing, no module: nothing to explain", false, {}, {}},
        {"no module says it once, for everyone", false, {{"card0-DP-1", {}}, {"card0-DP-2", {"/dev/i2c-6"}}}, {noModule}},
        {"denied nodes, each once, in order, then the monitor without a channel", true,
         {{"card0-DP-3", {"/dev/i2c-7", "/dev/i2c-8"}}, {"card0-DP-4", {"/dev/i2c-8"}}, {"card1-HDMI-A-1", {}}},
         {"Note: no permission to open /dev/i2c-7" + readme, "Note: no permission to open /dev/i2c-8" + readme,
          "Note: no DDC channel found for card1-HDMI-A-1 (connected)" + noChannel}},
    };
    for (const auto& [what, i2cDev, missing, lines] : cases) {
        SCOPED_TRACE(what);
        EXPECT_EQ(ProbeReport::notes(i2cDev, missing), lines);
    }
}
