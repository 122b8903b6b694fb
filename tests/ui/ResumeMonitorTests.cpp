// SPDX-License-Identifier: GPL-3.0-or-later
// Resume from suspend as logind tells it, python-dbusmock's logind template on a private bus standing in for the
// system bus: PrepareForSleep(false) is a resume, PrepareForSleep(true) is not; without a bus nothing happens.
// (What a resume then does to the monitors: e2e_realistic_monitors.)

#include <QTemporaryDir>

#include <gtest/gtest.h>

#include <cstdlib>

#include "Lumora/Platform/Linux/Desktop/ResumeMonitor.h"
#include "support/EventLoop.h"
#include "support/Subprocess.h"

using namespace std::chrono_literals;
using LumoraTest::pumpUntil;
using LumoraTest::runProcess;

TEST(ResumeMonitor, EveryResumeIsToldAndNothingElse)
{
    QTemporaryDir dir;
    const std::string address = "unix:path=" + dir.filePath(QStringLiteral("bus")).toStdString();
    ::setenv("DBUS_SYSTEM_BUS_ADDRESS", address.c_str(), 1);
    {
        const LumoraTest::Child daemon({"/usr/bin/dbus-daemon", "--session", "--nofork", "--print-address",
                                        "--address=" + address}, true);
        const LumoraTest::Child logind({"/usr/bin/python3", "-m", "dbusmock", "--system", "--template", "logind"});
        ASSERT_EQ(runProcess({"/usr/bin/gdbus", "wait", "--system", "--timeout", "30", "org.freedesktop.login1"}, {}, 40s)
                      .exitStatus, 0);
        const auto prepareForSleep = [](bool start) {
            EXPECT_EQ(runProcess({"/usr/bin/gdbus", "call", "--system", "--dest", "org.freedesktop.login1", "--object-path",
                                  "/org/freedesktop/login1", "--method", "org.freedesktop.DBus.Mock.EmitSignal",
                                  "org.freedesktop.login1.Manager", "PrepareForSleep", "b", start ? "[<true>]" : "[<false>]"},
                                 {}, 30s).exitStatus, 0);
        };
        int resumes = 0;
        Lumora::ResumeMonitor monitor([&] { ++resumes; });
        ASSERT_TRUE(pumpUntil([&] { return monitor.isSubscribed(); }, 20s)) << "never subscribed";
        for (int round = 1; round <= 2; ++round) {  // the signals arrive in the order they were sent
            prepareForSleep(true);
            prepareForSleep(false);
            ASSERT_TRUE(pumpUntil([&] { return resumes >= round; }, 20s));
            EXPECT_EQ(resumes, round) << "going to sleep is not a resume";
        }
    }
    ::setenv("DBUS_SYSTEM_BUS_ADDRESS", "unix:path=/nonexistent/lumora-test-bus", 1);
    int resumes = 0;
    Lumora::ResumeMonitor monitor([&] { ++resumes; });
    pumpUntil([] { return false; }, 200ms);
    EXPECT_FALSE(monitor.isSubscribed());
    EXPECT_EQ(resumes, 0);
}
