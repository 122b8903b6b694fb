// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once
// The display the user works on: the one that holds most of the focused window, else the one under the mouse
// pointer, else the first active display. The brightness keys act on it, and so do the session bus's
// StepDisplayInUse and SetDisplayInUse, so that a desktop shortcut bound to those goes where the key would go.
//
// Asked afresh at every call of the desktop the user runs (DesktopInputs): the active displays with their frames
// (DisplayFrames), the focused window and the pointer, decided by TargetResolver. A display that the controller lists
// as an external DDC/CI monitor (its snapshot can power off) is offered as one, so the decision's action is adjust
// for such a monitor and passThrough for any other display: the built-in panel, a monitor Lumora cannot reach, and
// every display before the controller's first list is in.
//
// What the desktop tells decides: on X11 all three inputs are read from the X server; sway, Hyprland, KWin and
// GNOME Shell are asked themselves, as XWayland knows neither their outputs nor their native windows. Where a
// compositor tells only the output the user is on, that output is the display in use.
//
// Main thread only (the window system is asked through the application's own connection).

#include <optional>
#include <vector>

#include "Lumora/App/DisplaySnapshot.h"
#include "LumoraCore/TargetResolver.h"

namespace Lumora::DisplayInUse {

// The decision for the display in use; absent when no connected display is shown on the desktop (the window and
// the pointer are then not asked). `displays`: the controller's list.
std::optional<TargetResolver::Decision> resolve(const std::vector<DisplaySnapshot>& displays);

}  // namespace Lumora::DisplayInUse
