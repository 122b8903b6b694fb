// SPDX-License-Identifier: GPL-3.0-or-later
// The desk description: JSON desk files, the default desk, EDID generation and consistency checks.
#include "tools/virtual-desk/VirtualDesk.h"

#include "tools/virtual-desk/KeyboardConfig.h"

#include <nlohmann/json.hpp>

#include <algorithm>
#include <cerrno>
#include <fstream>
#include <set>
#include <sstream>
#include <stdexcept>

namespace VirtualDesk {

namespace {

using nlohmann::json;

[[noreturn]] void fail(const std::string& where, const std::string& what)
{
    throw std::runtime_error(where + ": " + what);
}

const std::vector<std::string>& connectorTypes()
{
    static const std::vector<std::string> types = {
        "DP", "HDMI-A", "HDMI-B", "DVI-I", "DVI-D", "DVI-A", "VGA", "eDP", "LVDS", "DSI", "DPI", "Composite",
        "SVIDEO", "Component", "DIN", "TV", "Virtual", "Writeback", "SPI", "USB", "Unknown",
        // Not DRM types: the names compositors give their outputs when started headless (wlroots' HEADLESS-1,
        // Mutter's Meta-0; KWin's Virtual-0 is a DRM type already). A desk that stands behind such a compositor in a
        // test names its connectors so, and Lumora pairs each with its output as on a real desk.
        "HEADLESS", "Meta"};
    return types;
}

// "HDMI-A-1" -> type "HDMI-A"; empty when the name is not "<known type>-<number>".
std::string connectorType(const std::string& name)
{
    const auto dash = name.rfind('-');
    if (dash == std::string::npos || dash + 1 >= name.size())
        return {};
    const std::string index = name.substr(dash + 1);
    if (!std::all_of(index.begin(), index.end(), [](char c) { return c >= '0' && c <= '9'; }))
        return {};
    const std::string type = name.substr(0, dash);
    const auto& types = connectorTypes();
    return std::find(types.begin(), types.end(), type) != types.end() ? type : std::string{};
}

// Reads one JSON object, remembering which keys were used so that typos are reported.
class Obj {
public:
    Obj(const json& j, std::string path) : j(j), path(std::move(path))
    {
        if (!j.is_object())
            fail(this->path.empty() ? "desk" : this->path, "expected an object");
    }
    ~Obj() noexcept(false)
    {
        if (std::uncaught_exceptions() > 0)
            return;
        for (auto it = j.begin(); it != j.end(); ++it)
            if (!used.count(it.key()))
                fail(sub(it.key()), "unknown key");
    }
    std::string sub(const std::string& key) const { return path.empty() ? key : path + "." + key; }
    bool has(const std::string& key) const { return j.contains(key); }
    bool isNull(const std::string& key) const { return j.contains(key) && j.at(key).is_null(); }
    const json& at(const std::string& key)
    {
        used.insert(key);
        return j.at(key);
    }
    void touch(const std::string& key) { used.insert(key); }

    bool boolean(const std::string& key, bool dflt)
    {
        if (!has(key))
            return dflt;
        const json& v = at(key);
        if (!v.is_boolean())
            fail(sub(key), "expected true or false");
        return v.get<bool>();
    }
    // Integers may be given as numbers or as "0x..." strings.
    int64_t integer(const std::string& key, int64_t dflt, int64_t lo, int64_t hi)
    {
        if (!has(key))
            return dflt;
        return integerValue(at(key), sub(key), lo, hi);
    }
    static int64_t integerValue(const json& v, const std::string& where, int64_t lo, int64_t hi)
    {
        int64_t n = 0;
        if (v.is_number_integer()) {
            n = v.get<int64_t>();
        } else if (v.is_string()) {
            const std::string s = v.get<std::string>();
            try {
                size_t used = 0;
                n = std::stoll(s, &used, 0);
                if (used != s.size())
                    throw std::invalid_argument(s);
            } catch (const std::exception&) {
                fail(where, "expected an integer, got \"" + s + "\"");
            }
        } else {
            fail(where, "expected an integer");
        }
        if (n < lo || n > hi)
            fail(where, std::to_string(n) + " is out of range " + std::to_string(lo) + ".." + std::to_string(hi));
        return n;
    }
    std::string string(const std::string& key, const std::string& dflt)
    {
        if (!has(key))
            return dflt;
        const json& v = at(key);
        if (!v.is_string())
            fail(sub(key), "expected a string");
        return v.get<std::string>();
    }
    const json& array(const std::string& key)
    {
        const json& v = at(key);
        if (!v.is_array())
            fail(sub(key), "expected an array");
        return v;
    }

private:
    const json& j;
    std::string path;
    std::set<std::string> used;
};

std::vector<uint8_t> parseHex(const std::string& text, const std::string& where)
{
    std::vector<uint8_t> out;
    int high = -1;
    for (char c : text) {
        int v;
        if (c >= '0' && c <= '9')
            v = c - '0';
        else if (c >= 'a' && c <= 'f')
            v = c - 'a' + 10;
        else if (c >= 'A' && c <= 'F')
            v = c - 'A' + 10;
        else if (c == ' ' || c == ':' || c == '\n' || c == '\t')
            continue;
        else
            fail(where, std::string("not a hex digit: '") + c + "'");
        if (high < 0) {
            high = v;
        } else {
            out.push_back(static_cast<uint8_t>(high << 4 | v));
            high = -1;
        }
    }
    if (high >= 0)
        fail(where, "odd number of hex digits");
    return out;
}

// Keys not given keep what `f` holds (the profile's).
Faults parseFaults(Obj o, Faults f)
{
    f.neverAnswer = o.boolean("neverAnswer", f.neverAnswer);
    f.badChecksumReplies = static_cast<int>(o.integer("badChecksumReplies", f.badChecksumReplies, 0, 1000000));
    f.nakWhileBusy = o.boolean("nakWhileBusy", f.nakWhileBusy);
    f.dropWhileBusy = o.boolean("dropWhileBusy", f.dropWhileBusy);
    f.nullReplies = static_cast<int>(o.integer("nullReplies", f.nullReplies, 0, 1000000));
    f.nullFiller = static_cast<uint8_t>(o.integer("nullFiller", f.nullFiller, 0, 255));
    f.nullWhenNotReady = o.boolean("nullWhenNotReady", f.nullWhenNotReady);
    f.silentInStandby = o.boolean("silentInStandby", f.silentInStandby);
    f.maxZero = o.boolean("maxZero", f.maxZero);
    f.currentAboveMax = o.boolean("currentAboveMax", f.currentAboveMax);
    f.unplugged = o.boolean("unplugged", f.unplugged);
    return f;
}

MonitorConfig parseMonitor(Obj o)
{
    const std::string profile = o.string("profile", "realistic");
    if (profile != "realistic" && profile != "lenient")
        fail(o.sub("profile"), "expected \"realistic\" or \"lenient\"");
    MonitorConfig m = profile == "realistic" ? MonitorConfig::realistic() : MonitorConfig{};
    m.max = static_cast<uint16_t>(o.integer("max", m.max, 1, 65535));
    m.current = static_cast<uint16_t>(o.integer("current", m.current, 0, 65535));
    m.power = static_cast<uint8_t>(o.integer("power", m.power, 1, 5));
    m.replyDelayMs = static_cast<int>(o.integer("replyDelayMs", m.replyDelayMs, 0, 60000));
    m.busyMs = static_cast<int>(o.integer("busyMs", m.busyMs, 0, 60000));
    m.wakeMs = static_cast<int>(o.integer("wakeMs", m.wakeMs, 0, 60000));
    m.replyExpiryMs = static_cast<int>(o.integer("replyExpiryMs", m.replyExpiryMs, 0, 600000));
    m.hold = o.boolean("hold", false);
    if (o.has("faults"))
        m.faults = parseFaults(Obj(o.at("faults"), o.sub("faults")), m.faults);
    if (m.current > m.max && !m.faults.currentAboveMax)
        fail(o.sub("current"), "above max (" + std::to_string(m.max) + "); set faults.currentAboveMax to allow it");
    if (m.power != 1 && m.power != 4 && m.power != 5)
        fail(o.sub("power"), "expected 1 (on), 4 (standby) or 5 (off)");
    return m;
}

// "EREMOTEIO", "ENXIO", "EIO", ... or the number.
int parseErrno(const json& v, const std::string& where)
{
    static const std::pair<const char*, int> names[] = {{"EREMOTEIO", EREMOTEIO}, {"ENXIO", ENXIO}, {"EIO", EIO},
                                                        {"ETIMEDOUT", ETIMEDOUT}, {"EAGAIN", EAGAIN},
                                                        {"EBUSY", EBUSY}, {"ENODEV", ENODEV}};
    if (v.is_string())
        for (const auto& [name, value] : names)
            if (v.get<std::string>() == name)
                return value;
    if (v.is_string() && !v.get<std::string>().empty() && v.get<std::string>()[0] == 'E')
        fail(where, "unknown errno name \"" + v.get<std::string>() + "\" (EREMOTEIO, ENXIO, EIO, ETIMEDOUT, ...)");
    return static_cast<int>(Obj::integerValue(v, where, 1, 4095));
}

EdidConfig parseEdid(Obj o)
{
    EdidConfig e;
    if (o.has("raw")) {
        const json& v = o.at("raw");
        if (!v.is_string())
            fail(o.sub("raw"), "expected a hex string");
        e.raw = parseHex(v.get<std::string>(), o.sub("raw"));
        return e;
    }
    if (o.has("vendor")) {
        const json& v = o.at("vendor");
        if (v.is_string() && v.get<std::string>().size() == 3 && v.get<std::string>()[0] != '0') {
            e.vendor = v.get<std::string>();
            for (char c : e.vendor)
                if (c < 'A' || c > 'Z')
                    fail(o.sub("vendor"), "expected three capital letters or a number");
        } else {
            const auto n = static_cast<uint16_t>(Obj::integerValue(v, o.sub("vendor"), 0, 0x7FFF));
            e.vendor = {static_cast<char>('@' + ((n >> 10) & 31)), static_cast<char>('@' + ((n >> 5) & 31)),
                        static_cast<char>('@' + (n & 31))};
        }
    }
    e.model = static_cast<uint16_t>(o.integer("model", e.model, 0, 0xFFFF));
    e.serial = static_cast<uint32_t>(o.integer("serial", e.serial, 0, 0xFFFFFFFFLL));
    e.name = o.string("name", e.name);
    if (e.name.size() > 13)
        fail(o.sub("name"), "at most 13 characters");
    if (o.has("serialText")) {
        e.serialText = o.string("serialText", "");
        if (e.serialText->size() > 13)
            fail(o.sub("serialText"), "at most 13 characters");
    }
    return e;
}

} // namespace

MonitorConfig MonitorConfig::realistic()
{
    MonitorConfig m;
    m.wakeMs = 1500;
    m.faults.nakWhileBusy = true;
    m.faults.nullWhenNotReady = true;
    m.faults.silentInStandby = true;
    return m;
}

int nakErrnoOf(const CardConfig& card, const DdcConfig& ddc)
{
    if (ddc.nakErrno != 0)
        return ddc.nakErrno;
    const bool mst = ddc.via == DdcVia::Pci && (ddc.name.empty() || ddc.name == "DPMST");
    if (ddc.via == DdcVia::Aux || mst)
        return EREMOTEIO; // I2C over the DisplayPort AUX channel, an MST port's included
    if (card.driver == "amdgpu" || card.driver == "radeon" || card.driver == "nvidia")
        return EIO;
    return ENXIO;         // i915's gmbus, and the bit-banging adapters of most other drivers
}

std::vector<uint8_t> EdidConfig::bytes() const
{
    if (raw)
        return *raw;
    std::vector<uint8_t> e(128, 0);
    const uint8_t header[8] = {0x00, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0x00};
    std::copy(header, header + 8, e.begin());
    auto letter = [&](size_t i) { return i < vendor.size() ? ((vendor[i] - '@') & 31) : 0; };
    const uint16_t id = static_cast<uint16_t>(letter(0) << 10 | letter(1) << 5 | letter(2));
    e[8] = static_cast<uint8_t>(id >> 8);
    e[9] = static_cast<uint8_t>(id & 0xFF);
    e[10] = static_cast<uint8_t>(model & 0xFF);
    e[11] = static_cast<uint8_t>(model >> 8);
    for (int i = 0; i < 4; ++i)
        e[12 + i] = static_cast<uint8_t>(serial >> (8 * i));
    e[16] = 12;             // week
    e[17] = 2021 - 1990;    // year
    e[18] = 1;              // EDID 1.4
    e[19] = 4;
    e[20] = 0xA5;           // digital, 8 bits per colour, DisplayPort
    e[21] = 60;             // 60 x 34 cm
    e[22] = 34;
    e[23] = 120;            // gamma 2.2
    e[24] = 0x3A;
    const uint8_t chroma[10] = {0xEE, 0x91, 0xA3, 0x54, 0x4C, 0x99, 0x26, 0x0F, 0x50, 0x54};
    std::copy(chroma, chroma + 10, e.begin() + 25);
    e[35] = 0x21;
    e[36] = 0x08;
    for (int i = 38; i < 54; ++i)
        e[i] = 0x01;        // no standard timings
    // Preferred timing: 1920x1080 at 60 Hz.
    const uint8_t dtd[18] = {0x02, 0x3A, 0x80, 0x18, 0x71, 0x38, 0x2D, 0x40, 0x58,
                             0x2C, 0x45, 0x00, 0x56, 0x50, 0x21, 0x00, 0x00, 0x1E};
    std::copy(dtd, dtd + 18, e.begin() + 54);
    // Range limits.
    const uint8_t range[18] = {0x00, 0x00, 0x00, 0xFD, 0x00, 0x38, 0x4B, 0x1E, 0x53,
                               0x11, 0x00, 0x0A, 0x20, 0x20, 0x20, 0x20, 0x20, 0x20};
    std::copy(range, range + 18, e.begin() + 72);
    auto text = [&](size_t at, uint8_t tag, const std::string& s) {
        e[at + 3] = tag;
        size_t i = 0;
        for (; i < s.size() && i < 13; ++i)
            e[at + 5 + i] = static_cast<uint8_t>(s[i]);
        if (i < 13)
            e[at + 5 + i++] = 0x0A;
        for (; i < 13; ++i)
            e[at + 5 + i] = 0x20;
    };
    text(90, 0xFF, serialText.value_or(std::to_string(serial)));
    if (name.empty())
        e[108 + 3] = 0x10;  // dummy descriptor
    else
        text(108, 0xFC, name);
    e[126] = 0;
    unsigned sum = 0;
    for (int i = 0; i < 127; ++i)
        sum += e[i];
    e[127] = static_cast<uint8_t>((256 - sum % 256) % 256);
    return e;
}

DeskConfig DeskConfig::fromJson(std::string_view text)
{
    json root;
    try {
        root = json::parse(text.begin(), text.end());
    } catch (const json::parse_error& e) {
        throw std::runtime_error(std::string("desk file is not valid JSON: ") + e.what());
    }
    DeskConfig d;
    {
        Obj o(root, "");
        d.i2cDev = o.boolean("i2cDev", true);
        d.byteTimeUs = static_cast<int>(o.integer("byteTimeUs", d.byteTimeUs, 0, 100000));
        if (o.has("cards")) {
            const json& cards = o.array("cards");
            for (size_t ci = 0; ci < cards.size(); ++ci) {
                const std::string cpath = "cards[" + std::to_string(ci) + "]";
                Obj c(cards[ci], cpath);
                CardConfig card;
                card.index = static_cast<int>(c.integer("index", static_cast<int64_t>(ci), 0, 63));
                card.pciSlot = c.string("pci", ci == 0 ? "0000:00:02.0" : "0000:0" + std::to_string(ci) + ":00.0");
                card.driver = c.string("driver", ci == 0 ? "i915" : "amdgpu");
                std::set<uint32_t> ids;
                uint32_t nextId = 95;
                if (c.has("connectors")) {
                    const json& conns = c.array("connectors");
                    // Explicit ids first, so that generated ones avoid them.
                    for (const auto& cj : conns)
                        if (cj.is_object() && cj.contains("connectorId") && cj.at("connectorId").is_number_integer())
                            ids.insert(cj.at("connectorId").get<uint32_t>());
                    for (size_t ki = 0; ki < conns.size(); ++ki) {
                        const std::string kpath = cpath + ".connectors[" + std::to_string(ki) + "]";
                        Obj k(conns[ki], kpath);
                        ConnectorConfig conn;
                        conn.name = k.string("name", "");
                        if (conn.name.empty())
                            fail(k.sub("name"), "required, e.g. \"DP-1\"");
                        if (connectorType(conn.name).empty())
                            fail(k.sub("name"), "\"" + conn.name + "\" is not <type>-<number> with a DRM connector type "
                                                "(DP, HDMI-A, DVI-D, VGA, eDP, LVDS, DSI, ...) or a compositor's "
                                                "output (HEADLESS, Meta)");
                        conn.status = k.string("status", "connected");
                        if (conn.status != "connected" && conn.status != "disconnected" && conn.status != "unknown")
                            fail(k.sub("status"), "expected \"connected\", \"disconnected\" or \"unknown\"");
                        conn.enabled = k.boolean("enabled", conn.status == "connected");
                        if (k.isNull("connectorId")) {
                            k.touch("connectorId");
                        } else if (k.has("connectorId")) {
                            conn.connectorId = static_cast<uint32_t>(k.integer("connectorId", 0, 1, 0xFFFF));
                        } else {
                            while (ids.count(nextId))
                                nextId += 1;
                            conn.connectorId = nextId;
                            ids.insert(nextId);
                            nextId += 8;
                        }
                        if (k.isNull("edid")) {
                            k.touch("edid");
                        } else if (k.has("edid")) {
                            conn.edid = parseEdid(Obj(k.at("edid"), k.sub("edid")));
                        } else {
                            conn.edid = EdidConfig{};
                            conn.edid->name = conn.name;
                        }
                        if (k.has("ddc") && !k.isNull("ddc")) {
                            Obj dd(k.at("ddc"), k.sub("ddc"));
                            DdcConfig ddc;
                            ddc.bus = static_cast<int>(dd.integer("bus", -1, 0, 1023));
                            if (ddc.bus < 0)
                                fail(dd.sub("bus"), "required");
                            const std::string type = connectorType(conn.name);
                            const bool dp = type == "DP" || type == "eDP";
                            const std::string via = dd.string("via", dp ? "aux" : "link");
                            if (via == "aux")
                                ddc.via = DdcVia::Aux;
                            else if (via == "link")
                                ddc.via = DdcVia::Link;
                            else if (via == "pci")
                                ddc.via = DdcVia::Pci;
                            else
                                fail(dd.sub("via"), "expected \"link\", \"aux\" or \"pci\"");
                            ddc.name = dd.string("name", "");
                            ddc.eepromAddress = static_cast<uint8_t>(dd.integer("eepromAddress", 0, 0, 255));
                            if (dd.has("nakErrno"))
                                ddc.nakErrno = parseErrno(dd.at("nakErrno"), dd.sub("nakErrno"));
                            conn.ddc = ddc;
                        } else {
                            k.touch("ddc");
                        }
                        if (k.has("monitor") && !k.isNull("monitor")) {
                            conn.monitor = parseMonitor(Obj(k.at("monitor"), k.sub("monitor")));
                            if (!conn.ddc)
                                fail(k.sub("monitor"), "a monitor needs a \"ddc\" adapter");
                        } else {
                            k.touch("monitor");
                        }
                        card.connectors.push_back(std::move(conn));
                    }
                }
                d.cards.push_back(std::move(card));
            }
        }
        if (o.has("backlights")) {
            const json& bls = o.array("backlights");
            for (size_t bi = 0; bi < bls.size(); ++bi) {
                Obj b(bls[bi], "backlights[" + std::to_string(bi) + "]");
                BacklightConfig bl;
                bl.name = b.string("name", bl.name);
                bl.type = b.string("type", bl.type);
                if (bl.type != "raw" && bl.type != "platform" && bl.type != "firmware")
                    fail(b.sub("type"), "expected \"raw\", \"platform\" or \"firmware\"");
                bl.max = static_cast<int>(b.integer("max", bl.max, 1, 0x7FFFFFFF));
                bl.brightness = static_cast<int>(b.integer("brightness", bl.max / 2, 0, 0x7FFFFFFF));
                if (bl.brightness > bl.max)
                    fail(b.sub("brightness"), "above max");
                bl.connector = b.string("connector", "");
                d.backlights.push_back(bl);
            }
        }
        if (o.has("otherBuses")) {
            const json& buses = o.array("otherBuses");
            for (size_t i = 0; i < buses.size(); ++i) {
                Obj b(buses[i], "otherBuses[" + std::to_string(i) + "]");
                BusConfig bus;
                bus.bus = static_cast<int>(b.integer("bus", -1, 0, 1023));
                if (bus.bus < 0)
                    fail(b.sub("bus"), "required");
                bus.name = b.string("name", bus.name);
                if (b.has("card"))
                    bus.card = static_cast<int>(b.integer("card", 0, 0, 63));
                d.otherBuses.push_back(bus);
            }
        }
        if (o.has("keyboards"))
            d.keyboards = parseKeyboards(o.at("keyboards"), "keyboards");
        if (o.has("uinput"))
            d.uinput = parseUinput(o.at("uinput"), "uinput");
    }
    d.validate();
    return d;
}

DeskConfig DeskConfig::fromFile(const std::string& path)
{
    std::ifstream in(path);
    if (!in)
        throw std::runtime_error("cannot read desk file " + path);
    std::stringstream ss;
    ss << in.rdbuf();
    try {
        return fromJson(ss.str());
    } catch (const std::runtime_error& e) {
        throw std::runtime_error(path + ": " + e.what());
    }
}

void DeskConfig::validate() const
{
    std::set<int> buses, cardIndexes;
    std::set<std::string> names, backlightNames;
    auto useBus = [&](int bus, const std::string& where) {
        if (bus < 0 || bus > 1023)
            fail(where, "bus number out of range 0..1023");
        if (!buses.insert(bus).second)
            fail(where, "bus " + std::to_string(bus) + " is used twice");
    };
    for (size_t ci = 0; ci < cards.size(); ++ci) {
        const auto& card = cards[ci];
        const std::string cpath = "cards[" + std::to_string(ci) + "]";
        if (!cardIndexes.insert(card.index).second)
            fail(cpath + ".index", "card" + std::to_string(card.index) + " is defined twice");
        std::set<uint32_t> ids;
        for (size_t ki = 0; ki < card.connectors.size(); ++ki) {
            const auto& c = card.connectors[ki];
            const std::string kpath = cpath + ".connectors[" + std::to_string(ki) + "]";
            if (connectorType(c.name).empty())
                fail(kpath + ".name", "\"" + c.name + "\" is not <type>-<number>");
            if (!names.insert("card" + std::to_string(card.index) + "-" + c.name).second)
                fail(kpath + ".name", "\"" + c.name + "\" is defined twice");
            if (c.connectorId && !ids.insert(*c.connectorId).second)
                fail(kpath + ".connectorId", std::to_string(*c.connectorId) + " is used twice");
            if (c.ddc)
                useBus(c.ddc->bus, kpath + ".ddc.bus");
            if (c.monitor && !c.ddc)
                fail(kpath + ".monitor", "a monitor needs a ddc adapter");
            if (c.monitor && c.monitor->max == 0)
                fail(kpath + ".monitor.max", "must be at least 1 (use faults.maxZero to report 0)");
            if (c.monitor && c.monitor->current > c.monitor->max && !c.monitor->faults.currentAboveMax)
                fail(kpath + ".monitor.current", "above max; set faults.currentAboveMax to allow it");
        }
    }
    for (size_t i = 0; i < otherBuses.size(); ++i) {
        useBus(otherBuses[i].bus, "otherBuses[" + std::to_string(i) + "].bus");
        if (otherBuses[i].card && !cardIndexes.count(*otherBuses[i].card))
            fail("otherBuses[" + std::to_string(i) + "].card", "no card" + std::to_string(*otherBuses[i].card));
    }
    for (size_t i = 0; i < backlights.size(); ++i) {
        const auto& b = backlights[i];
        const std::string bpath = "backlights[" + std::to_string(i) + "]";
        if (b.name.empty() || b.name.find('/') != std::string::npos)
            fail(bpath + ".name", "expected a device name such as \"intel_backlight\"");
        if (!backlightNames.insert(b.name).second)
            fail(bpath + ".name", "\"" + b.name + "\" is defined twice");
        if (!b.connector.empty() && !names.count(b.connector))
            fail(bpath + ".connector", "no connector \"" + b.connector + "\" (name it as in sysfs: card0-eDP-1)");
        if (b.max < 1 || b.brightness < 0 || b.brightness > b.max)
            fail(bpath + ".brightness", "expected 0..max with max >= 1");
    }
    if (byteTimeUs < 0)
        fail("byteTimeUs", "must not be negative");
    validateKeyboards(*this);
}

DeskConfig DeskConfig::defaultDesk()
{
    DeskConfig d;
    CardConfig card;
    card.index = 0;

    ConnectorConfig dp1;
    dp1.name = "DP-1";
    dp1.connectorId = 103;
    dp1.edid = EdidConfig{"DEL", 0xA0C4, 0x4C4B3132, "DELL U2720Q", std::nullopt, std::nullopt};
    dp1.ddc = DdcConfig{5, DdcVia::Aux, "AUX B/DDI B/PHY B"};
    dp1.monitor = MonitorConfig::realistic();
    dp1.monitor->current = 50;

    ConnectorConfig dp2;
    dp2.name = "DP-2";
    dp2.status = "disconnected";
    dp2.enabled = false;
    dp2.connectorId = 113;
    dp2.edid = EdidConfig{};
    dp2.edid->raw = std::vector<uint8_t>{};
    dp2.ddc = DdcConfig{6, DdcVia::Aux, "AUX C/DDI C/PHY C"};

    ConnectorConfig hdmi;
    hdmi.name = "HDMI-A-1";
    hdmi.connectorId = 110;
    hdmi.edid = EdidConfig{"GSM", 0x5B09, 0x0005A4B1, "LG HDR 4K", std::nullopt, std::nullopt};
    hdmi.ddc = DdcConfig{3, DdcVia::Link, "i915 gmbus dpb"};
    hdmi.monitor = MonitorConfig::realistic();
    hdmi.monitor->current = 70;

    ConnectorConfig edp;
    edp.name = "eDP-1";
    edp.connectorId = 95;
    edp.edid = EdidConfig{"BOE", 0x08DF, 0, "", std::nullopt, std::nullopt};
    edp.ddc = DdcConfig{4, DdcVia::Aux, "AUX A/DDI A/PHY A"};

    card.connectors = {edp, dp1, dp2, hdmi};
    d.cards.push_back(card);

    BacklightConfig bl;
    bl.name = "intel_backlight";
    bl.type = "raw";
    bl.max = 19200;
    bl.brightness = 9600;
    bl.connector = "card0-eDP-1";
    d.backlights.push_back(bl);

    d.otherBuses.push_back(BusConfig{0, "SMBus I801 adapter at efa0", std::nullopt});
    addDefaultKeyboards(d);
    return d;
}

} // namespace VirtualDesk
