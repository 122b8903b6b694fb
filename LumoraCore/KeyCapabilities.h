// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once
// The keys an input device reports, as the kernel prints them in sysfs (`capabilities/key` of an input device):
// hexadecimal words of the width of the machine's `unsigned long`, separated by blanks, the most significant
// word first and leading zero words left out ("3e000b00000000 0 0 0" is the ACPI Video Bus).

#include <cstdint>
#include <string_view>
#include <vector>

namespace Lumora {

class KeyCapabilities {
public:
    KeyCapabilities() = default;

    // An unreadable or malformed text reports no keys.
    static KeyCapabilities parse(std::string_view text);

    bool has(unsigned code) const;
    bool empty() const;

    // Devices whose brightness keys Lumora takes: they report KEY_BRIGHTNESSDOWN or KEY_BRIGHTNESSUP.
    bool hasBrightnessKeys() const;
    // Devices that can hold Option: they report KEY_LEFTALT or KEY_RIGHTALT.
    bool hasAlt() const;

private:
    std::vector<std::uint64_t> bits_;  // least significant first, 64 keys per entry
};

}  // namespace Lumora
