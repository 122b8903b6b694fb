// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once
// Where a StatusNotifier host says the user clicked its item, in Qt's coordinates. Hosts give the click in the
// desktop's global space in device pixels; Qt keeps each screen's top-left corner and divides the distances inside
// a screen by that screen's device pixel ratio. A host that does not know the position gives (0, 0).

#include <QPoint>
#include <QRect>

#include <optional>
#include <vector>

namespace Lumora::HostPoint {

struct Screen {
    QRect geometry;              // in Qt's (logical) coordinates
    double devicePixelRatio = 1;
};

// The host's point on the screen whose device-pixel area holds it; nothing for (0, 0) or a point on no screen.
std::optional<QPoint> toLogical(QPoint devicePoint, const std::vector<Screen>& screens);

// The other way: a point of Qt's on `screen`, in the desktop's device pixels.
QPoint toDevice(QPoint logical, const Screen& screen);

// The screens Qt knows now.
std::vector<Screen> currentScreens();

}  // namespace Lumora::HostPoint
