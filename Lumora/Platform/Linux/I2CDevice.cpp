// SPDX-License-Identifier: GPL-3.0-or-later
#include "Lumora/Platform/Linux/I2CDevice.h"

#include <fcntl.h>
#include <linux/i2c-dev.h>
#include <linux/i2c.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <cerrno>
#include <filesystem>
#include <limits>
#include <system_error>

namespace Lumora::Platform {

std::shared_ptr<I2CDevice> I2CDevice::open(const std::string& devicePath)
{
    int fd = ::open(devicePath.c_str(), O_RDWR | O_CLOEXEC);
    if (fd < 0)
        return nullptr;
    return std::shared_ptr<I2CDevice>(new I2CDevice(fd, devicePath));
}

bool I2CDevice::interfaceAvailable()
{
    std::error_code error;
    return std::filesystem::is_directory("/sys/class/i2c-dev", error);
}

I2CDevice::~I2CDevice()
{
    ::close(fd_);
}

int I2CDevice::write(std::uint8_t address, std::span<const std::uint8_t> bytes)
{
    // The kernel takes a non-const buffer for both directions; it only reads it for a write.
    return transfer(address, 0, const_cast<std::uint8_t*>(bytes.data()), bytes.size());
}

int I2CDevice::read(std::uint8_t address, std::span<std::uint8_t> buffer)
{
    return transfer(address, I2C_M_RD, buffer.data(), buffer.size());
}

int I2CDevice::transfer(std::uint8_t address, std::uint16_t flags, std::uint8_t* data, std::size_t length)
{
    if (address > 0x7F || length == 0 || length > std::numeric_limits<std::uint16_t>::max())
        return EINVAL;
    i2c_msg message{};
    message.addr = address;
    message.flags = flags;
    message.len = static_cast<std::uint16_t>(length);
    message.buf = data;
    i2c_rdwr_ioctl_data request{};
    request.msgs = &message;
    request.nmsgs = 1;
    for (;;) {
        int result = ::ioctl(fd_, I2C_RDWR, &request);
        if (result == 1)
            return 0;
        if (result < 0 && errno == EINTR)
            continue;
        return result < 0 ? errno : EIO;
    }
}

}  // namespace Lumora::Platform
