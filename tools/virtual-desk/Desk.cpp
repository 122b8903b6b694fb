// The running desk: the umockdev test bed, the emulated DDC/CI monitors and the record of what was said to them.
//
// Threads: umockdev calls the ioctl/read/write handlers on its one worker thread, for every device. The handlers
// only parse the request, check it for violations and schedule its completion; the transfer itself (its time on
// the wire, the monitor's answer) completes on the desk's own GLib thread through timed sources, so that no
// handler ever sleeps and no device waits for another. Run-time control calls come from any thread. One mutex
// guards all desk state; it is never held while calling into umockdev's client side.
#include "tools/virtual-desk/VirtualDesk.h"

#include <umockdev.h>

#include <glib-unix.h>
#include <glib.h>
#include <linux/i2c-dev.h>
#include <linux/i2c.h>
#include <sys/inotify.h>
#include <sys/stat.h>
#include <unistd.h>

#include <nlohmann/json.hpp>

#include <algorithm>
#include <array>
#include <atomic>
#include <cerrno>
#include <condition_variable>
#include <cstddef>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <iostream>
#include <map>
#include <mutex>
#include <sstream>
#include <stdexcept>
#include <thread>

namespace VirtualDesk {

namespace {

std::atomic<bool> deskAlive{false};

constexpr uint16_t kDdcAddress = 0x37;
constexpr uint16_t kEdidAddress = 0x50;
// A host that has not read its reply this long after it became ready has given up on it: from then on another
// descriptor talking to the monitor is no longer a second conversation running at the same time.
constexpr int64_t kConversationGraceUs = 200000;

std::string errnoName(int e)
{
    switch (e) {
    case EREMOTEIO: return "EREMOTEIO";
    case ENXIO: return "ENXIO";
    case EIO: return "EIO";
    case EINVAL: return "EINVAL";
    case EFAULT: return "EFAULT";
    case ENOTTY: return "ENOTTY";
    case ETIMEDOUT: return "ETIMEDOUT";
    case EBUSY: return "EBUSY";
    case ENODEV: return "ENODEV";
    default: return "errno " + std::to_string(e);
    }
}

std::string hexBytes(const std::vector<uint8_t>& bytes)
{
    std::string out;
    char buf[4];
    for (size_t i = 0; i < bytes.size(); ++i) {
        std::snprintf(buf, sizeof buf, "%02X", bytes[i]);
        if (i)
            out += ' ';
        out += buf;
    }
    return out;
}

std::string hex2(unsigned v)
{
    char buf[8];
    std::snprintf(buf, sizeof buf, "0x%02X", v & 0xFFFF);
    return buf;
}

// A GSource that fires once at a given monotonic time (microseconds) and runs a function.
gboolean dispatchOnce(GSource* source, GSourceFunc callback, gpointer data)
{
    g_source_set_ready_time(source, -1);
    return callback ? callback(data) : G_SOURCE_REMOVE;
}
GSourceFuncs onceFuncs = {nullptr, nullptr, dispatchOnce, nullptr, nullptr, nullptr};


std::string readFile(const std::string& path)
{
    std::ifstream in(path, std::ios::binary);
    std::stringstream ss;
    ss << in.rdbuf();
    return ss.str();
}

// A decoded DDC/CI request as written after the 0x37 address (0x51 first).
struct Decoded {
    std::string kind; // "get", "set", "invalid", "other"
    int code = -1;
    int value = -1;
    std::string note;
};

Decoded decodeRequest(const std::vector<uint8_t>& d)
{
    Decoded r;
    if (d.size() < 3) {
        r.kind = "invalid";
        r.note = "too short";
        return r;
    }
    if (d[0] != 0x51) {
        r.kind = "invalid";
        r.note = "source address " + hex2(d[0]) + ", not 0x51";
        return r;
    }
    uint8_t sum = 0x6E;
    for (size_t i = 0; i + 1 < d.size(); ++i)
        sum ^= d[i];
    if (sum != d.back()) {
        r.kind = "invalid";
        r.note = "bad checksum";
        return r;
    }
    if (!(d[1] & 0x80) || static_cast<size_t>(d[1] & 0x7F) != d.size() - 3) {
        r.kind = "invalid";
        r.note = "bad length byte";
        return r;
    }
    if (d.size() == 3) {
        r.kind = "other";
        r.note = "null message";
        return r;
    }
    if (d[2] == 0x01 && d.size() == 5) {
        r.kind = "get";
        r.code = d[3];
        return r;
    }
    if (d[2] == 0x03 && d.size() == 7) {
        r.kind = "set";
        r.code = d[3];
        r.value = d[4] << 8 | d[5];
        return r;
    }
    r.kind = "other";
    r.note = "unsupported opcode " + hex2(d[2]);
    return r;
}

struct Msg {
    uint16_t addr = 0;
    bool read = false;
    std::vector<uint8_t> data;             // bytes written
    size_t len = 0;                        // bytes to read
    UMockdevIoctlData* buffer = nullptr;   // where a read's bytes go (a reference of ours)
};

struct Bus;

struct Transfer {
    UMockdevIoctlClient* client = nullptr; // a reference of ours
    int clientId = 0;
    Bus* bus = nullptr;
    std::string via;
    std::vector<Msg> msgs;
    std::vector<UMockdevIoctlData*> keep;  // resolved blocks kept alive until completion
    int64_t startUs = 0;
    long successResult = 0;

    Transfer() = default;
    Transfer(const Transfer&) = delete;
    Transfer& operator=(const Transfer&) = delete;
    ~Transfer()
    {
        for (auto& m : msgs)
            if (m.buffer)
                g_object_unref(m.buffer);
        for (auto* d : keep)
            g_object_unref(d);
        if (client)
            g_object_unref(client);
    }
    size_t wireBytes() const
    {
        size_t n = 0;
        for (const auto& m : msgs)
            n += 1 + (m.read ? m.len : m.data.size());
        return n;
    }
};

struct Monitor {
    MonitorConfig state;
    uint16_t contrast = 50;
    int64_t busyUntilUs = 0;
    struct Pending {
        std::array<uint8_t, 11> reply{};
        int64_t readyUs = 0;
        int64_t expiresUs = 0;
        int clientId = 0;
        uint8_t code = 0;
    };
    std::optional<Pending> pending;
    std::vector<std::unique_ptr<Transfer>> held;
};

struct Connector {
    std::string sysName;     // card0-DP-1
    std::string devpath;     // /sys/devices/.../card0-DP-1
    std::string cardDevpath; // /sys/devices/.../drm/card0
    std::string adapterDevpath; // /sys/devices/.../i2c-N, when it has a DDC adapter
    ConnectorConfig cfg;
    bool plugged = true;
    std::optional<Monitor> monitor;
    std::vector<uint8_t> edid;
    int bus = -1;
};

struct Bus {
    int number = -1;
    std::string name;
    std::string adapterPath; // devpath without /sys
    Connector* connector = nullptr;
    UMockdevIoctlBase* handler = nullptr;
    Desk::Impl* impl = nullptr;
    std::vector<int> inFlight; // descriptors whose transfers are on the wire (or held)
    uint8_t edidOffset = 0;
    bool removed = false;      // its connector was removed: every transfer fails with ENODEV
};

struct ClientState {
    int id = 0;
    int bus = -1;
    uint16_t slave = 0;
};

struct Backlight {
    BacklightConfig cfg;
    std::string devpath; // /sys/devices/...
    std::string dir;     // the real directory in the test bed
    int watch = -1;
};

} // namespace

struct Desk::Impl {
    DeskConfig config;
    DeskOptions options;
    UMockdevTestbed* testbed = nullptr;
    std::string root, sysDir;
    int64_t t0 = 0;

    mutable std::mutex mu;
    mutable std::condition_variable cv;
    uint64_t generation = 0;
    std::map<std::string, std::unique_ptr<Connector>> connectors;
    std::map<int, std::unique_ptr<Bus>> buses;
    std::map<UMockdevIoctlClient*, ClientState> clients;
    int nextClientId = 1;
    std::vector<Transaction> log;
    std::vector<std::string> violationList;
    std::map<std::string, Backlight> backlights;
    bool stopping = false;

    std::mutex testbedMu; // umockdev test bed changes (attributes, uevents)

    GMainContext* ctx = nullptr;
    GMainLoop* loop = nullptr;
    std::thread thread;
    int inotifyFd = -1;

    int64_t now() const { return g_get_monotonic_time() - t0; }

    void notifyLocked()
    {
        ++generation;
        cv.notify_all();
    }

    void violation(const std::string& text)
    {
        char stamp[32];
        std::snprintf(stamp, sizeof stamp, "[%.3f ms] ", static_cast<double>(now()) / 1000.0);
        violationList.push_back(stamp + text);
        notifyLocked();
    }

    // Transfers waiting for their completion time, by ticket. Only the ticket number travels through GLib, so that
    // every hand-over between threads goes through `mu` (and race detectors see it).
    std::map<uint64_t, Transfer*> scheduled;
    uint64_t nextTicket = 1;

    // Completes the transfer on the desk thread at desk time `whenUs`. Called with `mu` held.
    void finishAtLocked(int64_t whenUs, Transfer* t)
    {
        const uint64_t ticket = nextTicket++;
        scheduled[ticket] = t;
        GSource* s = g_source_new(&onceFuncs, sizeof(GSource));
        g_source_set_callback(
            s,
            [](gpointer data) -> gboolean {
                Impl* self = liveImpl;
                Transfer* t = nullptr;
                {
                    std::lock_guard lk(self->mu);
                    auto it = self->scheduled.find(reinterpret_cast<uintptr_t>(data));
                    if (it == self->scheduled.end())
                        return G_SOURCE_REMOVE;
                    t = it->second;
                    self->scheduled.erase(it);
                }
                self->finishTransfer(t);
                return G_SOURCE_REMOVE;
            },
            reinterpret_cast<gpointer>(static_cast<uintptr_t>(ticket)), nullptr);
        g_source_set_ready_time(s, t0 + whenUs);
        g_source_attach(s, ctx);
        g_source_unref(s);
    }
    static inline Impl* liveImpl = nullptr; // the one desk of the process

    Connector& connector(std::string_view name) const
    {
        auto it = connectors.find(std::string(name));
        if (it == connectors.end()) {
            // "DP-1" is accepted when exactly one card has it.
            Connector* found = nullptr;
            for (const auto& [full, c] : connectors) {
                const auto dash = full.find('-');
                if (full.substr(dash + 1) == name) {
                    if (found)
                        throw std::invalid_argument("virtual desk: connector \"" + std::string(name) +
                                                    "\" is ambiguous; name it with its card (card0-DP-1)");
                    found = c.get();
                }
            }
            if (!found)
                throw std::invalid_argument("virtual desk: no connector \"" + std::string(name) + "\"");
            return *found;
        }
        return *it->second;
    }
    Monitor& monitor(std::string_view name) const
    {
        Connector& c = connector(name);
        if (!c.monitor)
            throw std::invalid_argument("virtual desk: connector \"" + c.sysName + "\" has no DDC/CI monitor");
        return *c.monitor;
    }
    Backlight& backlight(std::string_view name)
    {
        auto it = backlights.find(std::string(name));
        if (it == backlights.end())
            throw std::invalid_argument("virtual desk: no backlight \"" + std::string(name) + "\"");
        return it->second;
    }

    std::string busLabel(const Bus& b) const
    {
        return "i2c-" + std::to_string(b.number) + (b.connector ? " (" + b.connector->sysName + ")" : "");
    }

    ClientState& clientState(UMockdevIoctlClient* client, int bus)
    {
        auto it = clients.find(client);
        if (it == clients.end())
            it = clients.emplace(client, ClientState{nextClientId++, bus, 0}).first;
        return it->second;
    }

    // ---- building the test bed ----

    void build();
    std::string records();
    std::string i2cRecords(const std::string& adapter, int bus, const std::string& name) const;
    std::string connectorRecords(const Connector& c) const;
    Connector& addConnectorObjects(const CardConfig& card, const ConnectorConfig& c);
    void attach(Bus& bus);
    void detach(Bus& bus);
    std::vector<std::unique_ptr<Connector>> retiredConnectors; // removed, kept for transfers still under way
    std::vector<std::unique_ptr<Bus>> retiredBuses;

    // ---- handlers (umockdev worker thread) ----

    void onConnected(Bus& bus, UMockdevIoctlClient* client)
    {
        std::lock_guard lk(mu);
        clientState(client, bus.number);
    }
    void onVanished(Bus& bus, UMockdevIoctlClient* client)
    {
        std::lock_guard lk(mu);
        auto it = clients.find(client);
        if (it == clients.end())
            return;
        const int id = it->second.id;
        clients.erase(it);
        if (bus.connector && bus.connector->monitor) {
            auto& p = bus.connector->monitor->pending;
            if (p && p->clientId == id)
                p.reset();
        }
    }
    static void complete(UMockdevIoctlClient* client, long result, int err)
    {
        if (umockdev_ioctl_client_get_connected(client)) // a client that died waits for nothing
            umockdev_ioctl_client_complete(client, result, err);
    }
    void handleIoctl(Bus& bus, UMockdevIoctlClient* client);
    void handleRdwr(Bus& bus, UMockdevIoctlClient* client, UMockdevIoctlData* arg);
    void handleWrite(Bus& bus, UMockdevIoctlClient* client);
    void handleRead(Bus& bus, UMockdevIoctlClient* client);

    // ---- the transfer and the monitor ----

    void startTransfer(std::unique_ptr<Transfer> t);
    void finishTransfer(Transfer* t);
    int deliver(Bus& b, Msg& msg, Transaction& rec, int64_t nowUs, int clientId);
    void applyRequest(Monitor& m, const Decoded& d, Transaction& rec, int64_t nowUs, int clientId);
    bool carriesSet(const Transfer& t) const
    {
        for (const auto& m : t.msgs)
            if (!m.read && m.addr == kDdcAddress && decodeRequest(m.data).kind == "set")
                return true;
        return false;
    }
    void releaseLocked(Monitor& m)
    {
        auto held = std::move(m.held);
        m.held.clear();
        const int64_t t = now();
        for (auto& tr : held) {
            Transfer* raw = tr.release();
            const int64_t wire = static_cast<int64_t>(raw->wireBytes()) * config.byteTimeUs;
            finishAtLocked(t + wire, raw);
        }
        notifyLocked();
    }

    // ---- hot-plug and backlights ----

    void setPlugged(std::string_view name, bool plugged);
    void onInotify();
    int readBacklight(const Backlight& b, const char* attr) const
    {
        const std::string s = readFile(b.dir + "/" + attr);
        try {
            return std::stoi(s);
        } catch (const std::exception&) {
            return -1;
        }
    }
};

// ---------------------------------------------------------------------------------------------------------------
// The sysfs tree

namespace {

std::string attr(const std::string& name, const std::string& value)
{
    return "A: " + name + "=" + value + "\\n\n";
}

std::string defaultAdapterName(const ConnectorConfig& c, int bus)
{
    if (c.ddc->via == DdcVia::Aux)
        return "AUX " + c.name;
    return "gmbus " + c.name + " (i2c-" + std::to_string(bus) + ")";
}

} // namespace

std::string Desk::Impl::i2cRecords(const std::string& adapter, int bus, const std::string& name) const
{
    std::string r = "P: " + adapter + "\nE: SUBSYSTEM=i2c\n" + attr("name", name) + "\n";
    if (config.i2cDev) {
        const std::string n = std::to_string(bus);
        r += "P: " + adapter + "/i2c-dev/i2c-" + n + "\nN: i2c-" + n + "\nE: DEVNAME=/dev/i2c-" + n +
             "\nE: SUBSYSTEM=i2c-dev\nE: MAJOR=89\nE: MINOR=" + n + "\n" + attr("dev", "89:" + n) +
             attr("name", name) + "\n";
    }
    return r;
}

std::string Desk::Impl::connectorRecords(const Connector& c) const
{
    const ConnectorConfig& cfg = c.cfg;
    std::string r = "P: " + c.devpath.substr(4) + "\nE: SUBSYSTEM=drm\n";
    r += attr("status", cfg.status);
    r += attr("enabled", cfg.enabled ? "enabled" : "disabled");
    r += attr("dpms", cfg.enabled ? "On" : "Off");
    if (cfg.connectorId)
        r += attr("connector_id", std::to_string(*cfg.connectorId));
    if (cfg.edid) {
        const auto bytes = cfg.status == "connected" ? c.edid : std::vector<uint8_t>{};
        std::string hex;
        char b[3];
        for (uint8_t v : bytes) {
            std::snprintf(b, sizeof b, "%02x", v);
            hex += b;
        }
        r += "H: edid=" + hex + "\n";
    }
    if (cfg.ddc && cfg.ddc->via == DdcVia::Link)
        r += "L: ddc=../../../i2c-" + std::to_string(cfg.ddc->bus) + "\n";
    r += "\n";
    if (cfg.ddc)
        r += i2cRecords(c.adapterDevpath.substr(4), cfg.ddc->bus, buses.at(cfg.ddc->bus)->name);
    return r;
}

std::string Desk::Impl::records()
{
    std::string r;
    for (const auto& card : config.cards) {
        const std::string pci = "/devices/pci0000:00/" + card.pciSlot;
        const std::string n = std::to_string(card.index);
        const std::string cardPath = pci + "/drm/card" + n;
        r += "P: " + pci + "\nE: SUBSYSTEM=pci\nE: DRIVER=" + card.driver + "\nE: PCI_CLASS=30000\n" +
             attr("class", "0x030000") + "\n";
        r += "P: " + cardPath + "\nN: dri/card" + n + "\nE: DEVNAME=/dev/dri/card" + n +
             "\nE: SUBSYSTEM=drm\nE: DEVTYPE=drm_minor\nE: MAJOR=226\nE: MINOR=" + n + "\n" +
             attr("dev", "226:" + n) + "\n";
        const std::string render = std::to_string(128 + card.index);
        r += "P: " + pci + "/drm/renderD" + render + "\nN: dri/renderD" + render + "\nE: DEVNAME=/dev/dri/renderD" +
             render + "\nE: SUBSYSTEM=drm\nE: DEVTYPE=drm_minor\nE: MAJOR=226\nE: MINOR=" + render + "\n" +
             attr("dev", "226:" + render) + "\n";
        for (const auto& c : card.connectors)
            r += connectorRecords(*connectors.at("card" + n + "-" + c.name));
    }
    if (!config.otherBuses.empty()) {
        const std::string smbus = "/devices/pci0000:00/0000:00:1f.4";
        r += "P: " + smbus + "\nE: SUBSYSTEM=pci\nE: DRIVER=i801_smbus\n" + attr("class", "0x0c0500") + "\n";
        for (const auto& b : config.otherBuses)
            r += i2cRecords(smbus + "/i2c-" + std::to_string(b.bus), b.bus, b.name);
    }
    for (const auto& b : config.backlights) {
        std::string path = "/devices/virtual/backlight/" + b.name;
        if (!b.connector.empty())
            path = connectors.at(b.connector)->devpath.substr(4) + "/" + b.name;
        r += "P: " + path + "\nE: SUBSYSTEM=backlight\n" + attr("brightness", std::to_string(b.brightness)) +
             attr("actual_brightness", std::to_string(b.brightness)) + attr("max_brightness", std::to_string(b.max)) +
             attr("type", b.type) + attr("bl_power", "0") + "\n";
        backlights[b.name] = Backlight{b, "/sys" + path, sysDir + path, -1};
    }
    return r;
}

Connector& Desk::Impl::addConnectorObjects(const CardConfig& card, const ConnectorConfig& c)
{
    const std::string n = std::to_string(card.index);
    const std::string pci = "/sys/devices/pci0000:00/" + card.pciSlot;
    auto conn = std::make_unique<Connector>();
    conn->sysName = "card" + n + "-" + c.name;
    conn->cardDevpath = pci + "/drm/card" + n;
    conn->devpath = conn->cardDevpath + "/" + conn->sysName;
    conn->cfg = c;
    conn->plugged = c.status == "connected";
    if (c.edid)
        conn->edid = c.edid->bytes();
    if (c.monitor) {
        conn->monitor = Monitor{};
        conn->monitor->state = *c.monitor;
    }
    if (c.ddc) {
        conn->bus = c.ddc->bus;
        conn->adapterDevpath = (c.ddc->via == DdcVia::Aux ? conn->devpath : pci) + "/i2c-" + std::to_string(c.ddc->bus);
        auto bus = std::make_unique<Bus>();
        bus->number = c.ddc->bus;
        bus->name = c.ddc->name.empty() ? defaultAdapterName(c, c.ddc->bus) : c.ddc->name;
        bus->connector = conn.get();
        bus->impl = this;
        buses[bus->number] = std::move(bus);
    }
    Connector& ref = *conn;
    connectors[conn->sysName] = std::move(conn);
    return ref;
}

void Desk::Impl::attach(Bus& bus)
{
    bus.handler = umockdev_ioctl_base_new();
    g_signal_connect(bus.handler, "handle-ioctl",
                     G_CALLBACK(+[](UMockdevIoctlBase*, UMockdevIoctlClient* client, gpointer data) -> gboolean {
                         auto* b = static_cast<Bus*>(data);
                         b->impl->handleIoctl(*b, client);
                         return TRUE;
                     }),
                     &bus);
    g_signal_connect(bus.handler, "handle-read",
                     G_CALLBACK(+[](UMockdevIoctlBase*, UMockdevIoctlClient* client, gpointer data) -> gboolean {
                         auto* b = static_cast<Bus*>(data);
                         b->impl->handleRead(*b, client);
                         return TRUE;
                     }),
                     &bus);
    g_signal_connect(bus.handler, "handle-write",
                     G_CALLBACK(+[](UMockdevIoctlBase*, UMockdevIoctlClient* client, gpointer data) -> gboolean {
                         auto* b = static_cast<Bus*>(data);
                         b->impl->handleWrite(*b, client);
                         return TRUE;
                     }),
                     &bus);
    g_signal_connect(bus.handler, "client-connected",
                     G_CALLBACK(+[](UMockdevIoctlBase*, UMockdevIoctlClient* client, gpointer data) {
                         auto* b = static_cast<Bus*>(data);
                         b->impl->onConnected(*b, client);
                     }),
                     &bus);
    g_signal_connect(bus.handler, "client-vanished",
                     G_CALLBACK(+[](UMockdevIoctlBase*, UMockdevIoctlClient* client, gpointer data) {
                         auto* b = static_cast<Bus*>(data);
                         b->impl->onVanished(*b, client);
                     }),
                     &bus);
    GError* error = nullptr;
    const std::string node = "/dev/i2c-" + std::to_string(bus.number);
    if (!umockdev_testbed_attach_ioctl(testbed, node.c_str(), bus.handler, &error)) {
        std::string msg = error ? error->message : "unknown error";
        g_clear_error(&error);
        throw std::runtime_error("virtual desk: cannot attach " + node + ": " + msg);
    }
}

void Desk::Impl::detach(Bus& bus)
{
    if (!bus.handler)
        return;
    const std::string node = "/dev/i2c-" + std::to_string(bus.number);
    umockdev_testbed_detach_ioctl(testbed, node.c_str(), nullptr);
    g_object_unref(bus.handler);
    bus.handler = nullptr;
}

void Desk::Impl::build()
{
    // Connector and bus tables first: the records need the connector paths.
    for (const auto& card : config.cards)
        for (const auto& c : card.connectors)
            addConnectorObjects(card, c);
    for (const auto& b : config.otherBuses) {
        auto bus = std::make_unique<Bus>();
        bus->number = b.bus;
        bus->name = b.name;
        bus->impl = this;
        buses[bus->number] = std::move(bus);
    }

    GError* error = nullptr;
    const std::string text = records();
    if (!umockdev_testbed_add_from_string(testbed, text.c_str(), &error)) {
        std::string msg = error ? error->message : "unknown error";
        g_clear_error(&error);
        throw std::runtime_error("virtual desk: umockdev rejected the sysfs tree: " + msg);
    }
    if (config.i2cDev)
        for (auto& [number, bus] : buses)
            attach(*bus);
}

// ---------------------------------------------------------------------------------------------------------------
// Handlers

void Desk::Impl::handleIoctl(Bus& bus, UMockdevIoctlClient* client)
{
    const gulong request = umockdev_ioctl_client_get_request(client);
    UMockdevIoctlData* arg = umockdev_ioctl_client_get_arg(client);
    unsigned long value = 0;
    if (arg && arg->data)
        std::memcpy(&value, arg->data, std::min<size_t>(sizeof value, static_cast<size_t>(arg->data_len)));

    switch (request) {
    case I2C_SLAVE:
    case I2C_SLAVE_FORCE:
        if (value > 0x7F) {
            complete(client, -1, EINVAL);
            return;
        }
        {
            std::lock_guard lk(mu);
            clientState(client, bus.number).slave = static_cast<uint16_t>(value);
        }
        complete(client, 0, 0);
        return;
    case I2C_FUNCS: {
        GError* error = nullptr;
        UMockdevIoctlData* out = umockdev_ioctl_data_resolve(arg, 0, sizeof(unsigned long), &error);
        if (!out) {
            g_clear_error(&error);
            complete(client, -1, EFAULT);
            return;
        }
        const unsigned long funcs = I2C_FUNC_I2C;
        std::memcpy(out->data, &funcs, sizeof funcs);
        complete(client, 0, 0);
        g_object_unref(out);
        return;
    }
    case I2C_TENBIT:
        complete(client, value ? -1 : 0, value ? EINVAL : 0);
        return;
    case I2C_PEC:
    case I2C_RETRIES:
    case I2C_TIMEOUT:
        complete(client, 0, 0);
        return;
    case I2C_RDWR:
        handleRdwr(bus, client, arg);
        return;
    default:
        complete(client, -1, ENOTTY);
        return;
    }
}

void Desk::Impl::handleRdwr(Bus& bus, UMockdevIoctlClient* client, UMockdevIoctlData* arg)
{
    auto t = std::make_unique<Transfer>();
    t->client = static_cast<UMockdevIoctlClient*>(g_object_ref(client));
    t->bus = &bus;
    t->via = "rdwr";
    GError* error = nullptr;
    auto fail = [&](int err) {
        g_clear_error(&error);
        complete(client, -1, err);
    };
    UMockdevIoctlData* rd = umockdev_ioctl_data_resolve(arg, 0, sizeof(i2c_rdwr_ioctl_data), &error);
    if (!rd)
        return fail(EFAULT);
    t->keep.push_back(rd);
    i2c_rdwr_ioctl_data header{};
    std::memcpy(&header, rd->data, sizeof header);
    if (header.nmsgs == 0 || header.nmsgs > I2C_RDWR_IOCTL_MAX_MSGS)
        return fail(EINVAL);
    UMockdevIoctlData* msgs = umockdev_ioctl_data_resolve(rd, offsetof(i2c_rdwr_ioctl_data, msgs),
                                                          header.nmsgs * sizeof(i2c_msg), &error);
    if (!msgs)
        return fail(EFAULT);
    t->keep.push_back(msgs);
    for (unsigned i = 0; i < header.nmsgs; ++i) {
        i2c_msg m{};
        std::memcpy(&m, msgs->data + i * sizeof(i2c_msg), sizeof m);
        if (m.len > 8192 || (m.flags & I2C_M_TEN))
            return fail(EINVAL);
        Msg msg;
        msg.addr = m.addr;
        msg.read = (m.flags & I2C_M_RD) != 0;
        msg.len = m.len;
        if (m.len > 0) {
            UMockdevIoctlData* buf =
                umockdev_ioctl_data_resolve(msgs, i * sizeof(i2c_msg) + offsetof(i2c_msg, buf), m.len, &error);
            if (!buf)
                return fail(EFAULT);
            if (msg.read) {
                msg.buffer = buf;
            } else {
                msg.data.assign(buf->data, buf->data + m.len);
                g_object_unref(buf);
            }
        }
        t->msgs.push_back(std::move(msg));
    }
    t->successResult = static_cast<long>(header.nmsgs);
    startTransfer(std::move(t));
}

void Desk::Impl::handleWrite(Bus& bus, UMockdevIoctlClient* client)
{
    UMockdevIoctlData* arg = umockdev_ioctl_client_get_arg(client);
    auto t = std::make_unique<Transfer>();
    t->client = static_cast<UMockdevIoctlClient*>(g_object_ref(client));
    t->bus = &bus;
    t->via = "write";
    Msg msg;
    {
        std::lock_guard lk(mu);
        msg.addr = clientState(client, bus.number).slave;
    }
    const size_t len = std::min<size_t>(static_cast<size_t>(std::max(arg->data_len, 0)), 8192);
    msg.data.assign(arg->data, arg->data + len);
    t->msgs.push_back(std::move(msg));
    t->successResult = static_cast<long>(len);
    startTransfer(std::move(t));
}

void Desk::Impl::handleRead(Bus& bus, UMockdevIoctlClient* client)
{
    UMockdevIoctlData* arg = umockdev_ioctl_client_get_arg(client);
    auto t = std::make_unique<Transfer>();
    t->client = static_cast<UMockdevIoctlClient*>(g_object_ref(client));
    t->bus = &bus;
    t->via = "read";
    Msg msg;
    {
        std::lock_guard lk(mu);
        msg.addr = clientState(client, bus.number).slave;
    }
    msg.read = true;
    msg.len = std::min<size_t>(static_cast<size_t>(std::max(arg->data_len, 0)), 8192);
    msg.buffer = static_cast<UMockdevIoctlData*>(g_object_ref(arg));
    t->successResult = static_cast<long>(msg.len);
    t->msgs.push_back(std::move(msg));
    startTransfer(std::move(t));
}

// ---------------------------------------------------------------------------------------------------------------
// Transfers

void Desk::Impl::startTransfer(std::unique_ptr<Transfer> t)
{
    std::unique_lock lk(mu);
    Bus& b = *t->bus;
    t->clientId = clientState(t->client, b.number).id;
    t->startUs = now();
    Connector* c = b.connector;
    Monitor* m = c && c->monitor ? &*c->monitor : nullptr;
    const std::string who = "descriptor #" + std::to_string(t->clientId);

    for (const auto& msg : t->msgs) {
        if (msg.read)
            continue;
        if (!c)
            violation(who + " wrote to " + hex2(msg.addr) + " on " + busLabel(b) + ", which no DRM connector reaches");
        else if (msg.addr != kDdcAddress)
            violation(who + " wrote to address " + hex2(msg.addr) + " on " + busLabel(b) + ": only 0x37 may be written");
    }
    if (!b.inFlight.empty())
        violation("two transfers in flight at once on " + busLabel(b) + ": " + who + " started one while descriptor #" +
                  std::to_string(b.inFlight.front()) + "'s was still on the wire");
    const bool talksDdc = std::any_of(t->msgs.begin(), t->msgs.end(), [](const Msg& x) { return x.addr == kDdcAddress; });
    // A monitor that is gone hears nothing: transfers to it fail and cannot interrupt a conversation.
    const bool reachable = c && c->plugged && m && !m->state.faults.unplugged;
    if (reachable && talksDdc && m->pending && m->pending->clientId != t->clientId &&
        t->startUs < std::min(m->pending->expiresUs, m->pending->readyUs + kConversationGraceUs))
        violation("overlapping transactions on " + busLabel(b) + ": " + who + " talked to the monitor while descriptor #" +
                  std::to_string(m->pending->clientId) + "'s Get VCP " + hex2(m->pending->code) +
                  " reply was not yet read");

    b.inFlight.push_back(t->clientId);
    if (m && m->state.hold && !stopping && carriesSet(*t)) {
        m->held.push_back(std::move(t));
        notifyLocked();
        return;
    }
    Transfer* raw = t.release();
    const int64_t wire = static_cast<int64_t>(raw->wireBytes()) * config.byteTimeUs;
    finishAtLocked(raw->startUs + wire, raw);
}

void Desk::Impl::finishTransfer(Transfer* raw)
{
    std::unique_ptr<Transfer> t(raw);
    std::unique_lock lk(mu);
    Bus& b = *t->bus;
    auto pos = std::find(b.inFlight.begin(), b.inFlight.end(), t->clientId);
    if (pos != b.inFlight.end())
        b.inFlight.erase(pos);
    const int64_t end = now();
    int err = 0;
    for (auto& msg : t->msgs) {
        Transaction rec;
        rec.startUs = t->startUs;
        rec.endUs = end;
        rec.bus = b.number;
        rec.connector = b.connector ? b.connector->sysName : "";
        rec.client = t->clientId;
        rec.via = t->via;
        rec.address = msg.addr;
        rec.direction = msg.read ? Direction::Read : Direction::Write;
        if (!msg.read)
            rec.bytes = msg.data;
        err = deliver(b, msg, rec, end, t->clientId);
        rec.outcome = err ? errnoName(err) : "ok";
        log.push_back(std::move(rec));
        if (err)
            break;
    }
    notifyLocked();
    std::string trace;
    if (options.trace)
        for (auto it = log.end() - static_cast<std::ptrdiff_t>(std::min(log.size(), t->msgs.size())); it != log.end(); ++it)
            if (it->client == t->clientId && it->endUs == end)
                trace += "virtual desk: " + toJsonLine(*it) + "\n";
    lk.unlock();
    if (!trace.empty())
        std::cerr << trace << std::flush;
    complete(t->client, err ? -1 : t->successResult, err);
}

int Desk::Impl::deliver(Bus& b, Msg& msg, Transaction& rec, int64_t nowUs, int clientId)
{
    Connector* c = b.connector;
    auto put = [&](const std::vector<uint8_t>& out) {
        rec.bytes = out;
        if (msg.buffer && msg.buffer->data)
            std::memcpy(msg.buffer->data, out.data(), std::min<size_t>(out.size(), msg.buffer->data_len));
    };
    if (!c) {
        rec.note = "no device";
        return ENXIO;
    }
    if (b.removed) {
        rec.note = "removed";
        return ENODEV;
    }
    Monitor* m = c->monitor ? &*c->monitor : nullptr;
    if (!c->plugged || (m && m->state.faults.unplugged)) {
        rec.note = "unplugged";
        return ENXIO;
    }
    if (msg.addr == kEdidAddress) {
        if (c->edid.empty()) {
            rec.note = "no EDID";
            return ENXIO;
        }
        if (!msg.read) {
            rec.request = "offset";
            if (!msg.data.empty())
                b.edidOffset = msg.data[0];
            return 0;
        }
        rec.request = "edid";
        std::vector<uint8_t> out(msg.len);
        for (size_t i = 0; i < msg.len; ++i)
            out[i] = c->edid[(b.edidOffset + i) % c->edid.size()];
        b.edidOffset = static_cast<uint8_t>(b.edidOffset + msg.len);
        put(out);
        return 0;
    }
    if (msg.addr != kDdcAddress || !m) {
        rec.note = "no device";
        return ENXIO;
    }
    if (m->state.faults.nakWhileBusy && nowUs < m->busyUntilUs) {
        if (!msg.read) {
            const Decoded d = decodeRequest(msg.data);
            rec.request = d.kind;
            rec.code = d.code;
            rec.value = d.value;
        }
        rec.note = "busy";
        return EREMOTEIO;
    }
    if (!msg.read) {
        const Decoded d = decodeRequest(msg.data);
        applyRequest(*m, d, rec, nowUs, clientId);
        return 0;
    }
    if (m->state.faults.neverAnswer) {
        rec.note = "no answer";
        return EREMOTEIO;
    }
    if (!m->pending || nowUs >= m->pending->expiresUs) {
        m->pending.reset();
        rec.note = "nothing pending";
        return EREMOTEIO;
    }
    if (nowUs < m->pending->readyUs) {
        rec.note = "not ready";
        return EREMOTEIO;
    }
    auto reply = m->pending->reply;
    m->pending.reset();
    if (m->state.faults.badChecksumReplies > 0) {
        reply[10] ^= 0xFF;
        m->state.faults.badChecksumReplies -= 1;
        rec.note = "bad checksum";
    }
    rec.request = "reply";
    rec.code = reply[4];
    rec.value = reply[8] << 8 | reply[9];
    std::vector<uint8_t> out(msg.len, 0);
    std::copy_n(reply.begin(), std::min<size_t>(reply.size(), msg.len), out.begin());
    put(out);
    return 0;
}

void Desk::Impl::applyRequest(Monitor& m, const Decoded& d, Transaction& rec, int64_t nowUs, int clientId)
{
    rec.request = d.kind;
    rec.code = d.code;
    rec.value = d.value;
    rec.note = d.note;
    if (d.kind == "get") {
        if (m.state.faults.neverAnswer)
            return;
        uint8_t result = 0;
        unsigned max = 0, cur = 0;
        switch (d.code) {
        case 0x10:
            max = m.state.faults.maxZero ? 0 : m.state.max;
            cur = m.state.current;
            break;
        case 0x12:
            max = 100;
            cur = m.contrast;
            break;
        case 0xD6:
            max = 5;
            cur = m.state.power;
            break;
        default:
            result = 0x01;
            rec.note = "unsupported code";
            break;
        }
        Monitor::Pending p;
        p.reply = {0x6E, 0x88, 0x02, result, static_cast<uint8_t>(d.code), 0x00,
                   static_cast<uint8_t>(max >> 8), static_cast<uint8_t>(max & 0xFF),
                   static_cast<uint8_t>(cur >> 8), static_cast<uint8_t>(cur & 0xFF), 0};
        uint8_t sum = 0x50;
        for (size_t i = 0; i < 10; ++i)
            sum ^= p.reply[i];
        p.reply[10] = sum;
        p.readyUs = nowUs + static_cast<int64_t>(m.state.replyDelayMs) * 1000;
        p.expiresUs = p.readyUs + static_cast<int64_t>(m.state.replyExpiryMs) * 1000;
        p.clientId = clientId;
        p.code = static_cast<uint8_t>(d.code);
        m.pending = p;
        return;
    }
    if (d.kind != "set")
        return;
    const auto v = static_cast<uint16_t>(d.value);
    switch (d.code) {
    case 0x10:
        if (v > m.state.max && !m.state.faults.currentAboveMax) {
            m.state.current = m.state.max;
            rec.note = "clamped to max";
        } else {
            m.state.current = v;
        }
        break;
    case 0x12:
        m.contrast = std::min<uint16_t>(v, 100);
        break;
    case 0xD6:
        if (v == 1 || v == 4 || v == 5)
            m.state.power = static_cast<uint8_t>(v);
        else
            rec.note = "invalid power mode";
        break;
    default:
        rec.note = "unsupported code";
        break;
    }
    m.busyUntilUs = nowUs + static_cast<int64_t>(m.state.busyMs) * 1000;
}

// ---------------------------------------------------------------------------------------------------------------
// Hot-plug and backlights

void Desk::Impl::setPlugged(std::string_view name, bool plugged)
{
    std::string devpath, cardDevpath;
    std::optional<std::vector<uint8_t>> edid;
    bool enabled = true;
    {
        std::lock_guard lk(mu);
        Connector& c = connector(name);
        c.plugged = plugged;
        // Pulling the cable ends any conversation: a reply the monitor had prepared is lost with it.
        if (!plugged && c.monitor)
            c.monitor->pending.reset();
        devpath = c.devpath;
        cardDevpath = c.cardDevpath;
        if (c.cfg.edid)
            edid = plugged ? c.edid : std::vector<uint8_t>{};
        enabled = plugged;
        notifyLocked();
    }
    std::lock_guard tk(testbedMu);
    umockdev_testbed_set_attribute(testbed, devpath.c_str(), "status", plugged ? "connected\n" : "disconnected\n");
    umockdev_testbed_set_attribute(testbed, devpath.c_str(), "enabled", enabled ? "enabled\n" : "disabled\n");
    umockdev_testbed_set_attribute(testbed, devpath.c_str(), "dpms", enabled ? "On\n" : "Off\n");
    if (edid)
        umockdev_testbed_set_attribute_binary(testbed, devpath.c_str(), "edid", edid->data(),
                                              static_cast<gint>(edid->size()));
    umockdev_testbed_set_property(testbed, cardDevpath.c_str(), "HOTPLUG", "1");
    umockdev_testbed_uevent(testbed, cardDevpath.c_str(), "change");
}

void Desk::Impl::onInotify()
{
    alignas(inotify_event) char buf[4096];
    for (;;) {
        const ssize_t n = ::read(inotifyFd, buf, sizeof buf);
        if (n <= 0)
            return;
        for (ssize_t off = 0; off < n;) {
            const auto* ev = reinterpret_cast<const inotify_event*>(buf + off);
            off += static_cast<ssize_t>(sizeof(inotify_event) + ev->len);
            if (ev->len == 0 || std::strcmp(ev->name, "brightness") != 0)
                continue;
            std::lock_guard lk(mu);
            for (auto& [name, b] : backlights) {
                if (b.watch != ev->wd)
                    continue;
                const std::string text = readFile(b.dir + "/brightness");
                int value = -1;
                try {
                    size_t used = 0;
                    value = std::stoi(text, &used);
                    while (used < text.size() && (text[used] == '\n' || text[used] == ' '))
                        ++used;
                    if (used != text.size())
                        value = -1;
                } catch (const std::exception&) {
                    value = -1;
                }
                if (value < 0 || value > b.cfg.max) {
                    violation("backlight " + name + ": \"" + text + "\" written to brightness (the kernel takes 0.." +
                              std::to_string(b.cfg.max) + ")");
                } else {
                    std::ofstream(b.dir + "/actual_brightness", std::ios::trunc) << value << "\n";
                }
                notifyLocked();
            }
        }
    }
}

// ---------------------------------------------------------------------------------------------------------------
// Desk

Desk::Desk(const DeskConfig& config, DeskOptions options) : impl(std::make_unique<Impl>())
{
    config.validate();
    if (deskAlive.exchange(true))
        throw std::runtime_error("virtual desk: only one Desk may exist in a process at a time");
    try {
        const char* preload = std::getenv("LD_PRELOAD");
        if (!preload || !std::strstr(preload, "libumockdev-preload"))
            throw std::runtime_error("virtual desk: not under umockdev's preload; run the program under "
                                     "umockdev-wrapper (umockdev-wrapper ./program)");
        impl->config = config;
        impl->options = std::move(options);
        impl->t0 = g_get_monotonic_time();
        impl->testbed = umockdev_testbed_new();
        gchar* root = umockdev_testbed_get_root_dir(impl->testbed);
        gchar* sys = umockdev_testbed_get_sys_dir(impl->testbed);
        impl->root = root;
        impl->sysDir = sys;
        g_free(root);
        g_free(sys);
        // The preload must really redirect /sys to the test bed.
        struct stat redirected{}, bed{};
        if (::stat("/sys", &redirected) != 0 || ::stat(impl->sysDir.c_str(), &bed) != 0 ||
            redirected.st_ino != bed.st_ino || redirected.st_dev != bed.st_dev)
            throw std::runtime_error("virtual desk: /sys is not redirected to the test bed; run the program under "
                                     "umockdev-wrapper (umockdev-wrapper ./program)");

        Impl::liveImpl = impl.get();
        impl->ctx = g_main_context_new();
        impl->loop = g_main_loop_new(impl->ctx, FALSE);
        impl->build();

        impl->inotifyFd = inotify_init1(IN_NONBLOCK | IN_CLOEXEC);
        if (impl->inotifyFd >= 0) {
            for (auto& [name, b] : impl->backlights)
                b.watch = inotify_add_watch(impl->inotifyFd, b.dir.c_str(), IN_CLOSE_WRITE);
            GSource* s = g_unix_fd_source_new(impl->inotifyFd, G_IO_IN);
            GUnixFDSourceFunc onReadable = [](gint, GIOCondition, gpointer data) -> gboolean {
                static_cast<Impl*>(data)->onInotify();
                return G_SOURCE_CONTINUE;
            };
            g_source_set_callback(s, reinterpret_cast<GSourceFunc>(reinterpret_cast<void (*)()>(onReadable)),
                                  impl.get(), nullptr);
            g_source_attach(s, impl->ctx);
            g_source_unref(s);
        }
        impl->thread = std::thread([ctx = impl->ctx, loop = impl->loop] {
            g_main_context_push_thread_default(ctx);
            g_main_loop_run(loop);
            g_main_context_pop_thread_default(ctx);
        });
    } catch (...) {
        if (impl->testbed) {
            for (auto& [n, b] : impl->buses)
                impl->detach(*b);
            g_object_unref(impl->testbed);
        }
        if (impl->loop)
            g_main_loop_unref(impl->loop);
        if (impl->ctx)
            g_main_context_unref(impl->ctx);
        if (impl->inotifyFd >= 0)
            ::close(impl->inotifyFd);
        Impl::liveImpl = nullptr;
        deskAlive = false;
        throw;
    }
}

Desk::~Desk()
{
    {
        // Let every transfer finish: held ones are released, the rest complete on their own.
        std::unique_lock lk(impl->mu);
        impl->stopping = true;
        for (auto& [name, c] : impl->connectors)
            if (c->monitor) {
                c->monitor->state.hold = false;
                impl->releaseLocked(*c->monitor);
            }
        impl->cv.wait_for(lk, std::chrono::seconds(5), [&] {
            for (const auto& [n, b] : impl->buses)
                if (!b->inFlight.empty())
                    return false;
            for (const auto& b : impl->retiredBuses)
                if (!b->inFlight.empty())
                    return false;
            return true;
        });
    }
    g_main_context_invoke(impl->ctx, [](gpointer loop) -> gboolean {
        g_main_loop_quit(static_cast<GMainLoop*>(loop));
        return G_SOURCE_REMOVE;
    }, impl->loop);
    impl->thread.join();
    // Whatever did not finish in time fails now rather than leaving its writer blocked.
    for (auto& [ticket, t] : impl->scheduled) {
        Impl::complete(t->client, -1, EIO);
        delete t;
    }
    impl->scheduled.clear();

    for (auto& [n, b] : impl->buses)
        impl->detach(*b);
    for (auto& b : impl->retiredBuses)
        impl->detach(*b);
    // umockdev aborts when its directory is gone (a cleanup of /tmp/umockdev.* during the run): give it one.
    ::mkdir(impl->root.c_str(), 0700);
    g_object_unref(impl->testbed);
    g_main_loop_unref(impl->loop);
    g_main_context_unref(impl->ctx);
    if (impl->inotifyFd >= 0)
        ::close(impl->inotifyFd);

    if (!impl->options.logPath.empty()) {
        std::ofstream out(impl->options.logPath, std::ios::trunc);
        for (const auto& t : impl->log)
            out << toJsonLine(t) << "\n";
        if (!out)
            std::cerr << "virtual desk: cannot write the log to " << impl->options.logPath << "\n";
    }
    if (impl->options.printViolations)
        for (const auto& v : impl->violationList)
            std::cerr << "virtual desk: VIOLATION " << v << "\n";
    Impl::liveImpl = nullptr;
    deskAlive = false;
}

void Desk::unplug(std::string_view connector)
{
    impl->setPlugged(connector, false);
}

void Desk::plug(std::string_view connector)
{
    impl->setPlugged(connector, true);
}

void Desk::addConnector(int card, const ConnectorConfig& config)
{
    std::string records, devpath, adapter, cardDevpath;
    Bus* bus = nullptr;
    {
        std::lock_guard lk(impl->mu);
        auto cardIt = std::find_if(impl->config.cards.begin(), impl->config.cards.end(),
                                   [&](const CardConfig& c) { return c.index == card; });
        if (cardIt == impl->config.cards.end())
            throw std::invalid_argument("virtual desk: no card" + std::to_string(card));
        DeskConfig one;
        one.cards.push_back(CardConfig{cardIt->index, cardIt->pciSlot, cardIt->driver, {config}});
        try {
            one.validate();
        } catch (const std::runtime_error& e) {
            throw std::invalid_argument(std::string("virtual desk: addConnector: ") + e.what());
        }
        const std::string name = "card" + std::to_string(card) + "-" + config.name;
        if (impl->connectors.count(name))
            throw std::invalid_argument("virtual desk: connector " + name + " exists already");
        if (config.ddc && impl->buses.count(config.ddc->bus))
            throw std::invalid_argument("virtual desk: bus " + std::to_string(config.ddc->bus) + " is in use");
        if (config.ddc && std::any_of(impl->retiredBuses.begin(), impl->retiredBuses.end(),
                                      [&](const auto& b) { return b->number == config.ddc->bus; }))
            throw std::invalid_argument("virtual desk: bus " + std::to_string(config.ddc->bus) +
                                        " belonged to a removed connector; give the new adapter a new number, as the "
                                        "kernel does");
        Connector& c = impl->addConnectorObjects(*cardIt, config);
        cardIt->connectors.push_back(config);
        records = impl->connectorRecords(c);
        devpath = c.devpath;
        adapter = c.adapterDevpath;
        cardDevpath = c.cardDevpath;
        if (config.ddc)
            bus = impl->buses.at(config.ddc->bus).get();
        impl->notifyLocked();
    }
    std::lock_guard tk(impl->testbedMu);
    GError* error = nullptr;
    if (!umockdev_testbed_add_from_string(impl->testbed, records.c_str(), &error)) {
        std::string msg = error ? error->message : "unknown error";
        g_clear_error(&error);
        throw std::runtime_error("virtual desk: umockdev rejected the connector: " + msg);
    }
    if (bus && impl->config.i2cDev)
        impl->attach(*bus);
    // umockdev sends the "add" uevents of the new devices itself.
    umockdev_testbed_set_property(impl->testbed, cardDevpath.c_str(), "HOTPLUG", "1");
    umockdev_testbed_uevent(impl->testbed, cardDevpath.c_str(), "change");
}

void Desk::removeConnector(std::string_view connector)
{
    std::string devpath, adapter, cardDevpath;
    Bus* bus = nullptr;
    {
        std::lock_guard lk(impl->mu);
        Connector& c = impl->connector(connector);
        for (const auto& [name, b] : impl->backlights)
            if (b.cfg.connector == c.sysName)
                throw std::invalid_argument("virtual desk: backlight " + name + " lives under " + c.sysName);
        if (c.monitor) {
            c.monitor->state.hold = false;
            impl->releaseLocked(*c.monitor);
        }
        devpath = c.devpath;
        adapter = c.adapterDevpath;
        cardDevpath = c.cardDevpath;
        if (c.bus >= 0) {
            auto it = impl->buses.find(c.bus);
            bus = it->second.get();
            bus->removed = true;
            impl->retiredBuses.push_back(std::move(it->second));
            impl->buses.erase(it);
        }
        for (auto& card : impl->config.cards)
            if (c.cardDevpath.ends_with("/card" + std::to_string(card.index)))
                std::erase_if(card.connectors, [&](const ConnectorConfig& k) { return k.name == c.cfg.name; });
        auto it = impl->connectors.find(c.sysName);
        impl->retiredConnectors.push_back(std::move(it->second));
        impl->connectors.erase(it);
        impl->notifyLocked();
    }
    std::lock_guard tk(impl->testbedMu);
    const std::string i2cDev = bus ? adapter + "/i2c-dev/i2c-" + std::to_string(bus->number) : "";
    // The kernel announces the children first; umockdev's removal itself sends nothing.
    if (bus && impl->config.i2cDev)
        umockdev_testbed_uevent(impl->testbed, i2cDev.c_str(), "remove");
    if (bus)
        umockdev_testbed_uevent(impl->testbed, adapter.c_str(), "remove");
    umockdev_testbed_uevent(impl->testbed, devpath.c_str(), "remove");
    if (bus) {
        impl->detach(*bus);
        if (impl->config.i2cDev)
            umockdev_testbed_remove_device(impl->testbed, i2cDev.c_str());
        umockdev_testbed_remove_device(impl->testbed, adapter.c_str());
    }
    umockdev_testbed_remove_device(impl->testbed, devpath.c_str());
    umockdev_testbed_set_property(impl->testbed, cardDevpath.c_str(), "HOTPLUG", "1");
    umockdev_testbed_uevent(impl->testbed, cardDevpath.c_str(), "change");
}

void Desk::releaseAll()
{
    std::lock_guard lk(impl->mu);
    for (auto& [name, c] : impl->connectors)
        if (c->monitor) {
            c->monitor->state.hold = false;
            impl->releaseLocked(*c->monitor);
        }
}

void Desk::hold(std::string_view connector)
{
    std::lock_guard lk(impl->mu);
    impl->monitor(connector).state.hold = true;
    impl->notifyLocked();
}

void Desk::release(std::string_view connector)
{
    std::lock_guard lk(impl->mu);
    Monitor& m = impl->monitor(connector);
    m.state.hold = false;
    impl->releaseLocked(m);
}

int Desk::heldCount(std::string_view connector) const
{
    std::lock_guard lk(impl->mu);
    return static_cast<int>(impl->monitor(connector).held.size());
}

void Desk::setFaults(std::string_view connector, const Faults& faults)
{
    std::lock_guard lk(impl->mu);
    auto& monitor = impl->monitor(connector);
    monitor.state.faults = faults;
    if (faults.unplugged)
        monitor.pending.reset();
    impl->notifyLocked();
}

Faults Desk::faults(std::string_view connector) const
{
    std::lock_guard lk(impl->mu);
    return impl->monitor(connector).state.faults;
}

uint16_t Desk::brightness(std::string_view connector) const
{
    std::lock_guard lk(impl->mu);
    return impl->monitor(connector).state.current;
}

uint16_t Desk::maxBrightness(std::string_view connector) const
{
    std::lock_guard lk(impl->mu);
    return impl->monitor(connector).state.max;
}

uint8_t Desk::powerMode(std::string_view connector) const
{
    std::lock_guard lk(impl->mu);
    return impl->monitor(connector).state.power;
}

void Desk::setBrightness(std::string_view connector, uint16_t value)
{
    std::lock_guard lk(impl->mu);
    impl->monitor(connector).state.current = value;
    impl->notifyLocked();
}

void Desk::setMaxBrightness(std::string_view connector, uint16_t max)
{
    if (max == 0)
        throw std::invalid_argument("virtual desk: a maximum of 0 is the maxZero fault");
    std::lock_guard lk(impl->mu);
    impl->monitor(connector).state.max = max;
    impl->notifyLocked();
}

int Desk::backlightBrightness(std::string_view name) const
{
    std::lock_guard lk(impl->mu);
    return impl->readBacklight(impl->backlight(name), "brightness");
}

int Desk::backlightMax(std::string_view name) const
{
    std::lock_guard lk(impl->mu);
    return impl->backlight(name).cfg.max;
}

void Desk::setBacklightBrightness(std::string_view name, int value)
{
    std::lock_guard lk(impl->mu);
    Backlight& b = impl->backlight(name);
    if (value < 0 || value > b.cfg.max)
        throw std::invalid_argument("virtual desk: backlight value out of range 0.." + std::to_string(b.cfg.max));
    std::ofstream(b.dir + "/brightness", std::ios::trunc) << value << "\n";
    std::ofstream(b.dir + "/actual_brightness", std::ios::trunc) << value << "\n";
    impl->notifyLocked();
}

int Desk::busNumber(std::string_view connector) const
{
    std::lock_guard lk(impl->mu);
    return impl->connector(connector).bus;
}

std::vector<std::string> Desk::connectors() const
{
    std::lock_guard lk(impl->mu);
    std::vector<std::string> names;
    for (const auto& [name, c] : impl->connectors)
        names.push_back(name);
    return names;
}

std::vector<Transaction> Desk::transactions() const
{
    std::lock_guard lk(impl->mu);
    return impl->log;
}

void Desk::clearTransactions()
{
    std::lock_guard lk(impl->mu);
    impl->log.clear();
}

std::vector<std::string> Desk::violations() const
{
    std::lock_guard lk(impl->mu);
    return impl->violationList;
}

bool Desk::waitFor(const std::function<bool()>& predicate, std::chrono::milliseconds timeout) const
{
    const auto deadline = std::chrono::steady_clock::now() + timeout;
    for (;;) {
        uint64_t seen;
        {
            std::lock_guard lk(impl->mu);
            seen = impl->generation;
        }
        if (predicate())
            return true;
        std::unique_lock lk(impl->mu);
        if (!impl->cv.wait_until(lk, deadline, [&] { return impl->generation != seen; })) {
            lk.unlock();
            return predicate();
        }
    }
}

std::string Desk::rootDir() const
{
    return impl->root;
}

int64_t Desk::nowUs() const
{
    return impl->now();
}

std::string Desk::control(std::string_view line)
{
    std::istringstream in{std::string(line)};
    std::vector<std::string> words;
    for (std::string w; in >> w;)
        words.push_back(w);
    if (words.empty())
        return "error: empty command";
    const std::string& cmd = words[0];
    auto need = [&](size_t lo, size_t hi) {
        if (words.size() < lo || words.size() > hi)
            throw std::invalid_argument("usage: see the control commands in tools/virtual-desk/README.md");
    };
    auto number = [](const std::string& s) {
        size_t used = 0;
        const long v = std::stol(s, &used, 0);
        if (used != s.size())
            throw std::invalid_argument("not a number: " + s);
        return v;
    };
    try {
        if (cmd == "unplug" || cmd == "plug" || cmd == "hold" || cmd == "release") {
            need(2, 2);
            if (cmd == "unplug")
                unplug(words[1]);
            else if (cmd == "plug")
                plug(words[1]);
            else if (cmd == "hold")
                hold(words[1]);
            else
                release(words[1]);
            return "ok";
        }
        if (cmd == "remove") {
            need(2, 2);
            removeConnector(words[1]);
            return "ok";
        }
        if (cmd == "add") {
            // add CARD {"name":"DP-3","ddc":{"bus":9},"monitor":{}}: the connector as in the desk file
            const std::string text{line};
            const auto brace = text.find('{');
            if (words.size() < 3 || brace == std::string::npos)
                throw std::invalid_argument("usage: add CARD {connector as in the desk file}");
            const long card = number(words[1]);
            const auto one = DeskConfig::fromJson(R"({"cards":[{"index":)" + std::to_string(card) +
                                                  R"(,"connectors":[)" + text.substr(brace) + "]}]}");
            addConnector(static_cast<int>(card), one.cards.at(0).connectors.at(0));
            return "ok";
        }
        if (cmd == "fault") {
            if (words.size() < 3)
                throw std::invalid_argument("usage: fault CONNECTOR clear | fault CONNECTOR name=value ...");
            Faults f = faults(words[1]);
            for (size_t i = 2; i < words.size(); ++i) {
                if (words[i] == "clear") {
                    f = Faults{};
                    continue;
                }
                const auto eq = words[i].find('=');
                const std::string key = words[i].substr(0, eq);
                const std::string val = eq == std::string::npos ? "1" : words[i].substr(eq + 1);
                const long v = val == "true" ? 1 : val == "false" ? 0 : number(val);
                if (key == "neverAnswer")
                    f.neverAnswer = v != 0;
                else if (key == "badChecksumReplies")
                    f.badChecksumReplies = static_cast<int>(v);
                else if (key == "nakWhileBusy")
                    f.nakWhileBusy = v != 0;
                else if (key == "maxZero")
                    f.maxZero = v != 0;
                else if (key == "currentAboveMax")
                    f.currentAboveMax = v != 0;
                else if (key == "unplugged")
                    f.unplugged = v != 0;
                else
                    throw std::invalid_argument("unknown fault \"" + key + "\"");
            }
            setFaults(words[1], f);
            return "ok";
        }
        if (cmd == "brightness" || cmd == "max") {
            need(2, 3);
            if (words.size() == 3) {
                const long v = number(words[2]);
                if (v < 0 || v > 65535)
                    throw std::invalid_argument("value out of range 0..65535");
                if (cmd == "brightness")
                    setBrightness(words[1], static_cast<uint16_t>(v));
                else
                    setMaxBrightness(words[1], static_cast<uint16_t>(v));
                return "ok";
            }
            return "ok " + std::to_string(cmd == "brightness" ? brightness(words[1]) : maxBrightness(words[1]));
        }
        if (cmd == "power") {
            need(2, 2);
            return "ok " + std::to_string(powerMode(words[1]));
        }
        if (cmd == "backlight") {
            need(2, 3);
            if (words.size() == 3) {
                setBacklightBrightness(words[1], static_cast<int>(number(words[2])));
                return "ok";
            }
            return "ok " + std::to_string(backlightBrightness(words[1]));
        }
        if (cmd == "violations") {
            need(1, 1);
            return "ok " + std::to_string(violations().size());
        }
        if (cmd == "transactions") {
            need(1, 1);
            return "ok " + std::to_string(transactions().size());
        }
        return "error: unknown command \"" + cmd + "\"";
    } catch (const std::exception& e) {
        std::string msg = e.what();
        const std::string prefix = "virtual desk: ";
        if (msg.rfind(prefix, 0) == 0)
            msg = msg.substr(prefix.size());
        return "error: " + msg;
    }
}

std::string toJsonLine(const Transaction& t)
{
    nlohmann::ordered_json j;
    j["t"] = t.startUs;
    j["end"] = t.endUs;
    j["bus"] = t.bus;
    j["connector"] = t.connector;
    j["client"] = t.client;
    j["via"] = t.via;
    j["addr"] = hex2(t.address);
    j["dir"] = t.direction == Direction::Read ? "read" : "write";
    j["bytes"] = hexBytes(t.bytes);
    if (!t.request.empty())
        j["request"] = t.request;
    if (t.code >= 0)
        j["code"] = hex2(static_cast<unsigned>(t.code));
    if (t.value >= 0)
        j["value"] = t.value;
    j["outcome"] = t.outcome;
    if (!t.note.empty())
        j["note"] = t.note;
    return j.dump();
}

} // namespace VirtualDesk
