// SPDX-License-Identifier: GPL-3.0-or-later
// Pairing external displays with DDC services by EDID identity: the score, then the greedy choice.

#include <gtest/gtest.h>

#include <vector>

#include "LumoraCore/DisplayPairing.h"

using namespace Lumora;
using Pairs = std::vector<DisplayPairing::Pair>;

namespace {

const std::string dellUUID = "10ACC4A0-0000-0000-0A1E-0104B53C2278";

ExternalDisplayIdentity dell(std::uint32_t id, std::uint32_t serial = 0) { return {id, 0x10AC, 0xA0C4, serial}; }
ServiceIdentity service(std::string uuid, std::int64_t serial = 0) { return {std::move(uuid), "", serial}; }

// The base block of a DELL monitor as identical ones ship: binary serial 01 01 01 01, the serial-number string
// (descriptor 0xFF) telling them apart, a right checksum.
std::vector<std::uint8_t> twinBlock(const std::string& serialText)
{
    std::vector<std::uint8_t> b{0x00, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0x00, 0x10, 0xAC, 0xC4, 0xA0,
                                0x01, 0x01, 0x01, 0x01, 0x0A, 0x1E, 0x01, 0x04, 0xB5, 0x3C, 0x22, 0x78};
    b.resize(128, 0x01);
    const auto text = [&](std::size_t at, std::uint8_t tag, const std::string& t) {
        std::fill(b.begin() + long(at), b.begin() + long(at) + 18, 0x20);
        b[at] = b[at + 1] = b[at + 2] = b[at + 4] = 0;
        b[at + 3] = tag;
        std::copy(t.begin(), t.end(), b.begin() + long(at) + 5);
    };
    text(72, 0xFF, serialText + "\n");
    text(90, 0xFC, "DELL P2419H\n");
    text(108, 0x10, "");
    b[126] = 0;
    unsigned sum = 0;
    for (std::size_t i = 0; i < 127; ++i)
        sum += b[i];
    b[127] = static_cast<std::uint8_t>((256 - sum % 256) % 256);
    return b;
}
ExternalDisplayIdentity twin(std::uint32_t id, const std::string& serialText)
{
    return {id, 0x10AC, 0xA0C4, 0x01010101, twinBlock(serialText)};
}
ServiceIdentity twinChannel(const std::string& serialText)
{
    return {"10ACC4A0-0101-0101-0A1E-0104B53C2278", "DELL P2419H", 0x01010101, twinBlock(serialText)};
}

}  // namespace

TEST(DisplayPairing, ScoreIsVendorTwoModelTwoSerialOne)
{
    const struct {
        const char* what;
        ExternalDisplayIdentity display;
        ServiceIdentity service;
        int score;
    } cases[] = {
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
    for (const auto& c : cases) {
        SCOPED_TRACE(c.what);
        EXPECT_EQ(DisplayPairing::score(c.display, c.service), c.score);
    }
}

TEST(DisplayPairing, GreedyInDisplayOrderBestScoreEarlierServiceOnATie)
{
    const ExternalDisplayIdentity stranger{3, 0x4C2D, 0x0E0F, 0};
    const struct {
        const char* what;
        std::vector<ExternalDisplayIdentity> displays;
        std::vector<ServiceIdentity> services;
        Pairs expected;
    } cases[] = {
        {"one and one, whatever the identity", {dell(2)}, {service("4C2D0000-0000")}, {{0, 0}}},
        {"one display, two empty UUIDs", {dell(2)}, {service(""), service("")}, {}},
        {"the agreeing one among several", {dell(2)}, {service(""), service("4C2D1234"), service(dellUUID)}, {{0, 2}}},
        {"identical monitors in order", {dell(5), dell(7)}, {service(dellUUID), service(dellUUID)}, {{0, 0}, {1, 1}}},
        {"swapped serials", {dell(5, 111), dell(7, 222)}, {service(dellUUID, 222), service(dellUUID, 111)},
         {{0, 1}, {1, 0}}},
        {"earlier display takes what a later matches better", {{5, 0x10AC, 0x1111, 0}, dell(7, 42)},
         {service(dellUUID, 42)}, {{0, 0}}},
        {"no candidate skipped, later ones pair", {stranger, dell(7)}, {service(dellUUID), service("")}, {{1, 0}}},
        {"best score over earlier position", {dell(5), dell(7)}, {service("10AC0000"), service(dellUUID)},
         {{0, 1}, {1, 0}}},
        {"twins with equal binary serials: each its own base block, whatever the order",
         {twin(5, "CFV9N9C"), twin(7, "7FV9N9C")}, {twinChannel("7FV9N9C"), twinChannel("CFV9N9C")},
         {{0, 1}, {1, 0}}},
        {"a twin whose block no channel has: what remains pairs in order",
         {twin(5, "CFV9N9C"), twin(7, "7FV9N9C")}, {twinChannel("JJJJJJJ"), twinChannel("CFV9N9C")},
         {{0, 1}, {1, 0}}},
        {"nothing to pair", {}, {service(dellUUID)}, {}},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.what);
        EXPECT_EQ(DisplayPairing::pair(c.displays, c.services), c.expected);
    }
}

TEST(DisplayPairing, OwnChannelsServeTheirDisplaysAndOnlyTheRestArePairedByIdentity)
{
    using Choices = std::vector<DisplayPairing::ChannelChoice>;
    const std::optional<std::size_t> own;
    auto with = [](ExternalDisplayIdentity d) { return ExternalDisplay{d, true}; };
    auto without = [](ExternalDisplayIdentity d) { return ExternalDisplay{d, false}; };
    const ExternalDisplayIdentity lg{9, 0x1E6D, 0x5B09, 0};
    const ServiceIdentity lgChannel = service("1E6D095B-0000");
    const struct {
        const char* what;
        std::vector<ExternalDisplay> displays;
        std::vector<ServiceIdentity> channels;
        Choices expected;
    } cases[] = {
        {"identical monitors, the first without a channel: it does not take the second's",
         {without(dell(5)), with(dell(7))}, {}, {{1, own}}},
        {"own channels need no identity", {with(dell(5)), with({6, 0, 0, 0})}, {service("")}, {{0, own}, {1, own}}},
        {"the one left over and the one unowned channel pair whatever their identities",
         {with(dell(5)), without(dell(7))}, {lgChannel}, {{0, own}, {1, 0}}},
        {"no shortcut with two left over", {without(dell(5)), without(lg)}, {service("")}, {}},
        {"no shortcut with two unowned channels", {without(dell(5))}, {service(""), service("")}, {}},
        {"MST monitors by identity, whatever the bus order",
         {without(dell(5)), without(lg)}, {lgChannel, service(dellUUID)}, {{0, 1}, {1, 0}}},
        {"identical MST monitors in order", {without(dell(5)), without(dell(7))},
         {service(dellUUID), service(dellUUID)}, {{0, 0}, {1, 1}}},
        {"twin MST monitors on reversed buses, each by its base block",
         {without(twin(5, "CFV9N9C")), without(twin(7, "7FV9N9C"))}, {twinChannel("7FV9N9C"), twinChannel("CFV9N9C")},
         {{0, 1}, {1, 0}}},
        {"a display with its own channel is no candidate for an unowned one",
         {with(dell(5)), without(lg), without(dell(7))}, {service(dellUUID)}, {{0, own}, {2, 0}}},
        {"nothing left over: unowned channels go unused", {with(lg)}, {lgChannel}, {{0, own}}},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.what);
        EXPECT_EQ(DisplayPairing::assignChannels(c.displays, c.channels), c.expected);
    }
}
