// lumora-grant-input-access: gives the user at the seat what Lumora's brightness keys need, and nothing else.
// Run as root through pkexec when the user asks for it in Lumora's panel. It takes no arguments and reads no
// environment: it installs one fixed udev rule (the text is built in), loads the uinput module, and asks udev to
// apply the rule to the devices that exist now. Never a shell; every program it runs is given by absolute path.

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

#include "GrantInputAccessRule.h"

#ifndef LUMORA_GRANTED_RULES_DIR
#define LUMORA_GRANTED_RULES_DIR "/etc/udev/rules.d"
#endif

namespace {

constexpr const char* ruleName = "70-lumora-input.rules";
constexpr const char* statement =
    "This lets Lumora read the keyboard. The user at this seat may then read every keyboard and key device (every "
    "key you press, which Lumora needs to take the brightness keys and pass every other key on unchanged) and "
    "create virtual input devices through /dev/uinput.\n"
    "To take it back: remove " LUMORA_GRANTED_RULES_DIR "/70-lumora-input.rules and log in again.\n";

bool writeAll(int fd, const char* data, std::size_t size)
{
    while (size > 0) {
        const ssize_t n = ::write(fd, data, size);
        if (n < 0 && errno == EINTR)
            continue;
        if (n <= 0)
            return false;
        data += n;
        size -= static_cast<std::size_t>(n);
    }
    return true;
}

// Writes the rule beside its final name and renames it into place, so that udev never reads half a file.
bool installRule()
{
    const std::string target = std::string(LUMORA_GRANTED_RULES_DIR) + "/" + ruleName;
    const std::string temporary = target + ".new";
    ::unlink(temporary.c_str());
    const int fd = ::open(temporary.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0644);
    if (fd < 0) {
        std::fprintf(stderr, "lumora-grant-input-access: cannot create %s: %s\n", temporary.c_str(), std::strerror(errno));
        return false;
    }
    const std::string text = Lumora::GrantInputAccess::ruleText;
    const bool written = ::fchmod(fd, 0644) == 0 && writeAll(fd, text.data(), text.size()) && ::fsync(fd) == 0;
    const bool closed = ::close(fd) == 0;
    if (!written || !closed || ::rename(temporary.c_str(), target.c_str()) != 0) {
        std::fprintf(stderr, "lumora-grant-input-access: cannot write %s: %s\n", target.c_str(), std::strerror(errno));
        ::unlink(temporary.c_str());
        return false;
    }
    return true;
}

// Runs a program by absolute path, with a fixed environment, and waits for it. Tries each path in turn.
bool run(const std::vector<const char*>& paths, std::vector<const char*> arguments)
{
    for (const char* path : paths) {
        if (::access(path, X_OK) != 0)
            continue;
        arguments.insert(arguments.begin(), path);
        arguments.push_back(nullptr);
        static char pathVariable[] = "PATH=/usr/sbin:/usr/bin:/sbin:/bin";
        char* environment[] = {pathVariable, nullptr};
        const pid_t child = ::fork();
        if (child < 0)
            return false;
        if (child == 0) {
            ::execve(path, const_cast<char* const*>(arguments.data()), environment);
            ::_exit(127);
        }
        int status = 0;
        while (::waitpid(child, &status, 0) < 0 && errno == EINTR) {
        }
        return WIFEXITED(status) && WEXITSTATUS(status) == 0;
    }
    return false;
}

}  // namespace

int main(int argc, char**)
{
    if (argc != 1) {
        std::fputs("usage: lumora-grant-input-access (no arguments; run through pkexec)\n", stderr);
        return 2;
    }
    std::fputs(statement, stdout);
    if (::geteuid() != 0) {
        std::fputs("lumora-grant-input-access: must run as root: Lumora starts it through pkexec\n", stderr);
        return 1;
    }
    if (!installRule())
        return 1;
    const std::vector<const char*> modprobe{"/usr/sbin/modprobe", "/sbin/modprobe"};
    const std::vector<const char*> udevadm{"/usr/bin/udevadm", "/bin/udevadm"};
    run(modprobe, {"uinput"});
    const bool applied = run(udevadm, {"control", "--reload-rules"}) &&
                         run(udevadm, {"trigger", "--action=change", "--subsystem-match=input"}) &&
                         run(udevadm, {"trigger", "--action=change", "--subsystem-match=misc", "--sysname-match=uinput"});
    if (!applied)
        std::fputs("lumora-grant-input-access: the rule is installed; it applies once the keyboard is plugged in "
                   "again or at the next login\n",
                   stderr);
    return 0;
}
