// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once
// The desktop's own on-screen display, where there is one Lumora may use: KDE Plasma's (org.kde.osdService of
// plasmashell, shown where Plasma shows its own) and GNOME Shell's (through Lumora's GNOME Shell extension, on the
// monitor of the connector given). A change shown there looks as the desktop's own brightness changes do.

#include <QString>

#include <string>

namespace Lumora::DesktopOsd {

// Asks the desktop to show `name` at `level` (0 … 1) for the display on `connector` ("DP-1"); false when this
// desktop has no such display Lumora may use, and Lumora shows its own. Does not wait for the desktop.
bool show(const std::string& connector, const QString& name, double level);

}  // namespace Lumora::DesktopOsd
