// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once
// A display bus held for one exchange with a monitor (a Set with its repeat, a Get request with the read of its
// reply, an EDID read), so that no other exchange on that bus falls inside it.
//
// Against other programs: an exclusive flock(2) on the bus's device node (/dev/i2c-N). That is how Linux programs
// that speak DDC/CI keep their exchanges on one bus from interleaving, where one would read the reply to another's
// request or write inside the busy time after another's Set. The wait is bounded: flock has no timeout, so the lock
// is tried every millisecond until the deadline. A program that keeps the bus longer than any exchange takes makes
// the attempt fail, as a monitor that does not answer does; it never holds up a display's queue for long.
//
// Within this process: first a lock of the node's own, waited for as long as the holder keeps it, since this
// process's exchanges are bounded (waking a monitor takes up to a few seconds); a refresh's read then follows the
// write in progress instead of failing.

#include <chrono>
#include <mutex>
#include <string>

namespace Lumora::Platform {

class BusLock {
public:
    using Clock = std::chrono::steady_clock;

    // Holds the bus of `devicePath`, opened as `fd`: this process's other holders of that node are waited for, other
    // programs until `deadline` at most (tried once when it has passed). A node that takes no flock at all (ENOLCK,
    // EINVAL) counts as held: there is no one to share it with that way.
    BusLock(const std::string& devicePath, int fd, Clock::time_point deadline);
    ~BusLock();  // lets go
    BusLock(BusLock&& other) noexcept;
    BusLock& operator=(BusLock&&) = delete;
    BusLock(const BusLock&) = delete;

    // Whether the bus is ours until this is destroyed.
    explicit operator bool() const { return held_; }

private:
    std::unique_lock<std::mutex> inProcess_;
    int fd_ = -1;  // the descriptor to unlock; -1 when there is no flock to let go
    bool held_ = false;
};

}  // namespace Lumora::Platform
