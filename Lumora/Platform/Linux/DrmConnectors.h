#pragma once
// The DRM connectors of every card, read from sysfs: the Linux counterpart of the online display list, of
// "is built in", of the identity numbers and of the way to each external monitor's DDC channel.

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace Lumora::Platform {

struct DrmConnector {
    std::string name;           // the sysfs entry, "card0-DP-1"
    unsigned card = 0;          // 0 for card0
    std::string connectorName;  // "DP-1"
    // The display number: the connector id with the card index above bit 16 (card0's ids stay plain).
    std::uint32_t displayID = 0;
    bool connected = false;     // status "connected"
    bool enabled = false;       // enabled "enabled"
    bool builtIn = false;       // eDP, LVDS or DSI
    std::vector<std::uint8_t> edid;  // empty when the connector has none
    // The i2c-dev node of the connector's DDC adapter: its `ddc` link, else its DisplayPort AUX child adapter.
    std::optional<std::string> ddcDevicePath;

    bool active() const { return connected && enabled; }
};

namespace DrmConnectors {

// Every connector of every card, ordered by card, then by connector name. Unreadable attributes read as
// absent: "disconnected", "disabled", no EDID, no DDC adapter.
std::vector<DrmConnector> list();

// Whether a connector name (without the card prefix) is a built-in panel's: eDP, LVDS or DSI.
bool isBuiltInConnectorName(const std::string& connectorName);

}  // namespace DrmConnectors
}  // namespace Lumora::Platform
