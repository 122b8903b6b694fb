#include "Lumora/Platform/Linux/Desktop/DisplayChangeMonitor.h"

#include <QGuiApplication>
#include <QScreen>
#include <QSocketNotifier>

#include <dirent.h>
#include <fcntl.h>
#include <libudev.h>
#include <unistd.h>

#include <string_view>

namespace Lumora {
namespace DisplayChange {
namespace {

constexpr const char* drmClass = "/sys/class/drm";

// First line of a small sysfs attribute; empty when it cannot be read.
std::string readAttribute(const std::string& path)
{
    const int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0) {
        return {};
    }
    char buffer[64];
    const ssize_t n = ::read(fd, buffer, sizeof buffer);
    ::close(fd);
    if (n <= 0) {
        return {};
    }
    std::string value(buffer, static_cast<std::size_t>(n));
    const auto end = value.find_first_of("\n\r");
    if (end != std::string::npos) {
        value.resize(end);
    }
    return value;
}

bool isConnector(std::string_view name)
{
    // card0-DP-1, card1-HDMI-A-2, ...; card0 itself, renderD128 and version are not.
    return name.rfind("card", 0) == 0 && name.find('-') != std::string_view::npos;
}

}  // namespace

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
    DIR* dir = ::opendir(drmClass);
    if (dir == nullptr) {
        return states;
    }
    while (const dirent* entry = ::readdir(dir)) {
        const std::string name = entry->d_name;
        if (!isConnector(name)) {
            continue;
        }
        const std::string base = std::string(drmClass) + "/" + name + "/";
        ConnectorState state;
        state.connected = readAttribute(base + "status") == "connected";
        state.enabled = readAttribute(base + "enabled") == "enabled";
        states.emplace(name, state);
    }
    ::closedir(dir);
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
