// SPDX-License-Identifier: GPL-3.0-or-later
#include "Lumora/UI/OsdWindow.h"

#include <QPainter>
#include <QPainterPath>
#include <QScreen>
#include <QTimer>
#include <QWindow>

#include <algorithm>

#include "Lumora/Platform/Linux/Desktop/Compositor.h"
#include "Lumora/UI/Style.h"
#include "Lumora/UI/Symbols.h"

namespace Lumora {
namespace {

constexpr int boxWidth = 320;
constexpr int boxHeight = 64;
constexpr int margin = 14;
constexpr int symbolSide = 32;

}  // namespace

OsdWindow::OsdWindow(QWidget* parent)
    : QWidget(parent, Qt::ToolTip | Qt::FramelessWindowHint | Qt::WindowStaysOnTopHint |
                          Qt::WindowDoesNotAcceptFocus | Qt::WindowTransparentForInput | Qt::BypassWindowManagerHint)
{
    setObjectName(QStringLiteral("onScreenDisplay"));
    setAttribute(Qt::WA_ShowWithoutActivating);
    setAttribute(Qt::WA_TransparentForMouseEvents);
    setFocusPolicy(Qt::NoFocus);
    setFixedSize(boxWidth, boxHeight);
    hide_ = new QTimer(this);
    hide_->setSingleShot(true);
    hide_->setInterval(shownForMs);
    connect(hide_, &QTimer::timeout, this, &QWidget::hide);
}

void OsdWindow::present(QScreen* screen, const QString& name, double level)
{
    name_ = name;
    level_ = std::clamp(level, 0.0, 1.0);
    // Round corners only where the desktop blends translucent windows; a plain box elsewhere.
    setAttribute(Qt::WA_TranslucentBackground, Compositor::isRunning());
    setAccessibleName(tr("%1: brightness %2 %").arg(name_).arg(qRound(level_ * 100)));
    if (screen != nullptr) {
        const QRect area = screen->geometry();
        move(area.x() + (area.width() - width()) / 2, area.y() + area.height() - height() - area.height() / 10);
        if (windowHandle() != nullptr)
            windowHandle()->setScreen(screen);
    }
    update();
    show();
    raise();
    hide_->start();
}

void OsdWindow::paintEvent(QPaintEvent*)
{
    QPainter painter(this);
    painter.setRenderHint(QPainter::Antialiasing);
    const bool translucent = testAttribute(Qt::WA_TranslucentBackground);
    const QColor box(0x20, 0x20, 0x20, translucent ? 0xE6 : 0xFF);
    QPainterPath outline;
    outline.addRoundedRect(QRectF(rect()), translucent ? 12 : 0, translucent ? 12 : 0);
    painter.fillPath(outline, box);

    const QColor ink(0xF2, 0xF2, 0xF2);
    const QRect symbol(margin, (height() - symbolSide) / 2, symbolSide, symbolSide);
    Symbols::icon(QStringLiteral("sun.max"), ink).paint(&painter, symbol);

    const int textLeft = symbol.right() + margin;
    const int textWidth = width() - textLeft - margin;
    QFont font = Style::subheadline(*this);
    font.setBold(true);
    painter.setFont(font);
    painter.setPen(ink);
    const QRect label(textLeft, margin - 2, textWidth, QFontMetrics(font).height());
    painter.drawText(label, Qt::AlignLeft | Qt::AlignVCenter,
                     QFontMetrics(font).elidedText(name_, Qt::ElideRight, textWidth));

    const QRectF track(textLeft, height() - margin - 6, textWidth, 6);
    painter.setPen(Qt::NoPen);
    painter.setBrush(QColor(0x5A, 0x5A, 0x5A));
    painter.drawRoundedRect(track, 3, 3);
    painter.setBrush(ink);
    painter.drawRoundedRect(QRectF(track.x(), track.y(), track.width() * level_, track.height()), 3, 3);
}

}  // namespace Lumora
