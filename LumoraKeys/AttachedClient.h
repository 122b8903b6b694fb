// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once
// The one Lumora the key service serves: the socket it handed over when it attached (KeyProtocol), and the login
// session and seat it was attached from. Presses go out from the tap's capture thread; decisions are read on the
// service's main thread.

#include <cstdint>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "LumoraCore/KeyProtocol.h"

namespace Lumora::Keys {

class AttachedClient {
public:
    // Takes the descriptor (a connected AF_UNIX SOCK_SEQPACKET socket).
    AttachedClient(int socket, std::string session, std::string seat);
    ~AttachedClient();

    AttachedClient(const AttachedClient&) = delete;
    AttachedClient& operator=(const AttachedClient&) = delete;

    // Whether a descriptor is a socket the protocol can run over.
    static bool isUsableSocket(int fd);

    int fd() const { return socket_; }
    const std::string& session() const { return session_; }
    const std::string& seat() const { return seat_; }

    // Any thread. False when the press could not be handed over (the client is gone, or does not read): the press
    // goes on without waiting for a decision that cannot come.
    bool send(const KeyProtocol::Press& press);

    // Main thread, when the socket is readable: the decisions waiting on it, in order. Nothing when the client hung
    // up or sent something that is not a decision: it is to be detached.
    std::optional<std::vector<KeyProtocol::Decision>> receive();

private:
    int socket_;
    std::string session_;
    std::string seat_;
    std::mutex sending_;
};

}  // namespace Lumora::Keys
