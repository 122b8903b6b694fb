// SPDX-License-Identifier: GPL-3.0-or-later
// The emulated evdev device: the input core's filtering and state, the grab, and the readers' queues with the
// kernel's overflow rule (what a reader has not read is dropped, SYN_DROPPED and the newest event stay).
#include "tools/virtual-desk/EmulatedKeyboard.h"

#include <cerrno>
#include <cstdio>
#include <ctime>

namespace VirtualDesk {

// ---------------------------------------------------------------------------------------------------------------
// Bitmap

void Bitmap::set(int bit, bool on)
{
    if (bit < 0 || bit > maxBit)
        return;
    const uint64_t mask = uint64_t{1} << (bit % 64);
    if (on)
        words[static_cast<size_t>(bit) / 64] |= mask;
    else
        words[static_cast<size_t>(bit) / 64] &= ~mask;
}

bool Bitmap::test(int bit) const
{
    return bit >= 0 && bit <= maxBit && (words[static_cast<size_t>(bit) / 64] >> (bit % 64) & 1) != 0;
}

bool Bitmap::any() const
{
    for (uint64_t w : words)
        if (w)
            return true;
    return false;
}

std::vector<int> Bitmap::list() const
{
    std::vector<int> out;
    for (int b = 0; b <= maxBit; ++b)
        if (test(b))
            out.push_back(b);
    return out;
}

std::vector<uint8_t> Bitmap::bytes() const
{
    std::vector<uint8_t> out;
    out.reserve(words.size() * 8);
    for (uint64_t w : words)
        for (int i = 0; i < 8; ++i)
            out.push_back(static_cast<uint8_t>(w >> (8 * i)));
    return out;
}

std::string Bitmap::sysfs() const
{
    // The kernel prints the longs from the most significant one down, skipping leading zero longs, each as %lx.
    std::string out;
    char buf[24];
    for (size_t i = words.size(); i-- > 0;) {
        if (out.empty() && words[i] == 0)
            continue;
        std::snprintf(buf, sizeof buf, "%llx", static_cast<unsigned long long>(words[i]));
        if (!out.empty())
            out += ' ';
        out += buf;
    }
    return out.empty() ? "0" : out;
}

Bitmap* InputCapabilities::bits(int type)
{
    return const_cast<Bitmap*>(static_cast<const InputCapabilities*>(this)->bits(type));
}

const Bitmap* InputCapabilities::bits(int type) const
{
    switch (type) {
    case 0: return &ev; // EVIOCGBIT(0): the event types
    case EV_KEY: return &key;
    case EV_REL: return &rel;
    case EV_ABS: return &abs;
    case EV_MSC: return &msc;
    case EV_LED: return &led;
    case EV_SND: return &snd;
    case EV_FF: return &ff;
    case EV_SW: return &sw;
    default: return nullptr;
    }
}

Clocks Clocks::now()
{
    auto us = [](clockid_t id) {
        timespec ts{};
        clock_gettime(id, &ts);
        return static_cast<int64_t>(ts.tv_sec) * 1000000 + ts.tv_nsec / 1000;
    };
    return {us(CLOCK_REALTIME), us(CLOCK_MONOTONIC), us(CLOCK_BOOTTIME)};
}

// ---------------------------------------------------------------------------------------------------------------
// The device

EmulatedKeyboard::EmulatedKeyboard(InputIdentity identity, InputCapabilities capabilities)
    : id(std::move(identity)), caps(std::move(capabilities))
{
    caps.ev.set(EV_SYN); // every input device reports EV_SYN
    caps.key.set(KEY_RESERVED, false);
}

bool EmulatedKeyboard::emit(uint16_t type, uint16_t code, int32_t value, const Clocks& when)
{
    if (!isAlive)
        return false;
    bool pass = false;
    switch (type) {
    case EV_SYN:
        if (code == SYN_REPORT) {
            const bool any = !frame.empty();
            if (any) {
                frame.push_back(StampedEvent{0, 0, 0, type, code, value});
                // The frame is stamped when it is handed over, one time for all its events, and goes to the
                // grabbing reader alone, else to every reader.
                for (auto& e : frame) {
                    e.realUs = when.realUs;
                    e.monoUs = when.monoUs;
                    e.bootUs = when.bootUs;
                }
                for (auto& [n, r] : readers)
                    if (grabbedBy ? n == grabbedBy : !r.revoked)
                        for (const auto& e : frame)
                            deliver(r, e);
            }
            frame.clear();
            return any;
        }
        pass = code == SYN_CONFIG || code == SYN_MT_REPORT; // SYN_DROPPED is the handler's own, never a device's
        break;
    case EV_KEY:
        if (caps.ev.test(EV_KEY) && caps.key.test(code)) {
            if (value == 2) {
                pass = true; // auto-repeat bypasses the state
            } else if (keys.test(code) != (value != 0)) {
                keys.set(code, value != 0);
                pass = true;
            }
        }
        break;
    case EV_MSC:
        pass = caps.ev.test(EV_MSC) && caps.msc.test(code);
        break;
    case EV_LED:
        if (caps.ev.test(EV_LED) && caps.led.test(code) && leds.test(code) != (value != 0)) {
            leds.set(code, value != 0);
            pass = true;
        }
        break;
    case EV_SW:
        if (caps.ev.test(EV_SW) && caps.sw.test(code) && switches.test(code) != (value != 0)) {
            switches.set(code, value != 0);
            pass = true;
        }
        break;
    case EV_SND:
        if (caps.ev.test(EV_SND) && caps.snd.test(code) && sounds.test(code) != (value != 0)) {
            sounds.set(code, value != 0);
            pass = true;
        }
        break;
    case EV_REP:
        if (caps.ev.test(EV_REP) && code <= REP_MAX && value >= 0 && rep[code] != static_cast<unsigned>(value)) {
            rep[code] = static_cast<unsigned>(value);
            pass = true;
        }
        break;
    case EV_REL:
        pass = caps.ev.test(EV_REL) && caps.rel.test(code) && value != 0;
        break;
    case EV_ABS:
    case EV_FF:
    default:
        pass = false; // no absolute axes or force feedback on these devices
        break;
    }
    if (pass)
        frame.push_back(StampedEvent{0, 0, 0, type, code, value});
    return false;
}

void EmulatedKeyboard::deliver(Reader& r, const StampedEvent& e)
{
    if (r.dropNext) {
        // As if the queue had overflowed at this event.
        r.dropNext = false;
        r.queue.clear();
        r.queue.push_back(StampedEvent{e.realUs, e.monoUs, e.bootUs, EV_SYN, SYN_DROPPED, 0});
        r.complete = 0;
    }
    r.queue.push_back(e);
    if (r.queue.size() >= kQueueSlots) {
        // The ring is full: everything unread is dropped; SYN_DROPPED and the newest event stay, readable once the
        // frame they start is complete.
        r.queue.clear();
        r.queue.push_back(StampedEvent{e.realUs, e.monoUs, e.bootUs, EV_SYN, SYN_DROPPED, 0});
        r.queue.push_back(e);
        r.complete = 0;
    }
    if (e.type == EV_SYN && e.code == SYN_REPORT)
        r.complete = r.queue.size();
}

void EmulatedKeyboard::open(int reader)
{
    readers.emplace(reader, Reader{});
}

void EmulatedKeyboard::close(int reader)
{
    if (grabbedBy == reader)
        grabbedBy = 0;
    readers.erase(reader);
}

int EmulatedKeyboard::grab(int reader)
{
    if (grabbedBy)
        return EBUSY;
    grabbedBy = reader;
    return 0;
}

int EmulatedKeyboard::ungrab(int reader)
{
    if (grabbedBy != reader)
        return EINVAL;
    grabbedBy = 0;
    return 0;
}

int EmulatedKeyboard::setClock(int reader, int clockId)
{
    if (clockId != CLOCK_REALTIME && clockId != CLOCK_MONOTONIC && clockId != CLOCK_BOOTTIME)
        return EINVAL;
    auto it = readers.find(reader);
    if (it == readers.end())
        return EINVAL;
    // The kernel drops what is queued when the clock changes: those events carry the other clock's times.
    it->second.clockId = clockId;
    it->second.queue.clear();
    it->second.complete = 0;
    return 0;
}

void EmulatedKeyboard::revoke(int reader)
{
    auto it = readers.find(reader);
    if (it == readers.end())
        return;
    it->second.revoked = true;
    it->second.queue.clear();
    it->second.complete = 0;
    if (grabbedBy == reader)
        grabbedBy = 0;
}

bool EmulatedKeyboard::revoked(int reader) const
{
    auto it = readers.find(reader);
    return it != readers.end() && it->second.revoked;
}

size_t EmulatedKeyboard::readable(int reader) const
{
    auto it = readers.find(reader);
    return it == readers.end() ? 0 : it->second.complete;
}

bool EmulatedKeyboard::anyReadable() const
{
    for (const auto& [n, r] : readers)
        if (r.complete > 0)
            return true;
    return false;
}

std::vector<StampedEvent> EmulatedKeyboard::take(int reader, size_t max)
{
    std::vector<StampedEvent> out;
    auto it = readers.find(reader);
    if (it == readers.end())
        return out;
    Reader& r = it->second;
    while (out.size() < max && r.complete > 0) {
        out.push_back(r.queue.front());
        r.queue.pop_front();
        --r.complete;
    }
    return out;
}

int EmulatedKeyboard::clock(int reader) const
{
    auto it = readers.find(reader);
    return it == readers.end() ? CLOCK_REALTIME : it->second.clockId;
}

void EmulatedKeyboard::overflowNext()
{
    for (auto& [n, r] : readers)
        r.dropNext = true;
}

} // namespace VirtualDesk
