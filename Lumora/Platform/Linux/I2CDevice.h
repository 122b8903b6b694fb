// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once
// One open i2c-dev node (/dev/i2c-N): the Linux counterpart of a monitor's I2C channel.

#include <cstdint>
#include <memory>
#include <span>
#include <string>

namespace Lumora::Platform {

class I2CDevice {
public:
    // Opens the node read-write, close-on-exec; null when it cannot be opened (errno tells why).
    static std::shared_ptr<I2CDevice> open(const std::string& devicePath);
    // Whether the kernel offers the i2c-dev interface at all (/sys/class/i2c-dev).
    static bool interfaceAvailable();

    ~I2CDevice();
    I2CDevice(const I2CDevice&) = delete;
    I2CDevice& operator=(const I2CDevice&) = delete;

    // One I2C_RDWR write message of `bytes` to the 7-bit `address`; 0 or the errno value.
    int write(std::uint8_t address, std::span<const std::uint8_t> bytes);
    // One I2C_RDWR read message of `buffer.size()` bytes from `address`; 0 or the errno value.
    int read(std::uint8_t address, std::span<std::uint8_t> buffer);

    const std::string& path() const { return path_; }
    int descriptor() const { return fd_; }

private:
    I2CDevice(int fd, std::string path) : fd_(fd), path_(std::move(path)) {}
    int transfer(std::uint8_t address, std::uint16_t flags, std::uint8_t* data, std::size_t length);

    int fd_;
    std::string path_;
};

}  // namespace Lumora::Platform
