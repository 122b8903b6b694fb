// SPDX-License-Identifier: GPL-3.0-or-later
#include "Lumora/Platform/Linux/Desktop/SessionBusInterface.h"

#include <QDBusArgument>
#include <QDBusConnection>
#include <QDBusMessage>
#include <QDBusMetaType>
#include <QDBusVariant>
#include <QFile>
#include <QMetaObject>

#include <optional>
#include <string>

#include "LumoraCore/BrightnessRequest.h"

// The introspection file, compiled in (resources of a static library are registered by hand, once).
static void initSessionBusResources()
{
    static const bool done = [] {
        Q_INIT_RESOURCE(lumora_session_bus);
        return true;
    }();
    (void)done;
}

namespace Lumora {

// One entry of Displays on the wire: (u id, s name, d brightness, b on, b canPowerOff).
struct BusDisplay {
    uint id = 0;
    QString name;
    double brightness = 0.0;
    bool on = false;
    bool canPowerOff = false;
};
using BusDisplays = QList<BusDisplay>;

QDBusArgument& operator<<(QDBusArgument& argument, const BusDisplay& display)
{
    argument.beginStructure();
    argument << display.id << display.name << display.brightness << display.on << display.canPowerOff;
    argument.endStructure();
    return argument;
}

const QDBusArgument& operator>>(const QDBusArgument& argument, BusDisplay& display)
{
    argument.beginStructure();
    argument >> display.id >> display.name >> display.brightness >> display.on >> display.canPowerOff;
    argument.endStructure();
    return argument;
}

}  // namespace Lumora

Q_DECLARE_METATYPE(Lumora::BusDisplay)

namespace Lumora {
namespace {

const QString propertiesInterface = QStringLiteral("org.freedesktop.DBus.Properties");
const QString introspectableInterface = QStringLiteral("org.freedesktop.DBus.Introspectable");
const QString displaysProperty = QStringLiteral("Displays");
const QString errorPrefix = QStringLiteral("org.lumora.Lumora1.Error.");

// The <interface> element of the installed introspection file.
QString interfaceXml()
{
    initSessionBusResources();
    QFile file(QStringLiteral(":/dbus/org.lumora.Lumora1.xml"));
    if (!file.open(QIODevice::ReadOnly)) {
        return {};
    }
    const QString xml = QString::fromUtf8(file.readAll());
    const qsizetype begin = xml.indexOf(QLatin1String("<interface "));
    const QLatin1String endTag("</interface>");
    const qsizetype end = xml.indexOf(endTag, begin);
    if (begin < 0 || end < 0) {
        return {};
    }
    return QStringLiteral("  ") + xml.mid(begin, end + endTag.size() - begin) + QLatin1Char('\n');
}

QVariant displaysValue(const std::vector<DisplaySnapshot>& displays)
{
    BusDisplays list;
    list.reserve(static_cast<qsizetype>(displays.size()));
    for (const DisplaySnapshot& d : displays) {
        list.push_back({d.id, QString::fromStdString(d.name), d.brightness, d.isOn, d.canPowerOff});
    }
    return QVariant::fromValue(list);
}

// A failed call: its error name and message.
struct Failure {
    QString name;
    QString message;
};

Failure rejected(const BrightnessRequest::Rejection& rejection)
{
    const char* name = rejection.fault == BrightnessRequest::Fault::notFinite ? "NotFinite" : "OutOfRange";
    return {errorPrefix + QLatin1String(name), QString::fromStdString(rejection.message)};
}

const DisplaySnapshot* find(const std::vector<DisplaySnapshot>& displays, std::uint32_t id)
{
    for (const DisplaySnapshot& d : displays) {
        if (d.id == id) {
            return &d;
        }
    }
    return nullptr;
}

BrightnessRequest::Listed listed(const std::vector<DisplaySnapshot>& displays)
{
    BrightnessRequest::Listed list;
    for (const DisplaySnapshot& d : displays) {
        list.emplace_back(d.id, d.name);
    }
    return list;
}

Failure unknownDisplay(std::uint32_t id, const std::vector<DisplaySnapshot>& displays)
{
    return {errorPrefix + QLatin1String("UnknownDisplay"),
            QString::fromStdString(BrightnessRequest::unknownDisplay(id, listed(displays)))};
}

// One method: its arguments' signature, a sentence on what they are, and what it does with them. A call that
// returns a Failure has changed nothing.
struct Method {
    const char* name;
    const char* signature;
    const char* arguments;
    std::optional<Failure> (*run)(const SessionBusActions&, const QList<QVariant>&);
};

std::optional<Failure> setBrightness(const SessionBusActions& actions, const QList<QVariant>& args)
{
    const std::uint32_t id = args[0].toUInt();
    const double fraction = args[1].toDouble();
    if (find(actions.displays(), id) == nullptr) {
        return unknownDisplay(id, actions.displays());
    }
    if (const auto rejection = BrightnessRequest::checkFraction(fraction)) {
        return rejected(*rejection);
    }
    actions.setBrightness(id, fraction);
    return std::nullopt;
}

std::optional<Failure> step(const SessionBusActions& actions, const QList<QVariant>& args)
{
    const std::uint32_t id = args[0].toUInt();
    const double delta = args[1].toDouble();
    if (find(actions.displays(), id) == nullptr) {
        return unknownDisplay(id, actions.displays());
    }
    if (const auto rejection = BrightnessRequest::checkDelta(delta)) {
        return rejected(*rejection);
    }
    actions.step(id, delta);
    return std::nullopt;
}

// The display the brightness keys would act on, when the controller lists it; else why not.
std::optional<Failure> displayInUse(const SessionBusActions& actions, std::uint32_t& id)
{
    const std::optional<std::uint32_t> inUse = actions.displayInUse ? actions.displayInUse() : std::nullopt;
    if (!inUse) {
        return Failure{errorPrefix + QLatin1String("NoDisplayInUse"),
                       QString::fromStdString(BrightnessRequest::noDisplayInUse())};
    }
    const std::vector<DisplaySnapshot>& displays = actions.displays();
    if (find(displays, *inUse) == nullptr) {
        return Failure{errorPrefix + QLatin1String("NotAdjustable"),
                       QString::fromStdString(BrightnessRequest::notAdjustable(*inUse, listed(displays)))};
    }
    id = *inUse;
    return std::nullopt;
}

std::optional<Failure> setDisplayInUse(const SessionBusActions& actions, const QList<QVariant>& args)
{
    const double fraction = args[0].toDouble();
    if (const auto rejection = BrightnessRequest::checkFraction(fraction)) {
        return rejected(*rejection);
    }
    std::uint32_t id = 0;
    if (auto failure = displayInUse(actions, id)) {
        return failure;
    }
    actions.setBrightness(id, fraction);
    return std::nullopt;
}

std::optional<Failure> stepDisplayInUse(const SessionBusActions& actions, const QList<QVariant>& args)
{
    const double delta = args[0].toDouble();
    if (const auto rejection = BrightnessRequest::checkDelta(delta)) {
        return rejected(*rejection);
    }
    std::uint32_t id = 0;
    if (auto failure = displayInUse(actions, id)) {
        return failure;
    }
    actions.step(id, delta);
    return std::nullopt;
}

std::optional<Failure> togglePower(const SessionBusActions& actions, const QList<QVariant>& args)
{
    const std::uint32_t id = args[0].toUInt();
    const DisplaySnapshot* display = find(actions.displays(), id);
    if (display == nullptr) {
        return unknownDisplay(id, actions.displays());
    }
    if (!display->canPowerOff) {
        return Failure{errorPrefix + QLatin1String("CannotPowerOff"),
                       QString::fromStdString(BrightnessRequest::cannotPowerOff(id, display->name))};
    }
    actions.togglePower(id);
    return std::nullopt;
}

std::optional<Failure> refresh(const SessionBusActions& actions, const QList<QVariant>&)
{
    actions.refresh();
    return std::nullopt;
}

std::optional<Failure> showPanel(const SessionBusActions& actions, const QList<QVariant>&)
{
    if (actions.showPanel) {
        actions.showPanel();
    }
    return std::nullopt;
}

const Method methods[] = {
    {"SetBrightness", "ud", "a display id and a brightness fraction", &setBrightness},
    {"Step", "ud", "a display id and a step", &step},
    {"SetDisplayInUse", "d", "a brightness fraction", &setDisplayInUse},
    {"StepDisplayInUse", "d", "a step", &stepDisplayInUse},
    {"TogglePower", "u", "a display id", &togglePower},
    {"Refresh", "", "no arguments", &refresh},
    {"ShowPanel", "", "no arguments", &showPanel},
};

void reply(const QDBusMessage& message, const QDBusConnection& connection, const QDBusMessage& answer)
{
    if (message.isReplyRequired()) {
        connection.send(answer);
    }
}

void replyError(const QDBusMessage& message, const QDBusConnection& connection, const QString& name,
                const QString& text)
{
    reply(message, connection, message.createErrorReply(name, text));
}

}  // namespace

SessionBusInterface::SessionBusInterface(SessionBusActions actions, QObject* parent)
    : QDBusVirtualObject(parent), actions_(std::move(actions))
{
    qDBusRegisterMetaType<BusDisplay>();
    qDBusRegisterMetaType<BusDisplays>();
    if (!actions_.displays) {
        actions_.displays = []() -> const std::vector<DisplaySnapshot>& {
            static const std::vector<DisplaySnapshot> none;
            return none;
        };
    }
    sent_ = actions_.displays();
}

SessionBusInterface::~SessionBusInterface() = default;

QString SessionBusInterface::introspect(const QString&) const
{
    static const QString xml = interfaceXml();
    return xml;
}

bool SessionBusInterface::handleMessage(const QDBusMessage& message, const QDBusConnection& connection)
{
    if (message.type() != QDBusMessage::MethodCallMessage) {
        return false;
    }
    const QString interface = message.interface();
    if (interface == introspectableInterface) {
        return false;  // Qt answers with introspect(), adding the standard interfaces
    }
    if (interface == propertiesInterface) {
        handleProperties(message, connection);
        return true;
    }
    if (!interface.isEmpty() && interface != QLatin1String(name)) {
        replyError(message, connection, QStringLiteral("org.freedesktop.DBus.Error.UnknownInterface"),
                   QStringLiteral("%1 has no interface %2; it serves %3.")
                       .arg(message.path(), interface, QLatin1String(name)));
        return true;
    }
    handleMethod(message, connection);
    return true;
}

void SessionBusInterface::handleMethod(const QDBusMessage& message, const QDBusConnection& connection)
{
    for (const Method& method : methods) {
        if (message.member() != QLatin1String(method.name)) {
            continue;
        }
        if (message.signature() != QLatin1String(method.signature)) {
            replyError(message, connection, QStringLiteral("org.freedesktop.DBus.Error.InvalidArgs"),
                       QStringLiteral("%1 takes (%2), %3, not (%4).")
                           .arg(QLatin1String(method.name), QLatin1String(method.signature),
                                QLatin1String(method.arguments), message.signature()));
            return;
        }
        if (const std::optional<Failure> failure = method.run(actions_, message.arguments())) {
            replyError(message, connection, failure->name, failure->message);
            return;
        }
        reply(message, connection, message.createReply());
        return;
    }
    replyError(message, connection, QStringLiteral("org.freedesktop.DBus.Error.UnknownMethod"),
               QStringLiteral("%1 has no method %2.").arg(QLatin1String(name), message.member()));
}

void SessionBusInterface::handleProperties(const QDBusMessage& message, const QDBusConnection& connection)
{
    const QString member = message.member();
    const QList<QVariant> args = message.arguments();
    const QString signature = message.signature();
    const QString asked = args.isEmpty() ? QString() : args[0].toString();
    const bool ours = asked == QLatin1String(name) || asked.isEmpty();  // empty: whichever interface has it
    const auto unknownProperty = [&] {
        replyError(message, connection, QStringLiteral("org.freedesktop.DBus.Error.UnknownProperty"),
                   QStringLiteral("%1 has no property %2.%3; it has %4.Displays.")
                       .arg(message.path(), asked, args[1].toString(), QLatin1String(name)));
    };

    if (member == QLatin1String("Get") && signature == QLatin1String("ss")) {
        if (!ours || args[1].toString() != displaysProperty) {
            unknownProperty();
            return;
        }
        reply(message, connection,
              message.createReply(QVariant::fromValue(QDBusVariant(displaysValue(actions_.displays())))));
        return;
    }
    if (member == QLatin1String("GetAll") && signature == QLatin1String("s")) {
        if (!ours) {
            replyError(message, connection, QStringLiteral("org.freedesktop.DBus.Error.UnknownInterface"),
                       QStringLiteral("%1 has no interface %2.").arg(message.path(), asked));
            return;
        }
        const QVariantMap all{{displaysProperty, displaysValue(actions_.displays())}};
        reply(message, connection, message.createReply(QVariant::fromValue(all)));
        return;
    }
    if (member == QLatin1String("Set") && signature == QLatin1String("ssv")) {
        if (!ours || args[1].toString() != displaysProperty) {
            unknownProperty();
            return;
        }
        replyError(message, connection, QStringLiteral("org.freedesktop.DBus.Error.PropertyReadOnly"),
                   QStringLiteral("%1 is read-only: change displays with SetBrightness, Step, TogglePower, "
                                  "SetDisplayInUse and StepDisplayInUse.")
                       .arg(args[1].toString()));
        return;
    }
    replyError(message, connection, QStringLiteral("org.freedesktop.DBus.Error.UnknownMethod"),
               QStringLiteral("%1 has no method %2 (%3).").arg(propertiesInterface, member, signature));
}

void SessionBusInterface::displaysChanged()
{
    if (changePending_) {
        return;
    }
    changePending_ = true;
    // Queued behind everything already waiting in this turn, calls that arrived in the same burst included.
    QMetaObject::invokeMethod(this, [this] { sendPropertiesChanged(); }, Qt::QueuedConnection);
}

void SessionBusInterface::sendPropertiesChanged()
{
    changePending_ = false;
    const std::vector<DisplaySnapshot>& now = actions_.displays();
    if (now == sent_) {
        return;
    }
    sent_ = now;
    QDBusMessage signal = QDBusMessage::createSignal(QLatin1String(path), propertiesInterface,
                                                     QStringLiteral("PropertiesChanged"));
    signal << QString::fromLatin1(name) << QVariantMap{{displaysProperty, displaysValue(now)}} << QStringList{};
    QDBusConnection::sessionBus().send(signal);
}

}  // namespace Lumora
