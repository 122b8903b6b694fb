// SPDX-License-Identifier: GPL-3.0-or-later
#include "Lumora/Platform/Linux/Desktop/IpcSocket.h"

#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

namespace Lumora {

IpcSocket::IpcSocket(const std::string& path, std::chrono::milliseconds deadline)
    : deadline_(std::chrono::steady_clock::now() + deadline)
{
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    if (path.empty() || path.size() >= sizeof(address.sun_path))
        return;
    std::memcpy(address.sun_path, path.c_str(), path.size() + 1);
    fd_ = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
    if (fd_ < 0)
        return;
    if (::connect(fd_, reinterpret_cast<const sockaddr*>(&address), sizeof(address)) == 0)
        return;
    if (errno == EINPROGRESS || errno == EAGAIN) {
        int error = 0;
        socklen_t length = sizeof(error);
        if (wait(POLLOUT) && ::getsockopt(fd_, SOL_SOCKET, SO_ERROR, &error, &length) == 0 && error == 0)
            return;
    }
    ::close(fd_);
    fd_ = -1;
}

IpcSocket::~IpcSocket()
{
    if (fd_ >= 0)
        ::close(fd_);
}

bool IpcSocket::wait(short events)
{
    for (;;) {
        const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline_ - std::chrono::steady_clock::now());
        if (left.count() <= 0)
            return false;
        pollfd one{fd_, events, 0};
        const int ready = ::poll(&one, 1, int(left.count()));
        if (ready > 0)
            return true;
        if (ready < 0 && errno != EINTR)
            return false;
    }
}

bool IpcSocket::send(const std::string& bytes)
{
    std::size_t sent = 0;
    while (fd_ >= 0 && sent < bytes.size()) {
        const ssize_t n = ::send(fd_, bytes.data() + sent, bytes.size() - sent, MSG_NOSIGNAL);
        if (n > 0) {
            sent += std::size_t(n);
        } else if (n < 0 && (errno == EAGAIN || errno == EINTR)) {
            if (!wait(POLLOUT))
                return false;
        } else {
            return false;
        }
    }
    return fd_ >= 0;
}

std::optional<std::string> IpcSocket::receive(std::size_t count)
{
    std::string bytes(count, '\0');
    std::size_t got = 0;
    while (fd_ >= 0 && got < count) {
        const ssize_t n = ::recv(fd_, bytes.data() + got, count - got, 0);
        if (n > 0) {
            got += std::size_t(n);
        } else if (n < 0 && (errno == EAGAIN || errno == EINTR)) {
            if (!wait(POLLIN))
                return std::nullopt;
        } else {
            return std::nullopt;  // the end of the stream, or an error
        }
    }
    if (fd_ < 0)
        return std::nullopt;
    return bytes;
}

std::optional<std::string> IpcSocket::receiveAll()
{
    std::string bytes;
    char chunk[16384];
    while (fd_ >= 0) {
        const ssize_t n = ::recv(fd_, chunk, sizeof(chunk), 0);
        if (n > 0) {
            bytes.append(chunk, std::size_t(n));
        } else if (n == 0) {
            return bytes;
        } else if (errno == EAGAIN || errno == EINTR) {
            if (!wait(POLLIN))
                return std::nullopt;
        } else {
            return std::nullopt;
        }
    }
    return std::nullopt;
}

}  // namespace Lumora
