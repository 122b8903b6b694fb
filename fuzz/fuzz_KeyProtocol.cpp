// SPDX-License-Identifier: GPL-3.0-or-later
// The key service's wire from the other end: any bytes a client sends as decisions (bad, late, repeated, a flood)
// must decode to a decision or be refused, never crash; what decodes encodes back to the same bytes. Presses the
// same way, for the client's side.
#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <span>

#include "LumoraCore/KeyProtocol.h"

using namespace Lumora;

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    // The input as a stream of messages, each as long as its first byte says (a flood of odd-sized datagrams).
    std::span<const std::uint8_t> rest(data, size);
    while (!rest.empty()) {
        const std::size_t length = std::min<std::size_t>(rest[0], rest.size() - 1);
        const std::span<const std::uint8_t> message = rest.subspan(1, length);
        rest = rest.subspan(1 + length);
        if (const auto decision = KeyProtocol::decodeDecision(message)) {
            const KeyProtocol::Message again = KeyProtocol::encode(*decision);
            if (!std::equal(again.begin(), again.end(), message.begin(), message.end()))
                std::abort();
        }
        if (const auto press = KeyProtocol::decodePress(message)) {
            const KeyProtocol::Message again = KeyProtocol::encode(*press);
            if (!std::equal(again.begin(), again.end(), message.begin(), message.end()))
                std::abort();
        }
    }
    return 0;
}
