// SPDX-License-Identifier: GPL-3.0-or-later
#include "Lumora/Platform/Linux/Desktop/WaylandSession.h"

#include <QGuiApplication>
#include <QScreen>
#include <QtGui/qguiapplication_platform.h>

#include <xcb/xcb.h>

#include <cstdlib>
#include <cstring>

namespace Lumora::WaylandSession {
namespace {

// XWayland announces itself with an extension of its name (since 21.1) and names its outputs XWAYLAND0, ...
bool isXWayland()
{
    auto* x11 = qGuiApp->nativeInterface<QNativeInterface::QX11Application>();
    if (x11 != nullptr && x11->connection() != nullptr) {
        constexpr const char* extension = "XWAYLAND";
        xcb_query_extension_reply_t* reply = xcb_query_extension_reply(
            x11->connection(),
            xcb_query_extension(x11->connection(), static_cast<std::uint16_t>(std::strlen(extension)), extension),
            nullptr);
        const bool present = reply != nullptr && reply->present != 0;
        std::free(reply);
        if (present) {
            return true;
        }
    }
    for (const QScreen* screen : QGuiApplication::screens()) {
        if (screen->name().startsWith(QLatin1String("XWAYLAND"))) {
            return true;
        }
    }
    return false;
}

}  // namespace

bool isActive()
{
    if (qGuiApp == nullptr) {
        return false;
    }
    const QString platform = QGuiApplication::platformName();
    if (platform.startsWith(QLatin1String("wayland"))) {
        return true;
    }
    return platform == QLatin1String("xcb") && isXWayland();
}

}  // namespace Lumora::WaylandSession
