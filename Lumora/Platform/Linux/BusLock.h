#pragma once
// A display bus held for one exchange with a monitor, against every other program on the machine: an exclusive
// flock(2) on the bus's device node (/dev/i2c-N). That is how Linux programs that speak DDC/CI keep their
// exchanges on one bus from interleaving, where one would read the reply to another's request or write inside the
// busy time after another's Set. Every open descriptor of the node contends for it, in this process too.
//
// The wait is bounded: flock has no timeout, so the lock is tried every millisecond until the deadline. A program
// that keeps the bus longer than any exchange takes makes the attempt fail, as a monitor that does not answer
// does; it never holds up a display's queue for long.

#include <chrono>

namespace Lumora::Platform {

class BusLock {
public:
    using Clock = std::chrono::steady_clock;

    // Locks the open node `fd`, waiting until `deadline` at most; once when the deadline has passed. A node that
    // takes no locks at all (ENOLCK, EINVAL) counts as held: there is no one to share it with that way.
    BusLock(int fd, Clock::time_point deadline);
    ~BusLock();  // lets go
    BusLock(BusLock&& other) noexcept;
    BusLock& operator=(BusLock&&) = delete;
    BusLock(const BusLock&) = delete;

    // Whether the bus is ours until this is destroyed.
    explicit operator bool() const { return held_; }

private:
    int fd_ = -1;  // the descriptor to unlock; -1 when there is nothing to let go
    bool held_ = false;
};

}  // namespace Lumora::Platform
