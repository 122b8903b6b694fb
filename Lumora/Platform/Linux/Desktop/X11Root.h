// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once
// Qt's own X11 connection and the root window of the default screen, for the short synchronous queries of the
// brightness keys (FocusedWindow, Cursor). Main thread only.

#include <QGuiApplication>
#include <QtGui/qguiapplication_platform.h>

#include <xcb/xcb.h>

#include <cstdlib>

namespace Lumora::X11Root {

struct Connection {
    xcb_connection_t* connection = nullptr;
    xcb_window_t root = XCB_WINDOW_NONE;
    explicit operator bool() const { return connection != nullptr && root != XCB_WINDOW_NONE; }
};

inline Connection get()
{
    if (qGuiApp == nullptr || QGuiApplication::platformName() != QLatin1String("xcb"))
        return {};
    auto* x11 = qGuiApp->nativeInterface<QNativeInterface::QX11Application>();
    if (x11 == nullptr || x11->connection() == nullptr || xcb_connection_has_error(x11->connection()) != 0)
        return {};
    xcb_connection_t* connection = x11->connection();
    int screen = 0;
    char* host = nullptr;
    int display = 0;
    if (xcb_parse_display(nullptr, &host, &display, &screen) != 0)
        std::free(host);
    else
        screen = 0;
    xcb_screen_iterator_t it = xcb_setup_roots_iterator(xcb_get_setup(connection));
    for (int i = 0; i < screen && it.rem > 0; ++i)
        xcb_screen_next(&it);
    if (it.rem == 0)
        return {};
    return {connection, it.data->root};
}

}  // namespace Lumora::X11Root
