// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once
// A display's brightness slider: continuous on screen (a fine range, so that a quarter of it is exactly 0.25), a
// press anywhere on the groove puts the handle there and starts a drag, the arrow keys move it by one percent and
// Page Up / Page Down by a sixteenth, as the brightness keys do. Screen readers read and set it in percent.

#include <QSlider>

namespace Lumora {

class BrightnessSlider : public QSlider {
    Q_OBJECT
public:
    static constexpr int steps = 10000;

    explicit BrightnessSlider(QWidget* parent = nullptr);

    double fraction() const { return static_cast<double>(value()) / steps; }
    // The brightness in whole percent, as it is read out.
    int percent() const;
};

}  // namespace Lumora
