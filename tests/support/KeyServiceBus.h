// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once
// A system bus for the key service's tests and benchmarks (key-service-bus.py): a private dbus-daemon with the
// package's policy for org.lumora.Keys, python-dbusmock's logind (seat0 with the active session c1; GetSessionByPID
// answers c1 unless a process was placed elsewhere) and polkitd (org.lumora.keys.attach allowed), and lumora-keys
// from the build tree started by D-Bus activation, like the package's service file does, with the calls the tests
// make to them. DBUS_SYSTEM_BUS_ADDRESS points at it while it lives.
//
// The bus itself runs without umockdev's preload. The service it starts must see the test's virtual desk and
// nothing else: useDesk() hands it the desk's preload, and the service file refuses to start the service without
// one, so a test that forgot can never reach this machine's own keyboards.

#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <cstdio>
#include <memory>
#include <string>

#include <gtest/gtest.h>

#include "support/ChildProcess.h"
#include "support/Subprocess.h"

namespace LumoraTest {

class KeyServiceBus {
public:
    static constexpr const char* attachAction = "org.lumora.keys.attach";

    // `idleExitSeconds`: how soon the service leaves once nobody is attached.
    explicit KeyServiceBus(double idleExitSeconds = 0.5)
    {
        std::string pattern = std::filesystem::temp_directory_path() / "lumora-keys-bus.XXXXXX";
        dir_ = ::mkdtemp(pattern.data());
        const std::string source = std::getenv("LUMORA_SOURCE_DIR");
        const std::string build = std::getenv("LUMORA_BUILD_DIR");
        previous_ = std::getenv("DBUS_SYSTEM_BUS_ADDRESS") ? std::getenv("DBUS_SYSTEM_BUS_ADDRESS") : "";
        ::setenv("DBUS_SYSTEM_BUS_ADDRESS", address().c_str(), 1);
        // A busy machine may take a while to start three Python programs and a bus.
        bus_ = std::make_unique<Child>(
            std::vector<std::string>{"/usr/bin/python3", source + "/tests/support/key-service-bus.py", dir_,
                                     build + "/LumoraKeys/lumora-keys", source + "/data/org.lumora.Keys.conf",
                                     "--idle-exit", std::to_string(idleExitSeconds)},
            true, std::chrono::seconds(120));
        // The script makes DIR/ready once logind and polkit are set up: seen even if its output was missed.
        const auto until = std::chrono::steady_clock::now() + std::chrono::seconds(120);
        while (!std::filesystem::exists(dir_ + "/ready") && std::chrono::steady_clock::now() < until)
            ::usleep(20'000);
        // Made before any test runs (Qt connects to the system bus once per process): without it nothing can pass.
        if (!answers()) {
            std::fprintf(stderr, "KeyServiceBus: the private system bus at %s did not come up\n", address().c_str());
            std::exit(1);
        }
    }

    ~KeyServiceBus()
    {
        bus_.reset();  // an activated service loses its bus and leaves
        ::setenv("DBUS_SYSTEM_BUS_ADDRESS", previous_.c_str(), 1);
        std::filesystem::remove_all(dir_);
    }

    std::string address() const { return "unix:path=" + dir_ + "/bus"; }

    // The service started from now on runs on the desk this process made (its preload and test bed).
    void useDesk()
    {
        const char* preload = std::getenv("LD_PRELOAD");
        const char* testbed = std::getenv("UMOCKDEV_DIR");
        ASSERT_TRUE(preload != nullptr && testbed != nullptr) << "no virtual desk in this process";
        call(bus, "/org/freedesktop/DBus", "org.freedesktop.DBus.UpdateActivationEnvironment",
             {std::string("{'LD_PRELOAD': '") + preload + "', 'UMOCKDEV_DIR': '" + testbed + "'}"});
    }

    // Adds the login session `id` on seat0, not active (user 1001).
    void addSession(const std::string& id)
    {
        call(logind, "/org/freedesktop/login1", "org.freedesktop.DBus.Mock.AddSession",
             {id, "seat0", "1001", "other", "false"});
        switchTo("c1");  // adding a session makes it the seat's active one
    }

    // logind answers GetSessionByPID(pid) with `session` from now on.
    void place(pid_t pid, const std::string& session)
    {
        call(logind, "/org/freedesktop/login1", "org.freedesktop.login1.Manager.PlaceProcess",
             {std::to_string(pid), session});
    }

    // Fast user switching: `session` becomes the active one of seat0 (PropertiesChanged on the seat).
    void switchTo(const std::string& session)
    {
        call(logind, "/org/freedesktop/login1/seat/seat0", "org.freedesktop.DBus.Properties.Set",
             {"org.freedesktop.login1.Seat", "ActiveSession",
              "<('" + session + "', objectpath '/org/freedesktop/login1/session/" + session + "')>"});
    }

    // Whether polkit allows the attach (to everybody, as allow_active does for the active session).
    void allow(bool allowed)
    {
        call(polkit, "/org/freedesktop/PolicyKit1/Authority", "org.freedesktop.DBus.Mock.SetAllowed",
             {allowed ? std::string("['") + attachAction + "']" : std::string("@as []")});
    }

    // polkit's Changed: the authorizations may have changed (an administrator's rule, a grant that expired).
    void authorizationsChanged()
    {
        call(polkit, "/org/freedesktop/PolicyKit1/Authority", "org.freedesktop.DBus.Mock.EmitSignal",
             {"org.freedesktop.PolicyKit1.Authority", "Changed", "", "[]"});
    }

    // The attach checks polkit was asked for so far, oldest first: true where polkit might ask for a password.
    std::vector<bool> authorizationChecks() const
    {
        const std::string out = query(polkit, "/org/freedesktop/PolicyKit1/Authority",
                                      "org.freedesktop.DBus.Mock.GetMethodCalls", "CheckAuthorization").out;
        std::vector<bool> checks;
        for (std::size_t at = out.find("<uint32 "); at != std::string::npos; at = out.find("<uint32 ", at + 1))
            checks.push_back(out.compare(at + 8, 1, "1") == 0);
        return checks;
    }

    void forgetAuthorizationChecks()
    {
        call(polkit, "/org/freedesktop/PolicyKit1/Authority", "org.freedesktop.DBus.Mock.ClearCalls", {});
    }

    // Whether the bus and its stand-ins for logind and polkit answer.
    bool answers() const
    {
        return query(polkit, "/org/freedesktop/PolicyKit1/Authority", "org.freedesktop.DBus.Peer.Ping").exitStatus == 0;
    }

    // Whether lumora-keys is on the bus now.
    bool serviceRunning() const
    {
        return query(bus, "/org/freedesktop/DBus", "org.freedesktop.DBus.NameHasOwner", "org.lumora.Keys").out.find(
                   "true") != std::string::npos;
    }

    static constexpr const char* bus = "org.freedesktop.DBus";
    static constexpr const char* logind = "org.freedesktop.login1";
    static constexpr const char* polkit = "org.freedesktop.PolicyKit1";

private:
    static ProcessResult query(const std::string& dest, const std::string& path, const std::string& method,
                               const std::string& argument = "")
    {
        std::vector<std::string> argv{"/usr/bin/gdbus", "call", "--system", "--dest", dest, "--object-path", path,
                                      "--method", method};
        if (!argument.empty())
            argv.push_back(argument);
        return runProcess(argv, {{"LD_PRELOAD", std::nullopt}}, std::chrono::seconds(30));
    }

    static void call(const std::string& dest, const std::string& path, const std::string& method,
                     const std::vector<std::string>& args)
    {
        std::vector<std::string> argv{"/usr/bin/gdbus", "call", "--system", "--dest", dest, "--object-path", path,
                                      "--method", method};
        argv.insert(argv.end(), args.begin(), args.end());
        const ProcessResult r = runProcess(argv, {{"LD_PRELOAD", std::nullopt}}, std::chrono::seconds(40));
        EXPECT_EQ(r.exitStatus, 0) << r.err;
    }

    std::string dir_;
    std::string previous_;
    std::unique_ptr<Child> bus_;
};

}  // namespace LumoraTest
