// SPDX-License-Identifier: GPL-3.0-or-later
#include "LumoraCore/EDID.h"

#include <array>
#include <optional>
#include <vector>

namespace Lumora::EDID {

namespace {

constexpr std::size_t baseBlockSize = 128;
constexpr std::array<std::uint8_t, 8> fixedHeader{0x00, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0x00};
constexpr std::array<std::size_t, 4> descriptorOffsets{54, 72, 90, 108};
constexpr std::size_t descriptorSize = 18;
constexpr std::uint8_t monitorNameTag = 0xFC;
constexpr std::uint8_t serialTextTag = 0xFF;

// The display descriptors with that tag, in order. A zero pixel clock (bytes 0-1) marks a display descriptor
// rather than a timing; its text is bytes 5 to 17.
std::vector<std::span<const std::uint8_t>> descriptorTexts(std::span<const std::uint8_t> block, std::uint8_t tag)
{
    std::vector<std::span<const std::uint8_t>> texts;
    for (std::size_t offset : descriptorOffsets) {
        const auto descriptor = block.subspan(offset, descriptorSize);
        if (descriptor[0] == 0 && descriptor[1] == 0 && descriptor[3] == tag)
            texts.push_back(descriptor.subspan(5));
    }
    return texts;
}

// One descriptor's text up to its first line feed, with NUL, other control bytes and 0xFF read as blanks (monitors
// pad with any of them, and some put a NUL where a blank belongs: "BT156GW01\0V.3"). Absent when it is blank, or
// when it still holds a byte 0x7F-0xFE: that is no text but junk in a descriptor mislabelled as one.
std::optional<std::string> descriptorText(std::span<const std::uint8_t> text)
{
    std::string out;
    for (std::uint8_t c : text) {
        if (c == 0x0A)
            break;
        if (c >= 0x7F && c != 0xFF)
            return std::nullopt;
        out.push_back(c < 0x20 || c == 0xFF ? ' ' : static_cast<char>(c));
    }
    if (out.find_first_not_of(' ') == std::string::npos)
        return std::nullopt;
    return out;
}

std::string trimmed(const std::string& text)
{
    const std::size_t first = text.find_first_not_of(' ');
    if (first == std::string::npos)
        return {};
    return text.substr(first, text.find_last_not_of(' ') - first + 1);
}

// The monitor's name: the texts of all its name descriptors joined as they stand, for a name longer than one
// descriptor holds is split over two ("Gateway FPD17" + "30"), and a blank or junk one may come before the real
// one. Blanks go only at the two ends of the whole name.
std::string monitorName(std::span<const std::uint8_t> block)
{
    std::string name;
    for (std::span<const std::uint8_t> text : descriptorTexts(block, monitorNameTag)) {
        if (std::optional<std::string> part = descriptorText(text))
            name += *part;
    }
    return trimmed(name);
}

// The serial-number string: the first such descriptor's text, trailing blanks dropped.
std::string serialText(std::span<const std::uint8_t> block)
{
    const auto texts = descriptorTexts(block, serialTextTag);
    if (texts.empty())
        return {};
    std::string text;
    for (std::uint8_t c : texts.front()) {
        if (c == 0x0A)
            break;
        if (c >= 0x20 && c <= 0x7E)
            text.push_back(static_cast<char>(c));
    }
    while (!text.empty() && text.back() == ' ')
        text.pop_back();
    return text;
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
    identity.productName = monitorName(block);
    identity.identityUUID = identityUUID(block);
    identity.serialText = serialText(block);
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
