// SPDX-License-Identifier: GPL-3.0-or-later
// The DDC/CI bytes: requests, the reply check, and the VCP code tables.

#include <gtest/gtest.h>

#include <memory>
#include <tuple>
#include <vector>

#include "LumoraCore/DDCPacket.h"

using namespace Lumora;
using Bytes = std::vector<std::uint8_t>;

namespace {

// Appends the byte that makes the reply's fold, seeded with the host's virtual address 0x50, come out right.
Bytes sealed(Bytes body)
{
    body.push_back(DDC::checksum(0x50, body));
    return body;
}

const Bytes canonicalReply{0x6E, 0x88, 0x02, 0x00, 0x10, 0x00, 0x00, 0x64, 0x00, 0x32, 0xF2};

}  // namespace

TEST(DDCPacket, RequestsCarryTheExactBytes)
{
    using PowerMode = VCPCode::PowerMode;
    EXPECT_EQ(DDC::getVCPRequest(VCPCode::brightness), (Bytes{0x82, 0x01, 0x10, 0xAC}));
    EXPECT_EQ(DDC::getVCPRequest(VCPCode::powerMode), (Bytes{0x82, 0x01, 0xD6, 0x6A}));
    EXPECT_EQ(DDC::setVCPRequest(VCPCode::brightness, 300), (Bytes{0x84, 0x03, 0x10, 0x01, 0x2C, 0x85}));
    EXPECT_EQ(DDC::setVCPRequest(VCPCode::powerMode, rawValue(PowerMode::standby)), (Bytes{0x84, 3, 0xD6, 0, 4, 0x6A}));
}

TEST(DDCPacket, RepliesAreCheckedByTheirLastByteOnly)
{
    const std::tuple<const char*, Bytes, std::optional<VCPReply>> cases[] = {
        {"canonical", canonicalReply, VCPReply{.current = 50, .max = 100}},
        {"max is 6-7, current 8-9", sealed({0x6E, 0x88, 0x02, 0x00, 0x10, 0x00, 0x12, 0x34, 0xAB, 0xCD}),
         VCPReply{.current = 0xABCD, .max = 0x1234}},
        {"header and result code not examined", sealed({0x00, 0x00, 0x7F, 0xEE, 0xD6, 0x01, 0x00, 0x05, 0x00, 0x04}),
         VCPReply{.current = 4, .max = 5}},
        {"maximum 0", sealed({0x6E, 0x88, 0x02, 0x00, 0x10, 0x00, 0x00, 0x00, 0x00, 0x32}), VCPReply{50, 0}},
        // Twelve bytes: the twelfth is the checksum over the first eleven.
        {"valid reply + its checksum again", Bytes{0x6E, 0x88, 0x02, 0x00, 0x10, 0x00, 0x00, 0x64, 0x00, 0x32, 0xF2, 0xF2}, std::nullopt},
        {"valid reply + 0x00 (its fold)", sealed(canonicalReply), VCPReply{.current = 50, .max = 100}},
        {"twelve sealed", sealed({0x6E, 0x89, 0x02, 0x00, 0x10, 0x00, 0x01, 0x90, 0x00, 0xC8, 0x5A}),
         VCPReply{.current = 200, .max = 400}},
    };
    for (const auto& [what, reply, expected] : cases) {
        SCOPED_TRACE(what);
        EXPECT_EQ(DDC::parseGetVCPReply(reply), expected);
    }
    for (std::size_t i = 0; i < canonicalReply.size(); ++i) {
        Bytes reply = canonicalReply;
        reply[i] ^= 0x01;
        EXPECT_FALSE(DDC::parseGetVCPReply(reply)) << "byte " << i;
    }
    // Short replies, even when their fold holds: the first size - 1 bytes of a valid reply, sealed, in an exact-size
    // heap copy, so that a read past its end is caught by AddressSanitizer.
    for (std::size_t size = 0; size < 11; ++size) {
        const Bytes reply = size == 0 ? Bytes{} : sealed(Bytes(&canonicalReply[0], &canonicalReply[size - 1]));
        auto exact = std::make_unique<std::uint8_t[]>(size);
        std::copy(reply.begin(), reply.end(), exact.get());
        EXPECT_FALSE(DDC::parseGetVCPReply(std::span<const std::uint8_t>(exact.get(), size))) << size << " bytes";
    }
}

TEST(VCPCodes, OnlyTheKnownRawValuesAreFound)
{
    for (int raw = 0; raw < 256; ++raw) {
        const auto code = VCPCode::fromRawValue(std::uint8_t(raw));
        const auto mode = VCPCode::powerModeFromRawValue(std::uint8_t(raw));
        const bool known = raw == 0x10 || raw == 0x12 || raw == 0x62 || raw == 0xD6;
        EXPECT_EQ(code ? int(code->rawValue()) : -1, known ? raw : -1);
        EXPECT_EQ(mode ? int(rawValue(*mode)) : -1, raw == 1 || raw == 4 || raw == 5 ? raw : -1);
    }
}
