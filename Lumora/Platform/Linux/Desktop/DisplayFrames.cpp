#include "Lumora/Platform/Linux/Desktop/DisplayFrames.h"

#include <QGuiApplication>
#include <QScreen>

#include "LumoraCore/ScreenMatching.h"
#include "Lumora/Platform/Linux/DrmConnectors.h"

namespace Lumora {
namespace {

// Qt keeps a screen's top-left corner in the window system's pixels and divides only its size by the scale
// factor; on X11 the frame in pixels is therefore the corner as it is and the size times the pixel ratio.
Rect frameOf(const QScreen& screen, bool x11)
{
    const QRect geometry = screen.geometry();
    const double ratio = x11 ? screen.devicePixelRatio() : 1.0;
    return {double(geometry.x()), double(geometry.y()), geometry.width() * ratio, geometry.height() * ratio};
}

}  // namespace

std::vector<DisplayFrame> DisplayFrames::active()
{
    std::vector<Platform::DrmConnector> connectors = Platform::DrmConnectors::list();
    std::erase_if(connectors, [](const Platform::DrmConnector& c) { return !c.active(); });

    std::vector<ConnectorIdentity> identities;
    for (const Platform::DrmConnector& connector : connectors)
        identities.push_back({connector.connectorName, EDID::parse(connector.edid)});

    std::vector<ScreenIdentity> screens;
    if (qGuiApp != nullptr) {
        const bool x11 = QGuiApplication::platformName() == QLatin1String("xcb");
        for (const QScreen* screen : QGuiApplication::screens()) {
            screens.push_back({screen->name().toStdString(), screen->model().toStdString(),
                               screen->serialNumber().toStdString(), frameOf(*screen, x11)});
        }
    }

    const std::vector<std::optional<Rect>> frames = ScreenMatching::framesFor(identities, screens);
    std::vector<DisplayFrame> result;
    for (std::size_t i = 0; i < connectors.size(); ++i) {
        if (frames[i])
            result.push_back({connectors[i].displayID, *frames[i]});
    }
    return result;
}

}  // namespace Lumora
