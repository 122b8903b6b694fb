// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once
// The frame of the window the user works in, in the global space of DisplayFrames. X11: the window manager's
// active window (_NET_ACTIVE_WINDOW), its geometry translated to the root window and grown by its decorations
// (_NET_FRAME_EXTENTS). Wayland keeps other clients' windows private: there is none, and the cursor decides.

#include <optional>

#include "LumoraCore/TargetResolver.h"

namespace Lumora::FocusedWindow {

// Nothing when the window system is not X11, no window is active, or the window cannot be read (it closed). Read
// afresh at every call.
std::optional<Rect> frame();

}  // namespace Lumora::FocusedWindow
