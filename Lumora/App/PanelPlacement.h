// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once
// Where the panel opens: 6 points below the tray item, centred under it, when the item sits in the upper half of
// its screen (a top panel); 6 points above it when the item sits in the lower half (a bottom panel). Kept inside
// the screen horizontally, and never taller than the screen leaves room for. All in the window system's logical coordinates, y growing downwards.

#include <QPoint>
#include <QRect>
#include <QSize>

namespace Lumora::PanelPlacement {

constexpr int gap = 6;

// `anchor` is the tray item's global geometry, or an empty rectangle at the cursor when the tray gives none;
// `screen` the geometry of the screen the anchor is on. Returns the panel's top-left corner.
QPoint origin(const QRect& anchor, const QSize& panel, const QRect& screen);

// The tallest the panel may be so that all of it stays within `available` (the screen less its panels and docks)
// where origin() puts it, with a gap's margin to spare: the room below the anchor for a panel that opens below,
// above it for one that opens above. At least 1.
int maximumHeight(const QRect& anchor, const QRect& screen, const QRect& available);

}  // namespace Lumora::PanelPlacement
