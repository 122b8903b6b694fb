// SPDX-License-Identifier: GPL-3.0-or-later
#include "Lumora/Platform/Linux/DisplayAdapters.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <filesystem>
#include <optional>
#include <set>
#include <system_error>

#include "LumoraCore/DisplayBusName.h"
#include "Lumora/Platform/Linux/SysfsNumber.h"

namespace Lumora::Platform {
namespace {

namespace fs = std::filesystem;

const fs::path drmClass = "/sys/class/drm";

// "card1" → 1; connectors ("card1-DP-1") and render nodes are not cards.
std::optional<unsigned> cardIndex(std::string_view entry)
{
    if (!entry.starts_with("card"))
        return std::nullopt;
    return parseSysfsNumber<unsigned>(entry.substr(4));
}

// "i2c-7" → 7.
std::optional<unsigned> adapterNumber(std::string_view entry)
{
    if (!entry.starts_with("i2c-"))
        return std::nullopt;
    return parseSysfsNumber<unsigned>(entry.substr(4));
}

// A short sysfs text attribute without its trailing line feed; "" when unreadable.
std::string readName(const fs::path& path)
{
    int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0)
        return {};
    std::string text;
    char buffer[256];
    for (;;) {
        ssize_t n = ::read(fd, buffer, sizeof buffer);
        if (n < 0 && errno == EINTR)
            continue;
        if (n <= 0 || text.size() > 4096)
            break;
        text.append(buffer, static_cast<std::size_t>(n));
    }
    ::close(fd);
    while (!text.empty() && (text.back() == '\n' || text.back() == '\0'))
        text.pop_back();
    return text;
}

}  // namespace

std::vector<DisplayAdapter> DisplayAdapters::unowned(const std::vector<DrmConnector>& connectors)
{
    std::set<std::string> owned;
    for (const DrmConnector& connector : connectors)
        owned.insert(connector.ownedAdapters.begin(), connector.ownedAdapters.end());

    std::vector<std::pair<unsigned, fs::path>> gpus;  // card index, the card's parent device
    std::error_code error;
    for (fs::directory_iterator it(drmClass, error), end; !error && it != end; it.increment(error)) {
        std::optional<unsigned> card = cardIndex(it->path().filename().string());
        if (!card)
            continue;
        std::error_code resolveError;
        fs::path device = fs::canonical(it->path() / "device", resolveError);
        if (!resolveError)
            gpus.emplace_back(*card, device);
    }
    std::sort(gpus.begin(), gpus.end());

    std::vector<DisplayAdapter> result;
    std::set<fs::path> seen;  // one GPU may carry several cards
    for (const auto& [card, device] : gpus) {
        if (!seen.insert(device).second)
            continue;
        std::vector<std::pair<unsigned, DisplayAdapter>> found;
        std::error_code listError;
        for (fs::directory_iterator it(device, listError), end; !listError && it != end; it.increment(listError)) {
            std::string entry = it->path().filename().string();
            std::optional<unsigned> number = adapterNumber(entry);
            if (!number || owned.count(entry))
                continue;
            std::string name = readName(it->path() / "name");
            if (!DisplayBusName::isDisplayBus(name))
                continue;
            found.push_back({*number, DisplayAdapter{card, entry, name, "/dev/" + entry}});
        }
        std::sort(found.begin(), found.end(), [](const auto& a, const auto& b) { return a.first < b.first; });
        for (auto& [number, adapter] : found)
            result.push_back(std::move(adapter));
    }
    return result;
}

}  // namespace Lumora::Platform
