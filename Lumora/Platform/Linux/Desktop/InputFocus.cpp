// SPDX-License-Identifier: GPL-3.0-or-later
#include "Lumora/Platform/Linux/Desktop/InputFocus.h"

#include <QGuiApplication>
#include <QWidget>
#include <QtGui/qguiapplication_platform.h>

#include <xcb/xcb.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>

namespace Lumora {
namespace {

xcb_connection_t* x11()
{
    if (qGuiApp == nullptr || QGuiApplication::platformName() != QLatin1String("xcb")) {
        return nullptr;
    }
    auto* native = qGuiApp->nativeInterface<QNativeInterface::QX11Application>();
    return native != nullptr ? native->connection() : nullptr;
}

std::optional<xcb_window_t> focusedWindow(xcb_connection_t* connection)
{
    xcb_get_input_focus_reply_t* reply = xcb_get_input_focus_reply(connection, xcb_get_input_focus(connection), nullptr);
    if (reply == nullptr) {
        return std::nullopt;
    }
    const xcb_window_t focus = reply->focus;
    std::free(reply);
    return focus;
}

// A window that has gone, or is no longer viewable, refuses the focus: the error is taken here rather than left to
// the toolkit's error log.
void focus(xcb_connection_t* connection, xcb_window_t window)
{
    std::free(xcb_request_check(
        connection, xcb_set_input_focus_checked(connection, XCB_INPUT_FOCUS_PARENT, window, XCB_CURRENT_TIME)));
}

xcb_atom_t intern(xcb_connection_t* connection, const char* name)
{
    xcb_intern_atom_reply_t* reply = xcb_intern_atom_reply(
        connection, xcb_intern_atom(connection, 0, static_cast<std::uint16_t>(std::strlen(name)), name), nullptr);
    const xcb_atom_t atom = reply != nullptr ? reply->atom : xcb_atom_t{XCB_ATOM_NONE};
    std::free(reply);
    return atom;
}

}  // namespace

void InputFocus::take(QWidget& window)
{
    xcb_connection_t* connection = x11();
    if (connection == nullptr) {
        window.activateWindow();
        return;
    }
    const auto own = static_cast<xcb_window_t>(window.winId());
    const std::optional<xcb_window_t> before = focusedWindow(connection);
    if (before && *before != own) {
        previous_ = *before;
    }
    focus(connection, own);
}

void InputFocus::announceActivation(QWidget& window, const QString& token)
{
    xcb_connection_t* connection = x11();
    if (connection == nullptr || token.isEmpty()) {
        return;
    }
    const xcb_atom_t startupId = intern(connection, "_NET_STARTUP_ID");
    const xcb_atom_t utf8 = intern(connection, "UTF8_STRING");
    if (startupId == XCB_ATOM_NONE || utf8 == XCB_ATOM_NONE) {
        return;
    }
    const QByteArray value = token.toUtf8();
    xcb_change_property(connection, XCB_PROP_MODE_REPLACE, static_cast<xcb_window_t>(window.winId()), startupId, utf8,
                        8, static_cast<std::uint32_t>(value.size()), value.constData());
    xcb_flush(connection);
}

// The startup notification message "remove: ID=<token>", sent to the root window as client messages of 20 bytes
// each, the first of type _NET_STARTUP_INFO_BEGIN, the rest _NET_STARTUP_INFO, the last ending in a NUL.
void InputFocus::completeStartup(QWidget& window, const QString& token)
{
    xcb_connection_t* connection = x11();
    if (connection == nullptr || token.isEmpty()) {
        return;
    }
    QByteArray id;
    for (const char c : token.toUtf8()) {
        if (c == ' ' || c == '"' || c == '\\') {
            id += '\\';
        }
        id += c;
    }
    const QByteArray message = "remove: ID=" + id + '\0';
    const xcb_atom_t begin = intern(connection, "_NET_STARTUP_INFO_BEGIN");
    const xcb_atom_t more = intern(connection, "_NET_STARTUP_INFO");
    const xcb_screen_t* screen = xcb_setup_roots_iterator(xcb_get_setup(connection)).data;
    if (begin == XCB_ATOM_NONE || more == XCB_ATOM_NONE || screen == nullptr) {
        return;
    }
    for (qsizetype offset = 0; offset < message.size(); offset += 20) {
        xcb_client_message_event_t event{};
        event.response_type = XCB_CLIENT_MESSAGE;
        event.format = 8;
        event.window = static_cast<xcb_window_t>(window.winId());
        event.type = offset == 0 ? begin : more;
        std::memcpy(event.data.data8, message.constData() + offset, std::min<qsizetype>(20, message.size() - offset));
        xcb_send_event(connection, 0, screen->root, XCB_EVENT_MASK_PROPERTY_CHANGE,
                       reinterpret_cast<const char*>(&event));
    }
    xcb_flush(connection);
}

void InputFocus::giveBack(QWidget& window)
{
    const std::optional<std::uint32_t> previous = previous_;
    previous_.reset();
    xcb_connection_t* connection = x11();
    if (connection == nullptr || !previous || !window.testAttribute(Qt::WA_WState_Created)) {
        return;
    }
    if (focusedWindow(connection) != static_cast<xcb_window_t>(window.winId())) {
        return;  // the user has focused something else meanwhile
    }
    focus(connection, *previous);
}

}  // namespace Lumora
