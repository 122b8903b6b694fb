// SPDX-License-Identifier: GPL-3.0-or-later
// Which connector changes count as displays added, removed, enabled or disabled; each of them refreshes.

#include <gtest/gtest.h>

#include "Lumora/Platform/Linux/Desktop/DisplayChangeMonitor.h"

using namespace Lumora;
namespace Change = Lumora::DisplayChange;

TEST(DisplayChange, FlagsBetweenTwoReadings)
{
    const ConnectorState on{true, true}, off{true, false}, unplugged{false, false}, unpluggedOn{false, true};
    const struct { const char* what; ConnectorStates before, after; unsigned flags; } cases[] = {
        {"unchanged", {{"DP-1", on}, {"DP-2", unplugged}}, {{"DP-1", on}, {"DP-2", unplugged}}, 0},
        {"plugged in", {{"DP-1", unplugged}}, {{"DP-1", on}}, Change::added},
        {"new connector, connected", {}, {{"DP-2", on}}, Change::added},
        {"new connector, empty", {}, {{"DP-3", unplugged}}, 0},
        {"unplugged", {{"DP-1", on}}, {{"DP-1", unplugged}}, Change::removed},
        {"connector gone while connected", {{"DP-2", on}}, {}, Change::removed},
        {"connector gone while empty", {{"DP-3", unplugged}}, {}, 0},
        {"switched on", {{"DP-1", off}}, {{"DP-1", on}}, Change::enabled},
        {"switched off", {{"DP-1", on}}, {{"DP-1", off}}, Change::disabled},
        {"empty connector switched", {{"DP-1", unpluggedOn}}, {{"DP-1", unplugged}}, 0},
        {"several at once", {{"DP-1", on}, {"DP-2", unplugged}, {"eDP-1", on}},
         {{"DP-1", unplugged}, {"DP-2", on}, {"eDP-1", off}}, Change::added | Change::removed | Change::disabled},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.what);
        EXPECT_EQ(Change::between(c.before, c.after), c.flags);
        EXPECT_EQ((c.flags & Change::refreshMask) != 0, c.flags != 0) << "every change found is enumerated again";
    }
}
