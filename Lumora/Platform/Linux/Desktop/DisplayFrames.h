#pragma once
// Where each active display sits on the desktop: the active DRM connectors (the online display list), each with
// the frame of the window system's screen that shows it (QScreen, matched to the connector by output name, else
// by EDID identity), in the global space the brightness keys use. On X11 that space is the root window's pixels,
// the space of window geometry and of the pointer; elsewhere (Wayland) Qt's desktop coordinates.

#include <cstdint>
#include <vector>

#include "LumoraCore/TargetResolver.h"

namespace Lumora {

struct DisplayFrame {
    std::uint32_t id;  // the display number
    Rect frame;
};

namespace DisplayFrames {

// In connector order. A connector that no screen shows (an output the window system does not use) is left out.
std::vector<DisplayFrame> active();

}  // namespace DisplayFrames
}  // namespace Lumora
