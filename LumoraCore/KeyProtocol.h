// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once
// The wire between the key service (lumora-keys) and the Lumora of the active session: a Unix SOCK_SEQPACKET
// socket that the client hands over when it attaches. The service sends one message per brightness-key press and
// the client answers each with one decision. Every message is 16 bytes, little-endian, all unused bytes zero:
//
//   press     id (8 bytes)  key code (2)  value (1: down, 2: auto-repeat)  alt (1: 0 or 1)  zero (4)
//   decision  id (8 bytes)  verdict (1: 0 pass on, 1 consume)  zero (7)
//
// A message of another size or with anything else in it is a broken peer: the service detaches that client. A
// decision for an id the service no longer waits for (late, repeated, made up) is ignored.

#include <array>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>

#include "LumoraCore/KeyEventDecision.h"

namespace Lumora::KeyProtocol {

constexpr std::size_t messageSize = 16;
using Message = std::array<std::uint8_t, messageSize>;

struct Press {
    std::uint64_t id = 0;
    KeyEvent event;       // a brightness key going down or repeating (KeyEventDecision::isBrightnessPress)
    bool option = false;  // Alt held on any keyboard
    bool operator==(const Press&) const = default;
};

struct Decision {
    std::uint64_t id = 0;
    bool consume = false;
    bool operator==(const Decision&) const = default;
};

Message encode(const Press& press);
Message encode(const Decision& decision);

// Nothing when the bytes are not exactly one well-formed message of that kind.
std::optional<Press> decodePress(std::span<const std::uint8_t> bytes);
std::optional<Decision> decodeDecision(std::span<const std::uint8_t> bytes);

}  // namespace Lumora::KeyProtocol
