// SPDX-License-Identifier: GPL-3.0-or-later
#include "Lumora/Platform/Linux/EdidEeprom.h"

#include <fcntl.h>
#include <linux/i2c-dev.h>
#include <linux/i2c.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <cerrno>

#include "Lumora/Platform/Linux/BusLock.h"
#include "LumoraCore/EDID.h"

namespace Lumora::Platform::EdidEeprom {
namespace {

constexpr std::uint16_t eepromAddress = 0x50;
constexpr std::uint16_t chunk = 128;

// One I2C_RDWR transfer of a single read message at 0x50, from wherever the EEPROM's address stands.
bool readChunk(int fd, std::uint8_t* into)
{
    i2c_msg message{};
    message.addr = eepromAddress;
    message.flags = I2C_M_RD;
    message.len = chunk;
    message.buf = into;
    i2c_rdwr_ioctl_data request{};
    request.msgs = &message;
    request.nmsgs = 1;
    for (;;) {
        int result = ::ioctl(fd, I2C_RDWR, &request);
        if (result == 1)
            return true;
        if (result < 0 && errno == EINTR)
            continue;
        return false;
    }
}

}  // namespace

std::optional<std::array<std::uint8_t, 128>> readBaseBlock(const std::string& devicePath,
                                                           std::chrono::steady_clock::time_point deadline)
{
    int fd = ::open(devicePath.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0)
        return std::nullopt;
    std::array<std::uint8_t, 2 * chunk> eeprom{};
    bool read = false;
    if (const BusLock bus(devicePath, fd, deadline); bus)
        read = readChunk(fd, eeprom.data()) && readChunk(fd, eeprom.data() + chunk);
    ::close(fd);
    if (!read)
        return std::nullopt;
    return EDID::baseBlockInRotation(eeprom);
}

}  // namespace Lumora::Platform::EdidEeprom
