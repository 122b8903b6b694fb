// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once
// Runs a program to completion with a deadline, capturing its standard output and standard error.
// The child is always reaped; on the deadline it is killed (its whole process group) and reported as timed out.

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <map>
#include <optional>
#include <string>
#include <vector>

extern char** environ;

namespace LumoraTest {

struct ProcessResult {
    bool timedOut = false;
    int exitStatus = -1;  // -1 when it did not exit normally
    std::string out;
    std::string err;
};

using Environment = std::map<std::string, std::optional<std::string>>;

// `environment` entries are added to (and override) this process's environment; an absent value removes one.
inline ProcessResult runProcess(std::vector<std::string> argv, const Environment& environment,
                                std::chrono::milliseconds timeout)
{
    std::map<std::string, std::string> env;
    for (char** e = environ; *e; ++e) {
        const std::string entry = *e;
        if (const std::size_t eq = entry.find('='); eq != std::string::npos)
            env[entry.substr(0, eq)] = entry.substr(eq + 1);
    }
    for (const auto& [name, value] : environment)
        value ? void(env[name] = *value) : void(env.erase(name));
    std::vector<std::string> envStrings;
    for (const auto& [name, value] : env)
        envStrings.push_back(name + "=" + value);
    std::vector<char*> envp, argp;
    for (std::string& s : envStrings)
        envp.push_back(s.data());
    for (std::string& s : argv)
        argp.push_back(s.data());
    envp.push_back(nullptr);
    argp.push_back(nullptr);

    ProcessResult result;
    int outPipe[2], errPipe[2];
    if (pipe2(outPipe, O_CLOEXEC) != 0 || pipe2(errPipe, O_CLOEXEC) != 0)
        return result;
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_adddup2(&actions, outPipe[1], STDOUT_FILENO);
    posix_spawn_file_actions_adddup2(&actions, errPipe[1], STDERR_FILENO);
    posix_spawnattr_t attributes;
    posix_spawnattr_init(&attributes);
    posix_spawnattr_setflags(&attributes, POSIX_SPAWN_SETPGROUP);
    posix_spawnattr_setpgroup(&attributes, 0);
    pid_t pid = -1;
    const int spawned = posix_spawn(&pid, argp[0], &actions, &attributes, argp.data(), envp.data());
    posix_spawn_file_actions_destroy(&actions);
    posix_spawnattr_destroy(&attributes);
    close(outPipe[1]);
    close(errPipe[1]);
    pollfd fds[2] = {{outPipe[0], POLLIN, 0}, {errPipe[0], POLLIN, 0}};
    if (spawned != 0) {
        close(outPipe[0]);
        close(errPipe[0]);
        result.err = "cannot start " + argv[0];
        return result;
    }
    const auto deadline = std::chrono::steady_clock::now() + timeout;
    for (int open = 2; open > 0;) {
        const auto left = std::chrono::ceil<std::chrono::milliseconds>(deadline - std::chrono::steady_clock::now());
        if (left.count() <= 0) {
            result.timedOut = true;
            kill(-pid, SIGKILL);
            break;
        }
        if (poll(fds, 2, static_cast<int>(left.count())) < 0 && errno != EINTR)
            break;
        for (int i = 0; i < 2; ++i) {
            if (fds[i].fd < 0 || !(fds[i].revents & (POLLIN | POLLHUP | POLLERR)))
                continue;
            char buffer[4096];
            const ssize_t n = read(fds[i].fd, buffer, sizeof buffer);
            if (n > 0) {
                (i == 0 ? result.out : result.err).append(buffer, static_cast<std::size_t>(n));
            } else if (n == 0 || errno != EINTR) {
                close(fds[i].fd);
                fds[i].fd = -1;
                --open;
            }
        }
    }
    for (const pollfd& f : fds) {
        if (f.fd >= 0)
            close(f.fd);
    }
    int status = 0;
    waitpid(pid, &status, 0);
    if (!result.timedOut && WIFEXITED(status))
        result.exitStatus = WEXITSTATUS(status);
    return result;
}

}  // namespace LumoraTest
