// SPDX-License-Identifier: GPL-3.0-or-later
// Which window-system screen shows which DRM connector: by the output names window systems use, else by the
// monitor's EDID identity, never by guessing.

#include <gtest/gtest.h>

#include <vector>

#include "LumoraCore/ScreenMatching.h"

using namespace Lumora;

namespace {

EDIDIdentity monitor(const std::string& name, std::uint32_t serial = 0, const std::string& serialText = "")
{
    EDIDIdentity edid;
    edid.vendor = 0x10AC;
    edid.productName = name;
    edid.serial = serial;
    edid.serialText = serialText;
    return edid;
}

const Rect left{0, 0, 1920, 1080};
const Rect middle{1920, 0, 2560, 1440};
const Rect right{4480, 0, 1920, 1080};
const Rect whole{0, 0, 6400, 1440};

}  // namespace

TEST(ScreenMatching, OutputNamesOfTheWindowSystems)
{
    const struct {
        const char* connector;
        const char* output;
        bool matches;
    } cases[] = {
        {"DP-1", "DP-1", true},          {"HDMI-A-1", "HDMI-A-1", true},  // KDE, wlroots
        {"HDMI-A-1", "HDMI-1", true},    {"eDP-1", "eDP-1", true},        // Xorg modesetting, GNOME
        {"HDMI-A-2", "HDMI2", true},     {"DP-3", "DP3", true},           // Xorg's Intel driver
        {"eDP-1", "eDP1", true},         {"DVI-D-1", "DVID1", true},
        {"DP-1", "DP-10", false},        {"DP-1", "DP-2", false},         {"HDMI-A-1", "HDMI-A-2", false},
        {"HDMI-B-1", "HDMI-1", false},   {"DP-1", "XWAYLAND0", false},    {"DP-1", "DUMMY0", false},
        {"DP-1", "dp-1", false},         {"DP-1", "", false},             {"", "", false},
        {"HDMI-A-1", "HDMIA1", true},    {"eDP-1", "DP-1", false},
    };
    for (const auto& c : cases)
        EXPECT_EQ(ScreenMatching::outputNameMatches(c.connector, c.output), c.matches) << c.connector << " / " << c.output;
}

TEST(ScreenMatching, FramesByNameThenByIdentity)
{
    using Frames = std::vector<std::optional<Rect>>;
    const std::vector<ConnectorIdentity> desk{
        {"DP-1", monitor("DELL U2720Q", 1280012594)}, {"HDMI-A-1", monitor("LG HDR 4K")}, {"eDP-1", {}}};
    const struct {
        const char* what;
        std::vector<ConnectorIdentity> connectors;
        std::vector<ScreenIdentity> screens;
        Frames expected;
    } cases[] = {
        {"names, in another order, beside a screen for the whole desktop",
         desk,
         {{"DUMMY0", "", "", whole}, {"eDP-1", "", "", left}, {"HDMI-1", "", "", right}, {"DP-1", "", "", middle}},
         {middle, right, left}},
        {"names under XWayland say nothing: identities",
         desk,
         {{"XWAYLAND0", "LG HDR 4K", "", right}, {"XWAYLAND1", "DELL U2720Q", "1280012594", middle},
          {"XWAYLAND2", "", "", left}},
         {middle, right, std::nullopt}},
        {"a serial that disagrees is not the monitor",
         desk,
         {{"XWAYLAND0", "DELL U2720Q", "99", middle}},
         {std::nullopt, std::nullopt, std::nullopt}},
        {"the serial text counts as the serial",
         {{"DP-1", monitor("DELL U2720Q", 0, "5KC0123R0ABL")}},
         {{"XWAYLAND0", "DELL U2720Q", "5KC0123R0ABL", middle}},
         {middle}},
        {"a name wins over an identity that fits another screen",
         desk,
         {{"XWAYLAND0", "DELL U2720Q", "", right}, {"DP-1", "", "", middle}},
         {middle, std::nullopt, std::nullopt}},
        {"two identical monitors without serials are never guessed",
         {{"DP-1", monitor("DELL U2720Q")}, {"DP-2", monitor("DELL U2720Q")}},
         {{"XWAYLAND0", "DELL U2720Q", "", left}, {"XWAYLAND1", "DELL U2720Q", "", right}},
         {std::nullopt, std::nullopt}},
        {"one of two identical monitors named: the other by identity",
         {{"DP-1", monitor("DELL U2720Q")}, {"DP-2", monitor("DELL U2720Q")}},
         {{"DP-2", "DELL U2720Q", "", right}, {"XWAYLAND1", "DELL U2720Q", "", left}},
         {left, right}},
        {"one screen, two connectors with that name spelled two ways: the first takes it",
         {{"HDMI-A-1", {}}, {"HDMI-1", {}}},
         {{"HDMI-1", "", "", left}},
         {left, std::nullopt}},
        {"no EDID, no name: nothing", {{"DP-1", {}}}, {{"XWAYLAND0", "", "", left}}, {std::nullopt}},
        {"no screens", desk, {}, {std::nullopt, std::nullopt, std::nullopt}},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.what);
        EXPECT_EQ(ScreenMatching::framesFor(c.connectors, c.screens), c.expected);
    }
}
