#include <gtest/gtest.h>

#include <string>

#include "LumoraCore/ProbeReport.h"

using namespace Lumora;

// ---- probe formatting ----------------------------------------------------------------------------------------

TEST(ProbeFormatting, Header)
{
    EXPECT_EQ(ProbeReport::header(2, true, false), "Displays: 2  (IOAVService: true, DisplayServices: false)");
    EXPECT_EQ(ProbeReport::header(0, false, true), "Displays: 0  (IOAVService: false, DisplayServices: true)");
    EXPECT_EQ(ProbeReport::header(12, true, true), "Displays: 12  (IOAVService: true, DisplayServices: true)");
}

TEST(ProbeFormatting, DisplayLineStartsWithABulletInUTF8)
{
    const std::string line = ProbeReport::displayLine(2, "Display 2", true, 0.73);
    EXPECT_EQ(line, "\xE2\x80\xA2 [2] Display 2 (external/DDC) brightness=73%");
}

TEST(ProbeFormatting, KindsAndMissingReading)
{
    EXPECT_EQ(ProbeReport::displayLine(1, "Built-in Display", false, 0.5),
              "\xE2\x80\xA2 [1] Built-in Display (internal) brightness=50%");
    EXPECT_EQ(ProbeReport::displayLine(2, "Display 2", true, std::nullopt),
              "\xE2\x80\xA2 [2] Display 2 (external/DDC) brightness=n/a");
}

TEST(ProbeFormatting, ReadingsRoundToWholePercents)
{
    const auto reading = [](double fraction) {
        const std::string line = ProbeReport::displayLine(9, "X", true, fraction);
        return line.substr(line.find('=') + 1);
    };
    EXPECT_EQ(reading(0.0), "0%");
    EXPECT_EQ(reading(1.0), "100%");
    EXPECT_EQ(reading(0.734), "73%");
    EXPECT_EQ(reading(0.736), "74%");
    EXPECT_EQ(reading(0.004), "0%");
    EXPECT_EQ(reading(0.999), "100%");
}

TEST(ProbeFormatting, LargeIdsAndNamesAreKeptAsGiven)
{
    EXPECT_EQ(ProbeReport::displayLine(65538, "LG ULTRAFINE (2)", true, 1.0),
              "\xE2\x80\xA2 [65538] LG ULTRAFINE (2) (external/DDC) brightness=100%");
}

TEST(ProbeFormatting, SetLine)
{
    EXPECT_EQ(ProbeReport::setLine(40), "    set 40%");
    EXPECT_EQ(ProbeReport::setLine(0), "    set 0%");
    EXPECT_EQ(ProbeReport::setLine(100), "    set 100%");
}

// ---- set-value parsing ---------------------------------------------------------------------------------------

TEST(ProbeSetValue, PlainPercents)
{
    EXPECT_EQ(ProbeReport::parseSetValue("40"), 40);
    EXPECT_EQ(ProbeReport::parseSetValue("0"), 0);
    EXPECT_EQ(ProbeReport::parseSetValue("100"), 100);
}

TEST(ProbeSetValue, ClampedToZeroToHundred)
{
    EXPECT_EQ(ProbeReport::parseSetValue("150"), 100);
    EXPECT_EQ(ProbeReport::parseSetValue("101"), 100);
    EXPECT_EQ(ProbeReport::parseSetValue("-20"), 0);
    EXPECT_EQ(ProbeReport::parseSetValue("-1"), 0);
    EXPECT_EQ(ProbeReport::parseSetValue("-0"), 0);
}

TEST(ProbeSetValue, SignAndLeadingZeros)
{
    EXPECT_EQ(ProbeReport::parseSetValue("+70"), 70);
    EXPECT_EQ(ProbeReport::parseSetValue("007"), 7);
    EXPECT_EQ(ProbeReport::parseSetValue("+007"), 7);
    EXPECT_EQ(ProbeReport::parseSetValue("0000000000000000000000000000042"), 42);
}

TEST(ProbeSetValue, SixtyFourBitLimits)
{
    EXPECT_EQ(ProbeReport::parseSetValue("9223372036854775807"), 100);
    EXPECT_EQ(ProbeReport::parseSetValue("-9223372036854775808"), 0);
    EXPECT_EQ(ProbeReport::parseSetValue("9223372036854775808"), std::nullopt);
    EXPECT_EQ(ProbeReport::parseSetValue("+9223372036854775808"), std::nullopt);
    EXPECT_EQ(ProbeReport::parseSetValue("-9223372036854775809"), std::nullopt);
    EXPECT_EQ(ProbeReport::parseSetValue("99999999999999999999"), std::nullopt);
    EXPECT_EQ(ProbeReport::parseSetValue("18446744073709551616"), std::nullopt);  // 2^64 wraps to 0 if unchecked
    EXPECT_EQ(ProbeReport::parseSetValue("18446744073709551656"), std::nullopt);  // 2^64 + 40
}

TEST(ProbeSetValue, AnythingElseIsAbsent)
{
    EXPECT_EQ(ProbeReport::parseSetValue(nullptr), std::nullopt);
    for (const char* value : {"", " 40", "40 ", "40%", "4.5", "abc", "+", "-", "+-5", "--5", "++5", "0x10", "4e1",
                              "40\n", "\xEF\xBC\x94\xEF\xBC\x90" /* fullwidth 40 */}) {
        EXPECT_EQ(ProbeReport::parseSetValue(value), std::nullopt) << '"' << value << '"';
    }
}
