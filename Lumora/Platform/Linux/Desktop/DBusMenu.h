// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once
// A QMenu's actions exported over D-Bus as com.canonical.dbusmenu, the menu protocol of StatusNotifier hosts:
// waybar, Xfce's panel, GNOME's AppIndicator extension and Plasma draw the menu themselves from it, in their own
// style, and send back "clicked" when the user picks an item, which triggers that action here. Items carry their
// label (mnemonics as underscores), enabled state, visibility and shortcut; separators are items of type
// "separator". The root item has id 0; each action keeps its id for the life of the export. Any change to an
// action announces a new layout revision.

#include <QDBusArgument>
#include <QDBusContext>
#include <QDBusVariant>
#include <QList>
#include <QObject>
#include <QPointer>
#include <QStringList>
#include <QVariantMap>

class QAction;
class QMenu;

namespace Lumora {

// One item of the layout as GetLayout returns it: (id, properties, children), signature (ia{sv}av).
struct DBusMenuLayoutItem {
    int id = 0;
    QVariantMap properties;
    QList<DBusMenuLayoutItem> children;
};

// One item's properties as GetGroupProperties returns them: (id, properties), signature (ia{sv}).
struct DBusMenuItemProperties {
    int id = 0;
    QVariantMap properties;
};

// One event of EventGroup: (id, eventId, data, timestamp), signature (isvu).
struct DBusMenuEvent {
    int id = 0;
    QString eventId;
    QDBusVariant data;
    uint timestamp = 0;
};

// Removed properties in ItemsPropertiesUpdated: (id, names), signature (ias).
struct DBusMenuRemovedProperties {
    int id = 0;
    QStringList names;
};

class DBusMenu : public QObject, protected QDBusContext {
    Q_OBJECT
    Q_CLASSINFO("D-Bus Interface", "com.canonical.dbusmenu")
    Q_PROPERTY(uint Version READ version)
    Q_PROPERTY(QString TextDirection READ textDirection)
    Q_PROPERTY(QString Status READ status)
    Q_PROPERTY(QStringList IconThemePath READ iconThemePath)

public:
    static constexpr const char* interfaceName = "com.canonical.dbusmenu";

    // Exports `menu`'s actions (not owned; the menu must outlive the export or be deleted with it) on `path` of the
    // session bus. Registers the protocol's types with Qt's D-Bus marshalling.
    DBusMenu(QMenu* menu, const QString& path, QObject* parent = nullptr);
    ~DBusMenu() override;

    // False when there is no session bus or the path is taken.
    bool isExported() const { return exported_; }
    QString path() const { return path_; }

    uint version() const { return 3; }
    QString textDirection() const;
    QString status() const { return QStringLiteral("normal"); }
    QStringList iconThemePath() const { return {}; }

    static void registerTypes();

public slots:
    // Types spelt with their namespace: Qt's D-Bus export finds them by these names.
    uint GetLayout(int parentId, int recursionDepth, const QStringList& propertyNames,
                   Lumora::DBusMenuLayoutItem& layout);
    QList<Lumora::DBusMenuItemProperties> GetGroupProperties(const QList<int>& ids, const QStringList& propertyNames);
    QDBusVariant GetProperty(int id, const QString& name);
    void Event(int id, const QString& eventId, const QDBusVariant& data, uint timestamp);
    QList<int> EventGroup(const QList<Lumora::DBusMenuEvent>& events);
    bool AboutToShow(int id);
    QList<int> AboutToShowGroup(const QList<int>& ids, QList<int>& idErrors);

signals:
    void ItemsPropertiesUpdated(const QList<Lumora::DBusMenuItemProperties>& updatedProps,
                                const QList<Lumora::DBusMenuRemovedProperties>& removedProps);
    void LayoutUpdated(uint revision, int parent);
    void ItemActivationRequested(int id, uint timestamp);

protected:
    bool eventFilter(QObject* watched, QEvent* event) override;

private:
    QList<QAction*> shownActions() const;
    QAction* action(int id) const;
    int idOf(QAction* action);
    QVariantMap properties(int id, const QStringList& names) const;
    void menuChanged();
    bool handle(int id, const QString& eventId);

    QPointer<QMenu> menu_;
    QString path_;
    bool exported_ = false;
    uint revision_ = 1;
    bool announcing_ = false;
    QList<QPointer<QAction>> ids_;  // an action's id is its index here plus one
};

QDBusArgument& operator<<(QDBusArgument& argument, const DBusMenuLayoutItem& item);
const QDBusArgument& operator>>(const QDBusArgument& argument, DBusMenuLayoutItem& item);
QDBusArgument& operator<<(QDBusArgument& argument, const DBusMenuItemProperties& item);
const QDBusArgument& operator>>(const QDBusArgument& argument, DBusMenuItemProperties& item);
QDBusArgument& operator<<(QDBusArgument& argument, const DBusMenuEvent& event);
const QDBusArgument& operator>>(const QDBusArgument& argument, DBusMenuEvent& event);
QDBusArgument& operator<<(QDBusArgument& argument, const DBusMenuRemovedProperties& item);
const QDBusArgument& operator>>(const QDBusArgument& argument, DBusMenuRemovedProperties& item);

}  // namespace Lumora

Q_DECLARE_METATYPE(Lumora::DBusMenuLayoutItem)
Q_DECLARE_METATYPE(Lumora::DBusMenuItemProperties)
Q_DECLARE_METATYPE(Lumora::DBusMenuEvent)
Q_DECLARE_METATYPE(Lumora::DBusMenuRemovedProperties)
