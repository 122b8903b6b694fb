// SPDX-License-Identifier: GPL-3.0-or-later
// What the product's own tests cannot show about the virtual desk: that its violations fire (and only then), that
// monitors answer as real ones do, and that its keyboards and /dev/uinput follow the kernel's rules (through
// libevdev, as the key service reads them): a wrong emulation would hide the product's faults.
#include "tools/virtual-desk/VirtualDesk.h"
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <fcntl.h>
#include <libevdev/libevdev-uinput.h>
#include <libevdev/libevdev.h>
#include <linux/i2c-dev.h>
#include <linux/i2c.h>
#include <sys/ioctl.h>
#include <unistd.h>
#include <cerrno>
#include <fstream>
#include <functional>
#include <numeric>
#include <thread>

using namespace std::chrono_literals;
using testing::HasSubstr;
using VirtualDesk::Desk;
using VirtualDesk::DeskConfig;

namespace {

const VirtualDesk::DeskOptions kQuiet{"", false};
using Bytes = std::vector<uint8_t>;

Bytes withChecksum(Bytes b) // 0x6E (the monitor's address) XOR every byte from 0x51 on
{
    b.push_back(std::accumulate(b.begin(), b.end(), uint8_t(0x6E), std::bit_xor<uint8_t>()));
    return b;
}
const Bytes kGet = withChecksum({0x51, 0x82, 0x01, 0x10});
Bytes setTo(uint8_t v) { return withChecksum({0x51, 0x84, 0x03, 0x10, 0x00, v}); }

struct I2c { // one open /dev/i2c-N; transfers are single I2C_RDWR messages
    int fd;
    explicit I2c(int bus) : fd(::open(("/dev/i2c-" + std::to_string(bus)).c_str(), O_RDWR | O_CLOEXEC)) {}
    ~I2c() { ::close(fd); }
    int transfer(uint16_t addr, Bytes& b, bool read) // 0 or the errno
    {
        i2c_msg m{addr, static_cast<uint16_t>(read ? I2C_M_RD : 0), static_cast<uint16_t>(b.size()), b.data()};
        i2c_rdwr_ioctl_data d{&m, 1};
        return ::ioctl(fd, I2C_RDWR, &d) < 0 ? errno : 0;
    }
    int write(Bytes b, uint16_t addr = 0x37) { return transfer(addr, b, false); }
    Bytes read(size_t n = 11, uint16_t addr = 0x37) { Bytes b(n); return transfer(addr, b, true) ? Bytes{} : b; }
};

// Lenient monitors (the rules are under test, not busy monitors): DP-1 (bus 5) replies at once, HDMI-A-1 (bus 3) 2 s late.
DeskConfig deskWithDelays()
{
    auto config = DeskConfig::defaultDesk();
    for (auto& c : config.cards[0].connectors)
        if (c.monitor) {
            const uint16_t current = c.monitor->current;
            c.monitor = VirtualDesk::MonitorConfig{};
            c.monitor->current = current;
            c.monitor->replyDelayMs = c.name == "DP-1" ? 0 : 2000;
        }
    return config;
}

TEST(DeskTest, ViolationsFireOnlyWhenTheRulesAreBroken)
{
    const std::pair<std::function<void(Desk&)>, std::string> cases[] = { // the action, the violation ("": none)
        {[](Desk& d) {
             I2c a(5), b(5);
             EXPECT_EQ(a.write(kGet) + a.write(kGet), 0); // a retry on one descriptor
             EXPECT_EQ(a.read(), (Bytes{0x6E, 0x88, 0x02, 0x00, 0x10, 0x00, 0x00, 0x64, 0x00, 0x32, 0xF2}));
             EXPECT_EQ(b.write(setTo(80)) + b.write(setTo(81)), 0); // after a's reply was read
             EXPECT_EQ(d.brightness("card0-DP-1"), 81);
             EXPECT_EQ(I2c(3).read(128, 0x50).size(), 128u); // EDID reads are fine
         }, ""},
        {[](Desk&) { I2c(3).write({0x00}, 0x50); }, "wrote to address 0x50"},
        {[](Desk&) { I2c(5).write(kGet, 0x3A); }, "wrote to address 0x3A"},
        {[](Desk&) { I2c(0).write(kGet); }, "no DRM connector reaches"},
        {[](Desk&) { I2c a(3), b(3); a.write(kGet); b.read(); }, "overlapping transactions"},
        {[](Desk& d) {
             d.hold("card0-DP-1");
             std::thread writer([] { I2c(5).write(setTo(60)); });
             EXPECT_TRUE(d.waitFor([&] { return d.heldCount("card0-DP-1") == 1; }, 5s));
             I2c(5).read();
             d.release("card0-DP-1");
             writer.join();
         }, "two transfers in flight"},
        {[](Desk&) { std::ofstream("/sys/class/backlight/intel_backlight/brightness", std::ios::trunc) << "19201"; },
         "written to brightness"},
    };
    for (const auto& [action, violation] : cases) {
        SCOPED_TRACE(violation);
        Desk desk(deskWithDelays(), kQuiet);
        action(desk);
        desk.waitFor([&] { return !desk.violations().empty(); }, violation.empty() ? 0s : 5s);
        EXPECT_THAT(desk.violations(), violation.empty() ? testing::Matcher<std::vector<std::string>>(testing::IsEmpty())
                                                         : testing::ElementsAre(HasSubstr(violation)));
    }
}

// One monitor on one bus of a card, as a desk file would give it.
DeskConfig oneMonitor(const std::string& driver, const std::string& connector, const std::string& monitor)
{
    return DeskConfig::fromJson(R"({"cards": [{"driver": ")" + driver + R"(", "connectors": [{"name": ")" + connector +
                                R"(", "ddc": {"bus": 5}, "monitor": )" + monitor + "}]}]}");
}
const Bytes kPowerOn = withChecksum({0x51, 0x84, 0x03, 0xD6, 0x00, 0x01});
const Bytes kGetPower = withChecksum({0x51, 0x82, 0x01, 0xD6});
Bytes nullMessage(uint8_t filler) { return {0x6E, 0x80, 0xBE, filler, filler, filler, filler, filler, filler, filler, filler}; }

TEST(DeskTest, MonitorsAnswerAsTheyAreToldAndNakWithTheirAdaptersErrno)
{
    const struct { const char* what; DeskConfig config; std::function<void(Desk&, I2c&)> action; } cases[] = {
        {"NAK while busy, DisplayPort AUX", oneMonitor("i915", "DP-1", R"({"busyMs": 60000})"), [](Desk& d, I2c& fd) {
             EXPECT_EQ(fd.write(setTo(80)) + fd.write(setTo(81)) + fd.write(kGet), 2 * EREMOTEIO);
             EXPECT_EQ(d.brightness("card0-DP-1"), 80);
         }},
        {"NAK while busy, i915 gmbus", oneMonitor("i915", "HDMI-A-1", R"({"busyMs": 60000})"),
         [](Desk&, I2c& fd) { EXPECT_EQ(fd.write(setTo(80)) + fd.write(setTo(81)), ENXIO); }},
        {"NAK while busy, amdgpu", oneMonitor("amdgpu", "HDMI-A-1", R"({"busyMs": 60000})"),
         [](Desk&, I2c& fd) { EXPECT_EQ(fd.write(setTo(80)) + fd.write(setTo(81)), EIO); }},
        {"ignore while busy", oneMonitor("i915", "DP-1", R"({"busyMs": 60000, "faults": {"dropWhileBusy": true}})"),
         [](Desk& d, I2c& fd) {
             EXPECT_EQ(fd.write(setTo(80)) + fd.write(setTo(81)), 0);
             EXPECT_EQ(d.transactions().back().note, "busy, ignored");
             EXPECT_EQ(d.brightness("card0-DP-1"), 80);
         }},
        {"null replies, then the reply", oneMonitor("i915", "DP-1",
                                                   R"({"replyDelayMs": 0, "faults": {"nullReplies": 2, "nullFiller": 255}})"),
         [](Desk& d, I2c& fd) {
             for (int i = 0; i < 2; ++i) {
                 EXPECT_EQ(fd.write(kGet), 0);
                 EXPECT_EQ(fd.read(), nullMessage(0xFF));
             }
             EXPECT_EQ(fd.read(), nullMessage(0xFF)) << "the request was lost with the null message";
             EXPECT_EQ(fd.write(kGet), 0);
             EXPECT_EQ(fd.read(), (Bytes{0x6E, 0x88, 0x02, 0x00, 0x10, 0x00, 0x00, 0x64, 0x00, 0x32, 0xF2}));
             EXPECT_EQ(d.faults("card0-DP-1").nullReplies, 0);
         }},
        {"the null message while not ready", oneMonitor("i915", "DP-1", R"({"replyDelayMs": 60000})"),
         [](Desk&, I2c& fd) {
             EXPECT_EQ(fd.read(), nullMessage(0x00)) << "nothing asked yet";
             EXPECT_EQ(fd.write(kGet), 0);
             EXPECT_EQ(fd.read(), nullMessage(0x00));
         }},
        {"silent in standby but for the power command, then waking", oneMonitor("i915", "DP-1",
                                                                              R"({"power": 4, "wakeMs": 60000})"),
         [](Desk& d, I2c& fd) {
             EXPECT_EQ(fd.write(kGetPower), EREMOTEIO);
             EXPECT_EQ(fd.write(setTo(80)), EREMOTEIO);
             EXPECT_EQ(fd.read(), Bytes{});
             EXPECT_EQ(fd.write(kPowerOn), 0);
             EXPECT_EQ(d.powerMode("card0-DP-1"), 1);
             EXPECT_EQ(fd.write(kGetPower), EREMOTEIO) << "waking";
             EXPECT_EQ(fd.read(), nullMessage(0x00)) << "waking";
             EXPECT_EQ(d.brightness("card0-DP-1"), 50);
         }},
        {"malformed requests are taken but ignored", oneMonitor("i915", "DP-1", "{}"), [](Desk& d, I2c& fd) {
             for (const auto& [bytes, note] : {std::pair{[] { Bytes b = setTo(90); b.back() ^= 1; return b; }(), "bad checksum"},
                                               {withChecksum({0x51, 0x85, 0x03, 0x10, 0x00, 90}), "bad length"},
                                               {withChecksum({0x50, 0x84, 0x03, 0x10, 0x00, 90}), "source"}}) {
                 EXPECT_EQ(fd.write(bytes), 0) << "the bytes were acknowledged";
                 EXPECT_EQ(d.transactions().back().request, "invalid");
                 EXPECT_THAT(d.transactions().back().note, HasSubstr(note));
             }
             EXPECT_EQ(d.brightness("card0-DP-1"), 50);
             EXPECT_EQ(fd.write(setTo(90)), 0);
             EXPECT_EQ(d.brightness("card0-DP-1"), 90);
         }},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.what);
        Desk desk(c.config, kQuiet);
        I2c fd(5);
        c.action(desk, fd);
        EXPECT_THAT(desk.violations(), testing::IsEmpty());
    }
}

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
    ~Reader() { libevdev_free(dev); if (fd >= 0) ::close(fd); }
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
    const struct { const char* step; std::function<void()> action; bool aGets, bGets; } steps[] = {
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

TEST(KeyboardTest, KeysFollowTheInputCoresRules)
{
    // The presses, what a reader is given, the keys held (by the desk, and by EVIOCGKEY).
    const struct { std::vector<std::pair<int, int>> presses; Evs delivered; std::vector<int> held; } cases[] = {
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
}

TEST(KeyboardTest, AnOverflowIsResyncedByLibevdev)
{
    const std::pair<const char*, std::function<void(Desk&)>> cases[] = {
        {"on demand", [](Desk& d) { d.pressKey("event0", KEY_A, 1); d.overflow("event0"); }},
        {"a full queue", [](Desk& d) {  // 60 frames of 3 events: far more than a queue holds
             for (int i = 0; i < 60; ++i)
                 d.pressKey("event0", KEY_A, 1 - i % 2);
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
    // Only UI_DEV_DESTROY here: a clone whose descriptor is closed (a key service that dies) goes the same way in
    // the desk, and the keys' tests kill the key service itself. Closing the descriptor under libevdev here would
    // free its number to the desk's own threads while libevdev still holds it.
    Desk desk(DeskConfig::defaultDesk(), kQuiet);
    Reader source("/dev/input/event0");
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
    libevdev_uinput_destroy(ui);
    EXPECT_TRUE(desk.waitFor([&] { return desk.clones().empty(); }, 5s));
    EXPECT_EQ(desk.heldKeys(node), std::vector<int>{KEY_A}) << "recorded when it went";
    input_event e{};
    EXPECT_EQ(::read(reader.fd, &e, sizeof e) == -1 ? errno : 0, ENODEV);
}

}  // namespace
