// SPDX-License-Identifier: GPL-3.0-or-later
// Keyboards in the desk file: parsing with field-naming errors, consistency checks, and the default desk's four.
#include "tools/virtual-desk/KeyboardConfig.h"

#include "tools/virtual-desk/DevNode.h"
#include "tools/virtual-desk/InputCodes.h"
#include "tools/virtual-desk/KeyboardKinds.h"

#include <nlohmann/json.hpp>

#include <set>
#include <stdexcept>

namespace VirtualDesk {

namespace {

[[noreturn]] void fail(const std::string& where, const std::string& what)
{
    throw std::runtime_error(where + ": " + what);
}

void onlyKeys(const nlohmann::json& j, const std::string& where, const std::set<std::string>& known)
{
    if (!j.is_object())
        fail(where, "expected an object");
    for (auto it = j.begin(); it != j.end(); ++it)
        if (!known.count(it.key()))
            fail(where + "." + it.key(), "unknown key");
}

std::string mode(const nlohmann::json& j, const std::string& where)
{
    if (!j.is_string())
        fail(where, "expected permission bits as a string, like \"0660\"");
    const std::string m = j.get<std::string>();
    try {
        (void)DevNode::grants(DevNode::Access::Read, m);
    } catch (const std::invalid_argument&) {
        fail(where, "\"" + m + "\" is not octal permission bits like \"0660\"");
    }
    return m;
}

} // namespace

KeyboardConfig parseKeyboard(const nlohmann::json& j, const std::string& where)
{
    onlyKeys(j, where, {"name", "kind", "event", "mode", "keys", "switches", "seat"});
    KeyboardConfig k;
    if (!j.contains("name") || !j["name"].is_string() || j["name"].get<std::string>().empty())
        fail(where + ".name", "required, e.g. \"AT Translated Set 2 keyboard\"");
    k.name = j["name"].get<std::string>();
    if (j.contains("kind")) {
        if (!j["kind"].is_string() || !isKeyboardKind(j["kind"].get<std::string>()))
            fail(where + ".kind", "expected \"laptop\", \"plain\", \"consumer\" or \"videoBus\"");
        k.kind = j["kind"].get<std::string>();
    }
    if (j.contains("event")) {
        if (!j["event"].is_number_integer() || j["event"].get<int64_t>() < 0 || j["event"].get<int64_t>() > 1023)
            fail(where + ".event", "expected the N of /dev/input/eventN, 0..1023");
        k.event = j["event"].get<int>();
    }
    if (j.contains("mode"))
        k.mode = mode(j["mode"], where + ".mode");
    if (j.contains("keys")) {
        if (!j["keys"].is_array())
            fail(where + ".keys", "expected an array of key codes or names");
        std::vector<int> keys;
        for (size_t i = 0; i < j["keys"].size(); ++i) {
            const auto& v = j["keys"][i];
            const std::string at = where + ".keys[" + std::to_string(i) + "]";
            std::optional<int> code;
            if (v.is_number_integer() && v.get<int64_t>() > 0 && v.get<int64_t>() <= KEY_MAX)
                code = v.get<int>();
            else if (v.is_string())
                code = keyCode(v.get<std::string>());
            if (!code || *code <= 0)
                fail(at, "expected a key code 1..767 or a name like \"KEY_BRIGHTNESSUP\"");
            keys.push_back(*code);
        }
        k.keys = keys;
    }
    if (j.contains("switches")) {
        if (!j["switches"].is_array())
            fail(where + ".switches", "expected an array of switch codes");
        for (size_t i = 0; i < j["switches"].size(); ++i) {
            const auto& v = j["switches"][i];
            if (!v.is_number_integer() || v.get<int64_t>() < 0 || v.get<int64_t>() > SW_MAX)
                fail(where + ".switches[" + std::to_string(i) + "]", "expected a switch code 0..16");
            k.switches.push_back(v.get<int>());
        }
    }
    if (j.contains("seat")) {
        if (!j["seat"].is_string() || j["seat"].get<std::string>().rfind("seat", 0) != 0)
            fail(where + ".seat", "expected a seat name such as \"seat1\"");
        k.seat = j["seat"].get<std::string>();
    }
    return k;
}

std::vector<KeyboardConfig> parseKeyboards(const nlohmann::json& j, const std::string& where)
{
    if (!j.is_array())
        fail(where, "expected an array");
    std::vector<KeyboardConfig> out;
    for (size_t i = 0; i < j.size(); ++i)
        out.push_back(parseKeyboard(j[i], where + "[" + std::to_string(i) + "]"));
    return out;
}

std::optional<UinputConfig> parseUinput(const nlohmann::json& j, const std::string& where)
{
    if (j.is_null())
        return std::nullopt;
    onlyKeys(j, where, {"mode"});
    UinputConfig u;
    if (j.contains("mode"))
        u.mode = mode(j["mode"], where + ".mode");
    return u;
}

void validateKeyboards(const DeskConfig& desk)
{
    std::set<int> events;
    std::set<std::string> names;
    for (size_t i = 0; i < desk.keyboards.size(); ++i) {
        const auto& k = desk.keyboards[i];
        const std::string where = "keyboards[" + std::to_string(i) + "]";
        if (k.name.empty())
            fail(where + ".name", "required");
        if (!names.insert(k.name).second)
            fail(where + ".name", "\"" + k.name + "\" is used twice");
        if (!isKeyboardKind(k.kind))
            fail(where + ".kind", "expected \"laptop\", \"plain\", \"consumer\" or \"videoBus\"");
        if (k.event >= 0 && !events.insert(k.event).second)
            fail(where + ".event", "event" + std::to_string(k.event) + " is used twice");
        try {
            (void)DevNode::grants(DevNode::Access::Read, k.mode);
        } catch (const std::invalid_argument&) {
            fail(where + ".mode", "\"" + k.mode + "\" is not octal permission bits");
        }
        if (k.keys)
            for (int code : *k.keys)
                if (code <= 0 || code > KEY_MAX)
                    fail(where + ".keys", std::to_string(code) + " is not a key code 1..767");
    }
    if (desk.uinput) {
        try {
            (void)DevNode::grants(DevNode::Access::Write, desk.uinput->mode);
        } catch (const std::invalid_argument&) {
            fail("uinput.mode", "\"" + desk.uinput->mode + "\" is not octal permission bits");
        }
    }
}

void addDefaultKeyboards(DeskConfig& desk)
{
    desk.keyboards = {{"AT Translated Set 2 keyboard", "laptop", 0, "0660", std::nullopt, {}},
                      {"Video Bus", "videoBus", 1, "0660", std::nullopt, {}},
                      {"Logitech USB Keyboard", "plain", 2, "0660", std::nullopt, {}},
                      {"Logitech USB Keyboard Consumer Control", "consumer", 3, "0660", std::nullopt, {}}};
    desk.uinput = UinputConfig{};
}

} // namespace VirtualDesk
