// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once
// One monitor's DDC/CI channel: complete Set and Get VCP Feature transactions with the pauses monitors need.
// Both operations block the calling thread for the whole transaction (20 ms for a set, 60-400 ms for a get).
// Two transactions with one monitor must never overlap: callers keep each monitor's traffic on one queue, and each
// transaction holds the monitor's bus against other programs (IOAVService's hold entry point). A program that
// keeps the bus makes an operation wait a second at most, and then fail as a monitor that does not answer.

#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>

#include "Lumora/DDC/IOAVService.h"
#include "LumoraCore/DDCPacket.h"

namespace Lumora {

class DDCService {
public:
    // How the transactions reach the wire. The default is the bound IOAVService entry points and a real sleep;
    // tests record the calls and the pauses instead. An empty write or read function is an absent entry point; an
    // empty hold function leaves the bus unguarded.
    struct Transport {
        std::function<std::int32_t(const IOAVServiceRef&, std::uint32_t, std::uint32_t, const std::uint8_t*,
                                   std::uint32_t)>
            write;
        std::function<std::int32_t(const IOAVServiceRef&, std::uint32_t, std::uint32_t, std::uint8_t*,
                                   std::uint32_t)>
            read;
        std::function<void(std::uint32_t microseconds)> sleep;
        std::function<std::shared_ptr<void>(const IOAVServiceRef&, std::chrono::steady_clock::time_point deadline)>
            hold;

        static Transport system();
    };

    explicit DDCService(IOAVServiceRef service);
    DDCService(IOAVServiceRef service, Transport transport);

    // How long an operation waits in all for a bus that another program holds. An exchange takes well under
    // 100 ms (a Set 20 ms, a Get 60 ms); a holder that keeps the bus ten times that long is stuck or is reading
    // something long.
    static constexpr std::chrono::milliseconds busPatience{1000};

    // Writes the request twice, each after 10 ms, with the bus held; true when the second write was accepted, false
    // without a write when the bus could not be had.
    bool setVCP(VCPCode code, std::uint16_t value) const;
    // Up to five attempts of: the bus held, 10 ms, request, 50 ms, 11-byte read, the bus let go; 20 ms after a failed
    // attempt. An attempt that cannot have the bus fails as one without a reply.
    std::optional<VCPReply> getVCP(VCPCode code) const;

    const IOAVServiceRef& service() const { return service_; }

private:
    IOAVServiceRef service_;
    Transport transport_;
};

}  // namespace Lumora
