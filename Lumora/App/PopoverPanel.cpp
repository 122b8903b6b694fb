#include "Lumora/App/PopoverPanel.h"

#include <QKeyEvent>
#include <QPainterPath>
#include <QRegion>
#include <QVBoxLayout>
#include <QWindow>

#include "Lumora/App/PanelPlacement.h"
#include "Lumora/UI/PopoverView.h"

namespace Lumora {
namespace {

constexpr Qt::WindowFlags floatingFlags =
    Qt::Tool | Qt::FramelessWindowHint | Qt::WindowStaysOnTopHint | Qt::X11BypassWindowManagerHint;
constexpr Qt::WindowFlags ordinaryWindowFlags =
    Qt::Window | Qt::WindowTitleHint | Qt::WindowSystemMenuHint | Qt::WindowMinimizeButtonHint |
    Qt::WindowCloseButtonHint;

// Room for the title bar and borders the window manager adds around an ordinary window.
constexpr int windowFrameAllowance = 64;

}  // namespace

PopoverPanel::PopoverPanel(QWidget* content) : QWidget(nullptr, floatingFlags), content_(content)
{
    setObjectName(QStringLiteral("popoverPanel"));
    setWindowTitle(tr("Lumora"));
    setAttribute(Qt::WA_ShowWithoutActivating);
    setAttribute(Qt::WA_TranslucentBackground);
    setAttribute(Qt::WA_X11NetWmWindowTypeDropDownMenu);
    // Qt shows tooltips only in the active window, and the window manager never activates this one.
    setAttribute(Qt::WA_AlwaysShowToolTips);

    auto* layout = new QVBoxLayout(this);
    layout->setContentsMargins(0, 0, 0, 0);
    layout->setSpacing(0);
    layout->setSizeConstraint(QLayout::SetFixedSize);
    layout->addWidget(content_);
}

void PopoverPanel::setWindowed(bool windowed)
{
    hide();
    if (windowed == windowed_) {
        return;
    }
    windowed_ = windowed;
    // The native window is made anew: a window with a frame and an opaque visual, or the bare floating one.
    if (testAttribute(Qt::WA_WState_Created)) {
        destroy(true, true);
    }
    watchedWindow_ = nullptr;
    setWindowFlags(windowed ? ordinaryWindowFlags : floatingFlags);
    setAttribute(Qt::WA_TranslucentBackground, !windowed);
    setAttribute(Qt::WA_ShowWithoutActivating, !windowed);
    setAttribute(Qt::WA_X11NetWmWindowTypeDropDownMenu, !windowed);
    placed_ = false;
    if (auto* view = qobject_cast<PopoverView*>(content_)) {
        view->setWindowed(windowed);
        view->setHeightLimit(0);
    }
    composited_ = windowed;  // no mask on a window
    updateMask();
}

void PopoverPanel::placeAt(const QRect& anchor, const QRect& screen, const QRect& available)
{
    anchor_ = anchor;
    screen_ = screen;
    placed_ = true;
    if (auto* view = qobject_cast<PopoverView*>(content_)) {
        view->setHeightLimit(PanelPlacement::maximumHeight(anchor, screen, available));
    }
    fitContent();
    reposition();
}

void PopoverPanel::limitTo(const QRect& available)
{
    if (auto* view = qobject_cast<PopoverView*>(content_)) {
        view->setHeightLimit(std::max(available.height() - windowFrameAllowance, 1));
    }
    fitContent();
}

void PopoverPanel::fitContent()
{
    layout()->activate();
    adjustSize();
}

void PopoverPanel::setComposited(bool composited)
{
    composited_ = composited || windowed_;
    if (auto* view = qobject_cast<PopoverView*>(content_)) {
        view->setTranslucentBackground(composited && !windowed_);
    }
    updateMask();
}

void PopoverPanel::takeFocus()
{
    if (windowed_) {
        activateWindow();
        return;
    }
    focus_.take(*this);
}

void PopoverPanel::giveFocusBack()
{
    if (!windowed_) {
        focus_.giveBack(*this);
    }
}

void PopoverPanel::resizeEvent(QResizeEvent* event)
{
    QWidget::resizeEvent(event);
    updateMask();
    reposition();
}

void PopoverPanel::changeEvent(QEvent* event)
{
    QWidget::changeEvent(event);
    if (event->type() == QEvent::PaletteChange || event->type() == QEvent::StyleChange) {
        emit appearanceChanged();
    }
}

void PopoverPanel::keyPressEvent(QKeyEvent* event)
{
    if (event->key() == Qt::Key_Escape && event->modifiers() == Qt::NoModifier) {
        emit dismissRequested();
        return;
    }
    QWidget::keyPressEvent(event);
}

void PopoverPanel::showEvent(QShowEvent* event)
{
    QWidget::showEvent(event);
    // A press anywhere in the floating panel gives it the keyboard focus, which the window manager does not.
    QWindow* window = windowHandle();
    if (window != nullptr && window != watchedWindow_) {
        window->installEventFilter(this);
        watchedWindow_ = window;
    }
}

bool PopoverPanel::eventFilter(QObject* watched, QEvent* event)
{
    if (watched == watchedWindow_ && event->type() == QEvent::MouseButtonPress && !windowed_ && !isActiveWindow()) {
        takeFocus();
    }
    return QWidget::eventFilter(watched, event);
}

void PopoverPanel::reposition()
{
    if (placed_ && !windowed_) {
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
