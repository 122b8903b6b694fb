// SPDX-License-Identifier: GPL-3.0-or-later
#include "LumoraCore/KeyCapabilities.h"

#include <charconv>
#include <climits>

#include "LumoraCore/KeyEventDecision.h"

namespace Lumora {
namespace {

constexpr unsigned bitsPerWord = sizeof(unsigned long) * CHAR_BIT;

}  // namespace

KeyCapabilities KeyCapabilities::parse(std::string_view text)
{
    std::vector<unsigned long> words;  // as printed: most significant first
    std::size_t at = 0;
    while (at < text.size()) {
        while (at < text.size() && (text[at] == ' ' || text[at] == '\n'))
            ++at;
        if (at == text.size())
            break;
        unsigned long word = 0;
        const auto [end, error] = std::from_chars(text.data() + at, text.data() + text.size(), word, 16);
        const std::size_t stop = static_cast<std::size_t>(end - text.data());
        if (error != std::errc() || (stop < text.size() && text[stop] != ' ' && text[stop] != '\n'))
            return {};
        words.push_back(word);
        at = stop;
    }
    KeyCapabilities capabilities;
    unsigned bit = 0;
    for (auto word = words.rbegin(); word != words.rend(); ++word) {
        for (unsigned i = 0; i < bitsPerWord; ++i, ++bit) {
            if ((*word >> i) & 1UL) {
                if (capabilities.bits_.size() <= bit / 64)
                    capabilities.bits_.resize(bit / 64 + 1);
                capabilities.bits_[bit / 64] |= std::uint64_t{1} << (bit % 64);
            }
        }
    }
    return capabilities;
}

bool KeyCapabilities::has(unsigned code) const
{
    return code / 64 < bits_.size() && ((bits_[code / 64] >> (code % 64)) & 1U) != 0;
}

bool KeyCapabilities::empty() const
{
    for (std::uint64_t word : bits_) {
        if (word != 0)
            return false;
    }
    return true;
}

bool KeyCapabilities::hasBrightnessKeys() const
{
    return has(InputCode::keyBrightnessDown) || has(InputCode::keyBrightnessUp);
}

bool KeyCapabilities::hasAlt() const
{
    return has(InputCode::keyLeftAlt) || has(InputCode::keyRightAlt);
}

}  // namespace Lumora
