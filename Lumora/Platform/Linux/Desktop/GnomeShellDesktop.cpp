// SPDX-License-Identifier: GPL-3.0-or-later
#include "Lumora/Platform/Linux/Desktop/GnomeShellDesktop.h"

#include <QDBusConnection>
#include <QDBusMessage>
#include <QDBusMetaType>

#include "Lumora/Platform/Linux/Desktop/DesktopInputs.h"

namespace Lumora {
namespace {

constexpr int answerWithinMs = 250;
const QString extensionService = QStringLiteral("org.lumora.Lumora.Shell");

std::string text(const QString& value)
{
    return value.toStdString();
}

const QString displayConfig = QStringLiteral("org.gnome.Mutter.DisplayConfig");
const QString displayConfigPath = QStringLiteral("/org/gnome/Mutter/DisplayConfig");

// Mutter's layout, asked again only after Mutter says it changed (MonitorsChanged): a key then waits for one
// question to the shell, not two.
class LayoutCache : public QObject {
    Q_OBJECT
public:
    LayoutCache()
    {
        QDBusConnection::sessionBus().connect(displayConfig, displayConfigPath, displayConfig,
                                              QStringLiteral("MonitorsChanged"), this, SLOT(forget()));
    }

    std::optional<GnomeShellDesktop::State> state()
    {
        if (state_)
            return state_;
        QDBusMessage call = QDBusMessage::createMethodCall(displayConfig, displayConfigPath, displayConfig,
                                                           QStringLiteral("GetCurrentState"));
        const QDBusMessage reply = QDBusConnection::sessionBus().call(call, QDBus::Block, answerWithinMs);
        const QList<QVariant> args = reply.arguments();
        if (reply.type() != QDBusMessage::ReplyMessage || args.size() != 4)
            return std::nullopt;
        state_ = GnomeShellDesktop::state(args[1].value<QDBusArgument>(), args[2].value<QDBusArgument>(),
                                          qdbus_cast<QVariantMap>(args[3].value<QDBusArgument>()));
        return state_;
    }

public slots:
    void forget() { state_.reset(); }

private:
    std::optional<GnomeShellDesktop::State> state_;
};

class GnomeShell final : public DesktopInputs {
public:
    std::string name() const override { return "GNOME Shell"; }

    DesktopView read() override
    {
        const std::optional<GnomeShellDesktop::State> state = layout_.state();
        if (!state)
            return {};

        std::optional<Rect> window;
        std::optional<Point> pointer;
        QDBusMessage where = QDBusMessage::createMethodCall(extensionService, QStringLiteral("/org/lumora/Lumora/Shell"),
                                                            extensionService, QStringLiteral("Where"));
        const QDBusMessage answer = QDBusConnection::sessionBus().call(where, QDBus::Block, answerWithinMs);
        const QList<QVariant> at = answer.arguments();
        if (answer.type() == QDBusMessage::ReplyMessage && at.size() == 7) {
            if (at[0].toBool())
                window = Rect{at[1].toDouble(), at[2].toDouble(), at[3].toDouble(), at[4].toDouble()};
            pointer = Point{at[5].toDouble(), at[6].toDouble()};
        }
        return DesktopLayout::view(GnomeShellDesktop::answers(*state, window, pointer));
    }

    // The extension is enabled when it owns its name on the session bus.
    Need missing() const override
    {
        QDBusMessage owned = QDBusMessage::createMethodCall(
            QStringLiteral("org.freedesktop.DBus"), QStringLiteral("/org/freedesktop/DBus"),
            QStringLiteral("org.freedesktop.DBus"), QStringLiteral("NameHasOwner"));
        owned << extensionService;
        const QDBusMessage reply = QDBusConnection::sessionBus().call(owned, QDBus::Block, answerWithinMs);
        const bool enabled = reply.type() != QDBusMessage::ReplyMessage || reply.arguments().value(0).toBool();
        return enabled ? Need::nothing : Need::gnomeShellExtension;
    }

private:
    LayoutCache layout_;
};

}  // namespace

GnomeShellDesktop::State GnomeShellDesktop::state(const QDBusArgument& monitors, const QDBusArgument& logicalMonitors,
                                                  const QVariantMap& properties)
{
    State result;
    result.physicalLayout = properties.value(QStringLiteral("layout-mode")).toUInt() == 2;

    // a((ssss)a(siiddada{sv})a{sv})
    monitors.beginArray();
    while (!monitors.atEnd()) {
        Monitor monitor;
        QString connector, vendor, product, serial;
        monitors.beginStructure();
        monitors.beginStructure();
        monitors >> connector >> vendor >> product >> serial;
        monitors.endStructure();
        monitor.connector = text(connector);
        monitor.vendor = text(vendor);
        monitor.product = text(product);
        monitor.serial = text(serial);
        monitors.beginArray();
        while (!monitors.atEnd()) {
            QString id;
            int width = 0, height = 0;
            double refresh = 0, preferredScale = 0;
            QList<double> scales;
            QVariantMap modeProperties;
            monitors.beginStructure();
            monitors >> id >> width >> height >> refresh >> preferredScale >> scales >> modeProperties;
            monitors.endStructure();
            if (modeProperties.value(QStringLiteral("is-current")).toBool()) {
                monitor.modeWidth = width;
                monitor.modeHeight = height;
            }
        }
        monitors.endArray();
        QVariantMap monitorProperties;
        monitors >> monitorProperties;
        monitors.endStructure();
        result.monitors.push_back(std::move(monitor));
    }
    monitors.endArray();

    // a(iiduba(ssss)a{sv})
    logicalMonitors.beginArray();
    while (!logicalMonitors.atEnd()) {
        LogicalMonitor logical;
        int x = 0, y = 0;
        uint transform = 0;
        bool primary = false;
        logicalMonitors.beginStructure();
        logicalMonitors >> x >> y >> logical.scale >> transform >> primary;
        logical.x = x;
        logical.y = y;
        logical.transform = int(transform);
        logicalMonitors.beginArray();
        while (!logicalMonitors.atEnd()) {
            QString connector, vendor, product, serial;
            logicalMonitors.beginStructure();
            logicalMonitors >> connector >> vendor >> product >> serial;
            logicalMonitors.endStructure();
            logical.connectors.push_back(text(connector));
        }
        logicalMonitors.endArray();
        QVariantMap logicalProperties;
        logicalMonitors >> logicalProperties;
        logicalMonitors.endStructure();
        result.logicalMonitors.push_back(std::move(logical));
    }
    logicalMonitors.endArray();
    return result;
}

CompositorAnswers GnomeShellDesktop::answers(const State& state, std::optional<Rect> window,
                                             std::optional<Point> pointer)
{
    CompositorAnswers answers;
    answers.focusedWindow = window;
    answers.pointer = pointer;
    for (const LogicalMonitor& logical : state.logicalMonitors) {
        for (const std::string& connector : logical.connectors) {
            for (const Monitor& monitor : state.monitors) {
                if (monitor.connector != connector || monitor.modeWidth <= 0)
                    continue;
                CompositorOutput out;
                out.name = connector;
                out.model = monitor.product;
                out.serialNumber = monitor.serial;
                out.area = {logical.x, logical.y, monitor.modeWidth, monitor.modeHeight};
                out.sizeInPixels = true;
                out.scale = state.physicalLayout ? 1.0 : logical.scale;
                out.quarterTurned = logical.transform % 2 == 1;
                answers.outputs.push_back(std::move(out));
            }
        }
    }
    return answers;
}

std::unique_ptr<DesktopInputs> makeGnomeShellDesktop()
{
    return std::make_unique<GnomeShell>();
}

}  // namespace Lumora

#include "GnomeShellDesktop.moc"
