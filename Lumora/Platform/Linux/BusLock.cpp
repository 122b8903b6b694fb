#include "Lumora/Platform/Linux/BusLock.h"

#include <sys/file.h>

#include <cerrno>
#include <thread>

namespace Lumora::Platform {
namespace {

// How often a held lock is tried again: an exchange lasts tens of milliseconds, so a millisecond costs little
// latency and few wake-ups.
constexpr std::chrono::milliseconds retryInterval{1};

}  // namespace

BusLock::BusLock(int fd, Clock::time_point deadline)
{
    for (;;) {
        if (::flock(fd, LOCK_EX | LOCK_NB) == 0) {
            fd_ = fd;
            held_ = true;
            return;
        }
        if (errno == EINTR)
            continue;
        if (errno != EWOULDBLOCK) {
            held_ = errno == ENOLCK || errno == EINVAL;
            return;
        }
        if (Clock::now() >= deadline)
            return;
        std::this_thread::sleep_for(retryInterval);
    }
}

BusLock::BusLock(BusLock&& other) noexcept : fd_(other.fd_), held_(other.held_)
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
