// SPDX-License-Identifier: GPL-3.0-or-later
#include "Lumora/App/PanelPlacement.h"

#include <algorithm>
#include <cmath>

namespace Lumora::PanelPlacement {

QPoint origin(const QRect& anchor, const QSize& panel, const QRect& screen)
{
    // Edges as half-open coordinates, so that an empty anchor (the cursor) has top == bottom.
    const int anchorTop = anchor.y();
    const int anchorBottom = anchor.y() + std::max(anchor.height(), 0);
    const double anchorMidX = anchor.x() + std::max(anchor.width(), 0) * 0.5;
    const double anchorMidY = (anchorTop + anchorBottom) * 0.5;
    const double screenMidY = screen.y() + screen.height() * 0.5;

    int x = static_cast<int>(std::lround(anchorMidX - panel.width() * 0.5));
    const int rightmost = screen.x() + screen.width() - panel.width();
    x = std::max(std::min(x, rightmost), screen.x());

    const int y = anchorMidY < screenMidY ? anchorBottom + gap : anchorTop - gap - panel.height();
    return {x, y};
}

int maximumHeight(const QRect& anchor, const QRect& screen, const QRect& available)
{
    const int anchorTop = anchor.y();
    const int anchorBottom = anchor.y() + std::max(anchor.height(), 0);
    const double anchorMidY = (anchorTop + anchorBottom) * 0.5;
    const double screenMidY = screen.y() + screen.height() * 0.5;
    const int availableBottom = available.y() + available.height();
    const int room = anchorMidY < screenMidY ? availableBottom - gap - (anchorBottom + gap)
                                             : anchorTop - gap - (available.y() + gap);
    return std::max(room, 1);
}

}  // namespace Lumora::PanelPlacement
