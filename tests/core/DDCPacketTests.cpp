#include <gtest/gtest.h>

#include <cstdint>
#include <memory>
#include <vector>

#include "LumoraCore/DDCPacket.h"

using namespace Lumora;
using Bytes = std::vector<std::uint8_t>;

// ---- requests ------------------------------------------------------------------------------------------------

TEST(DDCRequests, GetVCPRequestForEveryCode)
{
    EXPECT_EQ(DDC::getVCPRequest(VCPCode::brightness), (Bytes{0x82, 0x01, 0x10, 0xAC}));
    EXPECT_EQ(DDC::getVCPRequest(VCPCode::powerMode), (Bytes{0x82, 0x01, 0xD6, 0x6A}));
    EXPECT_EQ(DDC::getVCPRequest(VCPCode::contrast), (Bytes{0x82, 0x01, 0x12, 0xAE}));
    EXPECT_EQ(DDC::getVCPRequest(VCPCode::audioVolume), (Bytes{0x82, 0x01, 0x62, 0xDE}));
}

TEST(DDCRequests, SetVCPRequestSendsValueHighByteFirst)
{
    EXPECT_EQ(DDC::setVCPRequest(VCPCode::brightness, 50), (Bytes{0x84, 0x03, 0x10, 0x00, 0x32, 0x9A}));
    EXPECT_EQ(DDC::setVCPRequest(VCPCode::brightness, 300), (Bytes{0x84, 0x03, 0x10, 0x01, 0x2C, 0x85}));
}

TEST(DDCRequests, SetVCPRequestForPowerModes)
{
    EXPECT_EQ(DDC::setVCPRequest(VCPCode::powerMode, rawValue(VCPCode::PowerMode::on)),
              (Bytes{0x84, 0x03, 0xD6, 0x00, 0x01, 0x6F}));
    EXPECT_EQ(DDC::setVCPRequest(VCPCode::powerMode, rawValue(VCPCode::PowerMode::standby)),
              (Bytes{0x84, 0x03, 0xD6, 0x00, 0x04, 0x6A}));
}

TEST(DDCRequests, SetVCPRequestAtTheEndsOfTheValueRange)
{
    // 0x3F ^ 0x84 ^ 0x03 ^ 0x10 = 0xA8; both value bytes 0xFF cancel out, both 0x00 leave it.
    EXPECT_EQ(DDC::setVCPRequest(VCPCode::brightness, 0), (Bytes{0x84, 0x03, 0x10, 0x00, 0x00, 0xA8}));
    EXPECT_EQ(DDC::setVCPRequest(VCPCode::brightness, 0xFFFF), (Bytes{0x84, 0x03, 0x10, 0xFF, 0xFF, 0xA8}));
    EXPECT_EQ(DDC::setVCPRequest(VCPCode::brightness, 0xFF00), (Bytes{0x84, 0x03, 0x10, 0xFF, 0x00, 0x57}));
}

TEST(DDCRequests, EveryRequestFoldsToZeroWithTheMonitorAndHostAddresses)
{
    // On the bus a request is preceded by 0x6E (chip address << 1) and 0x51; DDC/CI wants the xor of all of it,
    // checksum included, to be 0.
    for (const Bytes& request : {DDC::getVCPRequest(VCPCode::brightness), DDC::setVCPRequest(VCPCode::contrast, 0x1234),
                                 DDC::setVCPRequest(VCPCode::audioVolume, 7)}) {
        std::uint8_t fold = static_cast<std::uint8_t>(DDC::chipAddress << 1) ^ DDC::dataAddress;
        for (std::uint8_t b : request)
            fold ^= b;
        EXPECT_EQ(fold, 0);
    }
}

TEST(DDCChecksum, EmptySequenceYieldsTheSeed)
{
    EXPECT_EQ(DDC::checksum(0x3F, {}), 0x3F);
    EXPECT_EQ(DDC::checksum(0x50, {}), 0x50);
}

TEST(DDCChecksum, FoldsSeedAndEveryByte)
{
    const Bytes bytes{0x01, 0x02, 0x04, 0x80};
    EXPECT_EQ(DDC::checksum(0x00, bytes), 0x87);
    EXPECT_EQ(DDC::checksum(0xFF, bytes), 0x78);
}

// ---- reply validation ----------------------------------------------------------------------------------------

namespace {

const Bytes canonicalReply{0x6E, 0x88, 0x02, 0x00, 0x10, 0x00, 0x00, 0x64, 0x00, 0x32, 0xF2};

// Appends the byte that makes the reply's fold (seeded with the host's virtual address 0x50) come out right.
Bytes sealed(Bytes body)
{
    std::uint8_t fold = 0x50;
    for (std::uint8_t b : body)
        fold ^= b;
    body.push_back(fold);
    return body;
}

}  // namespace

TEST(DDCReplyValidation, CanonicalReplyGivesCurrentAndMaximum)
{
    EXPECT_EQ(DDC::parseGetVCPReply(canonicalReply), (VCPReply{.current = 50, .max = 100}));
}

TEST(DDCReplyValidation, MaximumIsBytesSixAndSevenCurrentIsEightAndNine)
{
    const auto reply = DDC::parseGetVCPReply(sealed({0x6E, 0x88, 0x02, 0x00, 0x10, 0x00, 0x12, 0x34, 0xAB, 0xCD}));
    ASSERT_TRUE(reply);
    EXPECT_EQ(reply->max, 0x1234);
    EXPECT_EQ(reply->current, 0xABCD);
}

TEST(DDCReplyValidation, AnyChangedLastByteIsRejected)
{
    for (int last = 0; last < 256; ++last) {
        if (last == 0xF2)
            continue;
        Bytes reply = canonicalReply;
        reply.back() = static_cast<std::uint8_t>(last);
        EXPECT_FALSE(DDC::parseGetVCPReply(reply)) << "last byte " << last;
    }
}

TEST(DDCReplyValidation, AChangedByteAnywhereBeforeTheChecksumIsRejected)
{
    for (std::size_t i = 0; i + 1 < canonicalReply.size(); ++i) {
        Bytes reply = canonicalReply;
        reply[i] ^= 0x01;
        EXPECT_FALSE(DDC::parseGetVCPReply(reply)) << "byte " << i;
    }
}

TEST(DDCReplyValidation, ShortRepliesAreRejectedWithoutReadingPastTheirEnd)
{
    // Exact-size heap copies: a read beyond the end is caught by AddressSanitizer.
    for (std::size_t size = 0; size < 11; ++size) {
        auto exact = std::make_unique<std::uint8_t[]>(size == 0 ? 1 : size);
        for (std::size_t i = 0; i < size; ++i)
            exact[i] = canonicalReply[i];
        EXPECT_FALSE(DDC::parseGetVCPReply(std::span<const std::uint8_t>(exact.get(), size))) << size << " bytes";
    }
}

TEST(DDCReplyValidation, ShortRepliesAreRejectedEvenWhenTheirFoldHolds)
{
    for (std::size_t size = 1; size < 11; ++size) {
        const Bytes reply = sealed(Bytes(canonicalReply.begin(), canonicalReply.begin() + static_cast<std::ptrdiff_t>(size - 1)));
        ASSERT_EQ(reply.size(), size);
        EXPECT_FALSE(DDC::parseGetVCPReply(reply)) << size << " bytes";
    }
}

TEST(DDCReplyValidation, ElevenZeroBytesAreRejected)
{
    EXPECT_FALSE(DDC::parseGetVCPReply(Bytes(11, 0x00)));
}

TEST(DDCReplyValidation, HeaderBytesAreNotExamined)
{
    // Unsupported-code result, wrong opcode, wrong echoed code, odd length byte: accepted while the fold holds.
    const auto unsupported = DDC::parseGetVCPReply(sealed({0x6E, 0x88, 0x02, 0x01, 0x10, 0x00, 0x00, 0x64, 0x00, 0x0A}));
    EXPECT_EQ(unsupported, (VCPReply{.current = 10, .max = 100}));
    const auto odd = DDC::parseGetVCPReply(sealed({0x00, 0x00, 0x7F, 0xEE, 0xD6, 0x01, 0x00, 0x05, 0x00, 0x04}));
    EXPECT_EQ(odd, (VCPReply{.current = 4, .max = 5}));
}

TEST(DDCReplyValidation, MaximumOfZeroIsReturnedAsZero)
{
    const auto reply = DDC::parseGetVCPReply(sealed({0x6E, 0x88, 0x02, 0x00, 0x10, 0x00, 0x00, 0x00, 0x00, 0x32}));
    EXPECT_EQ(reply, (VCPReply{.current = 50, .max = 0}));
}

TEST(DDCReplyValidation, LongerArrayIsCheckedAgainstItsOwnLastByte)
{
    // A valid 11-byte reply followed by one more byte: the twelfth byte is now the checksum. The fold over a
    // valid reply including its checksum is 0, so a trailing 0x00 passes and anything else fails.
    Bytes withTrailer = canonicalReply;
    withTrailer.push_back(0xF2);
    EXPECT_FALSE(DDC::parseGetVCPReply(withTrailer));
    withTrailer.back() = 0x00;
    EXPECT_EQ(DDC::parseGetVCPReply(withTrailer), (VCPReply{.current = 50, .max = 100}));

    // Twelve bytes whose fold over the first eleven equals the twelfth: accepted, values from indexes 6 to 9,
    // although byte 10 is not a checksum at all.
    const Bytes twelve = sealed({0x6E, 0x89, 0x02, 0x00, 0x10, 0x00, 0x01, 0x90, 0x00, 0xC8, 0x5A});
    ASSERT_EQ(twelve.size(), 12u);
    EXPECT_EQ(DDC::parseGetVCPReply(twelve), (VCPReply{.current = 200, .max = 400}));
}

TEST(DDCReplyValidation, VeryLongArrayStillReadsValuesFromIndexesSixToNine)
{
    Bytes body{0x6E, 0x88, 0x02, 0x00, 0x10, 0x00, 0x00, 0x64, 0x00, 0x21};
    body.resize(40, 0x5A);
    EXPECT_EQ(DDC::parseGetVCPReply(sealed(body)), (VCPReply{.current = 0x21, .max = 100}));
}
