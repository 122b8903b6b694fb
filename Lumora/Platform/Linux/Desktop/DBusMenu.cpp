// SPDX-License-Identifier: GPL-3.0-or-later
#include "Lumora/Platform/Linux/Desktop/DBusMenu.h"

#include <QAction>
#include <QActionGroup>
#include <QDBusConnection>
#include <QDBusMetaType>
#include <QEvent>
#include <QGuiApplication>
#include <QKeySequence>
#include <QMenu>
#include <QTimer>

namespace Lumora {
namespace {

constexpr int rootId = 0;

// Qt writes a mnemonic as "&x" and a literal ampersand as "&&"; the menu protocol writes them "_x" and "__".
QString protocolLabel(const QString& text)
{
    QString label;
    label.reserve(text.size());
    for (qsizetype i = 0; i < text.size(); ++i) {
        const QChar c = text.at(i);
        if (c == u'_') {
            label += QStringLiteral("__");
        } else if (c == u'&') {
            if (i + 1 < text.size() && text.at(i + 1) == u'&') {
                label += u'&';
                ++i;
            } else {
                label += u'_';
            }
        } else {
            label += c;
        }
    }
    return label;
}

// A shortcut as the protocol has it: one list of key names per chord, modifiers first ("Control", "q").
QList<QStringList> protocolShortcut(const QKeySequence& sequence)
{
    QList<QStringList> chords;
    for (int i = 0; i < sequence.count(); ++i) {
        const QKeyCombination combination = sequence[static_cast<uint>(i)];
        QStringList keys;
        const Qt::KeyboardModifiers modifiers = combination.keyboardModifiers();
        if (modifiers & Qt::ControlModifier) keys << QStringLiteral("Control");
        if (modifiers & Qt::AltModifier) keys << QStringLiteral("Alt");
        if (modifiers & Qt::ShiftModifier) keys << QStringLiteral("Shift");
        if (modifiers & Qt::MetaModifier) keys << QStringLiteral("Super");
        keys << QKeySequence(combination.key()).toString(QKeySequence::PortableText).toLower();
        chords << keys;
    }
    return chords;
}

QVariantMap chosen(const QVariantMap& all, const QStringList& names)
{
    if (names.isEmpty()) {
        return all;
    }
    QVariantMap some;
    for (const QString& name : names) {
        if (const auto found = all.constFind(name); found != all.cend()) {
            some.insert(name, *found);
        }
    }
    return some;
}

}  // namespace

void DBusMenu::registerTypes()
{
    static const bool registered = [] {
        qDBusRegisterMetaType<DBusMenuLayoutItem>();
        qDBusRegisterMetaType<DBusMenuItemProperties>();
        qDBusRegisterMetaType<QList<DBusMenuItemProperties>>();
        qDBusRegisterMetaType<DBusMenuEvent>();
        qDBusRegisterMetaType<QList<DBusMenuEvent>>();
        qDBusRegisterMetaType<DBusMenuRemovedProperties>();
        qDBusRegisterMetaType<QList<DBusMenuRemovedProperties>>();
        qDBusRegisterMetaType<QList<QStringList>>();
        return true;
    }();
    (void)registered;
}

DBusMenu::DBusMenu(QMenu* menu, const QString& path, QObject* parent) : QObject(parent), menu_(menu), path_(path)
{
    registerTypes();
    if (menu_ != nullptr) {
        menu_->installEventFilter(this);
    }
    QDBusConnection bus = QDBusConnection::sessionBus();
    exported_ = bus.isConnected() &&
                bus.registerObject(path_, this,
                                   QDBusConnection::ExportAllSlots | QDBusConnection::ExportAllSignals |
                                       QDBusConnection::ExportAllProperties);
}

DBusMenu::~DBusMenu()
{
    if (exported_) {
        QDBusConnection::sessionBus().unregisterObject(path_);
    }
}

QString DBusMenu::textDirection() const
{
    return QGuiApplication::layoutDirection() == Qt::RightToLeft ? QStringLiteral("rtl") : QStringLiteral("ltr");
}

bool DBusMenu::eventFilter(QObject* watched, QEvent* event)
{
    if (watched == menu_ && (event->type() == QEvent::ActionAdded || event->type() == QEvent::ActionRemoved ||
                             event->type() == QEvent::ActionChanged)) {
        menuChanged();
    }
    return QObject::eventFilter(watched, event);
}

// Changes come in bursts (a menu being built, a language change): one new revision for each burst.
void DBusMenu::menuChanged()
{
    if (announcing_) {
        return;
    }
    announcing_ = true;
    QTimer::singleShot(0, this, [this] {
        announcing_ = false;
        ++revision_;
        emit LayoutUpdated(revision_, rootId);
    });
}

QList<QAction*> DBusMenu::shownActions() const
{
    return menu_ != nullptr ? menu_->actions() : QList<QAction*>();
}

QAction* DBusMenu::action(int id) const
{
    if (id <= 0 || id > ids_.size()) {
        return nullptr;
    }
    QAction* found = ids_.at(id - 1);
    return found != nullptr && shownActions().contains(found) ? found : nullptr;
}

int DBusMenu::idOf(QAction* action)
{
    const qsizetype index = ids_.indexOf(action);
    if (index >= 0) {
        return static_cast<int>(index) + 1;
    }
    ids_.append(action);
    return static_cast<int>(ids_.size());
}

QVariantMap DBusMenu::properties(int id, const QStringList& names) const
{
    QVariantMap all;
    if (id == rootId) {
        all.insert(QStringLiteral("children-display"), QStringLiteral("submenu"));
        return chosen(all, names);
    }
    const QAction* item = action(id);
    if (item == nullptr) {
        return {};
    }
    if (!item->isVisible()) {
        all.insert(QStringLiteral("visible"), false);
    }
    if (item->isSeparator()) {
        all.insert(QStringLiteral("type"), QStringLiteral("separator"));
        return chosen(all, names);
    }
    all.insert(QStringLiteral("label"), protocolLabel(item->text()));
    all.insert(QStringLiteral("enabled"), item->isEnabled());
    if (item->isCheckable()) {
        all.insert(QStringLiteral("toggle-type"),
                   item->actionGroup() != nullptr && item->actionGroup()->isExclusive() ? QStringLiteral("radio")
                                                                                       : QStringLiteral("checkmark"));
        all.insert(QStringLiteral("toggle-state"), item->isChecked() ? 1 : 0);
    }
    if (!item->shortcut().isEmpty()) {
        all.insert(QStringLiteral("shortcut"), QVariant::fromValue(protocolShortcut(item->shortcut())));
    }
    return chosen(all, names);
}

uint DBusMenu::GetLayout(int parentId, int recursionDepth, const QStringList& propertyNames,
                         DBusMenuLayoutItem& layout)
{
    if (parentId != rootId && action(parentId) == nullptr) {
        sendErrorReply(QDBusError::InvalidArgs, QStringLiteral("There is no menu item with id %1.").arg(parentId));
        return revision_;
    }
    layout.id = parentId;
    layout.properties = properties(parentId, propertyNames);
    layout.children.clear();
    if (parentId == rootId && recursionDepth != 0) {
        for (QAction* item : shownActions()) {
            const int id = idOf(item);
            layout.children.append({id, properties(id, propertyNames), {}});
        }
    }
    return revision_;
}

QList<DBusMenuItemProperties> DBusMenu::GetGroupProperties(const QList<int>& ids, const QStringList& propertyNames)
{
    QList<int> wanted = ids;
    if (wanted.isEmpty()) {
        // No ids: every item.
        wanted.append(rootId);
        for (QAction* item : shownActions()) {
            wanted.append(idOf(item));
        }
    }
    QList<DBusMenuItemProperties> found;
    for (const int id : wanted) {
        if (id == rootId || action(id) != nullptr) {
            found.append({id, properties(id, propertyNames)});
        }
    }
    return found;
}

QDBusVariant DBusMenu::GetProperty(int id, const QString& name)
{
    const QVariantMap all = properties(id, {});
    if ((id != rootId && action(id) == nullptr) || !all.contains(name)) {
        sendErrorReply(QDBusError::InvalidArgs,
                       QStringLiteral("The menu item with id %1 has no property '%2'.").arg(id).arg(name));
        return QDBusVariant(QVariant(0));
    }
    return QDBusVariant(all.value(name));
}

bool DBusMenu::handle(int id, const QString& eventId)
{
    if (id == rootId) {
        return true;  // the whole menu opened or closed: nothing to do
    }
    QAction* item = action(id);
    if (item == nullptr) {
        return false;
    }
    if (eventId == QLatin1String("clicked") && item->isEnabled() && !item->isSeparator()) {
        // After the reply: what the item does (Quit, a dialog) must not hold up the host that sent the click.
        QTimer::singleShot(0, item, [item] { item->trigger(); });
    }
    return true;
}

void DBusMenu::Event(int id, const QString& eventId, const QDBusVariant& data, uint timestamp)
{
    Q_UNUSED(data);
    Q_UNUSED(timestamp);
    if (!handle(id, eventId)) {
        sendErrorReply(QDBusError::InvalidArgs, QStringLiteral("There is no menu item with id %1.").arg(id));
    }
}

QList<int> DBusMenu::EventGroup(const QList<DBusMenuEvent>& events)
{
    QList<int> idErrors;
    for (const DBusMenuEvent& event : events) {
        if (!handle(event.id, event.eventId)) {
            idErrors.append(event.id);
        }
    }
    if (!events.isEmpty() && idErrors.size() == events.size()) {
        sendErrorReply(QDBusError::InvalidArgs, QStringLiteral("None of the menu items exists."));
    }
    return idErrors;
}

bool DBusMenu::AboutToShow(int id)
{
    Q_UNUSED(id);
    return false;  // the layout is always up to date: every change announces itself
}

QList<int> DBusMenu::AboutToShowGroup(const QList<int>& ids, QList<int>& idErrors)
{
    idErrors.clear();
    for (const int id : ids) {
        if (id != rootId && action(id) == nullptr) {
            idErrors.append(id);
        }
    }
    return {};
}

QDBusArgument& operator<<(QDBusArgument& argument, const DBusMenuLayoutItem& item)
{
    argument.beginStructure();
    argument << item.id << item.properties;
    argument.beginArray(qMetaTypeId<QDBusVariant>());
    for (const DBusMenuLayoutItem& child : item.children) {
        argument << QDBusVariant(QVariant::fromValue(child));
    }
    argument.endArray();
    argument.endStructure();
    return argument;
}

const QDBusArgument& operator>>(const QDBusArgument& argument, DBusMenuLayoutItem& item)
{
    argument.beginStructure();
    argument >> item.id >> item.properties;
    item.children.clear();
    argument.beginArray();
    while (!argument.atEnd()) {
        QDBusVariant child;
        argument >> child;
        const auto nested = qvariant_cast<QDBusArgument>(child.variant());
        DBusMenuLayoutItem childItem;
        nested >> childItem;
        item.children.append(childItem);
    }
    argument.endArray();
    argument.endStructure();
    return argument;
}

QDBusArgument& operator<<(QDBusArgument& argument, const DBusMenuItemProperties& item)
{
    argument.beginStructure();
    argument << item.id << item.properties;
    argument.endStructure();
    return argument;
}

const QDBusArgument& operator>>(const QDBusArgument& argument, DBusMenuItemProperties& item)
{
    argument.beginStructure();
    argument >> item.id >> item.properties;
    argument.endStructure();
    return argument;
}

QDBusArgument& operator<<(QDBusArgument& argument, const DBusMenuEvent& event)
{
    argument.beginStructure();
    argument << event.id << event.eventId << event.data << event.timestamp;
    argument.endStructure();
    return argument;
}

const QDBusArgument& operator>>(const QDBusArgument& argument, DBusMenuEvent& event)
{
    argument.beginStructure();
    argument >> event.id >> event.eventId >> event.data >> event.timestamp;
    argument.endStructure();
    return argument;
}

QDBusArgument& operator<<(QDBusArgument& argument, const DBusMenuRemovedProperties& item)
{
    argument.beginStructure();
    argument << item.id << item.names;
    argument.endStructure();
    return argument;
}

const QDBusArgument& operator>>(const QDBusArgument& argument, DBusMenuRemovedProperties& item)
{
    argument.beginStructure();
    argument >> item.id >> item.names;
    argument.endStructure();
    return argument;
}

}  // namespace Lumora
