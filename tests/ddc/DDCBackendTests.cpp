// The DDC backend: fractions to and from the monitor's raw values, scaled by the maximum it last reported.

#include <gtest/gtest.h>

#include <cmath>

#include "Lumora/DDC/DDCBackend.h"
#include "RecordingTransport.h"

using namespace Lumora;
using LumoraTest::Call;
using LumoraTest::RecordingTransport;
using LumoraTest::reply;
using Bytes = std::vector<std::uint8_t>;

namespace {

struct DDCBackendTest : ::testing::Test {
    RecordingTransport wire;
    DDCBackend backend{DDCService{nullptr, wire.transport()}};

    // The raw values of the Set VCP writes since the last call, one per transaction (each goes out twice).
    std::vector<std::pair<std::uint8_t, std::uint16_t>> sets()
    {
        std::vector<std::pair<std::uint8_t, std::uint16_t>> out;
        int n = 0;
        for (const Call& c : wire.calls) {
            if (c.kind == Call::Kind::write && c.bytes.size() == 6 && c.bytes[1] == 0x03 && n++ % 2 == 0)
                out.emplace_back(c.bytes[2], static_cast<std::uint16_t>(c.bytes[3] << 8 | c.bytes[4]));
        }
        wire.calls.clear();
        return out;
    }
};

using Sets = std::vector<std::pair<std::uint8_t, std::uint16_t>>;

}  // namespace

TEST_F(DDCBackendTest, ReadsAFractionAndLearnsTheMaximum)
{
    wire.reads = {{0, reply(50, 100)}};
    EXPECT_EQ(backend.readBrightness(), 0.5);
    EXPECT_EQ(backend.maxValue(), 100);
    wire.calls.clear();
    backend.writeBrightness(0.625);
    EXPECT_EQ(sets(), (Sets{{0x10, 63}})) << "62.5 rounds away from zero";
}

TEST_F(DDCBackendTest, WritesScaleByTheLastReportedMaximum)
{
    backend.writeBrightness(0.5);
    EXPECT_EQ(sets(), (Sets{{0x10, 50}})) << "a backend that never read scales by 100";

    wire.reads = {{0, reply(0, 255)}};
    ASSERT_TRUE(backend.readBrightness());
    wire.calls.clear();
    backend.writeBrightness(1.0);
    backend.writeBrightness(0.0);
    backend.writeBrightness(0.4);
    EXPECT_EQ(sets(), (Sets{{0x10, 255}, {0x10, 0}, {0x10, 102}}));

    // A failed read keeps the maximum learnt before.
    EXPECT_FALSE(backend.readBrightness());
    wire.calls.clear();
    backend.writeBrightness(0.5);
    EXPECT_EQ(sets(), (Sets{{0x10, 128}}));
}

TEST_F(DDCBackendTest, AMaximumOfZeroCountsAsOneAndReadingsAreNotClamped)
{
    wire.reads = {{0, reply(30, 0)}};
    EXPECT_EQ(backend.readBrightness(), 30.0);
    EXPECT_EQ(backend.maxValue(), 1);
    wire.calls.clear();
    backend.writeBrightness(0.5);
    EXPECT_EQ(sets(), (Sets{{0x10, 1}}));

    wire.reads = {{0, reply(120, 100)}};
    EXPECT_DOUBLE_EQ(*backend.readBrightness(), 1.2);
}

TEST_F(DDCBackendTest, FractionsOutsideTheRangeAreHeldToIt)
{
    backend.writeBrightness(7.0);
    backend.writeBrightness(-0.5);
    backend.writeBrightness(std::nan(""));
    EXPECT_EQ(sets(), (Sets{{0x10, 100}, {0x10, 0}, {0x10, 0}}));
}

TEST_F(DDCBackendTest, PowerSendsStandbyAndOnAndNothingElse)
{
    EXPECT_TRUE(backend.canPowerOff());
    backend.setPower(false);
    backend.setPower(true);
    EXPECT_EQ(sets(), (Sets{{0xD6, 0x04}, {0xD6, 0x01}}));
    EXPECT_EQ(wire.count(Call::Kind::read), 0u);
}
