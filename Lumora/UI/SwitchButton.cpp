// SPDX-License-Identifier: GPL-3.0-or-later
#include "Lumora/UI/SwitchButton.h"

#include <QPainter>
#include <QPainterPath>
#include <QStyle>

namespace Lumora {
namespace {

constexpr int gap = 8;  // between the label and the track

}  // namespace

SwitchButton::SwitchButton(const QString& text, QWidget* parent) : QAbstractButton(parent)
{
    setText(text);
    setCheckable(true);
    setAccessibleName(text);
    setFocusPolicy(Qt::StrongFocus);
    setSizePolicy(QSizePolicy::Expanding, QSizePolicy::Fixed);
}

QSize SwitchButton::sizeHint() const
{
    const QFontMetrics metrics(font());
    return {metrics.horizontalAdvance(text()) + gap + trackWidth, std::max(metrics.height(), trackHeight) + 2};
}

QSize SwitchButton::minimumSizeHint() const
{
    return {trackWidth + gap, sizeHint().height()};
}

QRect SwitchButton::trackRect() const
{
    return {width() - trackWidth - 1, (height() - trackHeight) / 2, trackWidth, trackHeight};
}

bool SwitchButton::hitButton(const QPoint& position) const
{
    return rect().contains(position);
}

void SwitchButton::paintEvent(QPaintEvent*)
{
    QPainter painter(this);
    painter.setRenderHint(QPainter::Antialiasing);

    const QRect track = trackRect();
    const QRect label(0, 0, track.left() - gap, height());
    painter.setPen(palette().color(isEnabled() ? QPalette::Active : QPalette::Disabled, QPalette::WindowText));
    painter.drawText(label, Qt::AlignLeft | Qt::AlignVCenter,
                     fontMetrics().elidedText(text(), Qt::ElideRight, label.width()));

    QColor off = palette().color(QPalette::WindowText);
    off.setAlphaF(0.25F);
    const QColor fill = isChecked() ? palette().color(QPalette::Highlight) : off;
    const qreal radius = track.height() / 2.0;
    QPainterPath path;
    path.addRoundedRect(QRectF(track), radius, radius);
    painter.fillPath(path, fill);

    const qreal knob = track.height() - 4;
    const qreal knobX = isChecked() ? track.right() - 1 - knob : track.left() + 2;
    painter.setPen(Qt::NoPen);
    painter.setBrush(Qt::white);
    painter.drawEllipse(QRectF(knobX, track.top() + 2, knob, knob));

    if (hasFocus()) {
        QColor ring = palette().color(QPalette::Highlight);
        ring.setAlphaF(0.6F);
        painter.setBrush(Qt::NoBrush);
        painter.setPen(QPen(ring, 2));
        painter.drawRoundedRect(QRectF(track).adjusted(-2, -2, 2, 2), radius + 2, radius + 2);
    }
}

}  // namespace Lumora
