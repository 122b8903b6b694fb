// SPDX-License-Identifier: GPL-3.0-or-later
// The kinds of keyboard the desk has: the laptop's i8042 keyboard, an external USB keyboard (its main interface and
// its consumer-control interface) and the ACPI Video Bus, with the capabilities and sysfs places the kernel gives
// them.
#include "tools/virtual-desk/KeyboardKinds.h"

#include <cstdio>
#include <map>
#include <stdexcept>

namespace VirtualDesk {

namespace {

// The main block of a PC keyboard: letters, digits, punctuation, F1-F12, modifiers, keypad, arrows and editing keys.
std::vector<int> mainBlock()
{
    std::vector<int> keys;
    for (int k = KEY_ESC; k <= KEY_KPDOT; ++k)
        keys.push_back(k);
    for (int k : {KEY_102ND, KEY_F11, KEY_F12, KEY_KPENTER, KEY_RIGHTCTRL, KEY_KPSLASH, KEY_SYSRQ, KEY_RIGHTALT,
                  KEY_HOME, KEY_UP, KEY_PAGEUP, KEY_LEFT, KEY_RIGHT, KEY_END, KEY_DOWN, KEY_PAGEDOWN, KEY_INSERT,
                  KEY_DELETE, KEY_MUTE, KEY_VOLUMEDOWN, KEY_VOLUMEUP, KEY_PAUSE, KEY_LEFTMETA, KEY_RIGHTMETA,
                  KEY_COMPOSE})
        keys.push_back(k);
    return keys;
}

std::string attr(const std::string& name, const std::string& value)
{
    return "A: " + name + "=" + value + "\\n\n";
}

std::string hex4(unsigned v)
{
    char b[8];
    std::snprintf(b, sizeof b, "%04X", v & 0xFFFF);
    return b;
}

} // namespace

bool isKeyboardKind(std::string_view kind)
{
    return kind == "laptop" || kind == "plain" || kind == "consumer" || kind == "videoBus";
}

KeyboardModel keyboardModel(const KeyboardConfig& k, int unit)
{
    KeyboardModel m;
    m.identity.name = k.name;
    auto& caps = m.caps;
    std::vector<int> keys;
    const std::string u = std::to_string(unit);
    if (k.kind == "laptop" || k.kind == "plain") {
        caps.ev.set(EV_KEY);
        caps.ev.set(EV_MSC);
        caps.ev.set(EV_LED);
        caps.ev.set(EV_REP);
        caps.msc.set(MSC_SCAN);
        keys = mainBlock();
        m.udevProperties = {"ID_INPUT=1", "ID_INPUT_KEY=1", "ID_INPUT_KEYBOARD=1"};
    }
    if (k.kind == "laptop") {
        for (int led : {LED_NUML, LED_CAPSL, LED_SCROLLL})
            caps.led.set(led);
        keys.push_back(KEY_BRIGHTNESSDOWN);
        keys.push_back(KEY_BRIGHTNESSUP);
        m.scan = ScanCodes::AtKeyboard;
        m.identity.phys = "isa0060/serio" + u + "/input0";
        m.identity.bustype = 0x11; // BUS_I8042
        m.identity.vendor = 0x0001;
        m.identity.product = 0x0001;
        m.identity.version = 0xab83;
        m.parents = {{"/devices/platform/i8042", "P: /devices/platform/i8042\nE: SUBSYSTEM=platform\nE: DRIVER=i8042\n"},
                     {"/devices/platform/i8042/serio" + u,
                      "P: /devices/platform/i8042/serio" + u + "\nE: SUBSYSTEM=serio\nE: DRIVER=atkbd\nE: SERIO_TYPE=06\n" +
                          attr("description", "i8042 KBD port")}};
    } else if (k.kind == "plain" || k.kind == "consumer") {
        // One USB keyboard on port `unit` of the xHCI controller: interface 0 is the keyboard, 1 the consumer control.
        const bool consumer = k.kind == "consumer";
        const std::string iface = consumer ? "1" : "0";
        const std::string usb = "/devices/pci0000:00/0000:00:14.0/usb1/1-" + u;
        const std::string hid = usb + "/1-" + u + ":1." + iface + "/0003:046D:C31C." + hex4(unit * 2 + (consumer ? 1 : 0));
        m.identity.phys = "usb-0000:00:14.0-" + u + "/input" + iface;
        m.identity.bustype = 0x03; // BUS_USB
        m.identity.vendor = 0x046d;
        m.identity.product = 0xc31c;
        m.identity.version = 0x0110;
        m.identity.uniq = "";
        m.parents = {{usb, "P: " + usb + "\nE: SUBSYSTEM=usb\nE: DEVTYPE=usb_device\nE: DRIVER=usb\n" +
                               attr("idVendor", "046d") + attr("idProduct", "c31c") + attr("product", "USB Keyboard")},
                     {usb + "/1-" + u + ":1." + iface, "P: " + usb + "/1-" + u + ":1." + iface +
                                                           "\nE: SUBSYSTEM=usb\nE: DEVTYPE=usb_interface\nE: DRIVER=usbhid\n" +
                                                           attr("bInterfaceNumber", "0" + iface)},
                     {hid, "P: " + hid + "\nE: SUBSYSTEM=hid\nE: DRIVER=hid-generic\nE: HID_NAME=" + k.name + "\n"}};
        if (consumer) {
            caps.ev.set(EV_KEY);
            caps.ev.set(EV_MSC);
            caps.msc.set(MSC_SCAN);
            keys = {KEY_MUTE,     KEY_VOLUMEDOWN, KEY_VOLUMEUP,     KEY_CALC,           KEY_MAIL,     KEY_BOOKMARKS,
                    KEY_COMPUTER, KEY_BACK,       KEY_FORWARD,      KEY_NEXTSONG,       KEY_PLAYPAUSE, KEY_PREVIOUSSONG,
                    KEY_STOPCD,   KEY_HOMEPAGE,   KEY_REFRESH,      KEY_SEARCH,         KEY_BRIGHTNESSDOWN,
                    KEY_BRIGHTNESSUP, KEY_MEDIA};
            m.scan = ScanCodes::UsbConsumer;
            m.udevProperties = {"ID_INPUT=1", "ID_INPUT_KEY=1"};
        } else {
            for (int led = LED_NUML; led <= LED_KANA; ++led)
                caps.led.set(led);
            m.scan = ScanCodes::UsbKeyboard;
        }
    } else if (k.kind == "videoBus") {
        caps.ev.set(EV_KEY);
        keys = {KEY_SWITCHVIDEOMODE, KEY_VIDEO_NEXT, KEY_VIDEO_PREV,  KEY_BRIGHTNESS_CYCLE,
                KEY_BRIGHTNESSUP,    KEY_BRIGHTNESSDOWN, KEY_BRIGHTNESS_ZERO, KEY_DISPLAY_OFF};
        m.identity.phys = "LNXVIDEO/video/input0";
        m.identity.bustype = 0x19; // BUS_HOST
        m.identity.product = 0x0006;
        const std::string acpi = "/devices/LNXSYSTM:00/LNXSYBUS:00/PNP0A08:00/LNXVIDEO:0" + u;
        m.parents = {{acpi, "P: " + acpi + "\nE: SUBSYSTEM=acpi\nE: DRIVER=video\n" + attr("hid", "LNXVIDEO") +
                                attr("path", "\\_SB_.PCI0.GFX0")}};
        m.udevProperties = {"ID_INPUT=1", "ID_INPUT_KEY=1"};
    } else {
        throw std::invalid_argument("unknown keyboard kind \"" + k.kind +
                                    "\" (expected laptop, plain, consumer or videoBus)");
    }
    if (k.keys) {
        keys = *k.keys;
        caps.ev.set(EV_KEY);
    }
    for (int key : keys)
        caps.key.set(key);
    if (!k.switches.empty())
        caps.ev.set(EV_SW);
    for (int sw : k.switches)
        caps.sw.set(sw);
    if (!k.seat.empty())
        m.udevProperties.push_back("ID_SEAT=" + k.seat);
    return m;
}

int scanCode(ScanCodes scan, int key)
{
    switch (scan) {
    case ScanCodes::None:
        return -1;
    case ScanCodes::AtKeyboard: {
        // Set 1: the main block's scan codes are the key codes; the extended keys (E0 prefix) get bit 7.
        static const std::map<int, int> extended = {
            {KEY_KPENTER, 0x9c}, {KEY_RIGHTCTRL, 0x9d}, {KEY_KPSLASH, 0xb5}, {KEY_SYSRQ, 0xb7}, {KEY_RIGHTALT, 0xb8},
            {KEY_HOME, 0xc7},    {KEY_UP, 0xc8},        {KEY_PAGEUP, 0xc9},  {KEY_LEFT, 0xcb},  {KEY_RIGHT, 0xcd},
            {KEY_END, 0xcf},     {KEY_DOWN, 0xd0},      {KEY_PAGEDOWN, 0xd1}, {KEY_INSERT, 0xd2}, {KEY_DELETE, 0xd3},
            {KEY_MUTE, 0xa0},    {KEY_VOLUMEDOWN, 0xae}, {KEY_VOLUMEUP, 0xb0}, {KEY_PAUSE, 0xc5}, {KEY_LEFTMETA, 0xdb},
            {KEY_RIGHTMETA, 0xdc}, {KEY_COMPOSE, 0xdd}, {KEY_BRIGHTNESSDOWN, 0x85}, {KEY_BRIGHTNESSUP, 0x86}};
        if (key > 0 && key <= KEY_F12 && key != 84)
            return key;
        auto it = extended.find(key);
        return it != extended.end() ? it->second : 0x80 | (key & 0x7f);
    }
    case ScanCodes::UsbKeyboard: {
        // HID keyboard page (0x07) usages.
        static const std::map<int, int> usage = [] {
            std::map<int, int> u;
            const int letters[26] = {KEY_A, KEY_B, KEY_C, KEY_D, KEY_E, KEY_F, KEY_G, KEY_H, KEY_I,
                                     KEY_J, KEY_K, KEY_L, KEY_M, KEY_N, KEY_O, KEY_P, KEY_Q, KEY_R,
                                     KEY_S, KEY_T, KEY_U, KEY_V, KEY_W, KEY_X, KEY_Y, KEY_Z};
            for (int i = 0; i < 26; ++i)
                u[letters[i]] = 0x04 + i;
            for (int i = 0; i < 10; ++i)
                u[KEY_1 + i] = 0x1e + i; // KEY_1 .. KEY_0 are consecutive
            for (int i = 0; i < 10; ++i)
                u[KEY_F1 + i] = 0x3a + i;
            const std::pair<int, int> rest[] = {
                {KEY_ENTER, 0x28},     {KEY_ESC, 0x29},        {KEY_BACKSPACE, 0x2a}, {KEY_TAB, 0x2b},
                {KEY_SPACE, 0x2c},     {KEY_MINUS, 0x2d},      {KEY_EQUAL, 0x2e},     {KEY_LEFTBRACE, 0x2f},
                {KEY_RIGHTBRACE, 0x30}, {KEY_BACKSLASH, 0x31}, {KEY_SEMICOLON, 0x33}, {KEY_APOSTROPHE, 0x34},
                {KEY_GRAVE, 0x35},     {KEY_COMMA, 0x36},      {KEY_DOT, 0x37},       {KEY_SLASH, 0x38},
                {KEY_CAPSLOCK, 0x39},  {KEY_F11, 0x44},        {KEY_F12, 0x45},       {KEY_SYSRQ, 0x46},
                {KEY_SCROLLLOCK, 0x47}, {KEY_PAUSE, 0x48},     {KEY_INSERT, 0x49},    {KEY_HOME, 0x4a},
                {KEY_PAGEUP, 0x4b},    {KEY_DELETE, 0x4c},     {KEY_END, 0x4d},       {KEY_PAGEDOWN, 0x4e},
                {KEY_RIGHT, 0x4f},     {KEY_LEFT, 0x50},       {KEY_DOWN, 0x51},      {KEY_UP, 0x52},
                {KEY_NUMLOCK, 0x53},   {KEY_LEFTCTRL, 0xe0},   {KEY_LEFTSHIFT, 0xe1}, {KEY_LEFTALT, 0xe2},
                {KEY_LEFTMETA, 0xe3},  {KEY_RIGHTCTRL, 0xe4},  {KEY_RIGHTSHIFT, 0xe5}, {KEY_RIGHTALT, 0xe6},
                {KEY_RIGHTMETA, 0xe7}};
            for (const auto& [k, v] : rest)
                u[k] = v;
            return u;
        }();
        auto it = usage.find(key);
        return 0x70000 | (it != usage.end() ? it->second : key);
    }
    case ScanCodes::UsbConsumer: {
        // HID consumer page (0x0C) usages.
        static const std::map<int, int> usage = {
            {KEY_MUTE, 0xe2},     {KEY_VOLUMEUP, 0xe9},    {KEY_VOLUMEDOWN, 0xea},   {KEY_PLAYPAUSE, 0xcd},
            {KEY_NEXTSONG, 0xb5}, {KEY_PREVIOUSSONG, 0xb6}, {KEY_STOPCD, 0xb7},      {KEY_BRIGHTNESSUP, 0x6f},
            {KEY_BRIGHTNESSDOWN, 0x70}, {KEY_CALC, 0x192}, {KEY_MAIL, 0x18a},        {KEY_HOMEPAGE, 0x223},
            {KEY_SEARCH, 0x221},  {KEY_BACK, 0x224},       {KEY_FORWARD, 0x225},     {KEY_REFRESH, 0x227},
            {KEY_BOOKMARKS, 0x22a}, {KEY_COMPUTER, 0x194}, {KEY_MEDIA, 0x183}};
        auto it = usage.find(key);
        return 0xc0000 | (it != usage.end() ? it->second : key);
    }
    }
    return -1;
}

} // namespace VirtualDesk
