// SPDX-License-Identifier: GPL-3.0-or-later
#include "Lumora/Platform/Linux/Desktop/DisplayFrames.h"

#include "Lumora/Platform/Linux/Desktop/DesktopInputs.h"
#include "Lumora/Platform/Linux/DrmConnectors.h"

namespace Lumora {

std::vector<DisplayFrame> DisplayFrames::active()
{
    return active(DesktopInputs::session().read().screens);
}

std::vector<DisplayFrame> DisplayFrames::active(const std::vector<ScreenIdentity>& screens)
{
    std::vector<Platform::DrmConnector> connectors = Platform::DrmConnectors::list();
    std::erase_if(connectors, [](const Platform::DrmConnector& c) { return !c.active(); });

    std::vector<ConnectorIdentity> identities;
    for (const Platform::DrmConnector& connector : connectors)
        identities.push_back({connector.connectorName, EDID::parse(connector.edid)});

    const std::vector<std::optional<Rect>> frames = ScreenMatching::framesFor(identities, screens);
    std::vector<DisplayFrame> result;
    for (std::size_t i = 0; i < connectors.size(); ++i) {
        if (frames[i])
            result.push_back({connectors[i].displayID, *frames[i]});
    }
    return result;
}

}  // namespace Lumora
