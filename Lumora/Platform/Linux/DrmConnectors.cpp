// SPDX-License-Identifier: GPL-3.0-or-later
#include "Lumora/Platform/Linux/DrmConnectors.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <set>
#include <system_error>

#include "Lumora/Platform/Linux/SysfsNumber.h"

namespace Lumora::Platform {
namespace {

namespace fs = std::filesystem;

const fs::path drmClass = "/sys/class/drm";

// Reads a whole sysfs attribute. Sysfs sizes are not to be trusted, so it reads until the end.
std::optional<std::vector<std::uint8_t>> readAttribute(const fs::path& path, std::size_t limit = 64 * 1024)
{
    int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0)
        return std::nullopt;
    std::vector<std::uint8_t> data;
    std::uint8_t chunk[4096];
    for (;;) {
        ssize_t n = ::read(fd, chunk, sizeof chunk);
        if (n < 0 && errno == EINTR)
            continue;
        if (n <= 0) {
            ::close(fd);
            if (n < 0)
                return std::nullopt;
            return data;
        }
        data.insert(data.end(), chunk, chunk + n);
        if (data.size() > limit) {
            ::close(fd);
            return std::nullopt;
        }
    }
}

std::string readText(const fs::path& path)
{
    std::optional<std::vector<std::uint8_t>> data = readAttribute(path, 4096);
    if (!data)
        return {};
    std::string text(data->begin(), data->end());
    while (!text.empty() && (text.back() == '\n' || text.back() == ' ' || text.back() == '\0'))
        text.pop_back();
    return text;
}

// "card12-HDMI-A-1" → card 12, connector "HDMI-A-1". Card entries themselves ("card0") and render nodes have no dash.
std::optional<std::pair<unsigned, std::string>> splitConnectorEntry(const std::string& entry)
{
    if (entry.rfind("card", 0) != 0)
        return std::nullopt;
    std::size_t dash = entry.find('-');
    if (dash == std::string::npos || dash == 4 || dash + 1 >= entry.size())
        return std::nullopt;
    std::optional<unsigned> card = parseSysfsNumber<unsigned>(std::string_view(entry).substr(4, dash - 4));
    if (!card)
        return std::nullopt;
    return std::make_pair(*card, entry.substr(dash + 1));
}

// "i2c-7" → "/dev/i2c-7"; anything else is not an adapter.
std::optional<std::string> adapterNode(const std::string& adapterName)
{
    if (adapterName.rfind("i2c-", 0) != 0 || !parseSysfsNumber<unsigned>(std::string_view(adapterName).substr(4)))
        return std::nullopt;
    return "/dev/" + adapterName;
}

struct ConnectorAdapters {
    std::vector<std::string> owned;      // the `ddc` link's adapter, then the i2c-N children in number order
    std::optional<std::string> channel;  // the connector's own DDC channel
};

// HDMI, DVI, VGA: the `ddc` link names the adapter that carries the display's DDC lines; a link that names no
// adapter leaves the connector without a channel. DisplayPort: the AUX channel's adapter is a child of the
// connector.
ConnectorAdapters connectorAdapters(const fs::path& connectorDir)
{
    ConnectorAdapters adapters;
    std::error_code error;
    bool linked = false;
    fs::path link = fs::read_symlink(connectorDir / "ddc", error);
    if (!error) {
        linked = true;
        fs::path target = link.is_absolute() ? link : (connectorDir / link);
        std::string name = target.lexically_normal().filename().string();
        if (adapterNode(name) && fs::exists(target, error)) {
            adapters.owned.push_back(name);
            adapters.channel = name;
        }
    }
    std::vector<std::pair<unsigned, std::string>> children;
    for (fs::directory_iterator it(connectorDir, error), end; !error && it != end; it.increment(error)) {
        std::string child = it->path().filename().string();
        if (adapterNode(child))
            children.emplace_back(*parseSysfsNumber<unsigned>(std::string_view(child).substr(4)), child);
    }
    std::sort(children.begin(), children.end());
    if (!linked && !children.empty())
        adapters.channel = children.front().second;
    for (auto& [number, child] : children)
        adapters.owned.push_back(std::move(child));
    return adapters;
}

// Kernels before connector_id was exported: a number from the card and the connector name, stable across runs.
// Kept in the upper half of the 16-bit range, away from real connector ids.
std::uint32_t derivedConnectorID(const std::string& connectorName)
{
    std::uint32_t hash = 2166136261u;
    for (unsigned char c : connectorName) {
        hash ^= c;
        hash *= 16777619u;
    }
    return 0x8000u | ((hash ^ (hash >> 15)) & 0x7FFFu);
}

}  // namespace

bool DrmConnectors::isBuiltInConnectorName(const std::string& connectorName)
{
    for (const char* prefix : {"eDP", "LVDS", "DSI"}) {
        if (connectorName.rfind(prefix, 0) == 0)
            return true;
    }
    return false;
}

std::vector<DrmConnector> DrmConnectors::list()
{
    std::vector<DrmConnector> connectors;
    std::error_code error;
    for (fs::directory_iterator it(drmClass, error), end; !error && it != end; it.increment(error)) {
        std::string entry = it->path().filename().string();
        std::optional<std::pair<unsigned, std::string>> split = splitConnectorEntry(entry);
        if (!split)
            continue;
        fs::path dir = drmClass / entry;
        DrmConnector connector;
        connector.name = entry;
        connector.card = split->first;
        connector.connectorName = split->second;
        connector.connected = readText(dir / "status") == "connected";
        connector.enabled = readText(dir / "enabled") == "enabled";
        connector.builtIn = isBuiltInConnectorName(connector.connectorName);
        if (std::optional<std::vector<std::uint8_t>> edid = readAttribute(dir / "edid"))
            connector.edid = std::move(*edid);
        std::optional<std::uint32_t> id = parseSysfsNumber<std::uint32_t>(readText(dir / "connector_id"));
        std::uint32_t perCard = (id && *id > 0 && *id <= 0xFFFF) ? *id : derivedConnectorID(connector.connectorName);
        connector.displayID = (static_cast<std::uint32_t>(connector.card) << 16) | perCard;
        ConnectorAdapters adapters = connectorAdapters(dir);
        connector.ownedAdapters = std::move(adapters.owned);
        if (adapters.channel) {
            connector.ddcAdapter = adapters.channel;
            connector.ddcDevicePath = adapterNode(*adapters.channel);
        }
        connectors.push_back(std::move(connector));
    }
    std::sort(connectors.begin(), connectors.end(), [](const DrmConnector& a, const DrmConnector& b) {
        return a.card != b.card ? a.card < b.card : a.connectorName < b.connectorName;
    });
    // Two derived numbers on one card that happen to collide are told apart by stepping the later one.
    std::set<std::uint32_t> taken;
    for (DrmConnector& connector : connectors) {
        while (!taken.insert(connector.displayID).second)
            connector.displayID = (connector.displayID & 0xFFFF0000u) | ((((connector.displayID & 0xFFFFu) + 1) & 0x7FFFu) | 0x8000u);
    }
    return connectors;
}

}  // namespace Lumora::Platform
