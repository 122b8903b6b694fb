// SPDX-License-Identifier: GPL-3.0-or-later
#include "Lumora/Platform/Linux/Desktop/DisplayServer.h"

#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <xcb/xcb.h>

#include <cstdlib>
#include <cstring>

namespace Lumora::DisplayServer {
namespace {

std::string variable(const char* name)
{
    const char* value = std::getenv(name);
    return value != nullptr ? std::string(value) : std::string();
}

bool x11Answers(const std::string& display)
{
    xcb_connection_t* connection = xcb_connect(display.c_str(), nullptr);
    const bool ok = connection != nullptr && xcb_connection_has_error(connection) == 0;
    if (connection != nullptr) {
        xcb_disconnect(connection);
    }
    return ok;
}

// The compositor's socket: WAYLAND_DISPLAY itself when it is a path, else under XDG_RUNTIME_DIR.
bool waylandAnswers(const std::string& display)
{
    std::string path = display;
    if (path.empty() || path[0] != '/') {
        const std::string runtime = variable("XDG_RUNTIME_DIR");
        if (runtime.empty()) {
            return false;
        }
        path = runtime + "/" + path;
    }
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    if (path.size() >= sizeof(address.sun_path)) {
        return false;
    }
    std::memcpy(address.sun_path, path.c_str(), path.size() + 1);
    const int fd = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (fd < 0) {
        return false;
    }
    const bool ok = ::connect(fd, reinterpret_cast<const sockaddr*>(&address), sizeof(address)) == 0;
    ::close(fd);
    return ok;
}

}  // namespace

Reachability check()
{
    const std::string x11 = variable("DISPLAY");
    const std::string wayland = variable("WAYLAND_DISPLAY");
    if (!x11.empty()) {
        if (x11Answers(x11)) {
            return {Kind::x11, true, x11};
        }
        if (!wayland.empty() && waylandAnswers(wayland)) {
            return {Kind::wayland, true, wayland};
        }
        return {Kind::x11, false, x11};
    }
    if (!wayland.empty()) {
        return {Kind::wayland, waylandAnswers(wayland), wayland};
    }
    return {};
}

}  // namespace Lumora::DisplayServer
