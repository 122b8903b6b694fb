// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once
// The running desk's insides, shared by the files that build and run it: the test bed, the buses and their
// connectors and monitors, the transfers on the wire, and the record of what was said.
//
// Threads: umockdev calls the ioctl/read/write handlers on its one worker thread, for every device. The handlers
// only parse the request, check it for violations and schedule its completion; the transfer itself (its time on
// the wire, the monitor's answer) completes on the desk's own GLib thread through timed sources, so that no
// handler ever sleeps and no device waits for another. Run-time control calls come from any thread. One mutex
// guards all desk state; it is never held while calling into umockdev's client side.
#include "tools/virtual-desk/EmulatedEdid.h"
#include "tools/virtual-desk/EmulatedMonitor.h"
#include "tools/virtual-desk/InputDesk.h"
#include "tools/virtual-desk/TransactionLog.h"
#include "tools/virtual-desk/VirtualDesk.h"

#include <umockdev.h>

#include <glib.h>

#include <cerrno>
#include <condition_variable>
#include <cstdint>
#include <cstdio>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

namespace VirtualDesk {

constexpr uint16_t kDdcAddress = 0x37;
constexpr uint16_t kEdidAddress = 0x50;
// A host that has not read its reply this long after it became ready has given up on it: from then on another
// descriptor talking to the monitor is no longer a second conversation running at the same time.
constexpr int64_t kConversationGraceUs = 200000;

std::string readFile(const std::string& path);

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

struct Connector {
    std::string sysName;     // card0-DP-1
    std::string devpath;     // /sys/devices/.../card0-DP-1
    std::string cardDevpath; // /sys/devices/.../drm/card0
    std::string adapterDevpath; // /sys/devices/.../i2c-N, when it has a DDC adapter
    ConnectorConfig cfg;
    bool plugged = true;
    std::optional<EmulatedMonitor> monitor;
    std::vector<std::unique_ptr<Transfer>> held; // Set VCP transfers waiting while the monitor is held
    std::vector<uint8_t> edid;
    EmulatedEdid eeprom;     // the EDID EEPROM at 0x50 on its DDC bus
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
    int opens = 0;             // open() calls on /dev/i2c-N
    bool removed = false;      // its connector was removed: every transfer fails with ENODEV
    int nakErrno = ENXIO;      // what a transfer nobody acknowledges fails with on this adapter
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

    std::mutex testbedMu; // umockdev test bed changes (attributes, uevents); may be taken while holding `mu`

    std::unique_ptr<InputDesk> input; // keyboards, uinput and their clones (InputDesk.h)

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

    void violation(const std::string& text) { violationAt(now(), text); }
    void violationAt(int64_t whenUs, const std::string& text)
    {
        char stamp[32];
        std::snprintf(stamp, sizeof stamp, "[%.3f ms] ", static_cast<double>(whenUs) / 1000.0);
        violationList.push_back(stamp + text);
        notifyLocked();
    }

    // A transfer that arrived while another descriptor's conversation was open. It is a second conversation only
    // if that descriptor is still open: umockdev learns of a close only when it gets round to the closed socket,
    // which may be after a transfer the program sent later on another descriptor. The verdict waits until umockdev
    // has handled what was pending when the transfer arrived (an idle of low priority on its thread).
    struct Suspicion {
        int64_t atUs = 0;
        int otherClient = 0; // the descriptor whose conversation was open
        std::string text;    // the violation, should it be one
    };
    std::map<uint64_t, Suspicion> suspicions;
    uint64_t nextSuspicion = 1;
    void suspectLocked(int64_t atUs, int otherClient, std::string text);
    void judge(uint64_t ticket);  // the verdict on one suspicion; takes `mu`
    void judgeAllLocked();        // the verdict on every one still open
    bool stillOpenLocked(int clientId) const;

    // Transfers waiting for their completion time, by ticket. Only the ticket number travels through GLib, so that
    // every hand-over between threads goes through `mu` (and race detectors see it).
    std::map<uint64_t, Transfer*> scheduled;
    uint64_t nextTicket = 1;

    // Completes the transfer on the desk thread at desk time `whenUs`. Called with `mu` held.
    void finishAtLocked(int64_t whenUs, Transfer* t);
    static inline Impl* liveImpl = nullptr; // the one desk of the process
    // Guards liveImpl for what runs on umockdev's threads (client finalisation, verdicts), which may outlive the
    // desk. Taken before `mu`, never while holding it.
    static inline std::mutex liveMu;

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
    // The connector, which must have a DDC/CI monitor.
    Connector& monitored(std::string_view name) const
    {
        Connector& c = connector(name);
        if (!c.monitor)
            throw std::invalid_argument("virtual desk: connector \"" + c.sysName + "\" has no DDC/CI monitor");
        return c;
    }
    EmulatedMonitor& monitor(std::string_view name) const { return *monitored(name).monitor; }
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

    // The descriptor's state, made on first sight. A descriptor ends when umockdev drops its client object (a
    // weak reference tells), whether or not it says so with "client-vanished".
    ClientState& clientState(UMockdevIoctlClient* client, int bus)
    {
        auto it = clients.find(client);
        if (it == clients.end()) {
            it = clients.emplace(client, ClientState{nextClientId++, bus, 0}).first;
            g_object_weak_ref(G_OBJECT(client), &Impl::onClientFinalized, nullptr);
        }
        return it->second;
    }
    static void onClientFinalized(gpointer, GObject* client);
    void clientGone(UMockdevIoctlClient* client);

    // ---- building the test bed ----

    void build();
    std::string records();
    std::string i2cRecords(const std::string& adapter, int bus, const std::string& name) const;
    std::string i2cDevRecord(const std::string& adapter, int bus, const std::string& name) const;
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
        ++bus.opens;
        notifyLocked();
    }
    void onVanished(Bus&, UMockdevIoctlClient* client) { clientGone(client); }
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
    bool carriesSet(const Transfer& t) const
    {
        for (const auto& m : t.msgs)
            if (!m.read && m.addr == kDdcAddress && decodeRequest(m.data).kind == "set")
                return true;
        return false;
    }
    void releaseLocked(Connector& c)
    {
        auto held = std::move(c.held);
        c.held.clear();
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

} // namespace VirtualDesk
