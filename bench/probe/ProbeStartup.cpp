// SPDX-License-Identifier: GPL-3.0-or-later
// How long `LUMORA_PROBE=1 lumora` takes from start to exit on a machine with no displays: the fixed cost of the
// probe (process start, dynamic linking, one connector walk, the bindings) that every script call pays.
// It also checks that the probe never starts the GUI: it runs without any display server, with Qt told to use X11.

#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

extern char** environ;

namespace {

double runOnce(const char* program, std::string& output)
{
    int pipeFds[2];
    if (pipe(pipeFds) != 0)
        return -1;
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_adddup2(&actions, pipeFds[1], STDOUT_FILENO);
    posix_spawn_file_actions_addclose(&actions, pipeFds[0]);
    std::vector<std::string> env = {"LUMORA_PROBE=1", "QT_QPA_PLATFORM=xcb", "PATH=/usr/bin:/bin"};
    std::vector<char*> envp;
    for (std::string& e : env)
        envp.push_back(e.data());
    envp.push_back(nullptr);
    char* argv[] = {const_cast<char*>(program), nullptr};

    auto start = std::chrono::steady_clock::now();
    pid_t pid;
    int spawned = posix_spawn(&pid, program, &actions, nullptr, argv, envp.data());
    posix_spawn_file_actions_destroy(&actions);
    close(pipeFds[1]);
    if (spawned != 0) {
        close(pipeFds[0]);
        return -1;
    }
    output.clear();
    char buffer[4096];
    ssize_t n;
    while ((n = read(pipeFds[0], buffer, sizeof buffer)) > 0)
        output.append(buffer, static_cast<std::size_t>(n));
    close(pipeFds[0]);
    int status = 0;
    waitpid(pid, &status, 0);
    auto end = std::chrono::steady_clock::now();
    if (!WIFEXITED(status) || WEXITSTATUS(status) != 0)
        return -1;
    return std::chrono::duration<double, std::milli>(end - start).count();
}

}  // namespace

int main(int argc, char** argv)
{
    const char* program = argc > 1 ? argv[1] : LUMORA_BINARY;
    const int runs = argc > 2 ? std::atoi(argv[2]) : 50;
    std::vector<double> times;
    std::string output;
    for (int i = 0; i < runs; ++i) {
        double ms = runOnce(program, output);
        if (ms < 0) {
            std::fprintf(stderr, "probe run failed (exit status non-zero or crash); output:\n%s\n", output.c_str());
            return 1;
        }
        times.push_back(ms);
    }
    std::sort(times.begin(), times.end());
    auto at = [&](double q) { return times[static_cast<std::size_t>(q * (times.size() - 1))]; };
    std::printf("probe start-up, no displays, no display server (%d runs)\n", runs);
    std::printf("  %-8s %8s\n", "", "ms");
    std::printf("  %-8s %8.2f\n", "min", times.front());
    std::printf("  %-8s %8.2f\n", "median", at(0.5));
    std::printf("  %-8s %8.2f\n", "p95", at(0.95));
    std::printf("  output: %s", output.c_str());
    return 0;
}
