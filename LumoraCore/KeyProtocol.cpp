// SPDX-License-Identifier: GPL-3.0-or-later
#include "LumoraCore/KeyProtocol.h"

#include <algorithm>

namespace Lumora::KeyProtocol {
namespace {

void put64(Message& m, std::uint64_t value)
{
    for (std::size_t i = 0; i < 8; ++i)
        m[i] = static_cast<std::uint8_t>(value >> (8 * i));
}

std::uint64_t get64(std::span<const std::uint8_t> bytes)
{
    std::uint64_t value = 0;
    for (std::size_t i = 0; i < 8; ++i)
        value |= std::uint64_t(bytes[i]) << (8 * i);
    return value;
}

bool zeroFrom(std::span<const std::uint8_t> bytes, std::size_t from)
{
    return std::all_of(bytes.begin() + static_cast<std::ptrdiff_t>(from), bytes.end(),
                       [](std::uint8_t b) { return b == 0; });
}

}  // namespace

Message encode(const Press& press)
{
    Message m{};
    put64(m, press.id);
    m[8] = static_cast<std::uint8_t>(press.event.code);
    m[9] = static_cast<std::uint8_t>(press.event.code >> 8);
    m[10] = static_cast<std::uint8_t>(press.event.value);
    m[11] = press.option ? 1 : 0;
    return m;
}

Message encode(const Decision& decision)
{
    Message m{};
    put64(m, decision.id);
    m[8] = decision.consume ? 1 : 0;
    return m;
}

std::optional<Press> decodePress(std::span<const std::uint8_t> bytes)
{
    if (bytes.size() != messageSize || bytes[11] > 1 || !zeroFrom(bytes, 12))
        return std::nullopt;
    Press press;
    press.id = get64(bytes);
    press.event = {InputCode::typeKey, std::uint16_t(bytes[8] | (bytes[9] << 8)), bytes[10]};
    press.option = bytes[11] == 1;
    if (!KeyEventDecision::isBrightnessPress(press.event))
        return std::nullopt;
    return press;
}

std::optional<Decision> decodeDecision(std::span<const std::uint8_t> bytes)
{
    if (bytes.size() != messageSize || bytes[8] > 1 || !zeroFrom(bytes, 9))
        return std::nullopt;
    return Decision{get64(bytes), bytes[8] == 1};
}

}  // namespace Lumora::KeyProtocol
