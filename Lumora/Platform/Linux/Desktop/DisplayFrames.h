// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once
// Where each active display sits on the desktop: the active DRM connectors (the online display list), each with
// the frame of the desktop's output that shows it (matched to the connector by output name, else by EDID
// identity), in the desktop's global space (DesktopInputs), which is also the space of its windows and pointer.

#include <cstdint>
#include <vector>

#include "LumoraCore/ScreenMatching.h"
#include "LumoraCore/TargetResolver.h"

namespace Lumora {

struct DisplayFrame {
    std::uint32_t id;  // the display number
    Rect frame;
};

namespace DisplayFrames {

// In connector order. A connector that no screen shows (an output the window system does not use) is left out.
std::vector<DisplayFrame> active(const std::vector<ScreenIdentity>& screens);
// With the screens of this session's desktop.
std::vector<DisplayFrame> active();

}  // namespace DisplayFrames
}  // namespace Lumora
