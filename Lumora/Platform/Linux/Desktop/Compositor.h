// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once
// Whether the desktop blends translucent windows. On X11 that is a compositing manager owning the selection
// _NET_WM_CM_S<screen>; Wayland always composites; the offscreen and other platforms do not.

namespace Lumora::Compositor {

bool isRunning();

}  // namespace Lumora::Compositor
