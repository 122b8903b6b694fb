// SPDX-License-Identifier: GPL-3.0-or-later
// The desk's own /dev nodes: a pty behind each, end-of-file marks for readiness, and access modes.
#include "tools/virtual-desk/DevNode.h"

#include <fcntl.h>
#include <poll.h>
#include <pty.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <termios.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <filesystem>
#include <initializer_list>
#include <stdexcept>
#include <vector>

namespace VirtualDesk {

namespace {

constexpr char kEndOfFile = 0x04; // VEOF, ^D

// Kernel files that refuse an access even to root: sysctl entries are checked against their mode alone.
using Candidates = std::initializer_list<const char*>;
const Candidates kUnreadable = {"/proc/sys/vm/drop_caches", "/proc/sys/vm/compact_memory"};
const Candidates kUnwritable = {"/proc/sys/kernel/ostype", "/proc/sys/kernel/osrelease"};

std::string refusing(DevNode::Access access)
{
    for (const char* p : access == DevNode::Access::Read ? kUnreadable : kUnwritable)
        if (::access(p, F_OK) == 0)
            return p;
    throw std::runtime_error("virtual desk: no sysctl file to deny access with (is /proc mounted?)");
}

unsigned parseMode(const std::string& mode)
{
    if (mode.empty() || mode.size() > 4 || mode.find_first_not_of("01234567") != std::string::npos)
        throw std::invalid_argument("virtual desk: mode \"" + mode + "\" is not octal permission bits like \"0660\"");
    return static_cast<unsigned>(std::stoul(mode, nullptr, 8));
}

} // namespace

bool DevNode::grants(Access access, const std::string& mode)
{
    const unsigned m = parseMode(mode);
    // The session user is not the owner (root) but may be in the node's group (udev's "input", or an ACL).
    return access == Access::Read ? (m & 0044) != 0 : (m & 0022) != 0;
}

DevNode::DevNode(std::string rootDir, std::string nodeName, const std::string& majmin, Access which,
                 const std::string& mode)
    : root(std::move(rootDir)), name(std::move(nodeName)), path(root + "/dev/" + name), access(which)
{
    isGranted = grants(access, mode);
    char slavePath[128] = {};
    // openpty's own opens and ioctls happen inside the C library, out of umockdev's reach: the pty is a real one.
    if (::openpty(&master, &deskSlave, slavePath, nullptr, nullptr) != 0)
        throw std::runtime_error(std::string("virtual desk: cannot open a pty: ") + std::strerror(errno));
    slaveName = slavePath;
    ::fcntl(master, F_SETFD, FD_CLOEXEC);
    ::fcntl(deskSlave, F_SETFD, FD_CLOEXEC);
    ::fcntl(master, F_SETFL, O_NONBLOCK);
    ::fcntl(deskSlave, F_SETFL, O_NONBLOCK);
    termios t{};
    ::tcgetattr(deskSlave, &t);
    t.c_iflag = 0;
    t.c_oflag = 0;
    t.c_lflag = ICANON; // no echo, no signals: ^D ends an empty line, which a read returns as 0 bytes
    t.c_cc[VEOF] = kEndOfFile;
    ::tcsetattr(deskSlave, TCSANOW, &t);
    ::chmod(slaveName.c_str(), parseMode(mode) & 0777);
    std::filesystem::create_directories(std::filesystem::path(path).parent_path());
    // umockdev's isatty() looks the pty up here and answers 0 for a device that is no terminal.
    std::string mapped = slaveName;
    std::replace(mapped.begin(), mapped.end(), '/', '_');
    ptymap = root + "/dev/.ptymap/" + mapped;
    std::filesystem::create_directories(root + "/dev/.ptymap");
    ::unlink(ptymap.c_str());
    (void)!::symlink(majmin.c_str(), ptymap.c_str());
    link(isGranted ? slaveName : refusing(access));
}

DevNode::~DevNode()
{
    unlink();
    hangup();
}

void DevNode::link(const std::string& target)
{
    if (!linked) {
        // A new node: watchers of the directory see IN_CREATE, as when devtmpfs makes it.
        if (::symlink(target.c_str(), path.c_str()) != 0)
            throw std::runtime_error("virtual desk: cannot create " + path + ": " + std::strerror(errno));
        linked = true;
        return;
    }
    // Replaced in one step (a link made elsewhere in the test bed is renamed over the node): an open() never finds
    // the node missing, and watchers of the directory see no creation.
    const std::string tmp = root + "/.devnode-" + std::to_string(::getpid()) + "-" + std::to_string(master);
    ::unlink(tmp.c_str());
    if (::symlink(target.c_str(), tmp.c_str()) != 0 || ::rename(tmp.c_str(), path.c_str()) != 0)
        throw std::runtime_error("virtual desk: cannot create " + path + ": " + std::strerror(errno));
    linked = true;
}

void DevNode::setReadable(bool want, int extra)
{
    if (master < 0)
        return;
    const bool has = readable();
    if (want && !has) {
        wake(1 + extra);
    } else if (!want && has) {
        ::tcflush(deskSlave, TCIFLUSH);
    }
}

bool DevNode::readable() const
{
    if (deskSlave < 0)
        return false;
    pollfd p{deskSlave, POLLIN, 0};
    return ::poll(&p, 1, 0) == 1 && (p.revents & POLLIN);
}

void DevNode::wake(int marks)
{
    if (master < 0 || marks <= 0)
        return;
    const std::vector<char> buf(static_cast<size_t>(marks), kEndOfFile);
    // Straight to the kernel: the master is no emulated node.
    (void)!::syscall(SYS_write, master, buf.data(), buf.size());
}

void DevNode::setMode(const std::string& mode)
{
    const unsigned m = parseMode(mode);
    isGranted = grants(access, mode);
    ::chmod(slaveName.c_str(), m & 0777);
    if (!linked)
        return;
    link(isGranted ? slaveName : refusing(access));
    // A permission change shows as IN_ATTRIB on the node.
    const timespec times[2] = {{0, UTIME_NOW}, {0, UTIME_NOW}};
    ::utimensat(AT_FDCWD, path.c_str(), times, AT_SYMLINK_NOFOLLOW);
}

void DevNode::unlink()
{
    if (linked)
        ::unlink(path.c_str());
    linked = false;
}

void DevNode::hangup()
{
    if (!ptymap.empty())
        ::unlink(ptymap.c_str());
    ptymap.clear();
    if (master >= 0)
        ::close(master);
    if (deskSlave >= 0)
        ::close(deskSlave);
    master = deskSlave = -1;
}

} // namespace VirtualDesk
