// SPDX-License-Identifier: GPL-3.0-or-later
#include "LumoraKeys/AttachedClient.h"

#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>

namespace Lumora::Keys {
namespace {

// A client that floods decisions is read this much per turn, so that the bus and the tap still get their turn.
constexpr int messagesPerTurn = 64;

}  // namespace

AttachedClient::AttachedClient(int socket, std::string session, std::string seat)
    : socket_(socket), session_(std::move(session)), seat_(std::move(seat))
{
}

AttachedClient::~AttachedClient()
{
    const std::lock_guard<std::mutex> lock(sending_);
    ::close(socket_);
}

bool AttachedClient::isUsableSocket(int fd)
{
    int type = 0;
    int domain = 0;
    socklen_t size = sizeof type;
    if (::getsockopt(fd, SOL_SOCKET, SO_TYPE, &type, &size) != 0 || type != SOCK_SEQPACKET)
        return false;
    size = sizeof domain;
    return ::getsockopt(fd, SOL_SOCKET, SO_DOMAIN, &domain, &size) == 0 && domain == AF_UNIX;
}

bool AttachedClient::send(const KeyProtocol::Press& press)
{
    const KeyProtocol::Message message = KeyProtocol::encode(press);
    const std::lock_guard<std::mutex> lock(sending_);
    for (;;) {
        const ssize_t n = ::send(socket_, message.data(), message.size(), MSG_DONTWAIT | MSG_NOSIGNAL);
        if (n < 0 && errno == EINTR)
            continue;
        return n == ssize_t(message.size());
    }
}

std::optional<std::vector<KeyProtocol::Decision>> AttachedClient::receive()
{
    std::vector<KeyProtocol::Decision> decisions;
    for (int i = 0; i < messagesPerTurn; ++i) {
        // One byte more than a message: a longer one shows as truncated (MSG_TRUNC gives its real size).
        std::uint8_t buffer[KeyProtocol::messageSize + 1];
        const ssize_t n = ::recv(socket_, buffer, sizeof buffer, MSG_DONTWAIT | MSG_TRUNC);
        if (n < 0 && errno == EINTR)
            continue;
        if (n < 0 && (errno == EAGAIN || errno == EWOULDBLOCK))
            return decisions;
        if (n <= 0 || std::size_t(n) != KeyProtocol::messageSize)
            return std::nullopt;
        const std::optional<KeyProtocol::Decision> decision =
            KeyProtocol::decodeDecision(std::span<const std::uint8_t>(buffer, KeyProtocol::messageSize));
        if (!decision)
            return std::nullopt;
        decisions.push_back(*decision);
    }
    return decisions;
}

}  // namespace Lumora::Keys
