// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once
// Which of the window system's screens shows which display: the DRM connectors on one side, the screens (Qt's
// QScreen: an output name, the monitor's model and serial as the window system read them from its EDID, a frame
// in the global desktop space) on the other. A screen belongs to a connector by output name, else by EDID identity;
// screens that stand for no connector (a virtual output covering the whole desktop, say) are left over.

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "LumoraCore/EDID.h"
#include "LumoraCore/TargetResolver.h"

namespace Lumora {

struct ConnectorIdentity {
    std::string connectorName;  // the DRM connector without its card: "DP-1", "HDMI-A-1", "eDP-1"
    EDIDIdentity edid;          // all empty when the connector has no EDID
};

struct ScreenIdentity {
    std::string name;          // the output name: "DP-1", "HDMI-1", "DP1", "XWAYLAND0", ...
    std::string model;         // the EDID's monitor name, as the window system gives it
    std::string serialNumber;  // the EDID's serial text or number, as the window system gives it
    Rect frame;
};

namespace ScreenMatching {

// Whether an output name is one of the spellings of a DRM connector name that window systems use: the name
// itself ("DP-1"; KDE, wlroots), HDMI-A as HDMI ("HDMI-1"; Xorg's modesetting driver, GNOME), and either without
// dashes ("DP1", "HDMI1", "eDP1"; Xorg's Intel driver).
bool outputNameMatches(const std::string& connectorName, const std::string& outputName);

// For each connector, in order, the frame of its screen, or nothing. First every connector takes the first screen
// not yet taken whose name matches; then each connector still without one takes the one screen not yet taken
// whose model is the connector's EDID monitor name and whose serial agrees with the EDID's (its serial text, its
// serial number in decimal, or none on either side) — only when exactly one screen fits and no other such
// connector would fit that screen, so that two identical monitors without serials are never swapped.
std::vector<std::optional<Rect>> framesFor(const std::vector<ConnectorIdentity>& connectors,
                                           const std::vector<ScreenIdentity>& screens);

}  // namespace ScreenMatching
}  // namespace Lumora
