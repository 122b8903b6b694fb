// SPDX-License-Identifier: GPL-3.0-or-later
// virtual-desk: runs a command on an emulated desk of displays.
//
//   virtual-desk [--desk FILE] [--log FILE] [--control PATH] [--trace] -- COMMAND [ARGS...]
//   virtual-desk --send PATH COMMAND...      one control command to a running desk; prints the reply
//
// Exit status: the command's (128+N when it died of signal N); 3 when the desk saw a violation; 2 on bad
// arguments or a bad desk file; 127 when the command cannot be started.
#include "tools/virtual-desk/VirtualDesk.h"

#include <fcntl.h>
#include <poll.h>
#include <pthread.h>
#include <signal.h>
#include <spawn.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstring>
#include <iostream>
#include <map>
#include <string>
#include <thread>
#include <vector>

extern char** environ;

namespace {

constexpr int kExitUsage = 2;
constexpr int kExitViolation = 3;
constexpr int kExitCannotRun = 127;

const char* kUsage =
    "usage: virtual-desk [--desk FILE] [--log FILE] [--control PATH] [--trace] -- COMMAND [ARGS...]\n"
    "       virtual-desk --send PATH CONTROL-COMMAND...\n";

[[noreturn]] void usageError(const std::string& message)
{
    std::cerr << "virtual-desk: " << message << "\n" << kUsage;
    std::exit(kExitUsage);
}

// SIGINT, SIGTERM and SIGHUP go to the command, and release every hold: umockdev blocks signals in a process while
// its emulated call is under way, so a command blocked on a held request could not die otherwise. SIGUSR2 only
// ends the signal thread.
sigset_t handledSignals()
{
    sigset_t set;
    sigemptyset(&set);
    sigaddset(&set, SIGINT);
    sigaddset(&set, SIGTERM);
    sigaddset(&set, SIGHUP);
    sigaddset(&set, SIGUSR2);
    return set;
}

bool underPreload()
{
    const char* p = std::getenv("LD_PRELOAD");
    return p && std::strstr(p, "libumockdev-preload");
}

// Runs ourselves again under umockdev-wrapper, which sets up the preload.
[[noreturn]] void reexecUnderUmockdev(int argc, char** argv)
{
    if (std::getenv("VIRTUAL_DESK_REEXEC")) {
        std::cerr << "virtual-desk: umockdev-wrapper did not set up umockdev's preload\n";
        std::exit(kExitUsage);
    }
    ::setenv("VIRTUAL_DESK_REEXEC", "1", 1);
    // An AddressSanitizer build aborts under the preload unless told not to check the library order.
    std::string asan = std::getenv("ASAN_OPTIONS") ? std::getenv("ASAN_OPTIONS") : "";
    if (asan.find("verify_asan_link_order") == std::string::npos)
        ::setenv("ASAN_OPTIONS", (asan.empty() ? "" : asan + ":") .append("verify_asan_link_order=0").c_str(), 1);
    char self[4096];
    const ssize_t n = ::readlink("/proc/self/exe", self, sizeof self - 1);
    if (n <= 0) {
        std::cerr << "virtual-desk: cannot find my own executable\n";
        std::exit(kExitUsage);
    }
    self[n] = 0;
    std::vector<char*> args;
    args.push_back(const_cast<char*>("umockdev-wrapper"));
    args.push_back(self);
    for (int i = 1; i < argc; ++i)
        args.push_back(argv[i]);
    args.push_back(nullptr);
    ::execvp("umockdev-wrapper", args.data());
    std::cerr << "virtual-desk: cannot run umockdev-wrapper (is umockdev installed?): " << std::strerror(errno) << "\n";
    std::exit(kExitUsage);
}

int sendCommand(const std::string& path, const std::string& line)
{
    const int fd = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_un addr{};
    addr.sun_family = AF_UNIX;
    if (path.size() >= sizeof addr.sun_path)
        usageError("control path too long: " + path);
    std::strcpy(addr.sun_path, path.c_str());
    if (fd < 0 || ::connect(fd, reinterpret_cast<sockaddr*>(&addr), sizeof addr) != 0) {
        std::cerr << "virtual-desk: cannot connect to " << path << ": " << std::strerror(errno) << "\n";
        return 1;
    }
    const std::string out = line + "\n";
    if (::write(fd, out.data(), out.size()) != static_cast<ssize_t>(out.size())) {
        std::cerr << "virtual-desk: cannot send to " << path << "\n";
        return 1;
    }
    std::string reply;
    char c;
    while (::read(fd, &c, 1) == 1 && c != '\n')
        reply += c;
    ::close(fd);
    std::cout << reply << "\n";
    return reply.rfind("ok", 0) == 0 ? 0 : 1;
}

// Serves the control commands on a Unix socket (one reply line per command line) or, when the path is an
// existing FIFO, reads commands from it (replies go to stderr only when they are errors).
class ControlServer {
public:
    ControlServer(VirtualDesk::Desk& desk, std::string path) : desk(desk), path(std::move(path)) {}
    ~ControlServer() { stop(); }

    void start()
    {
        if (::pipe2(wake, O_CLOEXEC) != 0)
            throw std::runtime_error("cannot create a pipe");
        struct stat st{};
        if (::stat(path.c_str(), &st) == 0 && S_ISFIFO(st.st_mode)) {
            fifo = true;
            listenFd = ::open(path.c_str(), O_RDWR | O_NONBLOCK | O_CLOEXEC);
            if (listenFd < 0)
                throw std::runtime_error("cannot open FIFO " + path + ": " + std::strerror(errno));
        } else {
            listenFd = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
            sockaddr_un addr{};
            addr.sun_family = AF_UNIX;
            if (path.size() >= sizeof addr.sun_path)
                throw std::runtime_error("control path too long: " + path);
            std::strcpy(addr.sun_path, path.c_str());
            ::unlink(path.c_str());
            if (listenFd < 0 || ::bind(listenFd, reinterpret_cast<sockaddr*>(&addr), sizeof addr) != 0 ||
                ::listen(listenFd, 8) != 0)
                throw std::runtime_error("cannot listen on " + path + ": " + std::strerror(errno));
            ownsSocket = true;
        }
        thread = std::thread([this] { run(); });
    }

    void stop()
    {
        if (thread.joinable()) {
            const char c = 'q';
            (void)!::write(wake[1], &c, 1);
            thread.join();
        }
        for (auto& [fd, buf] : peers)
            ::close(fd);
        peers.clear();
        if (listenFd >= 0)
            ::close(listenFd);
        listenFd = -1;
        if (ownsSocket)
            ::unlink(path.c_str());
        ownsSocket = false;
        for (int& fd : wake)
            if (fd >= 0) {
                ::close(fd);
                fd = -1;
            }
    }

private:
    void run()
    {
        for (;;) {
            std::vector<pollfd> fds = {{wake[0], POLLIN, 0}, {listenFd, POLLIN, 0}};
            for (const auto& [fd, buf] : peers)
                fds.push_back({fd, POLLIN, 0});
            if (::poll(fds.data(), fds.size(), -1) < 0) {
                if (errno == EINTR)
                    continue;
                return;
            }
            if (fds[0].revents)
                return;
            if (fds[1].revents & POLLIN) {
                if (fifo) {
                    readFrom(listenFd, fifoBuffer, false);
                } else {
                    const int peer = ::accept4(listenFd, nullptr, nullptr, SOCK_CLOEXEC);
                    if (peer >= 0)
                        peers[peer] = {};
                }
            }
            for (size_t i = 2; i < fds.size(); ++i)
                if (fds[i].revents)
                    if (!readFrom(fds[i].fd, peers[fds[i].fd], true)) {
                        ::close(fds[i].fd);
                        peers.erase(fds[i].fd);
                    }
        }
    }

    bool readFrom(int fd, std::string& buffer, bool reply)
    {
        char chunk[512];
        const ssize_t n = ::read(fd, chunk, sizeof chunk);
        if (n <= 0)
            return n < 0 && (errno == EAGAIN || errno == EINTR);
        buffer.append(chunk, static_cast<size_t>(n));
        for (size_t nl; (nl = buffer.find('\n')) != std::string::npos;) {
            const std::string line = buffer.substr(0, nl);
            buffer.erase(0, nl + 1);
            if (line.find_first_not_of(" \t\r") == std::string::npos)
                continue;
            const std::string answer = desk.control(line);
            if (reply) {
                const std::string out = answer + "\n";
                (void)!::write(fd, out.data(), out.size());
            } else if (answer.rfind("ok", 0) != 0) {
                std::cerr << "virtual-desk: control \"" << line << "\": " << answer << "\n";
            }
        }
        return true;
    }

    VirtualDesk::Desk& desk;
    std::string path;
    bool fifo = false;
    bool ownsSocket = false;
    int listenFd = -1;
    int wake[2] = {-1, -1};
    std::string fifoBuffer;
    std::map<int, std::string> peers;
    std::thread thread;
};

} // namespace

int main(int argc, char** argv)
{
    std::string deskFile, logFile, controlPath;
    bool trace = false;
    int commandAt = -1;
    for (int i = 1; i < argc; ++i) {
        const std::string a = argv[i];
        auto value = [&]() -> std::string {
            if (i + 1 >= argc)
                usageError(a + " needs a value");
            return argv[++i];
        };
        if (a == "--") {
            commandAt = i + 1;
            break;
        } else if (a == "--desk") {
            deskFile = value();
        } else if (a == "--log") {
            logFile = value();
        } else if (a == "--trace") {
            trace = true;
        } else if (a == "--control") {
            controlPath = value();
        } else if (a == "--send") {
            const std::string path = value();
            std::string line;
            for (++i; i < argc; ++i) {
                if (!line.empty())
                    line += ' ';
                line += argv[i];
            }
            if (line.empty())
                usageError("--send needs a control command");
            return sendCommand(path, line);
        } else if (a == "-h" || a == "--help") {
            std::cout << kUsage;
            return 0;
        } else {
            usageError("unknown argument \"" + a + "\"");
        }
    }
    if (commandAt < 0 || commandAt >= argc)
        usageError("no command given (put it after --)");

    VirtualDesk::DeskConfig config;
    try {
        config = deskFile.empty() ? VirtualDesk::DeskConfig::defaultDesk() : VirtualDesk::DeskConfig::fromFile(deskFile);
    } catch (const std::exception& e) {
        std::cerr << "virtual-desk: " << e.what() << "\n";
        return kExitUsage;
    }

    if (!underPreload())
        reexecUnderUmockdev(argc, argv);
    ::unsetenv("VIRTUAL_DESK_REEXEC");

    // Blocked before any thread starts, so that only the signal thread takes them; the command gets them unblocked.
    const sigset_t signals = handledSignals();
    ::pthread_sigmask(SIG_BLOCK, &signals, nullptr);

    int status = 0;
    bool violated = false;
    try {
        VirtualDesk::Desk desk(config, VirtualDesk::DeskOptions{logFile, true, trace});
        ControlServer control(desk, controlPath);
        if (!controlPath.empty())
            control.start();

        posix_spawnattr_t attr;
        posix_spawnattr_init(&attr);
        sigset_t none;
        sigemptyset(&none);
        posix_spawnattr_setsigmask(&attr, &none);
        posix_spawnattr_setsigdefault(&attr, &signals);
        posix_spawnattr_setflags(&attr, POSIX_SPAWN_SETSIGMASK | POSIX_SPAWN_SETSIGDEF);
        pid_t pid = 0;
        const int rc = ::posix_spawnp(&pid, argv[commandAt], nullptr, &attr, argv + commandAt, environ);
        posix_spawnattr_destroy(&attr);
        if (rc != 0) {
            std::cerr << "virtual-desk: cannot start " << argv[commandAt] << ": " << std::strerror(rc) << "\n";
            return kExitCannotRun;
        }

        std::thread signalThread([&] {
            for (;;) {
                int sig = 0;
                if (::sigwait(&signals, &sig) != 0 || sig == SIGUSR2)
                    return;
                ::kill(pid, sig);
                desk.releaseAll();
            }
        });
        int wstatus = 0;
        while (::waitpid(pid, &wstatus, 0) < 0 && errno == EINTR) {
        }
        ::pthread_kill(signalThread.native_handle(), SIGUSR2);
        signalThread.join();
        status = WIFEXITED(wstatus) ? WEXITSTATUS(wstatus) : WIFSIGNALED(wstatus) ? 128 + WTERMSIG(wstatus) : 1;
        control.stop();
        violated = !desk.violations().empty();
    } catch (const std::exception& e) {
        std::cerr << "virtual-desk: " << e.what() << "\n";
        return kExitUsage;
    }
    if (violated) {
        std::cerr << "virtual-desk: the run broke the desk's rules (violations above)\n";
        return kExitViolation;
    }
    return status;
}
