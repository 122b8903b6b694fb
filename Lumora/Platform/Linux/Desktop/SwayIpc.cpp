// SPDX-License-Identifier: GPL-3.0-or-later
#include "Lumora/Platform/Linux/Desktop/SwayIpc.h"

#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstdint>
#include <cstdlib>
#include <cstring>

namespace Lumora::SwayIpc {
namespace {

constexpr char magic[] = {'i', '3', '-', 'i', 'p', 'c'};
constexpr std::uint32_t runCommand = 0;
// sway answers a command at once; a compositor that does not is not waited for.
constexpr int answerTimeoutMs = 500;

class Socket {
public:
    explicit Socket(const char* path)
    {
        sockaddr_un address{};
        if (path == nullptr || std::strlen(path) >= sizeof(address.sun_path)) {
            return;
        }
        address.sun_family = AF_UNIX;
        std::strcpy(address.sun_path, path);
        fd_ = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
        if (fd_ >= 0 && ::connect(fd_, reinterpret_cast<const sockaddr*>(&address), sizeof(address)) != 0) {
            ::close(fd_);
            fd_ = -1;
        }
    }
    ~Socket()
    {
        if (fd_ >= 0) {
            ::close(fd_);
        }
    }
    Socket(const Socket&) = delete;
    Socket& operator=(const Socket&) = delete;

    bool isOpen() const { return fd_ >= 0; }

    bool send(const std::string& bytes)
    {
        std::size_t sent = 0;
        while (sent < bytes.size()) {
            const ssize_t n = ::send(fd_, bytes.data() + sent, bytes.size() - sent, MSG_NOSIGNAL);
            if (n <= 0) {
                return false;
            }
            sent += static_cast<std::size_t>(n);
        }
        return true;
    }

    bool receive(char* into, std::size_t size)
    {
        std::size_t got = 0;
        while (got < size) {
            pollfd ready{fd_, POLLIN, 0};
            if (::poll(&ready, 1, answerTimeoutMs) != 1) {
                return false;
            }
            const ssize_t n = ::recv(fd_, into + got, size - got, 0);
            if (n <= 0) {
                return false;
            }
            got += static_cast<std::size_t>(n);
        }
        return true;
    }

private:
    int fd_ = -1;
};

}  // namespace

bool isAvailable()
{
    const char* path = std::getenv("SWAYSOCK");
    return path != nullptr && *path != '\0';
}

bool command(const std::string& text)
{
    Socket socket(std::getenv("SWAYSOCK"));
    if (!socket.isOpen()) {
        return false;
    }
    // The header: the magic, then the payload's length and the message type in the machine's byte order.
    std::string message(magic, sizeof(magic));
    const auto length = static_cast<std::uint32_t>(text.size());
    message.append(reinterpret_cast<const char*>(&length), sizeof(length));
    message.append(reinterpret_cast<const char*>(&runCommand), sizeof(runCommand));
    message += text;
    if (!socket.send(message)) {
        return false;
    }
    char header[sizeof(magic) + 2 * sizeof(std::uint32_t)];
    if (!socket.receive(header, sizeof(header)) || std::memcmp(header, magic, sizeof(magic)) != 0) {
        return false;
    }
    std::uint32_t answerLength = 0;
    std::memcpy(&answerLength, header + sizeof(magic), sizeof(answerLength));
    if (answerLength > 65536) {
        return false;
    }
    std::string answer(answerLength, '\0');
    if (!socket.receive(answer.data(), answer.size())) {
        return false;
    }
    // One result per command: [{"success": true}]; a failure says false.
    const bool failed = answer.find("\"success\": false") != std::string::npos ||
                        answer.find("\"success\":false") != std::string::npos;
    return !failed && answer.find("success") != std::string::npos;
}

}  // namespace Lumora::SwayIpc
