// SPDX-License-Identifier: GPL-3.0-or-later
// The probe's corners that its end-to-end tests do not reach: rounding of readings and the 64-bit edges of the
// set value.

#include <gtest/gtest.h>

#include "LumoraCore/ProbeReport.h"

using namespace Lumora;

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
    const struct {
        const char* what;
        bool i2cDev;
        Missing missing;
        std::vector<std::string> lines;
    } cases[] = {
        {"nothing missing", true, {}, {}},
        {"nothing missing, no module: nothing to explain", false, {}, {}},
        {"no module says it once, for everyone", false, {{"card0-DP-1", {}}, {"card0-DP-2", {"/dev/i2c-6"}}}, {noModule}},
        {"no channel", true, {{"card0-DP-3", {}}},
         {"Note: no DDC channel found for card0-DP-3 (connected)" + noChannel}},
        {"denied nodes, each once, in order, then the monitor without a channel", true,
         {{"card0-DP-3", {"/dev/i2c-7", "/dev/i2c-8"}}, {"card0-DP-4", {"/dev/i2c-8"}}, {"card1-HDMI-A-1", {}}},
         {"Note: no permission to open /dev/i2c-7" + readme, "Note: no permission to open /dev/i2c-8" + readme,
          "Note: no DDC channel found for card1-HDMI-A-1 (connected)" + noChannel}},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.what);
        EXPECT_EQ(ProbeReport::notes(c.i2cDev, c.missing), c.lines);
    }
}
