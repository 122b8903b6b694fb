// SPDX-License-Identifier: GPL-3.0-or-later
#include "Lumora/UI/Style.h"

#include <QPalette>
#include <QWidget>

#include <algorithm>

namespace Lumora::Style {

QFont headline(const QWidget& widget)
{
    QFont font = widget.font();
    font.setWeight(QFont::DemiBold);
    return font;
}

QFont subheadline(const QWidget& widget)
{
    QFont font = widget.font();
    if (font.pointSizeF() > 0) {
        font.setPointSizeF(font.pointSizeF() * 0.9);
    } else if (font.pixelSize() > 0) {
        font.setPixelSize(std::max(1, font.pixelSize() * 9 / 10));
    }
    return font;
}

QColor secondary(const QWidget& widget)
{
    QColor color = widget.palette().color(QPalette::WindowText);
    color.setAlphaF(0.6F);
    return color;
}

}  // namespace Lumora::Style
