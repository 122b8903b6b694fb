#pragma once
// A DDC transport that records every call and pause and answers reads from a script: what a DDCService sends,
// in order, without a wire or a clock.

#include <cstdint>
#include <deque>
#include <string>
#include <vector>

#include "Lumora/DDC/DDCService.h"

namespace LumoraTest {

struct Call {
    enum class Kind { sleep, write, read } kind;
    std::uint32_t microseconds = 0;  // sleep
    std::uint32_t chip = 0;          // write, read
    std::uint32_t dataAddressOrOffset = 0;
    std::vector<std::uint8_t> bytes;  // write: the bytes; read: what was handed back
    std::uint32_t length = 0;
};

struct ScriptedRead {
    std::int32_t status = 0;
    std::vector<std::uint8_t> bytes;  // copied into the buffer (up to its length)
};

class RecordingTransport {
public:
    std::vector<Call> calls;
    std::deque<std::int32_t> writeStatuses;  // front first; 0 when the script runs out
    std::deque<ScriptedRead> reads;          // front first; EIO when the script runs out

    Lumora::DDCService::Transport transport(bool withWrite = true, bool withRead = true)
    {
        Lumora::DDCService::Transport t;
        t.sleep = [this](std::uint32_t us) { calls.push_back({Call::Kind::sleep, us, 0, 0, {}, 0}); };
        if (withWrite) {
            t.write = [this](const Lumora::IOAVServiceRef&, std::uint32_t chip, std::uint32_t dataAddress,
                             const std::uint8_t* buffer, std::uint32_t length) {
                calls.push_back({Call::Kind::write, 0, chip, dataAddress, {buffer, buffer + length}, length});
                std::int32_t status = writeStatuses.empty() ? 0 : writeStatuses.front();
                if (!writeStatuses.empty())
                    writeStatuses.pop_front();
                return status;
            };
        }
        if (withRead) {
            t.read = [this](const Lumora::IOAVServiceRef&, std::uint32_t chip, std::uint32_t offset,
                            std::uint8_t* buffer, std::uint32_t length) {
                ScriptedRead next{5 /* EIO */, {}};
                if (!reads.empty()) {
                    next = reads.front();
                    reads.pop_front();
                }
                for (std::size_t i = 0; i < next.bytes.size() && i < length; ++i)
                    buffer[i] = next.bytes[i];
                calls.push_back({Call::Kind::read, 0, chip, offset, {buffer, buffer + length}, length});
                return next.status;
            };
        }
        return t;
    }

    std::vector<std::uint32_t> sleeps() const { return of(Call::Kind::sleep, [](const Call& c) { return c.microseconds; }); }
    std::size_t count(Call::Kind kind) const
    {
        std::size_t n = 0;
        for (const Call& c : calls)
            n += c.kind == kind;
        return n;
    }
    std::uint32_t totalSleep() const
    {
        std::uint32_t total = 0;
        for (std::uint32_t s : sleeps())
            total += s;
        return total;
    }
    // "S10000 W S50000 R" — the shape of a transaction, for comparing sequences at a glance.
    std::string shape() const
    {
        std::string out;
        for (const Call& c : calls) {
            if (!out.empty())
                out += ' ';
            if (c.kind == Call::Kind::sleep)
                out += "S" + std::to_string(c.microseconds);
            else
                out += c.kind == Call::Kind::write ? "W" : "R";
        }
        return out;
    }

private:
    template <typename F>
    std::vector<std::uint32_t> of(Call::Kind kind, F f) const
    {
        std::vector<std::uint32_t> out;
        for (const Call& c : calls) {
            if (c.kind == kind)
                out.push_back(f(c));
        }
        return out;
    }
};

// The reply of a monitor at `current` of `max`, with a correct checksum.
inline std::vector<std::uint8_t> reply(std::uint16_t current, std::uint16_t max, std::uint8_t code = 0x10)
{
    std::vector<std::uint8_t> bytes{0x6E, 0x88, 0x02, 0x00, code, 0x00,
                                    static_cast<std::uint8_t>(max >> 8), static_cast<std::uint8_t>(max),
                                    static_cast<std::uint8_t>(current >> 8), static_cast<std::uint8_t>(current)};
    std::uint8_t sum = 0x50;
    for (std::uint8_t b : bytes)
        sum ^= b;
    bytes.push_back(sum);
    return bytes;
}

}  // namespace LumoraTest
