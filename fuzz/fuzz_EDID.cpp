// SPDX-License-Identifier: GPL-3.0-or-later
// Feeds arbitrary bytes to the EDID identity reader. Without the fixed header (or under 128 bytes) every field
// must be empty; with it, the numbers must be those of bytes 8-15, the UUID 36 characters of upper-case hex in
// 8-4-4-4-12 groups, and the name at most four descriptors' 13 printable characters without a blank at either
// end. Inputs of 128 bytes or more are parsed a second time with the header written in, so that the descriptor
// walk is exercised too. The same bytes, taken as what an EEPROM answered in some rotation, must give either no
// base block or one that starts with the header, adds up to 0 and lies in the bytes (wrapping) where the header
// was found.

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <span>
#include <vector>

#include "LumoraCore/EDID.h"

namespace {

constexpr std::uint8_t header[8] = {0x00, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0x00};

void check(bool condition)
{
    if (!condition)
        std::abort();
}

void checkIdentity(const std::uint8_t* data, std::size_t size)
{
    const Lumora::EDIDIdentity id = Lumora::EDID::parse(std::span<const std::uint8_t>(data, size));
    if (size < 128 || std::memcmp(data, header, sizeof header) != 0) {
        check(id == Lumora::EDIDIdentity{});
        return;
    }
    check(id.vendor == ((std::uint32_t(data[8]) << 8) | data[9]));
    check(id.model == (data[10] | (std::uint32_t(data[11]) << 8)));
    check(id.serial == (data[12] | (std::uint32_t(data[13]) << 8) | (std::uint32_t(data[14]) << 16) |
                        (std::uint32_t(data[15]) << 24)));

    check(id.identityUUID.size() == 36);
    for (std::size_t i = 0; i < id.identityUUID.size(); ++i) {
        const char c = id.identityUUID[i];
        if (i == 8 || i == 13 || i == 18 || i == 23)
            check(c == '-');
        else
            check((c >= '0' && c <= '9') || (c >= 'A' && c <= 'F'));
    }

    check(id.productName.size() <= 4 * 13);
    for (char c : id.productName)
        check(c >= 0x20 && c <= 0x7E);
    check(id.productName.empty() || (id.productName.front() != ' ' && id.productName.back() != ' '));
}

}  // namespace

void checkRotation(const std::uint8_t* data, std::size_t size)
{
    const auto block = Lumora::EDID::baseBlockInRotation(std::span<const std::uint8_t>(data, size));
    if (!block)
        return;
    check(size >= 128 && std::memcmp(block->data(), header, sizeof header) == 0);
    unsigned sum = 0;
    for (std::uint8_t b : *block)
        sum += b;
    check(sum % 256 == 0);
    bool somewhere = false;
    for (std::size_t start = 0; start < size && !somewhere; ++start) {
        bool same = true;
        for (std::size_t i = 0; i < 128 && same; ++i)
            same = data[(start + i) % size] == (*block)[i];
        somewhere = same;
    }
    check(somewhere);
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    checkIdentity(data, size);
    checkRotation(data, size);
    if (size >= 128) {
        std::vector<std::uint8_t> withHeader(data, data + size);
        std::memcpy(withHeader.data(), header, sizeof header);
        checkIdentity(withHeader.data(), withHeader.size());
    }
    return 0;
}
