// SPDX-License-Identifier: GPL-3.0-or-later
#include "Lumora/App/HostPoint.h"

#include <QGuiApplication>
#include <QScreen>

#include <cmath>

namespace Lumora::HostPoint {

std::optional<QPoint> toLogical(QPoint devicePoint, const std::vector<Screen>& screens)
{
    if (devicePoint.isNull()) {
        return std::nullopt;
    }
    for (const Screen& screen : screens) {
        const QPoint origin = screen.geometry.topLeft();
        const double ratio = screen.devicePixelRatio > 0 ? screen.devicePixelRatio : 1.0;
        const QRect devicePixels(origin, QSize(static_cast<int>(std::lround(screen.geometry.width() * ratio)),
                                               static_cast<int>(std::lround(screen.geometry.height() * ratio))));
        if (devicePixels.contains(devicePoint)) {
            const QPoint offset = devicePoint - origin;
            return origin + QPoint(static_cast<int>(std::floor(offset.x() / ratio)),
                                   static_cast<int>(std::floor(offset.y() / ratio)));
        }
    }
    return std::nullopt;
}

QPoint toDevice(QPoint logical, const Screen& screen)
{
    const QPoint origin = screen.geometry.topLeft();
    const double ratio = screen.devicePixelRatio > 0 ? screen.devicePixelRatio : 1.0;
    const QPoint offset = logical - origin;
    return origin + QPoint(static_cast<int>(std::lround(offset.x() * ratio)),
                           static_cast<int>(std::lround(offset.y() * ratio)));
}

std::vector<Screen> currentScreens()
{
    std::vector<Screen> screens;
    for (const QScreen* screen : QGuiApplication::screens()) {
        screens.push_back({screen->geometry(), screen->devicePixelRatio()});
    }
    return screens;
}

}  // namespace Lumora::HostPoint
