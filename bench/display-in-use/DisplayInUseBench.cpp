// SPDX-License-Identifier: GPL-3.0-or-later
// What a brightness key waits for on the desktop it runs on: the lookup of the display in use (the desktop asked
// for its outputs, the focused window and the pointer, matched to the connectors, decided), and the on-screen
// display from the call that shows it until Lumora's own box is painted (or, where the desktop's own on-screen
// display is used, until it has been asked). Printed as figures; run it inside a desktop session on the virtual
// desk, as tests/desktops/display-in-use.sh does. Elsewhere it says there is nothing to time.

#include <QApplication>
#include <QDeadlineTimer>
#include <QEvent>
#include <QEventLoop>

#include <chrono>
#include <cstdio>
#include <functional>
#include <vector>

#include "Lumora/App/DisplayController.h"
#include "Lumora/App/OnScreenDisplay.h"
#include "Lumora/Hotkeys/DisplayInUse.h"
#include "Lumora/Platform/Linux/Desktop/DesktopInputs.h"
#include "Lumora/UI/OsdWindow.h"
#include "bench/support/BenchSupport.h"

namespace {

using Clock = std::chrono::steady_clock;

double msSince(Clock::time_point start)
{
    return std::chrono::duration<double, std::milli>(Clock::now() - start).count();
}

bool pumpUntil(const std::function<bool()>& done, int timeoutMs)
{
    const QDeadlineTimer deadline(timeoutMs);
    while (!done()) {
        if (deadline.hasExpired())
            return false;
        QCoreApplication::processEvents(QEventLoop::AllEvents, 10);
    }
    return true;
}

// Notes the first paint of the watched window after it is armed.
class PaintWatch : public QObject {
public:
    bool armed = false;
    bool painted = false;
    bool eventFilter(QObject*, QEvent* event) override
    {
        if (armed && event->type() == QEvent::Paint)
            painted = true;
        return false;
    }
};

}  // namespace

int main(int argc, char** argv)
{
    const auto set = [](const char* name) { return !qEnvironmentVariableIsEmpty(name); };
    if (!set("DISPLAY") && !set("WAYLAND_DISPLAY") && !set("QT_QPA_PLATFORM")) {
        std::printf("no desktop session here: nothing to time (`make test-desktops-in-use` runs it on real desktops)\n");
        return 0;
    }
    QApplication app(argc, argv);
    Lumora::DisplayController controller;
    controller.refresh();
    if (!pumpUntil([&] { return !controller.displays().empty(); }, 10000)) {
        std::printf("no displays here: nothing to time (run it in a desktop session on the virtual desk)\n");
        return 0;
    }
    const std::string desktop = Lumora::DesktopInputs::session().name();
    const auto inUse = Lumora::DisplayInUse::resolve(controller.displays());
    if (!inUse) {
        std::printf("%s shows none of the displays: nothing to time\n", desktop.c_str());
        return 0;
    }

    std::vector<double> lookups;
    for (int i = 0; i < 200; ++i) {
        const Clock::time_point start = Clock::now();
        (void)Lumora::DisplayInUse::resolve(controller.displays());
        lookups.push_back(msSince(start));
    }
    std::printf("figure: display-in-use lookup on %s: p50 %.2f ms, p99 %.2f ms (200 lookups)\n", desktop.c_str(),
                BenchSupport::percentile(lookups, 50), BenchSupport::percentile(lookups, 99));

    Lumora::OnScreenDisplay osd(controller);
    PaintWatch watch;
    std::vector<double> shown;
    bool own = false;
    for (int i = 0; i < 20; ++i) {
        if (osd.window() != nullptr) {
            osd.window()->hide();
            QCoreApplication::processEvents();
        }
        watch.armed = true;
        watch.painted = false;
        const Clock::time_point start = Clock::now();
        osd.show(inUse->displayID);
        if (osd.window() == nullptr) {  // the desktop's own on-screen display was asked
            shown.push_back(msSince(start));
            continue;
        }
        own = true;
        osd.window()->installEventFilter(&watch);  // again each time: installing twice keeps one
        if (!pumpUntil([&] { return watch.painted; }, 2000))
            std::printf("the on-screen display was not painted within 2 s\n");
        shown.push_back(msSince(start));
    }
    std::printf("figure: on-screen display on %s (%s): p50 %.1f ms, p99 %.1f ms (20 shows)\n", desktop.c_str(),
                own ? "Lumora's own, until painted" : "the desktop's own, until asked",
                BenchSupport::percentile(shown, 50), BenchSupport::percentile(shown, 99));
    return 0;
}
