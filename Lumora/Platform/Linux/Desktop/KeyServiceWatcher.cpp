// SPDX-License-Identifier: GPL-3.0-or-later
#include "Lumora/Platform/Linux/Desktop/KeyServiceWatcher.h"

#include <QDBusConnection>
#include <QDBusServiceWatcher>

namespace Lumora {

KeyServiceWatcher::KeyServiceWatcher(std::function<void()> onChange, std::function<void()> onArrival,
                                     QObject* parent)
    : QObject(parent), onChange_(std::move(onChange)), onArrival_(std::move(onArrival))
{
    QDBusConnection bus = QDBusConnection::systemBus();
    if (!bus.isConnected())
        return;
    auto* service = new QDBusServiceWatcher(QStringLiteral("org.lumora.Keys"), bus,
                                            QDBusServiceWatcher::WatchForOwnerChange, this);
    connect(service, &QDBusServiceWatcher::serviceOwnerChanged, this, &KeyServiceWatcher::serviceOwnerChanged);
    bus.connect(QStringLiteral("org.freedesktop.PolicyKit1"), QStringLiteral("/org/freedesktop/PolicyKit1/Authority"),
                QStringLiteral("org.freedesktop.PolicyKit1.Authority"), QStringLiteral("Changed"), this,
                SLOT(authorizationsChanged()));
    bus.connect(QStringLiteral("org.freedesktop.login1"), QString(), QStringLiteral("org.freedesktop.DBus.Properties"),
                QStringLiteral("PropertiesChanged"), {QStringLiteral("org.freedesktop.login1.Seat")}, QString(), this,
                SLOT(seatChanged(QString, QVariantMap, QStringList)));
}

void KeyServiceWatcher::serviceOwnerChanged(const QString&, const QString&, const QString& newOwner)
{
    // Only its arrival: a service that leaves while attached drops the link, which the client reports itself, and
    // one that leaves idle changes nothing for anybody.
    if (!newOwner.isEmpty())
        onArrival_();
}

void KeyServiceWatcher::authorizationsChanged()
{
    onChange_();
}

void KeyServiceWatcher::seatChanged(const QString&, const QVariantMap& changed, const QStringList& invalidated)
{
    if (changed.contains(QStringLiteral("ActiveSession")) || invalidated.contains(QStringLiteral("ActiveSession")))
        onChange_();
}

}  // namespace Lumora
