// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once
// The bytes of DDC/CI: Get and Set VCP Feature requests and the Get VCP Feature reply.
// No state, no I/O, no timing: the transport carries these bytes to and from the monitor.

#include <cstdint>
#include <optional>
#include <span>
#include <vector>

#include "LumoraCore/VCPCode.h"

namespace Lumora {

struct VCPReply {
    std::uint16_t current = 0;
    std::uint16_t max = 0;
    bool operator==(const VCPReply&) const = default;
};

namespace DDC {

// 7-bit I2C address of the monitor's DDC/CI endpoint (0x6E as the 8-bit write address).
inline constexpr std::uint8_t chipAddress = 0x37;
// The host's source address: the first byte after the chip address on every write.
inline constexpr std::uint8_t dataAddress = 0x51;

// Exclusive-or of the seed and every byte; an empty sequence yields the seed.
std::uint8_t checksum(std::uint8_t seed, std::span<const std::uint8_t> bytes);

// 82 01 code checksum
std::vector<std::uint8_t> getVCPRequest(VCPCode code);
// 84 03 code value-high value-low checksum
std::vector<std::uint8_t> setVCPRequest(VCPCode code, std::uint16_t value);

// Validates a Get VCP Feature reply: at least 11 bytes and the last byte equal to the fold, seeded with
// 0x50, of every byte before it. Current and maximum always come from indexes 6 to 9; bytes 1 to 5 are
// not examined. A maximum of 0 is returned as 0.
std::optional<VCPReply> parseGetVCPReply(std::span<const std::uint8_t> reply);

}  // namespace DDC
}  // namespace Lumora
