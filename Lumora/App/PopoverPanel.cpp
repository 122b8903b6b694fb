#include "Lumora/App/PopoverPanel.h"

#include <QPainterPath>
#include <QRegion>
#include <QVBoxLayout>

#include "Lumora/App/PanelPlacement.h"
#include "Lumora/UI/PopoverView.h"

namespace Lumora {

PopoverPanel::PopoverPanel(QWidget* content)
    : QWidget(nullptr, Qt::Tool | Qt::FramelessWindowHint | Qt::WindowStaysOnTopHint |
                           Qt::X11BypassWindowManagerHint | Qt::NoDropShadowWindowHint),
      content_(content)
{
    setObjectName(QStringLiteral("popoverPanel"));
    setWindowTitle(QStringLiteral("Lumora"));
    setAttribute(Qt::WA_ShowWithoutActivating);
    setAttribute(Qt::WA_TranslucentBackground);
    setAttribute(Qt::WA_X11NetWmWindowTypeDropDownMenu);

    auto* layout = new QVBoxLayout(this);
    layout->setContentsMargins(0, 0, 0, 0);
    layout->setSpacing(0);
    layout->setSizeConstraint(QLayout::SetFixedSize);
    layout->addWidget(content_);
}

void PopoverPanel::placeAt(const QRect& anchor, const QRect& screen)
{
    anchor_ = anchor;
    screen_ = screen;
    placed_ = true;
    reposition();
}

void PopoverPanel::fitContent()
{
    layout()->activate();
    adjustSize();
}

void PopoverPanel::setComposited(bool composited)
{
    composited_ = composited;
    if (auto* view = qobject_cast<PopoverView*>(content_)) {
        view->setTranslucentBackground(composited);
    }
    updateMask();
}

void PopoverPanel::resizeEvent(QResizeEvent* event)
{
    QWidget::resizeEvent(event);
    updateMask();
    reposition();
}

void PopoverPanel::reposition()
{
    if (placed_) {
        move(PanelPlacement::origin(anchor_, size(), screen_));
    }
}

void PopoverPanel::updateMask()
{
    if (composited_) {
        clearMask();
        return;
    }
    QPainterPath shape;
    shape.addRoundedRect(QRectF(rect()), PopoverView::cornerRadius, PopoverView::cornerRadius);
    setMask(QRegion(shape.toFillPolygon().toPolygon()));
}

}  // namespace Lumora
