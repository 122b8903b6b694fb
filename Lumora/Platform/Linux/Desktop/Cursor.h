// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once
// Where the mouse pointer is, in the global space of DisplayFrames: on X11 the pointer on the root window, in
// pixels; elsewhere where Qt last saw it.

#include <optional>

#include "LumoraCore/TargetResolver.h"

namespace Lumora::Cursor {

// Nothing when the window system does not tell.
std::optional<Point> position();

}  // namespace Lumora::Cursor
