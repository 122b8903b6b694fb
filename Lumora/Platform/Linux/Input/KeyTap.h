#pragma once
// The brightness keys' tap: takes every input device that reports the brightness keys (EVIOCGRAB), gives each a
// uinput clone, and passes every event through the clone unless Lumora consumes it. Only a brightness key going
// down (a press or an auto-repeat) waits for a decision; everything else goes on at once, in order. Keyboards that
// come later are taken too; Lumora's own clones never are.
//
// Threads: each taken device is read on a thread of its own, and one more thread watches /dev/input and runs the
// decisions' outcomes; none of them ever waits for the thread that decides. A press is handed out through
// `onPress` on a reading thread; whoever decides calls settle() from any thread. The events of that device that
// follow the press wait behind it, so that the order on the clone stays the order typed; other devices go on.
// A press that nobody settles within `decisionDeadline` is passed on.
//
// Destroying the tap passes on what still waits, releases every grab and destroys the clones (the kernel releases
// the keys still held on a clone). If the process dies, the kernel does the same.

#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <set>
#include <string>

#include "LumoraCore/KeyEventDecision.h"

namespace Lumora::Platform {

struct KeyPress {
    std::uint64_t id = 0;  // for settle()
    KeyEvent event;
    bool option = false;   // Alt was held: on the pressing device, or on any other keyboard
};

class KeyTap {
public:
    using OnPress = std::function<void(const KeyPress&)>;

    static constexpr std::chrono::milliseconds decisionDeadline{1000};

    // Nothing when /dev/uinput cannot be opened for writing, a device with brightness keys cannot be opened for
    // reading, or the watch on /dev/input cannot be set up. `onPress` runs on a reading thread: it must hand the
    // press over and return.
    static std::unique_ptr<KeyTap> create(OnPress onPress);
    ~KeyTap();

    KeyTap(const KeyTap&) = delete;
    KeyTap& operator=(const KeyTap&) = delete;

    // Decides a press: runs `decide` on the calling thread unless the press has already been passed on (deadline,
    // unknown id), then consumes the press when it returned true and passes it on otherwise. Returns whether
    // `decide` ran.
    bool settle(std::uint64_t press, const std::function<bool()>& decide);

    // The sysfs paths of the clones ("/sys/devices/virtual/input/inputN"), so that they are told from keyboards.
    std::set<std::string> clones() const;

    struct Impl;

private:
    explicit KeyTap(std::unique_ptr<Impl> impl);
    std::unique_ptr<Impl> impl_;
};

}  // namespace Lumora::Platform
