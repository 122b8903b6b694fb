// SPDX-License-Identifier: GPL-3.0-or-later
// Input event names, from the kernel's own header (the build turns its KEY_ and BTN_ defines into a table).
#include "tools/virtual-desk/InputCodes.h"

#include <linux/input-event-codes.h>

#include <algorithm>
#include <cctype>
#include <map>
#include <utility>

namespace VirtualDesk {

namespace {

struct Named {
    const char* name;
    int code;
};

constexpr Named kKeys[] = {
#include "InputCodeNames.inc"
};

const std::map<std::string, int>& byName()
{
    static const std::map<std::string, int> table = [] {
        std::map<std::string, int> t;
        for (const auto& k : kKeys)
            t.emplace(k.name, k.code);
        return t;
    }();
    return table;
}

const std::map<int, std::string>& byCode()
{
    static const std::map<int, std::string> table = [] {
        std::map<int, std::string> t;
        for (const auto& k : kKeys) // the first name of a code is its own; later ones are aliases or limits
            if (std::string_view(k.name) != "KEY_MAX")
                t.emplace(k.code, k.name);
        return t;
    }();
    return table;
}

std::optional<int> number(std::string_view s)
{
    if (s.empty())
        return std::nullopt;
    int base = 10;
    if (s.size() > 2 && s[0] == '0' && (s[1] == 'x' || s[1] == 'X')) {
        base = 16;
        s.remove_prefix(2);
    }
    long v = 0;
    for (char c : s) {
        int d;
        if (c >= '0' && c <= '9')
            d = c - '0';
        else if (base == 16 && c >= 'a' && c <= 'f')
            d = c - 'a' + 10;
        else if (base == 16 && c >= 'A' && c <= 'F')
            d = c - 'A' + 10;
        else
            return std::nullopt;
        v = v * base + d;
        if (v > KEY_MAX)
            return std::nullopt;
    }
    return static_cast<int>(v);
}

std::string plain(int v)
{
    return std::to_string(v);
}

} // namespace

std::optional<int> keyCode(std::string_view name)
{
    if (auto n = number(name))
        return n;
    std::string upper(name);
    std::transform(upper.begin(), upper.end(), upper.begin(), [](unsigned char c) { return std::toupper(c); });
    const auto& t = byName();
    for (const std::string& candidate : {upper, "KEY_" + upper}) {
        auto it = t.find(candidate);
        if (it != t.end() && it->first != "KEY_MAX")
            return it->second;
    }
    return std::nullopt;
}

std::string keyName(int code)
{
    const auto& t = byCode();
    auto it = t.find(code);
    return it == t.end() ? plain(code) : it->second;
}

std::string eventTypeName(int type)
{
    switch (type) {
    case EV_SYN: return "EV_SYN";
    case EV_KEY: return "EV_KEY";
    case EV_REL: return "EV_REL";
    case EV_ABS: return "EV_ABS";
    case EV_MSC: return "EV_MSC";
    case EV_SW: return "EV_SW";
    case EV_LED: return "EV_LED";
    case EV_SND: return "EV_SND";
    case EV_REP: return "EV_REP";
    case EV_FF: return "EV_FF";
    default: return plain(type);
    }
}

std::string eventCodeName(int type, int code)
{
    switch (type) {
    case EV_SYN:
        switch (code) {
        case SYN_REPORT: return "SYN_REPORT";
        case SYN_CONFIG: return "SYN_CONFIG";
        case SYN_MT_REPORT: return "SYN_MT_REPORT";
        case SYN_DROPPED: return "SYN_DROPPED";
        default: return plain(code);
        }
    case EV_KEY:
        return keyName(code);
    case EV_MSC:
        return code == MSC_SCAN ? "MSC_SCAN" : plain(code);
    case EV_LED: {
        static const char* leds[] = {"LED_NUML", "LED_CAPSL", "LED_SCROLLL", "LED_COMPOSE", "LED_KANA"};
        return code >= 0 && code < 5 ? leds[code] : plain(code);
    }
    case EV_REP:
        return code == REP_DELAY ? "REP_DELAY" : code == REP_PERIOD ? "REP_PERIOD" : plain(code);
    default:
        return plain(code);
    }
}

} // namespace VirtualDesk
