// SPDX-License-Identifier: GPL-3.0-or-later
// The control language: one line in, "ok", "ok VALUE" or "error: MESSAGE" out (see README.md).
#include "tools/virtual-desk/DeskImpl.h"

#include <sstream>

namespace VirtualDesk {

std::string Desk::control(std::string_view line)
{
    std::istringstream in{std::string(line)};
    std::vector<std::string> words;
    for (std::string w; in >> w;)
        words.push_back(w);
    if (words.empty())
        return "error: empty command";
    const std::string& cmd = words[0];
    auto need = [&](size_t lo, size_t hi) {
        if (words.size() < lo || words.size() > hi)
            throw std::invalid_argument("usage: see the control commands in tools/virtual-desk/README.md");
    };
    auto number = [](const std::string& s) {
        size_t used = 0;
        const long v = std::stol(s, &used, 0);
        if (used != s.size())
            throw std::invalid_argument("not a number: " + s);
        return v;
    };
    try {
        if (auto reply = inputControl(*this, words, line))
            return *reply;
        if (cmd == "unplug" || cmd == "plug" || cmd == "hold" || cmd == "release") {
            need(2, 2);
            if (cmd == "unplug")
                unplug(words[1]);
            else if (cmd == "plug")
                plug(words[1]);
            else if (cmd == "hold")
                hold(words[1]);
            else
                release(words[1]);
            return "ok";
        }
        if (cmd == "remove") {
            need(2, 2);
            removeConnector(words[1]);
            return "ok";
        }
        if (cmd == "add") {
            // add CARD {"name":"DP-3","ddc":{"bus":9},"monitor":{}}: the connector as in the desk file
            const std::string text{line};
            const auto brace = text.find('{');
            if (words.size() < 3 || brace == std::string::npos)
                throw std::invalid_argument("usage: add CARD {connector as in the desk file}");
            const long card = number(words[1]);
            const auto one = DeskConfig::fromJson(R"({"cards":[{"index":)" + std::to_string(card) +
                                                  R"(,"connectors":[)" + text.substr(brace) + "]}]}");
            addConnector(static_cast<int>(card), one.cards.at(0).connectors.at(0));
            return "ok";
        }
        if (cmd == "fault") {
            if (words.size() < 3)
                throw std::invalid_argument("usage: fault CONNECTOR clear | fault CONNECTOR name=value ...");
            Faults f = faults(words[1]);
            for (size_t i = 2; i < words.size(); ++i) {
                if (words[i] == "clear") {
                    f = Faults{};
                    continue;
                }
                const auto eq = words[i].find('=');
                const std::string key = words[i].substr(0, eq);
                const std::string val = eq == std::string::npos ? "1" : words[i].substr(eq + 1);
                const long v = val == "true" ? 1 : val == "false" ? 0 : number(val);
                if (key == "neverAnswer")
                    f.neverAnswer = v != 0;
                else if (key == "badChecksumReplies")
                    f.badChecksumReplies = static_cast<int>(v);
                else if (key == "nakWhileBusy")
                    f.nakWhileBusy = v != 0;
                else if (key == "dropWhileBusy")
                    f.dropWhileBusy = v != 0;
                else if (key == "nullReplies")
                    f.nullReplies = static_cast<int>(v);
                else if (key == "nullFiller") {
                    if (v < 0 || v > 255)
                        throw std::invalid_argument("nullFiller is one byte: 0x00 or 0xFF");
                    f.nullFiller = static_cast<uint8_t>(v);
                }
                else if (key == "nullWhenNotReady")
                    f.nullWhenNotReady = v != 0;
                else if (key == "silentInStandby")
                    f.silentInStandby = v != 0;
                else if (key == "maxZero")
                    f.maxZero = v != 0;
                else if (key == "currentAboveMax")
                    f.currentAboveMax = v != 0;
                else if (key == "unplugged")
                    f.unplugged = v != 0;
                else
                    throw std::invalid_argument("unknown fault \"" + key + "\"");
            }
            setFaults(words[1], f);
            return "ok";
        }
        if (cmd == "profile") {
            need(3, 3);
            setProfile(words[1], words[2]);
            return "ok";
        }
        if (cmd == "brightness" || cmd == "max") {
            need(2, 3);
            if (words.size() == 3) {
                const long v = number(words[2]);
                if (v < 0 || v > 65535)
                    throw std::invalid_argument("value out of range 0..65535");
                if (cmd == "brightness")
                    setBrightness(words[1], static_cast<uint16_t>(v));
                else
                    setMaxBrightness(words[1], static_cast<uint16_t>(v));
                return "ok";
            }
            return "ok " + std::to_string(cmd == "brightness" ? brightness(words[1]) : maxBrightness(words[1]));
        }
        if (cmd == "power") {
            need(2, 3);
            if (words.size() == 3) {
                const long v = number(words[2]);
                if (v != 1 && v != 4 && v != 5)
                    throw std::invalid_argument("power mode 1 (on), 4 (standby) or 5 (off)");
                setPowerMode(words[1], static_cast<uint8_t>(v));
                return "ok";
            }
            return "ok " + std::to_string(powerMode(words[1]));
        }
        if (cmd == "backlight") {
            need(2, 3);
            if (words.size() == 3) {
                setBacklightBrightness(words[1], static_cast<int>(number(words[2])));
                return "ok";
            }
            return "ok " + std::to_string(backlightBrightness(words[1]));
        }
        if (cmd == "modprobe") {
            if (words.size() != 2 || words[1] != "i2c-dev")
                throw std::invalid_argument("usage: modprobe i2c-dev");
            loadI2cDev();
            return "ok";
        }
        if (cmd == "opens") {
            need(2, 2);
            return "ok " + std::to_string(opens(static_cast<int>(number(words[1]))));
        }
        if (cmd == "violations") {
            need(1, 1);
            return "ok " + std::to_string(violations().size());
        }
        if (cmd == "transactions") {
            need(1, 1);
            return "ok " + std::to_string(transactions().size());
        }
        return "error: unknown command \"" + cmd + "\"";
    } catch (const std::exception& e) {
        std::string msg = e.what();
        const std::string prefix = "virtual desk: ";
        if (msg.rfind(prefix, 0) == 0)
            msg = msg.substr(prefix.size());
        return "error: " + msg;
    }
}

} // namespace VirtualDesk
