// The virtual desk checked from outside, through the kernel-style interfaces a program sees under umockdev:
// sysfs, /dev/i2c-N with I2C_RDWR / I2C_SLAVE + read/write, and uevents.
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
#include <sstream>
#include <thread>

using namespace std::chrono_literals;
using testing::HasSubstr;
using testing::IsEmpty;
using VirtualDesk::Desk;
using VirtualDesk::DeskConfig;
namespace fs = std::filesystem;

namespace {

using Bytes = std::vector<uint8_t>;

std::string readText(const std::string& path)
{
    std::ifstream in(path, std::ios::binary);
    std::stringstream ss;
    ss << in.rdbuf();
    return ss.str();
}

uint8_t requestChecksum(const Bytes& bytes) // over 0x51 and what follows, seeded with the 0x6E address
{
    uint8_t sum = 0x6E;
    for (uint8_t b : bytes)
        sum ^= b;
    return sum;
}

Bytes getVcp(uint8_t code)
{
    Bytes b = {0x51, 0x82, 0x01, code};
    b.push_back(requestChecksum(b));
    return b;
}

Bytes setVcp(uint8_t code, uint16_t value)
{
    Bytes b = {0x51, 0x84, 0x03, code, static_cast<uint8_t>(value >> 8), static_cast<uint8_t>(value & 0xFF)};
    b.push_back(requestChecksum(b));
    return b;
}

// One I2C_RDWR message; returns 0 or the errno.
int transfer(int fd, uint16_t addr, bool read, Bytes& buffer)
{
    i2c_msg msg{addr, static_cast<uint16_t>(read ? I2C_M_RD : 0), static_cast<uint16_t>(buffer.size()), buffer.data()};
    i2c_rdwr_ioctl_data data{&msg, 1};
    return ::ioctl(fd, I2C_RDWR, &data) < 0 ? errno : 0;
}

int write37(int fd, Bytes bytes)
{
    return transfer(fd, 0x37, false, bytes);
}

int read37(int fd, Bytes& reply)
{
    reply.assign(11, 0);
    return transfer(fd, 0x37, true, reply);
}

class Fd {
public:
    explicit Fd(int bus) : fd(::open(("/dev/i2c-" + std::to_string(bus)).c_str(), O_RDWR | O_CLOEXEC)) {}
    ~Fd()
    {
        if (fd >= 0)
            ::close(fd);
    }
    operator int() const { return fd; }
    int fd;
};

class DeskTest : public testing::Test {
protected:
    DeskConfig config = DeskConfig::defaultDesk();
    std::unique_ptr<Desk> desk;

    void start() { desk = std::make_unique<Desk>(config, VirtualDesk::DeskOptions{"", false}); }
    VirtualDesk::MonitorConfig& monitorOf(const std::string& name)
    {
        for (auto& c : config.cards[0].connectors)
            if (c.name == name)
                return *c.monitor;
        throw std::logic_error("no " + name);
    }
};

TEST_F(DeskTest, SysfsLayoutIsWhatTheKernelShows)
{
    start();
    std::vector<std::string> names;
    for (const auto& e : fs::directory_iterator("/sys/class/drm"))
        names.push_back(e.path().filename());
    std::sort(names.begin(), names.end());
    EXPECT_EQ(names, (std::vector<std::string>{"card0", "card0-DP-1", "card0-DP-2", "card0-HDMI-A-1", "card0-eDP-1",
                                               "renderD128"}));

    EXPECT_EQ(readText("/sys/class/drm/card0-DP-1/status"), "connected\n");
    EXPECT_EQ(readText("/sys/class/drm/card0-DP-1/enabled"), "enabled\n");
    EXPECT_EQ(readText("/sys/class/drm/card0-DP-1/connector_id"), "103\n");
    EXPECT_EQ(readText("/sys/class/drm/card0-DP-2/status"), "disconnected\n");
    EXPECT_EQ(readText("/sys/class/drm/card0-DP-2/edid"), "");

    // EDID: vendor DEL = 0x10AC big-endian at 8-9, model 0xA0C4 little-endian at 10-11, name descriptor.
    const std::string edid = readText("/sys/class/drm/card0-DP-1/edid");
    ASSERT_EQ(edid.size(), 128u);
    EXPECT_EQ(static_cast<uint8_t>(edid[8]), 0x10);
    EXPECT_EQ(static_cast<uint8_t>(edid[9]), 0xAC);
    EXPECT_EQ(static_cast<uint8_t>(edid[10]), 0xC4);
    EXPECT_EQ(static_cast<uint8_t>(edid[11]), 0xA0);
    EXPECT_THAT(edid, HasSubstr("DELL U2720Q\n"));
    int sum = 0;
    for (char c : edid)
        sum += static_cast<uint8_t>(c);
    EXPECT_EQ(sum % 256, 0);

    // HDMI: a ddc link to the adapter; DisplayPort: an i2c-N child of the connector. Each adapter has its i2c-dev.
    EXPECT_EQ(fs::canonical("/sys/class/drm/card0-HDMI-A-1/ddc"), fs::path("/sys/devices/pci0000:00/0000:00:02.0/i2c-3"));
    EXPECT_TRUE(fs::is_directory("/sys/class/drm/card0-HDMI-A-1/ddc/i2c-dev/i2c-3"));
    EXPECT_THAT(readText("/sys/class/drm/card0-HDMI-A-1/ddc/i2c-dev/i2c-3/uevent"), HasSubstr("DEVNAME=i2c-3")); // as the kernel writes it
    EXPECT_TRUE(fs::is_directory("/sys/class/drm/card0-DP-1/i2c-5/i2c-dev/i2c-5"));
    EXPECT_EQ(readText("/sys/class/drm/card0-DP-1/i2c-5/name"), "AUX B/DDI B/PHY B\n");
    EXPECT_TRUE(fs::exists("/sys/class/i2c-dev"));
    EXPECT_EQ(desk->busNumber("card0-DP-1"), 5);
    EXPECT_EQ(desk->busNumber("card0-HDMI-A-1"), 3);

    // The panel's backlight sits under its connector and is also in /sys/class/backlight.
    EXPECT_EQ(fs::canonical("/sys/class/backlight/intel_backlight"),
              fs::path("/sys/devices/pci0000:00/0000:00:02.0/drm/card0/card0-eDP-1/intel_backlight"));
    EXPECT_EQ(readText("/sys/class/backlight/intel_backlight/max_brightness"), "19200\n");
    EXPECT_EQ(readText("/sys/class/backlight/intel_backlight/type"), "raw\n");
}

TEST_F(DeskTest, WithoutI2cDevThereIsNoClassAndNoNodes)
{
    config.i2cDev = false;
    config.cards[0].connectors[1].connectorId.reset();
    start();
    EXPECT_FALSE(fs::exists("/sys/class/i2c-dev"));
    EXPECT_FALSE(fs::exists("/dev/i2c-5"));
    EXPECT_TRUE(fs::is_directory("/sys/class/drm/card0-DP-1/i2c-5")); // the adapter itself stays
    EXPECT_FALSE(fs::exists("/sys/class/drm/card0-DP-1/connector_id"));
}

TEST_F(DeskTest, GetVcpIsAnsweredAfterTheReplyDelay)
{
    monitorOf("DP-1").replyDelayMs = 200; // long enough that "read at once" is early even on a loaded machine
    start();
    Fd fd(desk->busNumber("card0-DP-1"));
    ASSERT_GE(fd, 0);
    Bytes reply;
    EXPECT_EQ(read37(fd, reply), EREMOTEIO) << "nothing requested yet";
    ASSERT_EQ(write37(fd, getVcp(0x10)), 0);
    EXPECT_EQ(read37(fd, reply), EREMOTEIO) << "read at once: the reply is not ready";
    std::this_thread::sleep_for(250ms); // a host waits before reading the reply
    ASSERT_EQ(read37(fd, reply), 0);
    EXPECT_EQ(reply, (Bytes{0x6E, 0x88, 0x02, 0x00, 0x10, 0x00, 0x00, 0x64, 0x00, 0x32, 0xF2}));

    const auto log = desk->transactions();
    ASSERT_EQ(log.size(), 4u);
    EXPECT_EQ(log[0].note, "nothing pending");
    EXPECT_EQ(log[1].request, "get");
    EXPECT_EQ(log[1].code, 0x10);
    EXPECT_EQ(log[1].bytes, getVcp(0x10));
    EXPECT_EQ(log[2].note, "not ready");
    EXPECT_EQ(log[3].request, "reply");
    EXPECT_EQ(log[3].value, 50);
    EXPECT_EQ(log[3].outcome, "ok");
    EXPECT_GE(log[3].startUs - log[1].startUs, 200000);
    EXPECT_THAT(desk->violations(), IsEmpty());
}

TEST_F(DeskTest, SetVcpWithSlaveAddressAndPlainWrites)
{
    auto& m = monitorOf("HDMI-A-1");
    m.max = 300;
    m.replyDelayMs = 0;
    start();
    Fd fd(3);
    ASSERT_EQ(::ioctl(fd, I2C_SLAVE, 0x37), 0);
    unsigned long funcs = 0;
    ASSERT_EQ(::ioctl(fd, I2C_FUNCS, &funcs), 0);
    EXPECT_TRUE(funcs & I2C_FUNC_I2C);

    const Bytes set = setVcp(0x10, 250);
    ASSERT_EQ(::write(fd, set.data(), set.size()), static_cast<ssize_t>(set.size()));
    EXPECT_EQ(desk->brightness("card0-HDMI-A-1"), 250);
    const Bytes standby = setVcp(0xD6, 4);
    ASSERT_EQ(::write(fd, standby.data(), standby.size()), static_cast<ssize_t>(standby.size()));
    EXPECT_EQ(desk->powerMode("card0-HDMI-A-1"), 4);

    const Bytes get = getVcp(0x10);
    ASSERT_EQ(::write(fd, get.data(), get.size()), static_cast<ssize_t>(get.size()));
    Bytes reply(11);
    ASSERT_EQ(::read(fd, reply.data(), reply.size()), 11) << "answers brightness reads in standby too";
    EXPECT_EQ(reply[6] << 8 | reply[7], 300);
    EXPECT_EQ(reply[8] << 8 | reply[9], 250);
    EXPECT_THAT(desk->violations(), IsEmpty());
}

TEST_F(DeskTest, BadRequestsAreRecordedAndIgnored)
{
    start();
    Fd fd(5);
    Bytes bad = getVcp(0x10);
    bad.back() ^= 0x01;
    ASSERT_EQ(write37(fd, bad), 0) << "the monitor takes the bytes";
    Bytes wrongLength = {0x51, 0x83, 0x01, 0x10};
    wrongLength.push_back(requestChecksum(wrongLength));
    ASSERT_EQ(write37(fd, wrongLength), 0);
    ASSERT_EQ(write37(fd, setVcp(0x10, 90)), 0);
    std::this_thread::sleep_for(50ms);
    Bytes reply;
    EXPECT_EQ(read37(fd, reply), EREMOTEIO) << "no reply was prepared";

    const auto log = desk->transactions();
    ASSERT_GE(log.size(), 3u);
    EXPECT_EQ(log[0].request, "invalid");
    EXPECT_EQ(log[0].note, "bad checksum");
    EXPECT_EQ(log[1].note, "bad length byte");
    EXPECT_EQ(desk->brightness("card0-DP-1"), 90);
}

TEST_F(DeskTest, FaultsShapeTheReplies)
{
    auto& m = monitorOf("DP-1");
    m.replyDelayMs = 0;
    m.faults.badChecksumReplies = 1;
    m.faults.nakWhileBusy = true;
    m.busyMs = 2000; // the second set surely comes within it
    start();
    Fd fd(5);
    Bytes reply;
    ASSERT_EQ(write37(fd, getVcp(0x10)), 0);
    ASSERT_EQ(read37(fd, reply), 0);
    EXPECT_NE(reply[10], 0xF2) << "the first reply's checksum is wrong";
    ASSERT_EQ(write37(fd, getVcp(0x10)), 0);
    ASSERT_EQ(read37(fd, reply), 0);
    EXPECT_EQ(reply[10], 0xF2);

    ASSERT_EQ(write37(fd, setVcp(0x10, 20)), 0);
    EXPECT_EQ(write37(fd, setVcp(0x10, 20)), EREMOTEIO) << "busy after a set";
    EXPECT_EQ(desk->transactions().back().note, "busy");

    auto f = desk->faults("card0-DP-1");
    f = {};
    f.unplugged = true;
    desk->setFaults("card0-DP-1", f);
    EXPECT_EQ(write37(fd, getVcp(0x10)), ENXIO);
    f = {};
    f.neverAnswer = true;
    f.maxZero = true;
    desk->setFaults("card0-DP-1", f);
    ASSERT_EQ(write37(fd, getVcp(0x10)), 0);
    EXPECT_EQ(read37(fd, reply), EREMOTEIO);
    EXPECT_THAT(desk->violations(), IsEmpty());
}

TEST_F(DeskTest, EdidAnswersAt0x50ButWritingTheOffsetIsAViolation)
{
    start();
    Fd fd(3);
    Bytes edid(128);
    ASSERT_EQ(transfer(fd, 0x50, true, edid), 0);
    const std::string sysfs = readText("/sys/class/drm/card0-HDMI-A-1/edid");
    EXPECT_EQ(std::string(edid.begin(), edid.end()), sysfs);
    EXPECT_THAT(desk->violations(), IsEmpty()) << "reads at 0x50 are fine";

    Bytes offset = {0x00};
    ASSERT_EQ(transfer(fd, 0x50, false, offset), 0);
    const auto v = desk->violations();
    ASSERT_EQ(v.size(), 1u);
    EXPECT_THAT(v[0], HasSubstr("0x50"));
}

TEST_F(DeskTest, RequestsFromTwoDescriptorsOverlapping)
{
    monitorOf("DP-1").replyDelayMs = 300; // a's conversation stays open at least this long
    start();
    Fd a(5), b(5);
    Bytes reply;
    // One descriptor asking twice and then reading: how a host retries. Fine.
    ASSERT_EQ(write37(a, getVcp(0x10)), 0);
    ASSERT_EQ(write37(a, getVcp(0x10)), 0);
    std::this_thread::sleep_for(350ms);
    ASSERT_EQ(read37(a, reply), 0);
    // Then b, after a read its reply: fine.
    ASSERT_EQ(write37(b, getVcp(0x10)), 0);
    std::this_thread::sleep_for(350ms);
    ASSERT_EQ(read37(b, reply), 0);
    EXPECT_THAT(desk->violations(), IsEmpty());

    // a asks, b talks before a read its answer: two conversations with one monitor at once.
    ASSERT_EQ(write37(a, getVcp(0x10)), 0);
    ASSERT_EQ(write37(b, setVcp(0x10, 10)), 0);
    const auto v = desk->violations();
    ASSERT_EQ(v.size(), 1u);
    EXPECT_THAT(v[0], HasSubstr("overlapping"));
}

TEST_F(DeskTest, HoldKeepsASetBlockedUntilRelease)
{
    start();
    desk->hold("card0-DP-1");
    int result = -1;
    std::thread writer([&] {
        Fd fd(5);
        result = write37(fd, setVcp(0x10, 77));
    });
    ASSERT_TRUE(desk->waitFor([&] { return desk->heldCount("card0-DP-1") == 1; }, 5s));
    EXPECT_EQ(desk->brightness("card0-DP-1"), 50);
    desk->release("card0-DP-1");
    writer.join();
    EXPECT_EQ(result, 0);
    EXPECT_EQ(desk->brightness("card0-DP-1"), 77);
    EXPECT_THAT(desk->violations(), IsEmpty());
}

TEST_F(DeskTest, ATransferWhileAnotherIsOnTheWireIsAViolation)
{
    start();
    desk->hold("card0-DP-1");
    std::thread writer([&] {
        Fd fd(5);
        write37(fd, setVcp(0x10, 60));
    });
    ASSERT_TRUE(desk->waitFor([&] { return desk->heldCount("card0-DP-1") == 1; }, 5s));
    {
        Fd other(5);
        Bytes reply;
        read37(other, reply);
    }
    desk->release("card0-DP-1");
    writer.join();
    const auto v = desk->violations();
    ASSERT_EQ(v.size(), 1u);
    EXPECT_THAT(v[0], HasSubstr("two transfers in flight"));
}

TEST_F(DeskTest, UnplugChangesSysfsAndSendsAHotplugUevent)
{
    start();
    udev* u = udev_new();
    udev_monitor* mon = udev_monitor_new_from_netlink(u, "udev");
    ASSERT_NE(mon, nullptr);
    udev_monitor_filter_add_match_subsystem_devtype(mon, "drm", nullptr);
    ASSERT_EQ(udev_monitor_enable_receiving(mon), 0);

    desk->unplug("card0-DP-1");
    pollfd p{udev_monitor_get_fd(mon), POLLIN, 0};
    ASSERT_EQ(::poll(&p, 1, 5000), 1);
    udev_device* dev = udev_monitor_receive_device(mon);
    ASSERT_NE(dev, nullptr);
    EXPECT_STREQ(udev_device_get_action(dev), "change");
    EXPECT_STREQ(udev_device_get_sysname(dev), "card0");
    EXPECT_STREQ(udev_device_get_property_value(dev, "HOTPLUG"), "1");
    udev_device_unref(dev);

    EXPECT_EQ(readText("/sys/class/drm/card0-DP-1/status"), "disconnected\n");
    EXPECT_EQ(readText("/sys/class/drm/card0-DP-1/enabled"), "disabled\n");
    EXPECT_EQ(readText("/sys/class/drm/card0-DP-1/edid"), "");
    {
        Fd fd(5);
        EXPECT_EQ(write37(fd, getVcp(0x10)), ENXIO);
    }
    desk->plug("card0-DP-1");
    EXPECT_EQ(readText("/sys/class/drm/card0-DP-1/status"), "connected\n");
    EXPECT_EQ(readText("/sys/class/drm/card0-DP-1/edid").size(), 128u);
    udev_monitor_unref(mon);
    udev_unref(u);
}

// Waits for the next uevent on the monitor; empty strings when none comes within the time limit.
std::pair<std::string, std::string> nextUevent(udev_monitor* mon)
{
    pollfd p{udev_monitor_get_fd(mon), POLLIN, 0};
    if (::poll(&p, 1, 5000) != 1)
        return {};
    udev_device* dev = udev_monitor_receive_device(mon);
    if (!dev)
        return {};
    std::pair<std::string, std::string> r{udev_device_get_action(dev), udev_device_get_sysname(dev)};
    udev_device_unref(dev);
    return r;
}

TEST_F(DeskTest, ConnectorsComeAndGo)
{
    start();
    udev* u = udev_new();
    udev_monitor* mon = udev_monitor_new_from_netlink(u, "udev");
    udev_monitor_filter_add_match_subsystem_devtype(mon, "drm", nullptr);
    ASSERT_EQ(udev_monitor_enable_receiving(mon), 0);

    VirtualDesk::ConnectorConfig port;
    port.name = "DP-3";
    port.connectorId = 120;
    port.edid = VirtualDesk::EdidConfig{"SAM", 0x7123, 7, "Odyssey G7", std::nullopt};
    port.ddc = VirtualDesk::DdcConfig{9, VirtualDesk::DdcVia::Aux, ""};
    port.monitor = VirtualDesk::MonitorConfig{};
    port.monitor->replyDelayMs = 0;
    desk->addConnector(0, port);
    using Event = std::pair<std::string, std::string>;
    EXPECT_EQ(nextUevent(mon), (Event{"add", "card0-DP-3"}));
    EXPECT_EQ(nextUevent(mon), (Event{"change", "card0"}));
    EXPECT_EQ(readText("/sys/class/drm/card0-DP-3/status"), "connected\n");
    EXPECT_EQ(readText("/sys/class/drm/card0-DP-3/connector_id"), "120\n");
    EXPECT_TRUE(fs::is_directory("/sys/class/drm/card0-DP-3/i2c-9/i2c-dev/i2c-9"));
    {
        Fd fd(9);
        Bytes reply;
        ASSERT_EQ(write37(fd, getVcp(0x10)), 0);
        ASSERT_EQ(read37(fd, reply), 0);
        EXPECT_EQ(reply[9], 50);

        desk->removeConnector("card0-DP-3");
        EXPECT_EQ(nextUevent(mon), (Event{"remove", "card0-DP-3"}));
        EXPECT_EQ(nextUevent(mon), (Event{"change", "card0"}));
        EXPECT_FALSE(fs::exists("/sys/class/drm/card0-DP-3"));
        EXPECT_FALSE(fs::exists("/sys/class/i2c-dev/i2c-9"));
        EXPECT_EQ(write37(fd, getVcp(0x10)), ENODEV) << "a descriptor of a removed bus fails";
    }
    EXPECT_EQ(desk->connectors().size(), 4u);
    EXPECT_THAT(desk->control(R"(add 0 {"name":"DP-3","ddc":{"bus":9},"monitor":{}})"), HasSubstr("error: bus 9"));
    EXPECT_THAT(desk->control(R"(add 0 {"name":"DP-3","ddc":{"bus":10},"monitor":{"current":5}})"), "ok");
    EXPECT_EQ(desk->brightness("card0-DP-3"), 5);
    EXPECT_THAT(desk->control("remove card0-DP-3"), "ok");
    EXPECT_THAT(desk->control("remove card0-DP-3"), HasSubstr("error: no connector"));
    EXPECT_THAT(desk->violations(), IsEmpty());
    udev_monitor_unref(mon);
    udev_unref(u);
}

TEST_F(DeskTest, BacklightWritesAreSeen)
{
    start();
    EXPECT_EQ(desk->backlightBrightness("intel_backlight"), 9600);
    {
        std::ofstream out("/sys/class/backlight/intel_backlight/brightness", std::ios::trunc);
        out << "4800\n";
    }
    EXPECT_TRUE(desk->waitFor([&] { return readText("/sys/class/backlight/intel_backlight/actual_brightness") == "4800\n"; }, 5s));
    EXPECT_EQ(desk->backlightBrightness("intel_backlight"), 4800);
    EXPECT_THAT(desk->violations(), IsEmpty());
}

TEST(DeskConfigTest, BadDeskFilesNameTheField)
{
    auto error = [](std::string_view json) {
        try {
            DeskConfig::fromJson(json);
        } catch (const std::runtime_error& e) {
            return std::string(e.what());
        }
        return std::string("no error");
    };
    EXPECT_THAT(error(R"({"cards":[{"connectors":[{"name":"DP-1","monitor":{"max":100}}]}]})"),
                HasSubstr("cards[0].connectors[0].monitor"));
    EXPECT_THAT(error(R"({"cards":[{"connectors":[{"name":"DP-1","ddc":{"bus":5},"monitor":{"repyDelayMs":3}}]}]})"),
                HasSubstr("cards[0].connectors[0].monitor.repyDelayMs: unknown key"));
    EXPECT_THAT(error(R"({"cards":[{"connectors":[{"name":"XX-1"}]}]})"), HasSubstr("cards[0].connectors[0].name"));
    EXPECT_THAT(error(R"({"cards":[{"connectors":[{"name":"DP-1","ddc":{"bus":5}},{"name":"DP-2","ddc":{"bus":5}}]}]})"),
                HasSubstr("used twice"));
    EXPECT_THAT(error("{"), HasSubstr("not valid JSON"));

    const auto d = DeskConfig::fromJson(R"({"cards":[{"connectors":[
        {"name":"DP-1","ddc":{"bus":7},"monitor":{"max":"0x1FF","current":12},
         "edid":{"vendor":"0x10AC","model":"0xA0C4","serial":1,"name":"X"}},
        {"name":"HDMI-A-1","connectorId":null,"edid":null}]}],
        "backlights":[{"name":"acpi_video0","type":"firmware","max":15}]})");
    const auto& c = d.cards[0].connectors;
    EXPECT_EQ(c[0].ddc->via, VirtualDesk::DdcVia::Aux);
    EXPECT_EQ(c[0].monitor->max, 0x1FF);
    EXPECT_EQ(c[0].edid->vendor, "DEL");
    EXPECT_TRUE(c[0].connectorId.has_value());
    EXPECT_FALSE(c[1].connectorId.has_value());
    EXPECT_FALSE(c[1].edid.has_value());
    EXPECT_EQ(d.backlights[0].brightness, 7);
}

} // namespace
