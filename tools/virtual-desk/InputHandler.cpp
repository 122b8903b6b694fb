// SPDX-License-Identifier: GPL-3.0-or-later
// The umockdev side of /dev/input/eventN and /dev/uinput: the evdev and uinput ioctls, read() and write(), and the
// descriptors coming and going. Handlers run on umockdev's worker thread and answer every call at once: a read with
// nothing queued is handed back to the C library's own read of the node's pty (see DevNode.h), which fails with
// EAGAIN on a non-blocking descriptor and otherwise sleeps in the kernel until the desk marks the node readable.
#include "tools/virtual-desk/DeskImpl.h"
#include "tools/virtual-desk/InputDesk.h"

#include <linux/input.h>
#include <linux/uinput.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <optional>

namespace VirtualDesk {

namespace {

// umockdev's answer that makes the preload carry out the call itself on the real file behind the node.
constexpr long kFallThrough = -100;

unsigned long argValue(UMockdevIoctlData* arg)
{
    unsigned long v = 0;
    if (arg && arg->data)
        std::memcpy(&v, arg->data, std::min<size_t>(sizeof v, static_cast<size_t>(arg->data_len)));
    return v;
}

void complete(UMockdevIoctlClient* client, long result, int err)
{
    if (umockdev_ioctl_client_get_connected(client))
        umockdev_ioctl_client_complete(client, result, err);
}

// The client's memory at the ioctl's pointer, `len` bytes; nullptr when it cannot be read (EFAULT).
UMockdevIoctlData* resolve(UMockdevIoctlData* arg, size_t len)
{
    if (len == 0)
        return nullptr;
    GError* error = nullptr;
    UMockdevIoctlData* d = umockdev_ioctl_data_resolve(arg, 0, len, &error);
    g_clear_error(&error);
    return d;
}

// A C string at the ioctl's pointer, read page by page so that no read runs past the string into unmapped memory.
std::optional<std::string> resolveString(UMockdevIoctlData* arg, size_t max)
{
    uint64_t at = argValue(arg);
    if (at == 0)
        return std::nullopt;
    std::string out;
    while (out.size() < max) {
        const size_t chunk = std::min<size_t>(4096 - at % 4096, max - out.size());
        std::memcpy(arg->data, &at, sizeof at);
        GError* error = nullptr;
        umockdev_ioctl_data_reload(arg, &error); // forget the previous chunk's resolution
        g_clear_error(&error);
        UMockdevIoctlData* d = resolve(arg, chunk);
        if (!d)
            return std::nullopt;
        const char* p = reinterpret_cast<const char*>(d->data);
        const size_t n = strnlen(p, chunk);
        out.append(p, n);
        g_object_unref(d);
        if (n < chunk)
            return out;
        at += chunk;
    }
    return out;
}

// Copies `bytes` into the client's buffer as the kernel's bits_to_user/str_to_user do: at most the buffer's size;
// returns the count copied.
long copyOut(UMockdevIoctlData* buf, const std::vector<uint8_t>& bytes)
{
    const size_t n = std::min(bytes.size(), static_cast<size_t>(buf->data_len));
    std::memcpy(buf->data, bytes.data(), n);
    return static_cast<long>(n);
}

std::vector<uint8_t> cString(const std::string& s)
{
    std::vector<uint8_t> v(s.begin(), s.end());
    v.push_back(0);
    return v;
}

template <typename T>
std::vector<uint8_t> asBytes(const T& value)
{
    std::vector<uint8_t> v(sizeof value);
    std::memcpy(v.data(), &value, sizeof value);
    return v;
}

constexpr unsigned long withoutSize(unsigned long request)
{
    return request & ~(static_cast<unsigned long>(_IOC_SIZEMASK) << _IOC_SIZESHIFT);
}

// How many bytes of the client's memory an evdev or uinput request points at: nothing for requests that pass a
// value (EVIOCGRAB 1) or that the devices do not support.
size_t pointedBytes(unsigned long req)
{
    switch (req) {
    case EVIOCGVERSION: return sizeof(int);
    case EVIOCGID: return sizeof(input_id);
    case EVIOCGREP:
    case EVIOCSREP: return 2 * sizeof(unsigned int);
    case EVIOCSCLOCKID:
    case EVIOCGEFFECTS: return sizeof(int);
    case UI_GET_VERSION: return sizeof(unsigned int);
    case UI_DEV_SETUP: return sizeof(uinput_setup);
    case UI_ABS_SETUP: return sizeof(uinput_abs_setup);
    default: break;
    }
    switch (withoutSize(req)) {
    case withoutSize(EVIOCGPROP(0)):
    case withoutSize(EVIOCGKEY(0)):
    case withoutSize(EVIOCGLED(0)):
    case withoutSize(EVIOCGSND(0)):
    case withoutSize(EVIOCGSW(0)):
    case withoutSize(EVIOCGNAME(0)):
    case withoutSize(EVIOCGPHYS(0)):
    case withoutSize(EVIOCGUNIQ(0)):
    case withoutSize(UI_GET_SYSNAME(0)):
        return _IOC_SIZE(req);
    default: break;
    }
    if (_IOC_TYPE(req) == 'E' && _IOC_DIR(req) == _IOC_READ && (_IOC_NR(req) & ~EV_MAX) == _IOC_NR(EVIOCGBIT(0, 0)))
        return _IOC_SIZE(req);
    return 0;
}

} // namespace

// ---------------------------------------------------------------------------------------------------------------
// Attaching, descriptors coming and going

void InputDesk::attach(const std::string& node)
{
    std::lock_guard tk(impl.testbedMu);
    if (handlers.count(node))
        return; // one handler per node for the desk's life; each descriptor is tied to the device it opened
    UMockdevIoctlBase* h = umockdev_ioctl_base_new();
    g_object_set_data_full(G_OBJECT(h), "node", g_strdup(node.c_str()), g_free);
    g_signal_connect(h, "handle-ioctl", G_CALLBACK(+[](UMockdevIoctlBase*, UMockdevIoctlClient* c, gpointer self) -> gboolean {
                         static_cast<InputDesk*>(self)->handleIoctl(c);
                         return TRUE;
                     }),
                     this);
    g_signal_connect(h, "handle-read", G_CALLBACK(+[](UMockdevIoctlBase*, UMockdevIoctlClient* c, gpointer self) -> gboolean {
                         static_cast<InputDesk*>(self)->handleRead(c);
                         return TRUE;
                     }),
                     this);
    g_signal_connect(h, "handle-write", G_CALLBACK(+[](UMockdevIoctlBase*, UMockdevIoctlClient* c, gpointer self) -> gboolean {
                         static_cast<InputDesk*>(self)->handleWrite(c);
                         return TRUE;
                     }),
                     this);
    g_signal_connect(h, "client-connected", G_CALLBACK(+[](UMockdevIoctlBase* b, UMockdevIoctlClient* c, gpointer self) {
                         static_cast<InputDesk*>(self)->onConnected(
                             static_cast<const char*>(g_object_get_data(G_OBJECT(b), "node")), c);
                     }),
                     this);
    GError* error = nullptr;
    if (!umockdev_testbed_attach_ioctl(impl.testbed, node.c_str(), h, &error)) {
        std::string msg = error ? error->message : "unknown error";
        g_clear_error(&error);
        g_object_unref(h);
        throw std::runtime_error("virtual desk: cannot attach " + node + ": " + msg);
    }
    handlers[node] = h;
}

void InputDesk::detachAll()
{
    if (jobThread.joinable()) {
        {
            std::unique_lock lk(jobsMu);
            jobsCv.wait_for(lk, std::chrono::seconds(5), [&] { return jobsQueued == 0; });
            jobsStopped = true;
            jobsCv.notify_all();
        }
        jobThread.join();
    }
    std::map<UMockdevIoctlClient*, InputClient> gone;
    {
        std::unique_lock lk(impl.mu);
        // A device on its way out (a clone whose process just died, say) finishes leaving first.
        impl.cv.wait_for(lk, std::chrono::seconds(5), [&] { return leaving == 0; });
        gone.swap(clients);
        if (sweeper) {
            g_source_destroy(sweeper);
            g_source_unref(sweeper);
            sweeper = nullptr;
        }
    }
    for (auto& [client, c] : gone)
        g_object_unref(client);
    {
        std::lock_guard tk(impl.testbedMu);
        for (auto& [node, h] : handlers) {
            umockdev_testbed_detach_ioctl(impl.testbed, node.c_str(), nullptr);
            g_object_unref(h);
        }
        handlers.clear();
    }
    std::lock_guard lk(impl.mu);
    for (auto& d : devices)
        d->pty.reset();
    uinputNode.reset();
}

void InputDesk::onConnected(const std::string& node, UMockdevIoctlClient* client)
{
    std::lock_guard lk(impl.mu);
    InputClient c;
    c.id = nextClient++;
    c.devnode = node;
    if (node == "/dev/uinput") {
        c.uinput = std::make_unique<EmulatedUinput>();
    } else {
        auto it = live.find(node);
        if (it != live.end()) {
            c.device = it->second;
            c.device->dev.open(c.id);
        }
    }
    clients.emplace(static_cast<UMockdevIoctlClient*>(g_object_ref(client)), std::move(c));
    impl.notifyLocked();
    if (!sweeper) {
        // umockdev tells nobody when a descriptor closes (or its process dies): its client just stops being
        // connected once the worker has seen the end of the descriptor's socket. Look every few milliseconds, on
        // the worker thread, where that state changes.
        sweeper = g_timeout_source_new(kSweepMs);
        g_source_set_callback(
            sweeper,
            [](gpointer self) -> gboolean {
                auto* desk = static_cast<InputDesk*>(self);
                desk->sweep();
                // Quiet again once no descriptor is open.
                std::lock_guard lk(desk->impl.mu);
                if (!desk->clients.empty() || !desk->sweeper)
                    return G_SOURCE_CONTINUE;
                g_source_unref(desk->sweeper);
                desk->sweeper = nullptr;
                return G_SOURCE_REMOVE;
            },
            this, nullptr);
        g_source_attach(sweeper, g_main_context_get_thread_default());
    }
}

void InputDesk::sweep()
{
    std::vector<UMockdevIoctlClient*> gone;
    {
        std::lock_guard lk(impl.mu);
        for (const auto& [client, c] : clients)
            if (!umockdev_ioctl_client_get_connected(client))
                gone.push_back(client);
    }
    for (auto* client : gone)
        onDisconnected(client);
}

void InputDesk::onDisconnected(UMockdevIoctlClient* client)
{
    InputDevice* destroy = nullptr;
    {
        std::lock_guard lk(impl.mu);
        auto it = clients.find(client);
        if (it == clients.end())
            return;
        InputClient& c = it->second;
        if (c.device) {
            // The kernel releases the grab of a descriptor that closes, also when its process dies.
            if (c.device->dev.grabber() == c.id)
                record({impl.now(), c.device->node, "ungrab", -1, -1, 0, "closed"});
            c.device->dev.close(c.id);
        }
        if (c.clone && c.clone->dev.alive()) {
            destroy = c.clone;
            retire(*destroy);
        }
        InputDevice* device = c.device;
        clients.erase(it);
        if (device)
            syncReadiness(*device);
        impl.notifyLocked();
    }
    g_object_unref(client);
    if (destroy)
        later([this, destroy] { unpublish(*destroy); });
}

// ---------------------------------------------------------------------------------------------------------------
// ioctl

void InputDesk::handleIoctl(UMockdevIoctlClient* client)
{
    sweep(); // a descriptor closed a moment ago has let go of its grab
    const unsigned long req = umockdev_ioctl_client_get_request(client);
    UMockdevIoctlData* arg = umockdev_ioctl_client_get_arg(client);
    bool isUinput = false;
    {
        std::lock_guard lk(impl.mu);
        auto it = clients.find(client);
        if (it == clients.end()) {
            complete(client, -1, ENODEV);
            return;
        }
        isUinput = it->second.uinput != nullptr;
    }
    if (isUinput)
        uinputIoctl(client, req, arg);
    else
        evdevIoctl(client, req, arg);
}

void InputDesk::evdevIoctl(UMockdevIoctlClient* client, unsigned long req, UMockdevIoctlData* arg)
{
    const unsigned long value = argValue(arg);
    const size_t pointed = pointedBytes(req);
    UMockdevIoctlData* buf = pointed ? resolve(arg, pointed) : nullptr;
    if (pointed && !buf) {
        complete(client, -1, EFAULT);
        return;
    }
    long res = 0;
    int err = 0;
    {
        std::lock_guard lk(impl.mu);
        auto it = clients.find(client);
        InputClient* c = it == clients.end() ? nullptr : &it->second;
        InputDevice* d = c ? c->device : nullptr;
        auto fail = [&](int e) {
            res = -1;
            err = e;
        };
        if (!d || !d->dev.alive() || d->dev.revoked(c->id)) {
            fail(ENODEV);
        } else {
            EmulatedKeyboard& dev = d->dev;
            const InputIdentity& id = dev.identity();
            const InputCapabilities& caps = dev.capabilities();
            auto bitsOut = [&](const Bitmap& bits) { res = copyOut(buf, bits.bytes()); };
            auto strOut = [&](const std::optional<std::string>& s) {
                if (s)
                    res = copyOut(buf, cString(*s));
                else
                    fail(ENOENT);
            };
            switch (req) {
            case EVIOCGVERSION:
                copyOut(buf, asBytes(EV_VERSION));
                break;
            case EVIOCGID:
                copyOut(buf, asBytes(input_id{id.bustype, id.vendor, id.product, id.version}));
                break;
            case EVIOCGREP:
                if (!caps.ev.test(EV_REP))
                    fail(ENOSYS);
                else
                    copyOut(buf, asBytes(dev.repeat()));
                break;
            case EVIOCSREP: {
                if (!caps.ev.test(EV_REP)) {
                    fail(ENOSYS);
                    break;
                }
                unsigned int r[2];
                std::memcpy(r, buf->data, sizeof r);
                emitFrame(*d, {{EV_REP, REP_DELAY, static_cast<int32_t>(r[0])}, {EV_REP, REP_PERIOD, static_cast<int32_t>(r[1])}}, "");
                break;
            }
            case EVIOCGRAB:
                if ((err = value ? dev.grab(c->id) : dev.ungrab(c->id)) != 0) {
                    res = -1;
                } else {
                    record({impl.now(), d->node, value ? "grab" : "ungrab", -1, -1, 0, ""});
                    impl.notifyLocked();
                }
                break;
            case EVIOCREVOKE:
                if (value) {
                    fail(EINVAL);
                } else {
                    dev.revoke(c->id);
                    int waiting = 0;
                    for (const auto& [cl, other] : clients)
                        waiting += other.device == d && other.fellThrough;
                    d->pty->wake(1 + waiting); // a read sleeping in the pty wakes up, and the next fails with ENODEV
                    impl.notifyLocked();
                }
                break;
            case EVIOCSCLOCKID: {
                int clk = 0;
                std::memcpy(&clk, buf->data, sizeof clk);
                if ((err = dev.setClock(c->id, clk)) != 0)
                    res = -1;
                else
                    syncReadiness(*d);
                break;
            }
            case EVIOCGEFFECTS:
                copyOut(buf, asBytes(0));
                break;
            default:
                switch (withoutSize(req)) {
                case withoutSize(EVIOCGPROP(0)): bitsOut(caps.prop); break;
                case withoutSize(EVIOCGKEY(0)): bitsOut(dev.keyState()); break;
                case withoutSize(EVIOCGLED(0)): bitsOut(dev.ledState()); break;
                case withoutSize(EVIOCGSND(0)): bitsOut(dev.soundState()); break;
                case withoutSize(EVIOCGSW(0)): bitsOut(dev.switchState()); break;
                case withoutSize(EVIOCGNAME(0)): strOut(id.name); break;
                case withoutSize(EVIOCGPHYS(0)): strOut(id.phys); break;
                case withoutSize(EVIOCGUNIQ(0)): strOut(id.uniq); break;
                case withoutSize(EVIOCGMTSLOTS(0)): fail(EINVAL); break; // no multitouch
                default:
                    if (buf && (_IOC_NR(req) & ~EV_MAX) == _IOC_NR(EVIOCGBIT(0, 0))) {
                        const Bitmap* bits = caps.bits(static_cast<int>(_IOC_NR(req) & EV_MAX));
                        if (bits)
                            bitsOut(*bits);
                        else
                            fail(EINVAL);
                    } else {
                        fail(EINVAL); // EVIOCGABS (no axes), keymaps, masks, force feedback, other drivers' ioctls
                    }
                }
            }
        }
    }
    complete(client, res, err);
    if (buf)
        g_object_unref(buf);
}

void InputDesk::uinputIoctl(UMockdevIoctlClient* client, unsigned long req, UMockdevIoctlData* arg)
{
    const unsigned long value = argValue(arg);
    std::optional<std::string> phys;
    if (req == UI_SET_PHYS) {
        phys = resolveString(arg, 1024);
        if (!phys) {
            complete(client, -1, EFAULT);
            return;
        }
    }
    const size_t pointed = pointedBytes(req);
    UMockdevIoctlData* buf = pointed ? resolve(arg, pointed) : nullptr;
    if (pointed && !buf) {
        complete(client, -1, EFAULT);
        return;
    }
    long res = 0;
    int err = 0;
    InputDevice* created = nullptr;
    InputDevice* destroyed = nullptr;
    {
        std::lock_guard lk(impl.mu);
        auto it = clients.find(client);
        if (it == clients.end()) {
            complete(client, -1, ENODEV);
            if (buf)
                g_object_unref(buf);
            return;
        }
        InputClient& c = it->second;
        EmulatedUinput& u = *c.uinput;
        auto result = [&](int e) {
            err = e;
            res = e ? -1 : 0;
        };
        const std::pair<unsigned long, int> setBits[] = {
            {UI_SET_EVBIT, 0},       {UI_SET_KEYBIT, EV_KEY}, {UI_SET_RELBIT, EV_REL}, {UI_SET_ABSBIT, EV_ABS},
            {UI_SET_MSCBIT, EV_MSC}, {UI_SET_LEDBIT, EV_LED}, {UI_SET_SNDBIT, EV_SND}, {UI_SET_FFBIT, EV_FF},
            {UI_SET_SWBIT, EV_SW}};
        const auto bit = std::find_if(std::begin(setBits), std::end(setBits), [&](const auto& s) { return s.first == req; });
        if (bit != std::end(setBits)) {
            result(value > 0xFFFF ? EINVAL : u.setBit(bit->second, static_cast<int>(value)));
        } else if (req == UI_SET_PROPBIT) {
            result(value > 0xFFFF ? EINVAL : u.setProperty(static_cast<int>(value)));
        } else if (req == UI_SET_PHYS) {
            result(u.setPhys(*phys));
        } else if (req == UI_GET_VERSION) {
            copyOut(buf, asBytes(EmulatedUinput::kVersion));
        } else if (req == UI_DEV_SETUP) {
            uinput_setup s{};
            std::memcpy(&s, buf->data, sizeof s);
            result(u.setup(std::string(s.name, strnlen(s.name, sizeof s.name)), s.id.bustype, s.id.vendor,
                           s.id.product, s.id.version));
        } else if (req == UI_ABS_SETUP) {
            uinput_abs_setup s{};
            std::memcpy(&s, buf->data, sizeof s);
            result(u.state() == EmulatedUinput::State::Created ? EINVAL : s.code > ABS_MAX ? ERANGE : 0);
        } else if (req == UI_DEV_CREATE) {
            InputIdentity id;
            InputCapabilities caps;
            result(u.create(id, caps));
            if (!err) {
                created = &createClone(id, caps);
                c.clone = created;
            }
        } else if (req == UI_DEV_DESTROY) {
            if (c.clone && c.clone->dev.alive()) {
                destroyed = c.clone;
                retire(*destroyed);
            }
            c.clone = nullptr;
            u.destroyed();
        } else if (withoutSize(req) == withoutSize(UI_GET_SYSNAME(0))) {
            if (!c.clone || !c.clone->dev.alive())
                result(ENOENT);
            else if (!buf)
                result(EINVAL);
            else
                res = copyOut(buf, cString("input" + std::to_string(c.clone->input)));
        } else {
            result(EINVAL);
        }
    }
    if (created || destroyed) {
        // The clone's sysfs entries and uevents are in place (or gone) before the ioctl returns, as the kernel's.
        g_object_ref(client);
        later([this, client, created, destroyed, res, err, buf] {
            if (created)
                publish(*created);
            if (destroyed)
                unpublish(*destroyed);
            complete(client, res, err);
            if (buf)
                g_object_unref(buf);
            g_object_unref(client);
        });
        return;
    }
    complete(client, res, err);
    if (buf)
        g_object_unref(buf);
}

// ---------------------------------------------------------------------------------------------------------------
// read() and write()

void InputDesk::handleRead(UMockdevIoctlClient* client)
{
    UMockdevIoctlData* arg = umockdev_ioctl_client_get_arg(client);
    const size_t count = static_cast<size_t>(std::max(arg->data_len, 0));
    long res = 0;
    int err = 0;
    {
        std::lock_guard lk(impl.mu);
        auto it = clients.find(client);
        InputClient* c = it == clients.end() ? nullptr : &it->second;
        if (!c) {
            res = -1;
            err = ENODEV;
        } else if (c->uinput) {
            // Nothing to read from uinput (no force feedback); the pty answers as the driver would.
            c->fellThrough = false;
            if (!c->clone) {
                res = -1;
                err = ENODEV;
            } else {
                res = kFallThrough;
            }
        } else {
            c->fellThrough = false;
            InputDevice* d = c->device;
            if (!d || !d->dev.alive() || d->dev.revoked(c->id)) {
                res = -1;
                err = ENODEV;
            } else if (count != 0 && count < sizeof(input_event)) {
                res = -1;
                err = EINVAL;
            } else if (count > 0 && d->dev.readable(c->id) > 0) {
                const int clk = d->dev.clock(c->id);
                const auto events = d->dev.take(c->id, count / sizeof(input_event));
                for (size_t i = 0; i < events.size(); ++i) {
                    const StampedEvent& e = events[i];
                    const int64_t us = clk == CLOCK_MONOTONIC ? e.monoUs : clk == CLOCK_BOOTTIME ? e.bootUs : e.realUs;
                    input_event out{};
                    out.input_event_sec = static_cast<decltype(out.input_event_sec)>(us / 1000000);
                    out.input_event_usec = static_cast<decltype(out.input_event_usec)>(us % 1000000);
                    out.type = e.type;
                    out.code = e.code;
                    out.value = e.value;
                    std::memcpy(arg->data + i * sizeof out, &out, sizeof out);
                }
                res = static_cast<long>(events.size() * sizeof(input_event));
                syncReadiness(*d);
            } else {
                syncReadiness(*d);
                if (d->pty->readable()) {
                    // Another descriptor's events keep the node readable; this one has none.
                    res = -1;
                    err = EAGAIN;
                } else {
                    // Nothing queued: the read goes on to the pty, where it fails with EAGAIN on a non-blocking
                    // descriptor or sleeps until the node is marked readable (it then returns 0; read again).
                    c->fellThrough = true;
                    res = kFallThrough;
                }
            }
        }
    }
    complete(client, res, err);
}

void InputDesk::handleWrite(UMockdevIoctlClient* client)
{
    UMockdevIoctlData* arg = umockdev_ioctl_client_get_arg(client);
    const size_t count = static_cast<size_t>(std::max(arg->data_len, 0));
    long res = 0;
    int err = 0;
    auto events = [&] {
        std::vector<RawInput> out;
        for (size_t off = 0; off + sizeof(input_event) <= count; off += sizeof(input_event)) {
            input_event e{};
            std::memcpy(&e, arg->data + off, sizeof e);
            out.push_back({e.type, e.code, e.value});
        }
        return out;
    };
    {
        std::lock_guard lk(impl.mu);
        auto it = clients.find(client);
        InputClient* c = it == clients.end() ? nullptr : &it->second;
        if (!c) {
            res = -1;
            err = ENODEV;
        } else if (c->uinput && c->uinput->state() != EmulatedUinput::State::Created) {
            // Before UI_DEV_CREATE a write describes the device (struct uinput_user_dev).
            err = c->uinput->legacySetup(std::vector<uint8_t>(arg->data, arg->data + count));
            res = err ? -1 : static_cast<long>(count);
        } else if (count != 0 && count < sizeof(input_event)) {
            res = -1;
            err = EINVAL;
        } else if (c->uinput) {
            InputDevice* clone = c->clone;
            const auto written = events();
            const int64_t now = impl.now();
            for (const auto& e : written)
                forwardedLog.push_back({clone, InputEvent{now, e.type, e.code, e.value, clone->node}});
            emitFrame(*clone, written, "write");
            res = static_cast<long>(written.size() * sizeof(input_event));
        } else if (!c->device || !c->device->dev.alive() || c->device->dev.revoked(c->id)) {
            res = -1;
            err = ENODEV;
        } else {
            // Written to an event node: injected into the device's input core, as the kernel does.
            const auto written = events();
            emitFrame(*c->device, written, "inject");
            res = static_cast<long>(written.size() * sizeof(input_event));
        }
    }
    complete(client, res, err);
}

} // namespace VirtualDesk
