// SPDX-License-Identifier: GPL-3.0-or-later
#include "Lumora/App/OnScreenDisplay.h"

#include <QGuiApplication>
#include <QScreen>

#include "Lumora/App/DisplayController.h"
#include "Lumora/Platform/Linux/Desktop/DesktopOsd.h"
#include "Lumora/Platform/Linux/Desktop/DisplayFrames.h"
#include "Lumora/Platform/Linux/DrmConnectors.h"
#include "Lumora/UI/OsdWindow.h"
#include "LumoraCore/ScreenMatching.h"

namespace Lumora {
namespace {

std::string connectorOf(std::uint32_t id)
{
    for (const Platform::DrmConnector& connector : Platform::DrmConnectors::list()) {
        if (connector.displayID == id)
            return connector.connectorName;
    }
    return {};
}

// The screen that shows the display: by its output name; else the one that holds the centre of the display's frame
// on the desktop (XWayland's screens carry no connector names, but lie where the compositor's outputs lie); else
// the primary screen.
QScreen* screenOf(std::uint32_t id, const std::string& connector)
{
    const QList<QScreen*> screens = QGuiApplication::screens();
    for (QScreen* screen : screens) {
        if (ScreenMatching::outputNameMatches(connector, screen->name().toStdString()))
            return screen;
    }
    for (const DisplayFrame& display : DisplayFrames::active()) {
        if (display.id != id)
            continue;
        const QPoint centre(int(display.frame.x + display.frame.width / 2), int(display.frame.y + display.frame.height / 2));
        for (QScreen* screen : screens) {
            if (screen->geometry().contains(centre))
                return screen;
        }
    }
    return QGuiApplication::primaryScreen();
}

}  // namespace

OnScreenDisplay::OnScreenDisplay(const DisplayController& controller, QObject* parent)
    : QObject(parent), controller_(controller)
{
}

OnScreenDisplay::~OnScreenDisplay() = default;

void OnScreenDisplay::show(std::uint32_t id)
{
    for (const DisplaySnapshot& display : controller_.displays()) {
        if (display.id != id)
            continue;
        const QString name = QString::fromStdString(display.name);
        const double level = display.isOn ? display.brightness : 0.0;
        const std::string connector = connectorOf(id);
        if (DesktopOsd::show(connector, name, level))
            return;
        if (window_ == nullptr)
            window_ = std::make_unique<OsdWindow>();
        window_->present(screenOf(id, connector), name, level);
        return;
    }
}

}  // namespace Lumora
