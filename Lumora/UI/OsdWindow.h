// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once
// Lumora's own on-screen display, for desktops that offer none Lumora may use: a small dark box near the bottom of
// one screen with the sun, the display's name and its brightness as a bar, shown for 1.5 s after a brightness key
// or a script changed a monitor the user cannot otherwise watch change. It never takes the focus and lets every
// click through to what lies under it, so typing and clicking go on undisturbed.

#include <QWidget>

class QTimer;
class QScreen;

namespace Lumora {

class OsdWindow : public QWidget {
    Q_OBJECT
public:
    static constexpr int shownForMs = 1500;

    explicit OsdWindow(QWidget* parent = nullptr);

    // Shows `name` at `level` (0 … 1) on `screen`, or on the same screen again with the new level while it is still
    // up; hides 1.5 s after the last call.
    void present(QScreen* screen, const QString& name, double level);

    QString name() const { return name_; }
    double level() const { return level_; }

protected:
    void paintEvent(QPaintEvent* event) override;

private:
    QTimer* hide_ = nullptr;
    QString name_;
    double level_ = 0;
};

}  // namespace Lumora
