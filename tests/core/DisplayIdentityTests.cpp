// SPDX-License-Identifier: GPL-3.0-or-later
// Which monitor is which: its identity from the EDID, which DDC channel serves it, which adapters can be channels
// at all, and which window-system screen shows it (by output name, else by identity, never by guessing).

#include <gtest/gtest.h>

#include <iterator>
#include <memory>
#include <tuple>
#include <vector>

#include "LumoraCore/DisplayBusName.h"
#include "LumoraCore/DisplayPairing.h"
#include "LumoraCore/EDID.h"
#include "LumoraCore/ScreenMatching.h"

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

// The block with a right checksum.
Bytes checked(Bytes b)
{
    unsigned sum = 0;
    for (std::size_t i = 0; i < 127; ++i)
        sum += b[i];
    return withByte(b, 127, static_cast<std::uint8_t>((256 - sum % 256) % 256));
}

// What two reads of 128 bytes return from a 256-byte EEPROM whose address stood at `at`.
Bytes readFrom(const Bytes& eeprom, std::size_t at)
{
    Bytes out;
    for (std::size_t i = 0; i < 256; ++i)
        out.push_back(eeprom[(at + i) % eeprom.size()]);
    return out;
}

const std::string dellUUID = "10ACC4A0-0000-0000-0A1E-0104B53C2278";
ExternalDisplayIdentity dell(std::uint32_t id, std::uint32_t serial = 0) { return {id, 0x10AC, 0xA0C4, serial}; }
ServiceIdentity service(std::string uuid, std::int64_t serial = 0) { return {std::move(uuid), "", serial}; }
// Identical monitors as they ship: binary serial 01 01 01 01, base blocks told apart by the serial-number string.
ExternalDisplayIdentity twin(std::uint32_t id, const std::string& serialText)
{
    return {id, 0x10AC, 0xA0C4, 0x01010101, block({{72, 0xFF, serialText + "\n"}})};
}
ServiceIdentity twinChannel(const std::string& serialText)
{
    return {"10ACC4A0-0101-0101-0A1E-0104B53C2278", "DELL P2419H", 0x01010101, block({{72, 0xFF, serialText + "\n"}})};
}

EDIDIdentity monitor(const std::string& name, std::uint32_t serial = 0, const std::string& serialText = "")
{
    return {0x10AC, 0, serial, name, "", serialText};
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
        std::string serialText = "";
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
         "Gateway FPD1730", "SN"},
        {"NUL inside reads as a blank", block({{90, 0xFC, std::string("BT156GW01\0V.3", 13)}}), "BT156GW01 V.3"},
        {"0xFF padding", block({{90, 0xFC, "ASUS VW192S\xff\xff"}}), "ASUS VW192S"},
        {"leading blank", block({{90, 0xFC, " N19W\n"}}), "N19W"},
        {"a tab and a DEL: junk", block({{90, 0xFC, "AB\tC\x7F\n"}}), ""},
        {"the serial-number descriptor is read the same way, and neither is taken for the other",
         block({{72, 0xFF, "  SN 42\n"}, {90, 0xFC, "NAME\n"}}), "NAME", "  SN 42"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.what);
        EXPECT_EQ(EDID::parse(c.blob).productName, c.name);
        EXPECT_EQ(EDID::parse(c.blob).serialText, c.serialText);
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
              (EDIDIdentity{0xFFFF, 0xFFFF, 0xFFFFFFFF, "", "FFFFFFFF-FFFF-FFFF-FFFF-FFFFFFFFFFFF", ""}));
}

TEST(EDID, TheBaseBlockIsFoundInWhateverRotationTheEEPROMAnswersAndNowhereElse)
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
    Bytes badSum = withByte(erased, 127, base[127] ^ 0x01);
    Bytes headerOnly(256, 0xFF);
    std::copy(base.begin(), base.begin() + 8, headerOnly.begin() + 30);

    const std::tuple<const char*, Bytes, bool> eeproms[] = {
        {"256 bytes, second half erased", erased, true},
        {"128 bytes, read round twice", base, true},
        {"base block and extension", extended, true},
        {"a header with a bad block before the real one", fakeHeader, true},
        {"bad checksum", badSum, false},
        {"a header and erased bytes", headerOnly, false},
        {"all ones", Bytes(256, 0xFF), false},
    };
    for (const auto& [what, eeprom, hasBlock] : eeproms) {
        for (std::size_t at : {0u, 1u, 3u, 56u, 127u, 128u, 141u, 200u, 255u}) {
            SCOPED_TRACE(std::string(what) + ", address at " + std::to_string(at));
            const auto found = EDID::baseBlockInRotation(readFrom(eeprom, at));
            ASSERT_EQ(found.has_value(), hasBlock);
            if (found) {
                EXPECT_EQ(Bytes(found->begin(), found->end()), base);
            }
        }
    }
    EXPECT_FALSE(EDID::baseBlockInRotation(Bytes(base.begin(), base.begin() + 127)));
    EXPECT_FALSE(EDID::baseBlockInRotation({}));
}

TEST(DisplayPairing, ScoreIsVendorTwoModelTwoSerialOne)
{
    const std::tuple<const char*, ExternalDisplayIdentity, ServiceIdentity, int> cases[] = {
        {"lower-case UUID", dell(2), service("10acc4a0-0000-0000-0a1e-0104b53c2278"), 4},
        {"equal serials", dell(2, 7), service(dellUUID, 7), 5},
        {"other serial", dell(2, 7), service(dellUUID, 8), 4},
        {"serial 0 is unknown", dell(2, 0), service(dellUUID, 0), 4},
        {"serial as unsigned 32 bits", dell(2, 0xFFFFFFFF), service(dellUUID, 4294967295LL), 5},
        {"serial -1", dell(2, 0xFFFFFFFF), service(dellUUID, -1), 4},
        {"model high byte first", dell(2), service("10ACA0C4-0000"), 2},
        {"model's two low bytes", {1, 0, 0xAB0102, 0}, service("FFFF0201"), 2},
        {"seven characters: no model test", dell(2), service("10ACC4A"), 2},
        {"eight characters", dell(2), service("10ACC4A0"), 4},
        {"model alone", dell(2), service("4C2DC4A0-1111"), 2},
        {"vendor zero-padded", {1, 0x0ABC, 0, 0}, service("0ABC"), 2},
        {"vendor not padded on the right", {1, 0x0ABC, 0, 0}, service("ABC0"), 0},
        {"empty UUID, equal serials", dell(2, 7), service("", 7), 0},
    };
    for (const auto& [what, display, channel, points] : cases) {
        SCOPED_TRACE(what);
        EXPECT_EQ(DisplayPairing::score(display, channel), points);
    }
}

// Displays whose connector has a channel of its own keep it; the rest are paired with the unowned channels greedily
// in display order: the best score, on a tie the same base block, else the earlier channel.
TEST(DisplayPairing, OwnChannelsServeTheirDisplaysAndOnlyTheRestArePairedByIdentity)
{
    using Choices = std::vector<DisplayPairing::ChannelChoice>;
    const std::optional<std::size_t> own;
    auto with = [](ExternalDisplayIdentity d) { return ExternalDisplay{d, true}; };
    auto without = [](ExternalDisplayIdentity d) { return ExternalDisplay{d, false}; };
    const ExternalDisplayIdentity lg{9, 0x1E6D, 0x5B09, 0}, stranger{3, 0x4C2D, 0x0E0F, 0};
    const ServiceIdentity lgChannel = service("1E6D095B-0000");
    const std::tuple<const char*, std::vector<ExternalDisplay>, std::vector<ServiceIdentity>, Choices> cases[] = {
        {"identical monitors, the first without a channel: it does not take the second's",
         {without(dell(5)), with(dell(7))}, {}, {{1, own}}},
        {"own channels need no identity", {with(dell(5)), with({6, 0, 0, 0})}, {service("")}, {{0, own}, {1, own}}},
        {"the one left over and the one unowned channel pair whatever their identities",
         {with(dell(5)), without(dell(7))}, {lgChannel}, {{0, own}, {1, 0}}},
        {"no shortcut with two left over", {without(dell(5)), without(lg)}, {service("")}, {}},
        {"no shortcut with two unowned channels", {without(dell(5))}, {service(""), service("")}, {}},
        {"the agreeing one among several", {without(dell(2))},
         {service(""), service("4C2D1234"), service(dellUUID)}, {{0, 2}}},
        {"by identity, whatever the bus order", {without(dell(5)), without(lg)}, {lgChannel, service(dellUUID)},
         {{0, 1}, {1, 0}}},
        {"swapped serials", {without(dell(5, 111)), without(dell(7, 222))},
         {service(dellUUID, 222), service(dellUUID, 111)}, {{0, 1}, {1, 0}}},
        {"earlier display takes what a later matches better", {without({5, 0x10AC, 0x1111, 0}), without(dell(7, 42))},
         {service(dellUUID, 42)}, {{0, 0}}},
        {"no candidate skipped, later ones pair", {without(stranger), without(dell(7))},
         {service(dellUUID), service("")}, {{1, 0}}},
        {"best score over earlier position", {without(dell(5)), without(dell(7))},
         {service("10AC0000"), service(dellUUID)}, {{0, 1}, {1, 0}}},
        {"identical monitors in order", {without(dell(5)), without(dell(7))},
         {service(dellUUID), service(dellUUID)}, {{0, 0}, {1, 1}}},
        {"twins with equal binary serials on reversed buses, each by its base block",
         {without(twin(5, "CFV9N9C")), without(twin(7, "7FV9N9C"))}, {twinChannel("7FV9N9C"), twinChannel("CFV9N9C")},
         {{0, 1}, {1, 0}}},
        {"a twin whose block no channel has: what remains pairs in order",
         {without(twin(5, "CFV9N9C")), without(twin(7, "7FV9N9C"))}, {twinChannel("JJJJJJJ"), twinChannel("CFV9N9C")},
         {{0, 1}, {1, 0}}},
        {"a display with its own channel is no candidate for an unowned one",
         {with(dell(5)), without(lg), without(dell(7))}, {service(dellUUID)}, {{0, own}, {2, 0}}},
        {"nothing left over: unowned channels go unused", {with(lg)}, {lgChannel}, {{0, own}}},
    };
    for (const auto& [what, displays, channels, expected] : cases) {
        SCOPED_TRACE(what);
        EXPECT_EQ(DisplayPairing::assignChannels(displays, channels), expected);
    }
}

TEST(DisplayBusName, DisplayBusesByTheNamesRealDriversGive)
{
    const std::pair<const char*, bool> cases[] = {
        {"DPMST", true}, {"NVIDIA i2c adapter 7 at 1:00.0", true}, {"i915 gmbus dpb", true},
        {"AMDGPU DM i2c hw bus 1", true}, {"AMDGPU DM aux hw bus 0", true}, {"AMDGPU i2c bit bus 0x90", true},
        {"nvkm-0000:01:00.0-bus-0005", true}, {"nvkm-0000:01:00.0-aux-0006", true}, {"Radeon i2c bit bus 0x90", true},
        // Never display buses: the card's own EEPROMs and sensors, SMBus, other devices.
        {"AMDGPU SMU 0", false}, {"NVIDIA GPU I2C adapter", false}, {"SMBus I801 adapter at efa0", false},
        {"Synopsys DesignWare I2C adapter", false},
        {"AUX B/DDI B/PHY B", false},  // a connector's own AUX adapter: found through its connector, not by name
        {"DPMST2", false}, {"dpmst", false}, {"i915 gmbus ", false}, {"NVIDIA i2c adapter", false},
        {"nvkm-0000:01:00.0-bus-", false}, {"nvkm-bus-1", false}, {"", false},
    };
    for (const auto& [name, display] : cases)
        EXPECT_EQ(DisplayBusName::isDisplayBus(name), display) << '"' << name << '"';
}

TEST(ScreenMatching, OutputNamesOfTheWindowSystems)
{
    const std::tuple<const char*, const char*, bool> cases[] = {
        {"DP-1", "DP-1", true},          {"HDMI-A-1", "HDMI-A-1", true},  // KDE, wlroots
        {"HDMI-A-1", "HDMI-1", true},    {"eDP-1", "eDP-1", true},        // Xorg modesetting, GNOME
        {"HDMI-A-2", "HDMI2", true},     {"DP-3", "DP3", true},           // Xorg's Intel driver
        {"eDP-1", "eDP1", true},         {"DVI-D-1", "DVID1", true},
        {"DP-1", "DP-10", false},        {"DP-1", "DP-2", false},         {"HDMI-A-1", "HDMI-A-2", false},
        {"HDMI-B-1", "HDMI-1", false},   {"DP-1", "XWAYLAND0", false},    {"DP-1", "DUMMY0", false},
        {"DP-1", "dp-1", false},         {"DP-1", "", false},             {"", "", false},
        {"HDMI-A-1", "HDMIA1", true},    {"eDP-1", "DP-1", false},
    };
    for (const auto& [connector, output, matches] : cases)
        EXPECT_EQ(ScreenMatching::outputNameMatches(connector, output), matches) << connector << " / " << output;
}

TEST(ScreenMatching, FramesByNameThenByIdentity)
{
    using Frames = std::vector<std::optional<Rect>>;
    const Rect left{0, 0, 1920, 1080}, middle{1920, 0, 2560, 1440}, right{4480, 0, 1920, 1080};
    const Rect whole{0, 0, 6400, 1440};
    const std::vector<ConnectorIdentity> desk{
        {"DP-1", monitor("DELL U2720Q", 1280012594)}, {"HDMI-A-1", monitor("LG HDR 4K")}, {"eDP-1", {}}};
    const std::vector<ConnectorIdentity> twins{{"DP-1", monitor("DELL U2720Q")}, {"DP-2", monitor("DELL U2720Q")}};
    const std::tuple<const char*, std::vector<ConnectorIdentity>, std::vector<ScreenIdentity>, Frames> cases[] = {
        {"names, in another order, beside a screen for the whole desktop", desk,
         {{"DUMMY0", "", "", whole}, {"eDP-1", "", "", left}, {"HDMI-1", "", "", right}, {"DP-1", "", "", middle}},
         {middle, right, left}},
        {"names under XWayland say nothing: identities", desk,
         {{"XWAYLAND0", "LG HDR 4K", "", right}, {"XWAYLAND1", "DELL U2720Q", "1280012594", middle},
          {"XWAYLAND2", "", "", left}}, {middle, right, std::nullopt}},
        {"a serial that disagrees is not the monitor", desk, {{"XWAYLAND0", "DELL U2720Q", "99", middle}},
         {std::nullopt, std::nullopt, std::nullopt}},
        {"the serial text counts as the serial", {{"DP-1", monitor("DELL U2720Q", 0, "5KC0123R0ABL")}},
         {{"XWAYLAND0", "DELL U2720Q", "5KC0123R0ABL", middle}}, {middle}},
        {"a name wins over an identity that fits another screen", desk,
         {{"XWAYLAND0", "DELL U2720Q", "", right}, {"DP-1", "", "", middle}}, {middle, std::nullopt, std::nullopt}},
        {"two identical monitors without serials are never guessed", twins,
         {{"XWAYLAND0", "DELL U2720Q", "", left}, {"XWAYLAND1", "DELL U2720Q", "", right}},
         {std::nullopt, std::nullopt}},
        {"one of two identical monitors named: the other by identity", twins,
         {{"DP-2", "DELL U2720Q", "", right}, {"XWAYLAND1", "DELL U2720Q", "", left}}, {left, right}},
        {"one screen, two connectors with that name spelled two ways: the first takes it",
         {{"HDMI-A-1", {}}, {"HDMI-1", {}}}, {{"HDMI-1", "", "", left}}, {left, std::nullopt}},
        {"no EDID, no name: nothing", {{"DP-1", {}}}, {{"XWAYLAND0", "", "", left}}, {std::nullopt}},
        {"no screens", desk, {}, {std::nullopt, std::nullopt, std::nullopt}},
    };
    for (const auto& [what, connectors, screens, expected] : cases) {
        SCOPED_TRACE(what);
        EXPECT_EQ(ScreenMatching::framesFor(connectors, screens), expected);
    }
}
