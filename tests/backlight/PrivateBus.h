#pragma once
// A private D-Bus daemon standing in for the system bus, and a python-dbusmock logind on it, for tests of the
// logind write path. Every child is started with the umockdev preload stripped from its environment, dies with
// the test process (PR_SET_PDEATHSIG), and is reaped with a bounded wait. Every wait here has a deadline.

#include <systemd/sd-bus.h>

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstring>
#include <optional>
#include <string>
#include <vector>

extern char** environ;

namespace PrivateBus {

using Clock = std::chrono::steady_clock;

// The current environment without the test bed's preload, plus `extra` ("NAME=value").
inline std::vector<std::string> childEnvironment(const std::vector<std::string>& extra)
{
    std::vector<std::string> env;
    for (char** e = environ; *e != nullptr; ++e) {
        std::string entry = *e;
        if (entry.starts_with("LD_PRELOAD=") || entry.starts_with("UMOCKDEV_DIR=") ||
            entry.starts_with("DBUS_SYSTEM_BUS_ADDRESS=") || entry.starts_with("DBUS_SESSION_BUS_ADDRESS="))
            continue;
        env.push_back(entry);
    }
    env.insert(env.end(), extra.begin(), extra.end());
    return env;
}

class Child {
public:
    Child() = default;
    Child(const Child&) = delete;
    Child& operator=(const Child&) = delete;
    ~Child() { stop(); }

    // Starts argv[0] (an absolute path) with `env`; its standard output goes to `stdoutFd` when given, standard
    // error (and standard output otherwise) to `logPath`.
    bool start(const std::vector<std::string>& argv, const std::vector<std::string>& env, const std::string& logPath,
               int stdoutFd = -1)
    {
        std::vector<char*> args, envp;
        for (auto& a : argv)
            args.push_back(const_cast<char*>(a.c_str()));
        args.push_back(nullptr);
        for (auto& e : env)
            envp.push_back(const_cast<char*>(e.c_str()));
        envp.push_back(nullptr);
        int log = ::open(logPath.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0644);
        if (log < 0)
            return false;
        pid_t parent = ::getpid();
        pid_t pid = ::fork();
        if (pid == 0) {
            // Only async-signal-safe calls until exec.
            ::prctl(PR_SET_PDEATHSIG, SIGKILL);
            if (::getppid() != parent)
                ::_exit(127);
            ::dup2(stdoutFd >= 0 ? stdoutFd : log, STDOUT_FILENO);
            ::dup2(log, STDERR_FILENO);
            int null = ::open("/dev/null", O_RDONLY);
            if (null >= 0)
                ::dup2(null, STDIN_FILENO);
            ::execve(args[0], args.data(), envp.data());
            ::_exit(127);
        }
        ::close(log);
        if (pid < 0)
            return false;
        pid_ = pid;
        pidfd_ = static_cast<int>(::syscall(SYS_pidfd_open, pid, 0));
        return true;
    }

    bool running()
    {
        if (pid_ <= 0)
            return false;
        int status = 0;
        if (::waitpid(pid_, &status, WNOHANG) == pid_) {
            pid_ = -1;
            closePidfd();
            return false;
        }
        return true;
    }

    // SIGTERM, up to five seconds to go, then SIGKILL; always reaped.
    void stop()
    {
        if (pid_ <= 0)
            return;
        ::kill(pid_, SIGTERM);
        if (!waitExit(std::chrono::seconds(5))) {
            ::kill(pid_, SIGKILL);
        }
        int status = 0;
        while (::waitpid(pid_, &status, 0) < 0 && errno == EINTR) {
        }
        pid_ = -1;
        closePidfd();
    }

private:
    bool waitExit(std::chrono::milliseconds limit)
    {
        if (pidfd_ < 0)
            return false;
        pollfd p{pidfd_, POLLIN, 0};
        return ::poll(&p, 1, static_cast<int>(limit.count())) == 1;
    }

    void closePidfd()
    {
        if (pidfd_ >= 0)
            ::close(pidfd_);
        pidfd_ = -1;
    }

    pid_t pid_ = -1;
    int pidfd_ = -1;
};

// Reads one line from `fd` within `limit`; absent on timeout or end of file.
inline std::optional<std::string> readLine(int fd, std::chrono::milliseconds limit)
{
    const auto deadline = Clock::now() + limit;
    std::string line;
    for (;;) {
        auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now());
        if (left.count() <= 0)
            return std::nullopt;
        pollfd p{fd, POLLIN, 0};
        int r = ::poll(&p, 1, static_cast<int>(left.count()));
        if (r < 0 && errno == EINTR)
            continue;
        if (r <= 0)
            return std::nullopt;
        char c;
        ssize_t n = ::read(fd, &c, 1);
        if (n <= 0)
            return std::nullopt;
        if (c == '\n')
            return line;
        line += c;
    }
}

// The test's own client connection to a bus address.
class Client {
public:
    explicit Client(const std::string& address)
    {
        if (sd_bus_new(&bus_) < 0)
            return;
        if (sd_bus_set_address(bus_, address.c_str()) < 0 || sd_bus_set_bus_client(bus_, 1) < 0 ||
            sd_bus_start(bus_) < 0) {
            bus_ = sd_bus_flush_close_unref(bus_);
            return;
        }
        // Wakes the waits below when a name changes hands.
        sd_bus_add_match(bus_, nullptr,
                         "type='signal',sender='org.freedesktop.DBus',member='NameOwnerChanged'", nullptr, nullptr);
    }
    ~Client() { sd_bus_flush_close_unref(bus_); }
    Client(const Client&) = delete;
    Client& operator=(const Client&) = delete;

    sd_bus* get() const { return bus_; }
    explicit operator bool() const { return bus_ != nullptr; }

    std::optional<bool> nameHasOwner(const std::string& name)
    {
        sd_bus_error error = SD_BUS_ERROR_NULL;
        sd_bus_message* reply = nullptr;
        int r = sd_bus_call_method(bus_, "org.freedesktop.DBus", "/org/freedesktop/DBus", "org.freedesktop.DBus",
                                   "NameHasOwner", &error, &reply, "s", name.c_str());
        sd_bus_error_free(&error);
        std::optional<bool> result;
        int owned = 0;
        if (r >= 0 && sd_bus_message_read(reply, "b", &owned) >= 0)
            result = owned != 0;
        sd_bus_message_unref(reply);
        return result;
    }

    // Waits until `name` is owned (or, with owned = false, unowned), or `limit` passes, or `alive` says the
    // owner to be has died.
    template <typename Alive>
    bool waitForName(const std::string& name, bool owned, std::chrono::milliseconds limit, Alive alive)
    {
        const auto deadline = Clock::now() + limit;
        while (Clock::now() < deadline) {
            if (nameHasOwner(name) == owned)
                return true;
            if (!alive())
                return false;
            while (sd_bus_process(bus_, nullptr) > 0) {
            }
            sd_bus_wait(bus_, 50'000);  // wakes early on NameOwnerChanged
        }
        return false;
    }

private:
    sd_bus* bus_ = nullptr;
};

}  // namespace PrivateBus
