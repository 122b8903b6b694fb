// SPDX-License-Identifier: GPL-3.0-or-later
#include "Lumora/Platform/Linux/Desktop/FocusedWindow.h"

#include <array>
#include <cstring>
#include <memory>

#include "Lumora/Platform/Linux/Desktop/X11Root.h"

namespace Lumora::FocusedWindow {
namespace {

template <typename Reply>
using Owned = std::unique_ptr<Reply, decltype(&std::free)>;

template <typename Reply>
Owned<Reply> own(Reply* reply)
{
    return Owned<Reply>(reply, &std::free);
}

// The property's 32-bit items, when it holds at least `count` of them of that type.
template <std::size_t count>
std::optional<std::array<std::uint32_t, count>> cardinals(xcb_connection_t* connection, xcb_window_t window,
                                                          xcb_atom_t property, xcb_atom_t type)
{
    if (property == XCB_ATOM_NONE)
        return std::nullopt;
    auto reply = own(xcb_get_property_reply(
        connection, xcb_get_property(connection, 0, window, property, type, 0, count), nullptr));
    if (reply == nullptr || reply->type != type || reply->format != 32 ||
        xcb_get_property_value_length(reply.get()) < int(count * 4))
        return std::nullopt;
    std::array<std::uint32_t, count> values{};
    std::memcpy(values.data(), xcb_get_property_value(reply.get()), count * 4);
    return values;
}

}  // namespace

std::optional<Rect> frame()
{
    const X11Root::Connection x11 = X11Root::get();
    if (!x11)
        return std::nullopt;
    xcb_connection_t* c = x11.connection;
    // Ask everything that does not depend on an answer at once.
    const xcb_intern_atom_cookie_t activeCookie = xcb_intern_atom(c, 1, 18, "_NET_ACTIVE_WINDOW");
    const xcb_intern_atom_cookie_t extentsCookie = xcb_intern_atom(c, 1, 18, "_NET_FRAME_EXTENTS");
    auto activeAtom = own(xcb_intern_atom_reply(c, activeCookie, nullptr));
    auto extentsAtom = own(xcb_intern_atom_reply(c, extentsCookie, nullptr));
    if (activeAtom == nullptr || activeAtom->atom == XCB_ATOM_NONE)
        return std::nullopt;

    const auto active = cardinals<1>(c, x11.root, activeAtom->atom, XCB_ATOM_WINDOW);
    if (!active || (*active)[0] == XCB_WINDOW_NONE)
        return std::nullopt;
    const xcb_window_t window = (*active)[0];

    const xcb_get_geometry_cookie_t geometryCookie = xcb_get_geometry(c, window);
    const xcb_translate_coordinates_cookie_t originCookie = xcb_translate_coordinates(c, window, x11.root, 0, 0);
    auto geometry = own(xcb_get_geometry_reply(c, geometryCookie, nullptr));
    auto origin = own(xcb_translate_coordinates_reply(c, originCookie, nullptr));
    if (geometry == nullptr || origin == nullptr)
        return std::nullopt;

    Rect frame{double(origin->dst_x), double(origin->dst_y), double(geometry->width), double(geometry->height)};
    // left, right, top, bottom
    if (const auto extents = cardinals<4>(c, window, extentsAtom ? xcb_atom_t{extentsAtom->atom} : xcb_atom_t{XCB_ATOM_NONE}, XCB_ATOM_CARDINAL)) {
        const auto [left, right, top, bottom] = *extents;
        frame = {frame.x - left, frame.y - top, frame.width + left + right, frame.height + top + bottom};
    }
    return frame;
}

}  // namespace Lumora::FocusedWindow
