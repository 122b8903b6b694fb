// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once
// A /dev node the desk owns (/dev/input/eventN, /dev/uinput): what open() reaches, what poll() sees, and who may
// open it.
//
// umockdev hands read(), write() and ioctl() of an emulated node to the desk's handlers, but poll(), select() and
// epoll act on the real file behind the node. That file is a pty the desk owns: opening the node opens the pty's
// slave, and the pty's readiness is the node's. The slave runs in canonical mode and the desk marks the node
// readable by writing end-of-file characters (^D) to the master: poll() reports POLLIN, and a read() that reaches the
// pty itself (the desk lets a read with nothing queued fall through to it) returns 0 for each one, or EAGAIN on a
// non-blocking descriptor when there is none. Closing the master hangs the slave up: poll() then reports POLLHUP.
//
// Access: the node is a symlink in the test bed. While access is granted it points at the pty; while denied, at a
// kernel file that refuses the access to everyone, root included (a write-only sysctl for reading, a read-only one for
// writing), so open() and access() fail with EACCES as they do for a user without the permission.
#include <string>

namespace VirtualDesk {

class DevNode {
public:
    enum class Access { Read, Write }; // what the session user needs: read a keyboard, write uinput

    // Creates `root`/dev/`name` ("input/event0", "uinput") for the device `majmin` ("13:64") with the permission
    // bits `mode` ("0660").
    DevNode(std::string root, std::string name, const std::string& majmin, Access access, const std::string& mode);
    ~DevNode();
    DevNode(const DevNode&) = delete;
    DevNode& operator=(const DevNode&) = delete;

    // Keeps the pty readable exactly while `readable`: when it becomes readable, one end-of-file mark plus `extra`
    // more are written (a read that fell through to the pty may be about to take one); when not, all are dropped.
    void setReadable(bool readable, int extra);
    bool readable() const;      // a mark is waiting
    void wake(int marks);       // `marks` more marks: wakes a read sleeping in the pty

    // Permission bits: granted when the group or other bits allow the node's access. Watchers of the directory get
    // IN_ATTRIB, as for a chmod or an ACL change.
    void setMode(const std::string& mode);
    bool granted() const { return isGranted; }
    static bool grants(Access access, const std::string& mode); // throws std::invalid_argument on a bad mode

    void unlink();  // the node leaves /dev (the device is going away); descriptors open on it stay
    void hangup();  // descriptors open on it see POLLHUP; done at the latest by the destructor

    const std::string& slave() const { return slaveName; }

private:
    void link(const std::string& target);

    std::string root, name, path, slaveName, ptymap;
    Access access;
    int master = -1;
    int deskSlave = -1;  // the desk's own descriptor of the slave, to look at and drop the marks
    bool isGranted = true;
    bool linked = false;
};

} // namespace VirtualDesk
