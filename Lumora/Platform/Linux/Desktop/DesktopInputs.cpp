// SPDX-License-Identifier: GPL-3.0-or-later
#include "Lumora/Platform/Linux/Desktop/DesktopInputs.h"

#include <cstdlib>

namespace Lumora {
namespace {

std::string environment(const char* name)
{
    const char* value = std::getenv(name);
    return value != nullptr ? value : "";
}

// XDG_CURRENT_DESKTOP is a colon-separated list ("ubuntu:GNOME", "KDE").
bool names(const std::string& currentDesktop, const std::string& desktop)
{
    std::size_t start = 0;
    while (start <= currentDesktop.size()) {
        const std::size_t end = std::min(currentDesktop.find(':', start), currentDesktop.size());
        if (currentDesktop.compare(start, end - start, desktop) == 0)
            return true;
        start = end + 1;
    }
    return false;
}

}  // namespace

std::unique_ptr<DesktopInputs> DesktopInputs::choose(const std::string& swaySocket,
                                                     const std::string& hyprlandSignature,
                                                     const std::string& currentDesktop, bool wayland)
{
    if (!swaySocket.empty())
        return makeSwayDesktop(swaySocket);
    if (!hyprlandSignature.empty())
        return makeHyprlandDesktop(hyprlandSignature);
    if (wayland && names(currentDesktop, "KDE"))
        return makeKWinDesktop();
    if (wayland && names(currentDesktop, "GNOME"))
        return makeGnomeShellDesktop();
    return makeX11Desktop();
}

DesktopInputs& DesktopInputs::session()
{
    static const std::unique_ptr<DesktopInputs> chosen =
        choose(environment("SWAYSOCK"), environment("HYPRLAND_INSTANCE_SIGNATURE"),
               environment("XDG_CURRENT_DESKTOP"), !environment("WAYLAND_DISPLAY").empty());
    return *chosen;
}

}  // namespace Lumora
