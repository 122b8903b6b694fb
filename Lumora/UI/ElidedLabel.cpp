// SPDX-License-Identifier: GPL-3.0-or-later
#include "Lumora/UI/ElidedLabel.h"

#include <QFontMetrics>
#include <QResizeEvent>

#include <algorithm>

namespace Lumora {

ElidedLabel::ElidedLabel(const QString& text, QWidget* parent) : QLabel(parent), full_(text)
{
    setSizePolicy(QSizePolicy::Ignored, QSizePolicy::Preferred);
    setTextFormat(Qt::PlainText);
    setWordWrap(false);
    elide();
}

void ElidedLabel::setFullText(const QString& text)
{
    if (text == full_) {
        return;
    }
    full_ = text;
    elide();
    updateGeometry();
}

QSize ElidedLabel::minimumSizeHint() const
{
    return {0, QLabel::minimumSizeHint().height()};
}

QSize ElidedLabel::sizeHint() const
{
    return {fontMetrics().horizontalAdvance(full_), QLabel::sizeHint().height()};
}

void ElidedLabel::resizeEvent(QResizeEvent* event)
{
    QLabel::resizeEvent(event);
    elide();
}

void ElidedLabel::elide()
{
    setText(fontMetrics().elidedText(full_, Qt::ElideRight, std::max(width(), 0)));
}

}  // namespace Lumora
