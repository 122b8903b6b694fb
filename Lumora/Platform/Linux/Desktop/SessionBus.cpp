// SPDX-License-Identifier: GPL-3.0-or-later
#include "Lumora/Platform/Linux/Desktop/SessionBus.h"

#include <QDBusConnection>
#include <QDBusConnectionInterface>
#include <QDBusMessage>
#include <QDBusReply>

namespace Lumora {
namespace {

constexpr int callTimeoutMs = 5000;

}  // namespace

SessionBus::SessionBus(SessionBusActions actions)
    : interface_(std::make_unique<SessionBusInterface>(std::move(actions)))
{
}

SessionBus::~SessionBus()
{
    QDBusConnection bus = QDBusConnection::sessionBus();
    if (bus.isConnected()) {
        bus.unregisterService(QLatin1String(serviceName));
        bus.unregisterObject(QLatin1String(objectPath));
    }
}

std::unique_ptr<SessionBus> SessionBus::claim(SessionBusActions actions, Claim& outcome)
{
    QDBusConnection bus = QDBusConnection::sessionBus();
    if (!bus.isConnected() || bus.interface() == nullptr) {
        outcome = Claim::noBus;
        return nullptr;
    }
    std::unique_ptr<SessionBus> served(new SessionBus(std::move(actions)));
    // The object first, so that a call arriving the moment the name is ours finds it.
    if (!bus.registerVirtualObject(QLatin1String(objectPath), served->interface_.get(),
                                   QDBusConnection::SingleNode)) {
        outcome = Claim::noBus;
        return nullptr;
    }
    const QDBusReply<QDBusConnectionInterface::RegisterServiceReply> reply = bus.interface()->registerService(
        QLatin1String(serviceName), QDBusConnectionInterface::DontQueueService,
        QDBusConnectionInterface::DontAllowReplacement);
    if (!reply.isValid()) {
        bus.unregisterObject(QLatin1String(objectPath));
        outcome = Claim::noBus;
        return nullptr;
    }
    if (reply.value() != QDBusConnectionInterface::ServiceRegistered) {
        bus.unregisterObject(QLatin1String(objectPath));
        outcome = Claim::takenByAnother;
        return nullptr;
    }
    outcome = Claim::owned;
    return served;
}

bool SessionBus::showRunningPanel()
{
    QDBusConnection bus = QDBusConnection::sessionBus();
    if (!bus.isConnected()) {
        return false;
    }
    const QDBusMessage call = QDBusMessage::createMethodCall(
        QLatin1String(serviceName), QLatin1String(objectPath), QLatin1String(interfaceName), QStringLiteral("ShowPanel"));
    const QDBusMessage reply = bus.call(call, QDBus::Block, callTimeoutMs);
    return reply.type() == QDBusMessage::ReplyMessage;
}

void SessionBus::displaysChanged()
{
    interface_->displaysChanged();
}

}  // namespace Lumora
