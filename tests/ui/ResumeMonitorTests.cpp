// Resume from suspend as logind tells it: python-dbusmock's logind template on a private bus stands in for the
// system bus. PrepareForSleep(false) is a resume, PrepareForSleep(true) is not; without a bus nothing happens.

#include <unistd.h>

#include <chrono>
#include <filesystem>
#include <memory>
#include <string>

#include <gtest/gtest.h>

#include "Lumora/Platform/Linux/Desktop/ResumeMonitor.h"
#include "support/ChildProcess.h"
#include "support/EventLoop.h"
#include "support/Subprocess.h"

using namespace std::chrono_literals;
using Lumora::ResumeMonitor;
using LumoraTest::Child;
using LumoraTest::pumpUntil;

namespace {

// A private bus as the system bus, with logind on it.
class Logind {
public:
    Logind()
    {
        std::filesystem::create_directories(dir_);
        ::setenv("DBUS_SYSTEM_BUS_ADDRESS", ("unix:path=" + dir_ + "/bus").c_str(), 1);
        daemon_ = std::make_unique<Child>(std::vector<std::string>{"/usr/bin/dbus-daemon", "--session", "--nofork",
                                                                   "--print-address",
                                                                   "--address=unix:path=" + dir_ + "/bus"},
                                          true);
        logind_ = std::make_unique<Child>(
            std::vector<std::string>{"/usr/bin/python3", "-m", "dbusmock", "--system", "--template", "logind"});
        const auto wait = LumoraTest::runProcess(
            {"/usr/bin/gdbus", "wait", "--system", "--timeout", "30", "org.freedesktop.login1"}, {}, 40s);
        EXPECT_EQ(wait.exitStatus, 0) << wait.err;
    }
    ~Logind()
    {
        logind_.reset();
        daemon_.reset();
        ::setenv("DBUS_SYSTEM_BUS_ADDRESS", "unix:path=/nonexistent/lumora-test-bus", 1);
        std::filesystem::remove_all(dir_);
    }
    void prepareForSleep(bool start)
    {
        const auto sent = LumoraTest::runProcess(
            {"/usr/bin/gdbus", "call", "--system", "--dest", "org.freedesktop.login1", "--object-path",
             "/org/freedesktop/login1", "--method", "org.freedesktop.DBus.Mock.EmitSignal",
             "org.freedesktop.login1.Manager", "PrepareForSleep", "b", start ? "[<true>]" : "[<false>]"},
            {}, 30s);
        EXPECT_EQ(sent.exitStatus, 0) << sent.err;
    }

private:
    const std::string dir_ =
        std::filesystem::temp_directory_path() / ("lumora-resume-" + std::to_string(::getpid()));
    std::unique_ptr<Child> daemon_, logind_;
};

TEST(ResumeMonitor, EveryResumeIsToldAndNothingElse)
{
    Logind logind;
    int resumes = 0;
    ResumeMonitor monitor([&] { ++resumes; });
    ASSERT_TRUE(pumpUntil([&] { return monitor.isSubscribed(); }, 20s)) << "never subscribed";
    logind.prepareForSleep(true);
    logind.prepareForSleep(false);
    ASSERT_TRUE(pumpUntil([&] { return resumes > 0; }, 20s));
    EXPECT_EQ(resumes, 1) << "going to sleep is not a resume";  // the signals arrive in the order they were sent
    logind.prepareForSleep(true);
    logind.prepareForSleep(false);
    ASSERT_TRUE(pumpUntil([&] { return resumes > 1; }, 20s));
    EXPECT_EQ(resumes, 2);
}

TEST(ResumeMonitor, WithoutABusNothingHappens)
{
    ::setenv("DBUS_SYSTEM_BUS_ADDRESS", "unix:path=/nonexistent/lumora-test-bus", 1);
    int resumes = 0;
    ResumeMonitor monitor([&] { ++resumes; });
    pumpUntil([] { return false; }, 200ms);
    EXPECT_FALSE(monitor.isSubscribed());
    EXPECT_EQ(resumes, 0);
}

}  // namespace
