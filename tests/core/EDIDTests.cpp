#include <gtest/gtest.h>

#include <array>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "LumoraCore/EDID.h"

using namespace Lumora;
using Bytes = std::vector<std::uint8_t>;

namespace {

// An EDID 1.4 base block as a 27-inch monitor would send it: vendor 10 AC, product code C4 A0 (stored low byte
// first), no serial number, made in week 10 of 2020; a detailed timing, then a serial-string, a monitor-name and
// a range-limits descriptor. The block checksum is correct.
Bytes monitorBlock()
{
    Bytes b(128, 0x00);
    const std::array<std::uint8_t, 24> start{0x00, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0x00,  //
                                             0x10, 0xAC, 0xC4, 0xA0, 0x00, 0x00, 0x00, 0x00,  //
                                             0x0A, 0x1E, 0x01, 0x04, 0xB5, 0x3C, 0x22, 0x78};
    std::copy(start.begin(), start.end(), b.begin());
    const std::array<std::uint8_t, 18> timing{0x4D, 0xD0, 0x00, 0xA0, 0xF0, 0x70, 0x3E, 0x80, 0x30,
                                              0x20, 0x35, 0x00, 0x55, 0x50, 0x21, 0x00, 0x00, 0x1A};
    std::copy(timing.begin(), timing.end(), b.begin() + 54);
    const std::string serialText = "7QKZ123\n     ";
    const std::string nameText = "DELL U2720Q\n ";
    b[72 + 3] = 0xFF;
    std::copy(serialText.begin(), serialText.end(), b.begin() + 72 + 5);
    b[90 + 3] = 0xFC;
    std::copy(nameText.begin(), nameText.end(), b.begin() + 90 + 5);
    const std::array<std::uint8_t, 13> range{0x18, 0x4B, 0x1E, 0x8C, 0x3C, 0x00, 0x0A,
                                             0x20, 0x20, 0x20, 0x20, 0x20, 0x20};
    b[108 + 3] = 0xFD;
    std::copy(range.begin(), range.end(), b.begin() + 108 + 5);
    b[126] = 0x01;  // one extension block follows
    std::uint8_t sum = 0;
    for (std::size_t i = 0; i < 127; ++i)
        sum = static_cast<std::uint8_t>(sum + b[i]);
    b[127] = static_cast<std::uint8_t>(0x100 - sum);
    return b;
}

// Writes a display descriptor with the given tag and text (bytes 5 to 17) at one of the four descriptor slots.
void putDescriptor(Bytes& b, std::size_t offset, std::uint8_t tag, const std::string& text)
{
    std::fill(b.begin() + static_cast<std::ptrdiff_t>(offset), b.begin() + static_cast<std::ptrdiff_t>(offset + 18), 0);
    b[offset + 3] = tag;
    std::fill(b.begin() + static_cast<std::ptrdiff_t>(offset + 5), b.begin() + static_cast<std::ptrdiff_t>(offset + 18), ' ');
    std::copy(text.begin(), text.end(), b.begin() + static_cast<std::ptrdiff_t>(offset + 5));
}

}  // namespace

// ---- identity ------------------------------------------------------------------------------------------------

TEST(EDIDParsing, IdentityOfAMonitor)
{
    const EDIDIdentity id = EDID::parse(monitorBlock());
    EXPECT_EQ(id.vendor, 0x10ACu);
    EXPECT_EQ(id.model, 0xA0C4u);
    EXPECT_EQ(id.serial, 0u);
    EXPECT_EQ(id.productName, "DELL U2720Q");
    EXPECT_EQ(id.identityUUID, "10ACC4A0-0000-0000-0A1E-0104B53C2278");
}

TEST(EDIDParsing, NumbersHaveTheirOwnByteOrders)
{
    Bytes b = monitorBlock();
    b[8] = 0x4C;  // vendor big-endian: 4C 2D -> 0x4C2D
    b[9] = 0x2D;
    b[10] = 0x34;  // model little-endian: 34 12 -> 0x1234
    b[11] = 0x12;
    b[12] = 0x78;  // serial little-endian: 78 56 34 F2 -> 0xF2345678
    b[13] = 0x56;
    b[14] = 0x34;
    b[15] = 0xF2;
    const EDIDIdentity id = EDID::parse(b);
    EXPECT_EQ(id.vendor, 0x4C2Du);
    EXPECT_EQ(id.model, 0x1234u);
    EXPECT_EQ(id.serial, 0xF2345678u);
    EXPECT_EQ(id.identityUUID, "4C2D3412-7856-34F2-0A1E-0104B53C2278");
}

TEST(EDIDParsing, UUIDIsUpperCaseHexOfBytesEightToTwentyThree)
{
    Bytes b = monitorBlock();
    for (std::size_t i = 8; i < 24; ++i)
        b[i] = static_cast<std::uint8_t>(0xA0 + (i - 8));  // A0 A1 ... AF
    b[24] = 0xEE;  // just outside the range
    EXPECT_EQ(EDID::parse(b).identityUUID, "A0A1A2A3-A4A5-A6A7-A8A9-AAABACADAEAF");
}

TEST(EDIDParsing, BadBlockChecksumIsAccepted)
{
    Bytes b = monitorBlock();
    b[127] ^= 0x5A;
    EXPECT_EQ(EDID::parse(b), EDID::parse(monitorBlock()));
    EXPECT_EQ(EDID::parse(b).vendor, 0x10ACu);
}

TEST(EDIDParsing, ExtensionBlocksAreIgnored)
{
    Bytes b = monitorBlock();
    Bytes extension(128, 0xFC);
    b.insert(b.end(), extension.begin(), extension.end());
    EXPECT_EQ(EDID::parse(b), EDID::parse(monitorBlock()));
}

// ---- monitor name --------------------------------------------------------------------------------------------

TEST(EDIDMonitorName, FoundInAnyOfTheFourSlots)
{
    for (std::size_t offset : {54u, 72u, 90u, 108u}) {
        Bytes b = monitorBlock();
        putDescriptor(b, 90, 0xFE, "not a name\n");  // take the block's own name away
        putDescriptor(b, offset, 0xFC, "SLOT\n");
        EXPECT_EQ(EDID::parse(b).productName, "SLOT") << "offset " << offset;
    }
}

TEST(EDIDMonitorName, NoNameDescriptorGivesEmptyName)
{
    Bytes b = monitorBlock();
    putDescriptor(b, 90, 0xFE, "LG ULTRAFINE\n");  // unspecified text, not a name
    const EDIDIdentity id = EDID::parse(b);
    EXPECT_EQ(id.productName, "");
    EXPECT_EQ(id.vendor, 0x10ACu);
}

TEST(EDIDMonitorName, TimingWithTagByteIsNotADescriptor)
{
    Bytes b = monitorBlock();
    putDescriptor(b, 90, 0xFE, "x\n");
    putDescriptor(b, 54, 0xFC, "TIMING\n");
    b[54] = 0x01;  // non-zero pixel clock: a detailed timing whose byte 3 happens to be FC
    EXPECT_EQ(EDID::parse(b).productName, "");
    b[54] = 0x00;
    b[55] = 0x01;
    EXPECT_EQ(EDID::parse(b).productName, "");
    b[55] = 0x00;
    EXPECT_EQ(EDID::parse(b).productName, "TIMING");
}

TEST(EDIDMonitorName, FirstNameDescriptorWins)
{
    Bytes b = monitorBlock();
    putDescriptor(b, 72, 0xFC, "FIRST\n");
    putDescriptor(b, 108, 0xFC, "LAST\n");
    EXPECT_EQ(EDID::parse(b).productName, "FIRST");
}

TEST(EDIDMonitorName, ThirteenCharactersWithoutLineFeed)
{
    Bytes b = monitorBlock();
    putDescriptor(b, 90, 0xFC, "ABCDEFGHIJKLM");
    b[108 + 0] = 'Z';  // the byte after the text field belongs to the next descriptor
    EXPECT_EQ(EDID::parse(b).productName, "ABCDEFGHIJKLM");
}

TEST(EDIDMonitorName, EndsAtLineFeedAndTrailingBlanksGo)
{
    Bytes b = monitorBlock();
    putDescriptor(b, 90, 0xFC, "HP Z27   \nXYZ");
    EXPECT_EQ(EDID::parse(b).productName, "HP Z27");
    putDescriptor(b, 90, 0xFC, "  LEAD SPACE\n");
    EXPECT_EQ(EDID::parse(b).productName, "  LEAD SPACE");
    putDescriptor(b, 90, 0xFC, "\n");
    EXPECT_EQ(EDID::parse(b).productName, "");
}

TEST(EDIDMonitorName, OnlyPrintableASCIIIsKept)
{
    Bytes b = monitorBlock();
    putDescriptor(b, 90, 0xFC, "AB");
    b[90 + 7] = 0x00;
    b[90 + 8] = 'C';
    b[90 + 9] = 0xE9;
    b[90 + 10] = 0x7F;
    b[90 + 11] = 'D';
    b[90 + 12] = 0x09;
    b[90 + 13] = 0x0A;
    EXPECT_EQ(EDID::parse(b).productName, "ABCD");
}

// ---- truncated and garbage -----------------------------------------------------------------------------------

TEST(EDIDGarbage, ShorterThanABlockGivesNothing)
{
    const Bytes full = monitorBlock();
    for (std::size_t size : {0u, 8u, 24u, 100u, 127u}) {
        // Exact-size heap copy: a read beyond the end is caught by AddressSanitizer.
        auto exact = std::make_unique<std::uint8_t[]>(size == 0 ? 1 : size);
        std::copy(full.begin(), full.begin() + static_cast<std::ptrdiff_t>(size), exact.get());
        EXPECT_EQ(EDID::parse(std::span<const std::uint8_t>(exact.get(), size)), EDIDIdentity{}) << size;
    }
}

TEST(EDIDGarbage, AnyWrongHeaderByteGivesNothing)
{
    for (std::size_t i = 0; i < 8; ++i) {
        Bytes b = monitorBlock();
        b[i] ^= 0x01;
        EXPECT_EQ(EDID::parse(b), EDIDIdentity{}) << "header byte " << i;
    }
}

TEST(EDIDGarbage, HeaderAloneIsEnoughForAnIdentity)
{
    Bytes b(128, 0x00);
    const std::array<std::uint8_t, 8> header{0x00, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0x00};
    std::copy(header.begin(), header.end(), b.begin());
    const EDIDIdentity id = EDID::parse(b);
    EXPECT_EQ(id.vendor, 0u);
    EXPECT_EQ(id.productName, "");
    EXPECT_EQ(id.identityUUID, "00000000-0000-0000-0000-000000000000");
}

TEST(EDIDGarbage, AllOnesBlockWithHeader)
{
    Bytes b(128, 0xFF);
    b[0] = 0x00;
    b[7] = 0x00;
    const EDIDIdentity id = EDID::parse(b);
    EXPECT_EQ(id.vendor, 0xFFFFu);
    EXPECT_EQ(id.model, 0xFFFFu);
    EXPECT_EQ(id.serial, 0xFFFFFFFFu);
    EXPECT_EQ(id.productName, "");
    EXPECT_EQ(id.identityUUID, "FFFFFFFF-FFFF-FFFF-FFFF-FFFFFFFFFFFF");
}
