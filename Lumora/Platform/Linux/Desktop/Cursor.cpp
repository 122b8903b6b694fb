// SPDX-License-Identifier: GPL-3.0-or-later
#include "Lumora/Platform/Linux/Desktop/Cursor.h"

#include <QCursor>

#include <memory>

#include "Lumora/Platform/Linux/Desktop/X11Root.h"

namespace Lumora::Cursor {

std::optional<Point> position()
{
    if (const X11Root::Connection x11 = X11Root::get()) {
        std::unique_ptr<xcb_query_pointer_reply_t, decltype(&std::free)> pointer(
            xcb_query_pointer_reply(x11.connection, xcb_query_pointer(x11.connection, x11.root), nullptr), &std::free);
        if (pointer == nullptr)
            return std::nullopt;
        return Point{double(pointer->root_x), double(pointer->root_y)};
    }
    if (qGuiApp == nullptr)
        return std::nullopt;
    const QPoint at = QCursor::pos();
    return Point{double(at.x()), double(at.y())};
}

}  // namespace Lumora::Cursor
