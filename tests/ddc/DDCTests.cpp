// SPDX-License-Identifier: GPL-3.0-or-later
// DDC/CI transactions and the DDC backend over a transport that logs every hold of the bus, pause, write and read:
// exact bytes and pauses, retries, the bus held per exchange, scaling by the monitor's maximum; the corners a real
// wire cannot force.

#include <gtest/gtest.h>

#include <cerrno>
#include <chrono>
#include <cmath>
#include <deque>
#include <tuple>

#include "Lumora/DDC/DDCBackend.h"

using namespace Lumora;
using Bytes = std::vector<std::uint8_t>;

namespace {

// The reply of a monitor at `current` of `max`, with a correct checksum unless `corrupt`.
Bytes reply(std::uint16_t current, std::uint16_t max, bool corrupt = false)
{
    Bytes bytes{0x6E, 0x88, 0x02, 0x00, 0x10, 0x00, std::uint8_t(max >> 8), std::uint8_t(max),
                std::uint8_t(current >> 8), std::uint8_t(current)};
    bytes.push_back(DDC::checksum(corrupt ? 0xAF : 0x50, bytes));
    return bytes;
}

// Logs the calls as "hold S10000 W84031000329A S50000 R free" and answers from scripts (once one runs out: writes
// 0, reads EIO, holds had; "kept" is a hold not had). Writes go to 0x37 at 0x51, reads take 11 bytes from 0x37.
struct Wire {
    std::string log;
    std::deque<std::int32_t> writeStatus;
    std::deque<std::pair<std::int32_t, Bytes>> reads;
    std::deque<bool> holds;
    std::vector<std::chrono::steady_clock::time_point> deadlines;  // of each hold
    std::vector<int> sets;  // the brightness value of each copy of Set VCP brightness written

    void add(const std::string& entry) { log += (log.empty() ? "" : " ") + entry; }
    template <typename T> static T next(std::deque<T>& script, T otherwise)
    {
        if (script.empty())
            return otherwise;
        T front = script.front();
        script.pop_front();
        return front;
    }

    DDCService::Transport transport(bool withHold = false)
    {
        DDCService::Transport t;
        if (withHold)
            t.hold = [this](const IOAVServiceRef&, std::chrono::steady_clock::time_point deadline) {
                deadlines.push_back(deadline);
                const bool had = next(holds, true);
                add(had ? "hold" : "kept");
                return had ? std::shared_ptr<void>(this, [this](void*) { add("free"); }) : nullptr;
            };
        t.sleep = [this](std::uint32_t us) { add("S" + std::to_string(us)); };
        t.write = [this](const IOAVServiceRef&, std::uint32_t chip, std::uint32_t data, const std::uint8_t* p,
                         std::uint32_t n) {
            EXPECT_EQ(chip * 0x100 + data, 0x3751u);
            std::string hex = "W";
            for (const char* digits = "0123456789ABCDEF"; n-- > 0; ++p)
                hex += {digits[*p >> 4], digits[*p & 0x0F]};
            add(hex);
            if (hex.starts_with("W840310"))
                sets.push_back(std::stoi(hex.substr(7, 4), nullptr, 16));
            return next(writeStatus, 0);
        };
        t.read = [this](const IOAVServiceRef&, std::uint32_t chip, std::uint32_t offset, std::uint8_t* p,
                        std::uint32_t n) {
            EXPECT_EQ(chip * 0x100 + offset, 0x3700u);
            EXPECT_EQ(Bytes(p, p + n), Bytes(11, 0));
            const auto [status, bytes] = next(reads, {EIO, {}});
            std::copy(bytes.begin(), bytes.end(), p);
            add("R");
            return status;
        };
        return t;
    }
};

}  // namespace

TEST(DDCService, ExchangesHoldTheBusAndRetryWithExactPauses)
{
    const std::string attempt = "S10000 W820110AC S50000 R", set = "S10000 W84031000329A S10000 W84031000329A";
    const std::string fail = "kept S20000";
    const struct {
        const char* what;
        bool get;  // else Set VCP brightness 50
        std::deque<bool> holds;
        std::deque<std::int32_t> writeStatus;
        std::deque<std::pair<std::int32_t, Bytes>> reads;
        std::optional<VCPReply> expected;  // for a Set: whether it was taken
        std::string log;
    } cases[] = {
        {"a Set and its repeat in one hold", false, {}, {}, {}, VCPReply{}, "hold " + set + " free"},
        {"only the second copy of a Set decides", false, {}, {5, 0}, {}, VCPReply{}, "hold " + set + " free"},
        {"a Set whose repeat fails", false, {}, {0, 121}, {}, std::nullopt, "hold " + set + " free"},
        {"a Set without the bus: nothing written", false, {false}, {}, {}, std::nullopt, "kept"},
        {"a Get answered at once", true, {}, {}, {{0, reply(50, 100)}}, VCPReply{50, 100}, "hold " + attempt + " free"},
        {"each Get attempt in a hold of its own, after bad checksums, failed and empty reads", true, {}, {},
         {{0, reply(9, 10, true)}, {EIO, reply(5, 10)}, {0, {}}, {0, reply(70, 255)}, {0, reply(1, 2)}},
         VCPReply{70, 255}, "hold " + attempt + " free S20000 hold " + attempt + " free S20000 hold " + attempt +
                                " free S20000 hold " + attempt + " free"},
        {"a failed request write is no failed Get", true, {}, {121}, {{0, reply(5, 10)}}, VCPReply{5, 10},
         "hold " + attempt + " free"},
        {"a Get never answered: five attempts, the fifth pauses too", true, {}, {}, {}, std::nullopt,
         "hold " + attempt + " free S20000 hold " + attempt + " free S20000 hold " + attempt + " free S20000 hold " +
             attempt + " free S20000 hold " + attempt + " free S20000"},
        {"a Get whose first attempts cannot have the bus", true, {false, false}, {}, {{0, reply(50, 100)}},
         VCPReply{50, 100}, fail + " " + fail + " hold " + attempt + " free"},
        {"a Get that never has the bus", true, {false, false, false, false, false}, {}, {}, std::nullopt,
         fail + " " + fail + " " + fail + " " + fail + " " + fail},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.what);
        Wire wire;
        std::tie(wire.writeStatus, wire.reads, wire.holds) = std::tie(c.writeStatus, c.reads, c.holds);
        const DDCService ddc{nullptr, wire.transport(true)};
        const auto before = std::chrono::steady_clock::now();
        if (c.get) {
            EXPECT_EQ(ddc.getVCP(VCPCode::brightness), c.expected);
        } else {
            EXPECT_EQ(ddc.setVCP(VCPCode::brightness, 50), c.expected.has_value());
        }
        EXPECT_EQ(wire.log, c.log);
        // One wait for the whole operation: every attempt waits until the same deadline, a second after its start.
        for (const auto deadline : wire.deadlines) {
            EXPECT_EQ(deadline, wire.deadlines.front());
            EXPECT_GE(deadline, before + DDCService::busPatience);
            EXPECT_LE(deadline, std::chrono::steady_clock::now() + DDCService::busPatience);
        }
    }
}

TEST(DDCBackend, ScalesByTheLastReportedMaximum)
{
    Wire wire;
    DDCBackend backend{DDCService{nullptr, wire.transport()}};
    const struct {
        std::optional<Bytes> reply;  // read first when given; an empty one is a failed read
        std::optional<double> reading;
        double fraction;
        int set;
    } steps[] = {
        {std::nullopt, std::nullopt, 0.5, 50},  // never read: scale 100
        {std::nullopt, std::nullopt, 7.0, 100},  // held to 0...1
        {std::nullopt, std::nullopt, -0.5, 0},
        {std::nullopt, std::nullopt, std::nan(""), 0},
        {reply(50, 100), 0.5, 0.625, 63},  // 62.5 rounds away from zero
        {reply(30, 0), 30.0, 0.5, 1},      // a maximum of 0 counts as 1
        {reply(120, 100), 1.2, 0.5, 50},   // not clamped
        {reply(0, 1000), 0.0, 0.5, 500},     // sent high byte first
        {Bytes{}, std::nullopt, 0.25, 250},  // a failed read keeps the maximum
    };
    for (const auto& step : steps) {
        if (step.reply) {
            wire.reads.assign(5, {step.reply->empty() ? EIO : 0, *step.reply});
            EXPECT_EQ(backend.readBrightness(), step.reading);
        }
        wire.sets.clear();
        backend.writeBrightness(step.fraction);
        EXPECT_EQ(wire.sets, (std::vector<int>{step.set, step.set})) << step.fraction;
    }
}
