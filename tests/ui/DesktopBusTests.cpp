// SPDX-License-Identifier: GPL-3.0-or-later
// Lumora and the desktop's services through a private D-Bus daemon: the StatusNotifier item and its DBusMenu as hosts
// see them, turning on Lumora's GNOME Shell extension, resumes as logind tells them. A second connection plays the
// host, a watcher, Lumora's extension, GNOME Shell (the real one runs in `make test-desktops`) and logind.

#include <QAction>
#include <QMenu>
#include <QSettings>
#include <QSignalSpy>
#include <QTemporaryDir>
#include <QtDBus>

#include <gtest/gtest.h>

#include <functional>
#include <memory>
#include <optional>
#include <utility>

#include "Lumora/Platform/Linux/Desktop/GnomeExtensionEnabler.h"
#include "Lumora/Platform/Linux/Desktop/ResumeMonitor.h"
#include "Lumora/Platform/Linux/Desktop/StatusNotifierItem.h"
#include "Lumora/UI/Symbols.h"
#include "support/Subprocess.h"
#include "support/EventLoop.h"

using namespace Lumora;
using LumoraTest::pumpUntil;

namespace {

// A private session bus for the whole test program, set up before Qt opens its session connection.
const QString& busAddress()
{
    static const QTemporaryDir dir;
    static const QString address = QStringLiteral("unix:path=") + dir.filePath(QStringLiteral("bus"));
    static const LumoraTest::Child daemon(
        {"/usr/bin/dbus-daemon", "--session", "--nofork", "--print-address", "--address=" + address.toStdString()},
        true);
    qputenv("DBUS_SESSION_BUS_ADDRESS", address.toUtf8());
    return address;
}

QDBusConnection host()
{
    QDBusConnection connection = QDBusConnection::connectToBus(busAddress(), "test-host");
    EXPECT_TRUE(connection.isConnected()) << connection.lastError().message().toStdString();
    return connection;
}

// An object of Lumora's as the host calls it; the event loop runs meanwhile, so that Lumora (on this thread) answers.
struct Remote {
    QString service, path, interface;
    QDBusMessage call(const QString& method, const QVariantList& arguments = {}) const
    {
        QDBusMessage message = QDBusMessage::createMethodCall(service, path, interface, method);
        message.setArguments(arguments);
        return host().call(message, QDBus::BlockWithGui, 10'000);
    }
    QVariant property(const QString& name) const
    {
        const Remote properties{service, path, "org.freedesktop.DBus.Properties"};
        const QDBusMessage reply = properties.call("Get", {interface, name});
        EXPECT_EQ(reply.type(), QDBusMessage::ReplyMessage) << reply.errorMessage().toStdString();
        return qvariant_cast<QDBusVariant>(reply.arguments().value(0)).variant();
    }
};

// A service on the host's side: each call is answered with what `answer` gives (an empty reply for nothing), and
// the first argument of each is kept by method. By default it is a watcher, reduced to what an item uses: it takes
// registrations and says (to any property asked) that a host draws them. Lumora's extension takes them the same way.
class Service : public QDBusVirtualObject {
public:
    using Answer = std::function<QVariant(const QDBusMessage&)>;
    explicit Service(QString name = StatusNotifierItem::watcherService, QString path = "/StatusNotifierWatcher",
                     Answer answer = {})
        : name_(std::move(name)), path_(std::move(path)), answer_(std::move(answer))
    {
        EXPECT_TRUE(host().registerVirtualObject(path_, this));
        EXPECT_TRUE(host().registerService(name_));
    }
    ~Service() override { host().unregisterService(name_); host().unregisterObject(path_); }
    QStringList said(const char* method) const { return calls_.value(method); }
    QString introspect(const QString&) const override { return {}; }
    bool handleMessage(const QDBusMessage& message, const QDBusConnection& connection) override
    {
        calls_[message.member()] << message.arguments().value(0).toString();
        const QVariant answer = answer_                    ? answer_(message)
                                : message.member() == "Get" ? QVariant::fromValue(QDBusVariant(true))
                                                            : QVariant();
        return connection.send(answer.isValid() ? message.createReply(answer) : message.createReply());
    }

private:
    QString name_, path_;
    Answer answer_;
    QMap<QString, QStringList> calls_;
};

// What reached the item's actions: the clicks by the host's method, where; whether it is in a host.
struct Noted { QMap<QString, QPoint> clicks; std::optional<bool> available; };

std::unique_ptr<StatusNotifierItem> makeItem(QMenu* menu, Noted& noted)
{
    busAddress();
    const auto note = [&noted](const char* method) {
        return [&noted, method](QPoint at) { noted.clicks[method] = at; };
    };
    return StatusNotifierItem::create(menu, {note("Activate"), note("SecondaryActivate"), note("ContextMenu"),
                                             [&noted](bool available) { noted.available = available; }});
}

// A DBusMenu layout node as a host walks it: (id, properties, children as variants of the same).
struct MenuNode { int id = -1; QVariantMap properties; QList<MenuNode> children; };

const QDBusArgument& operator>>(const QDBusArgument& in, MenuNode& node)
{
    in.beginStructure();
    in >> node.id >> node.properties;
    in.beginArray();
    while (!in.atEnd()) {
        QDBusVariant child;
        in >> child;
        qvariant_cast<QDBusArgument>(child.variant()) >> node.children.emplace_back();
    }
    in.endArray();
    in.endStructure();
    return in;
}

}  // namespace

TEST(StatusNotifierItem, HostsSeeAColourIconNoMenuItemAndGetTheirClicksWithThePositions)
{
    QMenu menu;
    Noted noted;
    auto item = makeItem(&menu, noted);
    ASSERT_NE(item, nullptr);
    const Remote sni{item->serviceName(), StatusNotifierItem::itemPath, "org.kde.StatusNotifierItem"};
    // It registers with a watcher that comes later, and goes with it.
    EXPECT_FALSE(item->isRegistered()) << "no watcher yet";
    {
        Service watcher;
        ASSERT_TRUE(pumpUntil([&] { return noted.available == true; }));
        EXPECT_EQ(watcher.said("RegisterStatusNotifierItem"), QStringList{sni.service});
        EXPECT_TRUE(item->isRegistered());
        {
            // Lumora's GNOME Shell extension comes: the item goes to its button instead, and back when it goes.
            Service shell("org.lumora.Lumora.Shell", "/org/lumora/Lumora/Shell");
            ASSERT_TRUE(pumpUntil([&] { return !shell.said("RegisterStatusNotifierItem").isEmpty(); }));
            // A round trip to the item (its name is gone): what it did on the extension's answer is done by then.
            Remote{QDBusConnection::sessionBus().baseService(), sni.path, sni.interface}.property("Status");
            EXPECT_EQ(shell.said("RegisterStatusNotifierItem"), QStringList{sni.path});
            EXPECT_EQ(watcher.said("RegisterStatusNotifierItem").size(), 1) << "drawn twice: registered again";
            EXPECT_FALSE(host().interface()->isServiceRegistered(sni.service).value())
                << "GNOME's AppIndicator host drops the icon only once the item's name stays away";
        }
        ASSERT_TRUE(pumpUntil([&] { return watcher.said("RegisterStatusNotifierItem").size() == 2; }))
            << "the extension went: back to the watcher";
        EXPECT_TRUE(item->isRegistered());
    }
    ASSERT_TRUE(pumpUntil([&] { return noted.available == false; })) << "the watcher went: the icon went with it";

    item->setIcon(Symbols::trayIcon(QPalette()));
    EXPECT_FALSE(sni.property("ItemIsMenu").toBool());
    EXPECT_EQ(qvariant_cast<QDBusObjectPath>(sni.property("Menu")).path(), StatusNotifierItem::menuPath);
    EXPECT_EQ(sni.property("Status").toString(), "Active");
    // Pixmaps at several sizes, each ARGB32 in network byte order: the sun's middle is opaque amber.
    const auto pixmaps =
        qdbus_cast<QList<StatusNotifierIcon>>(qvariant_cast<QDBusArgument>(sni.property("IconPixmap")));
    ASSERT_GE(pixmaps.size(), 3);
    for (const StatusNotifierIcon& icon : pixmaps) {
        SCOPED_TRACE(icon.width);
        ASSERT_EQ(icon.pixels.size(), qsizetype(icon.width) * icon.height * 4);
        const qsizetype middle = (qsizetype(icon.height / 2) * icon.width + icon.width / 2) * 4;
        const auto byte = [&](int k) { return static_cast<unsigned char>(icon.pixels.at(middle + k)); };
        EXPECT_EQ(byte(0), 0xFF) << "alpha first";
        EXPECT_GT(int(byte(1)) - int(byte(3)), 60) << "red well above blue: in colour, not a grey glyph";
    }

    const std::pair<const char*, QPoint> clicks[] = {
        {"Activate", {1062, 778}}, {"SecondaryActivate", {1200, 12}}, {"ContextMenu", {3000, 1060}}};
    for (const auto& [method, at] : clicks) {
        sni.call(method, {at.x(), at.y()});
        EXPECT_EQ(noted.clicks.value(method), at) << method;
    }
}

TEST(GnomeExtensionEnabler, TurnsLumorasExtensionOnOnceWhereItIsInstalledOffAndUserExtensionsAreOn)
{
    QTemporaryDir config;
    QSettings::setPath(QSettings::NativeFormat, QSettings::UserScope, config.path());
    // extensionsOn: the user's; state: of Lumora's extension as the shell numbers them (0: not installed); done: turned
    // on by Lumora before; enabled: EnableExtension calls; recorded: as done in the settings afterwards.
    const struct { const char* what; bool extensionsOn; int state; bool done; int enabled; bool recorded; } cases[] = {
        {"installed and never on: turned on", true, 6, false, 1, true},
        {"turned off by the user after Lumora turned it on: left off", true, 2, true, 0, true},
        {"on already: recorded, so that the user's later off stands", true, 1, false, 0, true},
        {"not installed (run from a build tree)", true, 0, false, 0, false},
        {"the user's extensions are off", false, 6, false, 0, false},
    };
    const char* key = "gnomeShellExtensionTurnedOn";
    for (const auto& c : cases) {
        SCOPED_TRACE(c.what);
        QSettings("Lumora", "Lumora").clear();
        if (c.done)
            QSettings("Lumora", "Lumora").setValue(key, true);
        // GNOME Shell's org.gnome.Shell.Extensions, reduced to what Lumora asks at its start.
        Service shell("org.gnome.Shell", "/org/gnome/Shell", [&](const QDBusMessage& message) -> QVariant {
            const QString uuid = message.arguments().value(0).toString();
            const bool known = c.state != 0 && uuid == "lumora@lumora.org";
            if (message.member() == "Get")
                return QVariant::fromValue(QDBusVariant(c.extensionsOn));
            if (message.member() == "GetExtensionInfo")
                return known ? QVariantMap{{"uuid", uuid}, {"state", double(c.state)}} : QVariantMap{};
            return known;
        });
        QObject app;
        GnomeExtensionEnabler::start(&app);
        ASSERT_TRUE(pumpUntil([&] { return app.findChildren<GnomeExtensionEnabler*>().isEmpty(); }));
        EXPECT_EQ(shell.said("EnableExtension").count("lumora@lumora.org"), c.enabled);
        EXPECT_EQ(QSettings("Lumora", "Lumora").value(key).toBool(), c.recorded);
    }
}

TEST(DBusMenu, TheStatusMenuAsHostsDrawItAndItsItemsWorkThroughTheExport)
{
    QMenu menu;
    QAction* about = menu.addAction("About Lumora");
    menu.addAction("Check for Updates\u2026")->setEnabled(false);
    menu.addSeparator();
    QAction* quit = menu.addAction("&Quit Lumora");
    quit->setShortcut(QKeySequence(Qt::CTRL | Qt::Key_Q));
    Noted noted;
    auto item = makeItem(&menu, noted);
    ASSERT_NE(item, nullptr);
    const Remote dbusmenu{item->serviceName(), StatusNotifierItem::menuPath, "com.canonical.dbusmenu"};
    const auto click = [&](int id) {
        return dbusmenu.call("Event", {id, "clicked", QVariant::fromValue(QDBusVariant(0)), 0u}).type();
    };

    const QDBusMessage layout = dbusmenu.call("GetLayout", {0, -1, QStringList()});
    ASSERT_EQ(layout.signature(), "u(ia{sv}av)") << layout.errorMessage().toStdString();
    MenuNode root;
    qvariant_cast<QDBusArgument>(layout.arguments().value(1)) >> root;
    EXPECT_EQ(root.id, 0);
    EXPECT_EQ(root.properties.value("children-display").toString(), "submenu");

    // Each item as the host draws it: label, enabled, the first chord of its shortcut (keys joined by "+").
    QStringList drawn;
    for (const MenuNode& child : root.children) {
        const QVariantMap& item = child.properties;
        const auto shortcut = item.contains("shortcut")
                                  ? qdbus_cast<QList<QStringList>>(item.value("shortcut").value<QDBusArgument>())
                                  : QList<QStringList>();
        drawn << (item.value("type").toString() == "separator"
                      ? "separator"
                      : QStringList{item.value("label").toString(), item.value("enabled").toBool() ? "on" : "off",
                                    shortcut.value(0).join(u'+')}.join(" | "));
    }
    EXPECT_EQ(drawn, QStringList({"About Lumora | on | ", "Check for Updates\u2026 | off | ", "separator",
                                  "_Quit Lumora | on | Control+q"}));
    // A click through the export triggers its item once the host has the reply; a disabled item does nothing.
    QSignalSpy triggered(&menu, &QMenu::triggered);
    for (const MenuNode& child : root.children)
        EXPECT_EQ(click(child.id), QDBusMessage::ReplyMessage);
    ASSERT_TRUE(pumpUntil([&] { return triggered.count() >= 2; }));
    std::vector<QAction*> actions;
    for (const QVariantList& signal : triggered)
        actions.push_back(signal.value(0).value<QAction*>());
    EXPECT_EQ(actions, (std::vector<QAction*>{about, quit}));
    EXPECT_EQ(click(4242), QDBusMessage::ErrorMessage) << "a click on an item that is not there";

    // A change to the menu is announced as a new layout revision.
    about->setText("About");
    ASSERT_TRUE(pumpUntil([&] {
        return dbusmenu.call("GetLayout", {0, 0, QStringList()}).arguments().value(0).toUInt() >
               layout.arguments().value(0).toUInt();
    }));
}

// The daemon is the system bus too, where the host's connection takes logind's name. (What a resume then does to the
// monitors: e2e_realistic_monitors.)
TEST(ResumeMonitor, EveryResumeIsToldAndNothingElse)
{
    int resumes = 0;
    qputenv("DBUS_SYSTEM_BUS_ADDRESS", busAddress().toUtf8());
    ASSERT_TRUE(host().registerService("org.freedesktop.login1"));
    {
        ResumeMonitor monitor([&] { ++resumes; });
        ASSERT_TRUE(pumpUntil([&] { return monitor.isSubscribed(); })) << "never subscribed";
        for (const bool start : {true, false, true, false}) {  // PrepareForSleep(false): the machine has resumed
            auto signal = QDBusMessage::createSignal("/org/freedesktop/login1", "org.freedesktop.login1.Manager",
                                                     "PrepareForSleep");
            EXPECT_TRUE(host().send(signal << start));
        }
        ASSERT_TRUE(pumpUntil([&] { return resumes >= 2; }));
        pumpUntil([] { return false; }, std::chrono::milliseconds(200));  // room for more, which must not come
        EXPECT_EQ(resumes, 2) << "going to sleep is not a resume";
    }
    host().unregisterService("org.freedesktop.login1");
    qputenv("DBUS_SYSTEM_BUS_ADDRESS", "unix:path=/nonexistent/lumora-test-bus");
    ResumeMonitor monitor([&] { ++resumes; });
    pumpUntil([] { return false; }, std::chrono::milliseconds(200));
    EXPECT_FALSE(monitor.isSubscribed()) << "no system bus";
}
