// The desk's keyboards and /dev/uinput as a program sees them through libevdev and plain system calls: sysfs and
// nodes as the kernel lays them out, grabs and per-descriptor delivery, the input core's key rules, overflow and
// resync, uinput clones, hot-plug, access modes, and the control commands.
#include "tools/virtual-desk/VirtualDesk.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <fcntl.h>
#include <libevdev/libevdev-uinput.h>
#include <libevdev/libevdev.h>
#include <libudev.h>
#include <linux/uinput.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <sys/inotify.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <sys/wait.h>
#include <unistd.h>

#include <condition_variable>
#include <cerrno>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <functional>
#include <future>
#include <thread>

using namespace std::chrono_literals;
using testing::ElementsAre;
using testing::HasSubstr;
using VirtualDesk::Desk;
using VirtualDesk::DeskConfig;

extern char** environ;

namespace {

const VirtualDesk::DeskOptions kQuiet{"", false};

std::string readText(const std::string& path)
{
    std::ifstream in(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(in), {}};
}

// The bits of a sysfs capabilities file ("300000000 0 e08effdf01cfffff fffffffffffffffe"), as the kernel prints them.
bool sysfsBit(const std::string& text, int bit)
{
    std::vector<uint64_t> words;
    std::istringstream in(text);
    for (std::string w; in >> w;)
        words.insert(words.begin(), std::stoull(w, nullptr, 16)); // most significant first
    return static_cast<size_t>(bit / 64) < words.size() && (words[bit / 64] >> (bit % 64) & 1);
}

struct Ev {
    uint16_t type, code;
    int32_t value;
    bool operator==(const Ev&) const = default;
    friend std::ostream& operator<<(std::ostream& os, const Ev& e)
    {
        return os << libevdev_event_type_get_name(e.type) << " " << libevdev_event_code_get_name(e.type, e.code) << " "
                  << e.value;
    }
};
const Ev kSyn{EV_SYN, SYN_REPORT, 0};
Ev key(int code, int value) { return {EV_KEY, static_cast<uint16_t>(code), value}; }

// One open descriptor of an input node, read through libevdev as the product reads it.
struct Reader {
    int fd = -1;
    libevdev* dev = nullptr;
    explicit Reader(const std::string& node, int flags = O_RDONLY | O_NONBLOCK)
    {
        fd = ::open(node.c_str(), flags | O_CLOEXEC);
        EXPECT_GE(fd, 0) << node << ": " << std::strerror(errno);
        if (fd >= 0) {
            EXPECT_EQ(libevdev_new_from_fd(fd, &dev), 0);
        }
    }
    ~Reader()
    {
        libevdev_free(dev);
        if (fd >= 0)
            ::close(fd);
    }
    // Everything readable now, with libevdev's status of each (SYNC after SYN_DROPPED).
    std::vector<Ev> drain(bool* dropped = nullptr)
    {
        std::vector<Ev> out;
        input_event e{};
        int flag = LIBEVDEV_READ_FLAG_NORMAL;
        for (;;) {
            const int rc = libevdev_next_event(dev, flag, &e);
            if (rc == LIBEVDEV_READ_STATUS_SYNC) {
                if (dropped)
                    *dropped = true;
                flag = LIBEVDEV_READ_FLAG_SYNC;
                if (e.type == EV_SYN && e.code == SYN_DROPPED)
                    continue;
            } else if (rc == -EAGAIN && flag == LIBEVDEV_READ_FLAG_SYNC) {
                flag = LIBEVDEV_READ_FLAG_NORMAL; // the resync is done; back to the events
                continue;
            } else if (rc != LIBEVDEV_READ_STATUS_SUCCESS) {
                EXPECT_EQ(rc, -EAGAIN);
                return out;
            }
            out.push_back({e.type, e.code, e.value});
        }
    }
    std::vector<Ev> keys(bool* dropped = nullptr)
    {
        std::vector<Ev> out;
        for (const Ev& e : drain(dropped))
            if (e.type == EV_KEY)
                out.push_back(e);
        return out;
    }
    bool readable(int timeoutMs = 0)
    {
        pollfd p{fd, POLLIN, 0};
        return ::poll(&p, 1, timeoutMs) == 1 && (p.revents & POLLIN);
    }
    int grab(bool on) { return ::ioctl(fd, EVIOCGRAB, on ? 1 : 0) == 0 ? 0 : errno; }
};

TEST(KeyboardTest, SysfsAndNodesAsTheKernelShowsThem)
{
    Desk desk(DeskConfig::defaultDesk(), kQuiet);
    const struct {
        int event;
        std::string name, phys, bustype, parentSubsystem;
        bool brightness, letters, msc;
    } cases[] = {
        {0, "AT Translated Set 2 keyboard", "isa0060/serio0/input0", "0011", "serio", true, true, true},
        {1, "Video Bus", "LNXVIDEO/video/input0", "0019", "acpi", true, false, false},
        {2, "Logitech USB Keyboard", "usb-0000:00:14.0-1/input0", "0003", "hid", false, true, true},
        {3, "Logitech USB Keyboard Consumer Control", "usb-0000:00:14.0-1/input1", "0003", "hid", true, false, true},
    };
    for (const auto& c : cases) {
        const std::string n = std::to_string(c.event), node = "/dev/input/event" + n;
        const std::string dev = "/sys/class/input/event" + n + "/device/";
        SCOPED_TRACE(node);
        EXPECT_EQ(readText(dev + "name"), c.name + "\n");
        EXPECT_EQ(readText(dev + "phys"), c.phys + "\n");
        EXPECT_EQ(readText(dev + "id/bustype"), c.bustype + "\n");
        EXPECT_EQ(std::filesystem::canonical(dev + "device/subsystem").filename(), c.parentSubsystem);
        EXPECT_EQ(readText("/sys/class/input/event" + n + "/dev"), "13:" + std::to_string(64 + c.event) + "\n");
        EXPECT_THAT(readText("/sys/class/input/event" + n + "/uevent"), HasSubstr("DEVNAME=input/event" + n + "\n"));
        const std::string keys = readText(dev + "capabilities/key");
        EXPECT_EQ(sysfsBit(keys, KEY_BRIGHTNESSDOWN) && sysfsBit(keys, KEY_BRIGHTNESSUP), c.brightness) << keys;
        EXPECT_EQ(sysfsBit(keys, KEY_A) && sysfsBit(keys, KEY_LEFTALT) && sysfsBit(keys, KEY_F12), c.letters) << keys;
        struct stat st{};
        ASSERT_EQ(::stat(node.c_str(), &st), 0);
        EXPECT_TRUE(S_ISCHR(st.st_mode));
        EXPECT_EQ(st.st_rdev, makedev(13, 64 + c.event));

        Reader r(node);
        ASSERT_NE(r.dev, nullptr);
        EXPECT_EQ(libevdev_get_name(r.dev), c.name);
        EXPECT_EQ(libevdev_get_phys(r.dev), c.phys);
        EXPECT_EQ(libevdev_get_id_bustype(r.dev), std::stoi(c.bustype, nullptr, 16));
        EXPECT_EQ(libevdev_has_event_code(r.dev, EV_KEY, KEY_BRIGHTNESSUP) == 1, c.brightness);
        EXPECT_EQ(libevdev_has_event_code(r.dev, EV_MSC, MSC_SCAN) == 1, c.msc);
        EXPECT_EQ(libevdev_has_event_type(r.dev, EV_REP) == 1, c.letters);
        EXPECT_EQ(::isatty(r.fd), 0) << "an input node is no terminal";
    }
    EXPECT_EQ(desk.keyboards(), (std::vector<std::string>{"/dev/input/event0", "/dev/input/event1",
                                                          "/dev/input/event2", "/dev/input/event3"}));
    EXPECT_EQ(readText("/sys/class/misc/uinput/dev"), "10:223\n");
    EXPECT_TRUE(std::filesystem::is_directory("/dev/input/by-path"));
}

TEST(KeyboardTest, AGrabTakesTheEventsFromEveryOtherDescriptor)
{
    Desk desk(DeskConfig::defaultDesk(), kQuiet);
    Reader a("/dev/input/event0"), b("/dev/input/event0");
    const std::vector<Ev> press = {key(KEY_BRIGHTNESSUP, 1)};
    // Each step: what a and b do, then which of them get the key that follows.
    const struct {
        std::string step;
        std::function<void()> action;
        bool aGets, bGets, grabbed;
    } steps[] = {
        {"nobody grabs", [] {}, true, true, false},
        {"a grabs", [&] { EXPECT_EQ(a.grab(true), 0); }, true, false, true},
        {"b cannot grab, a cannot twice, b cannot let go of a's grab",
         [&] {
             EXPECT_EQ(b.grab(true), EBUSY);
             EXPECT_EQ(a.grab(true), EBUSY);
             EXPECT_EQ(b.grab(false), EINVAL);
         },
         true, false, true},
        {"a lets go", [&] { EXPECT_EQ(a.grab(false), 0); }, true, true, false},
        {"b grabs", [&] { EXPECT_EQ(b.grab(true), 0); }, false, true, true},
    };
    for (const auto& s : steps) {
        SCOPED_TRACE(s.step);
        s.action();
        EXPECT_EQ(desk.grabbed("event0"), s.grabbed);
        desk.pressKey("event0", KEY_BRIGHTNESSUP, 1);
        desk.pressKey("event0", KEY_BRIGHTNESSUP, 0);
        EXPECT_EQ(a.keys(), s.aGets ? (std::vector<Ev>{key(KEY_BRIGHTNESSUP, 1), key(KEY_BRIGHTNESSUP, 0)}) : std::vector<Ev>{});
        EXPECT_EQ(b.keys(), s.bGets ? (std::vector<Ev>{key(KEY_BRIGHTNESSUP, 1), key(KEY_BRIGHTNESSUP, 0)}) : std::vector<Ev>{});
    }
    // Closing the grabbing descriptor lets go of the grab, as the kernel does.
    ::close(b.fd);
    b.fd = -1;
    EXPECT_TRUE(desk.waitFor([&] { return !desk.grabbed("event0"); }, 5s));
    EXPECT_EQ(a.grab(true), 0);
    EXPECT_EQ(desk.openCount("event0"), 1);
}

TEST(KeyboardTest, KeysFollowTheInputCoresRules)
{
    // Presses in order, the EV_KEY events a reader gets, the keys held after (EVIOCGKEY).
    const struct {
        std::string device, node;
        std::vector<std::pair<int, int>> presses;
        std::vector<Ev> delivered;
        std::vector<int> held;
    } cases[] = {
        {"event0", "/dev/input/event0", {{KEY_BRIGHTNESSUP, 1}}, {key(KEY_BRIGHTNESSUP, 1)}, {KEY_BRIGHTNESSUP}},
        {"event0", "/dev/input/event0", {{KEY_BRIGHTNESSUP, 1}, {KEY_BRIGHTNESSUP, 2}, {KEY_BRIGHTNESSUP, 2}, {KEY_BRIGHTNESSUP, 0}},
         {key(KEY_BRIGHTNESSUP, 1), key(KEY_BRIGHTNESSUP, 2), key(KEY_BRIGHTNESSUP, 2), key(KEY_BRIGHTNESSUP, 0)}, {}},
        {"event0", "/dev/input/event0", {{KEY_LEFTALT, 1}, {KEY_LEFTALT, 1}, {KEY_F1, 1}}, {key(KEY_LEFTALT, 1), key(KEY_F1, 1)},
         {KEY_LEFTALT, KEY_F1}}, // a second press of a key already down loses its EV_KEY
        {"event0", "/dev/input/event0", {{KEY_A, 0}}, {}, {}},  // so does a release of a key that is up
        {"Video Bus", "/dev/input/event1", {{KEY_BRIGHTNESSDOWN, 1}}, {key(KEY_BRIGHTNESSDOWN, 1)}, {KEY_BRIGHTNESSDOWN}},
        {"/dev/input/event3", "/dev/input/event3", {{KEY_BRIGHTNESSUP, 1}, {KEY_BRIGHTNESSUP, 0}}, {key(KEY_BRIGHTNESSUP, 1), key(KEY_BRIGHTNESSUP, 0)}, {}},
    };
    Desk desk(DeskConfig::defaultDesk(), kQuiet);
    for (const auto& c : cases) {
        SCOPED_TRACE(c.device + " " + testing::PrintToString(c.presses));
        Reader r(c.node);
        for (const auto& [code, value] : c.presses)
            desk.pressKey(c.device, code, value);
        EXPECT_EQ(r.keys(), c.delivered);
        EXPECT_EQ(desk.heldKeys(c.device), c.held);
        unsigned char state[KEY_MAX / 8 + 1] = {};
        ASSERT_GE(::ioctl(r.fd, EVIOCGKEY(sizeof state), state), 0);
        std::vector<int> down;
        for (int k = 0; k <= KEY_MAX; ++k)
            if (state[k / 8] >> (k % 8) & 1)
                down.push_back(k);
        EXPECT_EQ(down, c.held);
        for (int k : c.held) // up again for the next case
            desk.pressKey(c.device, k, 0);
    }
    EXPECT_THROW(desk.pressKey("event2", KEY_BRIGHTNESSUP, 1), std::invalid_argument) << "the plain keyboard has none";
    EXPECT_THROW(desk.pressKey("event9", KEY_A, 1), std::invalid_argument);
    // A key's frame carries its scan code: set 1 on the i8042 keyboard, HID usages on USB.
    const std::pair<std::string, int> scans[] = {{"/dev/input/event0", 0x86}, {"/dev/input/event3", 0xc006f}};
    for (const auto& [node, scan] : scans) {
        Reader r(node);
        desk.pressKey(node, KEY_BRIGHTNESSUP, 1);
        EXPECT_EQ(r.drain(), (std::vector<Ev>{{EV_MSC, MSC_SCAN, scan}, key(KEY_BRIGHTNESSUP, 1), kSyn})) << node;
    }
}

TEST(KeyboardTest, AnOverflowIsResyncedByLibevdev)
{
    // Each way of losing events; what libevdev then reports: SYN_DROPPED, then the keys held rebuilt from
    // EVIOCGKEY, then the events that come after.
    const struct {
        std::string how;
        std::function<void(Desk&)> lose;
    } cases[] = {
        {"on demand", [](Desk& d) {
             d.pressKey("event0", KEY_A, 1);
             d.overflow("event0");
             d.pressKey("event0", KEY_BRIGHTNESSUP, 1);
         }},
        {"a full queue", [](Desk& d) {
             for (int i = 0; i < 30; ++i) { // 60 frames of 3 events: far more than a queue holds
                 d.pressKey("event0", KEY_A, 1);
                 d.pressKey("event0", KEY_A, 0);
             }
             d.pressKey("event0", KEY_BRIGHTNESSUP, 1);
         }},
    };
    Desk desk(DeskConfig::defaultDesk(), kQuiet);
    for (const auto& c : cases) {
        SCOPED_TRACE(c.how);
        Reader r("/dev/input/event0");
        c.lose(desk);
        bool dropped = false;
        const auto keys = r.keys(&dropped);
        EXPECT_TRUE(dropped);
        EXPECT_THAT(keys, testing::Contains(key(KEY_BRIGHTNESSUP, 1)));
        EXPECT_EQ(libevdev_get_event_value(r.dev, EV_KEY, KEY_BRIGHTNESSUP), 1);
        desk.pressKey("event0", KEY_BRIGHTNESSUP, 0);
        dropped = false;
        EXPECT_EQ(r.keys(&dropped), (std::vector<Ev>{key(KEY_BRIGHTNESSUP, 0)}));
        EXPECT_FALSE(dropped);
        for (int k : desk.heldKeys("event0"))
            desk.pressKey("event0", k, 0);
    }
}

TEST(KeyboardTest, UinputClonesAreRecordedAndGoAwayWithTheirDescriptor)
{
    Desk desk(DeskConfig::defaultDesk(), kQuiet);
    udev* u = udev_new();
    udev_monitor* mon = udev_monitor_new_from_netlink(u, "udev");
    udev_monitor_filter_add_match_subsystem_devtype(mon, "input", nullptr);
    ASSERT_EQ(udev_monitor_enable_receiving(mon), 0);
    auto uevents = [&] { // action and sysname of each uevent so far
        std::vector<std::string> out;
        pollfd p{udev_monitor_get_fd(mon), POLLIN, 0};
        while (::poll(&p, 1, out.empty() ? 5000 : 200) == 1) {
            udev_device* d = udev_monitor_receive_device(mon);
            if (!d)
                break;
            out.push_back(std::string(udev_device_get_action(d)) + " " + udev_device_get_sysname(d));
            udev_device_unref(d);
        }
        return out;
    };

    Reader source("/dev/input/event0");
    // Both ways a clone goes: destroyed, or its descriptor closed.
    for (bool destroy : {true, false}) {
        SCOPED_TRACE(destroy ? "UI_DEV_DESTROY" : "close");
        libevdev_uinput* ui = nullptr;
        ASSERT_EQ(libevdev_uinput_create_from_device(source.dev, LIBEVDEV_UINPUT_OPEN_MANAGED, &ui), 0);
        const int uinputFd = libevdev_uinput_get_fd(ui);
        const std::string syspath = libevdev_uinput_get_syspath(ui);
        EXPECT_EQ(syspath.rfind("/sys/devices/virtual/input/input", 0), 0u) << syspath;
        ASSERT_EQ(desk.clones().size(), 1u);
        const std::string node = desk.clones()[0];
        const std::string event = node.substr(node.rfind('/') + 1), input = syspath.substr(syspath.rfind('/') + 1);
        EXPECT_THAT(uevents(), ElementsAre("add " + input, "add " + event));
        EXPECT_EQ(readText(syspath + "/name"), "AT Translated Set 2 keyboard\n");
        EXPECT_TRUE(std::filesystem::exists(syspath + "/" + event));

        Reader reader(node);
        EXPECT_EQ(libevdev_has_event_code(reader.dev, EV_KEY, KEY_BRIGHTNESSUP), 1);
        const std::vector<Ev> written = {{EV_MSC, MSC_SCAN, 0x1e}, key(KEY_A, 1), kSyn, key(KEY_B, 1), kSyn, key(KEY_B, 0), kSyn};
        for (const Ev& e : written)
            ASSERT_EQ(libevdev_uinput_write_event(ui, e.type, e.code, e.value), 0);
        EXPECT_EQ(reader.drain(), written);
        std::vector<Ev> forwarded;
        for (const auto& e : desk.forwarded(node))
            forwarded.push_back({e.type, e.code, e.value});
        EXPECT_EQ(forwarded, written);
        EXPECT_EQ(desk.heldKeys(node), std::vector<int>{KEY_A});

        if (destroy)
            libevdev_uinput_destroy(ui);
        else
            ::close(uinputFd); // as when the process dies
        EXPECT_TRUE(desk.waitFor([&] { return desk.clones().empty(); }, 5s));
        EXPECT_EQ(desk.heldKeys(node), std::vector<int>{KEY_A}) << "recorded when it went";
        EXPECT_THAT(uevents(), ElementsAre("remove " + event, "remove " + input));
        EXPECT_FALSE(std::filesystem::exists(syspath));
        // Its reader is told: POLLHUP, and ENODEV for reads and ioctls.
        pollfd p{reader.fd, POLLIN, 0};
        EXPECT_EQ(::poll(&p, 1, 0), 1);
        EXPECT_TRUE(p.revents & POLLHUP);
        input_event e{};
        EXPECT_EQ(::read(reader.fd, &e, sizeof e), -1);
        EXPECT_EQ(errno, ENODEV);
        int version = 0;
        EXPECT_EQ(::ioctl(reader.fd, EVIOCGVERSION, &version), -1);
        EXPECT_EQ(errno, ENODEV);
        if (!destroy) {
            // libevdev frees it and closes its descriptor: give it a harmless one under that number.
            const int null = ::open("/dev/null", O_RDWR | O_CLOEXEC);
            ::dup2(null, uinputFd);
            ::close(null);
            libevdev_uinput_destroy(ui);
        }
    }
    udev_monitor_unref(mon);
    udev_unref(u);
}

TEST(KeyboardTest, AProcessKilledMidPressLetsGoOfItsGrabAndItsClone)
{
    Desk desk(DeskConfig::defaultDesk(), kQuiet);
    // A separate process grabs event0, creates a clone with plain ioctls and holds KEY_A down on it, then is killed.
    char script[2048];
    std::snprintf(script, sizeof script,
                  "import os, fcntl, struct, time\n"
                  "ev = os.open('/dev/input/event0', os.O_RDONLY | os.O_NONBLOCK)\n"
                  "fcntl.ioctl(ev, %lu, 1)\n"
                  "ui = os.open('/dev/uinput', os.O_RDWR)\n"
                  "fcntl.ioctl(ui, %lu, %d)\n"
                  "fcntl.ioctl(ui, %lu, %d)\n"
                  "fcntl.ioctl(ui, %lu, struct.pack('HHHH80sI', 3, 1, 1, 1, b'held', 0))\n"
                  "fcntl.ioctl(ui, %lu)\n"
                  "os.write(ui, struct.pack('llHHi', 0, 0, %d, %d, 1) + struct.pack('llHHi', 0, 0, 0, 0, 0))\n"
                  "print('ready', flush=True)\n"
                  "time.sleep(60)\n",
                  static_cast<unsigned long>(EVIOCGRAB), static_cast<unsigned long>(UI_SET_EVBIT), EV_KEY,
                  static_cast<unsigned long>(UI_SET_KEYBIT), KEY_A, static_cast<unsigned long>(UI_DEV_SETUP),
                  static_cast<unsigned long>(UI_DEV_CREATE), EV_KEY, KEY_A);
    int out[2];
    ASSERT_EQ(::pipe2(out, O_CLOEXEC), 0);
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_adddup2(&actions, out[1], 1);
    const char* argv[] = {"python3", "-c", script, nullptr};
    pid_t pid = 0;
    ASSERT_EQ(::posix_spawnp(&pid, "python3", &actions, nullptr, const_cast<char**>(argv), environ), 0);
    posix_spawn_file_actions_destroy(&actions);
    ::close(out[1]);
    std::string line;
    pollfd p{out[0], POLLIN, 0};
    char c;
    while (line.find('\n') == std::string::npos && ::poll(&p, 1, 20000) == 1 && ::read(out[0], &c, 1) == 1)
        line += c;
    ::close(out[0]);
    EXPECT_EQ(line, "ready\n");
    EXPECT_TRUE(desk.grabbed("event0"));
    ASSERT_EQ(desk.clones().size(), 1u);
    const std::string clone = desk.clones()[0];
    EXPECT_EQ(desk.heldKeys(clone), std::vector<int>{KEY_A});

    ::kill(pid, SIGKILL);
    int status = 0;
    ASSERT_EQ(::waitpid(pid, &status, 0), pid);
    EXPECT_TRUE(desk.waitFor([&] { return !desk.grabbed("event0") && desk.clones().empty(); }, 5s));
    EXPECT_EQ(desk.heldKeys(clone), std::vector<int>{KEY_A}) << "the check a product's test makes: KEY_A was left down";
    EXPECT_EQ(desk.openCount("event0"), 0);
}

TEST(KeyboardTest, ReadersWaitAndWakeAsOnTheKernel)
{
    // How a reader thread waits for keys, and how it is woken to shut down.
    struct Case {
        std::string how;
        int flags;
        std::function<int(int fd, int stopFd)> waitOnce; // 1: readable, 0: told to stop, -1: error
        std::function<void(std::thread&, int fd, int stopFd)> stop;
        bool repeatStop; // the wake-up can be missed and is sent again until the reader has ended
    };
    auto pollWait = [](int fd, int stopFd) {
        pollfd p[2] = {{fd, POLLIN, 0}, {stopFd, POLLIN, 0}};
        if (::poll(p, 2, 10000) <= 0)
            return -1;
        return p[1].revents ? 0 : 1;
    };
    auto epollWait = [](int fd, int stopFd) {
        const int ep = ::epoll_create1(EPOLL_CLOEXEC);
        epoll_event a{EPOLLIN, {.fd = fd}}, b{EPOLLIN, {.fd = stopFd}};
        ::epoll_ctl(ep, EPOLL_CTL_ADD, fd, &a);
        ::epoll_ctl(ep, EPOLL_CTL_ADD, stopFd, &b);
        epoll_event got{};
        const int n = ::epoll_wait(ep, &got, 1, 10000);
        ::close(ep);
        return n <= 0 ? -1 : got.data.fd == stopFd ? 0 : 1;
    };
    auto blockingWait = [](int, int) { return 1; }; // the read itself waits
    auto writeStop = [](std::thread&, int, int stopFd) { (void)!::write(stopFd, "\1\0\0\0\0\0\0\0", 8); };
    // A signal whose handler does not restart calls ends a sleeping read with EINTR, as on evdev. Sent just before
    // the read starts sleeping, it is missed (as on the kernel), hence sent again.
    auto signalStop = [](std::thread& t, int, int) { ::pthread_kill(t.native_handle(), SIGUSR1); };
    auto revokeStop = [](std::thread&, int fd, int) { EXPECT_EQ(::ioctl(fd, EVIOCREVOKE, nullptr), 0); };
    const Case cases[] = {
        {"poll on O_NONBLOCK, an eventfd to stop", O_RDONLY | O_NONBLOCK, pollWait, writeStop, false},
        {"epoll on O_NONBLOCK, an eventfd to stop", O_RDONLY | O_NONBLOCK, epollWait, writeStop, false},
        {"a blocking read, EVIOCREVOKE to stop", O_RDONLY, blockingWait, revokeStop, false},
        {"a blocking read, a signal to stop", O_RDONLY, blockingWait, signalStop, true},
    };
    struct sigaction sa{};
    sa.sa_handler = [](int) {};
    ::sigaction(SIGUSR1, &sa, nullptr); // no SA_RESTART
    Desk desk(DeskConfig::defaultDesk(), kQuiet);
    for (const auto& c : cases) {
        SCOPED_TRACE(c.how);
        const int stopFd = ::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
        Reader r("/dev/input/event0", c.flags);
        ASSERT_EQ(r.grab(true), 0);
        const int readFlag = c.flags & O_NONBLOCK ? LIBEVDEV_READ_FLAG_NORMAL : LIBEVDEV_READ_FLAG_BLOCKING;
        std::mutex mu;
        std::condition_variable cv;
        std::vector<Ev> got;
        int end = 0; // 1: stopped as asked, -1: something else
        std::thread reader([&] {
            int how = 0;
            while (how == 0) {
                const int w = c.waitOnce(r.fd, stopFd);
                if (w <= 0) {
                    how = w == 0 ? 1 : -1;
                    break;
                }
                input_event e{};
                int rc;
                while ((rc = libevdev_next_event(r.dev, readFlag, &e)) == LIBEVDEV_READ_STATUS_SUCCESS) {
                    std::lock_guard lk(mu);
                    got.push_back({e.type, e.code, e.value});
                    cv.notify_all();
                }
                if (rc != -EAGAIN) // a blocking read ends with EINTR (signal) or ENODEV (revoked)
                    how = rc == -EINTR || rc == -ENODEV ? 1 : -1;
            }
            std::lock_guard lk(mu);
            end = how;
            cv.notify_all();
        });
        desk.pressKey("event0", KEY_BRIGHTNESSUP, 1);
        std::unique_lock lk(mu);
        EXPECT_TRUE(cv.wait_for(lk, 10s, [&] {
            return std::find(got.begin(), got.end(), key(KEY_BRIGHTNESSUP, 1)) != got.end();
        }));
        bool ended = false;
        for (int attempt = 0; attempt < (c.repeatStop ? 1000 : 1) && !ended; ++attempt) {
            lk.unlock();
            c.stop(reader, r.fd, stopFd);
            lk.lock();
            ended = cv.wait_for(lk, c.repeatStop ? 10ms : 10s, [&] { return end != 0; });
        }
        lk.unlock();
        ASSERT_TRUE(ended) << "the reader did not wake up";
        reader.join();
        EXPECT_EQ(end, 1);
        ::close(stopFd);
        desk.pressKey("event0", KEY_BRIGHTNESSUP, 0);
        ::close(r.fd); // lets go of the grab, once the desk has seen it
        r.fd = -1;
        EXPECT_TRUE(desk.waitFor([&] { return !desk.grabbed("event0"); }, 5s));
    }
    ::signal(SIGUSR1, SIG_DFL);
}

TEST(KeyboardTest, HotPlugIsSeenInSysfsUdevAndDevInput)
{
    Desk desk(DeskConfig::defaultDesk(), kQuiet);
    const int in = ::inotify_init1(IN_NONBLOCK | IN_CLOEXEC);
    ASSERT_GE(::inotify_add_watch(in, "/dev/input", IN_CREATE | IN_DELETE | IN_ATTRIB), 0);
    auto watched = [&] { // mask and name of each inotify event so far
        std::vector<std::string> out;
        alignas(inotify_event) char buf[4096];
        pollfd p{in, POLLIN, 0};
        while (::poll(&p, 1, out.empty() ? 5000 : 100) == 1) {
            const ssize_t n = ::read(in, buf, sizeof buf);
            for (ssize_t off = 0; off < n;) {
                const auto* e = reinterpret_cast<const inotify_event*>(buf + off);
                off += static_cast<ssize_t>(sizeof *e + e->len);
                out.push_back(std::string(e->mask & IN_CREATE ? "create " : e->mask & IN_DELETE ? "delete " : "attrib ") + e->name);
            }
        }
        return out;
    };
    const std::string node = desk.addKeyboard({"Dell Keyboard", "plain", -1, "0660", std::nullopt, {}});
    EXPECT_EQ(node, "/dev/input/event4");
    EXPECT_THAT(watched(), ElementsAre("create event4"));
    EXPECT_EQ(readText("/sys/class/input/event4/device/name"), "Dell Keyboard\n");
    Reader r(node);
    desk.pressKey("Dell Keyboard", KEY_A, 1);
    EXPECT_EQ(r.keys(), std::vector<Ev>{key(KEY_A, 1)});

    desk.removeKeyboard(node);
    EXPECT_THAT(watched(), ElementsAre("delete event4"));
    EXPECT_FALSE(std::filesystem::exists("/sys/class/input/event4"));
    pollfd p{r.fd, POLLIN, 0};
    EXPECT_EQ(::poll(&p, 1, 0), 1);
    EXPECT_TRUE(p.revents & POLLHUP);
    input_event e{};
    EXPECT_EQ(::read(r.fd, &e, sizeof e), -1);
    EXPECT_EQ(errno, ENODEV);
    EXPECT_THROW(desk.pressKey(node, KEY_A, 0), std::invalid_argument);
    // The number comes free again, as the kernel's minors do; /dev/input stays.
    EXPECT_EQ(desk.addKeyboard({"Other Keyboard", "plain", -1, "0660", std::nullopt, {}}), "/dev/input/event4");
    EXPECT_THAT(watched(), ElementsAre("create event4"));
    ::close(in);
}

TEST(KeyboardTest, AccessModesDenyEvenRoot)
{
    // A node, the mode set, the access the session needs, whether it has it.
    const struct {
        std::string node, mode;
        int need, openFlags;
        bool granted;
    } cases[] = {
        {"/dev/input/event0", "0600", R_OK, O_RDONLY, false}, {"/dev/input/event0", "0660", R_OK, O_RDONLY, true},
        {"/dev/input/event0", "0640", R_OK, O_RDONLY, true},  {"/dev/uinput", "0600", W_OK, O_RDWR, false},
        {"/dev/uinput", "0660", W_OK, O_RDWR, true},          {"/dev/uinput", "0640", W_OK, O_WRONLY, false},
    };
    Desk desk(DeskConfig::defaultDesk(), kQuiet);
    Reader before("/dev/input/event0");
    const int in = ::inotify_init1(IN_NONBLOCK | IN_CLOEXEC);
    for (const auto& c : cases) {
        SCOPED_TRACE(c.node + " " + c.mode);
        const std::string dir = std::filesystem::path(c.node).parent_path();
        const int wd = ::inotify_add_watch(in, dir.c_str(), IN_ATTRIB);
        desk.setAccess(c.node, c.mode);
        pollfd p{in, POLLIN, 0};
        EXPECT_EQ(::poll(&p, 1, 5000), 1) << "IN_ATTRIB on " << dir;
        alignas(inotify_event) char buf[4096];
        while (::read(in, buf, sizeof buf) > 0) {
        }
        ::inotify_rm_watch(in, wd);
        const int accessed = ::access(c.node.c_str(), c.need);
        EXPECT_EQ(accessed == 0 ? 0 : errno, c.granted ? 0 : EACCES);
        const int fd = ::open(c.node.c_str(), c.openFlags | O_CLOEXEC);
        EXPECT_EQ(fd >= 0, c.granted);
        EXPECT_EQ(fd >= 0 ? 0 : errno, c.granted ? 0 : EACCES);
        if (fd >= 0)
            ::close(fd);
    }
    ::close(in);
    // A descriptor opened before access was taken keeps working, as on the kernel.
    desk.setAccess("/dev/input/event0", "0600");
    desk.pressKey("event0", KEY_B, 1);
    EXPECT_EQ(before.keys(), std::vector<Ev>{key(KEY_B, 1)});
    EXPECT_THROW(desk.setAccess("/dev/input/event0", "rw"), std::invalid_argument);
}

TEST(KeyboardTest, ControlCommands)
{
    Desk desk(DeskConfig::defaultDesk(), kQuiet);
    Reader r("/dev/input/event0");
    const std::pair<std::string, std::string> cases[] = {
        {"key event0 KEY_BRIGHTNESSUP 1", "ok"},
        {"key event0 brightnessup 2", "ok"},
        {"key /dev/input/event0 225 0", "ok"},
        {"key event2 BRIGHTNESSUP 1", "error: /dev/input/event2 (Logitech USB Keyboard) has no key KEY_BRIGHTNESSUP"},
        {"key event0 KEY_NOSUCH 1", "error: unknown key \"KEY_NOSUCH\""},
        {"key event0 KEY_A 3", "error: key value \"3\" (expected 1 down, 2 repeat, 0 up)"},
        {"key event0 KEY_LEFTALT 1", "ok"},
        {"heldkeys event0", "ok 56"},
        {"grabbed event0", "ok 0"},
        {"keyboard add {\"name\":\"Video Bus 2\",\"kind\":\"videoBus\",\"event\":7}", "ok /dev/input/event7"},
        {"keyboard add {\"name\":\"X\",\"kind\":\"tablet\"}", "error: keyboard.kind: expected \"laptop\", \"plain\", \"consumer\" or \"videoBus\""},
        {"keyboards", "ok /dev/input/event0 /dev/input/event1 /dev/input/event2 /dev/input/event3 /dev/input/event7"},
        {"keyboard remove event7", "ok"},
        {"access /dev/uinput 0600", "ok"},
        {"access /dev/input/event9 0600", "error: no input device \"/dev/input/event9\""},
        {"overflow event0", "ok"},
        {"clones", "ok"},
        {"forwarded", "ok 0"},
    };
    for (const auto& [command, reply] : cases)
        EXPECT_EQ(desk.control(command), reply) << command;
    EXPECT_EQ(::access("/dev/uinput", W_OK), -1);
    bool dropped = false;
    EXPECT_EQ(r.keys(&dropped), (std::vector<Ev>{key(KEY_BRIGHTNESSUP, 1), key(KEY_BRIGHTNESSUP, 2),
                                                 key(KEY_BRIGHTNESSUP, 0), key(KEY_LEFTALT, 1)}));
    EXPECT_FALSE(dropped);
}

TEST(KeyboardTest, DeskFileKeyboards)
{
    const auto desk = DeskConfig::fromJson(R"({"keyboards":[{"name":"K","kind":"laptop","event":5,"mode":"0600",
        "keys":["KEY_A", 225]}], "uinput": null})");
    ASSERT_EQ(desk.keyboards.size(), 1u);
    EXPECT_EQ(desk.keyboards[0].event, 5);
    EXPECT_EQ(desk.keyboards[0].mode, "0600");
    EXPECT_EQ(desk.keyboards[0].keys, (std::vector<int>{KEY_A, KEY_BRIGHTNESSUP}));
    EXPECT_FALSE(desk.uinput);
    EXPECT_TRUE(DeskConfig::fromJson("{}").uinput) << "a desk has /dev/uinput unless it says null";
    const std::pair<std::string, std::string> bad[] = {
        {R"({"keyboards":[{"kind":"laptop"}]})", "keyboards[0].name"},
        {R"({"keyboards":[{"name":"K","kind":"mouse"}]})", "keyboards[0].kind"},
        {R"({"keyboards":[{"name":"K","mode":"rw"}]})", "keyboards[0].mode"},
        {R"({"keyboards":[{"name":"K","keys":["KEY_NOPE"]}]})", "keyboards[0].keys[0]"},
        {R"({"keyboards":[{"name":"K","colour":1}]})", "keyboards[0].colour"},
        {R"({"keyboards":[{"name":"K","event":1},{"name":"L","event":1}]})", "keyboards[1].event"},
        {R"({"uinput":{"mode":"x"}})", "uinput.mode"},
    };
    for (const auto& [json, field] : bad) {
        try {
            DeskConfig::fromJson(json);
            ADD_FAILURE() << json;
        } catch (const std::runtime_error& e) {
            EXPECT_THAT(e.what(), HasSubstr(field)) << json;
        }
    }
}

} // namespace
