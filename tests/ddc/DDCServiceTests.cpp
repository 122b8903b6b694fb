// DDC/CI transactions: the exact bytes, order and pauses of set and get, their retries and their failures.

#include <gtest/gtest.h>

#include "Lumora/DDC/DDCService.h"
#include "RecordingTransport.h"

using namespace Lumora;
using LumoraTest::Call;
using LumoraTest::RecordingTransport;
using LumoraTest::reply;
using Bytes = std::vector<std::uint8_t>;

namespace {

struct DDCServiceTest : ::testing::Test {
    RecordingTransport wire;
    DDCService ddc{nullptr, wire.transport()};
};

}  // namespace

TEST_F(DDCServiceTest, SetWritesTheRequestTwiceEachAfterTenMillisecondsAndReadsNothing)
{
    EXPECT_TRUE(ddc.setVCP(VCPCode::brightness, 50));
    EXPECT_EQ(wire.shape(), "S10000 W S10000 W");
    for (const Call& call : wire.calls) {
        if (call.kind != Call::Kind::write)
            continue;
        EXPECT_EQ(call.chip, 0x37u);
        EXPECT_EQ(call.dataAddressOrOffset, 0x51u);
        EXPECT_EQ(call.bytes, (Bytes{0x84, 0x03, 0x10, 0x00, 0x32, 0x9A}));
    }
}

TEST_F(DDCServiceTest, OnlyTheSecondSetWriteDecides)
{
    wire.writeStatuses = {5, 0};
    EXPECT_TRUE(ddc.setVCP(VCPCode::brightness, 50));
    wire.writeStatuses = {0, 121};
    EXPECT_FALSE(ddc.setVCP(VCPCode::brightness, 50));
    EXPECT_EQ(wire.count(Call::Kind::write), 4u);
    EXPECT_EQ(wire.count(Call::Kind::read), 0u);
}

TEST_F(DDCServiceTest, GetThatSucceedsAtOnceCostsOneWriteOneReadAndSixtyMilliseconds)
{
    wire.reads = {{0, {0x6E, 0x88, 0x02, 0x00, 0x10, 0x00, 0x00, 0x64, 0x00, 0x32, 0xF2}}};
    std::optional<VCPReply> values = ddc.getVCP(VCPCode::brightness);
    ASSERT_TRUE(values);
    EXPECT_EQ(values->current, 50);
    EXPECT_EQ(values->max, 100);
    EXPECT_EQ(wire.shape(), "S10000 W S50000 R");
    EXPECT_EQ(wire.calls[1].bytes, (Bytes{0x82, 0x01, 0x10, 0xAC}));
    EXPECT_EQ(wire.calls[1].chip, 0x37u);
    EXPECT_EQ(wire.calls[1].dataAddressOrOffset, 0x51u);
    EXPECT_EQ(wire.calls[3].length, 11u);
    EXPECT_EQ(wire.calls[3].dataAddressOrOffset, 0u);
}

TEST_F(DDCServiceTest, GetRetriesPastBadChecksumsAndTakesTheFirstValidReply)
{
    Bytes bad = reply(10, 100);
    bad.back() ^= 0xFF;
    wire.reads = {{0, bad}, {0, bad}, {0, reply(70, 255)}, {0, reply(1, 2)}};
    std::optional<VCPReply> values = ddc.getVCP(VCPCode::brightness);
    ASSERT_TRUE(values);
    EXPECT_EQ(*values, (VCPReply{70, 255}));
    EXPECT_EQ(wire.shape(), "S10000 W S50000 R S20000 "
                            "S10000 W S50000 R S20000 "
                            "S10000 W S50000 R");
}

TEST_F(DDCServiceTest, AMonitorThatNeverAnswersCostsFiveAttemptsAndFourHundredMilliseconds)
{
    EXPECT_FALSE(ddc.getVCP(VCPCode::brightness));
    EXPECT_EQ(wire.count(Call::Kind::write), 5u);
    EXPECT_EQ(wire.count(Call::Kind::read), 5u);
    EXPECT_EQ(wire.totalSleep(), 400'000u);
    EXPECT_EQ(wire.calls.back().kind, Call::Kind::sleep) << "the fifth failure pauses too";
}

TEST_F(DDCServiceTest, EachAttemptReadsIntoAFreshZeroedBuffer)
{
    // A read that "succeeds" but fills nothing leaves zeros, which never validate; the next attempt must not see
    // the previous attempt's bytes either.
    Bytes good = reply(30, 100);
    wire.reads = {{0, good}};
    ASSERT_TRUE(ddc.getVCP(VCPCode::brightness));
    wire.calls.clear();
    wire.reads = {{0, {}}, {0, {}}, {0, {}}, {0, {}}, {0, {}}};
    EXPECT_FALSE(ddc.getVCP(VCPCode::brightness));
    for (const Call& call : wire.calls) {
        if (call.kind == Call::Kind::read) {
            EXPECT_EQ(call.bytes, Bytes(11, 0));
        }
    }
}

TEST_F(DDCServiceTest, AFailedRequestWriteDoesNotStopTheRead)
{
    wire.writeStatuses = {121};
    wire.reads = {{0, reply(5, 10)}};
    EXPECT_EQ(ddc.getVCP(VCPCode::brightness), (VCPReply{5, 10}));
}

TEST_F(DDCServiceTest, AReadThatFailsIsRetriedEvenWhenItLeftAValidReplyInTheBuffer)
{
    wire.reads = {{121, reply(5, 10)}, {0, reply(6, 10)}};
    EXPECT_EQ(ddc.getVCP(VCPCode::brightness), (VCPReply{6, 10}));
    EXPECT_EQ(wire.count(Call::Kind::read), 2u);
}

TEST(DDCServiceWithoutEntryPoints, SetSleepsAndFailsGetGivesUpWithoutCallingAnything)
{
    RecordingTransport wire;
    DDCService ddc{nullptr, wire.transport(false, false)};
    EXPECT_FALSE(ddc.setVCP(VCPCode::powerMode, 4));
    EXPECT_EQ(wire.shape(), "S10000 S10000");
    wire.calls.clear();
    EXPECT_FALSE(ddc.getVCP(VCPCode::brightness));
    EXPECT_EQ(wire.count(Call::Kind::write) + wire.count(Call::Kind::read), 0u);
    EXPECT_EQ(wire.totalSleep(), 400'000u);
}

TEST(DDCServiceWithoutEntryPoints, GetWithoutWriteStillReads)
{
    RecordingTransport wire;
    wire.reads = {{0, reply(1, 2)}};
    DDCService ddc{nullptr, wire.transport(false, true)};
    EXPECT_EQ(ddc.getVCP(VCPCode::brightness), (VCPReply{1, 2}));
}
