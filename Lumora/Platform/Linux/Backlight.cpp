// SPDX-License-Identifier: GPL-3.0-or-later
#include "Lumora/Platform/Linux/Backlight.h"

#include <dirent.h>
#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cmath>
#include <cstdlib>
#include <memory>
#include <string_view>
#include <vector>

#include "Lumora/Platform/Linux/LogindSession.h"

namespace Lumora::Platform {
namespace {

constexpr const char* kBacklightClass = "/sys/class/backlight";
constexpr const char* kDrmClass = "/sys/class/drm";

// Every open, read and directory walk here goes through the plain libc calls (open/read/opendir/readdir/realpath),
// which the test bed's preload redirects. Sysfs files report a size that has nothing to do with their content,
// so attributes are read until end of file into a small buffer.
std::optional<std::string> readAttribute(const std::string& path) {
    int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0) {
        return std::nullopt;
    }
    std::string text;
    char buffer[64];
    bool ok = true;
    for (;;) {
        ssize_t n = ::read(fd, buffer, sizeof buffer);
        if (n < 0 && errno == EINTR) {
            continue;
        }
        if (n < 0) {
            ok = false;
            break;
        }
        if (n == 0) {
            break;
        }
        text.append(buffer, static_cast<std::size_t>(n));
        if (text.size() > 4096) {  // no backlight attribute is this long
            ok = false;
            break;
        }
    }
    ::close(fd);
    if (!ok) {
        return std::nullopt;
    }
    return text;
}

std::string_view trimmed(std::string_view s) {
    auto isSpace = [](char c) { return c == ' ' || c == '\t' || c == '\n' || c == '\r'; };
    while (!s.empty() && isSpace(s.front())) {
        s.remove_prefix(1);
    }
    while (!s.empty() && isSpace(s.back())) {
        s.remove_suffix(1);
    }
    return s;
}

// A decimal value that fits 32 bits unsigned; nothing else (no sign, no blanks inside, no suffix).
std::optional<std::uint32_t> parseUnsigned(std::string_view text) {
    text = trimmed(text);
    if (text.empty() || text.size() > 10) {
        return std::nullopt;
    }
    std::uint64_t value = 0;
    for (char c : text) {
        if (c < '0' || c > '9') {
            return std::nullopt;
        }
        value = value * 10 + static_cast<std::uint64_t>(c - '0');
    }
    if (value > UINT32_MAX) {
        return std::nullopt;
    }
    return static_cast<std::uint32_t>(value);
}

std::optional<std::uint32_t> readUnsigned(const std::string& path) {
    auto text = readAttribute(path);
    if (!text) {
        return std::nullopt;
    }
    return parseUnsigned(*text);
}

std::vector<std::string> directoryEntries(const char* dir) {
    std::vector<std::string> names;
    std::unique_ptr<DIR, int (*)(DIR*)> d(::opendir(dir), &::closedir);
    if (!d) {
        return names;
    }
    while (dirent* entry = ::readdir(d.get())) {
        std::string_view name = entry->d_name;
        if (name == "." || name == "..") {
            continue;
        }
        names.emplace_back(name);
    }
    std::sort(names.begin(), names.end());
    return names;
}

std::optional<std::string> resolved(const std::string& path) {
    std::unique_ptr<char, void (*)(void*)> real(::realpath(path.c_str(), nullptr), &std::free);
    if (!real) {
        return std::nullopt;
    }
    return std::string(real.get());
}

// "card0-eDP-1", "card1-LVDS-1", "card0-DSI-1": a connector of a built-in panel.
bool isBuiltinConnectorName(std::string_view name) {
    if (name.substr(0, 4) != "card") {
        return false;
    }
    std::size_t i = 4;
    while (i < name.size() && name[i] >= '0' && name[i] <= '9') {
        ++i;
    }
    if (i == 4 || i >= name.size() || name[i] != '-') {
        return false;
    }
    std::string_view connector = name.substr(i + 1);
    return connector.starts_with("eDP") || connector.starts_with("LVDS") || connector.starts_with("DSI");
}

struct BuiltinConnector {
    std::string dir;  // resolved
    bool active;      // status "connected" and enabled "enabled": the panel in use
};

std::string attributeText(const std::string& path) {
    auto text = readAttribute(path);
    return text ? std::string(trimmed(*text)) : std::string();
}

std::vector<BuiltinConnector> builtinConnectors() {
    std::vector<BuiltinConnector> connectors;
    for (const std::string& name : directoryEntries(kDrmClass)) {
        if (!isBuiltinConnectorName(name)) {
            continue;
        }
        const std::string path = std::string(kDrmClass) + "/" + name;
        if (auto dir = resolved(path)) {
            const bool active =
                attributeText(path + "/status") == "connected" && attributeText(path + "/enabled") == "enabled";
            connectors.push_back({*dir, active});
        }
    }
    return connectors;
}

bool liesUnder(const std::string& path, const std::string& dir) {
    return path.size() > dir.size() && path.compare(0, dir.size(), dir) == 0 && path[dir.size()] == '/';
}

// Lower is better: the kernel's firmware interface (ACPI) knows the panel best, a platform driver next, a raw
// register interface of the GPU last; a device without a known type comes after all of them.
int typeRank(const std::string& dir) {
    auto text = readAttribute(dir + "/type");
    if (!text) {
        return 3;
    }
    std::string_view type = trimmed(*text);
    if (type == "firmware") {
        return 0;
    }
    if (type == "platform") {
        return 1;
    }
    if (type == "raw") {
        return 2;
    }
    return 3;
}

std::string sysfsValue(std::uint32_t value) {
    return std::to_string(value) + "\n";
}

bool writeAttribute(const std::string& path, const std::string& text) {
    int fd = ::open(path.c_str(), O_WRONLY | O_TRUNC | O_CLOEXEC);
    if (fd < 0) {
        return false;
    }
    std::size_t done = 0;
    bool ok = true;
    while (done < text.size()) {
        ssize_t n = ::write(fd, text.data() + done, text.size() - done);
        if (n < 0 && errno == EINTR) {
            continue;
        }
        if (n <= 0) {
            ok = false;
            break;
        }
        done += static_cast<std::size_t>(n);
    }
    if (::close(fd) != 0 && errno != EINTR) {
        ok = false;
    }
    return ok;
}

}  // namespace

std::optional<BacklightDevice> findBacklight() {
    const std::vector<std::string> names = directoryEntries(kBacklightClass);
    if (names.empty()) {
        return std::nullopt;
    }
    auto deviceNamed = [](const std::string& name) {
        return BacklightDevice{name, std::string(kBacklightClass) + "/" + name};
    };

    // A hybrid laptop has a built-in connector on each GPU, and only one drives the panel: the backlight under
    // the connected and enabled one first, then one under any built-in connector.
    const std::vector<BuiltinConnector> connectors = builtinConnectors();
    for (bool inUseOnly : {true, false}) {
        for (const std::string& name : names) {
            auto real = resolved(std::string(kBacklightClass) + "/" + name);
            if (!real) {
                continue;
            }
            for (const BuiltinConnector& connector : connectors) {
                if ((connector.active || !inUseOnly) && liesUnder(*real, connector.dir)) {
                    return deviceNamed(name);
                }
            }
        }
    }

    // `names` is sorted, and the first of the best rank is kept: ties go by name order.
    const std::string* best = nullptr;
    int bestRank = 0;
    for (const std::string& name : names) {
        int rank = typeRank(std::string(kBacklightClass) + "/" + name);
        if (best == nullptr || rank < bestRank) {
            best = &name;
            bestRank = rank;
        }
    }
    return deviceNamed(*best);
}

std::optional<BacklightLevel> readBacklight(const BacklightDevice& device) {
    auto max = readUnsigned(device.dir + "/max_brightness");
    if (!max || *max == 0) {
        return std::nullopt;
    }
    auto brightness = readUnsigned(device.dir + "/brightness");
    if (!brightness) {
        return std::nullopt;
    }
    return BacklightLevel{*brightness, *max};
}

std::optional<double> readBacklightFraction(const BacklightDevice& device) {
    auto level = readBacklight(device);
    if (!level) {
        return std::nullopt;
    }
    return static_cast<double>(level->brightness) / static_cast<double>(level->max);
}

std::uint32_t backlightRawValue(double fraction, std::uint32_t max) {
    if (!(fraction > 0.0)) {  // also a fraction that is not a number
        return 0;
    }
    if (fraction >= 1.0) {
        return max;
    }
    return static_cast<std::uint32_t>(std::round(fraction * static_cast<double>(max)));
}

BacklightWrite writeBacklight(const BacklightDevice& device, double fraction) {
    if (!(fraction >= 0.0 && fraction <= 1.0)) {
        return BacklightWrite::failed;
    }
    auto max = readUnsigned(device.dir + "/max_brightness");
    if (!max || *max == 0) {
        return BacklightWrite::failed;
    }
    const std::uint32_t raw = backlightRawValue(fraction, *max);
    if (LogindSession::setBrightness("backlight", device.name, raw)) {
        return BacklightWrite::logind;
    }
    return writeAttribute(device.dir + "/brightness", sysfsValue(raw)) ? BacklightWrite::sysfs
                                                                       : BacklightWrite::failed;
}

}  // namespace Lumora::Platform
