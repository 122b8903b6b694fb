#include "LumoraCore/EDID.h"

#include <array>
#include <cstdio>

namespace Lumora::EDID {

namespace {

constexpr std::size_t baseBlockSize = 128;
constexpr std::array<std::uint8_t, 8> fixedHeader{0x00, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0x00};
constexpr std::array<std::size_t, 4> descriptorOffsets{54, 72, 90, 108};
constexpr std::size_t descriptorSize = 18;
constexpr std::uint8_t monitorNameTag = 0xFC;
constexpr std::uint8_t serialTextTag = 0xFF;

// Text of the first display descriptor with that tag (the monitor name, the serial number): bytes 5 to 17, ended
// by a line feed and padded with blanks.
std::string descriptorText(std::span<const std::uint8_t> block, std::uint8_t tag)
{
    for (std::size_t offset : descriptorOffsets) {
        const auto descriptor = block.subspan(offset, descriptorSize);
        // A zero pixel clock (bytes 0-1) marks a display descriptor rather than a timing.
        if (descriptor[0] != 0 || descriptor[1] != 0 || descriptor[3] != tag)
            continue;
        std::string name;
        for (std::uint8_t c : descriptor.subspan(5)) {
            if (c == 0x0A)
                break;
            if (c >= 0x20 && c <= 0x7E)
                name.push_back(static_cast<char>(c));
        }
        while (!name.empty() && name.back() == ' ')
            name.pop_back();
        return name;
    }
    return {};
}

std::string identityUUID(std::span<const std::uint8_t> block)
{
    static constexpr char digits[] = "0123456789ABCDEF";
    std::string uuid;
    uuid.reserve(36);
    for (std::size_t i = 8; i < 24; ++i) {
        if (i == 12 || i == 14 || i == 16 || i == 18)
            uuid.push_back('-');
        uuid.push_back(digits[block[i] >> 4]);
        uuid.push_back(digits[block[i] & 0x0F]);
    }
    return uuid;
}

}  // namespace

EDIDIdentity parse(std::span<const std::uint8_t> blob)
{
    if (blob.size() < baseBlockSize)
        return {};
    for (std::size_t i = 0; i < fixedHeader.size(); ++i) {
        if (blob[i] != fixedHeader[i])
            return {};
    }
    const auto block = blob.first(baseBlockSize);
    EDIDIdentity identity;
    identity.vendor = (std::uint32_t{block[8]} << 8) | block[9];
    identity.model = std::uint32_t{block[10]} | (std::uint32_t{block[11]} << 8);
    identity.serial = std::uint32_t{block[12]} | (std::uint32_t{block[13]} << 8) | (std::uint32_t{block[14]} << 16) |
                      (std::uint32_t{block[15]} << 24);
    identity.productName = descriptorText(block, monitorNameTag);
    identity.identityUUID = identityUUID(block);
    identity.serialText = descriptorText(block, serialTextTag);
    return identity;
}

std::optional<std::array<std::uint8_t, 128>> baseBlockInRotation(std::span<const std::uint8_t> rotated)
{
    const std::size_t size = rotated.size();
    if (size < baseBlockSize)
        return std::nullopt;
    for (std::size_t start = 0; start < size; ++start) {
        bool header = true;
        for (std::size_t i = 0; i < fixedHeader.size() && header; ++i)
            header = rotated[(start + i) % size] == fixedHeader[i];
        if (!header)
            continue;
        std::array<std::uint8_t, baseBlockSize> block{};
        unsigned sum = 0;
        for (std::size_t i = 0; i < baseBlockSize; ++i) {
            block[i] = rotated[(start + i) % size];
            sum += block[i];
        }
        if (sum % 256 == 0)
            return block;
    }
    return std::nullopt;
}

}  // namespace Lumora::EDID
