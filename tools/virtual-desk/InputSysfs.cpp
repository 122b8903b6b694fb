// SPDX-License-Identifier: GPL-3.0-or-later
// Input devices in sysfs, as the kernel's input core lays them out: inputK with name, phys, uniq, id/*,
// capabilities/* and properties (and the same in its uevent, with MODALIAS), and its evdev child eventN with the
// node's numbers (13:64+N).
#include "tools/virtual-desk/InputSysfs.h"

#include <cstdio>

namespace VirtualDesk {

namespace {

std::string attr(const std::string& name, const std::string& value)
{
    return "A: " + name + "=" + value + "\\n\n";
}

std::string hex(unsigned v, const char* format)
{
    char b[16];
    std::snprintf(b, sizeof b, format, v);
    return b;
}

// "e0,1,4,11,14," — the set codes from `from` on, upper-case hex, each followed by a comma.
std::string modaliasBits(char tag, const Bitmap& bits, int from)
{
    std::string out(1, tag);
    for (int b : bits.list())
        if (b >= from)
            out += hex(static_cast<unsigned>(b), "%X") + ",";
    return out;
}

} // namespace

std::string modalias(const InputIdentity& id, const InputCapabilities& c)
{
    std::string m = "input:b" + hex(id.bustype, "%04X") + "v" + hex(id.vendor, "%04X") + "p" + hex(id.product, "%04X") +
                    "e" + hex(id.version, "%04X") + "-";
    m += modaliasBits('e', c.ev, 0);
    m += modaliasBits('k', c.key, KEY_MIN_INTERESTING);
    m += modaliasBits('r', c.rel, 0);
    m += modaliasBits('a', c.abs, 0);
    m += modaliasBits('m', c.msc, 0);
    m += modaliasBits('l', c.led, 0);
    m += modaliasBits('s', c.snd, 0);
    m += modaliasBits('f', c.ff, 0);
    m += modaliasBits('w', c.sw, 0);
    return m;
}

std::string inputRecords(const std::string& inputDevpath, int event, const InputIdentity& id,
                         const InputCapabilities& c, const std::vector<std::string>& udevProperties, bool hasParent)
{
    // The uevent of inputK, in the kernel's order.
    std::string r = "P: " + inputDevpath + "\nE: SUBSYSTEM=input\n";
    r += "E: PRODUCT=" + hex(id.bustype, "%x") + "/" + hex(id.vendor, "%x") + "/" + hex(id.product, "%x") + "/" +
         hex(id.version, "%x") + "\n";
    r += "E: NAME=\"" + id.name + "\"\n";
    if (id.phys)
        r += "E: PHYS=\"" + *id.phys + "\"\n";
    if (id.uniq)
        r += "E: UNIQ=\"" + *id.uniq + "\"\n";
    r += "E: PROP=" + c.prop.sysfs() + "\nE: EV=" + c.ev.sysfs() + "\n";
    const std::pair<int, const char*> typed[] = {{EV_KEY, "KEY"}, {EV_REL, "REL"}, {EV_ABS, "ABS"}, {EV_MSC, "MSC"},
                                                 {EV_LED, "LED"}, {EV_SND, "SND"}, {EV_FF, "FF"},   {EV_SW, "SW"}};
    for (const auto& [type, name] : typed)
        if (c.ev.test(type))
            r += std::string("E: ") + name + "=" + c.bits(type)->sysfs() + "\n";
    r += "E: MODALIAS=" + modalias(id, c) + "\n";
    for (const auto& p : udevProperties)
        r += "E: " + p + "\n";
    r += attr("name", id.name);
    r += attr("phys", id.phys.value_or(""));
    r += attr("uniq", id.uniq.value_or(""));
    r += attr("properties", c.prop.sysfs());
    r += attr("modalias", modalias(id, c));
    r += attr("id/bustype", hex(id.bustype, "%04x"));
    r += attr("id/vendor", hex(id.vendor, "%04x"));
    r += attr("id/product", hex(id.product, "%04x"));
    r += attr("id/version", hex(id.version, "%04x"));
    const std::pair<int, const char*> files[] = {{0, "ev"},      {EV_KEY, "key"}, {EV_REL, "rel"}, {EV_ABS, "abs"},
                                                 {EV_MSC, "msc"}, {EV_LED, "led"}, {EV_SND, "snd"}, {EV_FF, "ff"},
                                                 {EV_SW, "sw"}};
    for (const auto& [type, name] : files)
        r += attr(std::string("capabilities/") + name, c.bits(type)->sysfs());
    if (hasParent)
        r += "L: device=../..\n"; // the device it belongs to: the serio port, the HID interface, the ACPI device
    r += "\n";

    // The evdev child and its node.
    const std::string n = std::to_string(event), minor = std::to_string(64 + event);
    r += "P: " + inputDevpath + "/event" + n + "\nE: SUBSYSTEM=input\nE: DEVNAME=/dev/input/event" + n +
         "\nE: MAJOR=13\nE: MINOR=" + minor + "\n";
    for (const auto& p : udevProperties)
        r += "E: " + p + "\n";
    r += attr("dev", "13:" + minor);
    r += "L: device=..\n\n"; // /sys/class/input/eventN/device is the input device
    return r;
}

} // namespace VirtualDesk
