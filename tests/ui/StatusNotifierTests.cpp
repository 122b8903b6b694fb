// SPDX-License-Identifier: GPL-3.0-or-later
// The StatusNotifier item and its DBusMenu as a host sees them, over a private D-Bus daemon: a second connection
// plays the host (it reads the properties and the layout, clicks menu items, activates the item) and, where a test
// needs one, the watcher that a desktop's panel owns. Everything a host reads goes through the bus's marshalling.
// On the same bus, a stand-in for GNOME Shell's extension interface answers Lumora's turning on of its extension
// (the real shell runs in `make test-desktops`).

#include <QAction>
#include <QDBusArgument>
#include <QDBusConnection>
#include <QDBusConnectionInterface>
#include <QDBusMessage>
#include <QDBusMetaType>
#include <QDBusObjectPath>
#include <QDBusVariant>
#include <QDBusVirtualObject>
#include <QIcon>
#include <QMenu>
#include <QSettings>
#include <QSignalSpy>
#include <QTemporaryDir>

#include <gtest/gtest.h>

#include <memory>
#include <optional>
#include <utility>

#include "Lumora/Platform/Linux/Desktop/GnomeExtensionEnabler.h"
#include "Lumora/Platform/Linux/Desktop/StatusNotifierItem.h"
#include "Lumora/UI/Symbols.h"
#include "support/Subprocess.h"
#include "support/EventLoop.h"

using namespace Lumora;
using LumoraTest::pumpUntil;

namespace {

constexpr const char* hostConnection = "statusnotifier-test-host";

// A private session bus for the whole test program, set up before Qt opens its session connection.
const QString& busAddress()
{
    static const QTemporaryDir dir;
    static const QString address = QStringLiteral("unix:path=") + dir.filePath(QStringLiteral("bus"));
    static const LumoraTest::Child daemon({"/usr/bin/dbus-daemon", "--session", "--nofork", "--print-address",
                                           "--address=" + address.toStdString()},
                                          true);
    qputenv("DBUS_SESSION_BUS_ADDRESS", address.toUtf8());
    return address;
}

QDBusConnection host()
{
    QDBusConnection connection = QDBusConnection::connectToBus(busAddress(), hostConnection);
    EXPECT_TRUE(connection.isConnected()) << connection.lastError().message().toStdString();
    return connection;
}

// A call as the host makes it; the event loop runs meanwhile, so that the item (on this thread) can answer.
QDBusMessage call(const QString& service, const QString& path, const QString& interface, const QString& method,
                  const QVariantList& arguments = {})
{
    QDBusMessage message = QDBusMessage::createMethodCall(service, path, interface, method);
    message.setArguments(arguments);
    return host().call(message, QDBus::BlockWithGui, 10'000);
}

QVariant property(const QString& service, const QString& path, const QString& interface, const QString& name)
{
    const QDBusMessage reply = call(service, path, QStringLiteral("org.freedesktop.DBus.Properties"),
                                    QStringLiteral("Get"), {interface, name});
    EXPECT_EQ(reply.type(), QDBusMessage::ReplyMessage) << reply.errorMessage().toStdString();
    return reply.arguments().isEmpty() ? QVariant()
                                       : qvariant_cast<QDBusVariant>(reply.arguments().constFirst()).variant();
}

// The watcher that a desktop's panel owns (or Lumora's GNOME Shell extension, which takes registrations the same
// way), reduced to what an item uses: it takes registrations and says that a host draws them.
class Watcher : public QDBusVirtualObject {
public:
    QStringList registered;

    explicit Watcher(QDBusConnection connection, QString service = QLatin1String(StatusNotifierItem::watcherService),
                     QString path = QStringLiteral("/StatusNotifierWatcher"))
        : connection_(connection), service_(std::move(service)), path_(std::move(path))
    {
        EXPECT_TRUE(connection_.registerVirtualObject(path_, this));
        EXPECT_TRUE(connection_.registerService(service_));
    }
    ~Watcher() override
    {
        connection_.unregisterService(service_);
        connection_.unregisterObject(path_);
    }
    QString introspect(const QString&) const override { return {}; }
    bool handleMessage(const QDBusMessage& message, const QDBusConnection& connection) override
    {
        if (message.member() == QLatin1String("RegisterStatusNotifierItem")) {
            registered << message.arguments().value(0).toString();
            connection.send(message.createReply());
            return true;
        }
        if (message.member() == QLatin1String("Get")) {
            connection.send(message.createReply(QVariant::fromValue(QDBusVariant(true))));
            return true;
        }
        return false;
    }

private:
    QDBusConnection connection_;
    QString service_, path_;
};

struct Clicks {
    std::optional<QPoint> activated, secondary, menu;
    std::optional<bool> available;
};

std::unique_ptr<StatusNotifierItem> makeItem(QMenu* menu, Clicks& clicks)
{
    busAddress();
    StatusNotifierActions actions;
    actions.activate = [&](QPoint at) { clicks.activated = at; };
    actions.secondaryActivate = [&](QPoint at) { clicks.secondary = at; };
    actions.contextMenu = [&](QPoint at) { clicks.menu = at; };
    actions.availabilityChanged = [&](bool available) { clicks.available = available; };
    return StatusNotifierItem::create(menu, std::move(actions));
}

}  // namespace

TEST(StatusNotifierItem, HostsSeeAColourIconNoMenuItemAndGetTheirClicksWithThePositions)
{
    QMenu menu;
    Clicks clicks;
    auto item = makeItem(&menu, clicks);
    ASSERT_NE(item, nullptr);
    // It registers with a watcher that comes later, and goes with it.
    EXPECT_FALSE(item->isRegistered()) << "no watcher yet";
    {
        Watcher watcher(host());
        ASSERT_TRUE(pumpUntil([&] { return clicks.available == true; }));
        EXPECT_EQ(watcher.registered, QStringList{item->serviceName()});
        EXPECT_TRUE(item->isRegistered());
        {
            // Lumora's GNOME Shell extension comes: the item goes to its button instead, and back when it goes.
            Watcher shell(host(), QStringLiteral("org.lumora.Lumora.Shell"),
                          QStringLiteral("/org/lumora/Lumora/Shell"));
            ASSERT_TRUE(pumpUntil([&] { return !shell.registered.isEmpty(); })) << "the extension's button";
            // A round trip to the item: whatever it did on the extension's answer has reached the watcher by then.
            property(QDBusConnection::sessionBus().baseService(), QLatin1String(StatusNotifierItem::itemPath),
                     QStringLiteral("org.kde.StatusNotifierItem"), QStringLiteral("Status"));
            EXPECT_EQ(shell.registered, QStringList{QLatin1String(StatusNotifierItem::itemPath)});
            EXPECT_EQ(watcher.registered.size(), 1) << "not drawn twice: not registered with the watcher again";
            EXPECT_FALSE(host().interface()->isServiceRegistered(item->serviceName()).value())
                << "GNOME's AppIndicator host drops the icon only once the item's name stays away";
        }
        ASSERT_TRUE(pumpUntil([&] { return watcher.registered.size() == 2; }))
            << "the extension went: back to the watcher";
        EXPECT_TRUE(item->isRegistered());
    }
    ASSERT_TRUE(pumpUntil([&] { return clicks.available == false; })) << "the watcher went: the icon went with it";

    item->setIcon(Symbols::trayIcon(QPalette()));
    const QString service = item->serviceName();
    const QString path = QLatin1String(StatusNotifierItem::itemPath);
    const QString sni = QStringLiteral("org.kde.StatusNotifierItem");

    EXPECT_FALSE(property(service, path, sni, QStringLiteral("ItemIsMenu")).toBool());
    EXPECT_EQ(qvariant_cast<QDBusObjectPath>(property(service, path, sni, QStringLiteral("Menu"))).path(),
              QLatin1String(StatusNotifierItem::menuPath));
    EXPECT_EQ(property(service, path, sni, QStringLiteral("Status")).toString(), QStringLiteral("Active"));

    // Pixmaps at several sizes, each ARGB32 in network byte order: the sun's middle is opaque amber.
    const auto pixmaps = qdbus_cast<QList<StatusNotifierIcon>>(
        qvariant_cast<QDBusArgument>(property(service, path, sni, QStringLiteral("IconPixmap"))));
    ASSERT_GE(pixmaps.size(), 3);
    for (const StatusNotifierIcon& icon : pixmaps) {
        SCOPED_TRACE(icon.width);
        ASSERT_EQ(icon.pixels.size(), qsizetype(icon.width) * icon.height * 4);
        const qsizetype middle = (qsizetype(icon.height / 2) * icon.width + icon.width / 2) * 4;
        const auto byte = [&](int k) { return static_cast<unsigned char>(icon.pixels.at(middle + k)); };
        EXPECT_EQ(byte(0), 0xFF) << "alpha first";
        EXPECT_GT(int(byte(1)) - int(byte(3)), 60) << "red well above blue: in colour, not a grey glyph";
    }

    const struct {
        const char* method;
        QPoint at;
        std::optional<QPoint> Clicks::*seen;
    } cases[] = {
        {"Activate", {1062, 778}, &Clicks::activated},
        {"SecondaryActivate", {1200, 12}, &Clicks::secondary},
        {"ContextMenu", {3000, 1060}, &Clicks::menu},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.method);
        const QDBusMessage reply = call(service, path, sni, QLatin1String(c.method), {c.at.x(), c.at.y()});
        EXPECT_EQ(reply.type(), QDBusMessage::ReplyMessage) << reply.errorMessage().toStdString();
        EXPECT_EQ(clicks.*c.seen, c.at);
    }
}

// GNOME Shell's org.gnome.Shell.Extensions, reduced to what Lumora asks at its start.
class GnomeShell : public Watcher {
public:
    bool userExtensions = true;
    double state = 0;  // Lumora's extension's, as the shell numbers them; 0: not installed
    int enabled = 0;   // EnableExtension calls for it

    GnomeShell() : Watcher(host(), QStringLiteral("org.gnome.Shell"), QStringLiteral("/org/gnome/Shell")) {}
    bool handleMessage(const QDBusMessage& message, const QDBusConnection& connection) override
    {
        QVariantMap info;
        if (state != 0 && message.arguments().value(0) == QStringLiteral("lumora@lumora.org"))
            info = {{QStringLiteral("uuid"), message.arguments().value(0)}, {QStringLiteral("state"), state}};
        const QString member = message.member();
        const bool enable = member == QLatin1String("EnableExtension") && !info.isEmpty();
        enabled += enable ? 1 : 0;
        const QVariant answer = member == QLatin1String("Get") ? QVariant::fromValue(QDBusVariant(userExtensions))
                                : member == QLatin1String("GetExtensionInfo") ? QVariant(info)
                                                                               : QVariant(enable);
        return connection.send(message.createReply(answer));
    }
};

TEST(GnomeExtensionEnabler, TurnsLumorasExtensionOnOnceWhereItIsInstalledOffAndUserExtensionsAreOn)
{
    QTemporaryDir config;
    QSettings::setPath(QSettings::NativeFormat, QSettings::UserScope, config.path());
    struct Case {
        const char* what;
        bool userExtensions;
        double state;
        bool doneBefore;
        int enabled;
        bool recorded;
    } const cases[] = {
        {"installed and never on: turned on", true, 6, false, 1, true},
        {"turned off by the user after Lumora turned it on: left off", true, 2, true, 0, true},
        {"on already: recorded, so that the user's later off stands", true, 1, false, 0, true},
        {"not installed (run from a build tree)", true, 0, false, 0, false},
        {"the user's extensions are off", false, 6, false, 0, false},
    };
    const auto settings = [] {
        return std::make_unique<QSettings>(QStringLiteral("Lumora"), QStringLiteral("Lumora"));
    };
    const QString key = QStringLiteral("gnomeShellExtensionTurnedOn");
    for (const Case& c : cases) {
        SCOPED_TRACE(c.what);
        settings()->clear();
        if (c.doneBefore)
            settings()->setValue(key, true);
        GnomeShell shell;
        shell.userExtensions = c.userExtensions;
        shell.state = c.state;
        QObject app;
        GnomeExtensionEnabler::start(&app);
        ASSERT_TRUE(pumpUntil([&] { return app.findChildren<GnomeExtensionEnabler*>().isEmpty(); }));
        EXPECT_EQ(shell.enabled, c.enabled);
        EXPECT_EQ(settings()->value(key).toBool(), c.recorded);
    }
}

TEST(DBusMenu, TheStatusMenuAsHostsDrawItAndItsItemsWorkThroughTheExport)
{
    QMenu menu;
    QAction* about = menu.addAction(QStringLiteral("About Lumora"));
    QAction* updates = menu.addAction(QStringLiteral("Check for Updates\u2026"));
    updates->setEnabled(false);
    menu.addSeparator();
    QAction* quit = menu.addAction(QStringLiteral("&Quit Lumora"));
    quit->setShortcut(QKeySequence(Qt::CTRL | Qt::Key_Q));
    Clicks clicks;
    auto item = makeItem(&menu, clicks);
    ASSERT_NE(item, nullptr);
    const QString service = item->serviceName();
    const QString path = QLatin1String(StatusNotifierItem::menuPath);
    const QString dbusmenu = QStringLiteral("com.canonical.dbusmenu");

    const QDBusMessage layout = call(service, path, dbusmenu, QStringLiteral("GetLayout"),
                                     {0, -1, QStringList()});
    ASSERT_EQ(layout.type(), QDBusMessage::ReplyMessage) << layout.errorMessage().toStdString();
    EXPECT_EQ(layout.signature(), QStringLiteral("u(ia{sv}av)"));

    // The layout as a host walks it: (id, properties, children as variants of the same).
    struct Item {
        int id = -1;
        QVariantMap properties;
    } root;
    QList<Item> children;
    const QDBusArgument argument = qvariant_cast<QDBusArgument>(layout.arguments().at(1));
    argument.beginStructure();
    argument >> root.id >> root.properties;
    argument.beginArray();
    while (!argument.atEnd()) {
        QDBusVariant child;
        argument >> child;
        const QDBusArgument nested = qvariant_cast<QDBusArgument>(child.variant());
        Item c;
        nested.beginStructure();
        nested >> c.id >> c.properties;
        nested.endStructure();
        children << c;
    }
    argument.endArray();
    argument.endStructure();
    EXPECT_EQ(root.id, 0);
    EXPECT_EQ(root.properties.value(QStringLiteral("children-display")).toString(), QStringLiteral("submenu"));

    const struct {
        QAction* action;
        QString label;  // empty for the separator
        bool enabled;
        QString shortcut;  // the first chord, keys joined by "+"
    } expected[] = {
        {about, QStringLiteral("About Lumora"), true, {}},
        {updates, QStringLiteral("Check for Updates\u2026"), false, {}},
        {nullptr, {}, false, {}},
        {quit, QStringLiteral("_Quit Lumora"), true, QStringLiteral("Control+q")},
    };
    ASSERT_EQ(children.size(), std::size(expected));
    std::vector<std::unique_ptr<QSignalSpy>> untouched;  // disabled items: looked at once a later click has landed
    for (qsizetype i = 0; i < children.size(); ++i) {
        const Item& child = children.at(i);
        const auto& e = expected[i];
        SCOPED_TRACE(child.id);
        if (e.action == nullptr) {
            EXPECT_EQ(child.properties.value(QStringLiteral("type")).toString(), QStringLiteral("separator"));
            continue;
        }
        EXPECT_EQ(child.properties.value(QStringLiteral("label")).toString(), e.label);
        EXPECT_EQ(child.properties.value(QStringLiteral("enabled")).toBool(), e.enabled);
        const auto chords = qdbus_cast<QList<QStringList>>(
            qvariant_cast<QDBusArgument>(child.properties.value(QStringLiteral("shortcut"))));
        EXPECT_EQ(chords.isEmpty() ? QString() : chords.constFirst().join(u'+'), e.shortcut);

        // A click through the export triggers the item, once the host has its reply; a disabled item does nothing.
        auto triggered = std::make_unique<QSignalSpy>(e.action, &QAction::triggered);
        const QDBusMessage clicked =
            call(service, path, dbusmenu, QStringLiteral("Event"),
                 {child.id, QStringLiteral("clicked"), QVariant::fromValue(QDBusVariant(0)), 0u});
        EXPECT_EQ(clicked.type(), QDBusMessage::ReplyMessage) << clicked.errorMessage().toStdString();
        if (e.enabled)
            EXPECT_TRUE(pumpUntil([&] { return triggered->count() == 1; }));
        else
            untouched.push_back(std::move(triggered));
    }
    for (const auto& spy : untouched)
        EXPECT_EQ(spy->count(), 0) << "a disabled item was triggered";

    // A click on an item that is not there is an error the host can see.
    const QDBusMessage unknown = call(service, path, dbusmenu, QStringLiteral("Event"),
                                      {4242, QStringLiteral("clicked"), QVariant::fromValue(QDBusVariant(0)), 0u});
    EXPECT_EQ(unknown.type(), QDBusMessage::ErrorMessage);

    // A change to the menu is announced as a new layout revision.
    const uint before = layout.arguments().at(0).toUInt();
    about->setText(QStringLiteral("About"));
    ASSERT_TRUE(pumpUntil([&] {
        const QDBusMessage again = call(service, path, dbusmenu, QStringLiteral("GetLayout"), {0, 0, QStringList()});
        return again.arguments().value(0).toUInt() > before;
    }));
}
