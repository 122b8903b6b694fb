// SPDX-License-Identifier: GPL-3.0-or-later
// Brightness keys: which devices have them, which display a press is about (half-open frames, the largest window
// share, the earliest on a tie) and what the press does there.

#include <gtest/gtest.h>

#include <climits>
#include <set>
#include <sstream>
#include <string>
#include <tuple>
#include <vector>

#include "LumoraCore/KeyCapabilities.h"
#include "LumoraCore/KeyEventDecision.h"

using namespace Lumora;
using Call = KeyOutcome::Call;
using Decision = TargetResolver::Decision;
using Display = TargetResolver::Display;

namespace {

// The built-in panel on the left, a DDC/CI monitor to its right, top edges aligned.
const Display panel{95, Rect{0, 0, 1920, 1080}, false};
const Display dell{103, Rect{1920, 0, 2560, 1440}, true};
constexpr auto adjust = TargetResolver::Action::adjust;
const Decision toPanel{95, TargetResolver::Action::passThrough};
const Decision toDell{103, adjust};

// The text the kernel prints for a set of key codes: words of `unsigned long`, most significant first, leading
// zero words left out, blank-separated.
std::string sysfsText(const std::set<unsigned>& codes)
{
    constexpr unsigned bits = sizeof(unsigned long) * CHAR_BIT;
    std::vector<unsigned long> words(*codes.rbegin() / bits + 1);
    for (unsigned code : codes)
        words[code / bits] |= 1UL << (code % bits);
    std::ostringstream out;
    for (auto w = words.rbegin(); w != words.rend(); ++w)
        out << std::hex << *w << (w + 1 != words.rend() ? " " : "\n");
    return out.str();
}

}  // namespace

TEST(TargetResolver, WindowThenCursorThenFirstDisplay)
{
    const std::vector<Display> none, desk{panel, dell}, reversed{dell, panel};
    const std::vector<Display> row{{10, Rect{0, 0, 100, 100}, false},
                                   {11, Rect{100, 0, 100, 100}, true},
                                   {12, Rect{200, 0, 100, 100}, false}};
    const std::vector<Display> mirrored{{7, Rect{0, 0, 1920, 1080}, true}, {8, Rect{0, 0, 1920, 1080}, false}};
    const std::vector<Display> leftOfOrigin{panel, {9, Rect{-1280, -200, 1280, 1024}, true}};
    const struct {
        const char* what;
        const std::vector<Display>& displays;
        std::optional<Rect> window;
        Point cursor;
        std::optional<Decision> expected;
    } cases[] = {
        {"no displays", none, Rect{0, 0, 100, 100}, {10, 10}, std::nullopt},
        {"120 x 300 on the panel, 280 x 300 on the monitor", desk, Rect{1800, 100, 400, 300}, {10, 10}, toDell},
        {"window on the panel outranks the cursor", desk, Rect{1620, 100, 400, 300}, {3000, 10}, toPanel},
        {"window off every display: two negative extents are no area", desk, Rect{10000, 10000, 300, 300},
         {2000, 10}, toDell},
        {"window touching the monitor's right edge only", desk, Rect{4480, 0, 200, 200}, {100, 100}, toPanel},
        {"zero-width window", desk, Rect{100, 100, 0, 300}, {2000, 10}, toDell},
        {"split in half: earlier display", desk, Rect{1820, 100, 200, 300}, {3000, 100}, toPanel},
        {"split in half, reversed", reversed, Rect{1820, 100, 200, 300}, {100, 100}, toDell},
        {"later display strictly larger", row, Rect{50, 0, 200, 10}, {0, 0}, Decision{11, adjust}},
        {"50/100/100: earlier of the equals", row, Rect{50, 0, 250, 10}, {0, 0}, Decision{11, adjust}},
        {"mirrored window: first", mirrored, Rect{10, 10, 100, 100}, {10, 10}, Decision{7, adjust}},
        {"cursor on the shared edge", desk, std::nullopt, {1920, 500}, toDell},
        {"cursor just left of it", desk, std::nullopt, {1919.5, 500}, toPanel},
        {"cursor on the panel's bottom edge", reversed, std::nullopt, {1000, 1080}, toDell},
        {"cursor on the corner of a display left of the origin", leftOfOrigin, std::nullopt, {-1280, -200},
         Decision{9, adjust}},
        {"mirrored cursor: first containing", mirrored, std::nullopt, {10, 10}, Decision{7, adjust}},
        {"cursor nowhere: first display", desk, std::nullopt, {-5, -5}, toPanel},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.what);
        EXPECT_EQ(TargetResolver::resolve(c.displays, c.window, c.cursor), c.expected);
    }
    // A window's share of a display is never negative, whichever way they lie apart.
    for (const Rect& apart : {Rect{20, 2, 5, 5}, Rect{2, 20, 5, 5}, Rect{20, 20, 5, 5}, Rect{-20, -20, 5, 5}})
        EXPECT_EQ((Rect{0, 0, 10, 10}).overlapArea(apart), 0.0) << apart.x << "," << apart.y;
}

TEST(KeyEventDecision, OutcomeTable)
{
    constexpr std::uint16_t key = InputCode::typeKey, f1 = InputCode::keyBrightnessDown;
    constexpr std::uint16_t f2 = InputCode::keyBrightnessUp, letterA = 30, f1Key = 59;  // KEY_A, KEY_F1
    const KeyOutcome passedOn{};
    const std::tuple<const char*, KeyEvent, bool, std::optional<Decision>, KeyOutcome> cases[] = {
        {"no active display", {key, f2, 1}, false, std::nullopt, passedOn},
        {"on the panel", {key, f2, 1}, false, toPanel, passedOn},
        {"on the panel, Option", {key, f1, 1}, true, toPanel, passedOn},
        {"F1 on the DDC monitor", {key, f1, 1}, false, toDell, {Call::step, 103, -0.0625, true}},
        {"F2 on the DDC monitor", {key, f2, 1}, false, toDell, {Call::step, 103, +0.0625, true}},
        {"Option F1 on the DDC monitor", {key, f1, 1}, true, toDell, {Call::setBrightness, 103, 0.0, true}},
        {"Option F2 on the DDC monitor", {key, f2, 1}, true, toDell, {Call::setBrightness, 103, 1.0, true}},
        {"F2 held: each repeat steps again", {key, f2, 2}, false, toDell, {Call::step, 103, +0.0625, true}},
        {"Option F1 repeated", {key, f1, 2}, true, toDell, {Call::setBrightness, 103, 0.0, true}},
    };
    for (const auto& [what, event, option, inUse, expected] : cases) {
        SCOPED_TRACE(what);
        EXPECT_TRUE(KeyEventDecision::isBrightnessPress(event));
        EXPECT_EQ(KeyEventDecision::decide(event, option, inUse), expected);
    }
    // Events that never ask where they belong: other types (one with F2's code), key-ups, values beyond a repeat,
    // other keys (the F1 function key, the code after F2).
    const KeyEvent others[] = {{InputCode::typeMisc, InputCode::miscScan, 0xE0}, {InputCode::typeSync, 0, 0},
                               {0x02, f2, 1}, {key, f1, 0}, {key, f2, 0}, {key, f2, 3}, {key, letterA, 1},
                               {key, f1Key, 1}, {key, f2 + 1, 1}};
    for (const KeyEvent& e : others) {
        SCOPED_TRACE(std::to_string(e.type) + " " + std::to_string(e.code) + " " + std::to_string(e.value));
        EXPECT_FALSE(KeyEventDecision::isBrightnessPress(e));
        EXPECT_EQ(KeyEventDecision::decide(e, false, toDell), passedOn);
        EXPECT_EQ(KeyEventDecision::decide(e, true, toDell), passedOn);
    }
}

// Devices as the key service sees them are tested on the desk; here the text's corners.
TEST(KeyCapabilities, OnlyWellFormedTextGivesKeys)
{
    const std::tuple<const char*, std::string, bool, bool> cases[] = {
        {"the ACPI Video Bus", "3e000b00000000 0 0 0", true, false},
        {"only right Alt", sysfsText({100}), false, true},
        {"codes next to the brightness keys", sysfsText({223, 226}), false, false},
        {"empty", "", false, false},
        {"not hexadecimal", "3e000b0000000g 0 0 0", false, false},
        {"a comma", "3e000b00000000,0 0 0", false, false},
    };
    for (const auto& [what, text, brightness, alt] : cases) {
        SCOPED_TRACE(what);
        const KeyCapabilities keys = KeyCapabilities::parse(text);
        EXPECT_EQ(keys.hasBrightnessKeys(), brightness);
        EXPECT_EQ(keys.hasAlt(), alt);
    }
    // Bits inside and at the edges of every word, and nothing beyond the last.
    const std::set<unsigned> mixed{0, 1, 31, 32, 56, 63, 64, 100, 127, 128, 191, 224, 225, 255, 256, 0x2fe, 0x2ff};
    const KeyCapabilities keys = KeyCapabilities::parse(sysfsText(mixed));
    for (unsigned code = 0; code < 0x340; ++code)
        EXPECT_EQ(keys.has(code), mixed.count(code) == 1) << code;
    EXPECT_FALSE(keys.empty());
    EXPECT_TRUE(KeyCapabilities::parse("0 0 0").empty());
}
