// SPDX-License-Identifier: GPL-3.0-or-later
// The X11 desktop (and any desktop Lumora reaches only through X11): the screens Qt knows from RandR, the window
// manager's active window and the pointer on the root window, all in the root window's pixels.

#include <QGuiApplication>
#include <QScreen>

#include "Lumora/Platform/Linux/Desktop/Cursor.h"
#include "Lumora/Platform/Linux/Desktop/DesktopInputs.h"
#include "Lumora/Platform/Linux/Desktop/FocusedWindow.h"

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

class X11Desktop final : public DesktopInputs {
public:
    std::string name() const override { return "X11"; }

    DesktopView read() override
    {
        DesktopView view;
        if (qGuiApp == nullptr)
            return view;
        const bool x11 = QGuiApplication::platformName() == QLatin1String("xcb");
        for (const QScreen* screen : QGuiApplication::screens()) {
            view.screens.push_back({screen->name().toStdString(), screen->model().toStdString(),
                                    screen->serialNumber().toStdString(), frameOf(*screen, x11)});
        }
        view.focusedWindow = FocusedWindow::frame();
        view.pointer = Cursor::position();
        return view;
    }
};

}  // namespace

std::unique_ptr<DesktopInputs> makeX11Desktop()
{
    return std::make_unique<X11Desktop>();
}

}  // namespace Lumora
