// SPDX-License-Identifier: GPL-3.0-or-later
// The keys a device reports, from the text the kernel prints in sysfs.

#include <gtest/gtest.h>

#include <climits>
#include <set>
#include <sstream>
#include <string>

#include "LumoraCore/KeyCapabilities.h"

using namespace Lumora;

namespace {

// The text the kernel prints for a set of key codes: words of `unsigned long`, most significant first, leading
// zero words left out, blank-separated.
std::string sysfsText(const std::set<unsigned>& codes)
{
    constexpr unsigned bits = sizeof(unsigned long) * CHAR_BIT;
    const unsigned words = codes.empty() ? 1 : *codes.rbegin() / bits + 1;
    std::ostringstream out;
    for (unsigned w = words; w-- > 0;) {
        unsigned long word = 0;
        for (unsigned code : codes) {
            if (code / bits == w)
                word |= 1UL << (code % bits);
        }
        out << std::hex << word << (w > 0 ? " " : "\n");
    }
    return out.str();
}

}  // namespace

// Devices as the key service sees them are tested on the desk; here the text's corners.
TEST(KeyCapabilities, OnlyWellFormedTextGivesKeys)
{
    const struct {
        const char* what;
        std::string text;
        bool brightness;
        bool alt;
    } cases[] = {
        {"the ACPI Video Bus", "3e000b00000000 0 0 0", true, false},
        {"only right Alt", sysfsText({100}), false, true},
        {"codes next to the brightness keys", sysfsText({223, 226}), false, false},
        {"empty", "", false, false},
        {"not hexadecimal", "3e000b0000000g 0 0 0", false, false},
        {"a comma", "3e000b00000000,0 0 0", false, false},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.what);
        const KeyCapabilities keys = KeyCapabilities::parse(c.text);
        EXPECT_EQ(keys.hasBrightnessKeys(), c.brightness);
        EXPECT_EQ(keys.hasAlt(), c.alt);
    }
}

TEST(KeyCapabilities, EveryCodeReadsBackAlone)
{
    for (unsigned code = 1; code < 0x300; ++code) {
        const KeyCapabilities keys = KeyCapabilities::parse(sysfsText({code}));
        ASSERT_TRUE(keys.has(code)) << code;
        ASSERT_FALSE(keys.has(code - 1)) << code;
        ASSERT_FALSE(keys.has(code + 1)) << code;
        ASSERT_FALSE(keys.empty()) << code;
    }
    const std::set<unsigned> mixed{1, 56, 63, 64, 100, 224, 225, 0x2ff};
    const KeyCapabilities keys = KeyCapabilities::parse(sysfsText(mixed));
    for (unsigned code = 0; code < 0x340; ++code)
        EXPECT_EQ(keys.has(code), mixed.count(code) == 1) << code;
    EXPECT_TRUE(KeyCapabilities::parse("0 0 0").empty());
}
