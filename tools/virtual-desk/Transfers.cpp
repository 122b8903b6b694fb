// SPDX-License-Identifier: GPL-3.0-or-later
// Transfers on the wire: each takes its time per byte, is checked for violations when it arrives, and takes
// effect when it completes, message by message: at 0x37 the monitor answers, at 0x50 the EDID EEPROM.
#include "tools/virtual-desk/DeskImpl.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <iostream>

namespace VirtualDesk {

namespace {

// A GSource that fires once at a given monotonic time (microseconds) and runs a function.
gboolean dispatchOnce(GSource* source, GSourceFunc callback, gpointer data)
{
    g_source_set_ready_time(source, -1);
    return callback ? callback(data) : G_SOURCE_REMOVE;
}
GSourceFuncs onceFuncs = {nullptr, nullptr, dispatchOnce, nullptr, nullptr, nullptr};

} // namespace

void Desk::Impl::finishAtLocked(int64_t whenUs, Transfer* t)
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

void Desk::Impl::suspectLocked(int64_t atUs, int otherClient, std::string text)
{
    const uint64_t ticket = nextSuspicion++;
    suspicions[ticket] = Suspicion{atUs, otherClient, std::move(text)};
    // Called on umockdev's thread, in a handler: its context runs the idle once nothing of higher priority (a
    // closed descriptor's end, say) is left to handle.
    GSource* idle = g_idle_source_new();
    g_source_set_priority(idle, G_PRIORITY_LOW);
    g_source_set_callback(
        idle,
        [](gpointer data) -> gboolean {
            std::lock_guard live(liveMu);
            if (liveImpl)
                liveImpl->judge(reinterpret_cast<uintptr_t>(data));
            return G_SOURCE_REMOVE;
        },
        reinterpret_cast<gpointer>(static_cast<uintptr_t>(ticket)), nullptr);
    g_source_attach(idle, g_main_context_get_thread_default());
    g_source_unref(idle);
}

// umockdev marks a client disconnected once it has handled the end of its socket; the client object itself may live
// on a little longer (a transfer of ours that just completed still holds it).
bool Desk::Impl::stillOpenLocked(int clientId) const
{
    for (const auto& [client, state] : clients)
        if (state.id == clientId)
            return umockdev_ioctl_client_get_connected(client);
    return false;
}

void Desk::Impl::judge(uint64_t ticket)
{
    std::lock_guard lk(mu);
    auto it = suspicions.find(ticket);
    if (it == suspicions.end())
        return;
    const Suspicion s = std::move(it->second);
    suspicions.erase(it);
    if (stillOpenLocked(s.otherClient))
        violationAt(s.atUs, s.text);
    notifyLocked();
}

void Desk::Impl::judgeAllLocked()
{
    for (auto& [ticket, s] : suspicions)
        if (stillOpenLocked(s.otherClient))
            violationAt(s.atUs, s.text);
    suspicions.clear();
    notifyLocked();
}

void Desk::Impl::startTransfer(std::unique_ptr<Transfer> t)
{
    std::unique_lock lk(mu);
    Bus& b = *t->bus;
    t->clientId = clientState(t->client, b.number).id;
    t->startUs = now();
    Connector* c = b.connector;
    EmulatedMonitor* m = c && c->monitor ? &*c->monitor : nullptr;
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
    if (reachable && talksDdc) {
        const int other = m->openConversation(t->startUs, kConversationGraceUs);
        if (other != 0 && other != t->clientId)
            suspectLocked(t->startUs, other,
                          "overlapping transactions on " + busLabel(b) + ": " + who +
                              " talked to the monitor while descriptor #" + std::to_string(other) + "'s Get VCP " +
                              hex2(m->openConversationCode()) + " reply was not yet read");
    }

    b.inFlight.push_back(t->clientId);
    if (m && m->state.hold && !stopping && carriesSet(*t)) {
        c->held.push_back(std::move(t));
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
    // A DisplayPort MST port carries at most 255 bytes a message: the kernel refuses a longer one with EIO before
    // anything is sent.
    const auto tooLong = std::find_if(t->msgs.begin(), t->msgs.end(), [&](const Msg& m) {
        return b.name == "DPMST" && (m.read ? m.len : m.data.size()) > 255;
    });
    if (tooLong != t->msgs.end()) {
        Transaction rec;
        rec.startUs = t->startUs;
        rec.endUs = end;
        rec.bus = b.number;
        rec.connector = b.connector ? b.connector->sysName : "";
        rec.client = t->clientId;
        rec.via = t->via;
        rec.address = tooLong->addr;
        rec.direction = tooLong->read ? Direction::Read : Direction::Write;
        rec.outcome = errnoName(EIO);
        rec.note = "longer than 255 bytes: an MST port refuses it";
        log.push_back(std::move(rec));
        notifyLocked();
        lk.unlock();
        complete(t->client, -1, EIO);
        return;
    }
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
    // Nobody answering at the address looks the same on the wire whatever the reason: the adapter's NAK.
    EmulatedMonitor* m = c->monitor ? &*c->monitor : nullptr;
    if (!c->plugged || (m && m->state.faults.unplugged)) {
        rec.note = "unplugged";
        return b.nakErrno;
    }
    if (msg.addr == kEdidAddress) {
        if (!c->eeprom.answers()) {
            rec.note = "no EDID";
            return b.nakErrno;
        }
        if (!msg.read) {
            rec.request = "offset";
            c->eeprom.write(msg.data);
            return 0;
        }
        rec.request = "edid";
        put(c->eeprom.read(msg.len));
        return 0;
    }
    if (msg.addr != kDdcAddress || !m) {
        rec.note = "no device";
        return b.nakErrno;
    }
    if (!msg.read)
        return m->write(msg.data, rec, nowUs, clientId) == Answer::acknowledged ? 0 : b.nakErrno;
    std::vector<uint8_t> out;
    if (m->read(msg.len, out, rec, nowUs) != Answer::acknowledged)
        return b.nakErrno;
    put(out);
    return 0;
}

} // namespace VirtualDesk
