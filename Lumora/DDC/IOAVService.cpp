// SPDX-License-Identifier: GPL-3.0-or-later
#include "Lumora/DDC/IOAVService.h"

#include <atomic>
#include <cerrno>
#include <vector>

#include "Lumora/Platform/Linux/DDCChannel.h"
#include "Lumora/Platform/Linux/I2CDevice.h"
#include "LumoraCore/DDCPacket.h"

namespace Lumora {
namespace {

IOAVServiceRef createService(const char* devicePath)
{
    if (devicePath == nullptr)
        return nullptr;
    return Platform::DDCChannel::open(devicePath);
}

// Only the monitor's DDC/CI endpoint is ever written: anything else on a display bus (the EDID EEPROM at 0x50,
// for one) must never see a write from us.
std::int32_t writeI2C(const IOAVServiceRef& service, std::uint32_t chipAddress, std::uint32_t dataAddress,
                      const std::uint8_t* buffer, std::uint32_t length)
{
    if (!service)
        return EBADF;
    if (chipAddress != DDC::chipAddress || dataAddress > 0xFF || (buffer == nullptr && length > 0))
        return EINVAL;
    std::vector<std::uint8_t> message;
    message.reserve(length + 1);
    message.push_back(static_cast<std::uint8_t>(dataAddress));
    message.insert(message.end(), buffer, buffer + length);
    return service->write(static_cast<std::uint8_t>(chipAddress), message);
}

std::int32_t readI2C(const IOAVServiceRef& service, std::uint32_t chipAddress, std::uint32_t offset,
                     std::uint8_t* buffer, std::uint32_t length)
{
    if (!service)
        return EBADF;
    // Reading at an offset would take a write of the offset first; DDC/CI replies are read from the start.
    if (chipAddress != DDC::chipAddress || offset != 0 || buffer == nullptr)
        return EINVAL;
    return service->read(static_cast<std::uint8_t>(chipAddress), std::span<std::uint8_t>(buffer, length));
}

std::shared_ptr<void> holdBus(const IOAVServiceRef& service, std::chrono::steady_clock::time_point deadline)
{
    return service ? service->holdBus(deadline) : nullptr;
}

struct Binding {
    IOAVService::CreateFn create = nullptr;
    IOAVService::WriteFn write = nullptr;
    IOAVService::ReadFn read = nullptr;
    IOAVService::HoldFn hold = nullptr;
};

constexpr Binding bound{&createService, &writeI2C, &readI2C, &holdBus};
constexpr Binding absent{};

// Once i2c-dev has been seen the entry points stay bound for the run. An absent answer is not kept: each lookup
// looks again (one stat of /sys/class/i2c-dev), so a module loaded after start is found at the next refresh.
// The flag only ever goes from false to true, so lookups racing on several threads at most look twice.
std::atomic<bool> present{false};

const Binding& binding()
{
    if (present.load(std::memory_order_acquire))
        return bound;
    if (!Platform::I2CDevice::interfaceAvailable())
        return absent;
    present.store(true, std::memory_order_release);
    return bound;
}

}  // namespace

IOAVService::CreateFn IOAVService::createFn() { return binding().create; }
IOAVService::WriteFn IOAVService::writeFn() { return binding().write; }
IOAVService::ReadFn IOAVService::readFn() { return binding().read; }
IOAVService::HoldFn IOAVService::holdFn() { return binding().hold; }

bool IOAVService::isAvailable()
{
    const Binding& b = binding();
    return b.create != nullptr && b.write != nullptr && b.read != nullptr;
}

}  // namespace Lumora
