// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once
// Keyboard focus for a window the window manager leaves alone. The floating panel bypasses the window manager, so
// nobody ever focuses it: on X11 it takes the input focus itself when it is shown or clicked, and hands it back to
// the window that had it when it goes (unless the user has put the focus elsewhere meanwhile). Elsewhere the
// window is simply activated.

#include <cstdint>
#include <optional>

class QString;
class QWidget;

namespace Lumora {

class InputFocus {
public:
    // Gives `window` (shown, top-level) the keyboard focus, remembering the window that had it before.
    void take(QWidget& window);
    // While `window` still has the focus, gives it back to the window remembered by take(). Call before hiding.
    void giveBack(QWidget& window);
    // Before `window` is shown on X11: the activation token that the tray's host gave with the click, as the
    // window's startup id, by which a compositor (Mutter) lets the new window have the focus it would otherwise
    // refuse to a program that had no input of its own.
    static void announceActivation(QWidget& window, const QString& token);
    // Once `window` is shown: the launch that token stands for is over, so that the compositor stops showing the busy
    // pointer it shows for a program starting.
    static void completeStartup(QWidget& window, const QString& token);

private:
    std::optional<std::uint32_t> previous_;
};

}  // namespace Lumora
