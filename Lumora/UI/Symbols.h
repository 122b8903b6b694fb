// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once
// The few symbol images of the tray item and the panel ("sun.max", "sun.min", "power", "powersleep",
// "arrow.clockwise", "exclamationmark.triangle.fill"): the icon theme's closest freedesktop icons when the theme
// has them, else the small SVGs bundled with the application. The bundled drawings and the theme's symbolic icons
// are drawn in the colour given (the palette's, so that they follow a switch between light and dark); full-colour
// theme icons as they are.

#include <QColor>
#include <QIcon>
#include <QPalette>
#include <QString>

namespace Lumora::Symbols {

// The image of the named symbol, tinted with `tint` unless it is a full-colour theme icon. An unknown name gives a
// null icon.
QIcon icon(const QString& name, const QColor& tint);

// The tray item's image: Lumora's own "sun.max" (never the icon theme's) in an amber that reads on the panels of a
// desktop with `palette`.
QIcon trayIcon(const QPalette& palette);

}  // namespace Lumora::Symbols
