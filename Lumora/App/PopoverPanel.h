// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once
// The panel that opens from the tray item: a frameless, always-on-top tool window. On X11 the window manager leaves
// it alone (no task-bar entry, not in the Alt+Tab cycle, not activated by the window manager): it takes the keyboard
// focus itself when shown or clicked and shows its tooltips although it is never the active window in the window
// manager's eyes. On a Wayland compositor (XWayland included), which gives the keyboard only to windows it manages
// and tells X11 nothing of clicks elsewhere, it is a managed window instead that the compositor focuses, and it
// closes when it loses the focus. It sizes itself to its content, never taller than its screen leaves room for, and
// stays anchored where it was placed: its top edge when it opens below the tray item, its bottom edge when it opens
// above. Without a compositor its rounded corners are cut with a mask. Escape dismisses it.
//
// On a desktop without a tray the same panel is an ordinary small window titled "Lumora" instead, which the user
// moves and closes as any other.

#include <QRect>
#include <QWidget>

#include "Lumora/Platform/Linux/Desktop/InputFocus.h"

class QWindow;

namespace Lumora {

class PopoverPanel : public QWidget {
    Q_OBJECT
public:
    // Takes ownership of `content`.
    explicit PopoverPanel(QWidget* content);

    QWidget* contentView() const { return content_; }

    // Floating under the tray item (false, the start) or an ordinary window (true). Hides the panel.
    void setWindowed(bool windowed);
    bool isWindowed() const { return windowed_; }
    // Floating over a Wayland compositor (XWayland included): a frameless window that the compositor manages and
    // focuses, which closes when it loses the focus (focusLost), instead of one the window manager leaves alone.
    // Hides the panel.
    void setManagedByCompositor(bool managed);

    // Places the panel for an anchor (the tray item's geometry, or an empty rectangle at the cursor) on a screen
    // (`screen` its whole geometry, `available` the part panels and docks leave free).
    void placeAt(const QRect& anchor, const QRect& screen, const QRect& available);
    // As an ordinary window: no taller than `available` leaves room for with the window's frame.
    void limitTo(const QRect& available);
    // Follows the content's size now (the layout does it on its own otherwise, at the next event-loop turn).
    void fitContent();
    // Cuts the corners with a mask, or leaves them to the compositor's blending.
    void setComposited(bool composited);

    // Takes the keyboard focus (shown panel), and gives it back to the window that had it (before hiding).
    void takeFocus();
    void giveFocusBack();

signals:
    // Escape was pressed in the panel.
    void dismissRequested();
    // Managed by a compositor: the shown panel had the keyboard focus and lost it.
    void focusLost();
    // The desktop's palette or style changed (also while the panel is hidden).
    void appearanceChanged();

protected:
    void changeEvent(QEvent* event) override;
    void moveEvent(QMoveEvent* event) override;
    void resizeEvent(QResizeEvent* event) override;
    void keyPressEvent(QKeyEvent* event) override;
    void showEvent(QShowEvent* event) override;
    bool eventFilter(QObject* watched, QEvent* event) override;

private:
    void reposition();
    void updateMask();
    void remakeWindow();
    void placeThroughCompositor();

    QWidget* content_;
    QRect anchor_;
    QRect screen_;
    bool placed_ = false;
    bool composited_ = false;
    bool windowed_ = false;
    bool managed_ = false;
    bool wasActive_ = false;
    bool exposed_ = false;  // shown and on the screen since
    int compositorMoves_ = 0;
    QWindow* watchedWindow_ = nullptr;
    InputFocus focus_;
};

}  // namespace Lumora
