// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once
// The emulated DDC/CI monitor at 0x37: what it does with each request written to it and what each read returns.
// It knows nothing of umockdev, buses or descriptors beyond the number of the descriptor that talks to it; the desk
// hands it each message when the message completes on the wire, with the desk's clock. Not thread-safe: the desk
// calls it under its one mutex.
#include "tools/virtual-desk/VirtualDesk.h"

#include <array>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace VirtualDesk {

// A DDC/CI request as written to 0x37 (source address 0x51 first), decoded.
struct DdcRequest {
    std::string kind; // "get", "set", "invalid", "other"
    int code = -1;
    int value = -1;
    std::string note;
};

DdcRequest decodeRequest(const std::vector<uint8_t>& bytes);

// Whether the monitor acknowledged a message. What a host sees of a NAK (the errno) is the adapter's business.
enum class Answer { acknowledged, notAcknowledged };

class EmulatedMonitor {
public:
    explicit EmulatedMonitor(const MonitorConfig& config) : state(config) {}

    // A write to 0x37 that completes at `nowUs`, from descriptor `clientId`. Fills the record's request, code,
    // value and note.
    Answer write(const std::vector<uint8_t>& bytes, Transaction& rec, int64_t nowUs, int clientId);
    // A read of `length` bytes from 0x37 that completes at `nowUs`; when acknowledged, the bytes are in `out`.
    Answer read(std::size_t length, std::vector<uint8_t>& out, Transaction& rec, int64_t nowUs);
    // The monitor's own power button (or the desk's control): 1 on, 4 standby, 5 off. Waking takes wakeMs.
    void setPower(uint8_t mode, int64_t nowUs);

    // A Get VCP conversation is open from the request until its reply is read, replaced by a new request, dropped,
    // or `graceUs` after the reply became ready (a host that has not read by then has given up on it). The
    // descriptor whose conversation is open at `nowUs`, or 0.
    int openConversation(int64_t nowUs, int64_t graceUs) const;
    uint8_t openConversationCode() const { return pending ? pending->code : 0; }
    // Descriptor `clientId` was closed: its conversation ends.
    void endConversation(int clientId);
    // The monitor lost power or its cable: a reply it had prepared is gone.
    void dropReply() { pending.reset(); }

    MonitorConfig state;
    uint16_t contrast = 50;

private:
    void prepareReply(const DdcRequest& request, Transaction& rec, int64_t nowUs, int clientId);
    void apply(const DdcRequest& request, Transaction& rec, int64_t nowUs);
    bool inStandby() const { return state.power == 4 || state.power == 5; }
    void nullMessage(std::size_t length, std::vector<uint8_t>& out, Transaction& rec) const;

    int64_t busyUntilUs = 0;
    int64_t awakeAtUs = 0; // after a power-on, requests are ignored until then
    struct Pending {
        std::array<uint8_t, 11> reply{};
        int64_t readyUs = 0;
        int64_t expiresUs = 0;
        int clientId = 0;
        uint8_t code = 0;
    };
    std::optional<Pending> pending;
};

} // namespace VirtualDesk
