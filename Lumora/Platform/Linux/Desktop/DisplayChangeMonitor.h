// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once
// Tells when displays are added, removed, enabled or disabled: a udev monitor on the "drm" subsystem (connector
// hot-plug) and the window system's screens coming and going (outputs switched on and off) both make it read the
// DRM connectors again and compare their states with the previous reading.

#include <QObject>

#include <functional>
#include <map>
#include <memory>
#include <string>

class QSocketNotifier;
struct udev;
struct udev_monitor;

namespace Lumora {

struct ConnectorState {
    bool connected = false;  // sysfs `status` is "connected"
    bool enabled = false;    // sysfs `enabled` is "enabled"
    bool operator==(const ConnectorState&) const = default;
};

// Connector name ("card0-DP-1") to its state.
using ConnectorStates = std::map<std::string, ConnectorState>;

namespace DisplayChange {

// The kinds of change, as bits of one set of flags.
constexpr unsigned added = 0x10;
constexpr unsigned removed = 0x20;
constexpr unsigned enabled = 0x100;
constexpr unsigned disabled = 0x200;
// The changes after which the displays are enumerated again.
constexpr unsigned refreshMask = added | removed | enabled | disabled;

// A connector that appears connected, or becomes connected, is added; one that disappears while connected, or
// becomes disconnected, is removed; a connector connected before and after that switches on or off is enabled or
// disabled. Nothing else (an unchanged reading, a disconnected connector switching state) sets a flag.
unsigned between(const ConnectorStates& before, const ConnectorStates& after);

// The DRM connectors under /sys/class/drm now.
ConnectorStates readConnectors();

}  // namespace DisplayChange

class DisplayChangeMonitor : public QObject {
    Q_OBJECT
public:
    // Starts watching; `onChange` receives the flags of every reading that differs from the one before. The
    // window-system half works without udev; without udev there is no hot-plug half.
    explicit DisplayChangeMonitor(std::function<void(unsigned flags)> onChange, QObject* parent = nullptr);
    ~DisplayChangeMonitor() override;

private:
    void check();
    void readUdev();

    std::function<void(unsigned)> onChange_;
    ConnectorStates last_;
    struct udev* udev_ = nullptr;
    struct udev_monitor* monitor_ = nullptr;
    QSocketNotifier* notifier_ = nullptr;
};

}  // namespace Lumora
