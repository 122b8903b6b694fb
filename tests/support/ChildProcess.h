// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once
// A helper program (a private D-Bus daemon, a python-dbusmock service) that lives as long as the test needs it:
// it dies with the test, runs without umockdev's preload, its standard output discarded; killed and reaped when
// dropped. With `awaitOutput` the constructor returns once the child has printed something (bounded wait).

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include <gtest/gtest.h>

extern char** environ;

namespace LumoraTest {

struct Child {
    pid_t pid;
    explicit Child(std::vector<std::string> argv, bool awaitOutput = false,
                   std::chrono::milliseconds awaitFor = std::chrono::seconds(20))
    {
        std::vector<char*> args, env;
        for (std::string& a : argv)
            args.push_back(a.data());
        for (char** e = environ; *e; ++e) {
            if (!std::string_view(*e).starts_with("LD_PRELOAD="))
                env.push_back(*e);
        }
        args.push_back(nullptr);
        env.push_back(nullptr);
        int out[2];
        EXPECT_EQ(::pipe2(out, O_CLOEXEC), 0);
        if ((pid = ::fork()) == 0) {  // async-signal-safe calls only until exec
            ::prctl(PR_SET_PDEATHSIG, SIGKILL);
            ::dup2(awaitOutput ? out[1] : ::open("/dev/null", O_WRONLY), STDOUT_FILENO);
            ::execve(args[0], args.data(), env.data());
            ::_exit(127);
        }
        ::close(out[1]);
        // A signal (a sanitizer's own, a child's end) interrupts the wait; it goes on for the time that is left.
        pollfd p{out[0], POLLIN, 0};
        const auto until = std::chrono::steady_clock::now() + awaitFor;
        int ready = 0;
        while (awaitOutput && ready != 1) {
            const auto left = std::chrono::ceil<std::chrono::milliseconds>(until - std::chrono::steady_clock::now());
            ready = ::poll(&p, 1, int(std::max<std::int64_t>(left.count(), 0)));
            if (ready == 0 || (ready < 0 && errno != EINTR))
                break;
        }
        EXPECT_TRUE(!awaitOutput || ready == 1) << args[0] << " printed nothing";
        ::close(out[0]);
    }
    ~Child()
    {
        ::kill(pid, SIGKILL);
        ::waitpid(pid, nullptr, 0);
    }
    Child(const Child&) = delete;
    Child& operator=(const Child&) = delete;
};

}  // namespace LumoraTest
