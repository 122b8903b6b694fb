#include <gtest/gtest.h>

#include <vector>

#include "LumoraCore/DisplayPairing.h"

using namespace Lumora;
using DisplayPairing::Pair;

namespace {

constexpr std::uint32_t dellVendor = 0x10AC;
constexpr std::uint32_t dellModel = 0xA0C4;
const std::string dellUUID = "10ACC4A0-0000-0000-0A1E-0104B53C2278";

ExternalDisplayIdentity dell(std::uint32_t id, std::uint32_t serial = 0) { return {id, dellVendor, dellModel, serial}; }
ServiceIdentity service(std::string uuid, std::int64_t serial = 0, std::string name = "")
{
    return {std::move(uuid), std::move(name), serial};
}

}  // namespace

// ---- scores --------------------------------------------------------------------------------------------------

TEST(PairingScore, VendorAndModelFromALowerCaseUUID)
{
    EXPECT_EQ(DisplayPairing::score(dell(2), service("10acc4a0-0000-0000-0a1e-0104b53c2278")), 4);
}

TEST(PairingScore, EqualNonZeroSerialAddsOne)
{
    EXPECT_EQ(DisplayPairing::score(dell(2, 7), service(dellUUID, 7)), 5);
    EXPECT_EQ(DisplayPairing::score(dell(2, 7), service(dellUUID, 8)), 4);
    EXPECT_EQ(DisplayPairing::score(dell(2, 0), service(dellUUID, 0)), 4);  // 0 means unknown: no point
}

TEST(PairingScore, SerialIsComparedAsUnsigned32Bits)
{
    EXPECT_EQ(DisplayPairing::score(dell(2, 0xFFFFFFFFu), service(dellUUID, 4294967295LL)), 5);
    EXPECT_EQ(DisplayPairing::score(dell(2, 0xFFFFFFFFu), service(dellUUID, -1)), 4);
}

TEST(PairingScore, ModelIsLowByteThenHighByte)
{
    // The high-byte-first spelling of the model does not count.
    EXPECT_EQ(DisplayPairing::score(dell(2), service("10ACA0C4-0000")), 2);
    // Model 0x0102 spells 0201; a model above 16 bits uses only its two low bytes.
    EXPECT_EQ(DisplayPairing::score({1, 0, 0x0102, 0}, service("FFFF0201")), 2);
    EXPECT_EQ(DisplayPairing::score({1, 0, 0xAB0102, 0}, service("FFFF0201")), 2);
}

TEST(PairingScore, ModelNeedsEightCharacters)
{
    EXPECT_EQ(DisplayPairing::score(dell(2), service("10ACC4")), 2);    // six: vendor only, no model test
    EXPECT_EQ(DisplayPairing::score(dell(2), service("10ACC4A")), 2);   // seven
    EXPECT_EQ(DisplayPairing::score(dell(2), service("10ACC4A0")), 4);  // eight is enough
    EXPECT_EQ(DisplayPairing::score(dell(2, 9), service("10ACC4", 9)), 3);
}

TEST(PairingScore, ModelAloneOrSerialAloneScores)
{
    EXPECT_EQ(DisplayPairing::score(dell(2), service("4C2DC4A0-1111")), 2);
    EXPECT_EQ(DisplayPairing::score(dell(2, 55), service("4C2D0000-1111", 55)), 1);
    EXPECT_EQ(DisplayPairing::score(dell(2, 55), service("4C2D0000-1111", 56)), 0);
}

TEST(PairingScore, VendorIsZeroPaddedToFourDigits)
{
    EXPECT_EQ(DisplayPairing::score({1, 0x0ABC, 0, 0}, service("0ABC")), 2);
    EXPECT_EQ(DisplayPairing::score({1, 0x0ABC, 0, 0}, service("ABC0")), 0);
}

TEST(PairingScore, EmptyUUIDScoresNothingEvenWithMatchingSerial)
{
    EXPECT_EQ(DisplayPairing::score(dell(2, 7), service("", 7)), 0);
}

// ---- pairing cases -------------------------------------------------------------------------------------------

TEST(PairingCases, OneDisplayOneServiceArePairedWithoutLookingAtIdentity)
{
    EXPECT_EQ(DisplayPairing::pair({dell(2)}, {service("")}), (std::vector<Pair>{{0, 0}}));
    EXPECT_EQ(DisplayPairing::pair({dell(2)}, {service("4C2D0000-0000-0000-0000-000000000000")}),
              (std::vector<Pair>{{0, 0}}));
}

TEST(PairingCases, OneDisplayTwoServicesWithEmptyUUIDsLeavesItOut)
{
    EXPECT_TRUE(DisplayPairing::pair({dell(2)}, {service(""), service("")}).empty());
}

TEST(PairingCases, OneDisplayPicksTheAgreeingServiceAmongSeveral)
{
    EXPECT_EQ(DisplayPairing::pair({dell(2)}, {service(""), service("4C2D1234"), service(dellUUID)}),
              (std::vector<Pair>{{0, 2}}));
}

TEST(PairingCases, IdenticalMonitorsWithoutSerialsPairInOrder)
{
    EXPECT_EQ(DisplayPairing::pair({dell(5), dell(7)}, {service(dellUUID), service(dellUUID)}),
              (std::vector<Pair>{{0, 0}, {1, 1}}));
}

TEST(PairingCases, SwappedSerialsAreFollowed)
{
    // A has serial 111, B 222; the registry lists 222 first.
    EXPECT_EQ(DisplayPairing::pair({dell(5, 111), dell(7, 222)}, {service(dellUUID, 222), service(dellUUID, 111)}),
              (std::vector<Pair>{{0, 1}, {1, 0}}));
}

TEST(PairingCases, GreedyEarlierDisplayTakesTheServiceALaterOneMatchesBetter)
{
    const ExternalDisplayIdentity a{5, dellVendor, 0x1111, 0};
    const ExternalDisplayIdentity b = dell(7, 42);
    // The one service agrees fully with B (5) and with A's vendor only (2): A takes it, B is left out.
    EXPECT_EQ(DisplayPairing::pair({a, b}, {service(dellUUID, 42)}), (std::vector<Pair>{{0, 0}}));
}

TEST(PairingCases, DisplayWithoutCandidateIsSkippedAndLaterOnesStillPair)
{
    const ExternalDisplayIdentity stranger{3, 0x4C2D, 0x0E0F, 0};
    EXPECT_EQ(DisplayPairing::pair({stranger, dell(7)}, {service(dellUUID), service("")}),
              (std::vector<Pair>{{1, 0}}));
}

TEST(PairingCases, BestScoreWinsOverEarlierPosition)
{
    // Service 0 agrees on the vendor only, service 1 on vendor and model.
    EXPECT_EQ(DisplayPairing::pair({dell(5), dell(7)}, {service("10AC0000"), service(dellUUID)}),
              (std::vector<Pair>{{0, 1}, {1, 0}}));
}

TEST(PairingCases, TwoDisplaysEmptyUUIDsNothingPairs)
{
    EXPECT_TRUE(DisplayPairing::pair({dell(5), dell(7)}, {service(""), service("")}).empty());
}

TEST(PairingCases, NothingToPair)
{
    EXPECT_TRUE(DisplayPairing::pair({}, {}).empty());
    EXPECT_TRUE(DisplayPairing::pair({}, {service(dellUUID)}).empty());
    EXPECT_TRUE(DisplayPairing::pair({dell(5)}, {}).empty());
}

// ---- names ---------------------------------------------------------------------------------------------------

TEST(PairingNames, ProductNameOrDisplayNumber)
{
    EXPECT_EQ(DisplayPairing::displayName(3, "DELL U2720Q"), "DELL U2720Q");
    EXPECT_EQ(DisplayPairing::displayName(3, ""), "Display 3");
    EXPECT_EQ(DisplayPairing::displayName(4294967295u, ""), "Display 4294967295");
}
