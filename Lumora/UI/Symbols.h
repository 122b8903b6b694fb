#pragma once
// The few symbol images of the tray item and the panel ("sun.max", "sun.min", "power", "powersleep",
// "arrow.clockwise"): the icon theme's closest freedesktop icons when the theme has them, else the small SVGs
// bundled with the application, drawn in the colour given.

#include <QColor>
#include <QIcon>
#include <QString>

namespace Lumora::Symbols {

// The image of the named symbol, tinted with `tint` when it is one of the bundled drawings. An unknown name gives
// a null icon.
QIcon icon(const QString& name, const QColor& tint);

// The tray item's image: the "sun.max" symbol in a colour that reads on light and dark panels alike.
QIcon trayIcon();

}  // namespace Lumora::Symbols
