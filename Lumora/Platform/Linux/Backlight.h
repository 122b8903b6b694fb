// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once
// The built-in panel's backlight class device (/sys/class/backlight/<name>).
//
// Finding the device: the backlight that lives below the built-in DRM connector (/sys/class/drm/cardN-eDP-*,
// -LVDS-*, -DSI-*) that is connected and enabled is the panel's own (a hybrid laptop has one such connector per
// GPU, and only one drives the panel); then one below any built-in connector; without one, the best by `type`:
// firmware, then platform, then raw, then anything else, ties broken by name order. Discovery walks sysfs each time it is called; callers that want one
// answer for the run (DisplayServices) keep the first one.
//
// Reading: `brightness` and `max_brightness`, decimal. A missing, unparsable or zero maximum fails the read.
// Writing: systemd-logind's Session.SetBrightness first (what desktops use: no privileges needed for the
// session's user), else `brightness` itself when the process may write it.

#include <cstdint>
#include <optional>
#include <string>

namespace Lumora::Platform {

struct BacklightDevice {
    std::string name;  // the class device name, e.g. "intel_backlight"
    std::string dir;   // "/sys/class/backlight/" + name
};

struct BacklightLevel {
    std::uint32_t brightness = 0;
    std::uint32_t max = 0;  // never 0
};

// How a write went.
enum class BacklightWrite {
    logind,  // logind accepted the value
    sysfs,   // written to the `brightness` attribute
    failed,  // neither path took it, or the value was unusable
};

// Walks /sys/class/backlight now; absent when there is no backlight device.
std::optional<BacklightDevice> findBacklight();

// The current and maximum raw values; absent on a missing or garbage attribute or a zero maximum.
std::optional<BacklightLevel> readBacklight(const BacklightDevice& device);

// brightness / max, not clamped (a driver reporting more than its maximum reads above 1.0).
std::optional<double> readBacklightFraction(const BacklightDevice& device);

// The raw value for a fraction in 0...1: round(fraction × max), halves away from zero.
std::uint32_t backlightRawValue(double fraction, std::uint32_t max);

// Sets the backlight to a fraction in 0...1, scaled by the device's current maximum. A fraction outside 0...1
// (or not a number) is refused, not clamped, and nothing is written. Safe to call from several threads.
BacklightWrite writeBacklight(const BacklightDevice& device, double fraction);

}  // namespace Lumora::Platform
