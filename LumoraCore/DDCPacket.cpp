// SPDX-License-Identifier: GPL-3.0-or-later
#include "LumoraCore/DDCPacket.h"

namespace Lumora::DDC {

namespace {

// The 8-bit write address of the monitor (0x6E) and the host's source address both enter every request
// checksum; folding them into the seed keeps them out of the request bytes, which the transport sends after them.
constexpr std::uint8_t requestSeed = static_cast<std::uint8_t>((chipAddress << 1) ^ dataAddress);  // 0x3F

// Destination of display-to-host messages in their checksum: the host's virtual address.
constexpr std::uint8_t replySeed = 0x50;

constexpr std::size_t replyLength = 11;

constexpr std::uint8_t getVCPOpcode = 0x01;
constexpr std::uint8_t setVCPOpcode = 0x03;
constexpr std::uint8_t lengthFlag = 0x80;

}  // namespace

std::uint8_t checksum(std::uint8_t seed, std::span<const std::uint8_t> bytes)
{
    std::uint8_t sum = seed;
    for (std::uint8_t byte : bytes)
        sum ^= byte;
    return sum;
}

std::vector<std::uint8_t> getVCPRequest(VCPCode code)
{
    std::vector<std::uint8_t> request{lengthFlag | 2, getVCPOpcode, code.rawValue()};
    request.push_back(checksum(requestSeed, request));
    return request;
}

std::vector<std::uint8_t> setVCPRequest(VCPCode code, std::uint16_t value)
{
    std::vector<std::uint8_t> request{lengthFlag | 4, setVCPOpcode, code.rawValue(),
                                      static_cast<std::uint8_t>(value >> 8),
                                      static_cast<std::uint8_t>(value & 0xFF)};
    request.push_back(checksum(requestSeed, request));
    return request;
}

std::optional<VCPReply> parseGetVCPReply(std::span<const std::uint8_t> reply)
{
    if (reply.size() < replyLength)
        return std::nullopt;
    // The checksum is the last byte whatever the length, and covers everything before it.
    if (checksum(replySeed, reply.first(reply.size() - 1)) != reply.back())
        return std::nullopt;
    VCPReply result;
    result.max = static_cast<std::uint16_t>((reply[6] << 8) | reply[7]);
    result.current = static_cast<std::uint16_t>((reply[8] << 8) | reply[9]);
    return result;
}

}  // namespace Lumora::DDC
