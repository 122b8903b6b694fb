// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once
// The panel's section for the brightness keys: the switch "Use F1/F2 for external brightness", and, only while
// the feature is on without access to the keyboards, a warning and the button that asks for that access; while it
// is on, also what the desktop still needs for the keys to find the monitor the user works on (GNOME's extension,
// when it is not enabled), asked afresh each time the section is shown. It shows
// the service's two fields and follows every change of them; it never changes them itself, only through the
// service's operations.

#include <QWidget>

class QLabel;
class QPushButton;

namespace Lumora {

class HotkeyService;
class SwitchButton;

class HotkeySettings : public QWidget {
    Q_OBJECT
public:
    explicit HotkeySettings(HotkeyService& hotkeys, QWidget* parent = nullptr);

protected:
    void showEvent(QShowEvent* event) override;

private:
    void showState();

    HotkeyService& hotkeys_;
    SwitchButton* toggle_ = nullptr;
    QWidget* permission_ = nullptr;
    QLabel* warningSymbol_ = nullptr;
    QLabel* desktopNote_ = nullptr;
};

}  // namespace Lumora
