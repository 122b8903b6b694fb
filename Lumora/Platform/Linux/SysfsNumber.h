// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once
// A decimal number as sysfs writes it in entry names and attributes ("i2c-7", "card1", a connector_id): the
// whole text must be the number, so "7a", "" and "-1" (for unsigned) are not numbers.

#include <charconv>
#include <optional>
#include <string_view>
#include <system_error>

namespace Lumora::Platform {

template <typename Number>
std::optional<Number> parseSysfsNumber(std::string_view text)
{
    Number value{};
    auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value);
    if (error != std::errc() || end != text.data() + text.size() || text.empty())
        return std::nullopt;
    return value;
}

}  // namespace Lumora::Platform
