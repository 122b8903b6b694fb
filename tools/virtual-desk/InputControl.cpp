// SPDX-License-Identifier: GPL-3.0-or-later
// The control language's keyboard commands (README.md, "Keyboards"): key, keyboard add|remove, keyboards, access,
// grabbed, clones, forwarded, heldkeys, overflow.
#include "tools/virtual-desk/DeskImpl.h"
#include "tools/virtual-desk/InputCodes.h"
#include "tools/virtual-desk/KeyboardConfig.h"

#include <nlohmann/json.hpp>

#include <stdexcept>

namespace VirtualDesk {

std::optional<std::string> inputControl(Desk& desk, const std::vector<std::string>& words, std::string_view line)
{
    const std::string& cmd = words[0];
    auto need = [&](size_t lo, size_t hi, const char* usage) {
        if (words.size() < lo || words.size() > hi)
            throw std::invalid_argument(std::string("usage: ") + usage);
    };
    auto joined = [](const std::vector<std::string>& list) {
        std::string out = "ok";
        for (const auto& s : list)
            out += " " + s;
        return out;
    };
    if (cmd == "key") {
        need(4, 4, "key DEVICE CODE VALUE (CODE a number or a name like KEY_BRIGHTNESSUP; VALUE 1 down, 2 repeat, 0 up)");
        const auto code = keyCode(words[2]);
        if (!code)
            throw std::invalid_argument("unknown key \"" + words[2] + "\"");
        if (words[3] != "0" && words[3] != "1" && words[3] != "2")
            throw std::invalid_argument("key value \"" + words[3] + "\" (expected 1 down, 2 repeat, 0 up)");
        desk.pressKey(words[1], *code, std::stoi(words[3]));
        return "ok";
    }
    if (cmd == "keyboard") {
        if (words.size() >= 3 && words[1] == "add") {
            const std::string text{line};
            const auto brace = text.find('{');
            if (brace == std::string::npos)
                throw std::invalid_argument("usage: keyboard add {keyboard as in the desk file}");
            nlohmann::json j;
            try {
                j = nlohmann::json::parse(text.substr(brace));
            } catch (const nlohmann::json::parse_error& e) {
                throw std::invalid_argument(std::string("not valid JSON: ") + e.what());
            }
            return "ok " + desk.addKeyboard(parseKeyboard(j, "keyboard"));
        }
        if (words.size() == 3 && words[1] == "remove") {
            desk.removeKeyboard(words[2]);
            return "ok";
        }
        throw std::invalid_argument("usage: keyboard add {...} | keyboard remove DEVICE");
    }
    if (cmd == "keyboards") {
        need(1, 1, "keyboards");
        return joined(desk.keyboards());
    }
    if (cmd == "clones") {
        need(1, 1, "clones");
        return joined(desk.clones());
    }
    if (cmd == "access") {
        need(3, 3, "access NODE MODE (NODE /dev/input/eventN or /dev/uinput, MODE like 0600)");
        desk.setAccess(words[1], words[2]);
        return "ok";
    }
    if (cmd == "grabbed") {
        need(2, 2, "grabbed DEVICE");
        return desk.grabbed(words[1]) ? "ok 1" : "ok 0";
    }
    if (cmd == "forwarded") {
        need(1, 2, "forwarded [CLONE]");
        return "ok " + std::to_string(words.size() == 2 ? desk.forwarded(words[1]).size() : desk.forwarded().size());
    }
    if (cmd == "heldkeys") {
        need(2, 2, "heldkeys DEVICE");
        std::vector<std::string> keys;
        for (int k : desk.heldKeys(words[1]))
            keys.push_back(std::to_string(k));
        return joined(keys);
    }
    if (cmd == "overflow") {
        need(2, 2, "overflow DEVICE");
        desk.overflow(words[1]);
        return "ok";
    }
    return std::nullopt;
}

} // namespace VirtualDesk
