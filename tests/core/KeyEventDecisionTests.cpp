// SPDX-License-Identifier: GPL-3.0-or-later
// What a brightness key does, as the complete outcome table: which events ask where they belong, which call each
// makes on the display in use and whether the desktop still gets the event.

#include <gtest/gtest.h>

#include <vector>

#include "LumoraCore/KeyEventDecision.h"

using namespace Lumora;
using Call = KeyOutcome::Call;
using Display = TargetResolver::Display;

namespace {

constexpr std::uint16_t key = InputCode::typeKey;
constexpr std::uint16_t f1 = InputCode::keyBrightnessDown;
constexpr std::uint16_t f2 = InputCode::keyBrightnessUp;
constexpr std::uint16_t letterA = 30;  // KEY_A
constexpr std::uint16_t f1Key = 59;    // KEY_F1: the function key itself, not the brightness key

// The built-in panel on the left, a DDC/CI monitor to its right.
const Display panel{95, Rect{0, 0, 1920, 1200}, false};
const Display dell{103, Rect{1920, 0, 2560, 1440}, true};
const std::vector<Display> desk{panel, dell};
const Rect windowOnDell{2000, 100, 1200, 800};
const Rect windowOnPanel{100, 100, 1200, 800};
const Point cursorOnDell{3000, 500};
const Point cursorOnPanel{500, 500};

const KeyOutcome passedOn{};

}  // namespace

TEST(KeyEventDecision, OutcomeTable)
{
    const struct {
        const char* what;
        KeyEvent event;
        bool option;
        std::vector<Display> displays;
        std::optional<Rect> window;
        Point cursor;
        KeyOutcome expected;
    } cases[] = {
        // Events that never ask.
        {"a scan code", {InputCode::typeMisc, InputCode::miscScan, 0xE0}, false, desk, windowOnDell, cursorOnDell, passedOn},
        {"a sync report", {InputCode::typeSync, InputCode::syncReport, 0}, false, desk, windowOnDell, cursorOnDell, passedOn},
        {"a relative motion with F2's code", {0x02, f2, 1}, false, desk, windowOnDell, cursorOnDell, passedOn},
        {"F1 up", {key, f1, 0}, false, desk, windowOnDell, cursorOnDell, passedOn},
        {"F2 up with Option", {key, f2, 0}, true, desk, windowOnDell, cursorOnDell, passedOn},
        {"F2 with a value beyond repeat", {key, f2, 3}, false, desk, windowOnDell, cursorOnDell, passedOn},
        {"a letter", {key, letterA, 1}, false, desk, windowOnDell, cursorOnDell, passedOn},
        {"the F1 function key", {key, f1Key, 1}, false, desk, windowOnDell, cursorOnDell, passedOn},
        {"the code after F2", {key, f2 + 1, 1}, false, desk, windowOnDell, cursorOnDell, passedOn},
        // Brightness presses that go on.
        {"no active display", {key, f2, 1}, false, {}, windowOnDell, cursorOnDell, passedOn},
        {"window on the panel", {key, f2, 1}, false, desk, windowOnPanel, cursorOnDell, passedOn},
        {"window on the panel, Option", {key, f1, 1}, true, desk, windowOnPanel, cursorOnDell, passedOn},
        {"no window, cursor on the panel", {key, f1, 1}, false, desk, std::nullopt, cursorOnPanel, passedOn},
        {"only the panel", {key, f2, 1}, false, {panel}, windowOnDell, cursorOnDell, passedOn},
        // Brightness presses that are consumed.
        {"F1 on the DDC monitor", {key, f1, 1}, false, desk, windowOnDell, cursorOnPanel, {Call::step, 103, -0.0625, true}},
        {"F2 on the DDC monitor", {key, f2, 1}, false, desk, windowOnDell, cursorOnPanel, {Call::step, 103, +0.0625, true}},
        {"Option F1 on the DDC monitor", {key, f1, 1}, true, desk, windowOnDell, cursorOnPanel, {Call::setBrightness, 103, 0.0, true}},
        {"Option F2 on the DDC monitor", {key, f2, 1}, true, desk, windowOnDell, cursorOnPanel, {Call::setBrightness, 103, 1.0, true}},
        {"F2 held: each repeat steps again", {key, f2, 2}, false, desk, windowOnDell, cursorOnPanel, {Call::step, 103, +0.0625, true}},
        {"Option F1 repeated", {key, f1, 2}, true, desk, windowOnDell, cursorOnPanel, {Call::setBrightness, 103, 0.0, true}},
        {"no window, cursor on the DDC monitor", {key, f1, 1}, false, desk, std::nullopt, cursorOnDell, {Call::step, 103, -0.0625, true}},
        {"cursor nowhere: the first display decides", {key, f2, 1}, false, {dell, panel}, std::nullopt, Point{-50, -50}, {Call::step, 103, +0.0625, true}},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.what);
        // As a press is handled: the display in use, resolved from the desktop's inputs, then the key's outcome.
        const KeyOutcome outcome =
            KeyEventDecision::decide(c.event, c.option, TargetResolver::resolve(c.displays, c.window, c.cursor));
        EXPECT_EQ(outcome.call, c.expected.call);
        EXPECT_EQ(outcome.displayID, c.expected.displayID);
        EXPECT_EQ(outcome.amount, c.expected.amount);
        EXPECT_EQ(outcome.consumed, c.expected.consumed);
        // Only presses and repeats of the two brightness keys ever ask where they belong.
        EXPECT_EQ(KeyEventDecision::isBrightnessPress(c.event),
                  c.event.type == key && (c.event.code == f1 || c.event.code == f2) &&
                      (c.event.value == 1 || c.event.value == 2));
    }
}
