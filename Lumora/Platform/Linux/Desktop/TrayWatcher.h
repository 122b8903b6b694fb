// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once
// Tells when the X11 desktop's system tray comes or goes (a panel starting after Lumora at login, a panel
// restarting): the xcb platform's tray tracker follows the tray's manager selection and announces every change.
// Elsewhere (Wayland, StatusNotifier hosts) nothing is announced.

#include <QObject>

#include <functional>

class QScreen;

namespace Lumora {

class TrayWatcher : public QObject {
    Q_OBJECT
public:
    explicit TrayWatcher(std::function<void()> onChange, QObject* parent = nullptr);

private slots:
    void trayWindowChanged(QScreen* screen);

private:
    std::function<void()> onChange_;
};

}  // namespace Lumora
