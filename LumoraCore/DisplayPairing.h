#pragma once
// Pairs external displays with the DDC services found for them, by EDID identity. The platform supplies each
// display's vendor, model and serial numbers and each service's identity; nothing here touches hardware.

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

namespace Lumora {

struct ExternalDisplayIdentity {
    std::uint32_t id;
    std::uint32_t vendor, model, serial;  // serial 0 means unknown
};

struct ServiceIdentity {
    std::string edidUUID;
    std::string productName;
    std::int64_t serialNumber = 0;
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

// Pass only services that hold a usable channel. With exactly one display and one service they are paired
// without comparing identities. Otherwise greedy in display order: each display takes the service not yet taken
// with the best score above 0, the earlier service on a tie; a display with no such service is left out.
// The result is in display order.
std::vector<Pair> pair(const std::vector<ExternalDisplayIdentity>& displays,
                       const std::vector<ServiceIdentity>& services);

// The name shown for a display: its product name, or "Display " and the id when there is none.
std::string displayName(std::uint32_t id, const std::string& productName);

}  // namespace DisplayPairing
}  // namespace Lumora
