// DDC/CI transactions and the DDC backend over a transport that records every pause, write and read: the exact
// bytes, order and pauses, the retries, and the scaling by the monitor's maximum. The virtual desk tests carry
// the same traffic over i2c-dev; these keep the corners a real wire cannot force.

#include <gtest/gtest.h>

#include <cerrno>
#include <chrono>
#include <cmath>
#include <deque>

#include "Lumora/DDC/DDCBackend.h"

using namespace Lumora;
using Bytes = std::vector<std::uint8_t>;

namespace {

std::string hex(const std::uint8_t* bytes, std::size_t length)
{
    static const char digits[] = "0123456789ABCDEF";
    std::string text;
    for (std::size_t i = 0; i < length; ++i) {
        text += digits[bytes[i] >> 4];
        text += digits[bytes[i] & 0x0F];
    }
    return text;
}

// The reply of a monitor at `current` of `max`, with a correct checksum unless `corrupt`.
Bytes reply(std::uint16_t current, std::uint16_t max, bool corrupt = false)
{
    Bytes bytes{0x6E, 0x88, 0x02, 0x00, 0x10, 0x00, std::uint8_t(max >> 8), std::uint8_t(max),
                std::uint8_t(current >> 8), std::uint8_t(current)};
    bytes.push_back(DDC::checksum(corrupt ? 0xAF : 0x50, bytes));
    return bytes;
}

// Logs the calls as "S10000 W84031000329A S50000 R" and answers reads from a script. Every write must go to
// 0x37 with data address 0x51, every read take 11 bytes from 0x37 at offset 0 into a zeroed buffer.
struct Wire {
    std::string log;
    std::vector<Bytes> writes;
    std::deque<std::int32_t> writeStatus;              // 0 once it runs out
    std::deque<std::pair<std::int32_t, Bytes>> reads;  // EIO once it runs out
    std::deque<bool> holds;                            // whether each hold of the bus is had; had once it runs out
    std::vector<std::chrono::steady_clock::time_point> deadlines;  // of each hold

    void add(const std::string& entry) { log += (log.empty() ? "" : " ") + entry; }

    // With `withHold`, holding the bus logs "hold" (and "free" when it is let go), or "kept" when it is not had.
    DDCService::Transport transport(bool withWrite = true, bool withRead = true, bool withHold = false)
    {
        DDCService::Transport t;
        if (withHold)
            t.hold = [this](const IOAVServiceRef&, std::chrono::steady_clock::time_point deadline) {
                deadlines.push_back(deadline);
                const bool had = holds.empty() || holds.front();
                if (!holds.empty())
                    holds.pop_front();
                add(had ? "hold" : "kept");
                return had ? std::shared_ptr<void>(this, [this](void*) { add("free"); }) : nullptr;
            };
        t.sleep = [this](std::uint32_t us) { add("S" + std::to_string(us)); };
        if (withWrite)
            t.write = [this](const IOAVServiceRef&, std::uint32_t chip, std::uint32_t data, const std::uint8_t* p,
                             std::uint32_t n) {
                EXPECT_EQ(chip * 0x100 + data, 0x3751u);
                add("W" + hex(p, n));
                writes.emplace_back(p, p + n);
                std::int32_t status = writeStatus.empty() ? 0 : writeStatus.front();
                if (!writeStatus.empty())
                    writeStatus.pop_front();
                return status;
            };
        if (withRead)
            t.read = [this](const IOAVServiceRef&, std::uint32_t chip, std::uint32_t offset, std::uint8_t* p,
                            std::uint32_t n) {
                EXPECT_EQ(chip * 0x100 + offset, 0x3700u);
                EXPECT_EQ(Bytes(p, p + n), Bytes(11, 0));
                auto [status, bytes] = reads.empty() ? std::pair{EIO, Bytes{}} : reads.front();
                if (!reads.empty())
                    reads.pop_front();
                std::copy(bytes.begin(), bytes.end(), p);
                add("R");
                return status;
            };
        return t;
    }

    // The brightness values of the Set VCP transactions since the last call; each goes out twice.
    std::vector<int> brightnessSets()
    {
        std::vector<int> values;
        for (std::size_t i = 0; i < writes.size(); i += 2) {
            EXPECT_EQ(writes[i], (DDC::setVCPRequest(VCPCode::brightness, writes[i][3] << 8 | writes[i][4])));
            values.push_back(writes[i][3] << 8 | writes[i][4]);
        }
        writes.clear();
        return values;
    }
};

const std::string attempt = "S10000 W820110AC S50000 R";

}  // namespace

TEST(DDCService, SetWritesTheRequestTwiceEachAfterTenMillisecondsAndOnlyTheSecondDecides)
{
    Wire wire;
    DDCService ddc{nullptr, wire.transport()};
    EXPECT_TRUE(ddc.setVCP(VCPCode::brightness, 50));
    EXPECT_EQ(wire.log, "S10000 W84031000329A S10000 W84031000329A");
    wire.writeStatus = {5, 0};
    EXPECT_TRUE(ddc.setVCP(VCPCode::brightness, 50));
    wire.writeStatus = {0, 121};
    EXPECT_FALSE(ddc.setVCP(VCPCode::brightness, 50));
}

TEST(DDCService, GetRetriesUpToFiveTimesWithExactPauses)
{
    const struct {
        const char* what;
        std::deque<std::pair<std::int32_t, Bytes>> reads;
        std::deque<std::int32_t> writeStatus;
        std::optional<VCPReply> expected;
        std::string log;
    } cases[] = {
        {"answers at once", {{0, reply(50, 100)}}, {}, VCPReply{50, 100}, attempt},
        {"two bad checksums", {{0, reply(9, 10, true)}, {0, reply(9, 9, true)}, {0, reply(70, 255)}, {0, reply(1, 2)}},
         {}, VCPReply{70, 255}, attempt + " S20000 " + attempt + " S20000 " + attempt},
        {"never answers", {}, {}, std::nullopt,
         attempt + " S20000 " + attempt + " S20000 " + attempt + " S20000 " + attempt + " S20000 " + attempt +
             " S20000"},  // the fifth failure pauses too
        {"failed read with a valid reply, empty read", {{EIO, reply(5, 10)}, {0, {}}, {0, reply(6, 10)}}, {},
         VCPReply{6, 10}, attempt + " S20000 " + attempt + " S20000 " + attempt},
        {"failed request write", {{0, reply(5, 10)}}, {121}, VCPReply{5, 10}, attempt},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.what);
        Wire wire;
        wire.reads = c.reads;
        wire.writeStatus = c.writeStatus;
        EXPECT_EQ(DDCService(nullptr, wire.transport()).getVCP(VCPCode::brightness), c.expected);
        EXPECT_EQ(wire.log, c.log);
    }
}

TEST(DDCService, EachExchangeHoldsTheBusAndAnAttemptWithoutItFailsWithinOneWaitForTheOperation)
{
    const std::string set = "S10000 W84031000329A S10000 W84031000329A";
    const struct {
        const char* what;
        bool get;
        std::deque<bool> holds;
        std::deque<std::pair<std::int32_t, Bytes>> reads;
        bool succeeds;
        std::string log;
    } cases[] = {
        {"a Set and its repeat in one hold", false, {}, {}, true, "hold " + set + " free"},
        {"a Set without the bus: nothing written", false, {false}, {}, false, "kept"},
        {"each Get attempt in a hold of its own", true, {}, {{EIO, {}}, {0, reply(50, 100)}}, true,
         "hold " + attempt + " free S20000 hold " + attempt + " free"},
        {"a Get whose first attempts cannot have the bus", true, {false, false}, {{0, reply(50, 100)}}, true,
         "kept S20000 kept S20000 hold " + attempt + " free"},
        {"a Get that never has the bus: five failed attempts", true, {false, false, false, false, false}, {}, false,
         "kept S20000 kept S20000 kept S20000 kept S20000 kept S20000"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.what);
        Wire wire;
        wire.holds = c.holds;
        wire.reads = c.reads;
        const DDCService ddc{nullptr, wire.transport(true, true, true)};
        const auto before = std::chrono::steady_clock::now();
        EXPECT_EQ(c.get ? ddc.getVCP(VCPCode::brightness).has_value() : ddc.setVCP(VCPCode::brightness, 50),
                  c.succeeds);
        EXPECT_EQ(wire.log, c.log);
        // One wait for the whole operation: every attempt waits until the same deadline, a second after its start.
        for (const auto deadline : wire.deadlines) {
            EXPECT_EQ(deadline, wire.deadlines.front());
            EXPECT_GE(deadline, before + DDCService::busPatience);
            EXPECT_LE(deadline, std::chrono::steady_clock::now() + DDCService::busPatience);
        }
    }
}

TEST(DDCService, AbsentEntryPointsAreNeverCalled)
{
    Wire wire;
    wire.reads = {{0, reply(1, 2)}};
    EXPECT_FALSE(DDCService(nullptr, wire.transport(false, false)).setVCP(VCPCode::powerMode, 4));
    EXPECT_FALSE(DDCService(nullptr, wire.transport(false, false)).getVCP(VCPCode::brightness));
    EXPECT_EQ(wire.log, "S10000 S10000 S10000 S50000 S20000 S10000 S50000 S20000 S10000 S50000 S20000 "
                        "S10000 S50000 S20000 S10000 S50000 S20000");
    EXPECT_EQ(DDCService(nullptr, wire.transport(false, true)).getVCP(VCPCode::brightness), (VCPReply{1, 2}));
}

TEST(DDCBackend, ScalesByTheLastReportedMaximum)
{
    Wire wire;
    DDCBackend backend{DDCService{nullptr, wire.transport()}};
    backend.writeBrightness(0.5);    // never read: scale 100
    backend.writeBrightness(7.0);    // held to 0...1
    backend.writeBrightness(-0.5);
    backend.writeBrightness(std::nan(""));
    EXPECT_EQ(wire.brightnessSets(), (std::vector<int>{50, 100, 0, 0}));

    const struct {
        Bytes reply;
        std::optional<double> reading;
        int maxValue;
        double fraction;
        int set;
    } steps[] = {
        {reply(50, 100), 0.5, 100, 0.625, 63},  // 62.5 rounds away from zero
        {reply(30, 0), 30.0, 1, 0.5, 1},        // a maximum of 0 counts as 1
        {reply(120, 100), 1.2, 100, 0.5, 50},   // not clamped
        {reply(0, 255), 0.0, 255, 0.5, 128},
        {{}, std::nullopt, 255, 0.5, 128},      // a failed read keeps the maximum
    };
    for (const auto& step : steps) {
        wire.reads.assign(5, {step.reply.empty() ? EIO : 0, step.reply});
        EXPECT_EQ(backend.readBrightness(), step.reading);
        EXPECT_EQ(backend.maxValue(), step.maxValue);
        wire.writes.clear();
        backend.writeBrightness(step.fraction);
        EXPECT_EQ(wire.brightnessSets(), std::vector<int>{step.set});
    }
}
