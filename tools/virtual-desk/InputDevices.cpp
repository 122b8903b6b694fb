// SPDX-License-Identifier: GPL-3.0-or-later
// Input devices coming and going: keyboards from the desk file or plugged in later, uinput clones created and
// destroyed by their descriptors. Each gets its node (a pty the desk owns), its sysfs records and uevents, and
// its evdev state; when it goes, open descriptors see ENODEV and POLLHUP, as on the kernel.
#include "tools/virtual-desk/DeskImpl.h"
#include "tools/virtual-desk/InputCodes.h"
#include "tools/virtual-desk/InputDesk.h"
#include "tools/virtual-desk/InputSysfs.h"

#include <nlohmann/json.hpp>

#include <algorithm>
#include <cstdio>
#include <filesystem>
#include <stdexcept>

namespace VirtualDesk {

namespace {

std::string baseName(const std::string& name)
{
    const std::string suffix = " Consumer Control";
    return name.size() > suffix.size() && name.ends_with(suffix) ? name.substr(0, name.size() - suffix.size()) : name;
}

} // namespace

std::string toJsonLine(const InputRecord& r)
{
    nlohmann::ordered_json j;
    j["kind"] = "input";
    j["t"] = r.us;
    j["device"] = r.device;
    j["what"] = r.what;
    if (r.type >= 0) {
        j["type"] = eventTypeName(r.type);
        j["code"] = eventCodeName(r.type, r.code);
        j["value"] = r.value;
    }
    if (!r.detail.empty())
        j["detail"] = r.detail;
    return j.dump();
}

void InputDesk::later(std::function<void()> job)
{
    {
        std::lock_guard lk(jobsMu);
        if (!jobsStopped) {
            jobs.push_back(std::move(job));
            ++jobsQueued;
            jobsCv.notify_all();
            return;
        }
    }
    job(); // the desk is going: no thread any more
}

void InputDesk::build()
{
    namespace fs = std::filesystem;
    jobThread = std::thread([this] {
        for (;;) {
            std::function<void()> job;
            {
                std::unique_lock lk(jobsMu);
                jobsCv.wait(lk, [&] { return jobsStopped || !jobs.empty(); });
                if (jobs.empty())
                    return;
                job = std::move(jobs.front());
                jobs.pop_front();
            }
            try {
                job();
            } catch (const std::exception& e) {
                std::fprintf(stderr, "virtual desk: %s\n", e.what());
            }
            std::lock_guard lk(jobsMu);
            --jobsQueued;
            jobsCv.notify_all();
        }
    });
    // /dev/input exists also without devices (udev keeps by-path and by-id there), so that it can be watched.
    fs::create_directories(impl.root + "/dev/input/by-path");
    fs::create_directories(impl.sysDir + "/class/input");
    if (impl.config.uinput) {
        attach("/dev/uinput");
        uinputNode = std::make_unique<DevNode>(impl.root, "uinput", "10:223", DevNode::Access::Write,
                                               impl.config.uinput->mode);
        std::lock_guard tk(impl.testbedMu);
        GError* error = nullptr;
        const char* misc = "P: /devices/virtual/misc/uinput\nE: SUBSYSTEM=misc\nE: DEVNAME=/dev/uinput\nE: MAJOR=10\n"
                           "E: MINOR=223\nA: dev=10:223\\n\n";
        if (!umockdev_testbed_add_from_string(impl.testbed, misc, &error)) {
            std::string msg = error ? error->message : "unknown error";
            g_clear_error(&error);
            throw std::runtime_error("virtual desk: umockdev rejected /dev/uinput: " + msg);
        }
    }
    for (const auto& k : impl.config.keyboards) {
        InputDevice* d;
        {
            std::lock_guard lk(impl.mu);
            d = &createKeyboard(k);
        }
        publish(*d);
    }
}

int InputDesk::unitFor(const KeyboardConfig& k)
{
    if (k.kind == "plain" || k.kind == "consumer") {
        // The interfaces of one USB keyboard share its port.
        auto [it, added] = usbPorts.emplace(baseName(k.name), static_cast<int>(usbPorts.size()) + 1);
        return it->second;
    }
    return kindCount[k.kind]++;
}

int InputDesk::freeEventNumber() const
{
    for (int n = 0;; ++n)
        if (!live.count("/dev/input/event" + std::to_string(n)) && !reserved.count(n))
            return n;
}

InputDevice* InputDesk::find(std::string_view device) const
{
    std::string node(device);
    if (node.rfind("event", 0) == 0)
        node = "/dev/input/" + node;
    auto it = live.find(node);
    if (it != live.end())
        return it->second;
    for (const auto& [n, d] : live)
        if (!d->clone && d->label == device)
            return d;
    // A clone that is gone: the last device behind that node.
    for (auto r = devices.rbegin(); r != devices.rend(); ++r)
        if ((*r)->node == node)
            return r->get();
    return nullptr;
}

InputDevice& InputDesk::lookup(std::string_view device) const
{
    InputDevice* d = find(device);
    if (!d)
        throw std::invalid_argument("virtual desk: no input device \"" + std::string(device) + "\"");
    return *d;
}

InputDevice& InputDesk::createKeyboard(const KeyboardConfig& k)
{
    if (!isKeyboardKind(k.kind))
        throw std::invalid_argument("virtual desk: unknown keyboard kind \"" + k.kind + "\"");
    const int event = k.event >= 0 ? k.event : freeEventNumber();
    const std::string node = "/dev/input/event" + std::to_string(event);
    if (live.count(node) || reserved.count(event))
        throw std::invalid_argument("virtual desk: " + node + " is taken");
    for (const auto& [n, d] : live)
        if (!d->clone && d->label == k.name)
            throw std::invalid_argument("virtual desk: a keyboard named \"" + k.name + "\" exists already");
    KeyboardModel model = keyboardModel(k, unitFor(k));
    auto d = std::make_unique<InputDevice>(EmulatedKeyboard(model.identity, model.caps));
    d->node = node;
    d->event = event;
    d->input = nextInput++;
    d->label = k.name;
    d->scan = model.scan;
    d->syspath = "/sys" + model.parents.back().devpath + "/input/input" + std::to_string(d->input);
    d->eventSyspath = d->syspath + "/event" + std::to_string(event);
    // The handler is there before the node: whoever opens it is answered.
    attach(node);
    d->pty = std::make_unique<DevNode>(impl.root, "input/event" + std::to_string(event),
                                       "13:" + std::to_string(64 + event), DevNode::Access::Read, k.mode);
    d->udevProperties = model.udevProperties;
    d->parents = model.parents;
    InputDevice& ref = *d;
    devices.push_back(std::move(d));
    live[node] = &ref;
    record({impl.now(), node, "add", -1, -1, 0, k.name});
    impl.notifyLocked();
    return ref;
}

InputDevice& InputDesk::createClone(const InputIdentity& identity, const InputCapabilities& caps)
{
    const int event = freeEventNumber();
    const std::string node = "/dev/input/event" + std::to_string(event);
    auto d = std::make_unique<InputDevice>(EmulatedKeyboard(identity, caps));
    d->node = node;
    d->event = event;
    d->input = nextInput++;
    d->label = "uinput clone";
    d->clone = true;
    d->syspath = "/sys/devices/virtual/input/input" + std::to_string(d->input);
    d->eventSyspath = d->syspath + "/event" + std::to_string(event);
    // A uinput device's node is readable as any input node; the clone's readers are the session's.
    attach(node);
    d->pty = std::make_unique<DevNode>(impl.root, "input/event" + std::to_string(event),
                                       "13:" + std::to_string(64 + event), DevNode::Access::Read, "0660");
    InputDevice& ref = *d;
    devices.push_back(std::move(d));
    live[node] = &ref;
    record({impl.now(), node, "create", -1, -1, 0, identity.name});
    impl.notifyLocked();
    return ref;
}

void InputDesk::publish(InputDevice& d)
{
    std::lock_guard tk(impl.testbedMu);
    std::string text;
    for (const auto& p : d.parents)
        if (parentsAdded.insert(p.devpath).second)
            text += p.record + "\n";
    text += inputRecords(d.syspath.substr(4), d.event, d.dev.identity(), d.dev.capabilities(), d.udevProperties,
                         !d.parents.empty());
    GError* error = nullptr;
    // umockdev sends the "add" uevents, inputK first, then eventN, as the kernel does.
    if (!umockdev_testbed_add_from_string(impl.testbed, text.c_str(), &error)) {
        std::string msg = error ? error->message : "unknown error";
        g_clear_error(&error);
        throw std::runtime_error("virtual desk: umockdev rejected " + d.node + ": " + msg);
    }
}

void InputDesk::retire(InputDevice& d)
{
    if (!d.dev.alive())
        return;
    d.heldAtEnd = d.dev.keyState().list();
    d.goneUs = impl.now();
    d.dev.kill();
    live.erase(d.node);
    reserved.insert(d.event); // until its sysfs entries and node are gone
    ++leaving;
    record({d.goneUs, d.node, d.clone ? "destroy" : "remove", -1, -1, 0,
            d.heldAtEnd.empty() ? "" : "held " + std::to_string(d.heldAtEnd.size()) + " keys"});
    impl.notifyLocked();
}

void InputDesk::unpublish(InputDevice& d)
{
    {
        std::lock_guard tk(impl.testbedMu);
        // The node leaves /dev first; the kernel announces the evdev child, then the input device.
        d.pty->unlink();
        umockdev_testbed_uevent(impl.testbed, d.eventSyspath.c_str(), "remove");
        umockdev_testbed_uevent(impl.testbed, d.syspath.c_str(), "remove");
        umockdev_testbed_remove_device(impl.testbed, d.eventSyspath.c_str());
        umockdev_testbed_remove_device(impl.testbed, d.syspath.c_str());
        // umockdev leaves /sys/dev/char/13:M behind (it reads `dev` with its newline); the number comes free again.
        std::filesystem::remove(impl.sysDir + "/dev/char/13:" + std::to_string(64 + d.event));
    }
    std::lock_guard lk(impl.mu);
    // Descriptors still open see the hang-up: poll() reports POLLHUP, reads and ioctls fail with ENODEV.
    d.pty->hangup();
    reserved.erase(d.event);
    --leaving;
    impl.notifyLocked();
}

void InputDesk::emitFrame(InputDevice& d, const std::vector<RawInput>& events, const std::string& what)
{
    const Clocks when = Clocks::now();
    const int64_t us = impl.now();
    for (const auto& e : events) {
        if (!what.empty())
            record({us, d.node, what, e.type, e.code, e.value, ""});
        d.dev.emit(e.type, e.code, e.value, when);
    }
    syncReadiness(d);
    impl.notifyLocked();
}

void InputDesk::syncReadiness(InputDevice& d)
{
    if (!d.pty || !d.dev.alive())
        return;
    int waiting = 0;
    for (const auto& [client, c] : clients)
        if (c.device == &d && c.fellThrough)
            ++waiting;
    d.pty->setReadable(d.dev.anyReadable(), waiting);
}

void InputDesk::record(InputRecord r)
{
    records.push_back(std::move(r));
}

} // namespace VirtualDesk
