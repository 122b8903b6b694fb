#include "Lumora/App/Probe.h"

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

#include "Lumora/DDC/DisplayEnumerator.h"
#include "Lumora/DDC/DisplayServices.h"
#include "Lumora/DDC/IOAVService.h"
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

// The DDC channels of connected monitors that exist but that this user may not open: the most common reason
// a monitor is missing from the list on a real desk.
std::vector<std::string> deniedDisplayBuses()
{
    std::vector<std::string> denied;
    if (!IOAVService::isAvailable())
        return denied;
    for (const Platform::DrmConnector& connector : Platform::DrmConnectors::list()) {
        if (!connector.connected || !connector.ddcDevicePath)
            continue;
        if (Platform::I2CDevice::open(*connector.ddcDevicePath) == nullptr && (errno == EACCES || errno == EPERM))
            denied.push_back(*connector.ddcDevicePath);
    }
    return denied;
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

    for (const std::string& node : deniedDisplayBuses())
        printLine("Note: no permission to open " + node + "; see \"Device access\" in Lumora's README.");
    std::fflush(stdout);
}

}  // namespace Lumora
