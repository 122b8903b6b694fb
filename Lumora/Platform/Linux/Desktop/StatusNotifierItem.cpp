// SPDX-License-Identifier: GPL-3.0-or-later
#include "Lumora/Platform/Linux/Desktop/StatusNotifierItem.h"

#include <QCoreApplication>
#include <QDBusConnection>
#include <QDBusConnectionInterface>
#include <QDBusMessage>
#include <QDBusMetaType>
#include <QDBusPendingCallWatcher>
#include <QDBusPendingReply>
#include <QDBusServiceWatcher>
#include <QDBusReply>
#include <QDBusVariant>
#include <QFile>
#include <QGuiApplication>
#include <QImage>
#include <QtEndian>

#include <algorithm>
#include <array>
#include <utility>

#include "Lumora/Platform/Linux/Desktop/DBusMenu.h"

#include <unistd.h>

namespace Lumora {
namespace {

constexpr const char* watcherPath = "/StatusNotifierWatcher";
constexpr const char* watcherInterface = "org.kde.StatusNotifierWatcher";
// Lumora's GNOME Shell extension, which shows the item as a button of its own in the top bar: GNOME's AppIndicator
// extension opens the menu on a click and activates an item only on a double click.
constexpr const char* shellService = "org.lumora.Lumora.Shell";
constexpr const char* shellPath = "/org/lumora/Lumora/Shell";
// A watcher that does not answer this soon is taken for none: Lumora then uses the XEmbed tray or its window.
constexpr int watcherTimeoutMs = 2000;
// Hosts pick the size closest to their panel's; Plasma and Xfce draw at 16 to 24, waybar at its bar's height,
// GNOME at 16 times the scale.
constexpr std::array<int, 6> pixmapSizes = {16, 22, 24, 32, 48, 64};

void registerTypes()
{
    static const bool registered = [] {
        qDBusRegisterMetaType<StatusNotifierIcon>();
        qDBusRegisterMetaType<QList<StatusNotifierIcon>>();
        qDBusRegisterMetaType<StatusNotifierToolTip>();
        return true;
    }();
    (void)registered;
}

QList<StatusNotifierIcon> pixmapsOf(const QIcon& icon)
{
    QList<StatusNotifierIcon> pixmaps;
    for (const int size : pixmapSizes) {
        const QImage image = icon.pixmap(QSize(size, size), 1.0).toImage().convertToFormat(QImage::Format_ARGB32);
        if (image.isNull()) {
            continue;
        }
        StatusNotifierIcon entry{image.width(), image.height(), {}};
        entry.pixels.resize(static_cast<qsizetype>(image.width()) * image.height() * 4);
        auto* out = reinterpret_cast<uchar*>(entry.pixels.data());
        for (int y = 0; y < image.height(); ++y) {
            const auto* line = reinterpret_cast<const quint32*>(image.constScanLine(y));
            for (int x = 0; x < image.width(); ++x) {
                qToBigEndian(line[x], out);
                out += 4;
            }
        }
        pixmaps.append(entry);
    }
    return pixmaps;
}

QDBusMessage hostRegisteredQuery()
{
    QDBusMessage get = QDBusMessage::createMethodCall(QLatin1String(StatusNotifierItem::watcherService),
                                                      QLatin1String(watcherPath),
                                                      QStringLiteral("org.freedesktop.DBus.Properties"),
                                                      QStringLiteral("Get"));
    get << QLatin1String(watcherInterface) << QStringLiteral("IsStatusNotifierHostRegistered");
    return get;
}

bool saysHostRegistered(const QDBusMessage& reply)
{
    return reply.type() == QDBusMessage::ReplyMessage && !reply.arguments().isEmpty() &&
           qvariant_cast<QDBusVariant>(reply.arguments().constFirst()).variant().toBool();
}

// The program that owns the watcher, by its process name.
bool isWaybar(QDBusConnection bus)
{
    if (bus.interface() == nullptr) {
        return false;
    }
    const QDBusReply<uint> pid = bus.interface()->servicePid(QLatin1String(StatusNotifierItem::watcherService));
    if (!pid.isValid()) {
        return false;
    }
    QFile comm(QStringLiteral("/proc/%1/comm").arg(pid.value()));
    return comm.open(QIODevice::ReadOnly) && comm.readAll().trimmed() == "waybar";
}

bool isOnBus(const char* service)
{
    QDBusConnection bus = QDBusConnection::sessionBus();
    return bus.isConnected() && bus.interface() != nullptr &&
           bus.interface()->isServiceRegistered(QLatin1String(service)).value();
}

}  // namespace

bool StatusNotifierItem::hostAvailable()
{
    if (isOnBus(shellService)) {
        return true;
    }
    if (!isOnBus(watcherService)) {
        return false;
    }
    QDBusConnection bus = QDBusConnection::sessionBus();
    return saysHostRegistered(bus.call(hostRegisteredQuery(), QDBus::Block, watcherTimeoutMs));
}

std::unique_ptr<StatusNotifierItem> StatusNotifierItem::create(QMenu* menu, StatusNotifierActions actions)
{
    if (!QDBusConnection::sessionBus().isConnected()) {
        return nullptr;
    }
    std::unique_ptr<StatusNotifierItem> item(new StatusNotifierItem(menu, std::move(actions)));
    QDBusConnection bus = QDBusConnection::sessionBus();
    if (!bus.registerObject(QLatin1String(itemPath), item.get(),
                            QDBusConnection::ExportAllSlots | QDBusConnection::ExportAllSignals |
                                QDBusConnection::ExportAllProperties)) {
        return nullptr;
    }
    // A name of its own, as hosts expect of an item: org.kde.StatusNotifierItem-<pid>-<instance>.
    item->service_ = QStringLiteral("org.kde.StatusNotifierItem-%1-1").arg(::getpid());
    if (!bus.registerService(item->service_)) {
        item->service_ = bus.baseService();
    }
    item->registerItem();
    return item;
}

StatusNotifierItem::StatusNotifierItem(QMenu* menu, StatusNotifierActions actions)
    : actions_(std::move(actions)),
      exportedMenu_(std::make_unique<DBusMenu>(menu, QLatin1String(menuPath))),
      title_(QCoreApplication::applicationName())
{
    registerTypes();
    watcher_ = new QDBusServiceWatcher(QLatin1String(watcherService), QDBusConnection::sessionBus(),
                                       QDBusServiceWatcher::WatchForOwnerChange, this);
    watcher_->addWatchedService(QLatin1String(shellService));
    // A watcher that comes (a panel started after Lumora, a restarted one) gets the item anew; one that goes takes
    // the icon with it. Lumora's extension coming takes the item from the watcher's host; its going gives it back.
    connect(watcher_, &QDBusServiceWatcher::serviceOwnerChanged, this,
            [this](const QString& service, const QString&, const QString& newOwner) {
                const bool shell = service == QLatin1String(shellService);
                if (newOwner.isEmpty() && shell != inShell_) {
                    return;  // the one that went did not draw the item
                }
                if (newOwner.isEmpty() && !shell) {
                    setRegistered(false);
                    return;
                }
                if (shell && !newOwner.isEmpty() && registered_ && !inShell_) {
                    leaveWatcher();
                }
                registerItem();
            });
    QDBusConnection::sessionBus().connect(QLatin1String(watcherService), QLatin1String(watcherPath),
                                          QLatin1String(watcherInterface),
                                          QStringLiteral("StatusNotifierHostRegistered"), this,
                                          SLOT(registerItem()));
}

StatusNotifierItem::~StatusNotifierItem()
{
    QDBusConnection bus = QDBusConnection::sessionBus();
    bus.unregisterObject(QLatin1String(itemPath));
    if (service_ != bus.baseService()) {
        bus.unregisterService(service_);
    }
}

// Registers with Lumora's extension where it runs, else with the watcher; no call blocks the event loop.
void StatusNotifierItem::registerItem()
{
    if (isOnBus(shellService)) {
        QDBusMessage call = QDBusMessage::createMethodCall(QLatin1String(shellService), QLatin1String(shellPath),
                                                           QLatin1String(shellService),
                                                           QStringLiteral("RegisterStatusNotifierItem"));
        call << QLatin1String(itemPath);
        auto* registering =
            new QDBusPendingCallWatcher(QDBusConnection::sessionBus().asyncCall(call, watcherTimeoutMs), this);
        connect(registering, &QDBusPendingCallWatcher::finished, this, [this](QDBusPendingCallWatcher* registered) {
            registered->deleteLater();
            inShell_ = !registered->isError();
            if (inShell_) {
                setRegistered(true);
            } else {
                registerWithWatcher();  // an extension of an older Lumora, without the button
            }
        });
        return;
    }
    registerWithWatcher();
}

// Registers, then asks whether a host draws the items.
void StatusNotifierItem::registerWithWatcher()
{
    inShell_ = false;
    QDBusMessage call = QDBusMessage::createMethodCall(QLatin1String(watcherService), QLatin1String(watcherPath),
                                                       QLatin1String(watcherInterface),
                                                       QStringLiteral("RegisterStatusNotifierItem"));
    call << service_;
    QDBusConnection bus = QDBusConnection::sessionBus();
    if (service_ != bus.baseService()) {
        bus.registerService(service_);  // given up while Lumora's extension drew the item
    }
    auto* registering = new QDBusPendingCallWatcher(bus.asyncCall(call, watcherTimeoutMs), this);
    connect(registering, &QDBusPendingCallWatcher::finished, this, [this](QDBusPendingCallWatcher* registered) {
        registered->deleteLater();
        if (registered->isError()) {
            setRegistered(false);
            return;
        }
        auto* asking = new QDBusPendingCallWatcher(
            QDBusConnection::sessionBus().asyncCall(hostRegisteredQuery(), watcherTimeoutMs), this);
        connect(asking, &QDBusPendingCallWatcher::finished, this, [this](QDBusPendingCallWatcher* answered) {
            answered->deleteLater();
            setRegistered(saysHostRegistered(answered->reply()));
        });
    });
}

// Every outcome is told, also an unchanged one: the application may have counted on a host that then refused.
void StatusNotifierItem::setRegistered(bool registered)
{
    if (registered) {
        globalPositions_ = inShell_ || !isWaybar(QDBusConnection::sessionBus());
    }
    registered_ = registered;
    if (actions_.availabilityChanged) {
        actions_.availabilityChanged(registered_);
    }
}

// The watcher's host drops an item whose name leaves the bus, GNOME's AppIndicator host only once it has stayed away
// for half a second: the name is given up while Lumora's extension draws the item, and taken again for a watcher.
void StatusNotifierItem::leaveWatcher()
{
    QDBusConnection bus = QDBusConnection::sessionBus();
    if (service_ != bus.baseService()) {
        bus.unregisterService(service_);  // for as long as the extension draws the item
    }
}

void StatusNotifierItem::setIcon(const QIcon& icon)
{
    QList<StatusNotifierIcon> pixmaps = pixmapsOf(icon);
    // By name only where the desktop's icon theme has Lumora's own (an installed Lumora): a host that finds no
    // icon under the name would draw none.
    const QString installed = QGuiApplication::desktopFileName();
    QString name = QIcon::hasThemeIcon(installed) ? installed : QString();
    const bool same = name == iconName_ && pixmaps.size() == pixmaps_.size() &&
                      std::equal(pixmaps.cbegin(), pixmaps.cend(), pixmaps_.cbegin(),
                                 [](const StatusNotifierIcon& a, const StatusNotifierIcon& b) {
                                     return a.width == b.width && a.height == b.height && a.pixels == b.pixels;
                                 });
    if (same) {
        return;  // hosts fetch the icon anew on every announcement (GNOME's shows a spinner meanwhile)
    }
    pixmaps_ = std::move(pixmaps);
    iconName_ = std::move(name);
    emit NewIcon();
}

void StatusNotifierItem::setToolTip(const QString& title, const QString& description)
{
    title_ = title;
    description_ = description;
    emit NewTitle();
    emit NewToolTip();
}

QString StatusNotifierItem::takeActivationToken()
{
    return std::exchange(activationToken_, QString());
}

QString StatusNotifierItem::id() const
{
    return QStringLiteral("lumora");
}

QDBusObjectPath StatusNotifierItem::menu() const
{
    return QDBusObjectPath(exportedMenu_ != nullptr && exportedMenu_->isExported() ? QLatin1String(menuPath)
                                                                                  : QStringLiteral("/NO_DBUSMENU"));
}

StatusNotifierToolTip StatusNotifierItem::toolTip() const
{
    return {iconName_, pixmaps_, title_, description_};
}

void StatusNotifierItem::Activate(int x, int y)
{
    if (actions_.activate) {
        actions_.activate({x, y});
    }
}

void StatusNotifierItem::SecondaryActivate(int x, int y)
{
    if (actions_.secondaryActivate) {
        actions_.secondaryActivate({x, y});
    }
}

void StatusNotifierItem::ContextMenu(int x, int y)
{
    if (actions_.contextMenu) {
        actions_.contextMenu({x, y});
    }
}

void StatusNotifierItem::Scroll(int delta, const QString& orientation)
{
    // The wheel over the icon does nothing: which display it would change is not obvious from the tray.
    Q_UNUSED(delta);
    Q_UNUSED(orientation);
}

void StatusNotifierItem::ProvideXdgActivationToken(const QString& token)
{
    activationToken_ = token;
}

QDBusArgument& operator<<(QDBusArgument& argument, const StatusNotifierIcon& icon)
{
    argument.beginStructure();
    argument << icon.width << icon.height << icon.pixels;
    argument.endStructure();
    return argument;
}

const QDBusArgument& operator>>(const QDBusArgument& argument, StatusNotifierIcon& icon)
{
    argument.beginStructure();
    argument >> icon.width >> icon.height >> icon.pixels;
    argument.endStructure();
    return argument;
}

QDBusArgument& operator<<(QDBusArgument& argument, const StatusNotifierToolTip& toolTip)
{
    argument.beginStructure();
    argument << toolTip.iconName << toolTip.icon << toolTip.title << toolTip.description;
    argument.endStructure();
    return argument;
}

const QDBusArgument& operator>>(const QDBusArgument& argument, StatusNotifierToolTip& toolTip)
{
    argument.beginStructure();
    argument >> toolTip.iconName >> toolTip.icon >> toolTip.title >> toolTip.description;
    argument.endStructure();
    return argument;
}

}  // namespace Lumora
