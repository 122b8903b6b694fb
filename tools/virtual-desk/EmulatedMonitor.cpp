// SPDX-License-Identifier: GPL-3.0-or-later
// The emulated DDC/CI monitor: request checks, Get VCP replies with their delay, Set VCP with its busy time, and
// the faults a monitor can be told to show.
#include "tools/virtual-desk/EmulatedMonitor.h"

#include "tools/virtual-desk/TransactionLog.h"

#include <algorithm>

namespace VirtualDesk {

DdcRequest decodeRequest(const std::vector<uint8_t>& d)
{
    DdcRequest r;
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

Answer EmulatedMonitor::write(const std::vector<uint8_t>& bytes, Transaction& rec, int64_t nowUs, int clientId)
{
    const DdcRequest request = decodeRequest(bytes);
    rec.request = request.kind;
    rec.code = request.code;
    rec.value = request.value;
    const Faults& f = state.faults;
    // Asleep, a monitor that is silent in standby listens for the power command only.
    if (f.silentInStandby && inStandby() && !(request.kind == "set" && request.code == 0xD6)) {
        rec.note = "standby";
        return Answer::notAcknowledged;
    }
    const bool waking = nowUs < awakeAtUs;
    const bool busy = nowUs < busyUntilUs;
    if (waking || busy) {
        const std::string why = waking ? "waking" : "busy";
        if (f.dropWhileBusy) {
            rec.note = why + ", ignored";
            return Answer::acknowledged;
        }
        if (waking || f.nakWhileBusy) {
            rec.note = why;
            return Answer::notAcknowledged;
        }
    }
    rec.note = request.note;
    if (request.kind == "get")
        prepareReply(request, rec, nowUs, clientId);
    else if (request.kind == "set")
        apply(request, rec, nowUs);
    return Answer::acknowledged;
}

Answer EmulatedMonitor::read(std::size_t length, std::vector<uint8_t>& out, Transaction& rec, int64_t nowUs)
{
    const Faults& f = state.faults;
    if (f.silentInStandby && inStandby()) {
        rec.note = "standby";
        return Answer::notAcknowledged;
    }
    if (nowUs < awakeAtUs) {
        if (f.nullWhenNotReady) {
            nullMessage(length, out, rec);
            rec.note = "waking, null message";
            return Answer::acknowledged;
        }
        rec.note = "waking";
        return Answer::notAcknowledged;
    }
    if (f.nakWhileBusy && nowUs < busyUntilUs) {
        rec.note = "busy";
        return Answer::notAcknowledged;
    }
    if (f.neverAnswer) {
        rec.note = "no answer";
        return Answer::notAcknowledged;
    }
    if (state.faults.nullReplies > 0) {
        // It could not answer: the request it had is lost, and the host must ask again.
        state.faults.nullReplies -= 1;
        pending.reset();
        nullMessage(length, out, rec);
        return Answer::acknowledged;
    }
    if (pending && nowUs >= pending->expiresUs)
        pending.reset();
    if (!pending || nowUs < pending->readyUs) {
        const std::string why = pending ? "not ready" : "nothing pending";
        if (f.nullWhenNotReady) {
            nullMessage(length, out, rec);
            rec.note = why + ", null message";
            return Answer::acknowledged;
        }
        rec.note = why;
        return Answer::notAcknowledged;
    }
    auto reply = pending->reply;
    pending.reset();
    if (state.faults.badChecksumReplies > 0) {
        reply[10] ^= 0xFF;
        state.faults.badChecksumReplies -= 1;
        rec.note = "bad checksum";
    }
    rec.request = "reply";
    rec.code = reply[4];
    rec.value = reply[8] << 8 | reply[9];
    out.assign(length, 0);
    std::copy_n(reply.begin(), std::min(reply.size(), length), out.begin());
    return Answer::acknowledged;
}

void EmulatedMonitor::setPower(uint8_t mode, int64_t nowUs)
{
    if (mode == 1 && inStandby())
        awakeAtUs = nowUs + static_cast<int64_t>(state.wakeMs) * 1000;
    state.power = mode;
}

// What a monitor with nothing to say sends: source 0x6E, length 0 (0x80), checksum 0xBE, then whatever the
// line holds for the rest of the read.
void EmulatedMonitor::nullMessage(std::size_t length, std::vector<uint8_t>& out, Transaction& rec) const
{
    out.assign(length, state.faults.nullFiller);
    const uint8_t message[3] = {0x6E, 0x80, 0xBE};
    std::copy_n(message, std::min<std::size_t>(3, length), out.begin());
    rec.request = "null";
    rec.note = "null message";
}

int EmulatedMonitor::openConversation(int64_t nowUs, int64_t graceUs) const
{
    if (!pending || nowUs >= std::min(pending->expiresUs, pending->readyUs + graceUs))
        return 0;
    return pending->clientId;
}

void EmulatedMonitor::endConversation(int clientId)
{
    if (pending && pending->clientId == clientId)
        pending.reset();
}

void EmulatedMonitor::prepareReply(const DdcRequest& request, Transaction& rec, int64_t nowUs, int clientId)
{
    if (state.faults.neverAnswer)
        return;
    uint8_t result = 0;
    unsigned max = 0, cur = 0;
    switch (request.code) {
    case 0x10:
        max = state.faults.maxZero ? 0 : state.max;
        cur = state.current;
        break;
    case 0x12:
        max = 100;
        cur = contrast;
        break;
    case 0xD6:
        max = 5;
        cur = state.power;
        break;
    default:
        result = 0x01;
        rec.note = "unsupported code";
        break;
    }
    Pending p;
    p.reply = {0x6E, 0x88, 0x02, result, static_cast<uint8_t>(request.code), 0x00,
               static_cast<uint8_t>(max >> 8), static_cast<uint8_t>(max & 0xFF),
               static_cast<uint8_t>(cur >> 8), static_cast<uint8_t>(cur & 0xFF), 0};
    uint8_t sum = 0x50;
    for (size_t i = 0; i < 10; ++i)
        sum ^= p.reply[i];
    p.reply[10] = sum;
    p.readyUs = nowUs + static_cast<int64_t>(state.replyDelayMs) * 1000;
    p.expiresUs = p.readyUs + static_cast<int64_t>(state.replyExpiryMs) * 1000;
    p.clientId = clientId;
    p.code = static_cast<uint8_t>(request.code);
    pending = p;
}

void EmulatedMonitor::apply(const DdcRequest& request, Transaction& rec, int64_t nowUs)
{
    const auto v = static_cast<uint16_t>(request.value);
    switch (request.code) {
    case 0x10:
        if (v > state.max && !state.faults.currentAboveMax) {
            state.current = state.max;
            rec.note = "clamped to max";
        } else {
            state.current = v;
        }
        break;
    case 0x12:
        contrast = std::min<uint16_t>(v, 100);
        break;
    case 0xD6:
        if (v == 1 || v == 4 || v == 5)
            setPower(static_cast<uint8_t>(v), nowUs);
        else
            rec.note = "invalid power mode";
        break;
    default:
        rec.note = "unsupported code";
        break;
    }
    busyUntilUs = nowUs + static_cast<int64_t>(state.busyMs) * 1000;
}

} // namespace VirtualDesk
