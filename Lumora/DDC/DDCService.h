#pragma once
// One monitor's DDC/CI channel: complete Set and Get VCP Feature transactions with the pauses monitors need.
// Both operations block the calling thread for the whole transaction (20 ms for a set, 60-400 ms for a get).
// Two transactions with one monitor must never overlap: callers keep each monitor's traffic on one queue.

#include <cstdint>
#include <functional>
#include <optional>

#include "Lumora/DDC/IOAVService.h"
#include "LumoraCore/DDCPacket.h"

namespace Lumora {

class DDCService {
public:
    // How the transactions reach the wire. The default is the bound IOAVService entry points and a real sleep;
    // tests record the calls and the pauses instead. An empty write or read function is an absent entry point.
    struct Transport {
        std::function<std::int32_t(const IOAVServiceRef&, std::uint32_t, std::uint32_t, const std::uint8_t*,
                                   std::uint32_t)>
            write;
        std::function<std::int32_t(const IOAVServiceRef&, std::uint32_t, std::uint32_t, std::uint8_t*,
                                   std::uint32_t)>
            read;
        std::function<void(std::uint32_t microseconds)> sleep;

        static Transport system();
    };

    explicit DDCService(IOAVServiceRef service);
    DDCService(IOAVServiceRef service, Transport transport);

    // Writes the request twice, each after 10 ms; true when the second write was accepted.
    bool setVCP(VCPCode code, std::uint16_t value) const;
    // Up to five attempts of: 10 ms, request, 50 ms, 11-byte read; 20 ms after a failed attempt.
    std::optional<VCPReply> getVCP(VCPCode code) const;

    const IOAVServiceRef& service() const { return service_; }

private:
    IOAVServiceRef service_;
    Transport transport_;
};

}  // namespace Lumora
