// Which connector state changes count as displays added, removed, enabled or disabled.

#include <gtest/gtest.h>

#include "Lumora/Platform/Linux/Desktop/DisplayChangeMonitor.h"

using namespace Lumora;
namespace Change = Lumora::DisplayChange;

namespace {
constexpr ConnectorState connectedOn{true, true};
constexpr ConnectorState connectedOff{true, false};
constexpr ConnectorState disconnected{false, false};
}  // namespace

TEST(DisplayChange, TheFlagsThatRefreshAreTheFourKinds)
{
    EXPECT_EQ(Change::refreshMask, 0x330U);
    EXPECT_EQ(Change::added, 0x10U);
    EXPECT_EQ(Change::removed, 0x20U);
    EXPECT_EQ(Change::enabled, 0x100U);
    EXPECT_EQ(Change::disabled, 0x200U);
}

TEST(DisplayChange, NothingChangedGivesNoFlags)
{
    const ConnectorStates states{{"card0-DP-1", connectedOn}, {"card0-HDMI-A-1", disconnected}};
    EXPECT_EQ(Change::between(states, states), 0U);
    EXPECT_EQ(Change::between({}, {}), 0U);
}

TEST(DisplayChange, PluggingInIsAdded)
{
    EXPECT_EQ(Change::between({{"card0-DP-1", disconnected}}, {{"card0-DP-1", connectedOn}}), Change::added);
    // A new connector (a DisplayPort MST branch) that appears connected.
    EXPECT_EQ(Change::between({}, {{"card0-DP-2", connectedOn}}), Change::added);
    // A new connector with nothing on it is nothing.
    EXPECT_EQ(Change::between({}, {{"card0-DP-3", disconnected}}), 0U);
}

TEST(DisplayChange, UnpluggingIsRemoved)
{
    EXPECT_EQ(Change::between({{"card0-DP-1", connectedOn}}, {{"card0-DP-1", disconnected}}), Change::removed);
    EXPECT_EQ(Change::between({{"card0-DP-2", connectedOn}}, {}), Change::removed);
    EXPECT_EQ(Change::between({{"card0-DP-3", disconnected}}, {}), 0U);
}

TEST(DisplayChange, SwitchingAConnectedOutputIsEnabledOrDisabled)
{
    EXPECT_EQ(Change::between({{"card0-DP-1", connectedOff}}, {{"card0-DP-1", connectedOn}}), Change::enabled);
    EXPECT_EQ(Change::between({{"card0-DP-1", connectedOn}}, {{"card0-DP-1", connectedOff}}), Change::disabled);
    // The "enabled" attribute of a disconnected connector means nothing.
    EXPECT_EQ(Change::between({{"card0-DP-1", {false, true}}}, {{"card0-DP-1", {false, false}}}), 0U);
}

TEST(DisplayChange, SeveralChangesAtOnceCombine)
{
    const ConnectorStates before{{"card0-DP-1", connectedOn}, {"card0-DP-2", disconnected}, {"card0-eDP-1", connectedOn}};
    const ConnectorStates after{{"card0-DP-1", disconnected}, {"card0-DP-2", connectedOn}, {"card0-eDP-1", connectedOff}};
    EXPECT_EQ(Change::between(before, after), Change::added | Change::removed | Change::disabled);
}
