// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once
// The system bus of key-service-bus.py for the key service's tests and benchmarks, and the calls they make to it;
// DBUS_SYSTEM_BUS_ADDRESS points at it while it lives. The service it starts sees only the desk useDesk() hands it.

#include <unistd.h>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <memory>
#include <string>
#include <gtest/gtest.h>
#include "support/Subprocess.h"

namespace LumoraTest {

class KeyServiceBus {
public:
    // `idleExitSeconds`: how soon the service leaves once nobody is attached.
    explicit KeyServiceBus(double idleExitSeconds = 0.5)
    {
        std::string pattern = std::filesystem::temp_directory_path() / "lumora-keys-bus.XXXXXX";
        dir_ = ::mkdtemp(pattern.data());
        const std::string source = std::getenv("LUMORA_SOURCE_DIR");
        const std::string build = std::getenv("LUMORA_BUILD_DIR");
        previous_ = std::getenv("DBUS_SYSTEM_BUS_ADDRESS") ? std::getenv("DBUS_SYSTEM_BUS_ADDRESS") : "";
        ::setenv("DBUS_SYSTEM_BUS_ADDRESS", ("unix:path=" + dir_ + "/bus").c_str(), 1);
        // A busy machine may take a while to start it; the script makes DIR/ready once logind and polkit are set up.
        bus_ = std::make_unique<Child>(std::vector<std::string>{
            "/usr/bin/python3", source + "/tests/support/key-service-bus.py", dir_, build + "/LumoraKeys/lumora-keys",
            source + "/data/org.lumora.Keys.conf", "--idle-exit", std::to_string(idleExitSeconds)});
        const auto until = std::chrono::steady_clock::now() + std::chrono::seconds(120);
        while (!std::filesystem::exists(dir_ + "/ready") && std::chrono::steady_clock::now() < until)
            ::usleep(20'000);
        // Made before any test runs (Qt connects to the system bus once per process): without it nothing can pass.
        if (gdbus(polkit, authority, "org.freedesktop.DBus.Peer.Ping").exitStatus != 0) {
            std::fprintf(stderr, "KeyServiceBus: the private system bus in %s did not come up\n", dir_.c_str());
            std::exit(1);
        }
    }
    ~KeyServiceBus()
    {
        bus_.reset();  // an activated service loses its bus and leaves
        ::setenv("DBUS_SYSTEM_BUS_ADDRESS", previous_.c_str(), 1);
        std::filesystem::remove_all(dir_);
    }

    // The service started from now on runs on the desk this process made (its preload and test bed).
    void useDesk()
    {
        const char* preload = std::getenv("LD_PRELOAD");
        const char* testbed = std::getenv("UMOCKDEV_DIR");
        ASSERT_TRUE(preload != nullptr && testbed != nullptr) << "no virtual desk in this process";
        call(bus, "/org/freedesktop/DBus", "org.freedesktop.DBus.UpdateActivationEnvironment",
             {std::string("{'LD_PRELOAD': '") + preload + "', 'UMOCKDEV_DIR': '" + testbed + "'}"});
    }

    // logind: seat0 with the active session c1 of user 1000, where GetSessionByPID places every process unless
    // place() said otherwise. addSession adds an inactive session of user 1001; switchTo is fast user switching.
    void addSession(const std::string& id)
    {
        call(logind, login1, mock + "AddSession", {id, "seat0", "1001", "other", "false"});
        switchTo("c1");  // adding a session makes it the seat's active one
    }
    void place(pid_t pid, const std::string& session) { call(logind, login1, manager + "PlaceProcess", {std::to_string(pid), session}); }
    void switchTo(const std::string& session)
    {
        const std::string path = login1 + "/session/" + session;
        call(logind, login1 + "/seat/seat0", "org.freedesktop.DBus.Properties.Set",
             {"org.freedesktop.login1.Seat", "ActiveSession", "<('" + session + "', objectpath '" + path + "')>"});
    }

    // polkit: whether it allows the attach (to everybody, as allow_active does for the active session), and the
    // attach checks it was asked for, oldest first: true where it might ask for a password.
    void allow(bool allowed) { call(polkit, authority, mock + "SetAllowed", {allowed ? "['org.lumora.keys.attach']" : "@as []"}); }
    std::vector<bool> authorizationChecks() const
    {
        const std::string out = gdbus(polkit, authority, mock + "GetMethodCalls", {"CheckAuthorization"}).out;
        std::vector<bool> checks;
        for (std::size_t at = out.find("<uint32 "); at != std::string::npos; at = out.find("<uint32 ", at + 1))
            checks.push_back(out.compare(at + 8, 1, "1") == 0);
        return checks;
    }
    void forgetAuthorizationChecks() { call(polkit, authority, mock + "ClearCalls", {}); }

    bool serviceRunning() const
    {
        return gdbus(bus, "/org/freedesktop/DBus", bus + std::string(".NameHasOwner"), {"org.lumora.Keys"}).out.find("true") !=
               std::string::npos;
    }

private:
    static constexpr const char* bus = "org.freedesktop.DBus";
    static constexpr const char* logind = "org.freedesktop.login1";
    static constexpr const char* polkit = "org.freedesktop.PolicyKit1";
    static constexpr const char* authority = "/org/freedesktop/PolicyKit1/Authority";
    inline static const std::string mock = "org.freedesktop.DBus.Mock.";
    inline static const std::string login1 = "/org/freedesktop/login1";
    inline static const std::string manager = "org.freedesktop.login1.Manager.";

    static ProcessResult gdbus(const std::string& dest, const std::string& path, const std::string& method,
                               const std::vector<std::string>& args = {})
    {
        std::vector<std::string> argv{"/usr/bin/gdbus", "call", "--system", "--dest", dest, "--object-path", path,
                                      "--method", method};
        argv.insert(argv.end(), args.begin(), args.end());
        return runProcess(argv, {{"LD_PRELOAD", std::nullopt}}, std::chrono::seconds(40));
    }
    static void call(const std::string& dest, const std::string& path, const std::string& method,
                     const std::vector<std::string>& args)
    {
        const ProcessResult r = gdbus(dest, path, method, args);
        EXPECT_EQ(r.exitStatus, 0) << r.err;
    }

    std::string dir_;
    std::string previous_;
    std::unique_ptr<Child> bus_;
};

}  // namespace LumoraTest
