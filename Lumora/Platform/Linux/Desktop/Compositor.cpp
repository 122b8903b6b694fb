// SPDX-License-Identifier: GPL-3.0-or-later
#include "Lumora/Platform/Linux/Desktop/Compositor.h"

#include <QGuiApplication>
#include <QtGui/qguiapplication_platform.h>

#include <xcb/xcb.h>

#include <cstdlib>
#include <string>

namespace Lumora::Compositor {

bool isRunning()
{
    if (qGuiApp == nullptr) {
        return false;
    }
    if (QGuiApplication::platformName().startsWith(QLatin1String("wayland"))) {
        return true;
    }
    auto* x11 = qGuiApp->nativeInterface<QNativeInterface::QX11Application>();
    if (x11 == nullptr || x11->connection() == nullptr) {
        return false;
    }
    xcb_connection_t* connection = x11->connection();

    int screen = 0;
    char* host = nullptr;
    int display = 0;
    if (xcb_parse_display(nullptr, &host, &display, &screen) != 0) {
        std::free(host);
    } else {
        screen = 0;
    }
    const std::string name = "_NET_WM_CM_S" + std::to_string(screen);

    xcb_intern_atom_reply_t* atom = xcb_intern_atom_reply(
        connection, xcb_intern_atom(connection, 1, static_cast<std::uint16_t>(name.size()), name.c_str()), nullptr);
    if (atom == nullptr) {
        return false;
    }
    const xcb_atom_t selection = atom->atom;
    std::free(atom);
    if (selection == XCB_ATOM_NONE) {
        return false;  // never interned: nobody ever owned it
    }
    xcb_get_selection_owner_reply_t* owner =
        xcb_get_selection_owner_reply(connection, xcb_get_selection_owner(connection, selection), nullptr);
    if (owner == nullptr) {
        return false;
    }
    const bool owned = owner->owner != XCB_WINDOW_NONE;
    std::free(owner);
    return owned;
}

}  // namespace Lumora::Compositor
