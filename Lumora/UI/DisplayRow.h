// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once
// One display in the panel: its name, a power button for an external monitor, and a brightness slider between a
// dim and a bright sun. The row shows a copy of its display's snapshot and sends every action to the controller;
// it keeps its identity (and a slider drag in progress) while that display's values change. Its controls take the
// keyboard focus in order (power button, slider) and carry names for screen readers.

#include <QWidget>

#include "Lumora/App/DisplaySnapshot.h"

class QLabel;
class QToolButton;

namespace Lumora {

class BrightnessSlider;
class DisplayController;

class DisplayRow : public QWidget {
    Q_OBJECT
public:
    // The slider's range: fine enough to be continuous on screen, and a quarter of it is exactly 0.25.
    static constexpr int sliderSteps = 10000;

    DisplayRow(const DisplaySnapshot& display, DisplayController& controller, QWidget* parent = nullptr);

    const DisplaySnapshot& display() const { return display_; }
    // Shows new values of the same display. While the user holds the slider, its position is left alone.
    void update(const DisplaySnapshot& display);

    // The row's controls that take the keyboard focus, in Tab order.
    QList<QWidget*> focusChain() const;

protected:
    void changeEvent(QEvent* event) override;

private:
    void showPower();
    void showBrightness();
    void showSymbols();
    void showNames();

    DisplaySnapshot display_;
    DisplayController& controller_;
    QLabel* name_ = nullptr;
    QToolButton* power_ = nullptr;
    QLabel* dimmer_ = nullptr;
    BrightnessSlider* slider_ = nullptr;
    QLabel* brighter_ = nullptr;
};

}  // namespace Lumora
