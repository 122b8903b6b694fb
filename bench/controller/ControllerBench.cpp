// The display controller's figures on the virtual desk (emulated DDC/CI monitors with realistic timing, real
// enumerator and backends), printed as a table:
//
//   - a slider drag of 100 events over 1 s: writes on the wire, and the time from the last event until the last
//     value is on the wire; against writing every event in turn;
//   - the main thread's cost of one setBrightness (median, p99);
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

using namespace std::chrono_literals;
using Lumora::DisplayController;
using Clock = std::chrono::steady_clock;

namespace {

constexpr std::uint32_t dellID = 103;  // card0-DP-1 on the default desk
const std::string dell = "card0-DP-1";

// ---- Small helpers -------------------------------------------------------------------------------------------

bool pumpUntil(const std::function<bool()>& done, std::chrono::milliseconds timeout)
{
    const auto deadline = Clock::now() + timeout;
    for (;;) {
        QCoreApplication::processEvents(QEventLoop::AllEvents);
        if (done()) {
            return true;
        }
        if (Clock::now() >= deadline) {
            return false;
        }
        QEventLoop idle;
        QTimer::singleShot(1ms, Qt::PreciseTimer, &idle, &QEventLoop::quit);
        idle.exec();
    }
}

void pumpUntilTime(Clock::time_point when)
{
    pumpUntil([&] { return Clock::now() >= when; }, std::chrono::duration_cast<std::chrono::milliseconds>(
                                                         when - Clock::now() + 50ms));
}

double percentile(std::vector<double> values, double p)
{
    if (values.empty()) {
        return 0.0;
    }
    std::sort(values.begin(), values.end());
    const auto rank = static_cast<std::size_t>(std::ceil(p / 100.0 * values.size()));
    return values[std::min(values.size() - 1, rank == 0 ? 0 : rank - 1)];
}

double median(std::vector<double> values) { return percentile(std::move(values), 50); }

struct Row {
    std::string measure;
    std::string value;
};
std::vector<Row> rows;

void row(std::string measure, const char* format, double a, double b = 0.0)
{
    char text[128];
    std::snprintf(text, sizeof text, format, a, b);
    rows.push_back({std::move(measure), text});
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

// ---- 1. A slider drag ----------------------------------------------------------------------------------------

struct DragResult {
    int writes = 0;             // DDC/CI writes (each sends its packet twice)
    double lastEventToWireMs = 0;  // last event until the first packet with the final value has arrived
    double lastEventToDoneMs = 0;  // ... until its write has completed (both packets)
};

// 100 requests, one every 10 ms, from 0.02 up to 1.0, through `request`.
DragResult drag(VirtualDesk::Desk& desk, const std::function<void(double)>& request)
{
    desk.setBrightness(dell, 50);  // as the monitor's own buttons would: the drag's end is a change
    desk.clearTransactions();
    const auto start = Clock::now();
    std::int64_t lastEventUs = 0;
    for (int i = 0; i < 100; ++i) {
        pumpUntilTime(start + i * 10ms);
        const double value = 0.02 + 0.98 * i / 99.0;
        lastEventUs = desk.nowUs();
        request(i == 99 ? 1.0 : value);
    }
    pumpUntil([&] { return desk.brightness(dell) == 100 && sets(desk, dell, 0x10).size() % 2 == 0; }, 10s);
    pumpUntil([] { return false; }, 100ms);  // nothing else arrives
    const auto written = sets(desk, dell, 0x10);
    DragResult r;
    r.writes = static_cast<int>(written.size() / 2);
    for (std::size_t i = 0; i < written.size(); ++i) {
        if (written[i].value == 100) {
            r.lastEventToWireMs = (written[i].endUs - lastEventUs) / 1000.0;
            if (i + 1 < written.size()) {
                r.lastEventToDoneMs = (written[i + 1].endUs - lastEventUs) / 1000.0;
            }
            break;
        }
    }
    return r;
}

void benchDrag()
{
    VirtualDesk::Desk desk(VirtualDesk::DeskConfig::defaultDesk());
    {
        DisplayController controller;
        controller.refresh();
        published(controller, 10s);
        const DragResult coalesced = drag(desk, [&](double v) { controller.setBrightness(dellID, v); });
        row("drag 100 events / 1 s, controller: writes on the wire", "%.0f", coalesced.writes);
        row("drag, controller: last event -> last value on the wire", "%.1f ms (write done %.1f ms)",
            coalesced.lastEventToWireMs, coalesced.lastEventToDoneMs);
    }
    {
        // Every event written in turn on the monitor's queue, as without coalescing.
        auto displays = Lumora::DisplayEnumerator::allDisplays();
        Lumora::DisplayBackendRef backend;
        for (const auto& info : displays) {
            if (info.id == dellID) {
                backend = info.backend;
            }
        }
        backend->readBrightness();
        Lumora::SerialQueue queue("bench.every-event");
        const DragResult everyEvent =
            drag(desk, [&](double v) { queue.async([backend, v] { backend->writeBrightness(v); }); });
        row("drag, every event written: writes on the wire", "%.0f", everyEvent.writes);
        row("drag, every event written: last event -> last value on the wire", "%.1f ms (write done %.1f ms)",
            everyEvent.lastEventToWireMs, everyEvent.lastEventToDoneMs);
    }
}

// ---- 2, 3. Main-thread cost, request to wire -----------------------------------------------------------------

void benchRequests()
{
    VirtualDesk::Desk desk(VirtualDesk::DeskConfig::defaultDesk());
    DisplayController controller;
    int observed = 0;
    QObject::connect(&controller, &DisplayController::displaysChanged, [&] { ++observed; });  // one observer
    controller.refresh();
    published(controller, 10s);

    // Main-thread cost: requests as a drag makes them, the event loop running between them.
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
    row("setBrightness on the main thread: median", "%.2f us", median(costUs));
    row("setBrightness on the main thread: p99", "%.2f us", percentile(costUs, 99));
    pumpUntil([&] { return false; }, 300ms);  // let the last write land

    // Request to the first byte on the wire, the monitor idle before each request.
    std::vector<double> toWireMs;
    for (int i = 0; i < 30; ++i) {
        const double value = (i % 2) ? 0.35 : 0.65;
        const std::int64_t t0 = desk.nowUs();
        controller.setBrightness(dellID, value);
        if (!pumpUntil([&] { return sets(desk, dell, 0x10, t0).size() >= 2; }, 5s)) {
            continue;
        }
        toWireMs.push_back((sets(desk, dell, 0x10, t0).front().startUs - t0) / 1000.0);
        pumpUntil([] { return false; }, 20ms);
    }
    row("request -> first byte on the wire: median", "%.2f ms (10 ms of it the DDC/CI pause)", median(toWireMs));
    row("request -> first byte on the wire: p99", "%.2f ms", percentile(toWireMs, 99));
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

// Starts this program again under umockdev's preload, which the desk needs.
void reexecUnderUmockdev(char** argv)
{
    const char* preload = std::getenv("LD_PRELOAD");
    if (preload && std::strstr(preload, "libumockdev-preload")) {
        return;
    }
    std::string asan = std::getenv("ASAN_OPTIONS") ? std::getenv("ASAN_OPTIONS") : "";
    setenv("ASAN_OPTIONS", (asan.empty() ? "" : asan + ":").append("verify_asan_link_order=0").c_str(), 1);
    char self[4096];
    const ssize_t length = readlink("/proc/self/exe", self, sizeof self - 1);
    if (length <= 0) {
        std::perror("bench_controller: /proc/self/exe");
        std::exit(1);
    }
    self[length] = '\0';
    std::vector<char*> args{const_cast<char*>("umockdev-wrapper"), self};
    for (char** a = argv + 1; *a; ++a) {
        args.push_back(*a);
    }
    args.push_back(nullptr);
    execvp("umockdev-wrapper", args.data());
    std::perror("bench_controller: umockdev-wrapper");
    std::exit(1);
}

}  // namespace

int main(int argc, char** argv)
{
    reexecUnderUmockdev(argv);
    QCoreApplication app(argc, argv);

    benchDrag();
    benchRequests();
    benchRefresh();

    std::size_t width = 0;
    for (const Row& r : rows) {
        width = std::max(width, r.measure.size());
    }
    std::size_t valueWidth = 0;
    for (const Row& r : rows) {
        valueWidth = std::max(valueWidth, r.value.size());
    }
    std::printf("DisplayController on the virtual desk (monitors: reply 30 ms, busy 50 ms, 100 us/byte)\n\n");
    std::printf("| %-*s | %-*s |\n", static_cast<int>(width), "measure", static_cast<int>(valueWidth), "value");
    std::printf("|%s|%s|\n", std::string(width + 2, '-').c_str(), std::string(valueWidth + 2, '-').c_str());
    for (const Row& r : rows) {
        std::printf("| %-*s | %-*s |\n", static_cast<int>(width), r.measure.c_str(), static_cast<int>(valueWidth),
                    r.value.c_str());
    }
    return 0;
}
