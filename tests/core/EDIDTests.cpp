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
    Bytes b = block({{54, 0xFC, "TIMING"}, {90, 0xFC, "DELL U2720Q\n "}});
    b[54] = 0x4D;  // a detailed timing whose byte 3 happens to be FC: its pixel clock is not 0
    b[55] = 0xD0;
    const EDIDIdentity expected{0x10AC, 0xA0C4, 0xF2345678, "DELL U2720Q", "10ACC4A0-7856-34F2-0A1E-0104B53C2278"};
    EXPECT_EQ(EDID::parse(b), expected);
    b[127] ^= 0x5A;                   // another wrong checksum
    b.insert(b.end(), 128, 0xFC);     // and an extension block
    EXPECT_EQ(EDID::parse(b), expected);
}

TEST(EDID, MonitorNameIsTheFirstNameDescriptorsPrintableText)
{
    const struct {
        const char* what;
        Bytes blob;
        std::string name;
    } cases[] = {
        {"slot 54", block({{54, 0xFC, "SLOT\n"}}), "SLOT"},
        {"slot 72", block({{72, 0xFC, "SLOT\n"}}), "SLOT"},
        {"slot 108", block({{108, 0xFC, "SLOT\n"}}), "SLOT"},
        {"first of two", block({{72, 0xFC, "FIRST\n"}, {108, 0xFC, "LAST\n"}}), "FIRST"},
        {"other text descriptor", block({{90, 0xFE, "LG ULTRAFINE\n"}}), ""},
        {"no descriptor", block({}), ""},
        {"pixel clock low byte set", withByte(block({{54, 0xFC, "TIMING\n"}}), 54, 1), ""},
        {"pixel clock high byte set", withByte(block({{54, 0xFC, "TIMING\n"}}), 55, 1), ""},
        {"thirteen characters, no line feed", block({{90, 0xFC, "ABCDEFGHIJKLM"}}), "ABCDEFGHIJKLM"},
        {"ends at line feed, trailing blanks go", block({{90, 0xFC, "HP Z27   \nXYZ"}}), "HP Z27"},
        {"leading blanks stay", block({{90, 0xFC, "  LEAD SPACE\n"}}), "  LEAD SPACE"},
        {"line feed first", block({{90, 0xFC, "\nNAME"}}), ""},
        {"only printable ASCII", block({{90, 0xFC, std::string("AB\0C\xE9\x7F" "D\t\n", 9)}}), "ABCD"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.what);
        EXPECT_EQ(EDID::parse(c.blob).productName, c.name);
    }
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
              (EDIDIdentity{0xFFFF, 0xFFFF, 0xFFFFFFFF, "", "FFFFFFFF-FFFF-FFFF-FFFF-FFFFFFFFFFFF"}));
}
