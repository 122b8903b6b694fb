// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once
// Pairs external displays with the DDC services found for them, by EDID identity. The platform supplies each
// display's vendor, model and serial numbers and each service's identity; nothing here touches hardware.
//
// On Linux most displays need no pairing: a connector's own channel (its `ddc` link or DisplayPort AUX adapter)
// is known and serves that display alone. Identity pairing decides only what is left: the displays without a
// channel of their own against the channels that no connector owns (MST ports, NVIDIA's buses).

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace Lumora {

struct ExternalDisplayIdentity {
    std::uint32_t id;
    std::uint32_t vendor, model, serial;       // serial 0 means unknown
    std::vector<std::uint8_t> baseBlock = {};  // the EDID's 128-byte base block; empty when there is none
};

struct ServiceIdentity {
    std::string edidUUID;
    std::string productName;
    std::int64_t serialNumber = 0;
    std::vector<std::uint8_t> baseBlock = {};  // the EDID base block read on the channel; empty when unknown
};

// An external display, and whether its connector has a DDC channel of its own (usable or not: a connector's own
// channel is never traded for another, even when it cannot be opened).
struct ExternalDisplay {
    ExternalDisplayIdentity identity;
    bool ownChannel = false;
};

namespace DisplayPairing {

// How well a service's identity agrees with a display, 0 to 5: 2 when the upper-cased UUID begins with the
// vendor as "%04X"; 2 when the UUID has at least 8 characters and characters 5 to 8 are the model's low byte
// then its high byte, each "%02X"; 1 when the display's serial is non-zero and equals the service's. An empty
// UUID scores 0.
int score(const ExternalDisplayIdentity& display, const ServiceIdentity& service);

struct Pair {
    std::size_t display;  // index into the displays
    std::size_t service;  // index into the services
    bool operator==(const Pair&) const = default;
};

// Whether the display's base block and the service's are both there and equal byte for byte. Identical monitors
// often share vendor, model and binary serial (0x01010101), so that every score ties; their base blocks still
// differ in the serial-number string.
bool sameBaseBlock(const ExternalDisplayIdentity& display, const ServiceIdentity& service);

// Pass only services that hold a usable channel. With exactly one display and one service they are paired
// without comparing identities. Otherwise greedy in display order: each display takes the service not yet taken
// with the best score above 0; on a tie the service with the same base block, else the earlier service; a display
// with no such service is left out. The result is in display order.
std::vector<Pair> pair(const std::vector<ExternalDisplayIdentity>& displays,
                       const std::vector<ServiceIdentity>& services);

struct ChannelChoice {
    std::size_t display;                      // index into the displays
    std::optional<std::size_t> unownedChannel; // absent: the display's own channel; else an index into the channels
    bool operator==(const ChannelChoice&) const = default;
};

// Which channel serves each display, in display order, leaving out displays that get none: every display with
// its own channel takes it; the others are paired with `unownedChannels` (channels no connector owns, each with
// the identity read from its EDID) by `pair`, so the one-to-one shortcut applies only when exactly one display
// is without a channel and exactly one such channel exists.
std::vector<ChannelChoice> assignChannels(const std::vector<ExternalDisplay>& displays,
                                          const std::vector<ServiceIdentity>& unownedChannels);

// The name shown for a display: its product name, or "Display " and the id when there is none.
std::string displayName(std::uint32_t id, const std::string& productName);

}  // namespace DisplayPairing
}  // namespace Lumora
