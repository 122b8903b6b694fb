#pragma once
// A system bus for the key service's tests and benchmarks: a private dbus-daemon with the package's policy for
// org.lumora.Keys, python-dbusmock's logind (seat0 with the active session c1; GetSessionByPID answers c1 unless a
// process was placed elsewhere) and polkitd (org.lumora.keys.attach allowed), and lumora-keys from the build tree
// started by D-Bus activation, like the package's service file does. DBUS_SYSTEM_BUS_ADDRESS points at it while it
// lives.
//
// The bus itself runs without umockdev's preload. The service it starts must see the test's virtual desk and
// nothing else: useDesk() hands it the desk's preload, and the service file refuses to start the service without
// one, so a test that forgot can never reach this machine's own keyboards.

#include <cstdlib>
#include <filesystem>
#include <fstream>
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
        char pattern[] = "/tmp/lumora-keys-bus.XXXXXX";
        dir_ = ::mkdtemp(pattern);
        const std::string source = std::getenv("LUMORA_SOURCE_DIR");
        const std::string build = std::getenv("LUMORA_BUILD_DIR");
        std::filesystem::create_directories(dir_ + "/services");
        std::ofstream(dir_ + "/services/org.lumora.Keys.service")
            << "[D-BUS Service]\nName=org.lumora.Keys\n"
            << "Exec=/bin/sh -c 'test -n \"$UMOCKDEV_DIR\" && exec " << build << "/LumoraKeys/lumora-keys --idle-exit "
            << idleExitSeconds << "'\n";
        // The system bus's own rules (deny by default, as /usr/share/dbus-1/system.conf), then the package's.
        std::ofstream(dir_ + "/bus.conf")
            << "<busconfig><listen>unix:path=" << dir_ << "/bus</listen><auth>EXTERNAL</auth>"
            << "<servicedir>" << dir_ << "/services</servicedir>"
            << "<policy context=\"default\"><deny own=\"*\"/><deny send_type=\"method_call\"/>"
               "<allow send_type=\"signal\"/><allow send_requested_reply=\"true\" send_type=\"method_return\"/>"
               "<allow send_requested_reply=\"true\" send_type=\"error\"/><allow receive_type=\"method_call\"/>"
               "<allow receive_type=\"method_return\"/><allow receive_type=\"error\"/><allow receive_type=\"signal\"/>"
               "<allow send_destination=\"org.freedesktop.DBus\" send_interface=\"org.freedesktop.DBus\"/>"
               "<allow send_destination=\"org.freedesktop.DBus\" send_interface=\"org.freedesktop.DBus.Introspectable\"/>"
               "<allow send_destination=\"org.freedesktop.DBus\" send_interface=\"org.freedesktop.DBus.Properties\"/>"
               "</policy>"
            // The stand-ins for logind and polkit, and the test's calls to them (the real ones ship their own).
            << "<policy user=\"root\"><allow own=\"org.freedesktop.login1\"/><allow own=\"org.freedesktop.PolicyKit1\"/>"
               "<allow send_destination=\"org.freedesktop.login1\"/><allow send_destination=\"org.freedesktop.PolicyKit1\"/>"
               "<allow send_interface=\"org.freedesktop.DBus.Monitoring\"/>"
               "<allow send_destination=\"org.freedesktop.DBus\" send_interface=\"org.freedesktop.DBus\"/></policy>"
            << "<include>" << source << "/data/org.lumora.Keys.conf</include></busconfig>\n";
        previous_ = std::getenv("DBUS_SYSTEM_BUS_ADDRESS") ? std::getenv("DBUS_SYSTEM_BUS_ADDRESS") : "";
        ::setenv("DBUS_SYSTEM_BUS_ADDRESS", address().c_str(), 1);
        daemon_ = std::make_unique<Child>(std::vector<std::string>{"/usr/bin/dbus-daemon", "--nofork", "--print-address",
                                                                   "--config-file=" + dir_ + "/bus.conf"},
                                          true);
        logind_ = std::make_unique<Child>(
            std::vector<std::string>{"/usr/bin/python3", "-m", "dbusmock", "--system", "--template", "logind"});
        polkit_ = std::make_unique<Child>(
            std::vector<std::string>{"/usr/bin/python3", "-m", "dbusmock", "--system", "--template", "polkitd"});
        for (const char* name : {"org.freedesktop.login1", "org.freedesktop.PolicyKit1"})
            EXPECT_EQ(gdbus({"wait", "--system", "--timeout", "30", name}), 0) << name;
        call(logind, "/org/freedesktop/login1", "org.freedesktop.DBus.Mock.AddSession",
             {"c1", "seat0", "1000", "user", "true"});
        call(logind, "/org/freedesktop/login1", "org.freedesktop.DBus.Mock.AddMethod",
             {"org.freedesktop.login1.Manager", "GetSessionByPID", "u", "o",
              "ret = dbus.ObjectPath('/org/freedesktop/login1/session/' + "
              "self.__dict__.get('placed', {}).get(int(args[0]), 'c1'))"});
        call(logind, "/org/freedesktop/login1", "org.freedesktop.DBus.Mock.AddMethod",
             {"org.freedesktop.login1.Manager", "PlaceProcess", "us", "",
              "self.__dict__.setdefault('placed', {})[int(args[0])] = args[1]"});
        allow(true);
    }

    ~KeyServiceBus()
    {
        polkit_.reset();
        logind_.reset();
        daemon_.reset();  // an activated service loses its bus and leaves
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
        const ProcessResult r = runProcess({"/usr/bin/gdbus", "call", "--system", "--dest", polkit, "--object-path",
                                            "/org/freedesktop/PolicyKit1/Authority", "--method",
                                            "org.freedesktop.DBus.Mock.GetMethodCalls", "CheckAuthorization"},
                                           {{"LD_PRELOAD", std::nullopt}}, std::chrono::seconds(30));
        std::vector<bool> checks;
        for (std::size_t at = r.out.find("<uint32 "); at != std::string::npos; at = r.out.find("<uint32 ", at + 1))
            checks.push_back(r.out.compare(at + 8, 1, "1") == 0);
        return checks;
    }

    void forgetAuthorizationChecks()
    {
        call(polkit, "/org/freedesktop/PolicyKit1/Authority", "org.freedesktop.DBus.Mock.ClearCalls", {});
    }

    // Whether lumora-keys is on the bus now.
    bool serviceRunning() const
    {
        const ProcessResult r = runProcess({"/usr/bin/gdbus", "call", "--system", "--dest", bus, "--object-path",
                                            "/org/freedesktop/DBus", "--method", "org.freedesktop.DBus.NameHasOwner",
                                            "org.lumora.Keys"},
                                           {{"LD_PRELOAD", std::nullopt}}, std::chrono::seconds(30));
        return r.out.find("true") != std::string::npos;
    }

    static constexpr const char* bus = "org.freedesktop.DBus";
    static constexpr const char* logind = "org.freedesktop.login1";
    static constexpr const char* polkit = "org.freedesktop.PolicyKit1";

private:
    static int gdbus(std::vector<std::string> args)
    {
        args.insert(args.begin(), "/usr/bin/gdbus");
        const ProcessResult r = runProcess(args, {{"LD_PRELOAD", std::nullopt}}, std::chrono::seconds(40));
        EXPECT_EQ(r.exitStatus, 0) << r.err;
        return r.exitStatus;
    }

    static void call(const std::string& dest, const std::string& path, const std::string& method,
                     const std::vector<std::string>& args)
    {
        std::vector<std::string> argv{"call", "--system", "--dest", dest, "--object-path", path, "--method", method};
        argv.insert(argv.end(), args.begin(), args.end());
        gdbus(argv);
    }

    std::string dir_;
    std::string previous_;
    std::unique_ptr<Child> daemon_, logind_, polkit_;
};

}  // namespace LumoraTest
