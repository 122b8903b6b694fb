// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once
// The virtual desk: emulated display hardware for Lumora's tests, benchmarks and demo.
//
// A Desk builds, inside umockdev's test bed, the sysfs tree and /dev nodes of a desk (DRM connectors with
// status, enabled, connector_id and EDID; i2c adapters with /dev/i2c-N nodes; backlight devices) and answers
// every /dev/i2c-N node with an emulated DDC/CI monitor. Programs under umockdev's preload (this process, and
// children started with its environment) see that hardware through plain open/ioctl/read/write.
//
// The process must run under `umockdev-wrapper`; at most one Desk lives in a process at a time.
// Every public operation of Desk is thread-safe. Connectors are named as in /sys/class/drm: "card0-DP-1".
// Operations on an unknown connector or backlight throw std::invalid_argument.
//
// See tools/virtual-desk/README.md for the desk file format, the log format and the violations.

#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace VirtualDesk {

// Ways a monitor misbehaves. All can be set in the desk file and changed at run time (Desk::setFaults). A NAK is
// a transfer the monitor does not acknowledge: it fails with the adapter's errno (DdcConfig::nakErrno).
struct Faults {
    bool neverAnswer = false;     // no reply is ever prepared: every read at 0x37 is NAKed
    int badChecksumReplies = 0;   // the next k replies read carry a wrong checksum (counts down)
    bool nakWhileBusy = false;    // a transfer during the busy time after a Set VCP is NAKed and not applied
    bool dropWhileBusy = false;   // a request during the busy time after a Set VCP is acknowledged and ignored
    int nullReplies = 0;          // the next k reads return the null message 6E 80 BE and filler, the request they
                                  // answer lost (counts down)
    uint8_t nullFiller = 0x00;    // what follows the null message in a longer read: 0x00 or 0xFF
    bool nullWhenNotReady = false; // a read with no reply ready returns the null message instead of a NAK
    bool silentInStandby = false; // in power mode 4 or 5 nothing at 0x37 is answered but Set VCP 0xD6
    bool maxZero = false;         // replies report a maximum of 0
    bool currentAboveMax = false; // Set VCP stores brightness above the maximum instead of clamping
    bool unplugged = false;       // every transfer on the monitor's bus is NAKed; sysfs is unchanged
    bool operator==(const Faults&) const = default;
};

// One DDC/CI monitor answering at 0x37 on its connector's DDC bus. `MonitorConfig{}` is a lenient monitor that
// takes everything at any time; `realistic()` behaves as many real ones do, and is what desk files and the
// default desk give unless told otherwise.
struct MonitorConfig {
    uint16_t max = 100;       // brightness maximum, 1..65535
    uint16_t current = 50;    // brightness; above max only with faults.currentAboveMax
    uint8_t power = 1;        // VCP 0xD6: 1 on, 4 standby, 5 off
    int replyDelayMs = 30;    // a Get VCP reply is ready this long after the request
    int busyMs = 50;          // busy this long after a Set VCP (matters with nakWhileBusy or dropWhileBusy)
    int wakeMs = 0;           // after power-on from standby or off, every request is ignored this long
    int replyExpiryMs = 1000; // an unread reply is dropped this long after it became ready
    Faults faults;
    bool hold = false;        // start held (see Desk::hold)

    // NAKs while busy, answers a read with the null message while its reply is not ready, answers nothing in
    // standby but the power command, and ignores requests for 1.5 s after waking.
    static MonitorConfig realistic();
};

// EDID of a connector: generated from the fields, or `raw` verbatim (an empty `raw` gives an empty file).
struct EdidConfig {
    std::string vendor = "LMR";  // three capital letters (PNP id)
    uint16_t model = 0x0001;     // product code, stored little-endian at bytes 10-11
    uint32_t serial = 0;         // stored little-endian at bytes 12-15
    std::string name;            // monitor-name descriptor (0xFC), up to 13 characters; none when empty
    std::optional<std::vector<uint8_t>> raw;
    std::optional<std::string> serialText;  // serial-number descriptor (0xFF), up to 13 characters; else the serial
    std::vector<uint8_t> bytes() const; // the 128 bytes (or raw)
};

// How the connector reaches its DDC adapter: a `ddc` symlink (HDMI, DVI, VGA), an `i2c-N` child directory of
// the connector (DisplayPort AUX), or nothing that sysfs shows: the adapter sits under the card's PCI device and
// no link names it (a DisplayPort MST port on Linux 6.1, "DPMST"; NVIDIA's proprietary driver).
enum class DdcVia { Link, Aux, Pci };

struct DdcConfig {
    int bus = -1;          // i2c bus number N of /dev/i2c-N
    DdcVia via = DdcVia::Link;
    std::string name;      // the adapter's `name` attribute; a driver-like default when empty. "DPMST" refuses
                           // messages longer than 255 bytes (EIO), as the kernel's MST ports do
    uint8_t eepromAddress = 0; // where the EDID EEPROM's current address stands when the desk starts
    int nakErrno = 0;      // the errno of a NAK on this adapter; 0: as the card's driver reports it (nakErrnoOf)
};

struct ConnectorConfig {
    std::string name;                     // "<TYPE>-<n>": "DP-1", "HDMI-A-1", "eDP-1", "DVI-D-1", "VGA-1" ...
    std::string status = "connected";     // "connected", "disconnected" or "unknown"
    bool enabled = true;                  // `enabled` reads "enabled" / "disabled"
    std::optional<uint32_t> connectorId;  // no `connector_id` file when absent (older kernels)
    std::optional<EdidConfig> edid;       // no `edid` file when absent; it reads empty while disconnected
    std::optional<DdcConfig> ddc;         // no DDC adapter when absent
    std::optional<MonitorConfig> monitor; // needs ddc; no device at 0x37 when absent
};

struct CardConfig {
    int index = 0;                     // cardN
    std::string pciSlot = "0000:00:02.0";
    std::string driver = "i915";
    std::vector<ConnectorConfig> connectors;
};

// The errno a transfer that is not acknowledged fails with on this adapter, as real kernels report it: DisplayPort
// AUX and MST ports EREMOTEIO, i915's gmbus ENXIO, the DDC lines of amdgpu, radeon and nvidia cards EIO;
// `ddc.nakErrno` when given.
int nakErrnoOf(const CardConfig& card, const DdcConfig& ddc);

struct BacklightConfig {
    std::string name = "intel_backlight";
    std::string type = "raw";   // "raw", "platform" or "firmware"
    int max = 100;
    int brightness = 50;
    std::string connector;      // "card0-eDP-1": the device lives under that connector; empty: not under one
};

// An i2c adapter that no DRM connector reaches (an SMBus controller, say). Any write on it is a violation.
struct BusConfig {
    int bus = 0;
    std::string name = "SMBus I801 adapter";
    // Under that card's PCI device (an amdgpu "AMDGPU SMU 0", an unused "NVIDIA i2c adapter 1 at 1:00.0");
    // absent: under the SMBus controller (0000:00:1f.4).
    std::optional<int> card;
};

// A keyboard: an evdev input device with its /dev/input/eventN node. `kind` gives its capabilities and where it sits
// in sysfs (README.md, "Keyboards"): "laptop" (the built-in i8042 keyboard, with KEY_BRIGHTNESSDOWN/UP), "plain"
// (an external USB keyboard's main interface, no brightness keys), "consumer" (a USB consumer-control interface:
// media keys and KEY_BRIGHTNESSDOWN/UP), "videoBus" (the ACPI "Video Bus": the brightness and video keys).
struct KeyboardConfig {
    std::string name;                      // the device name, as EVIOCGNAME and sysfs `name` show it
    std::string kind = "plain";
    int event = -1;                        // N of /dev/input/eventN; -1: the lowest free number
    std::string mode = "0660";             // the node's permission bits; the session user may read the node when
                                           // the group or other bits allow reading ("0600" denies it)
    std::optional<std::vector<int>> keys;  // replaces the kind's key codes
    std::vector<int> switches;             // switch codes it also reports (SW_DOCK, SW_TABLET_MODE, ...), all open
    std::string seat;                      // the seat udev gives it (ID_SEAT, "seat1"); empty: none, which is seat0
};

// /dev/uinput. The session user may write it when the group or other bits allow writing ("0600" denies it).
struct UinputConfig {
    std::string mode = "0660";
};

struct DeskConfig {
    std::vector<CardConfig> cards;
    std::vector<BacklightConfig> backlights;
    std::vector<BusConfig> otherBuses;
    bool i2cDev = true;     // false: no /sys/class/i2c-dev and no /dev/i2c-* ("the module is not loaded")
    int byteTimeUs = 100;   // time on the wire per byte (address byte included)
    std::vector<KeyboardConfig> keyboards;
    std::optional<UinputConfig> uinput = UinputConfig{}; // none: no /dev/uinput

    // The desk file (JSON; see README.md). Throws std::runtime_error naming the offending field.
    static DeskConfig fromJson(std::string_view json);
    static DeskConfig fromFile(const std::string& path);
    // card0 with a DisplayPort monitor (DP-1, AUX adapter i2c-5), an HDMI monitor (HDMI-A-1, ddc link to i2c-3),
    // an empty DP-2 (disconnected, i2c-6), a laptop panel eDP-1 (AUX i2c-4, no DDC/CI) with intel_backlight (raw)
    // under it, and an SMBus adapter i2c-0.
    static DeskConfig defaultDesk();
    // Throws std::runtime_error on an inconsistent configuration (duplicate buses or names, bad ranges ...).
    void validate() const;
};

enum class Direction { Write, Read };

// One I2C message as the desk saw it. An I2C_RDWR ioctl with several messages gives several records.
struct Transaction {
    int64_t startUs = 0;      // when the transfer reached the desk, microseconds since the desk started
    int64_t endUs = 0;        // when it completed
    int bus = -1;
    std::string connector;    // "" for a bus no connector reaches
    int client = 0;           // the open descriptor it came on: 1, 2, ... in order of open()
    std::string via;          // "rdwr" (I2C_RDWR ioctl), "write" or "read" (plain write()/read())
    uint16_t address = 0;
    Direction direction = Direction::Write;
    std::vector<uint8_t> bytes; // written bytes (0x51 first for DDC/CI), or the bytes a read returned
    std::string request;      // "get", "set", "reply", "invalid", "other" (0x37); "edid", "offset" (0x50); ""
    int code = -1;            // VCP code of a get/set/reply, else -1
    int value = -1;           // value set, or current value replied, else -1
    std::string outcome;      // "ok" or the errno name ("EREMOTEIO", "ENXIO", ...)
    std::string note;         // why: "bad checksum", "not ready", "busy", "nothing pending", "held" ...
};

std::string toJsonLine(const Transaction&); // one line of the log, without the newline

// One input event as the desk recorded it (a write to a uinput clone).
struct InputEvent {
    int64_t us = 0;      // the desk's clock, as Transaction::startUs
    uint16_t type = 0;   // EV_KEY, EV_MSC, EV_SYN ...
    uint16_t code = 0;
    int32_t value = 0;
    std::string device;  // the clone's node, "/dev/input/event4"
    bool operator==(const InputEvent&) const = default;
};

struct DeskOptions {
    std::string logPath;          // when set, the transactions are written there (JSON lines) when the desk ends
    bool printViolations = true;  // print violations to stderr when the desk ends
    bool trace = false;           // print every transaction to stderr as it completes (a log line)
};

class Desk {
public:
    explicit Desk(const DeskConfig& config, DeskOptions options = {});
    ~Desk();
    Desk(const Desk&) = delete;
    Desk& operator=(const Desk&) = delete;

    // Hot-plug: status, enabled and edid change, then a "change" uevent with HOTPLUG=1 on the card, as the kernel
    // sends. An unplugged monitor keeps its state; every transfer on its bus is NAKed until plug().
    void unplug(std::string_view connector);
    void plug(std::string_view connector);

    // A connector appears on card `card` (an MST hub's new port, say): its directory, DDC adapter, i2c-dev node and
    // monitor, "add" uevents for them, then the card's "change" uevent with HOTPLUG=1. Throws std::invalid_argument
    // when the name or the bus is taken or the configuration is inconsistent.
    void addConnector(int card, const ConnectorConfig& connector);
    // The connector, its adapter and its monitor go away ("remove" uevents, then the card's "change"). Transfers
    // still under way, and any later one on a descriptor of its bus, fail with ENODEV.
    void removeConnector(std::string_view connector);

    // While held, Set VCP requests to the monitor are not completed (the writer blocks in its ioctl) until release.
    void hold(std::string_view connector);
    void release(std::string_view connector);
    int heldCount(std::string_view connector) const; // Set VCP transfers waiting on the hold
    void releaseAll();                                // every monitor
    // Note: umockdev blocks signals in a process while its emulated call is under way, so a process blocked on a
    // held request can only be killed with SIGKILL until the hold is released.

    void setFaults(std::string_view connector, const Faults& faults);
    // The monitor behaves as the profile's ("realistic" or "lenient"; else std::invalid_argument): its faults and
    // wakeMs become the profile's.
    void setProfile(std::string_view connector, std::string_view profile);
    Faults faults(std::string_view connector) const;

    // The monitor's state, as set over DDC/CI or here (setters change it as the monitor's own buttons would).
    uint16_t brightness(std::string_view connector) const;
    uint16_t maxBrightness(std::string_view connector) const;
    uint8_t powerMode(std::string_view connector) const;
    void setBrightness(std::string_view connector, uint16_t value);
    void setPowerMode(std::string_view connector, uint8_t mode); // 1, 4 or 5; waking from 4 or 5 takes wakeMs
    void setMaxBrightness(std::string_view connector, uint16_t max);

    // Backlight devices by name ("intel_backlight"): the value in `brightness`, as last written by anyone.
    int backlightBrightness(std::string_view name) const;
    int backlightMax(std::string_view name) const;
    void setBacklightBrightness(std::string_view name, int value);

    // The kernel's i2c-dev module is loaded now: /sys/class/i2c-dev, the i2c-dev children and /dev/i2c-N appear
    // ("add" uevents). Does nothing when it is loaded already.
    void loadI2cDev();

    int busNumber(std::string_view connector) const; // -1 when the connector has no DDC adapter
    int opens(int bus) const;                         // how many times /dev/i2c-N was opened so far
    std::vector<std::string> connectors() const;     // "card0-DP-1", ... in name order

    std::vector<Transaction> transactions() const;   // in order of completion
    void clearTransactions();
    std::vector<std::string> violations() const;     // empty on a clean run

    // Waits until predicate() holds, re-checking it whenever the desk records something (a transaction, a
    // held request, a backlight write, a state change; a key, a grab, a descriptor opened or closed, a clone created
    // or destroyed). The predicate may call any Desk getter.
    // Returns false when the timeout passed first.
    bool waitFor(const std::function<bool()>& predicate, std::chrono::milliseconds timeout) const;

    // One line of the control language (unplug, plug, hold, release, fault, brightness, backlight, violations;
    // key, keyboard, access, grabbed, forwarded, heldkeys, overflow; see README.md). Returns "ok", "ok <value>" or "error: <message>"; never throws.
    std::string control(std::string_view line);

    // ---- Keyboards and /dev/uinput (README.md, "Keyboards") ----
    // `device` names a keyboard or a uinput clone: "event0", "/dev/input/event0", or a keyboard's name. Unknown
    // devices throw std::invalid_argument.

    // A key as the hardware sends it: one frame of MSC_SCAN (when the device has it), EV_KEY and SYN_REPORT, passed
    // through the input core's rules (a press of a key already down, or a release of a key already up, loses its
    // EV_KEY) and delivered to the grabbing descriptor, else to every open one. value: 1 down, 2 repeat, 0 up.
    // Throws std::invalid_argument when the device lacks the key.
    void pressKey(std::string_view device, int code, int value);
    // A switch of the device closes (true) or opens, as the hardware reports it: EV_SW, SYN_REPORT.
    void setSwitch(std::string_view device, int code, bool closed);
    // A keyboard is plugged in ("add" uevents); returns its node, "/dev/input/event4".
    std::string addKeyboard(const KeyboardConfig& keyboard);
    // The keyboard goes away: "remove" uevents; open descriptors see POLLHUP and ENODEV.
    void removeKeyboard(std::string_view device);
    std::vector<std::string> keyboards() const;          // "/dev/input/event0", ... of the keyboards now present
    bool grabbed(std::string_view device) const;          // a descriptor holds EVIOCGRAB on it
    int openCount(std::string_view device) const;         // descriptors open on its node now
    std::vector<std::string> clones() const;             // "/dev/input/eventN" of the live uinput devices
    std::vector<InputEvent> forwarded() const;           // every event written to any uinput clone, in order
    std::vector<InputEvent> forwarded(std::string_view clone) const;
    // Keys down on the device now. A clone that is gone answers with the keys it had down when it was destroyed
    // (the kernel then releases them itself; the record is there to check that nothing was left held).
    std::vector<int> heldKeys(std::string_view device) const;
    // Access to "/dev/input/eventN" (reading) or "/dev/uinput" (writing) for the session user: "0600" denies it,
    // "0660" grants it. open() and access() then fail with EACCES, also for root; watchers get IN_ATTRIB.
    void setAccess(std::string_view node, const std::string& mode);
    // The next delivery to each descriptor open on the device starts with SYN_DROPPED, as after a queue overflow:
    // what it had not read is lost.
    void overflow(std::string_view device);

    std::string rootDir() const; // the test bed's directory (its sys/ is what /sys shows), for debugging
    int64_t nowUs() const;       // the desk's clock, as in Transaction::startUs

    struct Impl;

private:
    std::unique_ptr<Impl> impl;
};

} // namespace VirtualDesk
