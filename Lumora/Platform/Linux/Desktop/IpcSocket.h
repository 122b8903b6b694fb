// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once
// A compositor's IPC socket (sway, Hyprland): a Unix stream connection that gives up at a deadline set when it
// opens, so that a compositor that hangs costs a brightness key a fraction of a second at most.

#include <chrono>
#include <optional>
#include <string>

namespace Lumora {

class IpcSocket {
public:
    IpcSocket(const std::string& path, std::chrono::milliseconds deadline);
    ~IpcSocket();
    IpcSocket(const IpcSocket&) = delete;
    IpcSocket& operator=(const IpcSocket&) = delete;

    bool connected() const { return fd_ >= 0; }
    bool send(const std::string& bytes);
    // Exactly `count` bytes, or nothing at the deadline or the end of the stream.
    std::optional<std::string> receive(std::size_t count);
    // Everything up to the end of the stream, or nothing at the deadline.
    std::optional<std::string> receiveAll();

private:
    bool wait(short events);

    int fd_ = -1;
    std::chrono::steady_clock::time_point deadline_;
};

}  // namespace Lumora
