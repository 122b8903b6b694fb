// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once
// GNOME Shell: Mutter's display configuration (org.gnome.Mutter.DisplayConfig GetCurrentState) gives every
// connector with its EDID vendor, product and serial, and the logical monitors that show them: position, scale,
// rotation, with the size of each monitor's current mode in pixels. Mutter tells other programs nothing of the
// focused window or the pointer: Lumora's GNOME Shell extension (org.lumora.Lumora.Shell) answers those, in the
// stage's coordinates, which are the logical layout's.

#include <QDBusArgument>

#include <optional>
#include <string>
#include <vector>

#include "LumoraCore/DesktopLayout.h"

namespace Lumora::GnomeShellDesktop {

// GetCurrentState's monitors and logical monitors, as read off the bus.
struct Monitor {
    std::string connector, vendor, product, serial;
    double modeWidth = 0, modeHeight = 0;  // the current mode, in pixels; 0 when the monitor is off
};
struct LogicalMonitor {
    double x = 0, y = 0, scale = 1;
    int transform = 0;  // Mutter's: 0 normal, 1 90°, 2 180°, 3 270°, 4-7 the same flipped
    std::vector<std::string> connectors;
};
struct State {
    std::vector<Monitor> monitors;
    std::vector<LogicalMonitor> logicalMonitors;
    bool physicalLayout = false;  // layout-mode 2: positions and sizes in pixels, not divided by the scale
};

// The monitors and logical monitors of a GetCurrentState reply (its second and third arguments) and its
// properties (the fourth).
State state(const QDBusArgument& monitors, const QDBusArgument& logicalMonitors, const QVariantMap& properties);

// The outputs in the stage's coordinates, with the extension's window and pointer when it answered. A monitor
// that mirrors another shares its logical monitor's frame.
CompositorAnswers answers(const State& state, std::optional<Rect> window, std::optional<Point> pointer);

}  // namespace Lumora::GnomeShellDesktop
