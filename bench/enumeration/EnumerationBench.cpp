// SPDX-License-Identifier: GPL-3.0-or-later
// How long one enumeration (DisplayEnumerator::allDisplays, what every refresh and the probe start with) takes on
// the virtual desk, with 2, 8 and 16 monitors:
//
//   - own channels: every monitor on its connector's DisplayPort AUX adapter; nothing to search;
//   - channels to search: every monitor behind an MST hub ("DPMST" adapters under the GPU that no connector
//     links), so each adapter's EDID is read at 0x50 (two reads of 128 bytes) and paired by identity.
//
// The first enumeration after the connectors changed (at start, after a hot-plug) reads those EDIDs; later ones
// find them kept and read none. Each desk's monitors carry serial numbers of their own, so that each desk's first
// enumeration is a first one. Each with the desk's wire time of an I2C bus at about 100 kHz (0.1 ms a byte), and
// without any (the cost of the walk and the emulation alone). Prints a table; asserts nothing beyond every monitor
// being found and no EDID read by a later enumeration.
// Needs umockdev's preload: started without it, it starts itself again under umockdev-wrapper.

#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <utility>
#include <vector>

#include "Lumora/DDC/DisplayEnumerator.h"
#include "tools/virtual-desk/VirtualDesk.h"
#include "bench/support/BenchSupport.h"

namespace {

using Clock = std::chrono::steady_clock;

std::string deskJson(int monitors, bool mst, int byteTimeUs, int desk)
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
                      std::to_string(1000 + 100 * desk + i) + R"(, "name": "Monitor )" + n + R"("}, "ddc": )" + ddc +
                      R"(, "monitor": {}})";
    }
    return R"({"byteTimeUs": )" + std::to_string(byteTimeUs) + R"(, "cards": [{"connectors": [)" + connectors +
           "]}]}";
}

struct Figures {
    double medianMs, p95Ms;
};

Figures figures(std::vector<double> times)
{
    std::sort(times.begin(), times.end());
    return {times[times.size() / 2], times[static_cast<std::size_t>(0.95 * static_cast<double>(times.size() - 1))]};
}

double enumerate(int monitors)
{
    const auto start = Clock::now();
    const std::size_t found = Lumora::DisplayEnumerator::allDisplays().size();
    const double ms = std::chrono::duration<double, std::milli>(Clock::now() - start).count();
    if (found != static_cast<std::size_t>(monitors)) {
        std::fprintf(stderr, "found %zu of %d monitors\n", found, monitors);
        std::exit(1);
    }
    return ms;
}

// The first enumeration on each of `runs` new desks, and the later ones (three on each desk).
std::pair<Figures, Figures> measure(int monitors, bool mst, int byteTimeUs, int runs)
{
    std::vector<double> first, later;
    for (int r = 0; r < runs; ++r) {
        VirtualDesk::Desk desk(VirtualDesk::DeskConfig::fromJson(deskJson(monitors, mst, byteTimeUs, r)), {"", false});
        first.push_back(enumerate(monitors));
        desk.clearTransactions();
        for (int again = 0; again < 3; ++again)
            later.push_back(enumerate(monitors));
        for (const VirtualDesk::Transaction& t : desk.transactions()) {
            if (t.address == 0x50) {
                std::fprintf(stderr, "a later enumeration read an EDID on bus %d\n", t.bus);
                std::exit(1);
            }
        }
        if (!desk.violations().empty()) {
            std::fprintf(stderr, "the desk saw violations: %s\n", desk.violations().front().c_str());
            std::exit(1);
        }
    }
    return {figures(first), figures(later)};
}

}  // namespace

int main(int argc, char** argv)
{
    BenchSupport::reexecUnderUmockdev(argv);
    const int runs = argc > 1 ? std::max(1, std::atoi(argv[1])) : 10;
    std::printf("enumeration (DisplayEnumerator::allDisplays), ms: the first after a change of connectors on %d desks,\n"
                "and three later ones on each\n", runs);
    std::printf("  %-9s %-22s %-6s %16s %16s\n", "monitors", "channels", "", "0.1 ms/byte", "no wire time");
    std::printf("  %-9s %-22s %-6s %7s %8s %7s %8s\n", "", "", "", "median", "p95", "median", "p95");
    for (int monitors : {2, 8, 16}) {
        for (bool mst : {false, true}) {
            const auto [wireFirst, wireLater] = measure(monitors, mst, 100, runs);
            const auto [bareFirst, bareLater] = measure(monitors, mst, 0, runs);
            const char* channels = mst ? "to search (MST, EDID)" : "own (AUX)";
            std::printf("  %-9d %-22s %-6s %7.2f %8.2f %7.2f %8.2f\n", monitors, channels, "first",
                        wireFirst.medianMs, wireFirst.p95Ms, bareFirst.medianMs, bareFirst.p95Ms);
            std::printf("  %-9s %-22s %-6s %7.2f %8.2f %7.2f %8.2f\n", "", "", "later", wireLater.medianMs,
                        wireLater.p95Ms, bareLater.medianMs, bareLater.p95Ms);
        }
    }
    return 0;
}
