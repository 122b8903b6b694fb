#include "Lumora/Platform/Linux/Desktop/SingleInstance.h"

#include <fcntl.h>
#include <sys/file.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <string>

namespace Lumora::SingleInstance {

bool acquire()
{
    static int held = -1;
    if (held >= 0) {
        return true;
    }
    const char* runtime = std::getenv("XDG_RUNTIME_DIR");
    const std::string path = runtime != nullptr && runtime[0] == '/'
                                 ? std::string(runtime) + "/lumora.lock"
                                 : "/tmp/lumora-" + std::to_string(::getuid()) + ".lock";
    const int fd = ::open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW, 0600);
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
