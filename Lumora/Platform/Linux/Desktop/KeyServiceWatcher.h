// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once
// Tells when the brightness keys may have become available or unavailable to this session, on the system bus: the
// key service appearing (org.lumora.Keys gets an owner), polkit's authorizations changing (its Authority's
// Changed), and a seat's active session changing (logind's Seat properties). Each such signal is one
// notification, delivered on the thread of the Qt event loop that created the watcher. Without a system bus there
// are none.

#include <QObject>

#include <functional>

namespace Lumora {

class KeyServiceWatcher : public QObject {
    Q_OBJECT
public:
    // `onChange` for polkit and the seats; `onArrival` for the service appearing (a Lumora that found no service
    // to attach to may want to try again; one whose own attach started it must not, or the two would chase).
    KeyServiceWatcher(std::function<void()> onChange, std::function<void()> onArrival, QObject* parent = nullptr);

private slots:
    void serviceOwnerChanged(const QString& name, const QString& oldOwner, const QString& newOwner);
    void authorizationsChanged();
    void seatChanged(const QString& interface, const QVariantMap& changed, const QStringList& invalidated);

private:
    std::function<void()> onChange_;
    std::function<void()> onArrival_;
};

}  // namespace Lumora
