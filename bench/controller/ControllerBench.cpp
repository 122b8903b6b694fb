// SPDX-License-Identifier: GPL-3.0-or-later
// The display controller's figures on the virtual desk (real enumerator, backends and Linux transport on emulated
// DDC/CI monitors), printed as tables:
//
//   on lenient monitors (take everything at any time), realistic ones (NAK while busy after a Set, the null message
//   while not ready, silent in standby, slow to wake) and realistic ones that ignore instead of NAK while busy:
//   - a slider drag of 100 events over 1 s: DDC/CI writes on the wire, the time from the last event until the last
//     value is on the wire and until the monitor has applied it (median of 5 drags);
//   - a key burst of 8 steps, one every 30 ms: from the last step until the monitor has applied the final value;
//   - the main thread's cost of one setBrightness (median, p99);
//   and on realistic monitors:
//   - the drag written event by event, without coalescing;
//   - from a request to the first byte of its write on the wire;
//   - a refresh of four monitors, one of which never answers (and all answering): reads one after another on one
//     queue, against each display read on its own queue.
//
// Needs umockdev's preload: started without it, it starts itself again under umockdev-wrapper.

#include <QCoreApplication>
#include <QEventLoop>
#include <QTimer>

#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "Lumora/App/DisplayController.h"
#include "Lumora/App/SerialQueue.h"
#include "Lumora/DDC/DisplayEnumerator.h"
#include "tools/virtual-desk/VirtualDesk.h"
#include "bench/support/BenchSupport.h"
#include "bench/support/EventPump.h"

using namespace std::chrono_literals;
using Lumora::DisplayController;
using Clock = std::chrono::steady_clock;

namespace {

constexpr std::uint32_t dellID = 103;  // card0-DP-1 on the default desk
const std::string dell = "card0-DP-1";

// ---- Small helpers -------------------------------------------------------------------------------------------

using BenchSupport::pumpUntil;

void pumpUntilTime(Clock::time_point when)
{
    pumpUntil([&] { return Clock::now() >= when; }, std::chrono::duration_cast<std::chrono::milliseconds>(
                                                         when - Clock::now() + 50ms));
}


double median(std::vector<double> values) { return BenchSupport::percentile(std::move(values), 50); }

// One figure per monitor profile (a single column when the figure is measured on one only).
struct Row {
    std::string measure;
    std::vector<std::string> values;
};
std::vector<Row> profileRows;  // lenient | realistic | realistic, ignoring while busy
std::vector<Row> rows;         // realistic monitors

std::string format(const char* format, double a, double b = 0.0)
{
    char text[128];
    std::snprintf(text, sizeof text, format, a, b);
    return text;
}

void row(std::string measure, const char* fmt, double a, double b = 0.0)
{
    rows.push_back({std::move(measure), {format(fmt, a, b)}});
}

// Adds the figure of the profile being measured to its row, making the row on first use.
void profileRow(const std::string& measure, const std::string& value)
{
    for (Row& r : profileRows) {
        if (r.measure == measure) {
            r.values.push_back(value);
            return;
        }
    }
    profileRows.push_back({measure, {value}});
}

// Set VCP Feature messages of one code to one connector since `sinceUs`, in order.
std::vector<VirtualDesk::Transaction> sets(const VirtualDesk::Desk& desk, const std::string& connector, int code,
                                           std::int64_t sinceUs = 0)
{
    std::vector<VirtualDesk::Transaction> result;
    for (const auto& t : desk.transactions()) {
        if (t.connector == connector && t.request == "set" && t.code == code && t.startUs >= sinceUs &&
            t.outcome == "ok") {
            result.push_back(t);
        }
    }
    return result;
}

bool published(DisplayController& controller, std::chrono::milliseconds timeout)
{
    bool done = false;
    const auto connection =
        QObject::connect(&controller, &DisplayController::displaysChanged, [&] { done = true; });
    const bool ok = pumpUntil([&] { return done; }, timeout);
    QObject::disconnect(connection);
    return ok;
}

// ---- 1. A slider drag and a key burst --------------------------------------------------------------------------

// Brightness Set messages to one connector since `sinceUs`, whatever the monitor made of them, in order.
std::vector<VirtualDesk::Transaction> onTheWire(const VirtualDesk::Desk& desk, const std::string& connector,
                                                std::int64_t sinceUs = 0)
{
    std::vector<VirtualDesk::Transaction> result;
    for (const auto& t : desk.transactions()) {
        if (t.connector == connector && t.request == "set" && t.code == 0x10 && t.startUs >= sinceUs) {
            result.push_back(t);
        }
    }
    return result;
}

bool applied(const VirtualDesk::Transaction& t)
{
    return t.outcome == "ok" && t.note.find("ignored") == std::string::npos;
}

struct Landing {
    int writes = 0;              // DDC/CI writes: Set transactions, each sent twice (and once more if NAKed)
    double toWireMs = 0;         // from the last event until the first packet with the final value has arrived
    double toAppliedMs = 0;      // ... until the monitor has applied the final value
};

// How the requests made through `request` (the last made at `lastEventUs`) reached the monitor, which must end at
// raw value `final`.
Landing landing(VirtualDesk::Desk& desk, std::int64_t sinceUs, std::int64_t lastEventUs, int final)
{
    if (!pumpUntil([&] { return desk.brightness(dell) == final; }, 10s)) {
        std::fprintf(stderr, "bench_controller: the final value never landed\n");
        std::exit(1);
    }
    pumpUntil([] { return false; }, 150ms);  // nothing else arrives
    const auto wire = onTheWire(desk, dell, sinceUs);
    Landing l;
    int previous = -1;
    for (const auto& t : wire) {
        l.writes += t.value != previous ? 1 : 0;
        previous = t.value;
        if (t.value == final && l.toWireMs == 0) {
            l.toWireMs = (t.endUs - lastEventUs) / 1000.0;
        }
        if (t.value == final && applied(t) && l.toAppliedMs == 0) {
            l.toAppliedMs = (t.endUs - lastEventUs) / 1000.0;
        }
    }
    return l;
}

// Lets a realistic monitor's busy time pass, then sets it to `value` as its own buttons would.
void resetMonitor(VirtualDesk::Desk& desk, int value)
{
    pumpUntil([] { return false; }, 200ms);
    desk.setBrightness(dell, value);
}

// 100 requests, one every 10 ms, from 0.02 up to 1.0, through `request`.
Landing drag(VirtualDesk::Desk& desk, const std::function<void(double)>& request)
{
    resetMonitor(desk, 50);  // the drag's end is a change
    const std::int64_t since = desk.nowUs();
    const auto start = Clock::now();
    std::int64_t lastEventUs = 0;
    for (int i = 0; i < 100; ++i) {
        pumpUntilTime(start + i * 10ms);
        const double value = 0.02 + 0.98 * i / 99.0;
        lastEventUs = desk.nowUs();
        request(i == 99 ? 1.0 : value);
    }
    return landing(desk, since, lastEventUs, 100);
}

// Eight steps up from 0.5, one every 30 ms (a key held down), ending at 1.0.
Landing keyBurst(VirtualDesk::Desk& desk, DisplayController& controller)
{
    controller.setBrightness(dellID, 0.5);
    pumpUntil([&] { return desk.brightness(dell) == 50; }, 10s);
    resetMonitor(desk, 50);
    const std::int64_t since = desk.nowUs();
    const auto start = Clock::now();
    std::int64_t lastEventUs = 0;
    for (int i = 0; i < 8; ++i) {
        pumpUntilTime(start + i * 30ms);
        lastEventUs = desk.nowUs();
        controller.step(dellID, 0.0625);
    }
    return landing(desk, since, lastEventUs, 100);
}

// The default desk with every monitor made after `monitor`'s behaviour (its brightness kept).
VirtualDesk::DeskConfig deskOf(const VirtualDesk::MonitorConfig& monitor)
{
    auto config = VirtualDesk::DeskConfig::defaultDesk();
    for (auto& connector : config.cards[0].connectors) {
        if (connector.monitor) {
            const auto current = connector.monitor->current;
            connector.monitor = monitor;
            connector.monitor->current = current;
        }
    }
    return config;
}

void benchProfile(const VirtualDesk::MonitorConfig& monitor)
{
    VirtualDesk::Desk desk(deskOf(monitor));
    DisplayController controller;
    controller.refresh();
    published(controller, 10s);

    std::vector<double> writes, toWire, toApplied;
    for (int run = 0; run < 5; ++run) {
        const Landing l = drag(desk, [&](double v) { controller.setBrightness(dellID, v); });
        writes.push_back(l.writes);
        toWire.push_back(l.toWireMs);
        toApplied.push_back(l.toAppliedMs);
    }
    profileRow("drag of 100 events / 1 s: writes on the wire", format("%.0f", median(writes)));
    profileRow("drag: last event -> last value on the wire", format("%.1f ms", median(toWire)));
    profileRow("drag: last event -> value applied by the monitor", format("%.1f ms", median(toApplied)));

    std::vector<double> burstApplied, burstWrites;
    for (int run = 0; run < 5; ++run) {
        const Landing l = keyBurst(desk, controller);
        burstApplied.push_back(l.toAppliedMs);
        burstWrites.push_back(l.writes);
    }
    profileRow("8 steps / 30 ms: writes on the wire", format("%.0f", median(burstWrites)));
    profileRow("8 steps: last step -> final value applied", format("%.1f ms", median(burstApplied)));

    // Main-thread cost: requests as a drag makes them, the event loop running between them.
    int observed = 0;
    QObject::connect(&controller, &DisplayController::displaysChanged, [&] { ++observed; });  // one observer
    std::vector<double> costUs;
    for (int i = 0; i < 5000; ++i) {
        const double value = 0.2 + 0.6 * (i % 100) / 100.0;
        const auto t0 = Clock::now();
        controller.setBrightness(dellID, value);
        const auto t1 = Clock::now();
        costUs.push_back(std::chrono::duration<double, std::micro>(t1 - t0).count());
        if (i % 10 == 0) {
            QCoreApplication::processEvents();
        }
    }
    if (observed < 5000) {
        std::fprintf(stderr, "bench_controller: the requests did not reach the controller's display\n");
        std::exit(1);
    }
    profileRow("setBrightness on the main thread: median", format("%.2f us", median(costUs)));
    profileRow("setBrightness on the main thread: p99", format("%.2f us", BenchSupport::percentile(costUs, 99)));
    pumpUntil([] { return false; }, 300ms);  // let the last write land
    if (!desk.violations().empty()) {
        std::fprintf(stderr, "bench_controller: the desk saw violations\n");
        std::exit(1);
    }
}

void benchEveryEvent()
{
    // Every event written in turn on the monitor's queue, as without coalescing.
    VirtualDesk::Desk desk(VirtualDesk::DeskConfig::defaultDesk());
    auto displays = Lumora::DisplayEnumerator::allDisplays();
    Lumora::DisplayBackendRef backend;
    for (const auto& info : displays) {
        if (info.id == dellID) {
            backend = info.backend;
        }
    }
    backend->readBrightness();
    Lumora::SerialQueue queue("bench.every-event");
    const Landing everyEvent =
        drag(desk, [&](double v) { queue.async([backend, v] { backend->writeBrightness(v); }); });
    row("drag, every event written: writes on the wire", "%.0f", everyEvent.writes);
    row("drag, every event written: last event -> value applied", "%.1f ms", everyEvent.toAppliedMs);
}

// ---- 2. Request to wire ----------------------------------------------------------------------------------------

void benchRequestToWire()
{
    VirtualDesk::Desk desk(VirtualDesk::DeskConfig::defaultDesk());
    DisplayController controller;
    controller.refresh();
    published(controller, 10s);

    // Request to the first byte on the wire, the monitor idle before each request.
    std::vector<double> toWireMs;
    for (int i = 0; i < 30; ++i) {
        const double value = (i % 2) ? 0.35 : 0.65;
        const std::int64_t t0 = desk.nowUs();
        controller.setBrightness(dellID, value);
        if (!pumpUntil([&] { return sets(desk, dell, 0x10, t0).size() >= 1; }, 5s)) {
            continue;
        }
        toWireMs.push_back((sets(desk, dell, 0x10, t0).front().startUs - t0) / 1000.0);
        pumpUntil([] { return false; }, 100ms);  // past the monitor's busy time
    }
    row("request -> first byte on the wire: median", "%.2f ms (10 ms of it the DDC/CI pause)", median(toWireMs));
    row("request -> first byte on the wire: p99", "%.2f ms", BenchSupport::percentile(toWireMs, 99));
}

// ---- 4. Refresh ----------------------------------------------------------------------------------------------

constexpr const char* fourMonitors = R"({
  "cards": [ { "connectors": [
    { "name": "DP-1", "connectorId": 101, "edid": { "vendor": "DEL", "model": "0xA0C4", "serial": 1, "name": "A" },
      "ddc": { "bus": 5 }, "monitor": { "current": 50 } },
    { "name": "DP-2", "connectorId": 102, "edid": { "vendor": "DEL", "model": "0xA0C5", "serial": 2, "name": "B" },
      "ddc": { "bus": 6 }, "monitor": { "current": 60 } },
    { "name": "HDMI-A-1", "connectorId": 103, "edid": { "vendor": "GSM", "model": "0x5B09", "serial": 3, "name": "C" },
      "ddc": { "bus": 3 }, "monitor": { "current": 70 } },
    { "name": "HDMI-A-2", "connectorId": 104, "edid": { "vendor": "SAM", "model": "0x0F35", "serial": 4, "name": "D" },
      "ddc": { "bus": 7 }, "monitor": { "current": 80, "faults": { "neverAnswer": true } } }
  ] } ]
})";

void benchRefresh()
{
    VirtualDesk::Desk desk(VirtualDesk::DeskConfig::fromJson(fourMonitors));
    DisplayController controller;
    controller.refresh();
    published(controller, 20s);

    const auto measure = [&](const char* label) {
        std::vector<double> sequentialMs;
        std::vector<double> perDisplayMs;
        for (int run = 0; run < 5; ++run) {
            // One queue: enumerate, then read each display in turn.
            auto t0 = Clock::now();
            for (const auto& info : Lumora::DisplayEnumerator::allDisplays()) {
                info.backend->readBrightness();
            }
            sequentialMs.push_back(std::chrono::duration<double, std::milli>(Clock::now() - t0).count());

            // The controller: enumerate, then each display on its own queue, published on the main thread.
            t0 = Clock::now();
            controller.refresh();
            published(controller, 20s);
            perDisplayMs.push_back(std::chrono::duration<double, std::milli>(Clock::now() - t0).count());
        }
        row(std::string("refresh of 4 monitors, ") + label + ": sequential reads (median)", "%.0f ms",
            median(sequentialMs));
        row(std::string("refresh of 4 monitors, ") + label + ": per-display reads (median)", "%.0f ms",
            median(perDisplayMs));
    };
    measure("one never answers");
    desk.setFaults("card0-HDMI-A-2", VirtualDesk::Faults{});
    measure("all answer");
    if (!desk.violations().empty()) {
        std::fprintf(stderr, "the desk saw violations\n");
        std::exit(1);
    }
}


void printTable(const char* title, const std::vector<std::string>& columns, const std::vector<Row>& table)
{
    std::vector<std::size_t> widths{std::string("measure").size()};
    for (const std::string& c : columns) {
        widths.push_back(c.size());
    }
    for (const Row& r : table) {
        widths[0] = std::max(widths[0], r.measure.size());
        for (std::size_t i = 0; i < r.values.size(); ++i) {
            widths[i + 1] = std::max(widths[i + 1], r.values[i].size());
        }
    }
    const auto line = [&](const std::string& first, const std::vector<std::string>& rest) {
        std::printf("| %-*s |", static_cast<int>(widths[0]), first.c_str());
        for (std::size_t i = 0; i < columns.size(); ++i) {
            std::printf(" %-*s |", static_cast<int>(widths[i + 1]), i < rest.size() ? rest[i].c_str() : "");
        }
        std::printf("\n");
    };
    std::printf("%s\n\n", title);
    line("measure", columns);
    std::printf("|%s|", std::string(widths[0] + 2, '-').c_str());
    for (std::size_t i = 1; i < widths.size(); ++i) {
        std::printf("%s|", std::string(widths[i] + 2, '-').c_str());
    }
    std::printf("\n");
    for (const Row& r : table) {
        line(r.measure, r.values);
    }
    std::printf("\n");
}

}  // namespace

int main(int argc, char** argv)
{
    BenchSupport::reexecUnderUmockdev(argv);
    QCoreApplication app(argc, argv);

    VirtualDesk::MonitorConfig ignoring = VirtualDesk::MonitorConfig::realistic();
    ignoring.faults.nakWhileBusy = false;
    ignoring.faults.dropWhileBusy = true;
    benchProfile(VirtualDesk::MonitorConfig{});
    benchProfile(VirtualDesk::MonitorConfig::realistic());
    benchProfile(ignoring);
    benchEveryEvent();
    benchRequestToWire();
    benchRefresh();

    printTable("DisplayController on the virtual desk (monitors: reply 30 ms, busy 50 ms, 100 us/byte)",
               {"lenient", "realistic", "realistic, ignoring while busy"}, profileRows);
    printTable("On realistic monitors", {"value"}, rows);
    return 0;
}
