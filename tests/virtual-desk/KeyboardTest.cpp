// SPDX-License-Identifier: GPL-3.0-or-later
// The desk's keyboards and /dev/uinput as the key service sees them through libevdev, for the rules whose absence
// would hide the service's faults: a grab takes the keys from every other reader, the input core drops presses of
// keys already down, lost events are resynced, and clones record what they were given and what was held when they
// went.
#include "tools/virtual-desk/VirtualDesk.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <fcntl.h>
#include <sys/ioctl.h>
#include <libevdev/libevdev-uinput.h>
#include <libevdev/libevdev.h>
#include <unistd.h>

#include <cerrno>
#include <functional>

using namespace std::chrono_literals;
using VirtualDesk::Desk;
using VirtualDesk::DeskConfig;

namespace {

const VirtualDesk::DeskOptions kQuiet{"", false};

struct Ev {
    uint16_t type, code;
    int32_t value;
    bool operator==(const Ev&) const = default;
    friend std::ostream& operator<<(std::ostream& os, const Ev& e) { return os << e.type << "/" << e.code << "/" << e.value; }
};
Ev key(int code, int value) { return {EV_KEY, static_cast<uint16_t>(code), value}; }
using Evs = std::vector<Ev>;

// One open descriptor of an input node, read through libevdev as the product reads it.
struct Reader {
    int fd = -1;
    libevdev* dev = nullptr;
    explicit Reader(const std::string& node) : fd(::open(node.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC))
    {
        EXPECT_EQ(libevdev_new_from_fd(fd, &dev), 0) << node;
    }
    ~Reader()
    {
        libevdev_free(dev);
        if (fd >= 0)
            ::close(fd);
    }
    // The EV_KEY events readable now (with the frames' other events when `all`); `dropped`: SYN_DROPPED came.
    Evs read(bool* dropped = nullptr, bool all = false)
    {
        Evs out;
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
                flag = LIBEVDEV_READ_FLAG_NORMAL;  // the resync is done; back to the events
                continue;
            } else if (rc != LIBEVDEV_READ_STATUS_SUCCESS) {
                EXPECT_EQ(rc, -EAGAIN);
                return out;
            }
            if (all || e.type == EV_KEY)
                out.push_back({e.type, e.code, e.value});
        }
    }
    int grab(bool on) { return ::ioctl(fd, EVIOCGRAB, on ? 1 : 0) == 0 ? 0 : errno; }
};

TEST(KeyboardTest, AGrabTakesTheKeysFromEveryOtherDescriptor)
{
    Desk desk(DeskConfig::defaultDesk(), kQuiet);
    Reader a("/dev/input/event0"), b("/dev/input/event0");
    const struct {
        const char* step;
        std::function<void()> action;
        bool aGets, bGets;
    } steps[] = {
        {"nobody grabs", [] {}, true, true},
        {"a grabs", [&] { EXPECT_EQ(a.grab(true), 0); }, true, false},
        {"b cannot grab, a cannot twice, b cannot let go of a's grab",
         [&] { EXPECT_EQ(b.grab(true) + a.grab(true) + b.grab(false), EBUSY + EBUSY + EINVAL); }, true, false},
        {"a lets go, b grabs", [&] { EXPECT_EQ(a.grab(false) + b.grab(true), 0); }, false, true},
    };
    const Evs press{key(KEY_BRIGHTNESSUP, 1), key(KEY_BRIGHTNESSUP, 0)};
    for (const auto& s : steps) {
        SCOPED_TRACE(s.step);
        s.action();
        desk.pressKey("event0", KEY_BRIGHTNESSUP, 1);
        desk.pressKey("event0", KEY_BRIGHTNESSUP, 0);
        EXPECT_EQ(a.read(), s.aGets ? press : Evs{});
        EXPECT_EQ(b.read(), s.bGets ? press : Evs{});
    }
    ::close(b.fd);  // closing the grabbing descriptor lets go, as the kernel does
    b.fd = -1;
    EXPECT_TRUE(desk.waitFor([&] { return !desk.grabbed("event0"); }, 5s));
    EXPECT_EQ(desk.openCount("event0"), 1);
}

TEST(KeyboardTest, KeysFollowTheInputCoresRulesAndCarryTheirScanCodes)
{
    const struct {
        std::vector<std::pair<int, int>> presses;
        Evs delivered;
        std::vector<int> held;  // by the desk, and by EVIOCGKEY
    } cases[] = {
        {{{KEY_BRIGHTNESSUP, 1}, {KEY_BRIGHTNESSUP, 2}, {KEY_BRIGHTNESSUP, 0}},
         {key(KEY_BRIGHTNESSUP, 1), key(KEY_BRIGHTNESSUP, 2), key(KEY_BRIGHTNESSUP, 0)}, {}},
        {{{KEY_LEFTALT, 1}, {KEY_LEFTALT, 1}, {KEY_F1, 1}}, {key(KEY_LEFTALT, 1), key(KEY_F1, 1)}, {KEY_LEFTALT, KEY_F1}},
        {{{KEY_A, 0}}, {}, {}},  // nor does a release of a key that is up
    };
    Desk desk(DeskConfig::defaultDesk(), kQuiet);
    for (const auto& c : cases) {
        SCOPED_TRACE(testing::PrintToString(c.presses));
        Reader r("/dev/input/event0");
        for (const auto& [code, value] : c.presses)
            desk.pressKey("event0", code, value);
        EXPECT_EQ(r.read(), c.delivered);
        EXPECT_EQ(desk.heldKeys("event0"), c.held);
        unsigned char state[KEY_MAX / 8 + 1] = {};
        ASSERT_GE(::ioctl(r.fd, EVIOCGKEY(sizeof state), state), 0);
        std::vector<int> down;
        for (int k = 0; k <= KEY_MAX; ++k)
            if (state[k / 8] >> (k % 8) & 1)
                down.push_back(k);
        EXPECT_EQ(down, c.held);
        for (int k : c.held)
            desk.pressKey("event0", k, 0);
    }
    EXPECT_THROW(desk.pressKey("event2", KEY_BRIGHTNESSUP, 1), std::invalid_argument) << "the plain keyboard has none";
    // Set 1 scan codes on the i8042 keyboard, HID usages on USB.
    for (const auto& [node, scan] : {std::pair{"/dev/input/event0", 0x86}, std::pair{"/dev/input/event3", 0xc006f}}) {
        Reader r(node);
        desk.pressKey(node, KEY_BRIGHTNESSUP, 1);
        EXPECT_EQ(r.read(nullptr, true), (Evs{{EV_MSC, MSC_SCAN, scan}, key(KEY_BRIGHTNESSUP, 1), {EV_SYN, SYN_REPORT, 0}}));
    }
}

TEST(KeyboardTest, AnOverflowIsResyncedByLibevdev)
{
    const std::pair<const char*, std::function<void(Desk&)>> cases[] = {
        {"on demand", [](Desk& d) { d.pressKey("event0", KEY_A, 1); d.overflow("event0"); }},
        {"a full queue", [](Desk& d) {
             for (int i = 0; i < 30; ++i) {  // 60 frames of 3 events: far more than a queue holds
                 d.pressKey("event0", KEY_A, 1);
                 d.pressKey("event0", KEY_A, 0);
             }
         }},
    };
    Desk desk(DeskConfig::defaultDesk(), kQuiet);
    for (const auto& [how, lose] : cases) {
        SCOPED_TRACE(how);
        Reader r("/dev/input/event0");
        lose(desk);
        desk.pressKey("event0", KEY_BRIGHTNESSUP, 1);
        bool dropped = false;
        EXPECT_THAT(r.read(&dropped), testing::Contains(key(KEY_BRIGHTNESSUP, 1)));
        EXPECT_TRUE(dropped);
        EXPECT_EQ(libevdev_get_event_value(r.dev, EV_KEY, KEY_BRIGHTNESSUP), 1);
        desk.pressKey("event0", KEY_BRIGHTNESSUP, 0);
        dropped = false;
        EXPECT_EQ(r.read(&dropped), Evs{key(KEY_BRIGHTNESSUP, 0)});
        EXPECT_FALSE(dropped);
        for (int k : desk.heldKeys("event0"))
            desk.pressKey("event0", k, 0);
    }
}

TEST(KeyboardTest, ClonesRecordWhatTheyWereGivenAndWhatWasHeldWhenTheyWent)
{
    Desk desk(DeskConfig::defaultDesk(), kQuiet);
    Reader source("/dev/input/event0");
    for (bool destroy : {true, false}) {  // both ways a clone goes: destroyed, or its descriptor closed
        SCOPED_TRACE(destroy ? "UI_DEV_DESTROY" : "close");
        libevdev_uinput* ui = nullptr;
        ASSERT_EQ(libevdev_uinput_create_from_device(source.dev, LIBEVDEV_UINPUT_OPEN_MANAGED, &ui), 0);
        ASSERT_EQ(desk.clones().size(), 1u);
        const std::string node = desk.clones()[0];
        Reader reader(node);
        const Evs written = {{EV_MSC, MSC_SCAN, 0x1e}, key(KEY_A, 1), {EV_SYN, SYN_REPORT, 0}};
        for (const Ev& e : written)
            ASSERT_EQ(libevdev_uinput_write_event(ui, e.type, e.code, e.value), 0);
        EXPECT_EQ(reader.read(nullptr, true), written);
        Evs forwarded;
        for (const auto& e : desk.forwarded(node))
            forwarded.push_back({e.type, e.code, e.value});
        EXPECT_EQ(forwarded, written);
        const int uinputFd = libevdev_uinput_get_fd(ui);
        if (destroy)
            libevdev_uinput_destroy(ui);
        else
            ::close(uinputFd);  // as when the process dies
        EXPECT_TRUE(desk.waitFor([&] { return desk.clones().empty(); }, 5s));
        EXPECT_EQ(desk.heldKeys(node), std::vector<int>{KEY_A}) << "recorded when it went";
        input_event e{};
        EXPECT_EQ(::read(reader.fd, &e, sizeof e) == -1 ? errno : 0, ENODEV);
        if (!destroy) {  // libevdev closes its descriptor: give it a harmless one under that number
            ::dup2(::open("/dev/null", O_RDWR | O_CLOEXEC), uinputFd);
            libevdev_uinput_destroy(ui);
        }
    }
}

}  // namespace
