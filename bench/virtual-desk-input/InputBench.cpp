// SPDX-License-Identifier: GPL-3.0-or-later
// What the virtual desk's keyboards and /dev/uinput cost by themselves, printed as a table: the floor under any
// figure a product measures on the desk (a key to the first byte on the bus, a key forwarded through a clone).
//
//   - a desk's start and end, with and without the default desk's keyboards;
//   - a key pressed on the desk until a reader thread, waiting in poll() as a product would, has read its frame;
//   - one event written to a uinput clone (the write() call);
//   - a key pressed until a minimal forwarder (poll, libevdev_next_event, then libevdev_uinput_write_event for each
//     event, or one write() of the whole frame) has written its frame to the clone, by the desk's own record;
//   - creating and destroying a clone with libevdev_uinput_create_from_device.
//
// Needs umockdev's preload: started without it, it starts itself again under umockdev-wrapper.
#include "tools/virtual-desk/VirtualDesk.h"

#include <fcntl.h>
#include <libevdev/libevdev-uinput.h>
#include <libevdev/libevdev.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <mutex>
#include <string>
#include <thread>
#include <vector>
#include "bench/support/BenchSupport.h"

using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;

namespace {

struct Row {
    std::string measure, value;
};
std::vector<Row> rows;

double us(Clock::duration d)
{
    return std::chrono::duration<double, std::micro>(d).count();
}

std::string percentiles(std::vector<double> v, const char* unit, double scale = 1.0)
{
    std::sort(v.begin(), v.end());
    auto at = [&](double q) { return v[std::min(v.size() - 1, static_cast<size_t>(q * static_cast<double>(v.size())))] / scale; };
    char buf[128];
    std::snprintf(buf, sizeof buf, "p50 %.3g %s, p99 %.3g %s, max %.3g %s (n=%zu)", at(0.5), unit, at(0.99), unit,
                  v.back() / scale, unit, v.size());
    return buf;
}

const VirtualDesk::DeskOptions kQuiet{"", false};

void benchStartAndEnd()
{
    for (bool keyboards : {false, true}) {
        std::vector<double> start, end;
        for (int i = 0; i < 10; ++i) {
            auto config = VirtualDesk::DeskConfig::defaultDesk();
            if (!keyboards) {
                config.keyboards.clear();
                config.uinput.reset();
            }
            const auto t0 = Clock::now();
            auto* desk = new VirtualDesk::Desk(config, kQuiet);
            const auto t1 = Clock::now();
            delete desk;
            start.push_back(us(t1 - t0));
            end.push_back(us(Clock::now() - t1));
        }
        const std::string what = keyboards ? "default desk" : "default desk without keyboards and uinput";
        rows.push_back({what + ": start", percentiles(start, "ms", 1000)});
        rows.push_back({what + ": end", percentiles(end, "ms", 1000)});
    }
}

// A reader thread as a product's capture thread: poll() on the grabbed keyboard and an eventfd, libevdev to read;
// optionally forwarding every frame through a uinput clone.
class Capture {
public:
    enum class Forward { No, EachEvent, WholeFrame };
    explicit Capture(Forward forward) : forward(forward)
    {
        fd = ::open("/dev/input/event0", O_RDONLY | O_NONBLOCK | O_CLOEXEC);
        libevdev_new_from_fd(fd, &dev);
        if (forward != Forward::No)
            libevdev_uinput_create_from_device(dev, LIBEVDEV_UINPUT_OPEN_MANAGED, &clone);
        libevdev_grab(dev, LIBEVDEV_GRAB);
        stop = ::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
        thread = std::thread([this] { run(); });
    }
    ~Capture()
    {
        (void)!::write(stop, "\1\0\0\0\0\0\0\0", 8);
        thread.join();
        libevdev_grab(dev, LIBEVDEV_UNGRAB);
        if (clone)
            libevdev_uinput_destroy(clone);
        libevdev_free(dev);
        ::close(fd);
        ::close(stop);
    }
    // Waits until `frames` frames have been read; returns when the last one was.
    Clock::time_point waitFrames(int frames)
    {
        std::unique_lock lk(mu);
        cv.wait_for(lk, 10s, [&] { return framesRead >= frames; });
        return lastFrame;
    }

private:
    void run()
    {
        for (;;) {
            pollfd p[2] = {{fd, POLLIN, 0}, {stop, POLLIN, 0}};
            if (::poll(p, 2, -1) < 0 || p[1].revents)
                return;
            input_event e{};
            while (libevdev_next_event(dev, LIBEVDEV_READ_FLAG_NORMAL, &e) == LIBEVDEV_READ_STATUS_SUCCESS) {
                if (forward == Forward::EachEvent) {
                    libevdev_uinput_write_event(clone, e.type, e.code, e.value);
                } else if (forward == Forward::WholeFrame) {
                    frame.push_back(e);
                    if (e.type == EV_SYN && e.code == SYN_REPORT) {
                        (void)!::write(libevdev_uinput_get_fd(clone), frame.data(), frame.size() * sizeof(input_event));
                        frame.clear();
                    }
                }
                if (e.type == EV_SYN && e.code == SYN_REPORT) {
                    std::lock_guard lk(mu);
                    ++framesRead;
                    lastFrame = Clock::now();
                    cv.notify_all();
                }
            }
        }
    }

    Forward forward;
    std::vector<input_event> frame;
    int fd = -1, stop = -1;
    libevdev* dev = nullptr;
    libevdev_uinput* clone = nullptr;
    std::thread thread;
    std::mutex mu;
    std::condition_variable cv;
    int framesRead = 0;
    Clock::time_point lastFrame;
};

void benchKeyToReader()
{
    VirtualDesk::Desk desk(VirtualDesk::DeskConfig::defaultDesk(), kQuiet);
    Capture capture(Capture::Forward::No);
    std::vector<double> latency;
    for (int i = 0; i < 400; ++i) {
        const auto t0 = Clock::now();
        desk.pressKey("event0", KEY_BRIGHTNESSUP, i % 2 ? 0 : 1);
        latency.push_back(us(capture.waitFrames(i + 1) - t0));
    }
    rows.push_back({"key pressed -> frame read by a thread in poll() (libevdev)", percentiles(latency, "us")});
}

void benchForwarding()
{
    std::vector<double> write, forwarded;
    {
        // One event written to a clone.
        VirtualDesk::Desk desk(VirtualDesk::DeskConfig::defaultDesk(), kQuiet);
        int fd = ::open("/dev/input/event2", O_RDONLY | O_NONBLOCK | O_CLOEXEC);
        libevdev* dev = nullptr;
        libevdev_new_from_fd(fd, &dev);
        libevdev_uinput* clone = nullptr;
        libevdev_uinput_create_from_device(dev, LIBEVDEV_UINPUT_OPEN_MANAGED, &clone);
        for (int i = 0; i < 400; ++i) {
            const auto t0 = Clock::now();
            libevdev_uinput_write_event(clone, EV_KEY, KEY_A, i % 2 ? 0 : 1);
            write.push_back(us(Clock::now() - t0));
            libevdev_uinput_write_event(clone, EV_SYN, SYN_REPORT, 0);
        }
        libevdev_uinput_destroy(clone);
        libevdev_free(dev);
        ::close(fd);
    }
    rows.push_back({"one event written to a uinput clone (write())", percentiles(write, "us")});
    for (auto how : {Capture::Forward::EachEvent, Capture::Forward::WholeFrame}) {
        forwarded.clear();
        VirtualDesk::Desk desk(VirtualDesk::DeskConfig::defaultDesk(), kQuiet); // a log of this forwarder alone
        Capture capture(how);
        std::vector<int64_t> pressed;
        for (int i = 0; i < 400; ++i) {
            pressed.push_back(desk.nowUs());
            desk.pressKey("event0", KEY_A, i % 2 ? 0 : 1);
            capture.waitFrames(i + 1); // forwarded: the desk has recorded its writes
        }
        // Each frame is MSC_SCAN, EV_KEY, SYN_REPORT; the desk stamped each write when it took it.
        const auto all = desk.forwarded();
        for (size_t i = 0; i < pressed.size() && 3 * i + 2 < all.size(); ++i)
            forwarded.push_back(static_cast<double>(all[3 * i + 2].us - pressed[i]));
        rows.push_back({how == Capture::Forward::EachEvent
                            ? "key pressed -> frame on the clone, forwarded event by event"
                            : "key pressed -> frame on the clone, forwarded in one write()",
                        percentiles(forwarded, "us")});
    }
}

void benchCloneLife()
{
    VirtualDesk::Desk desk(VirtualDesk::DeskConfig::defaultDesk(), kQuiet);
    int fd = ::open("/dev/input/event0", O_RDONLY | O_NONBLOCK | O_CLOEXEC);
    libevdev* dev = nullptr;
    libevdev_new_from_fd(fd, &dev);
    std::vector<double> create, destroy;
    for (int i = 0; i < 20; ++i) {
        libevdev_uinput* clone = nullptr;
        const auto t0 = Clock::now();
        libevdev_uinput_create_from_device(dev, LIBEVDEV_UINPUT_OPEN_MANAGED, &clone);
        const auto t1 = Clock::now();
        libevdev_uinput_destroy(clone);
        create.push_back(us(t1 - t0));
        destroy.push_back(us(Clock::now() - t1));
    }
    libevdev_free(dev);
    ::close(fd);
    rows.push_back({"libevdev_uinput_create_from_device (clone with sysfs and uevents)", percentiles(create, "ms", 1000)});
    rows.push_back({"libevdev_uinput_destroy", percentiles(destroy, "ms", 1000)});
}


} // namespace

int main(int, char** argv)
{
    BenchSupport::reexecUnderUmockdev(argv);
    benchStartAndEnd();
    benchKeyToReader();
    benchForwarding();
    benchCloneLife();

    size_t width = 0, valueWidth = 0;
    for (const Row& r : rows) {
        width = std::max(width, r.measure.size());
        valueWidth = std::max(valueWidth, r.value.size());
    }
    const char* tmp = std::getenv("TMPDIR");
    std::printf("The virtual desk's keyboards and /dev/uinput (test beds in %s)\n\n", tmp ? tmp : "/tmp");
    std::printf("| %-*s | %-*s |\n", static_cast<int>(width), "measure", static_cast<int>(valueWidth), "value");
    std::printf("|%s|%s|\n", std::string(width + 2, '-').c_str(), std::string(valueWidth + 2, '-').c_str());
    for (const Row& r : rows)
        std::printf("| %-*s | %-*s |\n", static_cast<int>(width), r.measure.c_str(), static_cast<int>(valueWidth),
                    r.value.c_str());
    return 0;
}
