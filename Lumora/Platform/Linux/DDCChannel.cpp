// SPDX-License-Identifier: GPL-3.0-or-later
#include "Lumora/Platform/Linux/DDCChannel.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <map>
#include <mutex>
#include <optional>
#include <thread>
#include <vector>

#include "Lumora/Platform/Linux/BusLock.h"
#include "Lumora/Platform/Linux/I2CDevice.h"
#include "LumoraCore/DDCPacket.h"

namespace Lumora::Platform {

using Clock = std::chrono::steady_clock;

// The monitor says it has nothing to say yet: try again later.
const int DDCChannel::nullMessageStatus = EAGAIN;

namespace {

// A monitor prepares its reply to Get VCP Feature within this long.
constexpr auto replyDelay = std::chrono::milliseconds(50);
constexpr std::size_t replyLength = 11;
// The length byte of a message without data: the null message.
constexpr std::uint8_t nullLength = 0x80;

// 51 84 03 code high low checksum
bool isSet(std::span<const std::uint8_t> bytes)
{
    return bytes.size() == 7 && bytes[0] == DDC::dataAddress && bytes[1] == 0x84 && bytes[2] == 0x03;
}

bool isPowerCommand(std::span<const std::uint8_t> set) { return set[3] == VCPCode::powerMode; }
bool isPowerOn(std::span<const std::uint8_t> set)
{
    return isPowerCommand(set) && set[4] == 0 && set[5] == rawValue(VCPCode::PowerMode::on);
}

}  // namespace

// What the process knows of one monitor's timing, shared by every channel open on its node.
struct DDCChannel::Monitor {
    std::mutex turn;  // held for a whole transfer, its waits included
    std::vector<std::uint8_t> lastSet;  // the last Set the monitor acknowledged; empty before the first
    Clock::time_point lastSetAt;       // when the monitor had acknowledged it: its busy time ends by then + busyTime
    Clock::time_point lastSetSentAt;   // when it was sent: the monitor's busy time cannot have begun before
    std::optional<Clock::time_point> poweredOnAt;  // a power-on acknowledged then, not yet answered since

    // Waits out the busy time of the last acknowledged Set, and a wake in progress; true when it had to wait.
    bool settle(I2CDevice& device);
    void waitUntilAwake(I2CDevice& device, Clock::time_point deadline);
    void acknowledged(std::span<const std::uint8_t> set, Clock::time_point sentAt);
};

bool DDCChannel::Monitor::settle(I2CDevice& device)
{
    bool waited = false;
    if (poweredOnAt) {
        const Clock::time_point deadline = *poweredOnAt + wakeLimit;
        poweredOnAt.reset();
        if (Clock::now() < deadline) {
            std::this_thread::sleep_until(lastSetAt + busyTime);
            waitUntilAwake(device, deadline);
            waited = true;
        }
    }
    if (!lastSet.empty() && Clock::now() < lastSetAt + busyTime) {
        std::this_thread::sleep_until(lastSetAt + busyTime);
        waited = true;
    }
    return waited;
}

// Asks for the power mode until a real reply comes, or the deadline passes.
void DDCChannel::Monitor::waitUntilAwake(I2CDevice& device, Clock::time_point deadline)
{
    std::vector<std::uint8_t> request{DDC::dataAddress};
    const std::vector<std::uint8_t> get = DDC::getVCPRequest(VCPCode::powerMode);
    request.insert(request.end(), get.begin(), get.end());
    for (;;) {
        const Clock::time_point asked = Clock::now();
        device.write(DDC::chipAddress, request);
        std::this_thread::sleep_for(replyDelay);
        std::array<std::uint8_t, replyLength> reply{};
        if (device.read(DDC::chipAddress, reply) == 0 && reply[1] != nullLength && reply[4] == VCPCode::powerMode &&
            DDC::parseGetVCPReply(reply)) {
            return;
        }
        const Clock::time_point next = asked + wakePollInterval;
        if (next >= deadline) {
            return;
        }
        std::this_thread::sleep_until(next);
    }
}

void DDCChannel::Monitor::acknowledged(std::span<const std::uint8_t> set, Clock::time_point sentAt)
{
    lastSet.assign(set.begin(), set.end());
    lastSetAt = Clock::now();
    lastSetSentAt = sentAt;
    if (isPowerOn(set)) {
        poweredOnAt = lastSetAt;
    } else if (isPowerCommand(set)) {
        poweredOnAt.reset();  // standby: nothing to wait for
    }
}

std::shared_ptr<DDCChannel> DDCChannel::open(const std::string& devicePath)
{
    std::shared_ptr<I2CDevice> device = I2CDevice::open(devicePath);
    if (!device) {
        return nullptr;
    }
    // Kept for the run: a monitor's busy time outlasts the descriptors that made it busy.
    static std::mutex registryMutex;
    static std::map<std::string, std::shared_ptr<Monitor>> monitors;
    std::shared_ptr<Monitor> monitor;
    {
        std::lock_guard<std::mutex> hold(registryMutex);
        std::shared_ptr<Monitor>& slot = monitors[devicePath];
        if (!slot) {
            slot = std::make_shared<Monitor>();
        }
        monitor = slot;
    }
    return std::shared_ptr<DDCChannel>(new DDCChannel(std::move(device), std::move(monitor), devicePath));
}

DDCChannel::DDCChannel(std::shared_ptr<I2CDevice> device, std::shared_ptr<Monitor> monitor, std::string path)
    : device_(std::move(device)), monitor_(std::move(monitor)), path_(std::move(path))
{
}

DDCChannel::~DDCChannel() = default;

std::shared_ptr<void> DDCChannel::holdBus(std::chrono::steady_clock::time_point deadline)
{
    auto bus = std::make_shared<BusLock>(path_, device_->descriptor(), deadline);
    if (!*bus)
        return nullptr;
    return bus;
}

int DDCChannel::write(std::uint8_t address, std::span<const std::uint8_t> bytes)
{
    if (address != DDC::chipAddress) {
        return device_->write(address, bytes);
    }
    Monitor& monitor = *monitor_;
    std::lock_guard<std::mutex> turn(monitor.turn);
    const bool set = isSet(bytes);
    const bool repeat = set && std::equal(bytes.begin(), bytes.end(), monitor.lastSet.begin(), monitor.lastSet.end()) &&
                        Clock::now() < monitor.lastSetAt + busyTime;
    if (repeat) {
        // Taken either way: NAKed, it is the monitor busy with this very request. Acknowledged, it was ignored by a
        // monitor busy with it, or, when it came a busy time or more after the first copy was sent (held up on a
        // loaded machine), taken as a Set of its own: the busy time then runs from this copy.
        if (device_->write(address, bytes) == 0 && Clock::now() >= monitor.lastSetSentAt + busyTime) {
            monitor.lastSetAt = Clock::now();
        }
        return 0;
    }
    // A monitor that acknowledged a Set a moment ago and NAKs now is still busy with it, however long it takes.
    const bool setLately = !monitor.lastSet.empty() && Clock::now() < monitor.lastSetAt + 2 * busyTime;
    const bool waited = monitor.settle(*device_);
    Clock::time_point sentAt = Clock::now();
    int status = device_->write(address, bytes);
    if (status != 0 && (waited || setLately)) {
        std::this_thread::sleep_for(busyTime);
        sentAt = Clock::now();
        status = device_->write(address, bytes);
    }
    if (status == 0 && set) {
        monitor.acknowledged(bytes, sentAt);
    }
    return status;
}

int DDCChannel::read(std::uint8_t address, std::span<std::uint8_t> buffer)
{
    if (address != DDC::chipAddress) {
        return device_->read(address, buffer);
    }
    Monitor& monitor = *monitor_;
    std::lock_guard<std::mutex> turn(monitor.turn);
    monitor.settle(*device_);
    const int status = device_->read(address, buffer);
    if (status == 0 && buffer.size() >= 2 && buffer[1] == nullLength) {
        return nullMessageStatus;
    }
    return status;
}

}  // namespace Lumora::Platform
