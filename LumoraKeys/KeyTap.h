// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once
// The brightness keys' tap: takes every input device that reports the brightness keys (EVIOCGRAB), gives each a
// uinput clone (its twin) that starts in the device's state (switches, lights), and passes every event through the
// twin unless the client consumes it. Only a brightness key going down (a press or an auto-repeat) waits for a
// decision; everything else goes on at once, in order. Keyboards that come later are taken too; virtual devices
// (the twins, and other programs' uinput keyboards) never are.
//
// Threads: each taken device is read on a thread of its own, and one more thread watches /dev/input and runs the
// decisions' outcomes; none of them ever waits for the thread that decides. A press is handed out through
// `onPress` on a reading thread; whoever decides calls settle() from any thread. The events of that device that
// follow the press wait behind it, so that the order on the clone stays the order typed; other devices go on.
// A press that nobody settles within `decisionDeadline` is passed on.
//
// Destroying the tap passes on what still waits, releases every grab and destroys the clones (the kernel releases
// the keys still held on a clone). If the process dies, the kernel does the same. Any error on a device (a read,
// a write to its twin) releases that device, so that it goes on to the desktop untouched; an error of the capture
// thread itself releases them all.

#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <string_view>

#include "LumoraCore/KeyEventDecision.h"

namespace Lumora::Keys {

struct KeyPress {
    std::uint64_t id = 0;  // for settle()
    KeyEvent event;
    bool option = false;   // Alt was held: on the pressing device, or on any other keyboard
};

class KeyTap {
public:
    // Returns whether the press was handed to someone who will decide it; a press nobody was told of goes on at once.
    using OnPress = std::function<bool(const KeyPress&)>;

    static constexpr std::chrono::milliseconds decisionDeadline{250};

    // The one seat whose devices are taken. A twin made through uinput has no seat of its own, so udev gives it to
    // seat0: a keyboard of another seat taken and twinned would type into seat0's session.
    static constexpr std::string_view servedSeat = "seat0";

    // Nothing when /dev/uinput cannot be opened for writing or the watch on /dev/input cannot be set up. A device
    // that cannot be opened is left alone; the others are taken. `onPress` runs on a reading thread: it must hand the
    // press over and return.
    static std::unique_ptr<KeyTap> create(OnPress onPress);
    ~KeyTap();

    KeyTap(const KeyTap&) = delete;
    KeyTap& operator=(const KeyTap&) = delete;

    // Decides a press: runs `decide` on the calling thread unless the press has already been passed on (deadline,
    // unknown id), then consumes the press when it returned true and passes it on otherwise. Returns whether
    // `decide` ran.
    bool settle(std::uint64_t press, const std::function<bool()>& decide);

    struct Impl;

private:
    explicit KeyTap(std::unique_ptr<Impl> impl);
    std::unique_ptr<Impl> impl_;
};

}  // namespace Lumora::Keys
