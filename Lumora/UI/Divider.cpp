// SPDX-License-Identifier: GPL-3.0-or-later
#include "Lumora/UI/Divider.h"

#include <QPainter>

namespace Lumora {

Divider::Divider(QWidget* parent) : QWidget(parent)
{
    setObjectName(QStringLiteral("divider"));
    setFixedHeight(1);
    setSizePolicy(QSizePolicy::Expanding, QSizePolicy::Fixed);
}

QColor Divider::color() const
{
    QColor color = palette().color(QPalette::WindowText);
    color.setAlphaF(0.15F);
    return color;
}

void Divider::paintEvent(QPaintEvent*)
{
    QPainter painter(this);
    painter.fillRect(rect(), color());
}

}  // namespace Lumora
