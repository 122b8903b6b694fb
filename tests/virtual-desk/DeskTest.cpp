// What the product's own tests cannot show about the virtual desk: that its violations fire (and only then), that
// malformed requests are refused, and that sysfs and uevents look as the product expects from the kernel.
#include "tools/virtual-desk/VirtualDesk.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <fcntl.h>
#include <libudev.h>
#include <linux/i2c-dev.h>
#include <linux/i2c.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <cerrno>
#include <filesystem>
#include <fstream>
#include <thread>

using namespace std::chrono_literals;
using testing::HasSubstr;
using VirtualDesk::Desk;
using VirtualDesk::DeskConfig;
namespace fs = std::filesystem;

namespace {

using Bytes = std::vector<uint8_t>;
const VirtualDesk::DeskOptions kQuiet{"", false};

std::string readText(const std::string& path)
{
    std::ifstream in(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(in), {}};
}

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
        {[](Desk&) { // closing a descriptor ends its conversation, however soon another descriptor talks
             for (int i = 0; i < 200; ++i)
                 I2c(3).write(kGet);
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
DeskConfig oneMonitor(const std::string& driver, const std::string& connector, const std::string& monitor,
                      const std::string& ddc = "")
{
    return DeskConfig::fromJson(R"({"cards": [{"driver": ")" + driver + R"(", "connectors": [{"name": ")" + connector +
                                R"(", "ddc": {"bus": 5)" + ddc + R"(}, "monitor": )" + monitor + "}]}]}");
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
        {"a compositor's output name (sway's headless outputs) names a connector", oneMonitor("i915", "HEADLESS-1", "{}"),
         [](Desk& d, I2c& fd) {
             EXPECT_EQ(fd.write(setTo(80)), 0);
             EXPECT_EQ(d.brightness("card0-HEADLESS-1"), 80);
         }},
        {"NAK while busy, i915 gmbus", oneMonitor("i915", "HDMI-A-1", R"({"busyMs": 60000})"),
         [](Desk&, I2c& fd) { EXPECT_EQ(fd.write(setTo(80)) + fd.write(setTo(81)), ENXIO); }},
        {"NAK while busy, amdgpu", oneMonitor("amdgpu", "HDMI-A-1", R"({"busyMs": 60000})"),
         [](Desk&, I2c& fd) { EXPECT_EQ(fd.write(setTo(80)) + fd.write(setTo(81)), EIO); }},
        {"NAK as the desk file says", oneMonitor("i915", "DP-1", R"({"busyMs": 60000})", R"(, "nakErrno": "ETIMEDOUT")"),
         [](Desk&, I2c& fd) { EXPECT_EQ(fd.write(setTo(80)) + fd.write(setTo(81)), ETIMEDOUT); }},
        {"ignore while busy", oneMonitor("i915", "DP-1", R"({"busyMs": 60000, "faults": {"dropWhileBusy": true}})"),
         [](Desk& d, I2c& fd) {
             EXPECT_EQ(fd.write(setTo(80)) + fd.write(setTo(81)), 0);
             EXPECT_EQ(d.transactions().back().note, "busy, ignored");
             EXPECT_EQ(d.brightness("card0-DP-1"), 80);
         }},
        {"lenient: busy changes nothing", oneMonitor("i915", "DP-1", R"({"profile": "lenient", "busyMs": 60000})"),
         [](Desk& d, I2c& fd) {
             EXPECT_EQ(fd.write(setTo(80)) + fd.write(setTo(81)), 0);
             EXPECT_EQ(d.brightness("card0-DP-1"), 81);
         }},
        {"made lenient at run time", oneMonitor("i915", "DP-1", R"({"busyMs": 60000})"),
         [](Desk& d, I2c& fd) {
             EXPECT_EQ(d.control("profile card0-DP-1 lenient"), "ok");
             EXPECT_EQ(fd.write(setTo(80)) + fd.write(setTo(81)), 0);
             EXPECT_EQ(d.brightness("card0-DP-1"), 81);
             EXPECT_EQ(d.control("profile card0-DP-1 realistic"), "ok");
             EXPECT_EQ(fd.write(setTo(82)), EREMOTEIO);
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
        {"lenient: a NAK while not ready", oneMonitor("i915", "DP-1", R"({"profile": "lenient", "replyDelayMs": 60000})"),
         [](Desk&, I2c& fd) {
             EXPECT_EQ(fd.write(kGet), 0);
             EXPECT_EQ(fd.read(), Bytes{});
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
        {"awake after wakeMs; its own button wakes it too", oneMonitor("i915", "DP-1", R"({"power": 5, "wakeMs": 100})"),
         [](Desk& d, I2c& fd) {
             d.setPowerMode("card0-DP-1", 1);
             std::this_thread::sleep_for(150ms); // the monitor's time passes; nothing else to wait for
             EXPECT_EQ(fd.write(kGetPower), 0);
             EXPECT_EQ(fd.write(setTo(80)), 0);
             EXPECT_EQ(d.brightness("card0-DP-1"), 80);
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

TEST(DeskTest, SysfsLayoutWithAndWithoutI2cDev)
{
    for (bool i2cDev : {true, false}) {
        SCOPED_TRACE(i2cDev);
        auto config = DeskConfig::defaultDesk();
        config.i2cDev = i2cDev;
        for (auto& c : config.cards[0].connectors)
            c.connectorId = i2cDev ? c.connectorId : std::nullopt; // no connector_id: as older kernels show it
        Desk desk(config, kQuiet);
        const std::string dp1 = "/sys/class/drm/card0-DP-1/", dp2 = "/sys/class/drm/card0-DP-2/";
        EXPECT_EQ(readText(dp1 + "status") + readText(dp1 + "enabled") + readText(dp1 + "dpms"), "connected\nenabled\nOn\n");
        EXPECT_EQ(readText(dp2 + "status") + readText(dp2 + "enabled") + readText(dp2 + "edid"), "disconnected\ndisabled\n");
        EXPECT_EQ(readText(dp1 + "edid").size(), 128u);
        EXPECT_EQ(fs::exists(dp1 + "connector_id") ? readText(dp1 + "connector_id") : "none", i2cDev ? "103\n" : "none");
        // DisplayPort: the AUX adapter is a child of the connector; HDMI: a `ddc` link to the adapter.
        EXPECT_TRUE(fs::is_directory(dp1 + "i2c-5"));
        EXPECT_FALSE(fs::exists(dp1 + "ddc"));
        EXPECT_EQ(fs::canonical("/sys/class/drm/card0-HDMI-A-1/ddc"), "/sys/devices/pci0000:00/0000:00:02.0/i2c-3");
        EXPECT_EQ(fs::is_directory("/sys/class/drm/card0-HDMI-A-1/ddc/i2c-dev/i2c-3"), i2cDev);
        EXPECT_EQ(fs::is_directory(dp1 + "i2c-5/i2c-dev/i2c-5"), i2cDev);
        EXPECT_EQ(fs::exists("/sys/class/i2c-dev"), i2cDev);
        EXPECT_EQ(fs::exists("/dev/i2c-5"), i2cDev);
    }
}

TEST(DeskTest, UnplugIsSeenByALibudevMonitor)
{
    Desk desk(DeskConfig::defaultDesk(), kQuiet);
    udev* u = udev_new();
    udev_monitor* mon = udev_monitor_new_from_netlink(u, "udev");
    udev_monitor_filter_add_match_subsystem_devtype(mon, "drm", nullptr);
    ASSERT_EQ(udev_monitor_enable_receiving(mon), 0);
    desk.unplug("card0-DP-1");
    pollfd p{udev_monitor_get_fd(mon), POLLIN, 0};
    ASSERT_EQ(::poll(&p, 1, 5000), 1);
    udev_device* dev = udev_monitor_receive_device(mon);
    ASSERT_NE(dev, nullptr);
    EXPECT_STREQ(udev_device_get_action(dev), "change");
    EXPECT_STREQ(udev_device_get_sysname(dev), "card0");
    EXPECT_STREQ(udev_device_get_property_value(dev, "HOTPLUG"), "1");
    EXPECT_EQ(readText("/sys/class/drm/card0-DP-1/status"), "disconnected\n");
    udev_device_unref(dev);
    udev_monitor_unref(mon);
    udev_unref(u);
}

} // namespace

namespace {

// card0 with an MST port (DP-3 on "DPMST" i2c-7 under the PCI device, its EEPROM's address left at 200 by the
// last reader) and an amdgpu-like SMU bus under the same PCI device; the SMBus adapter under its own controller.
DeskConfig mstDesk()
{
    return DeskConfig::fromJson(R"({"cards": [{"connectors": [
        {"name": "DP-1", "status": "disconnected", "ddc": {"bus": 5}},
        {"name": "DP-3", "edid": {"vendor": "DEL", "model": 41156, "name": "DELL P2419H"},
         "ddc": {"bus": 7, "via": "pci", "eepromAddress": 200}, "monitor": {}}]}],
      "otherBuses": [{"bus": 9, "name": "AMDGPU SMU 0", "card": 0}, {"bus": 0, "name": "SMBus I801 adapter at efa0"}]})");
}

} // namespace

TEST(DeskTest, AdaptersThatNothingLinksSitUnderTheCardsPCIDevice)
{
    Desk desk(mstDesk(), kQuiet);
    const std::string pci = "/sys/devices/pci0000:00/0000:00:02.0";
    EXPECT_EQ(fs::canonical("/sys/class/drm/card0/device"), pci);
    EXPECT_FALSE(fs::exists("/sys/class/drm/card0-DP-3/ddc"));
    EXPECT_FALSE(fs::exists("/sys/class/drm/card0-DP-3/i2c-7"));
    EXPECT_EQ(readText(pci + "/i2c-7/name"), "DPMST\n");
    EXPECT_EQ(readText(pci + "/i2c-9/name"), "AMDGPU SMU 0\n");
    EXPECT_TRUE(fs::is_directory(pci + "/i2c-7/i2c-dev/i2c-7"));
    EXPECT_EQ(fs::canonical("/sys/class/i2c-dev/i2c-0"), "/sys/devices/pci0000:00/0000:00:1f.4/i2c-0/i2c-dev/i2c-0");
    EXPECT_TRUE(fs::exists("/dev/i2c-9"));
}

TEST(DeskTest, TheEDIDEEPROMAnswersFromWhereTheLastReadStoppedAndAnMSTPortRefusesLongMessages)
{
    Desk desk(mstDesk(), kQuiet);
    Bytes eeprom = VirtualDesk::EdidConfig{"DEL", 41156, 0, "DELL P2419H", std::nullopt, std::nullopt}.bytes();
    eeprom.insert(eeprom.end(), 128, 0xFF);  // a 256-byte EEPROM holding one block
    auto from = [&](size_t at, size_t n) {
        Bytes out;
        for (size_t i = 0; i < n; ++i)
            out.push_back(eeprom[(at + i) % 256]);
        return out;
    };
    I2c fd(7);
    EXPECT_EQ(fd.read(128, 0x50), from(200, 128));
    EXPECT_EQ(fd.read(100, 0x50), from(72, 100)) << "on from where the last read stopped, wrapping at 256";
    EXPECT_EQ(I2c(7).read(56, 0x50), from(172, 56)) << "the address belongs to the EEPROM, not to a descriptor";
    EXPECT_EQ(fd.read(255, 0x50).size(), 255u);
    Bytes tooLong(256);
    EXPECT_EQ(fd.transfer(0x50, tooLong, true), EIO) << "an MST port carries at most 255 bytes a message";
    EXPECT_EQ(desk.transactions().back().outcome, "EIO");
    EXPECT_EQ(I2c(5).read(256, 0x50).size(), 0u) << "a disconnected port's EEPROM does not answer";
    EXPECT_THAT(desk.violations(), testing::IsEmpty());

    fd.write({0x10}, 0x50);  // an offset write moves the address, and is a violation all the same
    EXPECT_EQ(fd.read(16, 0x50), from(0x10, 16));
    EXPECT_THAT(desk.violations(), testing::ElementsAre(HasSubstr("wrote to address 0x50")));
}

TEST(DeskTest, OpensAreCountedPerBusAndI2cDevCanBeLoadedLater)
{
    auto config = mstDesk();
    config.i2cDev = false;
    Desk desk(config, kQuiet);
    EXPECT_FALSE(fs::exists("/sys/class/i2c-dev"));
    EXPECT_FALSE(fs::exists("/dev/i2c-7"));
    udev* u = udev_new();
    udev_monitor* mon = udev_monitor_new_from_netlink(u, "udev");
    udev_monitor_filter_add_match_subsystem_devtype(mon, "i2c-dev", nullptr);
    ASSERT_EQ(udev_monitor_enable_receiving(mon), 0);

    desk.loadI2cDev();
    EXPECT_TRUE(fs::is_directory("/sys/class/i2c-dev"));
    EXPECT_EQ(readText("/sys/class/i2c-dev/i2c-7/name"), "DPMST\n");
    pollfd p{udev_monitor_get_fd(mon), POLLIN, 0};
    ASSERT_EQ(::poll(&p, 1, 5000), 1);
    udev_device* dev = udev_monitor_receive_device(mon);
    ASSERT_NE(dev, nullptr);
    EXPECT_STREQ(udev_device_get_action(dev), "add");
    udev_device_unref(dev);
    udev_monitor_unref(mon);
    udev_unref(u);

    {
        I2c a(7), b(7);
        EXPECT_EQ(a.write(kGet), 0) << "the monitor answers on the node that appeared";
        EXPECT_EQ(b.read(128, 0x50).size(), 128u);
    }
    I2c c(9);
    EXPECT_TRUE(desk.waitFor([&] { return desk.opens(7) == 2 && desk.opens(9) == 1; }, 5s));
    EXPECT_EQ(desk.opens(0), 0);
}
