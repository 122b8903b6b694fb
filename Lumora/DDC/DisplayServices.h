// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once
// The built-in panel's brightness entry points, bound once at run time.
//
// On Linux they stand on the backlight class device (/sys/class/backlight/<dev>): reads come from its
// `brightness` and `max_brightness`; writes go through systemd-logind's Session.SetBrightness (what desktops
// use, no privileges needed), else straight to `brightness` when that is writable. The device is the one under
// the built-in connector, else the best by type (firmware, then platform, then raw). Both entry points are absent
// when there is no backlight at first use; the answer is kept for the run.

#include <cstdint>

namespace Lumora {

struct DisplayServices {
    // Fills `out` with the brightness as a fraction; 0 on success.
    using GetFn = std::int32_t (*)(std::uint32_t displayID, float* out);
    // Sets the brightness to a fraction in 0...1; 0 on success.
    using SetFn = std::int32_t (*)(std::uint32_t displayID, float value);

    static GetFn getFn();
    static SetFn setFn();
};

}  // namespace Lumora
