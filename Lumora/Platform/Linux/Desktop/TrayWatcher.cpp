// SPDX-License-Identifier: GPL-3.0-or-later
#include "Lumora/Platform/Linux/Desktop/TrayWatcher.h"

#include <QGuiApplication>

namespace Lumora {

TrayWatcher::TrayWatcher(std::function<void()> onChange, QObject* parent)
    : QObject(parent), onChange_(std::move(onChange))
{
    if (QGuiApplication::platformName() != QLatin1String("xcb")) {
        return;
    }
    // The signal belongs to the xcb plugin's native interface, so it is connected by name. Qt's own tray icon
    // docks on the same signal.
    // QPlatformNativeInterface derives from QObject alone; only its forward declaration is public.
    auto* native = reinterpret_cast<QObject*>(QGuiApplication::platformNativeInterface());
    if (native != nullptr) {
        connect(native, SIGNAL(systemTrayWindowChanged(QScreen*)), this, SLOT(trayWindowChanged(QScreen*)));
    }
}

void TrayWatcher::trayWindowChanged(QScreen*)
{
    if (onChange_) {
        onChange_();
    }
}

}  // namespace Lumora
