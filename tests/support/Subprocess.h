// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once
// The tests' child processes, each in a process group of its own and always reaped: a program run to completion with a
// deadline (runProcess), or a helper living as long as the test needs it (Child). Spawned: forking stalls sanitizers.

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/mman.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>
#include <cerrno>
#include <chrono>
#include <map>
#include <optional>
#include <string>
#include <system_error>
#include <vector>
#include <gtest/gtest.h>

extern char** environ;

namespace LumoraTest {

struct ProcessResult {
    bool timedOut = false;
    int exitStatus = -1;  // -1 when it did not exit normally
    std::string out, err;
};

// Entries added to (or overriding) this process's environment; an absent value removes one.
using Environment = std::map<std::string, std::optional<std::string>>;

// Starts argv[0] with its standard output and error on `out` and `err`.
inline pid_t spawn(std::vector<std::string> argv, const Environment& environment, int out, int err)
{
    std::vector<std::string> entries;
    for (char** e = environ; *e; ++e) {
        const std::string entry = *e;
        if (!environment.contains(entry.substr(0, entry.find('='))))
            entries.push_back(entry);
    }
    for (const auto& [name, value] : environment)
        if (value)
            entries.push_back(name + "=" + *value);
    std::vector<char*> envp{nullptr}, argp{nullptr};  // each ends with a null pointer
    for (std::string& s : entries)
        envp.insert(envp.end() - 1, s.data());
    for (std::string& s : argv)
        argp.insert(argp.end() - 1, s.data());
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_adddup2(&actions, out, STDOUT_FILENO);
    posix_spawn_file_actions_adddup2(&actions, err, STDERR_FILENO);
    posix_spawnattr_t attributes;
    posix_spawnattr_init(&attributes);
    posix_spawnattr_setflags(&attributes, POSIX_SPAWN_SETPGROUP);
    pid_t pid = -1;
    const int failed = ::posix_spawn(&pid, argp[0], &actions, &attributes, argp.data(), envp.data());
    posix_spawn_file_actions_destroy(&actions);
    posix_spawnattr_destroy(&attributes);
    if (failed)
        throw std::system_error(failed, std::generic_category(), "cannot start " + argv[0]);
    return pid;
}

// poll() until `deadline`, going on after a signal (a sanitizer's own, a child's end): 0 when the time is up.
inline int pollUntil(pollfd* fds, nfds_t count, std::chrono::steady_clock::time_point deadline)
{
    for (;;) {
        const auto left = std::chrono::ceil<std::chrono::milliseconds>(deadline - std::chrono::steady_clock::now());
        if (left.count() <= 0)
            return 0;
        const int ready = ::poll(fds, count, int(left.count()));
        if (ready >= 0 || errno != EINTR)
            return ready;
    }
}

// Runs a program to completion, capturing its output; on the deadline its process group is killed.
inline ProcessResult runProcess(std::vector<std::string> argv, const Environment& environment,
                                std::chrono::milliseconds timeout)
{
    ProcessResult result;
    const int out = ::memfd_create("out", MFD_CLOEXEC), err = ::memfd_create("err", MFD_CLOEXEC);
    const pid_t pid = spawn(argv, environment, out, err);
    pollfd exited{int(::syscall(SYS_pidfd_open, pid, 0)), POLLIN, 0};
    result.timedOut = pollUntil(&exited, 1, std::chrono::steady_clock::now() + timeout) == 0;
    if (result.timedOut)
        ::kill(-pid, SIGKILL);
    int status = 0;
    ::waitpid(pid, &status, 0);
    if (!result.timedOut && WIFEXITED(status))
        result.exitStatus = WEXITSTATUS(status);
    for (const auto& [fd, text] : {std::pair{out, &result.out}, std::pair{err, &result.err}}) {
        char buffer[4096];
        for (ssize_t n; (n = ::pread(fd, buffer, sizeof buffer, off_t(text->size()))) > 0;)
            text->append(buffer, std::size_t(n));
        ::close(fd);
    }
    ::close(exited.fd);
    return result;
}

// A helper program without umockdev's preload, its output discarded, dying with the test (setpriv's parent-death
// signal), killed when dropped. With `awaitOutput` the constructor returns once it has printed something (bounded).
struct Child {
    pid_t pid;
    explicit Child(std::vector<std::string> argv, bool awaitOutput = false,
                   std::chrono::milliseconds awaitFor = std::chrono::seconds(20))
    {
        int out[2];
        EXPECT_EQ(::pipe2(out, O_CLOEXEC), 0);
        const int sink = awaitOutput ? out[1] : ::open("/dev/null", O_WRONLY | O_CLOEXEC);
        std::vector<std::string> command{"/usr/bin/setpriv", "--pdeathsig", "KILL", "--"};
        command.insert(command.end(), argv.begin(), argv.end());
        pid = spawn(command, {{"LD_PRELOAD", std::nullopt}}, sink, STDERR_FILENO);
        if (sink != out[1])
            ::close(sink);
        ::close(out[1]);
        pollfd p{out[0], POLLIN, 0};
        EXPECT_TRUE(!awaitOutput || pollUntil(&p, 1, std::chrono::steady_clock::now() + awaitFor) == 1)
            << argv[0] << " printed nothing";
        ::close(out[0]);
    }
    ~Child()
    {
        ::kill(-pid, SIGKILL);
        ::waitpid(pid, nullptr, 0);
    }
    Child(const Child&) = delete;
    Child& operator=(const Child&) = delete;
};

}  // namespace LumoraTest
