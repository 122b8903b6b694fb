// SPDX-License-Identifier: GPL-3.0-or-later
#include "Lumora/DDC/DDCService.h"

#include <unistd.h>

#include <array>

namespace Lumora {
namespace {

// Monitors drop a request that follows the previous bus traffic too closely.
constexpr std::uint32_t pauseBeforeWrite = 10'000;
// A monitor needs this long to prepare its reply to Get VCP Feature.
constexpr std::uint32_t pauseBeforeReply = 50'000;
// Lets a monitor that did not answer settle before the next attempt.
constexpr std::uint32_t pauseAfterFailedRead = 20'000;
constexpr int getAttempts = 5;
constexpr std::uint32_t replyLength = 11;

// The bus held for one exchange, waiting for other programs until `deadline` at most; null when it could not be
// had. Without a hold function the bus is unguarded and counts as held.
std::shared_ptr<void> holdBus(const DDCService::Transport& transport, const IOAVServiceRef& service,
                              std::chrono::steady_clock::time_point deadline)
{
    static const std::shared_ptr<void> unguarded = std::make_shared<int>(0);
    return transport.hold ? transport.hold(service, deadline) : unguarded;
}

}  // namespace

DDCService::Transport DDCService::Transport::system()
{
    Transport transport;
    if (IOAVService::WriteFn write = IOAVService::writeFn())
        transport.write = write;
    if (IOAVService::ReadFn read = IOAVService::readFn())
        transport.read = read;
    if (IOAVService::HoldFn hold = IOAVService::holdFn())
        transport.hold = hold;
    transport.sleep = [](std::uint32_t microseconds) { ::usleep(microseconds); };
    return transport;
}

DDCService::DDCService(IOAVServiceRef service) : DDCService(std::move(service), Transport::system()) {}

DDCService::DDCService(IOAVServiceRef service, Transport transport)
    : service_(std::move(service)), transport_(std::move(transport))
{
}

bool DDCService::setVCP(VCPCode code, std::uint16_t value) const
{
    const std::vector<std::uint8_t> request = DDC::setVCPRequest(code, value);
    // The Set and its repeat are one exchange: nothing of another program comes between them.
    const std::shared_ptr<void> bus = holdBus(transport_, service_, std::chrono::steady_clock::now() + busPatience);
    if (!bus)
        return false;
    bool accepted = false;
    // The same request goes out twice: a monitor busy with earlier traffic may miss the first. Only the second
    // write decides.
    for (int attempt = 0; attempt < 2; ++attempt) {
        transport_.sleep(pauseBeforeWrite);
        accepted = transport_.write &&
                   transport_.write(service_, DDC::chipAddress, DDC::dataAddress, request.data(),
                                    static_cast<std::uint32_t>(request.size())) == 0;
    }
    return accepted;
}

std::optional<VCPReply> DDCService::getVCP(VCPCode code) const
{
    const std::vector<std::uint8_t> request = DDC::getVCPRequest(code);
    // The wait for a bus another program holds is bounded for the whole operation: once it has passed, each
    // attempt tries the bus once.
    const auto deadline = std::chrono::steady_clock::now() + busPatience;
    for (int attempt = 0; attempt < getAttempts; ++attempt) {
        // Each request and the read of its reply are one exchange.
        if (const std::shared_ptr<void> bus = holdBus(transport_, service_, deadline)) {
            transport_.sleep(pauseBeforeWrite);
            // A failed request write is not fatal: a reply may still be waiting from an earlier one.
            if (transport_.write)
                transport_.write(service_, DDC::chipAddress, DDC::dataAddress, request.data(),
                                 static_cast<std::uint32_t>(request.size()));
            transport_.sleep(pauseBeforeReply);
            std::array<std::uint8_t, replyLength> reply{};
            if (transport_.read && transport_.read(service_, DDC::chipAddress, 0, reply.data(), replyLength) == 0) {
                if (std::optional<VCPReply> values = DDC::parseGetVCPReply(reply))
                    return values;
            }
        }
        transport_.sleep(pauseAfterFailedRead);
    }
    return std::nullopt;
}

}  // namespace Lumora
