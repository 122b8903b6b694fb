// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once
// Tells when the machine has resumed from suspend: systemd-logind's PrepareForSleep signal with `false` on the
// system bus (the bus named by DBUS_SYSTEM_BUS_ADDRESS, else the system's). The connection is made without
// waiting and served by the Qt event loop of the thread that creates the monitor. No bus, or a bus that goes
// away: no more notifications, nothing else changes.

#include <QObject>

#include <functional>

class QSocketNotifier;
class QTimer;
struct sd_bus;
struct sd_bus_slot;

namespace Lumora {

class ResumeMonitor : public QObject {
    Q_OBJECT
public:
    explicit ResumeMonitor(std::function<void()> onResume, QObject* parent = nullptr);
    ~ResumeMonitor() override;

    // Whether the bus has confirmed the subscription: from then on every resume is told.
    bool isSubscribed() const { return subscribed_; }

private:
    friend struct ResumeSignals;  // sd-bus's callbacks
    void process();
    void watch();
    void close();

    std::function<void()> onResume_;
    sd_bus* bus_ = nullptr;
    sd_bus_slot* match_ = nullptr;
    bool subscribed_ = false;
    QSocketNotifier* reading_ = nullptr;
    QSocketNotifier* writing_ = nullptr;
    QTimer* timeout_ = nullptr;
};

}  // namespace Lumora
