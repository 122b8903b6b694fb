// SPDX-License-Identifier: GPL-3.0-or-later
#include "Lumora/App/Probe.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

#include "Lumora/DDC/DisplayEnumerator.h"
#include "Lumora/DDC/DisplayServices.h"
#include "Lumora/DDC/IOAVService.h"
#include "Lumora/Platform/Linux/DisplayAdapters.h"
#include "Lumora/Platform/Linux/DrmConnectors.h"
#include "Lumora/Platform/Linux/I2CDevice.h"
#include "LumoraCore/ProbeReport.h"

namespace Lumora {
namespace {

void printLine(const std::string& line)
{
    std::fwrite(line.data(), 1, line.size(), stdout);
    std::fputc('\n', stdout);
}

// Whether this user may not open a display adapter's node. Opened (and closed at once) only to find that out;
// nothing is sent.
bool denied(const std::string& node)
{
    return Platform::I2CDevice::open(node) == nullptr && (errno == EACCES || errno == EPERM);
}

// The active external monitors that `displays` leaves out, each with the nodes of the channels it could have
// been reached through that this user may not open: its connector's own, or, without one, those of the display
// adapters no connector owns.
std::vector<ProbeReport::MissingMonitor> missingMonitors(const std::vector<DisplayInfo>& displays)
{
    std::vector<ProbeReport::MissingMonitor> missing;
    const std::vector<Platform::DrmConnector> connectors = Platform::DrmConnectors::list();
    std::optional<std::vector<std::string>> deniedUnowned;
    for (const Platform::DrmConnector& connector : connectors) {
        if (!connector.active() || connector.builtIn)
            continue;
        if (std::any_of(displays.begin(), displays.end(),
                        [&](const DisplayInfo& d) { return d.id == connector.displayID; }))
            continue;
        ProbeReport::MissingMonitor monitor{connector.name, {}};
        if (IOAVService::isAvailable()) {
            if (connector.ddcDevicePath) {
                if (denied(*connector.ddcDevicePath))
                    monitor.deniedNodes.push_back(*connector.ddcDevicePath);
            } else {
                if (!deniedUnowned) {
                    deniedUnowned.emplace();
                    for (const Platform::DisplayAdapter& adapter : Platform::DisplayAdapters::unowned(connectors)) {
                        if (denied(adapter.devicePath))
                            deniedUnowned->push_back(adapter.devicePath);
                    }
                }
                monitor.deniedNodes = *deniedUnowned;
            }
        }
        missing.push_back(std::move(monitor));
    }
    return missing;
}

}  // namespace

void Probe::run()
{
    std::vector<DisplayInfo> displays = DisplayEnumerator::allDisplays();
    bool displayServices = DisplayServices::getFn() != nullptr && DisplayServices::setFn() != nullptr;
    printLine(ProbeReport::header(displays.size(), IOAVService::isAvailable(), displayServices));

    if (!displays.empty()) {
        std::optional<int> percent = ProbeReport::parseSetValue(std::getenv("LUMORA_PROBE_SET"));
        for (const DisplayInfo& display : displays) {
            bool external = display.backend->canPowerOff();
            // Read before writing: the reading shows the brightness before the set, and teaches a monitor's
            // backend its maximum, which the write scales by.
            std::optional<double> reading = display.backend->readBrightness();
            printLine(ProbeReport::displayLine(display.id, display.name, external, reading));
            if (percent) {
                display.backend->writeBrightness(*percent / 100.0);
                printLine(ProbeReport::setLine(*percent));
            }
        }
    }

    // One line per reason a connected monitor is missing from the report.
    for (const std::string& line : ProbeReport::notes(IOAVService::isAvailable(), missingMonitors(displays)))
        printLine(line);
    std::fflush(stdout);
}

}  // namespace Lumora
