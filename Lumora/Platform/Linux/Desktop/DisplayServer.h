// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once
// Whether the window system Lumora is about to use answers at all, asked before any Qt application object exists:
// Qt aborts the process when its platform plugin cannot connect, which would leave the user with a core dump
// instead of a reason. X11 (DISPLAY, also under XWayland) is tried with a plain xcb connection; a Wayland
// session with a connection to its socket.

#include <string>

namespace Lumora::DisplayServer {

enum class Kind { none, x11, wayland };

struct Reachability {
    Kind kind = Kind::none;  // the window system that was tried; none when neither variable is set
    bool reachable = false;
    std::string address;     // the DISPLAY or WAYLAND_DISPLAY value that was tried
};

// X11 when DISPLAY is set (Lumora prefers it, XWayland included), else Wayland when WAYLAND_DISPLAY is set. A
// DISPLAY that does not answer falls back to a Wayland session named beside it.
Reachability check();

}  // namespace Lumora::DisplayServer
