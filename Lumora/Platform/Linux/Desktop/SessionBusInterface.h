// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once
// The interface org.lumora.Lumora1 on /org/lumora/Lumora: the Displays property with its PropertiesChanged, and
// the methods that scripts and the desktop's own shortcuts call. Its description is the introspection file that is
// installed for clients (data/org.lumora.Lumora1.xml), served as it is.
//
// Every method reaches the application through the actions it is given, which are the controller's own operations,
// so a call does exactly what the panel does with the same value. Arguments are checked first: a call with an
// unknown display or a value out of range is answered with an org.lumora.Lumora1.Error.* and changes nothing.
//
// StepDisplayInUse and SetDisplayInUse name no display: they act on the display the brightness keys would choose at
// that moment, for desktop shortcuts bound in place of the keys. Unlike a key, which leaves a display that is not
// an external DDC/CI monitor to the desktop's own handling, they have no desktop handling behind them: they act on
// any display the controller lists (the built-in panel through its backlight too), and are refused with
// NoDisplayInUse or NotAdjustable when there is no display in use or it is not one the controller lists.
//
// PropertiesChanged: displaysChanged() may come many times in one turn of the event loop (one operation changes the
// list several times; a burst of calls queues many operations). The signal goes once, at the end of the turn, with
// the whole list, and only when the list differs from the one last sent. A client (an on-screen display, a status
// bar, a script waiting for a value) needs the newest list and every list that really changed; it gains nothing
// from a second copy of what it already has.
//
// Main thread only: Qt delivers the calls on the thread the object lives on.

#include <QDBusVirtualObject>

#include <cstdint>
#include <functional>
#include <optional>
#include <vector>

#include "Lumora/App/DisplaySnapshot.h"

namespace Lumora {

// What the bus interface can ask of the running application.
struct SessionBusActions {
    std::function<void()> showPanel;
    std::function<const std::vector<DisplaySnapshot>&()> displays;
    std::function<void(std::uint32_t id, double fraction)> setBrightness;
    std::function<void(std::uint32_t id, double delta)> step;
    std::function<void(std::uint32_t id)> togglePower;
    std::function<void()> refresh;
    // The number of the display the brightness keys would act on now (the one holding most of the focused window,
    // else the one under the pointer, else the first); nothing when no display is shown.
    std::function<std::optional<std::uint32_t>()> displayInUse;
};

class SessionBusInterface : public QDBusVirtualObject {
    Q_OBJECT
public:
    static constexpr const char* name = "org.lumora.Lumora1";
    static constexpr const char* path = "/org/lumora/Lumora";

    explicit SessionBusInterface(SessionBusActions actions, QObject* parent = nullptr);
    ~SessionBusInterface() override;

    // The application's list of displays changed (or may have): PropertiesChanged at the end of this turn.
    void displaysChanged();

    QString introspect(const QString& path) const override;
    bool handleMessage(const QDBusMessage& message, const QDBusConnection& connection) override;

private:
    void handleMethod(const QDBusMessage& message, const QDBusConnection& connection);
    void handleProperties(const QDBusMessage& message, const QDBusConnection& connection);
    void sendPropertiesChanged();

    SessionBusActions actions_;
    std::vector<DisplaySnapshot> sent_;  // the list clients last got with PropertiesChanged
    bool changePending_ = false;
};

}  // namespace Lumora
