// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once
// One monitor's DDC/CI channel on an i2c-dev node: the transfers IOAVService's entry points make, paced the way
// real monitors need it.
//
// - Busy after a Set. A monitor takes about 50 ms to apply a Set VCP it acknowledged and meanwhile NAKs its
//   address, or acknowledges and silently drops what comes. The channel keeps the bytes and the time of the last
//   Set the monitor acknowledged. A write of those same bytes (a Set is sent twice, 10 ms apart) goes at once and
//   counts as taken: NAKed, that is the monitor busy with this very request; acknowledged a busy time or more after
//   the first copy was sent (held up on a loaded machine), the monitor may have taken it as a new Set, and the busy
//   time runs from that copy. Any other transfer first
//   waits out the rest of the busy time; if it had to wait, or comes within twice the busy time of the last Set,
//   and is NAKed anyway, it is tried once more after another busy time before the failure is reported (many
//   monitors stay busy longer than hosts are told to wait).
// - The null message. A monitor with nothing to say answers a read with 6E 80 BE (length 0) and filler, which can
//   pass a reply's checksum. A read that returns it fails (nullMessageStatus): it is never a reply.
// - Waking. After an acknowledged power-on (Set VCP 0xD6 = 1) many monitors answer nothing for a second or two and
//   drop what they are sent. The next transfer other than that command's repeat first waits until the monitor
//   answers Get VCP 0xD6 again, asking every 100 ms for at most 5 s after the command, so that what follows a wake
//   (the brightness to restore) lands.
//
// That state belongs to the monitor, not to one descriptor: every channel opened on the same node in this process
// shares it (a refresh reads a monitor through a descriptor of its own, while writes go through another), and
// transfers through the channels of one node take turns. A transfer may block for the waits above: never call it
// on a thread that must not wait.
//
// An exchange (a Set with its repeat, a Get request with its reply read) holds the bus throughout (holdBus), so
// that no other exchange with the monitor, of this process or another program, falls inside it.

#include <chrono>
#include <cstdint>
#include <memory>
#include <span>
#include <string>

namespace Lumora::Platform {

class I2CDevice;

class DDCChannel {
public:
    // How long a monitor is busy after a Set it acknowledged.
    static constexpr std::chrono::milliseconds busyTime{50};
    // Waking: how often the monitor is asked whether it is awake, and for how long after the power-on command.
    static constexpr std::chrono::milliseconds wakePollInterval{100};
    static constexpr std::chrono::milliseconds wakeLimit{5000};
    // What a read that brought the null message reports.
    static const int nullMessageStatus;

    // Opens the node read-write, close-on-exec; null when it cannot be opened (errno tells why).
    static std::shared_ptr<DDCChannel> open(const std::string& devicePath);

    ~DDCChannel();
    DDCChannel(const DDCChannel&) = delete;
    DDCChannel& operator=(const DDCChannel&) = delete;

    // One write message of `bytes` (the source address 0x51 first, for the monitor) to the 7-bit `address`;
    // 0 or an errno value.
    int write(std::uint8_t address, std::span<const std::uint8_t> bytes);
    // One read message of `buffer.size()` bytes from `address`; 0 or an errno value.
    int read(std::uint8_t address, std::span<std::uint8_t> buffer);

    // Holds the monitor's bus for one exchange (BusLock): against this process's other exchanges on the node for as
    // long as they take, against other programs until `deadline` at most. Null when another program kept the bus;
    // else the bus is let go when the result is destroyed.
    std::shared_ptr<void> holdBus(std::chrono::steady_clock::time_point deadline);

    const std::string& path() const { return path_; }

private:
    struct Monitor;
    DDCChannel(std::shared_ptr<I2CDevice> device, std::shared_ptr<Monitor> monitor, std::string path);

    std::shared_ptr<I2CDevice> device_;
    std::shared_ptr<Monitor> monitor_;
    std::string path_;
};

}  // namespace Lumora::Platform
