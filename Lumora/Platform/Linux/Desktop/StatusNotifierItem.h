// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once
// Lumora's item in a StatusNotifier host (Plasma, GNOME's AppIndicator extension, waybar, Xfce's panel), over the
// session bus: org.kde.StatusNotifierItem on /StatusNotifierItem under a name of its own, registered with the
// session's org.kde.StatusNotifierWatcher, and again whenever a watcher (re)appears. Where Lumora's GNOME Shell
// extension runs, the item is registered with it instead (org.lumora.Lumora.Shell), which draws it as a top-bar
// button of its own: a click there activates the item, where GNOME's AppIndicator host would open the menu.
// The host draws the icon from pixmaps in colour at several sizes (or from the theme's icon by name where the
// desktop has Lumora installed), shows the menu exported over DBusMenu on /MenuBar itself, and calls Activate,
// SecondaryActivate and ContextMenu with the click's position in its own global coordinates (0, 0 when it does not
// know it), which are handed on as they come. ItemIsMenu is false: a click activates, the menu is for the right
// button.

#include <QDBusArgument>
#include <QIcon>
#include <QList>
#include <QObject>
#include <QPoint>

#include <functional>
#include <memory>

class QMenu;
class QDBusServiceWatcher;

namespace Lumora {

class DBusMenu;

// One icon image: width, height, and ARGB32 pixels in network byte order, signature (iiay).
struct StatusNotifierIcon {
    int width = 0;
    int height = 0;
    QByteArray pixels;
};

// The item's tooltip: icon name, icon images, title, description, signature (sa(iiay)ss).
struct StatusNotifierToolTip {
    QString iconName;
    QList<StatusNotifierIcon> icon;
    QString title;
    QString description;
};

struct StatusNotifierActions {
    std::function<void(QPoint)> activate;           // a click (left button)
    std::function<void(QPoint)> secondaryActivate;  // a middle click
    std::function<void(QPoint)> contextMenu;        // a right click on a host that leaves the menu to the item
    std::function<void(bool)> availabilityChanged;  // after each registration: in a host or not; false: watcher gone
};

class StatusNotifierItem : public QObject {
    Q_OBJECT
    Q_CLASSINFO("D-Bus Interface", "org.kde.StatusNotifierItem")
    Q_PROPERTY(QString Category READ category)
    Q_PROPERTY(QString Id READ id)
    Q_PROPERTY(QString Title READ title)
    Q_PROPERTY(QString Status READ status)
    Q_PROPERTY(int WindowId READ windowId)
    Q_PROPERTY(QString IconThemePath READ iconThemePath)
    Q_PROPERTY(QDBusObjectPath Menu READ menu)
    Q_PROPERTY(bool ItemIsMenu READ itemIsMenu)
    Q_PROPERTY(QString IconName READ iconName)
    Q_PROPERTY(QList<Lumora::StatusNotifierIcon> IconPixmap READ iconPixmap)
    Q_PROPERTY(QString OverlayIconName READ emptyName)
    Q_PROPERTY(QList<Lumora::StatusNotifierIcon> OverlayIconPixmap READ noPixmap)
    Q_PROPERTY(QString AttentionIconName READ emptyName)
    Q_PROPERTY(QList<Lumora::StatusNotifierIcon> AttentionIconPixmap READ noPixmap)
    Q_PROPERTY(QString AttentionMovieName READ emptyName)
    Q_PROPERTY(Lumora::StatusNotifierToolTip ToolTip READ toolTip)

public:
    static constexpr const char* watcherService = "org.kde.StatusNotifierWatcher";
    static constexpr const char* itemPath = "/StatusNotifierItem";
    static constexpr const char* menuPath = "/MenuBar";

    // True when the session bus has Lumora's GNOME Shell extension, or a watcher that says a host draws its items.
    static bool hostAvailable();

    // Exports the item and `menu` (not owned), and registers with the watcher when there is one. Absent without a
    // session bus.
    static std::unique_ptr<StatusNotifierItem> create(QMenu* menu, StatusNotifierActions actions);
    ~StatusNotifierItem() override;

    // Registered with a watcher that has a host: the icon is in a tray.
    bool isRegistered() const { return registered_; }
    // Whether the host's click positions are in the desktop's global space. waybar gives them inside the icon
    // (its x) and the bar (its y) instead.
    bool hostGivesGlobalPositions() const { return globalPositions_; }
    QString serviceName() const { return service_; }

    void setIcon(const QIcon& icon);
    void setToolTip(const QString& title, const QString& description);

    // The activation token the host gave with its last click (XDG activation), once.
    QString takeActivationToken();

    QString category() const { return QStringLiteral("Hardware"); }
    QString id() const;
    QString title() const { return title_; }
    QString status() const { return QStringLiteral("Active"); }
    int windowId() const { return 0; }
    QString iconThemePath() const { return {}; }
    QDBusObjectPath menu() const;
    bool itemIsMenu() const { return false; }
    QString iconName() const { return iconName_; }
    QList<StatusNotifierIcon> iconPixmap() const { return pixmaps_; }
    QString emptyName() const { return {}; }
    QList<StatusNotifierIcon> noPixmap() const { return {}; }
    StatusNotifierToolTip toolTip() const;

public slots:
    void Activate(int x, int y);
    void SecondaryActivate(int x, int y);
    void ContextMenu(int x, int y);
    void Scroll(int delta, const QString& orientation);
    void ProvideXdgActivationToken(const QString& token);

signals:
    void NewTitle();
    void NewIcon();
    void NewAttentionIcon();
    void NewOverlayIcon();
    void NewMenu();
    void NewToolTip();
    void NewStatus(const QString& status);

private slots:
    void registerItem();

private:
    StatusNotifierItem(QMenu* menu, StatusNotifierActions actions);
    void registerWithWatcher();
    void leaveWatcher();
    void setRegistered(bool registered);

    StatusNotifierActions actions_;
    std::unique_ptr<DBusMenu> exportedMenu_;
    QDBusServiceWatcher* watcher_ = nullptr;
    QString service_;
    QString title_;
    QString description_;
    QString iconName_;
    QList<StatusNotifierIcon> pixmaps_;
    QString activationToken_;
    bool registered_ = false;
    bool inShell_ = false;  // drawn by Lumora's GNOME Shell extension rather than the watcher's host
    bool globalPositions_ = true;
};

QDBusArgument& operator<<(QDBusArgument& argument, const StatusNotifierIcon& icon);
const QDBusArgument& operator>>(const QDBusArgument& argument, StatusNotifierIcon& icon);
QDBusArgument& operator<<(QDBusArgument& argument, const StatusNotifierToolTip& toolTip);
const QDBusArgument& operator>>(const QDBusArgument& argument, StatusNotifierToolTip& toolTip);

}  // namespace Lumora

Q_DECLARE_METATYPE(Lumora::StatusNotifierIcon)
Q_DECLARE_METATYPE(Lumora::StatusNotifierToolTip)
