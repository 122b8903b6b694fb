// SPDX-License-Identifier: GPL-3.0-or-later
#include "tools/virtual-desk/EmulatedEdid.h"

#include <algorithm>

namespace VirtualDesk {

EmulatedEdid::EmulatedEdid(const std::vector<uint8_t>& edid, uint8_t address) : present(!edid.empty()), current(address)
{
    image.fill(0xFF);
    std::copy_n(edid.begin(), std::min(edid.size(), image.size()), image.begin());
}

void EmulatedEdid::write(const std::vector<uint8_t>& bytes)
{
    if (!bytes.empty())
        current = bytes[0];
}

std::vector<uint8_t> EmulatedEdid::read(std::size_t length)
{
    std::vector<uint8_t> out(length);
    for (uint8_t& byte : out)
        byte = image[current++];  // uint8_t: wraps at 256
    return out;
}

} // namespace VirtualDesk
