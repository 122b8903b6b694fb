// SPDX-License-Identifier: GPL-3.0-or-later
#include "Lumora/Platform/Linux/Desktop/DesktopOsd.h"

#include <QDBusConnection>
#include <QDBusMessage>
#include <QDBusPendingCallWatcher>
#include <QDBusPendingReply>

#include <cmath>

#include "Lumora/Platform/Linux/Desktop/DesktopInputs.h"

namespace Lumora::DesktopOsd {
namespace {

constexpr int answerWithinMs = 250;
const QString brightnessIcon = QStringLiteral("display-brightness-symbolic");

bool nameHasOwner(const QString& name)
{
    QDBusMessage owned = QDBusMessage::createMethodCall(QStringLiteral("org.freedesktop.DBus"),
                                                        QStringLiteral("/org/freedesktop/DBus"),
                                                        QStringLiteral("org.freedesktop.DBus"), QStringLiteral("NameHasOwner"));
    owned << name;
    const QDBusMessage reply = QDBusConnection::sessionBus().call(owned, QDBus::Block, answerWithinMs);
    return reply.type() == QDBusMessage::ReplyMessage && reply.arguments().value(0).toBool();
}

// Plasma's OSD: a bar with the display's name (showProgress); a Plasma without it shows the name and the level
// as text (showText).
void showOnPlasma(const QString& name, double level)
{
    const int percent = int(std::lround(level * 100));
    auto call = [](const char* method) {
        return QDBusMessage::createMethodCall(QStringLiteral("org.kde.plasmashell"), QStringLiteral("/org/kde/osdService"),
                                              QStringLiteral("org.kde.osdService"), QLatin1String(method));
    };
    QDBusMessage progress = call("showProgress");
    progress << QStringLiteral("video-display-brightness") << percent << 100 << name;
    auto* watcher = new QDBusPendingCallWatcher(QDBusConnection::sessionBus().asyncCall(progress, answerWithinMs));
    QObject::connect(watcher, &QDBusPendingCallWatcher::finished, [watcher, call, name, percent] {
        if (watcher->isError()) {
            QDBusMessage text = call("showText");
            text << QStringLiteral("video-display-brightness") << QStringLiteral("%1: %2 %").arg(name).arg(percent);
            QDBusConnection::sessionBus().asyncCall(text, answerWithinMs);
        }
        watcher->deleteLater();
    });
}

}  // namespace

bool show(const std::string& connector, const QString& name, double level)
{
    const std::string desktop = DesktopInputs::session().name();
    if (desktop == "KWin" && nameHasOwner(QStringLiteral("org.kde.plasmashell"))) {
        showOnPlasma(name, level);
        return true;
    }
    if (desktop == "GNOME Shell" && DesktopInputs::session().missing() == DesktopInputs::Need::nothing) {
        QDBusMessage osd = QDBusMessage::createMethodCall(
            QStringLiteral("org.lumora.Lumora.Shell"), QStringLiteral("/org/lumora/Lumora/Shell"),
            QStringLiteral("org.lumora.Lumora.Shell"), QStringLiteral("ShowOSD"));
        osd << QString::fromStdString(connector) << brightnessIcon << name << level;
        QDBusConnection::sessionBus().asyncCall(osd, answerWithinMs);
        return true;
    }
    return false;
}

}  // namespace Lumora::DesktopOsd
