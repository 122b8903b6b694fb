// SPDX-License-Identifier: GPL-3.0-or-later
#include "LumoraKeys/KeyDevices.h"

#include <fcntl.h>
#include <libudev.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <climits>
#include <cstdlib>
#include <filesystem>
#include <memory>
#include <optional>
#include <system_error>

namespace Lumora::Keys {
namespace {

namespace fs = std::filesystem;

const fs::path inputClass = "/sys/class/input";

std::string readText(const fs::path& path)
{
    const int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0)
        return {};
    std::string text;
    char chunk[1024];
    for (;;) {
        const ssize_t n = ::read(fd, chunk, sizeof chunk);
        if (n < 0 && errno == EINTR)
            continue;
        if (n <= 0 || text.size() > 64 * 1024)
            break;
        text.append(chunk, static_cast<std::size_t>(n));
    }
    ::close(fd);
    while (!text.empty() && (text.back() == '\n' || text.back() == ' '))
        text.pop_back();
    return text;
}

// "event12" → 12.
std::optional<unsigned> eventNumber(const std::string& entry)
{
    if (entry.rfind("event", 0) != 0 || entry.size() == 5)
        return std::nullopt;
    unsigned number = 0;
    const char* begin = entry.data() + 5;
    const char* end = entry.data() + entry.size();
    const auto [stop, error] = std::from_chars(begin, end, number);
    if (error != std::errc() || stop != end)
        return std::nullopt;
    return number;
}

std::string resolved(const fs::path& path)
{
    char buffer[PATH_MAX];
    if (::realpath(path.c_str(), buffer) == nullptr)
        return {};
    return buffer;
}

// The seat udev assigned the event node to: ID_SEAT on it or on the nearest device above it that has one (as
// logind reads it); none is seat0.
std::string seatOf(udev* context, const std::string& eventSyspath)
{
    std::string seat = "seat0";
    udev_device* node = context != nullptr ? udev_device_new_from_syspath(context, eventSyspath.c_str()) : nullptr;
    for (udev_device* d = node; d != nullptr; d = udev_device_get_parent(d)) {
        if (const char* value = udev_device_get_property_value(d, "ID_SEAT"); value != nullptr && *value != '\0') {
            seat = value;
            break;
        }
    }
    if (node != nullptr)
        udev_device_unref(node);
    return seat;
}

}  // namespace

std::vector<KeyDevice> KeyDevices::list()
{
    std::unique_ptr<udev, decltype(&udev_unref)> context(udev_new(), udev_unref);
    std::vector<std::pair<unsigned, KeyDevice>> found;
    std::error_code error;
    for (fs::directory_iterator it(inputClass, error), end; !error && it != end; it.increment(error)) {
        const std::string entry = it->path().filename().string();
        const std::optional<unsigned> number = eventNumber(entry);
        if (!number)
            continue;
        const fs::path device = inputClass / entry / "device";
        KeyDevice key;
        key.keys = KeyCapabilities::parse(readText(device / "capabilities" / "key"));
        if (key.keys.empty())
            continue;
        key.syspath = resolved(device);
        if (key.syspath.empty())
            continue;
        key.isVirtual = key.syspath.rfind("/sys/devices/virtual/", 0) == 0;
        key.node = "/dev/input/" + entry;
        key.name = readText(device / "name");
        key.seat = seatOf(context.get(), resolved(inputClass / entry));
        found.emplace_back(*number, std::move(key));
    }
    std::sort(found.begin(), found.end(), [](const auto& a, const auto& b) { return a.first < b.first; });
    std::vector<KeyDevice> devices;
    for (auto& [number, device] : found)
        devices.push_back(std::move(device));
    return devices;
}

}  // namespace Lumora::Keys
