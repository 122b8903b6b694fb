// SPDX-License-Identifier: GPL-3.0-or-later
// What the product's own tests cannot show about the virtual desk: that its violations fire (and only then), that
// monitors answer as busy, slow or sleeping monitors do, and that malformed requests are refused.
#include "tools/virtual-desk/VirtualDesk.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <fcntl.h>
#include <linux/i2c-dev.h>
#include <linux/i2c.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <cerrno>
#include <fstream>
#include <functional>
#include <thread>

using namespace std::chrono_literals;
using testing::HasSubstr;
using VirtualDesk::Desk;
using VirtualDesk::DeskConfig;

namespace {

using Bytes = std::vector<uint8_t>;
const VirtualDesk::DeskOptions kQuiet{"", false};

Bytes withChecksum(Bytes b) // 0x6E (the monitor's address) XOR every byte from 0x51 on
{
    uint8_t sum = 0x6E;
    for (uint8_t x : b)
        sum ^= x;
    b.push_back(sum);
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

// DP-1 (bus 5) replies at once; HDMI-A-1 (bus 3) keeps a Get conversation open for 2 s. Lenient monitors: these
// cases are about the desk's rules, not about how busy monitors answer.
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
        if (violation.empty())
            EXPECT_THAT(desk.violations(), testing::IsEmpty());
        else
            EXPECT_THAT(desk.violations(), testing::ElementsAre(HasSubstr(violation)));
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
    const struct {
        const char* what;
        DeskConfig config;
        std::function<void(Desk&, I2c&)> action;
    } cases[] = {
        {"NAK while busy, DisplayPort AUX", oneMonitor("i915", "DP-1", R"({"busyMs": 60000})"),
         [](Desk& d, I2c& fd) {
             EXPECT_EQ(fd.write(setTo(80)), 0);
             EXPECT_EQ(fd.write(setTo(81)), EREMOTEIO);
             EXPECT_EQ(fd.write(kGet), EREMOTEIO);
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
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.what);
        Desk desk(c.config, kQuiet);
        I2c fd(5);
        c.action(desk, fd);
        EXPECT_THAT(desk.violations(), testing::IsEmpty());
    }
}

TEST(DeskTest, MalformedRequestsAreTakenButIgnored)
{
    Desk desk(deskWithDelays(), kQuiet);
    I2c fd(5);
    Bytes badSum = setTo(90);
    badSum.back() ^= 1;
    const std::pair<Bytes, std::string> cases[] = {{badSum, "bad checksum"},
                                                   {withChecksum({0x51, 0x85, 0x03, 0x10, 0x00, 90}), "bad length"},
                                                   {withChecksum({0x50, 0x84, 0x03, 0x10, 0x00, 90}), "source"}};
    for (const auto& [bytes, note] : cases) {
        EXPECT_EQ(fd.write(bytes), 0) << "the bytes were acknowledged";
        EXPECT_EQ(desk.transactions().back().request, "invalid");
        EXPECT_THAT(desk.transactions().back().note, HasSubstr(note));
    }
    EXPECT_EQ(desk.brightness("card0-DP-1"), 50);
    EXPECT_EQ(fd.write(setTo(90)), 0);
    EXPECT_EQ(desk.brightness("card0-DP-1"), 90);
}

} // namespace
