// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once
// The resolver's inputs from the desktop the user runs: its outputs with their connector names, the focused window
// and the pointer, all in the desktop's one global space (DesktopView). Each desktop tells them its own way, and is
// one small reader: X11 (RandR screens, _NET_ACTIVE_WINDOW, the root pointer; also Xfce, MATE and other X11
// desktops), sway (its IPC socket), Hyprland (its IPC socket), KWin (D-Bus, and a KWin script of Lumora's for the
// active window) and GNOME Shell (Mutter's display configuration, and Lumora's GNOME Shell extension for the
// window and the pointer). The reader is chosen once, at the first use, from what the session says it is.
//
// Main thread only. Every read is bounded: a compositor that does not answer within a fraction of a second counts
// as telling nothing.

#include <memory>
#include <string>

#include "LumoraCore/DesktopLayout.h"

namespace Lumora {

class DesktopInputs {
public:
    virtual ~DesktopInputs() = default;

    // "X11", "sway", "Hyprland", "KWin", "GNOME Shell".
    virtual std::string name() const = 0;
    // Asked afresh at every call. Empty when the desktop tells nothing (it went away).
    virtual DesktopView read() = 0;
    // What the desktop still needs for Lumora to see the window the user works in.
    enum class Need { nothing, gnomeShellExtension };
    virtual Need missing() const { return Need::nothing; }

    // The desktop of this session: sway when SWAYSOCK is set, Hyprland when HYPRLAND_INSTANCE_SIGNATURE is, KWin
    // or GNOME Shell on a Wayland session whose XDG_CURRENT_DESKTOP names KDE or GNOME, else X11.
    static DesktopInputs& session();
    // A reader chosen as session() chooses, from these values.
    static std::unique_ptr<DesktopInputs> choose(const std::string& swaySocket, const std::string& hyprlandSignature,
                                                 const std::string& currentDesktop, bool wayland);
};

// Each desktop's reader.
std::unique_ptr<DesktopInputs> makeX11Desktop();
std::unique_ptr<DesktopInputs> makeSwayDesktop(const std::string& socketPath);
std::unique_ptr<DesktopInputs> makeHyprlandDesktop(const std::string& instanceSignature);
std::unique_ptr<DesktopInputs> makeKWinDesktop();
std::unique_ptr<DesktopInputs> makeGnomeShellDesktop();

}  // namespace Lumora
