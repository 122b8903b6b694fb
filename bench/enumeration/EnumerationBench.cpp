// How long one enumeration (DisplayEnumerator::allDisplays, what every refresh and the probe start with) takes on
// the virtual desk, with 2, 8 and 16 monitors:
//
//   - own channels: every monitor on its connector's DisplayPort AUX adapter; nothing to search;
//   - channels to search: every monitor behind an MST hub ("DPMST" adapters under the GPU that no connector
//     links), so each adapter's EDID is read at 0x50 (two reads of 128 bytes) and paired by identity.
//
// Each with the desk's wire time of an I2C bus at about 100 kHz (0.1 ms a byte), and without any (the cost of the
// walk and the emulation alone). Prints a table; asserts nothing beyond every monitor being found.
// Needs umockdev's preload: started without it, it starts itself again under umockdev-wrapper.

#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "Lumora/DDC/DisplayEnumerator.h"
#include "tools/virtual-desk/VirtualDesk.h"
#include "bench/support/BenchSupport.h"

namespace {

using Clock = std::chrono::steady_clock;

std::string deskJson(int monitors, bool mst, int byteTimeUs)
{
    std::string connectors;
    if (mst)
        connectors = R"({"name": "DP-1", "status": "disconnected", "ddc": {"bus": 5}})";
    for (int i = 0; i < monitors; ++i) {
        const std::string n = std::to_string(i);
        const std::string ddc = mst ? R"({"bus": )" + std::to_string(10 + i) +
                                          R"(, "via": "pci", "eepromAddress": )" + std::to_string((i * 37) % 256) + "}"
                                    : R"({"bus": )" + std::to_string(10 + i) + "}";
        connectors += std::string(connectors.empty() ? "" : ",\n") + R"({"name": "DP-)" + std::to_string(i + 2) +
                      R"(", "edid": {"vendor": "DEL", "model": )" + std::to_string(0xA000 + i) + R"(, "serial": )" +
                      std::to_string(1000 + i) + R"(, "name": "Monitor )" + n + R"("}, "ddc": )" + ddc +
                      R"(, "monitor": {}})";
    }
    return R"({"byteTimeUs": )" + std::to_string(byteTimeUs) + R"(, "cards": [{"connectors": [)" + connectors +
           "]}]}";
}

struct Figures {
    double medianMs, p95Ms;
};

Figures measure(int monitors, bool mst, int byteTimeUs, int runs)
{
    VirtualDesk::Desk desk(VirtualDesk::DeskConfig::fromJson(deskJson(monitors, mst, byteTimeUs)), {"", false});
    std::vector<double> times;
    for (int r = 0; r < runs; ++r) {
        const auto start = Clock::now();
        const std::size_t found = Lumora::DisplayEnumerator::allDisplays().size();
        times.push_back(std::chrono::duration<double, std::milli>(Clock::now() - start).count());
        if (found != static_cast<std::size_t>(monitors)) {
            std::fprintf(stderr, "found %zu of %d monitors\n", found, monitors);
            std::exit(1);
        }
    }
    if (!desk.violations().empty()) {
        std::fprintf(stderr, "the desk saw violations: %s\n", desk.violations().front().c_str());
        std::exit(1);
    }
    std::sort(times.begin(), times.end());
    return {times[times.size() / 2], times[static_cast<std::size_t>(0.95 * static_cast<double>(times.size() - 1))]};
}


}  // namespace

int main(int argc, char** argv)
{
    BenchSupport::reexecUnderUmockdev(argv);
    const int runs = argc > 1 ? std::max(1, std::atoi(argv[1])) : 20;
    std::printf("enumeration (DisplayEnumerator::allDisplays), %d runs each, ms\n", runs);
    std::printf("  %-9s %-22s %16s %16s\n", "monitors", "channels", "0.1 ms/byte", "no wire time");
    std::printf("  %-9s %-22s %7s %8s %7s %8s\n", "", "", "median", "p95", "median", "p95");
    for (int monitors : {2, 8, 16}) {
        for (bool mst : {false, true}) {
            const Figures wire = measure(monitors, mst, 100, runs);
            const Figures bare = measure(monitors, mst, 0, runs);
            std::printf("  %-9d %-22s %7.2f %8.2f %7.2f %8.2f\n", monitors,
                        mst ? "to search (MST, EDID)" : "own (AUX)", wire.medianMs, wire.p95Ms, bare.medianMs,
                        bare.p95Ms);
        }
    }
    return 0;
}
