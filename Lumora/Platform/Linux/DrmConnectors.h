// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once
// The DRM connectors of every card, read from sysfs: the Linux counterpart of the online display list, of
// "is built in", of the identity numbers and of the way to each monitor's own DDC channel.

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
    // The connector's own DDC channel: the adapter its `ddc` link names, else its DisplayPort AUX child adapter
    // ("i2c-5"), and that adapter's i2c-dev node ("/dev/i2c-5", which exists only while i2c-dev is loaded).
    std::optional<std::string> ddcAdapter;
    std::optional<std::string> ddcDevicePath;
    // Every adapter the connector owns: its `ddc` link's and its i2c-N children. No other display uses them.
    std::vector<std::string> ownedAdapters;

    bool active() const { return connected && enabled; }
};

namespace DrmConnectors {

// Every connector of every card, ordered by card, then by connector name. Unreadable attributes read as
// absent: "disconnected", "disabled", no EDID, no DDC adapter. Nothing is opened but sysfs attributes.
std::vector<DrmConnector> list();

// Whether a connector name (without the card prefix) is a built-in panel's: eDP, LVDS or DSI.
bool isBuiltInConnectorName(const std::string& connectorName);

}  // namespace DrmConnectors
}  // namespace Lumora::Platform
