// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once
// The I2C entry points that carry DDC/CI to a monitor, bound once at run time.
//
// On Linux they stand on the kernel's i2c-dev interface: creating a service opens the monitor's /dev/i2c-N, a
// write is one I2C_RDWR write message and a read one I2C_RDWR read message, paced for real monitors by the
// monitor's channel (Platform::DDCChannel: busy time after a Set, the null message as a failed read, waking). The
// entry points are present exactly when the kernel offers i2c-dev (/sys/class/i2c-dev exists). Once present they
// stay bound for the run; while absent, every lookup checks again, so the tray application finds a module loaded
// after it started at its next refresh. The write entry point writes to the DDC/CI address 0x37 only and refuses
// every other.
//
// A fourth entry point holds a monitor's bus for one exchange, so that the exchanges of other programs that speak
// DDC/CI on Linux (and of a second Lumora) never interleave with ours: they all take an exclusive lock on the
// bus's device node for each exchange.

#include <chrono>
#include <cstdint>
#include <memory>

namespace Lumora {

namespace Platform { class DDCChannel; }

// The monitor's I2C channel: reference-counted, it owns the open descriptor.
using IOAVServiceRef = std::shared_ptr<Platform::DDCChannel>;

struct IOAVService {
    // Opens the service for a registry entry's device node ("/dev/i2c-4"); null when it cannot be opened.
    using CreateFn = IOAVServiceRef (*)(const char* devicePath);
    // Writes `dataAddress` followed by `length` bytes to `chipAddress`; 0 on success, else an errno value.
    using WriteFn = std::int32_t (*)(const IOAVServiceRef& service, std::uint32_t chipAddress,
                                     std::uint32_t dataAddress, const std::uint8_t* buffer, std::uint32_t length);
    // Reads `length` bytes from `chipAddress` (offset must be 0); 0 on success, else an errno value. A reply that
    // is the null message (length byte 0x80) is a failed read.
    using ReadFn = std::int32_t (*)(const IOAVServiceRef& service, std::uint32_t chipAddress, std::uint32_t offset,
                                    std::uint8_t* buffer, std::uint32_t length);

    // Holds the service's bus for one exchange (a Set with its repeat, a Get request with its reply read), waiting
    // for other programs until `deadline` at most; null when the bus could not be had. The bus is let go when the
    // result is destroyed.
    using HoldFn = std::shared_ptr<void> (*)(const IOAVServiceRef& service,
                                             std::chrono::steady_clock::time_point deadline);

    // Each null when absent. Safe to call from several threads at once.
    static CreateFn createFn();
    static WriteFn writeFn();
    static ReadFn readFn();
    static HoldFn holdFn();
    static bool isAvailable();
};

}  // namespace Lumora
