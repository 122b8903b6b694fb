// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once
// A brightness request that comes from outside the panel (a script, a desktop shortcut over the session bus) is
// checked before it reaches the controller: a value the panel could never produce is refused with a reason, and
// nothing changes. The panel and the keys need no such check; their values are in range by construction.

#include <cstdint>
#include <optional>
#include <string>
#include <utility>
#include <vector>

namespace Lumora::BrightnessRequest {

// The brightness a request may set: 0 (darkest; standby on a monitor that has it) to 1 (brightest).
inline constexpr double minFraction = 0.0;
inline constexpr double maxFraction = 1.0;
// A step may go at most the whole range, either way. The controller clamps the result to 0 ... 1.
inline constexpr double minDelta = -1.0;
inline constexpr double maxDelta = 1.0;

enum class Fault {
    notFinite,   // NaN or an infinity
    outOfRange,  // a finite number outside its range
};

struct Rejection {
    Fault fault;
    std::string message;  // one sentence for a person: what was given and what is allowed

    bool operator==(const Rejection&) const = default;
};

// Nothing when `fraction` is within minFraction ... maxFraction (both included).
std::optional<Rejection> checkFraction(double fraction);
// Nothing when `delta` is within minDelta ... maxDelta (both included).
std::optional<Rejection> checkDelta(double delta);

// The displays as a request may name them: number and name, in the panel's order.
using Listed = std::vector<std::pair<std::uint32_t, std::string>>;

// "There is no display 42; the displays are 103 (DELL U2720Q), 95 (Built-in Display)."
std::string unknownDisplay(std::uint32_t id, const Listed& displays);
// "Display 95 (Built-in Display) has no standby: only external monitors driven over DDC/CI do."
std::string cannotPowerOff(std::uint32_t id, const std::string& name);
// A request for the display in use (the one a brightness key would act on) when there is none: no connected
// display is shown on the desktop.
std::string noDisplayInUse();
// A request for the display in use when that display is not among the listed ones (a monitor without a DDC/CI
// channel, or the displays are not read yet): "Display 117, the display in use, is not one Lumora can adjust; the
// displays are 103 (DELL U2720Q), 95 (Built-in Display)."
std::string notAdjustable(std::uint32_t id, const Listed& displays);

}  // namespace Lumora::BrightnessRequest
