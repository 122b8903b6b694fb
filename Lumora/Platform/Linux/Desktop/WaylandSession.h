// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once
// Whether Lumora's windows live on a Wayland compositor: natively (Qt's wayland platform) or as an X11 client of
// XWayland. There X11 sees neither clicks on Wayland windows nor the real pointer, and the compositor gives the
// keyboard only to windows it manages, so a floating panel must be an ordinary, focused window that closes when it
// loses the focus.

namespace Lumora::WaylandSession {

// Under a running QGuiApplication: true on the wayland platform, and on xcb when the X server is XWayland.
bool isActive();

}  // namespace Lumora::WaylandSession
