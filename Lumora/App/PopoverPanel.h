#pragma once
// The floating panel that opens from the tray item: a frameless, always-on-top tool window that the window
// manager leaves alone (no task-bar entry, not in the Alt+Tab cycle, not activated when shown). It sizes itself
// to its content and stays anchored where it was placed: its top edge when it opens below the tray item, its
// bottom edge when it opens above. Without a compositor its rounded corners are cut with a mask.

#include <QRect>
#include <QWidget>

namespace Lumora {

class PopoverPanel : public QWidget {
    Q_OBJECT
public:
    // Takes ownership of `content`.
    explicit PopoverPanel(QWidget* content);

    QWidget* contentView() const { return content_; }

    // Places the panel for an anchor (the tray item's geometry, or an empty rectangle at the cursor) on a screen.
    void placeAt(const QRect& anchor, const QRect& screen);
    // Follows the content's size now (the layout does it on its own otherwise, at the next event-loop turn).
    void fitContent();
    // Cuts the corners with a mask, or leaves them to the compositor's blending.
    void setComposited(bool composited);

protected:
    void resizeEvent(QResizeEvent* event) override;

private:
    void reposition();
    void updateMask();

    QWidget* content_;
    QRect anchor_;
    QRect screen_;
    bool placed_ = false;
    bool composited_ = false;
};

}  // namespace Lumora
