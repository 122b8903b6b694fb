// SPDX-License-Identifier: GPL-3.0-or-later
#include "Lumora/Platform/Linux/Desktop/SingleInstance.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>

namespace Lumora::SingleInstance {
namespace {

bool isPrivateDirectory(const std::string& path)
{
    struct stat status {};
    if (::lstat(path.c_str(), &status) != 0) {
        return false;
    }
    return S_ISDIR(status.st_mode) && status.st_uid == ::getuid() && (status.st_mode & 077) == 0;
}

}  // namespace

std::optional<std::string> lockPath(const char* runtimeDirectory, const std::string& fallbackParent)
{
    if (runtimeDirectory != nullptr && runtimeDirectory[0] == '/') {
        return std::string(runtimeDirectory) + "/lumora.lock";
    }
    const std::string directory = fallbackParent + "/lumora-" + std::to_string(::getuid());
    if (::mkdir(directory.c_str(), 0700) != 0 && errno != EEXIST) {
        return std::nullopt;
    }
    if (!isPrivateDirectory(directory)) {
        return std::nullopt;
    }
    return directory + "/lumora.lock";
}

bool acquire()
{
    static int held = -1;
    if (held >= 0) {
        return true;
    }
    const std::optional<std::string> path = lockPath(std::getenv("XDG_RUNTIME_DIR"));
    if (!path) {
        return true;
    }
    const int fd = ::open(path->c_str(), O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW, 0600);
    if (fd < 0) {
        return true;
    }
    int result = 0;
    do {
        result = ::flock(fd, LOCK_EX | LOCK_NB);
    } while (result != 0 && errno == EINTR);
    if (result != 0) {
        const bool busy = errno == EWOULDBLOCK;
        ::close(fd);
        return !busy;
    }
    held = fd;  // the lock goes with the process
    return true;
}

}  // namespace Lumora::SingleInstance
