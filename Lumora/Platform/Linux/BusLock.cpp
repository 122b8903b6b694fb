// SPDX-License-Identifier: GPL-3.0-or-later
#include "Lumora/Platform/Linux/BusLock.h"

#include <sys/file.h>

#include <cerrno>
#include <map>
#include <memory>
#include <thread>

namespace Lumora::Platform {
namespace {

// How often a held lock is tried again: an exchange lasts tens of milliseconds, so a millisecond costs little
// latency and few wake-ups.
constexpr std::chrono::milliseconds retryInterval{1};

// This process's lock of each node, kept for the run.
std::mutex& nodeLock(const std::string& devicePath)
{
    static std::mutex registryMutex;
    static std::map<std::string, std::unique_ptr<std::mutex>> locks;
    std::lock_guard<std::mutex> hold(registryMutex);
    std::unique_ptr<std::mutex>& slot = locks[devicePath];
    if (!slot)
        slot = std::make_unique<std::mutex>();
    return *slot;
}

}  // namespace

BusLock::BusLock(const std::string& devicePath, int fd, Clock::time_point deadline)
    : inProcess_(nodeLock(devicePath))
{
    for (;;) {
        if (::flock(fd, LOCK_EX | LOCK_NB) == 0) {
            fd_ = fd;
            held_ = true;
            return;
        }
        const int error = errno;
        if (error == EINTR)
            continue;
        if (error != EWOULDBLOCK || Clock::now() >= deadline) {
            held_ = error == ENOLCK || error == EINVAL;
            break;
        }
        std::this_thread::sleep_for(retryInterval);
    }
    if (!held_)
        inProcess_.unlock();
}

BusLock::BusLock(BusLock&& other) noexcept
    : inProcess_(std::move(other.inProcess_)), fd_(other.fd_), held_(other.held_)
{
    other.fd_ = -1;
    other.held_ = false;
}

BusLock::~BusLock()
{
    if (fd_ >= 0)
        ::flock(fd_, LOCK_UN);
}

}  // namespace Lumora::Platform
