// SPDX-License-Identifier: GPL-3.0-or-later
#include "Lumora/Platform/Linux/Desktop/DisplayChangeMonitor.h"

#include <QGuiApplication>
#include <QScreen>
#include <QSocketNotifier>

#include <libudev.h>

#include "Lumora/Platform/Linux/DrmConnectors.h"

namespace Lumora {
namespace DisplayChange {

unsigned between(const ConnectorStates& before, const ConnectorStates& after)
{
    unsigned flags = 0;
    for (const auto& [name, now] : after) {
        const auto old = before.find(name);
        const bool wasConnected = old != before.end() && old->second.connected;
        if (now.connected && !wasConnected) {
            flags |= added;
        } else if (!now.connected && wasConnected) {
            flags |= removed;
        } else if (now.connected && wasConnected && now.enabled != old->second.enabled) {
            flags |= now.enabled ? enabled : disabled;
        }
    }
    for (const auto& [name, old] : before) {
        if (old.connected && after.count(name) == 0) {
            flags |= removed;
        }
    }
    return flags;
}

ConnectorStates readConnectors()
{
    ConnectorStates states;
    for (const Platform::DrmConnector& connector : Platform::DrmConnectors::list())
        states.emplace(connector.name, ConnectorState{connector.connected, connector.enabled});
    return states;
}

}  // namespace DisplayChange

DisplayChangeMonitor::DisplayChangeMonitor(std::function<void(unsigned)> onChange, QObject* parent)
    : QObject(parent), onChange_(std::move(onChange)), last_(DisplayChange::readConnectors())
{
    udev_ = udev_new();
    if (udev_ != nullptr) {
        monitor_ = udev_monitor_new_from_netlink(udev_, "udev");
    }
    if (monitor_ != nullptr && udev_monitor_filter_add_match_subsystem_devtype(monitor_, "drm", nullptr) >= 0 &&
        udev_monitor_enable_receiving(monitor_) >= 0) {
        notifier_ = new QSocketNotifier(udev_monitor_get_fd(monitor_), QSocketNotifier::Read, this);
        connect(notifier_, &QSocketNotifier::activated, this, [this] { readUdev(); });
    }
    if (qGuiApp != nullptr) {
        connect(qGuiApp, &QGuiApplication::screenAdded, this, [this] { check(); });
        connect(qGuiApp, &QGuiApplication::screenRemoved, this, [this] { check(); });
    }
}

DisplayChangeMonitor::~DisplayChangeMonitor()
{
    delete notifier_;
    if (monitor_ != nullptr) {
        udev_monitor_unref(monitor_);
    }
    if (udev_ != nullptr) {
        udev_unref(udev_);
    }
}

void DisplayChangeMonitor::readUdev()
{
    while (udev_device* device = udev_monitor_receive_device(monitor_)) {
        udev_device_unref(device);
    }
    check();
}

void DisplayChangeMonitor::check()
{
    ConnectorStates now = DisplayChange::readConnectors();
    const unsigned flags = DisplayChange::between(last_, now);
    last_ = std::move(now);
    if (flags != 0) {
        onChange_(flags);
    }
}

}  // namespace Lumora
