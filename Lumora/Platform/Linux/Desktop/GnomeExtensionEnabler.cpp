// SPDX-License-Identifier: GPL-3.0-or-later
#include "Lumora/Platform/Linux/Desktop/GnomeExtensionEnabler.h"

#include <QDBusConnection>
#include <QDBusMessage>
#include <QDBusPendingCallWatcher>
#include <QDBusPendingReply>
#include <QDBusVariant>
#include <QSettings>
#include <QVariantMap>

#include <functional>

namespace Lumora {
namespace {

const QString shellService = QStringLiteral("org.gnome.Shell");
const QString shellPath = QStringLiteral("/org/gnome/Shell");
const QString extensionsInterface = QStringLiteral("org.gnome.Shell.Extensions");
const QString lumoraExtension = QStringLiteral("lumora@lumora.org");
constexpr const char* settingsKey = "gnomeShellExtensionTurnedOn";
// The shell answers within milliseconds; one that does not within this is left alone.
constexpr int answerWithinMs = 5000;
// The shell's extension states (its ExtensionState): 1 is enabled.
constexpr double extensionEnabled = 1;

QSettings settings()
{
    return QSettings(QStringLiteral("Lumora"), QStringLiteral("Lumora"));
}

// Sends call on the session bus and hands its reply to then, on the event loop; an error or no answer in time ends
// the enabler.
void ask(QObject* enabler, const QDBusMessage& call, std::function<void(const QDBusMessage&)> then)
{
    auto* watcher =
        new QDBusPendingCallWatcher(QDBusConnection::sessionBus().asyncCall(call, answerWithinMs), enabler);
    QObject::connect(watcher, &QDBusPendingCallWatcher::finished, enabler,
                     [enabler, watcher, then = std::move(then)] {
                         watcher->deleteLater();
                         const QDBusMessage reply = watcher->reply();
                         if (reply.type() == QDBusMessage::ReplyMessage)
                             then(reply);
                         else
                             enabler->deleteLater();  // not GNOME Shell, or a shell that does not answer
                     });
}

QDBusMessage extensionsCall(const QString& method, const QVariantList& arguments)
{
    QDBusMessage call = QDBusMessage::createMethodCall(shellService, shellPath, extensionsInterface, method);
    call.setArguments(arguments);
    return call;
}

}  // namespace

void GnomeExtensionEnabler::start(QObject* parent)
{
    if (settings().value(QLatin1String(settingsKey), false).toBool())
        return;  // done before: what the user made of it since stands
    (new GnomeExtensionEnabler(parent))->askUserExtensionsEnabled();
}

GnomeExtensionEnabler::GnomeExtensionEnabler(QObject* parent) : QObject(parent) {}

void GnomeExtensionEnabler::askUserExtensionsEnabled()
{
    QDBusMessage get = QDBusMessage::createMethodCall(shellService, shellPath,
                                                      QStringLiteral("org.freedesktop.DBus.Properties"),
                                                      QStringLiteral("Get"));
    get.setArguments({extensionsInterface, QStringLiteral("UserExtensionsEnabled")});
    ask(this, get, [this](const QDBusMessage& reply) {
        if (reply.arguments().value(0).value<QDBusVariant>().variant().toBool())
            askExtensionInfo();
        else
            deleteLater();  // the user turned all their extensions off
    });
}

void GnomeExtensionEnabler::askExtensionInfo()
{
    ask(this, extensionsCall(QStringLiteral("GetExtensionInfo"), {lumoraExtension}), [this](const QDBusMessage& reply) {
        const QVariantMap info = qdbus_cast<QVariantMap>(reply.arguments().value(0));
        if (info.isEmpty())
            deleteLater();  // not installed (Lumora run from a build tree), or installed since the shell started
        else if (info.value(QStringLiteral("state")).toDouble() == extensionEnabled)
            record();  // the user turned it on already: a later "off" of theirs stands too
        else
            enable();
    });
}

void GnomeExtensionEnabler::enable()
{
    ask(this, extensionsCall(QStringLiteral("EnableExtension"), {lumoraExtension}), [this](const QDBusMessage& reply) {
        if (reply.arguments().value(0).toBool())
            record();
        else
            deleteLater();
    });
}

void GnomeExtensionEnabler::record()
{
    settings().setValue(QLatin1String(settingsKey), true);
    deleteLater();
}

}  // namespace Lumora
