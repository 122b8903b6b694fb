// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once
// A labelled on/off switch in the small size: the label on the leading side, a rounded track with a knob on the
// trailing edge. Checkable; a click anywhere on it or the space bar flips it, and screen readers see a check box
// with the label as its name.

#include <QAbstractButton>

namespace Lumora {

class SwitchButton : public QAbstractButton {
    Q_OBJECT
public:
    static constexpr int trackWidth = 26;
    static constexpr int trackHeight = 15;

    explicit SwitchButton(const QString& text, QWidget* parent = nullptr);

    QSize sizeHint() const override;
    QSize minimumSizeHint() const override;
    // Where the track is drawn, in the switch's own coordinates.
    QRect trackRect() const;

protected:
    void paintEvent(QPaintEvent* event) override;
    bool hitButton(const QPoint& position) const override;
};

}  // namespace Lumora
