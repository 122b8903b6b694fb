// SPDX-License-Identifier: GPL-3.0-or-later
// A display's identity from its EDID base block.

#include <gtest/gtest.h>

#include <iterator>
#include <memory>
#include <tuple>
#include <vector>

#include "LumoraCore/EDID.h"

using namespace Lumora;
using Bytes = std::vector<std::uint8_t>;

namespace {

// A base block of a 27-inch monitor: vendor 10 AC, product code C4 A0 (low byte first), serial 0xF2345678 (low
// byte first), then the given display descriptors (slot offset, tag, text from byte 5, blank-padded). Every other
// byte is 0, the block checksum included: real panels ship wrong ones.
Bytes block(const std::vector<std::tuple<std::size_t, std::uint8_t, std::string>>& descriptors)
{
    const std::uint8_t head[] = {0x00, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0x00, 0x10, 0xAC, 0xC4, 0xA0,
                                 0x78, 0x56, 0x34, 0xF2, 0x0A, 0x1E, 0x01, 0x04, 0xB5, 0x3C, 0x22, 0x78};
    Bytes b(128, 0x00);
    std::copy(std::begin(head), std::end(head), b.begin());
    for (const auto& [offset, tag, text] : descriptors) {
        b[offset + 3] = tag;
        std::fill(b.begin() + long(offset) + 5, b.begin() + long(offset) + 18, ' ');
        std::copy(text.begin(), text.end(), b.begin() + long(offset) + 5);
    }
    return b;
}

Bytes withByte(Bytes b, std::size_t index, std::uint8_t value)
{
    b[index] = value;
    return b;
}

}  // namespace

TEST(EDID, IdentityOfAMonitor)
{
    Bytes b = block({{54, 0xFC, "TIMING"}, {72, 0xFF, "5KC0123R0ABL\n"}, {90, 0xFC, "DELL U2720Q\n "}});
    b[54] = 0x4D;  // a detailed timing whose byte 3 happens to be FC: its pixel clock is not 0
    b[55] = 0xD0;
    const EDIDIdentity expected{
        0x10AC, 0xA0C4, 0xF2345678, "DELL U2720Q", "10ACC4A0-7856-34F2-0A1E-0104B53C2278", "5KC0123R0ABL"};
    EXPECT_EQ(EDID::parse(b), expected);
    b[127] ^= 0x5A;                   // another wrong checksum
    b.insert(b.end(), 128, 0xFC);     // and an extension block
    EXPECT_EQ(EDID::parse(b), expected);
}

TEST(EDID, MonitorNameIsEveryNameDescriptorsTextJoined)
{
    const std::string junk("\x02\xb7\x46\x5a\x01\x03\x0c\x11\x50\xa0\x0f\x13\x21", 13);
    const struct {
        const char* what;
        Bytes blob;
        std::string name;
    } cases[] = {
        {"slot 54", block({{54, 0xFC, "SLOT\n"}}), "SLOT"},
        {"other text descriptor", block({{90, 0xFE, "LG ULTRAFINE\n"}}), ""},
        {"pixel clock low byte set", withByte(block({{54, 0xFC, "TIMING\n"}}), 54, 1), ""},
        {"thirteen characters, no line feed", block({{90, 0xFC, "ABCDEFGHIJKLM"}}), "ABCDEFGHIJKLM"},
        {"ends at line feed, trailing blanks go", block({{90, 0xFC, "HP Z27   \nXYZ"}}), "HP Z27"},
        // Real monitors' EDIDs.
        {"two blank ones before the name", block({{54, 0xFC, "\n"}, {72, 0xFC, "\n"}, {90, 0xFC, "M176A\n"}}),
         "M176A"},
        {"junk before the name", block({{72, 0xFC, junk}, {90, 0xFC, "HSD150PX17-A\n"}}), "HSD150PX17-A"},
        {"a long name split in two", block({{90, 0xFC, "Gateway FPD17"}, {108, 0xFC, "30\n"}}), "Gateway FPD1730"},
        {"split at a blank, which stays", block({{90, 0xFC, "Apple Cinema "}, {108, 0xFC, "Display\n"}}),
         "Apple Cinema Display"},
        {"split around another descriptor", block({{54, 0xFC, "Gateway FPD17"}, {72, 0xFF, "SN\n"}, {108, 0xFC, "30\n"}}),
         "Gateway FPD1730"},
        {"NUL inside reads as a blank", block({{90, 0xFC, std::string("BT156GW01\0V.3", 13)}}), "BT156GW01 V.3"},
        {"0xFF padding", block({{90, 0xFC, "ASUS VW192S\xff\xff"}}), "ASUS VW192S"},
        {"leading blank", block({{90, 0xFC, " N19W\n"}}), "N19W"},
        {"a tab and a DEL: junk", block({{90, 0xFC, "AB\tC\x7F\n"}}), ""},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.what);
        EXPECT_EQ(EDID::parse(c.blob).productName, c.name);
    }
    // The serial-number descriptor is read the same way, and neither is taken for the other.
    const Bytes both = block({{72, 0xFF, "  SN 42\n"}, {90, 0xFC, "NAME\n"}});
    EXPECT_EQ(EDID::parse(both).serialText, "  SN 42");
    EXPECT_EQ(EDID::parse(both).productName, "NAME");
    EXPECT_EQ(EDID::parse(block({{90, 0xFC, "NAME\n"}})).serialText, "");
}

TEST(EDID, ShortOrHeaderlessBlobsGiveNothingAndAllOnesGiveTheirBytes)
{
    const Bytes full = block({{90, 0xFC, "DELL\n"}});
    for (std::size_t size : {0u, 8u, 127u}) {
        auto exact = std::make_unique<std::uint8_t[]>(size);  // a read past its end is caught by AddressSanitizer
        std::copy(full.begin(), full.begin() + long(size), exact.get());
        EXPECT_EQ(EDID::parse(std::span<const std::uint8_t>(exact.get(), size)), EDIDIdentity{}) << size;
    }
    for (std::size_t i = 0; i < 8; ++i)
        EXPECT_EQ(EDID::parse(withByte(full, i, full[i] ^ 0x01)), EDIDIdentity{}) << "header byte " << i;

    Bytes ones(128, 0xFF);
    ones[0] = ones[7] = 0x00;
    EXPECT_EQ(EDID::parse(ones),
              (EDIDIdentity{0xFFFF, 0xFFFF, 0xFFFFFFFF, "", "FFFFFFFF-FFFF-FFFF-FFFF-FFFFFFFFFFFF", ""}));
}

namespace {

// A base block with a right checksum.
Bytes checked(Bytes b)
{
    unsigned sum = 0;
    for (std::size_t i = 0; i < 127; ++i)
        sum += b[i];
    b[127] = static_cast<std::uint8_t>((256 - sum % 256) % 256);
    return b;
}

// What two reads of 128 bytes return from a 256-byte EEPROM whose address stood at `at`.
Bytes readFrom(const Bytes& eeprom, std::size_t at)
{
    Bytes out;
    for (std::size_t i = 0; i < 256; ++i)
        out.push_back(eeprom[(at + i) % eeprom.size()]);
    return out;
}

}  // namespace

TEST(EDID, TheBaseBlockIsFoundInWhateverRotationTheEEPROMAnswers)
{
    const Bytes base = checked(block({{108, 0xFC, "DELL U2720Q\n"}}));
    Bytes erased = base;  // a 256-byte EEPROM holding one block, the rest erased
    erased.insert(erased.end(), 128, 0xFF);
    Bytes extended = base;  // a block and a CTA extension
    Bytes cta = checked(Bytes(128, 0x00));
    cta[0] = 0x02;
    cta[1] = 0x03;
    extended.insert(extended.end(), cta.begin(), cta.end());
    Bytes fakeHeader = erased;  // the erased half holds a header whose block does not add up
    std::copy(base.begin(), base.begin() + 8, fakeHeader.begin() + 140);
    fakeHeader[150] = 0x42;

    const struct {
        const char* what;
        Bytes eeprom;
    } eeproms[] = {
        {"256 bytes, second half erased", erased},
        {"128 bytes, read round twice", base},
        {"base block and extension", extended},
        {"a header with a bad block before the real one", fakeHeader},
    };
    for (const auto& e : eeproms) {
        for (std::size_t at : {0u, 1u, 3u, 56u, 127u, 128u, 141u, 200u, 255u}) {
            SCOPED_TRACE(std::string(e.what) + ", address at " + std::to_string(at));
            const auto found = EDID::baseBlockInRotation(readFrom(e.eeprom, at));
            ASSERT_TRUE(found.has_value());
            EXPECT_EQ(Bytes(found->begin(), found->end()), base);
        }
    }
}

TEST(EDID, NoBaseBlockInJunkABadChecksumOrTooFewBytes)
{
    const Bytes base = checked(block({}));
    Bytes badSum = base;
    badSum[127] ^= 0x01;
    badSum.insert(badSum.end(), 128, 0xFF);
    Bytes headerOnly(256, 0xFF);
    std::copy(base.begin(), base.begin() + 8, headerOnly.begin() + 30);
    const struct {
        const char* what;
        Bytes bytes;
    } cases[] = {
        {"bad checksum", readFrom(badSum, 77)},
        {"a header and erased bytes", headerOnly},
        {"all ones", Bytes(256, 0xFF)},
        {"127 bytes of a good block", Bytes(base.begin(), base.begin() + 127)},
        {"nothing", {}},
    };
    for (const auto& c : cases)
        EXPECT_FALSE(EDID::baseBlockInRotation(c.bytes).has_value()) << c.what;
}
