#include <gtest/gtest.h>

#include "LumoraCore/VCPCode.h"

using namespace Lumora;

TEST(VCPCodeLookup, KnownCodesRoundTrip)
{
    for (VCPCode code : {VCPCode(VCPCode::brightness), VCPCode(VCPCode::contrast), VCPCode(VCPCode::audioVolume),
                         VCPCode(VCPCode::powerMode)}) {
        const auto found = VCPCode::fromRawValue(code.rawValue());
        ASSERT_TRUE(found) << int(code.rawValue());
        EXPECT_EQ(found->rawValue(), code.rawValue());
    }
    EXPECT_EQ(VCPCode::fromRawValue(0xD6), std::optional<VCPCode>(VCPCode::powerMode));
    EXPECT_EQ(VCPCode(VCPCode::brightness).rawValue(), 0x10);
}

TEST(VCPCodeLookup, EveryOtherRawValueIsAbsent)
{
    int found = 0;
    for (int raw = 0; raw < 256; ++raw)
        found += VCPCode::fromRawValue(static_cast<std::uint8_t>(raw)).has_value();
    EXPECT_EQ(found, 4);
    EXPECT_FALSE(VCPCode::fromRawValue(0x11));
    EXPECT_FALSE(VCPCode::fromRawValue(0x00));
}

TEST(VCPPowerModeLookup, OnStandbyOffOnly)
{
    EXPECT_EQ(VCPCode::powerModeFromRawValue(1), VCPCode::PowerMode::on);
    EXPECT_EQ(VCPCode::powerModeFromRawValue(4), VCPCode::PowerMode::standby);
    EXPECT_EQ(VCPCode::powerModeFromRawValue(5), VCPCode::PowerMode::off);
    EXPECT_FALSE(VCPCode::powerModeFromRawValue(0));
    EXPECT_FALSE(VCPCode::powerModeFromRawValue(2));
    EXPECT_FALSE(VCPCode::powerModeFromRawValue(3));
    EXPECT_FALSE(VCPCode::powerModeFromRawValue(6));
    EXPECT_FALSE(VCPCode::powerModeFromRawValue(0xFF));
}

TEST(VCPPowerModeLookup, RawValuesWrittenToTheMonitor)
{
    EXPECT_EQ(rawValue(VCPCode::PowerMode::on), 0x01);
    EXPECT_EQ(rawValue(VCPCode::PowerMode::standby), 0x04);
    EXPECT_EQ(rawValue(VCPCode::PowerMode::off), 0x05);
}
