// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once
// The input side of the running desk: its keyboards and uinput clones (each an evdev device with its node and
// sysfs entries), /dev/uinput, the descriptors open on them, and the record of what was written to the clones.
//
// Threads: the handlers (InputHandler.cpp) run on umockdev's worker thread, the Desk calls on any thread. All state
// here is guarded by the desk's one mutex (Desk::Impl::mu); test bed changes (sysfs records, uevents) happen after
// it is released, under Desk::Impl::testbedMu, as for connectors.
#include "tools/virtual-desk/DevNode.h"
#include "tools/virtual-desk/EmulatedKeyboard.h"
#include "tools/virtual-desk/EmulatedUinput.h"
#include "tools/virtual-desk/KeyboardKinds.h"
#include "tools/virtual-desk/VirtualDesk.h"

#include <umockdev.h>

#include <condition_variable>
#include <cstdint>
#include <deque>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

namespace VirtualDesk {

// One input device that exists or existed: a keyboard of the desk or a uinput clone.
struct InputDevice {
    explicit InputDevice(EmulatedKeyboard device) : dev(std::move(device)) {}
    std::string node;           // "/dev/input/event3"
    int event = -1;             // N of eventN
    int input = -1;             // K of inputK
    std::string syspath;        // "/sys/devices/.../input/input5"
    std::string eventSyspath;   // its eventN child
    std::string label;          // a keyboard's name, or "uinput clone"
    bool clone = false;
    ScanCodes scan = ScanCodes::None;
    EmulatedKeyboard dev;
    std::unique_ptr<DevNode> pty;
    std::vector<int> heldAtEnd; // keys down when it went away
    int64_t goneUs = -1;        // when it went away (desk clock), -1 while present
    std::vector<ParentDevice> parents;        // sysfs devices above it (a keyboard's port or interface)
    std::vector<std::string> udevProperties;  // ID_INPUT=1, ...
};

struct RawInput {
    uint16_t type = 0, code = 0;
    int32_t value = 0;
};

// One open descriptor of an input node or of /dev/uinput.
struct InputClient {
    int id = 0;
    std::string devnode;             // what was opened: "/dev/input/event0", "/dev/uinput"
    InputDevice* device = nullptr;   // the evdev device it reads (nullptr: the device was gone when it connected)
    // Its last read went on to the pty and may still be sleeping there. Only its next read tells that it has
    // ended: another thread may use the same descriptor for ioctls meanwhile.
    bool fellThrough = false;
    std::unique_ptr<EmulatedUinput> uinput;
    InputDevice* clone = nullptr;    // the clone this uinput descriptor created
};

// An input record of the log (--log), kind "input".
struct InputRecord {
    int64_t us = 0;
    std::string device;   // node
    std::string what;     // "event" (a keyboard's), "write" (to a clone), "add", "remove", "create", "destroy",
                          // "grab", "ungrab", "access"
    int type = -1, code = -1, value = 0;
    std::string detail;
};
std::string toJsonLine(const InputRecord&);

// A keyboard command of the control language (InputControl.cpp), or nothing when `words` is not one.
std::optional<std::string> inputControl(Desk& desk, const std::vector<std::string>& words, std::string_view line);

struct InputDesk {
    explicit InputDesk(Desk::Impl& impl) : impl(impl) {}

    Desk::Impl& impl;
    std::vector<std::unique_ptr<InputDevice>> devices; // every device ever, in order of creation
    std::map<std::string, InputDevice*> live;           // node -> the device now behind it
    std::map<std::string, UMockdevIoctlBase*> handlers; // node -> its handler (attached once, kept to the end)
    std::map<UMockdevIoctlClient*, InputClient> clients;
    std::unique_ptr<DevNode> uinputNode;
    std::set<std::string> parentsAdded;                 // sysfs parents already in the test bed (under testbedMu)
    std::set<int> reserved;                             // eventN numbers whose device is still being taken out
    std::map<std::string, int> usbPorts;                // a USB keyboard's name -> its port
    std::map<std::string, int> kindCount;               // keyboards of other kinds so far
    int leaving = 0;                                    // devices retired and not yet out of the test bed
    std::thread jobThread;
    std::mutex jobsMu;
    std::condition_variable jobsCv;
    std::deque<std::function<void()>> jobs;
    int jobsQueued = 0;                                 // queued or running
    bool jobsStopped = false;
    int nextInput = 3;                                  // inputK numbers only grow, as the kernel's
    int nextClient = 1;
    std::vector<std::pair<const InputDevice*, InputEvent>> forwardedLog; // every write to a clone, with the clone
    std::vector<InputRecord> records;

    // ---- building and tearing down (Desk.cpp calls these) ----
    void build();     // /dev/input, /sys/class/input, /dev/uinput and the configured keyboards
    void detachAll(); // pending sysfs work done, handlers off the test bed, ptys hung up

    // Sysfs work for clones (their entries and uevents) runs on a thread of its own: it takes a while on a busy disk,
    // and neither umockdev's worker (every device's calls) nor the desk thread (the i2c transfers) may wait for it.
    void later(std::function<void()> job);

    // ---- devices (InputDevices.cpp); callers hold impl.mu unless said otherwise ----
    int freeEventNumber() const;
    InputDevice& lookup(std::string_view device) const; // by "event0", node, or keyboard name; throws
    InputDevice* find(std::string_view device) const;
    // Adds a keyboard or clone: objects and node under the lock, then `publish` (without the lock) puts it into the
    // test bed, which sends the "add" uevents.
    InputDevice& createKeyboard(const KeyboardConfig& config);
    InputDevice& createClone(const InputIdentity& identity, const InputCapabilities& caps);
    void publish(InputDevice& device);                  // no lock held
    void retire(InputDevice& device);                   // under the lock: dead, held keys noted
    void unpublish(InputDevice& device);                // no lock held: node, "remove" uevents, sysfs, hang-up
    // Events into the device's input core (a key from the hardware, a write to the node or to uinput); `what`
    // names the log record of each ("" for none).
    void emitFrame(InputDevice& device, const std::vector<RawInput>& events, const std::string& what);
    void syncReadiness(InputDevice& device);            // the node's pty readable exactly when a reader has events
    void record(InputRecord r);

    // ---- handlers (InputHandler.cpp): umockdev worker thread ----
    void attach(const std::string& node);
    void onConnected(const std::string& node, UMockdevIoctlClient* client);
    void onDisconnected(UMockdevIoctlClient* client);
    void sweep();                                       // handles the descriptors that have closed
    GSource* sweeper = nullptr;
    static constexpr unsigned kSweepMs = 5;
    void handleIoctl(UMockdevIoctlClient* client);
    void handleRead(UMockdevIoctlClient* client);
    void handleWrite(UMockdevIoctlClient* client);

private:
    int unitFor(const KeyboardConfig& keyboard);
    void evdevIoctl(UMockdevIoctlClient* client, unsigned long request, UMockdevIoctlData* arg);
    void uinputIoctl(UMockdevIoctlClient* client, unsigned long request, UMockdevIoctlData* arg);
};

} // namespace VirtualDesk
