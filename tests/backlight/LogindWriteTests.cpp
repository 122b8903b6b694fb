// The logind write path: a private dbus-daemon stands in for the system bus (DBUS_SYSTEM_BUS_ADDRESS points at
// it) and python-dbusmock's logind template owns org.freedesktop.login1 on it. The template has no session object
// for "auto" and no SetBrightness, so each test adds /org/freedesktop/login1/session/auto with the behaviour it
// needs and reads back the calls that arrived. The sysfs tree is the panel's backlight below its eDP connector.

#include <atomic>
#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <memory>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "BacklightDesk.h"
#include "Lumora/DDC/DisplayServices.h"
#include "Lumora/DDC/InternalBackend.h"
#include "Lumora/Platform/Linux/Backlight.h"
#include "PrivateBus.h"

using namespace BacklightDesk;
using Lumora::InternalBackend;
using Lumora::Platform::BacklightWrite;
using Lumora::Platform::findBacklight;
using Lumora::Platform::writeBacklight;
using PrivateBus::Child;
using PrivateBus::Client;
using namespace std::chrono_literals;

namespace {

const char* const kLogind = "org.freedesktop.login1";
const char* const kManagerPath = "/org/freedesktop/login1";
const char* const kAutoSession = "/org/freedesktop/login1/session/auto";
const char* const kMockInterface = "org.freedesktop.DBus.Mock";
const char* const kPython = "/usr/bin/python3";  // Debian's python3-dbusmock lives in the system interpreter

using Call = std::vector<std::string>;  // "s:backlight", "u:600": type and value of each argument

class LogindWrite : public ::testing::Test {
protected:
    static void SetUpTestSuite()
    {
        char pattern[] = "/tmp/lumora-logind-XXXXXX";
        ASSERT_NE(::mkdtemp(pattern), nullptr);
        dir = pattern;
        address = "unix:path=" + dir + "/system_bus_socket";
        ::setenv("DBUS_SYSTEM_BUS_ADDRESS", address.c_str(), 1);
        daemon = std::make_unique<Child>();
        mock = std::make_unique<Child>();
        ASSERT_TRUE(startDaemon());
        ASSERT_TRUE(startMock());
    }

    static void TearDownTestSuite()
    {
        client.reset();
        mock.reset();    // stops and reaps
        daemon.reset();  // stops and reaps
        std::error_code ec;
        std::filesystem::remove_all(dir, ec);
    }

    static bool startDaemon()
    {
        int out[2];
        if (::pipe2(out, O_CLOEXEC) != 0)
            return false;
        bool started = daemon->start({"/usr/bin/dbus-daemon", "--session", "--nofork", "--nopidfile",
                                      "--address=" + address, "--print-address"},
                                     PrivateBus::childEnvironment({}), dir + "/dbus-daemon.log", out[1]);
        ::close(out[1]);
        // The daemon prints its address once it listens.
        auto line = started ? PrivateBus::readLine(out[0], 20s) : std::nullopt;
        ::close(out[0]);
        EXPECT_TRUE(line) << "dbus-daemon did not come up; see " << dir << "/dbus-daemon.log";
        if (!line)
            return false;
        client = std::make_unique<Client>(address);
        EXPECT_TRUE(*client);
        return static_cast<bool>(*client);
    }

    static bool startMock()
    {
        bool started = mock->start({kPython, "-m", "dbusmock", "--template", "logind"},
                                   PrivateBus::childEnvironment({"DBUS_SYSTEM_BUS_ADDRESS=" + address}),
                                   dir + "/dbusmock.log");
        bool up = started && client->waitForName(kLogind, true, 30s, [] { return mock->running(); });
        EXPECT_TRUE(up) << "dbusmock's logind did not come up; see " << dir << "/dbusmock.log";
        return up;
    }

    static bool stopMock()
    {
        mock->stop();
        return client->waitForName(kLogind, false, 10s, [] { return true; });
    }

    // Stops whatever runs of the bus and logind and starts both afresh at the same address, with a session.
    static void restartBus()
    {
        client.reset();
        mock->stop();
        daemon->stop();
        ASSERT_TRUE(startDaemon());
        ASSERT_TRUE(startMock());
        addSession("");
    }

    // Adds the session object with SetBrightness running `code` (python, dbusmock's method body).
    static void addSession(const std::string& code)
    {
        sd_bus_message* m = nullptr;
        ASSERT_GE(sd_bus_message_new_method_call(client->get(), &m, kLogind, kManagerPath, kMockInterface, "AddObject"),
                  0);
        ASSERT_GE(sd_bus_message_append(m, "ssa{sv}", kAutoSession, "org.freedesktop.login1.Session", 0), 0);
        ASSERT_GE(sd_bus_message_append(m, "a(ssss)", 1, "SetBrightness", "ssu", "", code.c_str()), 0);
        sd_bus_error error = SD_BUS_ERROR_NULL;
        int r = sd_bus_call(client->get(), m, 10'000'000, &error, nullptr);
        EXPECT_GE(r, 0) << (error.message ? error.message : "");
        sd_bus_error_free(&error);
        sd_bus_message_unref(m);
    }

    static void removeSession()
    {
        sd_bus_error error = SD_BUS_ERROR_NULL;
        // Fails harmlessly when there is no such object.
        sd_bus_call_method(client->get(), kLogind, kManagerPath, kMockInterface, "RemoveObject", &error, nullptr, "o",
                           kAutoSession);
        sd_bus_error_free(&error);
    }

    // The SetBrightness calls that reached the session object, oldest first.
    static std::vector<Call> calls()
    {
        std::vector<Call> result;
        sd_bus_error error = SD_BUS_ERROR_NULL;
        sd_bus_message* reply = nullptr;
        int r = sd_bus_call_method(client->get(), kLogind, kAutoSession, kMockInterface, "GetMethodCalls", &error,
                                   &reply, "s", "SetBrightness");
        EXPECT_GE(r, 0) << (error.message ? error.message : "");
        sd_bus_error_free(&error);
        if (r < 0)
            return result;
        sd_bus_message_enter_container(reply, 'a', "(tav)");
        while (sd_bus_message_enter_container(reply, 'r', "tav") > 0) {
            std::uint64_t when = 0;
            sd_bus_message_read(reply, "t", &when);
            sd_bus_message_enter_container(reply, 'a', "v");
            Call call;
            while (sd_bus_message_at_end(reply, 0) == 0) {
                char type = 0;
                const char* contents = nullptr;
                sd_bus_message_peek_type(reply, &type, &contents);
                sd_bus_message_enter_container(reply, 'v', contents);
                if (std::string(contents) == "s") {
                    const char* s = nullptr;
                    sd_bus_message_read(reply, "s", &s);
                    call.push_back(std::string("s:") + s);
                } else if (std::string(contents) == "u") {
                    std::uint32_t u = 0;
                    sd_bus_message_read(reply, "u", &u);
                    call.push_back("u:" + std::to_string(u));
                } else {
                    call.push_back(std::string("?:") + contents);
                    sd_bus_message_skip(reply, contents);
                }
                sd_bus_message_exit_container(reply);
            }
            sd_bus_message_exit_container(reply);
            sd_bus_message_exit_container(reply);
            result.push_back(call);
        }
        sd_bus_message_unref(reply);
        return result;
    }

    static Call setBrightness(std::uint32_t raw)
    {
        return {"s:backlight", "s:intel_backlight", "u:" + std::to_string(raw)};
    }

    void SetUp() override
    {
        bed.add(connectorRecord(kPanelConnector));
        bed.add(backlightRecord(kPanelBacklight, "raw", "300", "1200"));
        bed.add(backlightRecord(kAcpiBacklight, "firmware", "5", "10"));
        removeSession();
    }

    long panelRaw() { return readValue(bed.file(attributePath("intel_backlight", "brightness"))); }

    Lumora::Platform::BacklightDevice panel()
    {
        auto device = findBacklight();
        EXPECT_TRUE(device);
        return device.value_or(Lumora::Platform::BacklightDevice{});
    }

    static inline std::string dir;
    static inline std::string address;
    static inline std::unique_ptr<Child> daemon;
    static inline std::unique_ptr<Child> mock;
    static inline std::unique_ptr<Client> client;

    Testbed bed;
};

TEST_F(LogindWrite, AcceptedCallCarriesSubsystemNameAndRawValueAndSysfsIsLeftAlone)
{
    addSession("");
    EXPECT_EQ(writeBacklight(panel(), 0.5), BacklightWrite::logind);
    EXPECT_EQ(calls(), std::vector<Call>{setBrightness(600)});
    EXPECT_EQ(panelRaw(), 300) << "logind accepted: the attribute is not written by us";
}

TEST_F(LogindWrite, InternalBackendWritesThroughLogind)
{
    addSession("");
    InternalBackend backend(1);
    backend.writeBrightness(1.5);
    backend.writeBrightness(0.3);
    backend.writeBrightness(-1.0);
    EXPECT_EQ(calls(), (std::vector<Call>{setBrightness(1200), setBrightness(360), setBrightness(0)}));
    EXPECT_EQ(panelRaw(), 300);
    EXPECT_DOUBLE_EQ(backend.readBrightness().value_or(-1), 0.25) << "reads still come from sysfs";
    auto set = Lumora::DisplayServices::setFn();
    ASSERT_NE(set, nullptr);
    EXPECT_EQ(set(1, 0.5f), 0);
}

TEST_F(LogindWrite, RefusedCallFallsBackToSysfs)
{
    addSession("raise dbus.exceptions.DBusException('not your session', "
               "name='org.freedesktop.DBus.Error.AccessDenied')");
    EXPECT_EQ(writeBacklight(panel(), 0.75), BacklightWrite::sysfs);
    EXPECT_EQ(calls(), std::vector<Call>{setBrightness(900)}) << "asked logind first";
    EXPECT_EQ(panelRaw(), 900);
}

TEST_F(LogindWrite, NoSessionFallsBackToSysfs)
{
    EXPECT_EQ(writeBacklight(panel(), 0.5), BacklightWrite::sysfs);
    EXPECT_EQ(panelRaw(), 600);
    EXPECT_EQ(writeBacklight(panel(), 1.0), BacklightWrite::sysfs);
    EXPECT_EQ(panelRaw(), 1200);
}

TEST_F(LogindWrite, UnresponsiveLogindTimesOutAndFallsBackToSysfs)
{
    addSession("time.sleep(1.5)");
    const auto start = PrivateBus::Clock::now();
    EXPECT_EQ(writeBacklight(panel(), 0.5), BacklightWrite::sysfs);
    const auto took = PrivateBus::Clock::now() - start;
    EXPECT_GE(took, 450ms);
    EXPECT_LT(took, 1400ms) << "the call waits no longer than its timeout";
    EXPECT_EQ(panelRaw(), 600);
}

TEST_F(LogindWrite, ConcurrentWritersShareTheConnection)
{
    addSession("");
    constexpr int kPerThread = 25;
    std::vector<std::thread> threads;
    std::atomic<int> viaLogind{0};
    for (int t = 0; t < 2; ++t) {
        threads.emplace_back([&, t] {
            auto device = findBacklight();
            if (!device)
                return;
            for (int i = 0; i < kPerThread; ++i) {
                if (writeBacklight(*device, t == 0 ? 0.25 : 0.75) == BacklightWrite::logind)
                    ++viaLogind;
            }
        });
    }
    for (auto& thread : threads)
        thread.join();
    EXPECT_EQ(viaLogind.load(), 2 * kPerThread);
    auto arrived = calls();
    ASSERT_EQ(arrived.size(), 2u * kPerThread);
    int quarter = 0, threeQuarters = 0;
    for (const Call& call : arrived) {
        quarter += call == setBrightness(300);
        threeQuarters += call == setBrightness(900);
    }
    EXPECT_EQ(quarter, kPerThread);
    EXPECT_EQ(threeQuarters, kPerThread);
    EXPECT_EQ(panelRaw(), 300);
}

TEST_F(LogindWrite, WithoutLogindOnTheBusWritesGoToSysfsAndLogindIsUsedOnceBack)
{
    ASSERT_TRUE(stopMock());
    EXPECT_EQ(writeBacklight(panel(), 0.5), BacklightWrite::sysfs);
    EXPECT_EQ(panelRaw(), 600);

    ASSERT_TRUE(startMock());
    addSession("");
    EXPECT_EQ(writeBacklight(panel(), 0.25), BacklightWrite::logind) << "absence is not remembered";
    EXPECT_EQ(calls(), std::vector<Call>{setBrightness(300)});
    EXPECT_EQ(panelRaw(), 600);
}

TEST_F(LogindWrite, BusRestartIsSurvived)
{
    addSession("");
    ASSERT_EQ(writeBacklight(panel(), 0.5), BacklightWrite::logind);

    // The bus restarts between two writes: the kept connection is stale, the next write reconnects and still
    // reaches logind.
    restartBus();
    EXPECT_EQ(writeBacklight(panel(), 0.25), BacklightWrite::logind);
    EXPECT_EQ(calls(), std::vector<Call>{setBrightness(300)});
    EXPECT_EQ(panelRaw(), 300);

    // The bus is gone: sysfs takes the write, and a bus that comes back is used again.
    client.reset();
    mock->stop();
    daemon->stop();
    EXPECT_EQ(writeBacklight(panel(), 0.75), BacklightWrite::sysfs);
    EXPECT_EQ(panelRaw(), 900);
    restartBus();
    EXPECT_EQ(writeBacklight(panel(), 1.0), BacklightWrite::logind);
    EXPECT_EQ(calls(), std::vector<Call>{setBrightness(1200)});
    EXPECT_EQ(panelRaw(), 900);
}

}  // namespace
