// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once
// An emulated evdev input device, as the kernel's input core and evdev handler keep it: its identity and
// capabilities, its key/LED/switch state, the grab, and one bounded event queue per open descriptor (a "reader").
// A keyboard of the desk and a uinput clone are both one of these. It knows nothing of umockdev, nodes or sysfs;
// the desk calls it under its one mutex (not thread-safe itself).
#include <linux/input.h> // event codes, FF_MAX

#include <array>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <map>
#include <optional>
#include <string>
#include <vector>

namespace VirtualDesk {

// A bitmap of event codes sized as the kernel sizes it (whole longs up to the type's MAX).
class Bitmap {
public:
    explicit Bitmap(int max = 0) : maxBit(max), words(static_cast<size_t>(max) / 64 + 1, 0) {}
    void set(int bit, bool on = true);
    bool test(int bit) const;
    bool any() const;
    int max() const { return maxBit; }
    std::vector<int> list() const;                // the set bits in order
    std::vector<uint8_t> bytes() const;           // as EVIOCGBIT/EVIOCGKEY copy it: little-endian longs
    std::string sysfs() const;                    // the kernel's capabilities format: "120013", "3 0 0 10000000"
    bool operator==(const Bitmap&) const = default;

private:
    int maxBit;
    std::vector<uint64_t> words;
};

struct InputIdentity {
    std::string name;
    std::optional<std::string> phys;  // none: EVIOCGPHYS fails with ENOENT (a uinput device without UI_SET_PHYS)
    std::optional<std::string> uniq;
    uint16_t bustype = 0, vendor = 0, product = 0, version = 0;
};

struct InputCapabilities {
    Bitmap ev{EV_MAX}, key{KEY_MAX}, rel{REL_MAX}, abs{ABS_MAX}, msc{MSC_MAX}, led{LED_MAX}, snd{SND_MAX},
        ff{FF_MAX}, sw{SW_MAX}, prop{INPUT_PROP_MAX};
    Bitmap* bits(int type);           // 0 gives the event types; nullptr for a type without codes
    const Bitmap* bits(int type) const;
};

// One event as a reader gets it, stamped with the three clocks a descriptor may choose (EVIOCSCLOCKID).
struct StampedEvent {
    int64_t realUs = 0, monoUs = 0, bootUs = 0;
    uint16_t type = 0, code = 0;
    int32_t value = 0;
};

struct Clocks {
    int64_t realUs = 0, monoUs = 0, bootUs = 0;
    static Clocks now();
};

class EmulatedKeyboard {
public:
    // Events a descriptor can hold before the queue overflows (the kernel's size for a keyboard: 64 slots, one kept
    // free).
    static constexpr size_t kQueueSlots = 64;

    EmulatedKeyboard(InputIdentity identity, InputCapabilities caps);

    const InputIdentity& identity() const { return id; }
    const InputCapabilities& capabilities() const { return caps; }

    // ---- the input core ----
    // One event from the hardware or a uinput write. Unsupported events are dropped; EV_KEY updates the key state
    // and is dropped when it would not change it (repeats, value 2, always pass); SYN_REPORT ends the frame and
    // delivers it to the readers (a frame of nothing but SYN_REPORT is dropped). Returns true when a frame was
    // delivered.
    bool emit(uint16_t type, uint16_t code, int32_t value, const Clocks& when);

    // ---- readers: the open descriptors ----
    void open(int reader);
    void close(int reader);                  // also releases its grab
    bool has(int reader) const { return readers.count(reader) != 0; }
    size_t readerCount() const { return readers.size(); }
    int grab(int reader);                    // 0, or EBUSY when anyone holds the grab already
    int ungrab(int reader);                  // 0, or EINVAL when the reader does not hold it
    int grabber() const { return grabbedBy; } // the reader holding the grab, 0 when none
    int setClock(int reader, int clockId);   // 0 or EINVAL
    void revoke(int reader);
    bool revoked(int reader) const;
    size_t readable(int reader) const;       // events up to the last complete frame
    bool anyReadable() const;
    std::vector<StampedEvent> take(int reader, size_t max);
    int clock(int reader) const;
    void overflowNext();                     // the next event each reader gets comes after a SYN_DROPPED

    // ---- state ----
    const Bitmap& keyState() const { return keys; }
    const Bitmap& ledState() const { return leds; }
    const Bitmap& switchState() const { return switches; }
    const Bitmap& soundState() const { return sounds; }
    std::array<unsigned, 2> repeat() const { return rep; }  // delay, period (ms)
    void setRepeat(std::array<unsigned, 2> r) { rep = r; }

    bool alive() const { return isAlive; }
    void kill() { isAlive = false; }         // removed or destroyed: every call on it fails with ENODEV

private:
    struct Reader {
        std::deque<StampedEvent> queue;
        size_t complete = 0;                 // the first `complete` events form whole frames and can be read
        int clockId = 0;                     // CLOCK_REALTIME (the default), CLOCK_MONOTONIC or CLOCK_BOOTTIME
        bool revoked = false;
        bool dropNext = false;
    };
    void deliver(Reader& r, const StampedEvent& e);

    InputIdentity id;
    InputCapabilities caps;
    Bitmap keys{KEY_MAX}, leds{LED_MAX}, switches{SW_MAX}, sounds{SND_MAX};
    std::array<unsigned, 2> rep{250, 33};
    std::vector<StampedEvent> frame;         // the events of the frame under way
    std::map<int, Reader> readers;
    int grabbedBy = 0;
    bool isAlive = true;
};

} // namespace VirtualDesk
