// SPDX-License-Identifier: GPL-3.0-or-later
#include "Lumora/App/PopoverPanel.h"

#include <QGuiApplication>
#include <QKeyEvent>
#include <QScreen>
#include <QPainterPath>
#include <QRegion>
#include <QVBoxLayout>
#include <QWindow>

#include <string>

#include "Lumora/App/HostPoint.h"
#include "Lumora/App/PanelPlacement.h"
#include "Lumora/Platform/Linux/Desktop/SwayIpc.h"
#include "Lumora/UI/PopoverView.h"

namespace Lumora {
namespace {

constexpr Qt::WindowFlags floatingFlags =
    Qt::Tool | Qt::FramelessWindowHint | Qt::WindowStaysOnTopHint | Qt::X11BypassWindowManagerHint;
// On a Wayland compositor (XWayland included) the panel is a window the compositor manages, so that it gets the
// keyboard and hears that it lost it.
constexpr Qt::WindowFlags managedFlags = Qt::Tool | Qt::FramelessWindowHint | Qt::WindowStaysOnTopHint;
constexpr Qt::WindowFlags ordinaryWindowFlags =
    Qt::Window | Qt::WindowTitleHint | Qt::WindowSystemMenuHint | Qt::WindowMinimizeButtonHint |
    Qt::WindowCloseButtonHint;

// How often the panel is put back where it belongs after the compositor moved it, for each size it takes.
constexpr int maximumCompositorMoves = 3;

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
    remakeWindow();
    placed_ = false;
    if (auto* view = qobject_cast<PopoverView*>(content_)) {
        view->setWindowed(windowed);
        view->setHeightLimit(0);
    }
    composited_ = windowed;  // no mask on a window
    updateMask();
}

void PopoverPanel::setManagedByCompositor(bool managed)
{
    hide();
    if (managed == managed_) {
        return;
    }
    managed_ = managed;
    remakeWindow();
}

// The native window is made anew: a window with a frame and an opaque visual, a managed frameless one, or the bare
// floating one that the window manager leaves alone.
void PopoverPanel::remakeWindow()
{
    if (testAttribute(Qt::WA_WState_Created)) {
        destroy(true, true);
    }
    watchedWindow_ = nullptr;
    wasActive_ = false;
    const bool floating = !windowed_ && !managed_;
    setWindowFlags(windowed_ ? ordinaryWindowFlags : managed_ ? managedFlags : floatingFlags);
    setAttribute(Qt::WA_TranslucentBackground, !windowed_);
    setAttribute(Qt::WA_ShowWithoutActivating, floating);
    setAttribute(Qt::WA_X11NetWmWindowTypeDropDownMenu, floating);
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
    if (windowed_ || managed_) {
        activateWindow();
        return;
    }
    focus_.take(*this);
}

void PopoverPanel::giveFocusBack()
{
    if (!windowed_ && !managed_) {
        focus_.giveBack(*this);
    }
}

void PopoverPanel::moveEvent(QMoveEvent* event)
{
    QWidget::moveEvent(event);
    // sway centres a floating X window again whenever it changes size (rows come and go): put it back, a few times
    // at most for each change, in case the compositor insists.
    if (exposed_ && placed_ && managed_ && !windowed_ && compositorMoves_ < maximumCompositorMoves &&
        pos() != PanelPlacement::origin(anchor_, size(), screen_)) {
        ++compositorMoves_;
        placeThroughCompositor();
    }
}

void PopoverPanel::resizeEvent(QResizeEvent* event)
{
    QWidget::resizeEvent(event);
    compositorMoves_ = 0;
    updateMask();
    reposition();
}

void PopoverPanel::changeEvent(QEvent* event)
{
    QWidget::changeEvent(event);
    if (event->type() == QEvent::PaletteChange || event->type() == QEvent::StyleChange) {
        emit appearanceChanged();
    }
    // Managed by a compositor, the panel closes as a popup does when the focus goes elsewhere: a click on
    // another window, on the desktop's own panel, or a switch of windows. Only once it has had the focus.
    if (event->type() == QEvent::ActivationChange && managed_ && !windowed_ && isVisible()) {
        if (isActiveWindow()) {
            wasActive_ = true;
        } else if (wasActive_) {
            wasActive_ = false;
            emit focusLost();
        }
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
    wasActive_ = false;
    exposed_ = false;
    compositorMoves_ = 0;
    // A press anywhere in the floating panel gives it the keyboard focus, which the window manager does not.
    QWindow* window = windowHandle();
    if (window != nullptr && window != watchedWindow_) {
        window->installEventFilter(this);
        watchedWindow_ = window;
    }
}

bool PopoverPanel::eventFilter(QObject* watched, QEvent* event)
{
    if (watched == watchedWindow_ && event->type() == QEvent::Expose && managed_ && !windowed_ && !exposed_ &&
        isVisible()) {
        exposed_ = true;
        placeThroughCompositor();
    }
    if (watched == watchedWindow_ && event->type() == QEvent::MouseButtonPress && !windowed_ && !managed_ &&
        !isActiveWindow()) {
        takeFocus();
    }
    return QWidget::eventFilter(watched, event);
}

void PopoverPanel::reposition()
{
    if (placed_ && !windowed_) {
        move(PanelPlacement::origin(anchor_, size(), screen_));
        if (exposed_) {
            placeThroughCompositor();
        }
    }
}

// sway opens a managed window of an X client centred and ignores where it asks to be: it is moved there over
// sway's IPC once it is on the screen (the compositor has mapped it by the time it is exposed).
void PopoverPanel::placeThroughCompositor()
{
    if (!managed_ || windowed_ || !placed_ || !SwayIpc::isAvailable() ||
        QGuiApplication::platformName() != QLatin1String("xcb")) {
        return;
    }
    const QScreen* on = screen();
    const HostPoint::Screen screen{on != nullptr ? on->geometry() : screen_,
                                   on != nullptr ? on->devicePixelRatio() : 1.0};
    const QPoint at = HostPoint::toDevice(PanelPlacement::origin(anchor_, size(), screen_), screen);
    SwayIpc::command("[id=" + std::to_string(winId()) + "] move absolute position " + std::to_string(at.x()) + " " +
                     std::to_string(at.y()));
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
