// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once
// Sees mouse-button presses anywhere on the X11 desktop without grabbing anything: XInput2 raw button events on
// the root window, on a connection of its own, selected only while a watcher exists. The clicked window still
// gets its click. Presses of the left or right button whose cursor position the `isOwn` test accepts (the
// application's own windows) are ignored; every other one calls `onOutsideClick` with the cursor position.

#include <QObject>
#include <QPoint>

#include <functional>
#include <memory>

class QSocketNotifier;
struct xcb_connection_t;

namespace Lumora {

class OutsideClickWatcher : public QObject {
    Q_OBJECT
public:
    // Absent when the window system is not X11 or has no XInput 2.
    static std::unique_ptr<OutsideClickWatcher> install(std::function<bool(QPoint)> isOwn,
                                                        std::function<void(QPoint)> onOutsideClick);
    ~OutsideClickWatcher() override;

private:
    OutsideClickWatcher(xcb_connection_t* connection, std::uint8_t opcode, std::function<bool(QPoint)> isOwn,
                        std::function<void(QPoint)> onOutsideClick);
    void readEvents();

    xcb_connection_t* connection_;
    std::uint8_t opcode_;
    std::function<bool(QPoint)> isOwn_;
    std::function<void(QPoint)> onOutsideClick_;
    QSocketNotifier* notifier_ = nullptr;
};

}  // namespace Lumora
