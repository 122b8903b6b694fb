// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once
// The panel's content: the title, one row per display (or a note when there is none), the place of the
// brightness-key settings between two dividers, and a footer with Refresh and Quit. 300 points wide on a rounded
// background. Everything shown comes from the controller's published snapshots; every action is a call on the
// controller or on the application. With more displays than fit, the rows scroll and the footer stays in view.
// Tab walks the controls from the first row to Quit; every colour is taken from the palette again when it changes.

#include <QWidget>

#include <cstdint>
#include <map>

class QLabel;
class QScrollArea;
class QToolButton;
class QPushButton;
class QVBoxLayout;

namespace Lumora {

class DisplayController;
class DisplayRow;
class HotkeyService;

class PopoverView : public QWidget {
    Q_OBJECT
public:
    static constexpr int panelWidth = 300;
    static constexpr int cornerRadius = 12;

    explicit PopoverView(DisplayController& controller, QWidget* parent = nullptr);
    // With the brightness-key settings (HotkeySettings over `hotkeys`) between the dividers.
    PopoverView(DisplayController& controller, HotkeyService& hotkeys, QWidget* parent = nullptr);

    // The section shown between the two dividers (the brightness-key settings). Empty until one is given; the
    // view takes ownership.
    void setSettingsSection(QWidget* section);

    // Whether the rounded background is drawn translucent (a compositor blends it) or opaque (a mask cuts it).
    void setTranslucentBackground(bool translucent);
    // Whether the view fills an ordinary window (square, no outline) instead of the floating panel.
    void setWindowed(bool windowed);

    // The tallest the view may be; the rows scroll inside what is left after the title, the settings and the
    // footer. 0: no limit.
    void setHeightLimit(int height);

    // The fixed width, and the height of the content at that width.
    QSize sizeHint() const override;

protected:
    void paintEvent(QPaintEvent* event) override;
    void changeEvent(QEvent* event) override;

private:
    void showDisplays();
    void showColours();
    void chainFocus();

    DisplayController& controller_;
    QLabel* empty_ = nullptr;
    QScrollArea* rowsArea_ = nullptr;
    QWidget* rowsBox_ = nullptr;
    QVBoxLayout* rows_ = nullptr;
    QVBoxLayout* settings_ = nullptr;
    QToolButton* refresh_ = nullptr;
    QPushButton* quit_ = nullptr;
    std::map<std::uint32_t, DisplayRow*> rowById_;
    bool translucent_ = false;
    bool windowed_ = false;
};

}  // namespace Lumora
