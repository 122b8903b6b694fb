// The emulated DDC/CI monitor: request checks, Get VCP replies with their delay, Set VCP with its busy time, and
// the faults a monitor can be told to show.
#include "tools/virtual-desk/EmulatedMonitor.h"

#include "tools/virtual-desk/TransactionLog.h"

#include <algorithm>
#include <cerrno>

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

int EmulatedMonitor::write(const std::vector<uint8_t>& bytes, Transaction& rec, int64_t nowUs, int clientId)
{
    const DdcRequest request = decodeRequest(bytes);
    rec.request = request.kind;
    rec.code = request.code;
    rec.value = request.value;
    if (state.faults.nakWhileBusy && nowUs < busyUntilUs) {
        rec.note = "busy";
        return EREMOTEIO;
    }
    rec.note = request.note;
    if (request.kind == "get")
        prepareReply(request, rec, nowUs, clientId);
    else if (request.kind == "set")
        apply(request, rec, nowUs);
    return 0;
}

int EmulatedMonitor::read(std::size_t length, std::vector<uint8_t>& out, Transaction& rec, int64_t nowUs)
{
    if (state.faults.nakWhileBusy && nowUs < busyUntilUs) {
        rec.note = "busy";
        return EREMOTEIO;
    }
    if (state.faults.neverAnswer) {
        rec.note = "no answer";
        return EREMOTEIO;
    }
    if (!pending || nowUs >= pending->expiresUs) {
        pending.reset();
        rec.note = "nothing pending";
        return EREMOTEIO;
    }
    if (nowUs < pending->readyUs) {
        rec.note = "not ready";
        return EREMOTEIO;
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
    return 0;
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
            state.power = static_cast<uint8_t>(v);
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
