// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once
// KWin (KDE Plasma on Wayland). Over D-Bus, org.kde.KWin on /KWin tells the output KWin takes as active
// (activeOutputName) and, in its support information, every output's name and frame in the layout. KWin tells
// other programs nothing of its windows: a small KWin script, loaded once through org.kde.kwin.Scripting, reports
// the active window's frame to Lumora over D-Bus whenever the active window or its frame changes. The active
// output stands for the pointer. The script stays loaded when Lumora ends; the next Lumora replaces it (one name
// for it), and until then KWin's calls to the Lumora that is gone fail unheard.

#include <QString>

#include <optional>

#include "LumoraCore/DesktopLayout.h"

namespace Lumora::KWinDesktop {

// The outputs of KWin's support information ("Screen 0:" … "Name: DP-1" … "Geometry: 0,0,2560x1440"), in order.
std::vector<CompositorOutput> outputs(const QString& supportInformation);

// The window frame of the script's report ("x y width height", or "none").
std::optional<Rect> window(const QString& report);

}  // namespace Lumora::KWinDesktop
