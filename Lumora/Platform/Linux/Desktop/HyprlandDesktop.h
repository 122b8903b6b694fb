// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once
// Hyprland, over its request socket ($XDG_RUNTIME_DIR/hypr/<instance>/.socket.sock, /tmp/hypr/<instance>/ before
// Hyprland 0.40), one request per connection: j/monitors (connector names, make, model, serial, the position in
// the layout's logical units, the size in device pixels with its scale and rotation, focused), j/activewindow
// (at, size) and j/cursorpos (x, y), all in the layout's logical units.

#include <QByteArray>

#include "LumoraCore/DesktopLayout.h"

namespace Lumora::HyprlandDesktop {

// The three answers as Hyprland sends them (JSON). Disabled monitors are left out; an active window of no size
// (Hyprland answers "{}" when there is none) counts as none.
CompositorAnswers answers(const QByteArray& monitors, const QByteArray& activeWindow, const QByteArray& cursor);

}  // namespace Lumora::HyprlandDesktop
