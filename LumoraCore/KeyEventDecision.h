// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once
// What a brightness key does: from one input event, the state of Option (Alt) at that moment and the inputs of the
// target resolver, whether Lumora consumes the event and which brightness operation it calls. Pure: the platform
// reads the inputs and carries the outcome out.
//
// The vocabulary is the kernel's input events (evdev): a type, a code and a value. The brightness-down key plays
// F1, the brightness-up key plays F2; value 1 is a key going down, 2 an auto-repeat of a held key (it acts like a
// fresh press), 0 a key coming up.

#include <cstdint>
#include <optional>

#include "LumoraCore/TargetResolver.h"

namespace Lumora {

// The numbers of linux/input-event-codes.h that the decision looks at.
namespace InputCode {
constexpr std::uint16_t typeSync = 0x00;        // EV_SYN
constexpr std::uint16_t typeKey = 0x01;         // EV_KEY
constexpr std::uint16_t typeMisc = 0x04;        // EV_MSC
constexpr std::uint16_t syncReport = 0;         // SYN_REPORT
constexpr std::uint16_t syncDropped = 3;        // SYN_DROPPED
constexpr std::uint16_t miscScan = 0x04;        // MSC_SCAN
constexpr std::uint16_t keyBrightnessDown = 224;  // KEY_BRIGHTNESSDOWN: F1
constexpr std::uint16_t keyBrightnessUp = 225;    // KEY_BRIGHTNESSUP: F2
constexpr std::uint16_t keyLeftAlt = 56;        // KEY_LEFTALT: Option
constexpr std::uint16_t keyRightAlt = 100;      // KEY_RIGHTALT: Option
constexpr std::int32_t valueUp = 0;
constexpr std::int32_t valueDown = 1;
constexpr std::int32_t valueRepeat = 2;
}  // namespace InputCode

struct KeyEvent {
    std::uint16_t type = 0;
    std::uint16_t code = 0;
    std::int32_t value = 0;
    bool operator==(const KeyEvent&) const = default;
};

// The brightness operation a key asks for, and whether the event stops here.
struct KeyOutcome {
    enum class Call {
        none,
        step,           // DisplayController::step(displayID, amount)
        setBrightness,  // DisplayController::setBrightness(displayID, amount)
    };
    Call call = Call::none;
    std::uint32_t displayID = 0;
    double amount = 0;
    bool consumed = false;  // false: the event goes on unchanged to the desktop

    bool operator==(const KeyOutcome&) const = default;
};

namespace KeyEventDecision {

// One sixteenth of the full range per press.
constexpr double stepSize = 0.0625;

// Whether the event is a brightness key going down, by a press or an auto-repeat: the only events that ask where
// they belong. Key-ups, other keys and every other kind of event never do: they go on, except the key-up of a
// press that was consumed, which the desktop must not see either.
bool isBrightnessPress(const KeyEvent& event);

// The complete outcome, given where the press belongs: the resolver's decision for the display in use
// (TargetResolver::resolve over the active displays, the focused window and the cursor; absent when there is no
// display). A brightness press whose display is an external DDC/CI monitor (adjust) is consumed: F1 steps it down
// and F2 up by stepSize, or with Option held F1 sets it to 0.0 (standby) and F2 to 1.0 (awake, full). Everything
// else goes on untouched.
KeyOutcome decide(const KeyEvent& event, bool option, const std::optional<TargetResolver::Decision>& inUse);

}  // namespace KeyEventDecision
}  // namespace Lumora
